#include "engine/file_repair.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "engine/compressed_file_info.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_refusals.h"
#include "engine/hfs_uncompressor.h"
#include "engine/open_for_writing.h"
#include "engine/opened_file_check.h"
#include "platform/attribute_fork.h"
#include "platform/attribute_names.h"
#include "platform/env.h"
#include "platform/file_flags.h"

namespace zephlore {
namespace {

using Outcome = QVFileRepair::Outcome;

Outcome failed(Error* error, int code, const std::string& message) {
  fail(error, kHFSErrorDomain, code, message);
  return Outcome::kFailed;
}

// Takes the compressed form off the file at `fd`: what remains is its data fork.
bool stripCompressedForm(Env& env, int fd, Error* error) {
  const FileRef file = FileRef::descriptor(fd);
  std::optional<uint32_t> flags = FileFlags::get(env, file);
  if (flags && (*flags & FileFlags::kUFCompressed) && !FileFlags::set(env, file, *flags & ~FileFlags::kUFCompressed)) {
    return fail(error, kHFSErrorDomain, kHFSErrorCannotStripCompression,
                std::string("cannot clear the compressed flag: ") + std::strerror(errno));
  }
  if (env.removexattr(file, attr::kDecmpfs) != 0 && errno != ENODATA) {
    return fail(error, kHFSErrorDomain, kHFSErrorCannotStripCompression,
                std::string("cannot remove the compression header: ") + std::strerror(errno));
  }
  // The signature describes the compressed form; the data fork is what stays.
  if (env.removexattr(file, attr::kSignature) != 0 && errno != ENODATA) {
    return fail(error, kHFSErrorDomain, kHFSErrorCannotStripCompression,
                std::string("cannot remove the compression signature: ") + std::strerror(errno));
  }
  Error why;
  if (!AttributeFork::remove(env, file, &why)) {
    return fail(error, kHFSErrorDomain, kHFSErrorCannotStripCompression, "cannot remove the compressed data: " + why.message);
  }
  return true;
}

Outcome repairWrittenAfterCompression(Env& env, const std::string& path, Error* error, std::string* what) {
  const std::string recovered = QVFileRepair::recoveredPathFor(path);
  struct stat st;
  if (env.lstat(recovered, &st) == 0) {
    return failed(error, kHFSErrorSwapFailed, recovered + " already exists: move it away and repair again");
  }
  // Locked throughout: no other run of ours converts the file meanwhile.
  UniqueFd lock(env.openLocked(path, O_RDONLY | O_NONBLOCK));
  if (!lock) return refuse(error, kHFSErrorLocked, path), Outcome::kFailed;
  // A program still writing would go on while its file changes form.
  struct stat locked;
  if (env.fstat(lock.get(), &locked) != 0) {
    return failed(error, kHFSErrorCouldNotOpen, path + ": " + std::strerror(errno));
  }
  if (!checkOpenedFile(locked, path, OwnerRule::kCallerOrRoot, error)) return Outcome::kFailed;
  if (WriterCheck writers = checkWriters(env, lock.get(), locked, path, false); writers.busy) {
    return refuse(error, kHFSErrorOpenForWriting, path, writers.why), Outcome::kFailed;
  }
  QVHFSUncompressor expander(env, path);
  expander.setAcceptWrittenData(true);
  if (!expander.expandTo(recovered, error)) return Outcome::kFailed;
  if (!stripCompressedForm(env, lock.get(), error)) return Outcome::kFailed;
  if (what) *what = "kept the data written after compression; the compressed version is at " + recovered;
  KRLog("Repaired %s: the compressed version is at %s", path.c_str(), recovered.c_str());
  return Outcome::kRepaired;
}

}  // namespace

std::string QVFileRepair::recoveredPathFor(const std::string& path) { return path + ".zephlore-recovered"; }

QVFileRepair::Outcome QVFileRepair::repairFile(Env& env, const std::string& path, Error* error, std::string* what) {
  CompressedFileInfo info;
  if (!CompressedFileInfo::inspect(env, path, &info, error)) return Outcome::kFailed;
  switch (info.state) {
    case CompressionState::kPlain:
    case CompressionState::kCompressed:
      return Outcome::kWhole;
    case CompressionState::kMixed:
      return repairWrittenAfterCompression(env, path, error, what);
    case CompressionState::kIncomplete:
      if (!info.hasDecmpfs) {
        return failed(error, kHFSErrorNotCompressed,
                      "File at path " + path + " was cut short before its size was written: its size is unknown");
      }
      if (!QVHFSUncompressor::expandInPlacePath(env, path, error, nullptr, nullptr, true)) return Outcome::kFailed;
      if (what) *what = "expanded a conversion that was cut short";
      return Outcome::kRepaired;
    case CompressionState::kNotOurs:
      break;
  }
  return failed(error, kHFSErrorCannotUncompress,
                "File at path " + path + " is damaged" + (info.problem.empty() ? "" : ": " + info.problem) +
                    "; left as it is");
}

}  // namespace zephlore
