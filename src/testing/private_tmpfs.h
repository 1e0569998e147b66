// A tmpfs of a test's own under /tmp: it holds the compressed form's
// attributes (as /dev/shm does), and unlike /dev/shm no exclusion rule keeps
// it out, so the helper's watcher and analyzer work there. Mounting needs
// root; tests skip when mounted() is false.
#pragma once

#include <string>

namespace zephlore::testkit {

class PrivateTmpfs {
 public:
  explicit PrivateTmpfs(const std::string& size = "256m");
  ~PrivateTmpfs();
  PrivateTmpfs(const PrivateTmpfs&) = delete;
  PrivateTmpfs& operator=(const PrivateTmpfs&) = delete;

  bool mounted() const { return mounted_; }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_ = "/tmp/zephlore-tmpfs-XXXXXX";
  bool mounted_ = false;
};

}  // namespace zephlore::testkit
