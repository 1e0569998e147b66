// One version of one file: a later file on the same inode, or the same file
// after any change, has another change time. The view keys what it keeps of a
// compressed file (its kind, its pages, its inflated blocks) by it.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace zephlore::view {

struct FileVersion {
  dev_t device = 0;
  ino_t inode = 0;
  int64_t changeTimeNs = 0;

  static FileVersion of(const struct stat& st) {
    return FileVersion{st.st_dev, st.st_ino,
                       static_cast<int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec};
  }
  bool operator==(const FileVersion&) const = default;

  struct Hash {
    size_t operator()(const FileVersion& v) const {
      size_t h = std::hash<uint64_t>()(static_cast<uint64_t>(v.inode));
      h = h * 31 + std::hash<uint64_t>()(static_cast<uint64_t>(v.device));
      return h * 31 + std::hash<int64_t>()(v.changeTimeNs);
    }
  };
};

}  // namespace zephlore::view
