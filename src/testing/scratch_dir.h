// A scratch folder for one test, removed with everything in it at the end.
// The default place, /dev/shm, is tmpfs: it holds 64 KiB attribute values,
// so compressed files work there.
#pragma once

#include <string>

namespace zephlore::testkit {

class ScratchDir {
 public:
  explicit ScratchDir(const std::string& base = "/dev/shm");
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace zephlore::testkit
