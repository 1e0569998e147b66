#include "engine/hfs_uncompressor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "engine/attribute_fork_source.h"
#include "engine/compressed_file_info.h"
#include "engine/compressed_fork_reader.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_refusals.h"
#include "engine/open_for_writing.h"
#include "engine/opened_file_check.h"
#include "engine/process_records.h"
#include "engine/sibling_temp_file.h"
#include "engine/swap_window.h"
#include "base/log.h"
#include "platform/attribute_names.h"
#include "platform/metadata_copy.h"

namespace zephlore {
namespace {

// The compression attributes and our two markers describe the compressed
// file, not its content: the expanded file starts without them.
const std::vector<std::string>& attributesNotCarried() {
  static const std::vector<std::string> names = {attr::kExclude, attr::kSignature, attr::kResourceFork,
                                                 attr::kDecmpfs, attr::kFlags};
  return names;
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool readFailure(Error* error, const std::string& why) {
  return fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead, "Could not read source data: " + why);
}

bool writeFailure(Error* error, const std::string& destination, const std::string& why) {
  return fail(error, kHFSErrorDomain, kHFSErrorCouldNotWrite,
              "Could not create the expanded file at " + destination + ": " + why);
}

bool modified(Error* error, const std::string& path) {
  return fail(error, kHFSErrorDomain, kHFSErrorModified, "File at path " + path + " was modified while expanding");
}

}  // namespace

QVHFSUncompressor::QVHFSUncompressor(Env& env, std::string path, const HFSExpandOptions& options)
    : sourcePath_(std::move(path)), options_(options), env_(env) {}

bool QVHFSUncompressor::expandInPlacePath(Env& env, const std::string& path, Error* error, int64_t* compressedSize,
                                          int64_t* uncompressedSize, bool ignoreCompressionFlag,
                                          const HFSExpandOptions& options) {
  QVHFSUncompressor expander(env, path, options);
  expander.setIgnoreCompressionFlag(ignoreCompressionFlag);
  return expander.expandTo(path, error, compressedSize, uncompressedSize);
}

bool QVHFSUncompressor::expandTo(const std::string& destination, Error* error, int64_t* compressedSize,
                                 int64_t* uncompressedSize) {
  Env& env = env_;
  const std::string& source = sourcePath_;

  // The source, locked while it is read (a lock held elsewhere does not
  // stop the reading: the content is taken from the fork either way).
  struct stat sourceStat;
  if (env.lstat(source, &sourceStat) != 0) return readFailure(error, source + ": " + std::strerror(errno));
  if (!S_ISREG(sourceStat.st_mode)) {
    return refuse(error, kHFSErrorNotRegularFile, source);
  }
  UniqueFd sourceFd(env.openLocked(source, O_RDONLY | O_NONBLOCK));
  if (!sourceFd) sourceFd.reset(env.open(source, O_RDONLY | O_NONBLOCK));
  if (!sourceFd) return readFailure(error, source + ": " + std::strerror(errno));
  struct stat opened;
  if (env.fstat(sourceFd.get(), &opened) != 0 || !sameFile(opened, sourceStat)) return modified(error, source);
  if (!checkOpenedFile(opened, source, OwnerRule::kCallerOrRoot, error)) return false;

  CompressedFileInfo info;
  if (!CompressedFileInfo::inspect(env_, sourceFd.get(), opened, &info, error, false)) return false;
  switch (info.state) {
    case CompressionState::kCompressed:
      break;
    case CompressionState::kMixed:
      // Into another file, the compressed version can be taken out whole.
      if (acceptWrittenData_ && destination != source) break;
      return refuse(error, kHFSErrorWrittenAfterCompression, source);
    case CompressionState::kIncomplete:
      if (ignoreCompressionFlag_ && info.hasDecmpfs) break;
      [[fallthrough]];
    case CompressionState::kPlain:
    case CompressionState::kNotOurs:
      return fail(error, kHFSErrorDomain, kHFSErrorNotCompressed,
                  "Source file is not compressed at " + source + (info.problem.empty() ? "" : ": " + info.problem));
  }
  std::unique_ptr<AttributeForkSource> fork =
      AttributeForkSource::open(env_, FileRef::descriptor(sourceFd.get()), source, error);
  if (!fork) return false;
  // A file written after compression: its compressed version's own size.
  if (info.state == CompressionState::kMixed) info.uncompressedSize = info.headerSize;
  std::unique_ptr<CompressedForkReader> reader = CompressedForkReader::open(env_, *fork, info.uncompressedSize, error);
  if (!reader) return false;

  // The destination: replaced as a whole at the end, or created.
  struct stat destinationStat;
  bool replacing = env.lstat(destination, &destinationStat) == 0;
  if (!replacing && errno != ENOENT) return writeFailure(error, destination, std::strerror(errno));
  // In place, the name must still lead to the file that was read: another
  // file put there meanwhile is not a destination to replace.
  if (destination == source && (!replacing || !sameFile(destinationStat, opened))) return modified(error, source);
  // What the expanded file keeps: the replaced file's metadata, or for a new
  // file the access of the file it is made from (never more).
  int metadataFd = sourceFd.get();
  UniqueFd destinationFd;
  if (replacing) {
    if (!S_ISREG(destinationStat.st_mode)) {
      return refuse(error, kHFSErrorNotRegularFile, destination);
    }
    // Renaming over a file with other names would leave them the old content.
    if (destinationStat.st_nlink > 1) {
      return refuse(error, kHFSErrorHardLinks, destination);
    }
    if (!sameFile(destinationStat, opened)) {
      destinationFd.reset(env.open(destination, O_RDONLY | O_NONBLOCK));
      if (!destinationFd) return writeFailure(error, destination, std::strerror(errno));
      metadataFd = destinationFd.get();
    }
  }
  Error why;
  const std::optional<MetadataSnapshot> metadata = MetadataCopy::capture(env_, metadataFd, &why);
  if (!metadata) return writeFailure(error, destination, why.message);

  // The owner's alone until it has the access it keeps.
  SiblingTempFile output(env, destination, SiblingTempFile::Kind::kExpandedCopy);
  if (!output.create(0600)) return writeFailure(error, destination, std::strerror(errno));
  if (!reader->expandTo(output.fd(), options_.workers, error)) return false;
  struct stat written;
  if (env.fstat(output.fd(), &written) != 0) return writeFailure(error, destination, std::strerror(errno));
  if (static_cast<uint64_t>(written.st_size) != info.uncompressedSize) {
    return fail(error, kHFSErrorDomain, kHFSErrorCannotUncompress,
                "Source data cannot be uncompressed: it expanded to " + std::to_string(written.st_size) +
                    " bytes instead of " + std::to_string(info.uncompressedSize));
  }
  if (!MetadataCopy::copyUserAttributes(env_, FileRef::descriptor(sourceFd.get()), FileRef::descriptor(output.fd()),
                                        attributesNotCarried(), &why)) {
    return writeFailure(error, destination, why.message);
  }
  if (replacing ? !MetadataCopy::apply(env_, *metadata, output.fd(), &why)
                : !MetadataCopy::applyAccess(env_, *metadata, output.fd(), &why)) {
    return writeFailure(error, destination, why.message);
  }
  // On disk before it replaces anything: a power cut leaves one whole version.
  if (env.fsync(output.fd()) != 0) return writeFailure(error, destination, std::strerror(errno));

  if (replacing) {
    if (!swapIn(output, destination, sourceFd.get(), opened, destinationStat, error)) return false;
  } else if (!output.linkAt(destination)) {
    return writeFailure(error, destination, std::strerror(errno));
  }
  env.fsyncParentDirectory(destination);

  if (compressedSize) *compressedSize = static_cast<int64_t>(fork->size());
  if (uncompressedSize) *uncompressedSize = static_cast<int64_t>(info.uncompressedSize);
  return true;
}

bool QVHFSUncompressor::swapIn(SiblingTempFile& output, const std::string& destination, int sourceFd,
                               const struct stat& opened, const struct stat& destinationStat, Error* error) {
  Env& env = env_;
  const std::string& source = sourcePath_;
  struct stat now;
  if (env.lstat(destination, &now) != 0 || !sameFile(now, destinationStat)) return modified(error, destination);
  const bool inPlace = sameFile(now, opened);
  if (!inPlace && destination == source) return modified(error, source);
  // In place, the source's descriptor is the file's only one: a write lease
  // on it holds back anybody opening the file until the swap is settled.
  std::optional<SwapWindow> window;
  if (inPlace) window.emplace(env, sourceFd);
  if (env.fstat(sourceFd, &now) != 0 || now.st_ctim.tv_sec != opened.st_ctim.tv_sec ||
      now.st_ctim.tv_nsec != opened.st_ctim.tv_nsec) {
    return modified(error, source);
  }
  const bool leased = window && window->leased();
  // Elsewhere, the destination is asked about through a descriptor of its own.
  UniqueFd destinationFd;
  if (!inPlace) {
    destinationFd.reset(env.open(destination, O_RDONLY | O_NONBLOCK));
    if (!destinationFd || env.fstat(destinationFd.get(), &now) != 0 || !sameFile(now, destinationStat)) {
      return modified(error, destination);
    }
  }
  if (!checkOpenedFile(now, destination, OwnerRule::kCallerOrRoot, error)) return false;
  const WriterCheck writers = checkWriters(env, inPlace ? sourceFd : destinationFd.get(), now, destination, leased);
  if (writers.busy) {
    return refuse(error, kHFSErrorOpenForWriting, destination, writers.why);
  }
  // From the moment the output has a name until it is settled, a kill
  // leaves a second whole copy beside the file: recorded for repair.
  struct Recorded {
    ProcessInProcessRecord* record;
    Recorded(ProcessInProcessRecord* r, const std::string& path) : record(r) {
      if (record) record->willProcessFile(path);
    }
    ~Recorded() {
      if (record) record->didProcessFile();
    }
  } recorded(options_.record, destination);
  if (!output.link()) return writeFailure(error, destination, std::strerror(errno));
  const auto undisturbed = [&window] { return !window || window->undisturbed(); };
  const auto openedMeanwhile = [&] {
    return fail(error, kHFSErrorDomain, kHFSErrorOpenedDuringSwap,
                "Could not replace file at path " + destination + ": it was opened while it was swapped");
  };
  if (!undisturbed()) return openedMeanwhile();
  if (!leased || env.exchange(output.name(), destination) != 0) {
    // Without a lease (or an exchange) a late opener cannot be undone anyway.
    // A rename replaces whatever is at the name: it must still be the file
    // that was checked.
    struct stat last;
    if (env.lstat(destination, &last) != 0 || !sameFile(last, destinationStat)) return modified(error, destination);
    if (env.rename(output.name(), destination) != 0) return writeFailure(error, destination, std::strerror(errno));
    output.forgetName();
    return true;
  }
  // The output's name now holds the compressed file, unless somebody put
  // another file at the name just before the exchange: that one goes back.
  struct stat old;
  if (env.lstat(output.name(), &old) != 0 || !sameFile(old, opened)) {
    if (env.exchange(output.name(), destination) == 0) return modified(error, destination);
    KRLog("**** Could not exchange back %s, errno: %d [%s]", destination.c_str(), errno, std::strerror(errno));
    output.forgetName();
    return modified(error, destination);
  }
  if (!undisturbed()) {
    if (env.exchange(output.name(), destination) == 0) return openedMeanwhile();
    KRLog("**** Could not exchange back %s, errno: %d [%s]", destination.c_str(), errno, std::strerror(errno));
  }
  output.unlinkName();
  return true;
}

}  // namespace zephlore
