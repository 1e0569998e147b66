// The names under which the view has shown each file of several links.
// Every name is a file of its own to the kernel, which keeps its attributes
// for a moment: a change made through one name (a mode, an owner, a link
// count) is told to the others through them.
#pragma once

#include <sys/stat.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zephlore::view {

class LinkNames {
 public:
  // Notes that `path` names the file of `st`; only files of several links
  // (other than folders) are kept.
  void seen(const std::string& path, const struct stat& st);
  // The names known for the file of `st`, but `except`.
  std::vector<std::string> namesOf(const struct stat& st, const std::string& except) const;

 private:
  // Stale names are harmless (telling one only drops the kernel's copy of
  // its attributes): the table is only bounded.
  static constexpr size_t kMostFiles = 1 << 16;
  mutable std::mutex mutex_;
  std::map<std::pair<dev_t, ino_t>, std::set<std::string>> names_;
};

}  // namespace zephlore::view
