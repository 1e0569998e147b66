// The view's file system: the tree under one directory descriptor, with
// every compressed file shown at its full content. Plain files, directories
// and everything else pass straight through to the tree beneath; only the
// compressed layout is translated (sizes, reads, the hidden attributes) and
// a compressed file is expanded in place before anything writes to it.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "platform/env.h"
#include "view/block_prefetcher.h"
#include "view/inflated_block_cache.h"
#include "view/kept_pages.h"
#include "view/link_names.h"

struct fuse_operations;

namespace zephlore::view {

class ViewFileSystem {
 public:
  // `root` is the tree shown; `shownAs` names the mount point in log lines.
  ViewFileSystem(Env& env, UniqueFd root, std::string shownAs, size_t cacheBytes);

  // The operations table for fuse_new(); the private data is the ViewFileSystem.
  static const fuse_operations& operations();

  int rootFd() const { return root_.get(); }
  // A path that reaches the tree beneath even when the view covers it.
  std::string underlyingPath(const char* path) const;
  // Where a path of the view is shown, for log lines.
  std::string shownPath(const char* path) const;

  // The content size of a compressed file; none for any other file.
  // `file` reaches the file beneath and `st` is its stat; answers are kept
  // per inode and change time, which every change of the layout moves on.
  std::optional<uint64_t> compressedSize(const FileRef& file, const struct stat& st);
  std::optional<uint64_t> compressedSize(const char* path, const struct stat& st) {
    return compressedSize(FileRef::atPath(underlyingPath(path)), st);
  }
  // A file with data beside a compressed layout (the layout is kept per
  // version, like the sizes).
  bool isMixed(const FileRef& file, const struct stat& st);
  // Expands the file in place if it is compressed: 0, or -errno.
  int expandBeforeWriting(const char* path);
  // Logs, once per file, that a mixed file is shown as its data fork.
  void noteMixedFile(const char* path, const struct stat& st);

  // Whether replies may be spliced (the kernel and libfuse agreed to it).
  bool splicing() const { return splicing_; }
  void setSplicing(bool on) { splicing_ = on; }

  InflatedBlockCache& cache() { return cache_; }
  Env& env() { return env_; }
  BlockPrefetcher& prefetcher() { return prefetcher_; }
  KeptPages& keptPages() { return keptPages_; }
  LinkNames& linkNames() { return linkNames_; }

 private:
  Env& env_;
  UniqueFd root_;
  const std::string base_;  // the root, reached through its descriptor
  const std::string shownAs_;
  InflatedBlockCache cache_;
  BlockPrefetcher prefetcher_;  // after the cache: its work uses it
  KeptPages keptPages_;
  LinkNames linkNames_;
  bool splicing_ = false;  // set once, before any request
  // What a version of a file is: its content size when compressed, or one of these.
  static constexpr int64_t kPlain = -1, kMixed = -2;
  int64_t layoutOf(const FileRef& file, const struct stat& st);
  std::mutex sizesMutex_;
  std::unordered_map<FileVersion, int64_t, FileVersion::Hash> sizes_;  // by layoutOf()
  std::mutex expandMutex_;  // one expansion at a time
  std::mutex mixedMutex_;
  std::set<std::pair<dev_t, ino_t>> mixedReported_;
};

// Sets the size and blocks a program sees for a compressed file of `size` bytes.
void showContentSize(struct stat* st, uint64_t size);

}  // namespace zephlore::view
