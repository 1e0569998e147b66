#include "desktop/folder_views.h"

#include <algorithm>

#include "base/error.h"
#include "base/log.h"
#include "platform/path_map.h"
#include "platform/volume_capabilities.h"
#include "view/underlying_tree.h"

namespace zephlore {

KRFolderViews::KRFolderViews(std::unique_ptr<view::ViewMounter> mounter) : mounter_(std::move(mounter)) {}

void KRFolderViews::foldersChanged(const std::optional<std::vector<std::string>>& folders, bool viewsWanted) {
  const std::vector<std::string> wanted =
      viewsWanted && folders ? *folders : std::vector<std::string>{};
  // Folders that lost their view's reason: release the view unless a file
  // in it is still compressed (then it stays, and status says why).
  std::vector<std::string> released;
  for (const std::string& folder : viewed_) {
    if (std::find(wanted.begin(), wanted.end(), folder) == wanted.end()) released.push_back(folder);
  }
  for (const auto& [folder, why] : kept_) {
    if (std::find(wanted.begin(), wanted.end(), folder) == wanted.end()) released.push_back(folder);
  }
  kept_.clear();
  for (const std::string& folder : released) {
    std::string why;
    if (!mounter_->unmountIfUnused(folder, &why)) {
      KRLog("ZephloreHelper: %s: %s", folder.c_str(), why.c_str());
      kept_[folder] = why;
    }
  }
  viewed_.clear();
  for (const std::string& folder : wanted) {
    // Nothing there is ever compressed: a view would only slow it down.
    if (!VolumeCapabilities::canHoldCompressedForm(folder)) continue;
    Error error;
    if (mounter_->mountOver(folder, &error)) {
      viewed_.push_back(folder);
    } else {
      // The folder is still watched; programs read its compressed files
      // empty until a view covers it, so say it loudly.
      KRLog("*** %s", error.message.c_str());
    }
  }
  refreshMap();
}

void KRFolderViews::refreshMap() { PathMap::shared().replaceAll(view::liveViews()); }

std::vector<std::string> KRFolderViews::describe() const {
  std::vector<std::string> lines;
  for (const std::string& folder : viewed_) lines.push_back(folder + ": full content through its view");
  for (const auto& [folder, why] : kept_) lines.push_back(folder + ": " + why);
  return lines;
}

}  // namespace zephlore
