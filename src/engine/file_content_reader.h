// Reads the content of a file as its user sees it: a plain file as it is, a
// compressed one by inflating the blocks of its resource fork. Nothing on
// Linux decompresses our files on the fly, so this is how they are read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "base/error.h"
#include "engine/compressed_file_info.h"
#include "engine/compressed_fork_reader.h"
#include "engine/fork_source.h"
#include "platform/env.h"

namespace zephlore {

class FileContentReader {
 public:
  // Opens a regular file (a final symbolic link is not followed). A mixed
  // file is refused with 708 (neither its data fork nor its old compressed
  // data is its whole content), an incomplete or foreign compressed form
  // with 705, a corrupt fork with 706.
  static std::unique_ptr<FileContentReader> open(Env& env, const std::string& path, Error* error);

  ~FileContentReader();
  FileContentReader(const FileContentReader&) = delete;
  FileContentReader& operator=(const FileContentReader&) = delete;

  bool isCompressed() const { return reader_ != nullptr; }
  uint64_t size() const { return size_; }
  const CompressedFileInfo& info() const { return info_; }

  // Up to n bytes of content at `offset`; *got is the count copied (0 at or
  // past the end). Not thread-safe.
  bool read(uint64_t offset, void* buf, size_t n, size_t* got, Error* error);
  // All of the content to `outFd` at its position (a pipe will do); a
  // compressed file is inflated on `workers` threads.
  bool copyTo(int outFd, int workers, Error* error);

 private:
  explicit FileContentReader(Env& env) : env_(env) {}

  Env& env_;
  UniqueFd fd_;
  uint64_t size_ = 0;
  CompressedFileInfo info_;
  std::unique_ptr<ForkSource> fork_;
  std::unique_ptr<CompressedForkReader> reader_;
};

}  // namespace zephlore
