// A file-system image made with `mkfs` (a shell command taking the image
// path as its last word) and loop-mounted at a fresh directory; unmounted and
// removed at the end. ok() is false, with skipReason() saying why, when this
// process may not mount or the tools are missing.
#pragma once

#include <string>

#include "testing/scratch_dir.h"

namespace zephlore::testkit {

class LoopMount {
 public:
  explicit LoopMount(const std::string& mkfs, const std::string& size = "64M");
  ~LoopMount();
  LoopMount(const LoopMount&) = delete;
  LoopMount& operator=(const LoopMount&) = delete;

  bool ok() const { return mounted_; }
  const std::string& skipReason() const { return reason_; }
  const std::string& path() const { return mountPoint_; }
  std::string operator/(const std::string& name) const { return mountPoint_ + "/" + name; }

 private:
  ScratchDir dir_;
  std::string image_;
  std::string mountPoint_;
  std::string reason_;
  bool mounted_ = false;
};

// mkfs command for ext4 as distributions make it: no large attribute values
// (ea_inode), so all of a file's attributes share about one block.
inline const char* kDefaultExt4 = "mkfs.ext4 -q -F -O ^ea_inode";

}  // namespace zephlore::testkit
