// Views over the watched folders. With "transparentView" on (and FUSE
// usable), every watched folder gets a view, so programs read its compressed
// files at full content; the helper itself works on the stored files beneath
// the views, through PathMap. A folder no longer watched keeps its view while
// a file in it is still compressed, since programs would read it empty.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "view/view_mounter.h"

namespace zephlore {

class KRFolderViews {
 public:
  explicit KRFolderViews(std::unique_ptr<view::ViewMounter> mounter = std::make_unique<view::ViewMounter>());

  // Main thread, with every new list of watched folders, before the watcher
  // gets it: mounts the missing views, releases those of folders no longer
  // watched, and maps the folders to the trees beneath.
  void foldersChanged(const std::optional<std::vector<std::string>>& folders, bool viewsWanted);

  // Points PathMap at the views that exist now (at start-up, before any
  // file is touched, and after a mount table change).
  void refreshMap();

  // One line per folder with a view: mounted, or kept and why.
  std::vector<std::string> describe() const;

 private:
  std::unique_ptr<view::ViewMounter> mounter_;
  std::vector<std::string> viewed_;          // watched folders with a view of ours
  std::map<std::string, std::string> kept_;  // former folders whose view stays -> why
};

}  // namespace zephlore
