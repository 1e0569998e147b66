// Test support: what a user could notice about a file, read with the raw
// system calls (not through the code under test): content, mode, owner,
// times to the nanosecond, inode and every attribute (the ACL included).
#pragma once

#include <dirent.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "engine/compressed_file_info.h"
#include "engine/sibling_temp_file.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore::testkit {

inline std::map<std::string, std::string> attributesOf(const std::string& path) {
  std::map<std::string, std::string> out;
  char names[65536];
  ssize_t n = llistxattr(path.c_str(), names, sizeof names);
  for (ssize_t i = 0; i < n; i += static_cast<ssize_t>(strlen(names + i)) + 1) {
    std::string value(65536, '\0');
    ssize_t size = lgetxattr(path.c_str(), names + i, value.data(), value.size());
    value.resize(size > 0 ? static_cast<size_t>(size) : 0);
    out[names + i] = value;
  }
  return out;
}

struct FileSnapshot {
  std::string content;
  struct stat st {};
  std::map<std::string, std::string> attributes;

  static FileSnapshot take(const std::string& path) {
    FileSnapshot s;
    if (lstat(path.c_str(), &s.st) != 0) throw std::runtime_error("lstat " + path);
    s.content = readFile(path);
    s.attributes = attributesOf(path);
    return s;
  }
  auto key() const {
    return std::tie(content, st.st_mode, st.st_uid, st.st_gid, st.st_atim.tv_sec, st.st_atim.tv_nsec,
                    st.st_mtim.tv_sec, st.st_mtim.tv_nsec, attributes);
  }
  // A rewritten file has a new inode but must be the same in all else.
  bool sameExceptInode(const FileSnapshot& o) const { return key() == o.key(); }
  bool operator==(const FileSnapshot& o) const { return sameExceptInode(o) && st.st_ino == o.st.st_ino; }
};

inline std::ostream& operator<<(std::ostream& os, const FileSnapshot& s) {
  os << s.content.size() << " bytes, mode " << std::oct << s.st.st_mode << std::dec << ", inode " << s.st.st_ino
     << ", mtime " << s.st.st_mtim.tv_sec << "." << s.st.st_mtim.tv_nsec << ", attributes:";
  for (const auto& [name, value] : s.attributes) os << " " << name;
  return os;
}

// The names in a folder, hidden ones included, sorted.
inline std::vector<std::string> listFolder(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (struct dirent* e = readdir(d)) {
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The state the engine sees; kNotOurs when it cannot say.
inline CompressionState stateOf(const std::string& path, bool checkFork = true) {
  CompressedFileInfo info;
  return CompressedFileInfo::inspect(Env::system(), path, &info, nullptr, checkFork) ? info.state
                                                                                       : CompressionState::kNotOurs;
}

// Where a conversion of `path` keeps its compressed copy.
inline std::string copyNameOf(const std::string& path) {
  return SiblingTempFile::nameFor(path, SiblingTempFile::Kind::kCompressedCopy);
}

}  // namespace zephlore::testkit
