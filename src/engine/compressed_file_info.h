// Read-only inspection of one file: is it plain, compressed by us, left half
// converted, written into after it was compressed, or carrying a compressed
// form we do not understand; and the sizes that tell what compression bought.
//
// A file whose data fork is not empty is never treated as compressed,
// whatever attributes it carries: a program that wrote into a compressed file
// put its bytes there while the old compressed data stayed behind.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

enum class CompressionState {
  kPlain,       // none of the compressed form's attributes
  kCompressed,  // empty data fork, valid header and fork, the compressed flag
  kIncomplete,  // empty data fork and a fork, but no flag or no header: a conversion was cut short
  kMixed,       // data in the data fork beside compression attributes
  kNotOurs,     // empty data fork with attributes that are not a valid compressed form
};

// "plain", "compressed", "incomplete", "mixed", "not ours".
const char* compressionStateName(CompressionState state);

struct CompressedFileInfo {
  CompressionState state = CompressionState::kPlain;
  std::string problem;  // for the last three states: what is wrong, in words

  uint64_t dataForkSize = 0;      // st_size
  uint64_t allocatedBytes = 0;    // st_blocks * 512
  uint64_t uncompressedSize = 0;  // content size: the header's for compressed files, else st_size
  uint64_t headerSize = 0;        // the size the compression header gives (mixed files too), 0 without one
  uint64_t forkSize = 0;          // bytes of the resource fork, 0 without one
  uint64_t blockCount = 0;        // 64 KiB blocks in the fork's table (compressed files)

  // Which of the flag and marker attributes are present.
  bool hasCompressedFlag = false;  // UF_COMPRESSED in "com.quorvane.zephlore.flags"
  bool hasDecmpfs = false;         // "com.apple.decmpfs"
  bool hasResourceFork = false;    // "com.apple.ResourceFork"
  bool hasExcludeMarker = false;   // "com.quorvane.zephlore.exclude"
  bool hasSignature = false;       // "com.quorvane.zephlore.signature"

  // Compressed bytes per uncompressed byte (fork / content), 0 when either is 0.
  double ratio() const;
  // Disk space a compressed file saves, in 512-byte blocks: its content's
  // blocks less what it takes now (at least its fork and header, which some
  // file systems leave out of st_blocks); 0 for every other state.
  uint64_t savedBytes() const;

  // Inspects a regular file (a final symbolic link is not followed). Fails
  // for a path that cannot be examined (702) or is not a regular file (709);
  // every state above is a success. With `checkFork` false the fork's header
  // and table are not read (blockCount stays 0): a quick look for callers
  // that only need the state.
  static bool inspect(Env& env, const std::string& path, CompressedFileInfo* info, Error* error,
                      bool checkFork = true);
  // The same for an open file whose stat the caller has.
  static bool inspect(Env& env, int fd, const struct stat& st, CompressedFileInfo* info, Error* error,
                      bool checkFork = true);
};

}  // namespace zephlore
