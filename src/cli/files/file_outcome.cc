#include "cli/files/file_outcome.h"

#include <cstring>

namespace zephlore::cli {

const char* skipReasonKey(SkipReason reason) {
  switch (reason) {
    case SkipReason::kNone: return "none";
    case SkipReason::kDirectory: return "directory";
    case SkipReason::kOtherVolume: return "other_volume";
    case SkipReason::kNotRegular: return "not_regular";
    case SkipReason::kTooSmall: return "too_small";
    case SkipReason::kAlreadyCompressed: return "already_compressed";
    case SkipReason::kMarkedNotCompressible: return "marked_not_compressible";
    case SkipReason::kCompressionAttributes: return "compression_attributes";
    case SkipReason::kNotOwned: return "not_owned";
    case SkipReason::kNotWritable: return "not_writable";
    case SkipReason::kHardLinks: return "hard_links";
    case SkipReason::kExecutable: return "executable";
    case SkipReason::kNotCompressible: return "not_compressible";
    case SkipReason::kNotCompressed: return "not_compressed";
    case SkipReason::kNotInGroup: return "not_in_group";
    case SkipReason::kUnsafeName: return "unsafe_name";
    case SkipReason::kEngineTemporary: return "engine_temporary";
    case SkipReason::kWhole: return "whole";
    case SkipReason::kVanished: return "vanished";
    case SkipReason::kInUse: return "in_use";
  }
  return "unknown";
}

const char* skipReasonText(SkipReason reason) {
  switch (reason) {
    case SkipReason::kNone: return "not skipped";
    case SkipReason::kDirectory: return "a directory (use -r)";
    case SkipReason::kOtherVolume: return "on another volume";
    case SkipReason::kNotRegular: return "not a regular file";
    case SkipReason::kTooSmall: return "smaller than 4096 bytes";
    case SkipReason::kAlreadyCompressed: return "already compressed";
    case SkipReason::kMarkedNotCompressible: return "marked not compressible";
    case SkipReason::kCompressionAttributes: return "written after compression";
    case SkipReason::kNotOwned: return "not owned by you";
    case SkipReason::kNotWritable: return "not writable";
    case SkipReason::kHardLinks: return "has other hard links";
    case SkipReason::kExecutable: return "executable";
    case SkipReason::kNotCompressible: return "does not shrink (marked)";
    case SkipReason::kNotCompressed: return "not compressed";
    case SkipReason::kNotInGroup: return "of a group you are not in";
    case SkipReason::kUnsafeName: return "a line feed or bytes that are not UTF-8 in its path";
    case SkipReason::kEngineTemporary: return "a temporary file of zephlore";
    case SkipReason::kWhole: return "nothing to repair";
    case SkipReason::kVanished: return "vanished";
    case SkipReason::kInUse: return "being converted by another program (the helper)";
  }
  return "unknown";
}

SkipReason skipReasonFor(CandidateRejection rejection) {
  switch (rejection) {
    case CandidateRejection::kNone: return SkipReason::kNone;
    case CandidateRejection::kNotRegular: return SkipReason::kNotRegular;
    case CandidateRejection::kTooSmall: return SkipReason::kTooSmall;
    case CandidateRejection::kAlreadyCompressed: return SkipReason::kAlreadyCompressed;
    case CandidateRejection::kCompressionAttributes: return SkipReason::kCompressionAttributes;
    case CandidateRejection::kNotOwned: return SkipReason::kNotOwned;
    case CandidateRejection::kNotInGroup: return SkipReason::kNotInGroup;
    case CandidateRejection::kUnsafeName: return SkipReason::kUnsafeName;
    case CandidateRejection::kHardLinks: return SkipReason::kHardLinks;
    case CandidateRejection::kExecutable: return SkipReason::kExecutable;
    case CandidateRejection::kNotWritable: return SkipReason::kNotWritable;
    case CandidateRejection::kMarkedNotCompressible: return SkipReason::kMarkedNotCompressible;
    case CandidateRejection::kNotCompressed: return SkipReason::kNotCompressed;
    case CandidateRejection::kVanished: return SkipReason::kVanished;
    case CandidateRejection::kUnreadable: return SkipReason::kNone;  // a failure, not a skip
  }
  return SkipReason::kNone;
}

const char* outcomeKey(Outcome outcome, Operation op) {
  const bool compress = op == Operation::kCompress;
  const bool repair = op == Operation::kRepair;
  switch (outcome) {
    case Outcome::kConverted: return repair ? "repaired" : compress ? "compressed" : "decompressed";
    case Outcome::kWouldConvert: return repair ? "would_repair" : compress ? "would_compress" : "would_decompress";
    case Outcome::kSkipped: return "skipped";
    case Outcome::kFailed: return "failed";
  }
  return "unknown";
}

const char* operationName(Operation op) {
  switch (op) {
    case Operation::kCompress: return "compress";
    case Operation::kDecompress: return "decompress";
    case Operation::kRepair: return "repair";
  }
  return "unknown";
}

Error posixError(int err, const std::string& what) {
  Error e;
  e.domain = kPosixErrorDomain;
  e.code = err;
  e.message = what.empty() ? std::string(strerror(err)) : what + ": " + strerror(err);
  return e;
}

}  // namespace zephlore::cli
