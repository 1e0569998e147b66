// QVHFSUncompressor: turns a compressed file back into a plain one, in place
// or into another path. The fork's blocks are inflated (on several threads if
// asked) into a new file built beside the destination, which gets the
// compressed file's user attributes (less the compression ones and our two
// markers), ACL, owner, mode and times, is flushed, and only then is renamed
// over the destination. Every failure before that rename leaves both files
// as they were.
//
// A file whose data fork is not empty while it carries the compressed form
// was written after it was compressed: neither version is whole, so it is
// refused (708) and nothing is overwritten.
#pragma once

#include <cstdint>
#include <string>

#include <sys/stat.h>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

class SiblingTempFile;

class ProcessInProcessRecord;

struct HFSExpandOptions {
  int workers = 1;  // threads inflating blocks
  // Records the file while the expanded copy is swapped in, for the next
  // run to repair should this one be killed there.
  ProcessInProcessRecord* record = nullptr;
};

class QVHFSUncompressor {
 public:
  // Expands the file at `path` in place. compressedSize: bytes of its fork;
  // uncompressedSize: bytes of content. Errors in kHFSErrorDomain: 705 (not
  // compressed), 700 (unreadable), 706 (corrupt), and our own refusals.
  static bool expandInPlacePath(Env& env, const std::string& path, Error* error = nullptr, int64_t* compressedSize = nullptr,
                                int64_t* uncompressedSize = nullptr, bool ignoreCompressionFlag = false,
                                const HFSExpandOptions& options = {});

  explicit QVHFSUncompressor(Env& env, std::string path, const HFSExpandOptions& options = {});

  // Expands into `destination`: over the file there (which keeps its own
  // metadata), or as a new file with the compressed file's owner, group,
  // ACL and mode when nothing is there. Either way the new file is its
  // owner's alone (0600) until it has them.
  bool expandTo(const std::string& destination, Error* error = nullptr, int64_t* compressedSize = nullptr,
                int64_t* uncompressedSize = nullptr);
  bool expand(Error* error = nullptr) { return expandTo(sourcePath_, error); }

  // Expand even without the compressed flag: start-up recovery's case, where
  // a conversion was cut short before the flag was set.
  bool ignoreCompressionFlag() const { return ignoreCompressionFlag_; }
  void setIgnoreCompressionFlag(bool ignore) { ignoreCompressionFlag_ = ignore; }

  // Expand the compressed version of a file written after compression
  // (into another path only: the data written stays where it is).
  void setAcceptWrittenData(bool accept) { acceptWrittenData_ = accept; }

  const std::string& sourcePath() const { return sourcePath_; }

 private:
  // Replaces the destination with the finished output; backs out when the
  // file was opened meanwhile.
  bool swapIn(SiblingTempFile& output, const std::string& destination, int sourceFd, const struct stat& opened,
              const struct stat& destinationStat, Error* error);

  std::string sourcePath_;
  HFSExpandOptions options_;
  Env& env_;
  bool ignoreCompressionFlag_ = false;
  bool acceptWrittenData_ = false;
};

}  // namespace zephlore
