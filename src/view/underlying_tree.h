// The files beneath a view. A view's process holds the tree it shows open,
// and the path of that descriptor reaches the tree even where the view
// covers it; so a
// process of the same user (the helper, zephlore decompress) can work on the
// stored files of a folder that programs see through a view.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace zephlore::view {

struct ViewCover {
  std::string mountPoint;  // where the view is mounted
  std::string beneath;     // the tree it shows, through the process's descriptor
};

// The view whose mount point is `path` or holds it (the innermost one);
// none when no view of ours covers it or its process is gone.
std::optional<ViewCover> viewCovering(const std::string& path);

// `path` made to reach the stored files when a view covers it
// (the descriptor's path + "/." for the mount point itself); `path` itself (absolute)
// otherwise.
std::string pathBeneathViews(const std::string& path);

// Every live view of ours: mount point -> the path reaching the tree it
// shows (the form PathMap takes).
std::map<std::string, std::string> liveViews();

}  // namespace zephlore::view
