// What happened to one file in a run of `zephlore compress` or `decompress`:
// converted, skipped for a reason, or failed with an error.
#pragma once

#include <cstdint>
#include <string>

#include "base/error.h"
#include "engine/candidate_check.h"

namespace zephlore::cli {

enum class Operation { kCompress, kDecompress, kRepair };

enum class Outcome {
  kConverted,   // compressed (or, for decompress, expanded)
  kWouldConvert,  // --dry-run: a candidate, left alone
  kSkipped,
  kFailed,
};

// Why a file was left alone. The order is the order of the summary table.
enum class SkipReason {
  kNone,
  kDirectory,               // a directory named without -r
  kOtherVolume,             // a directory on another volume (without --cross-volumes)
  kNotRegular,              // symbolic link, fifo, device, socket
  kTooSmall,                // below 4096 bytes
  kAlreadyCompressed,
  kMarkedNotCompressible,   // carries a valid not-compressible marker
  kCompressionAttributes,   // carries compression attributes but has data (written after compression)
  kNotOwned,
  kNotWritable,
  kHardLinks,               // more than one hard link
  kExecutable,              // any execute bit: a program that read empty would fail
  kNotCompressible,         // its data does not shrink: marked now
  kNotCompressed,           // decompress: a plain file
  kNotInGroup,              // its group is not one of yours: the copy could not keep it
  kUnsafeName,              // a line feed or bytes that are not UTF-8 in its path
  kEngineTemporary,         // a temporary file of ours beside a file being converted
  kWhole,                   // repair: plain or compressed, nothing to repair
  kVanished,                // removed while the run went on
  kInUse,                   // another program (the helper) is converting it right now
};
inline constexpr int kSkipReasonCount = static_cast<int>(SkipReason::kInUse) + 1;

// Stable key for JSON ("too_small").
const char* skipReasonKey(SkipReason reason);
// Words for people ("smaller than 4096 bytes").
const char* skipReasonText(SkipReason reason);

// The command's reason for the engine's verdict on a file.
SkipReason skipReasonFor(CandidateRejection rejection);

const char* outcomeKey(Outcome outcome, Operation op);  // "compressed", "would_compress", ...
const char* operationName(Operation op);              // "compress" / "decompress"

struct FileResult {
  std::string path;  // raw bytes, as walked
  Outcome outcome = Outcome::kSkipped;
  SkipReason reason = SkipReason::kNone;
  Error error;  // kFailed only
  // Bytes of the file before and after: the uncompressed size and the bytes
  // the compressed form stores (fork and header). For a skipped file both are
  // its size.
  uint64_t size_before = 0;
  uint64_t size_after = 0;
  // Space the file system gave back (allocation blocks before minus after),
  // as the engine measures it; 0 when unknown.
  int64_t disk_saved = 0;
  bool named = false;  // named on the command line (not found in a walk)
  // For the progress line: a regular file, and the bytes it stands for (its
  // uncompressed size).
  bool regular = false;
  uint64_t work_bytes = 0;
};

inline FileResult skipped(std::string path, SkipReason reason, uint64_t size, bool named) {
  FileResult r;
  r.path = std::move(path);
  r.outcome = Outcome::kSkipped;
  r.reason = reason;
  r.size_before = r.size_after = size;
  r.named = named;
  return r;
}

inline FileResult failed(std::string path, Error error, uint64_t size, bool named) {
  FileResult r;
  r.path = std::move(path);
  r.outcome = Outcome::kFailed;
  r.error = std::move(error);
  r.size_before = r.size_after = size;
  r.named = named;
  return r;
}

// Errors the command itself reports (a walk that could not read a folder,
// a file that could not be examined) carry the system's error number in this
// domain.
inline constexpr const char* kPosixErrorDomain = "posix";
Error posixError(int err, const std::string& what);

}  // namespace zephlore::cli
