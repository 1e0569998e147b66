// Test support: everything a user could notice about a file, taken with the
// raw system calls (not through the code under test), so that a test can
// say "this file is exactly as it was": content, mode, owner, times to the
// nanosecond, inode, every extended attribute (the POSIX ACL included).
#pragma once

#include <sys/stat.h>
#include <sys/xattr.h>
#include <dirent.h>

#include <algorithm>

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "engine/scratch_dir_for_tests.h"

namespace zephlore::testing {

struct FileSnapshot {
  std::string content;
  mode_t mode = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  ino_t inode = 0;
  int64_t atimeNs = 0;
  int64_t mtimeNs = 0;
  std::map<std::string, std::string> attributes;  // full Linux names

  static FileSnapshot take(const std::string& path) {
    FileSnapshot s;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) throw std::runtime_error("lstat " + path);
    s.content = readFile(path);
    s.mode = st.st_mode;
    s.uid = st.st_uid;
    s.gid = st.st_gid;
    s.inode = st.st_ino;
    s.atimeNs = st.st_atim.tv_sec * 1000000000LL + st.st_atim.tv_nsec;
    s.mtimeNs = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
    s.attributes = attributesOf(path);
    return s;
  }

  static std::map<std::string, std::string> attributesOf(const std::string& path) {
    std::map<std::string, std::string> out;
    ssize_t n = llistxattr(path.c_str(), nullptr, 0);
    if (n <= 0) return out;
    std::string names(static_cast<size_t>(n), '\0');
    n = llistxattr(path.c_str(), names.data(), names.size());
    for (size_t i = 0; n > 0 && i < static_cast<size_t>(n);) {
      std::string name(names.c_str() + i);
      i += name.size() + 1;
      ssize_t size = lgetxattr(path.c_str(), name.c_str(), nullptr, 0);
      std::string value(size > 0 ? static_cast<size_t>(size) : 0, '\0');
      if (size > 0) lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
      out[name] = value;
    }
    return out;
  }

  // Everything but the inode (a rewrite gives the file a new one).
  bool sameExceptInode(const FileSnapshot& o) const {
    return content == o.content && mode == o.mode && uid == o.uid && gid == o.gid && atimeNs == o.atimeNs &&
           mtimeNs == o.mtimeNs && attributes == o.attributes;
  }
  bool operator==(const FileSnapshot& o) const { return sameExceptInode(o) && inode == o.inode; }
};

inline std::ostream& operator<<(std::ostream& os, const FileSnapshot& s) {
  os << "{" << s.content.size() << " bytes, mode " << std::oct << s.mode << std::dec << ", inode " << s.inode
     << ", atime " << s.atimeNs << ", mtime " << s.mtimeNs << ", attributes:";
  for (const auto& [name, value] : s.attributes) os << " " << name << "(" << value.size() << ")";
  return os << "}";
}

// The names in a folder, hidden ones included.
inline std::vector<std::string> listFolder(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (struct dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace zephlore::testing
