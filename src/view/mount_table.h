// Views in the mount table, and unmounting them through fusermount3 (which
// works for an unprivileged user and for a view whose process is gone).
#pragma once

#include <string>
#include <vector>

#include "base/error.h"

namespace zephlore::view {

// The file-system type views carry in the mount table.
inline constexpr const char* kViewFileSystemType = "fuse.zephlore";

struct ViewMountEntry {
  std::string mountPoint;  // unescaped
  std::string source;      // unescaped
};

// The views in the mount table, in its order (later ones lie on top).
std::vector<ViewMountEntry> viewMounts();

// Whether a view is mounted exactly on `mountPoint` (an absolute path).
bool isViewMounted(const std::string& mountPoint);
// Whether the view there has lost its process (ENOTCONN).
bool isViewDisconnected(const std::string& mountPoint);

// Unmounts the view on `mountPoint`; `lazy` detaches it even while files in
// it are open. Fails (and changes nothing) when no view is mounted there.
bool unmountView(const std::string& mountPoint, bool lazy, Error* error);

// `path` made absolute and without "." or ".." (the mount table's form),
// without following a final symbolic link.
std::string absolutePath(const std::string& path);

// A field of the mount table with its octal escapes undone ("\040" is a space).
std::string unescapeMountField(const std::string& field);

}  // namespace zephlore::view
