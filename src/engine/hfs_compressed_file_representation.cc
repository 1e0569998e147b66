#include "engine/hfs_compressed_file_representation.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "base/log.h"
#include "engine/attribute_fork_source.h"
#include "engine/attribute_space_failure.h"
#include "engine/compressed_file_info.h"
#include "engine/fork_image_writer.h"
#include "engine/fork_source.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_refusals.h"
#include "engine/hfs_uncompressor.h"
#include "engine/open_for_writing.h"
#include "engine/opened_file_check.h"
#include "engine/path_checks.h"
#include "engine/sibling_temp_file.h"
#include "engine/swap_window.h"
#include "platform/attribute_fork.h"
#include "platform/attribute_names.h"
#include "platform/critical_section.h"
#include "platform/file_flags.h"
#include "platform/metadata_copy.h"
#include "platform/temporary_files.h"
#include "platform/volume_capabilities.h"

namespace zephlore {
namespace {

using Kind = SiblingTempFile::Kind;

// Never carried from a file onto its compressed copy: the copy gets its own.
const std::vector<std::string>& compressionAttributes() {
  static const std::vector<std::string> names = {attr::kDecmpfs, attr::kResourceFork, attr::kFlags};
  return names;
}

bool sameTime(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool unchanged(const struct stat& now, const struct stat& then) {
  return sameTime(now.st_ctim, then.st_ctim) && sameTime(now.st_mtim, then.st_mtim) && now.st_size == then.st_size;
}

std::string errnoText(int err) { return std::strerror(err); }

bool couldNotCreate(Error* error, const std::string& path, const std::string& why) {
  return fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead,
              "Could not create compressed file at " + path + ": " + why);
}

// The names the copy gets after its fork: the file's own attributes (its
// ACL and security labels too; a label the copy already has is counted twice,
// which costs at most a piece), then the header, the flag and the signature.
uint64_t namesTheCopyWillGet(Env& env, int sourceFd) {
  const FileRef source = FileRef::descriptor(sourceFd);
  const ssize_t listed = env.xattrListSize(source);
  std::optional<std::vector<std::string>> names = env.listxattr(source);
  uint64_t bytes = listed > 0 ? static_cast<uint64_t>(listed) : 0;
  if (names) {
    for (const std::string& name : *names) {
      if (MetadataCopy::isSkipped(name, compressionAttributes()) || name == attr::kSignature) {
        bytes -= std::min(bytes, AttributeFork::listBytes(name));
      }
    }
  }
  for (const char* name : {attr::kDecmpfs, attr::kFlags, attr::kSignature}) bytes += AttributeFork::listBytes(name);
  return bytes;
}

// The attribute value of `name` equals `expected`.
bool attributeEquals(Env& env, const FileRef& file, const char* name, const void* expected, size_t n) {
  std::optional<std::vector<uint8_t>> value = env.getxattrValue(file, name);
  return value && value->size() == n && std::memcmp(value->data(), expected, n) == 0;
}

// The fork written straight into the attribute pieces of the copy that will
// replace the file, while the blocks are compressed.
class AttributeForkImageSink final : public ForkImageSink {
 public:
  AttributeForkImageSink(Env& env, AttributeForkWriter& fork, int copyFd, const std::string& path)
      : env_(env), fork_(fork), copyFd_(copyFd), path_(path) {}
  bool write(uint64_t offset, const void* data, size_t n, Error* error) override {
    Error why;
    return fork_.write(offset, data, n, &why) || failed(why, error);
  }
  bool finish(uint64_t size, Error* error) override {
    Error why;
    return fork_.finish(size, &why) || failed(why, error);
  }

 private:
  bool failed(const Error& why, Error* error) {
    Error explained;
    attributeWriteFailure(env_, &explained, path_, copyFd_, why.code, why.message, fork_.storedBytes());
    KRLog("*** Error creating resource fork when trying to compress: %s: %s", path_.c_str(),
          explained.message.c_str());
    if (error) *error = explained;
    return false;
  }

  Env& env_;
  AttributeForkWriter& fork_;
  const int copyFd_;
  const std::string& path_;
};

}  // namespace

// --- Building the fork image -------------------------------------------------

QVHFSCompressedFileRepresentation::QVHFSCompressedFileRepresentation(Env& env, Delegate* delegate,
                                                                     const HFSCompressionOptions& options)
    : delegate_(delegate), options_(options), env_(env) {}

// The image's file is unnamed (or unlinked at once): closing it is the
// cleanup, even after a crash.
QVHFSCompressedFileRepresentation::~QVHFSCompressedFileRepresentation() = default;

std::unique_ptr<QVHFSCompressedFileRepresentation> QVHFSCompressedFileRepresentation::createFromContentsOfFile(
    Env& env, const std::string& path, Error* error, Delegate* delegate, const HFSCompressionOptions& options) {
  std::unique_ptr<QVHFSCompressedFileRepresentation> representation(
      new QVHFSCompressedFileRepresentation(env, delegate, options));
  if (!representation->initWithContentsOfFile(path, error)) return nullptr;
  return representation;
}

std::unique_ptr<QVHFSCompressedFileRepresentation> QVHFSCompressedFileRepresentation::createFromData(
    Env& env, const void* data, size_t size, Error* error, const HFSCompressionOptions& options) {
  std::unique_ptr<QVHFSCompressedFileRepresentation> representation(
      new QVHFSCompressedFileRepresentation(env, nullptr, options));
  if (!representation->buildForkImage(-1, data, size, error)) return nullptr;
  return representation;
}

bool QVHFSCompressedFileRepresentation::initWithContentsOfFile(const std::string& path, Error* error) {
  Env& env = env_;
  if (!checkPathForRewrite(path, error)) return false;
  struct stat st;
  if (env.lstat(path, &st) != 0) {
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotOpen, "Could not stat source file at " + path);
  }
  if (!checkOpenedFile(st, path, OwnerRule::kCaller, error)) return false;

  // Lock probe: a cooperating program that holds the file's lock is at work.
  int probe = env.openLocked(path, O_WRONLY | O_NONBLOCK);
  if (probe == -1) {
    if (errno == EWOULDBLOCK) {
      return refuse(error, kHFSErrorLocked, path);
    }
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotOpen,
                "Could not open source file at " + path + ": " + errnoText(errno));
  }
  env.close(probe);

  // Reading for compression is not a use of the file: keep its access time
  // where the system allows (the owner, or a privileged process).
  sourceFd_.reset(env.open(path, O_RDONLY | O_NONBLOCK | O_NOATIME));
  if (!sourceFd_ && errno == EPERM) sourceFd_.reset(env.open(path, O_RDONLY | O_NONBLOCK));
  if (!sourceFd_) {
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotOpen,
                "Could not open source file at " + path + ": " + errnoText(errno));
  }
  struct stat opened;
  if (env.fstat(sourceFd_.get(), &opened) != 0 || !sameFile(opened, st)) {
    return refuse(error, kHFSErrorModified, path);
  }
  // What is read is what was opened, whatever the name leads to meanwhile.
  if (!checkOpenedFile(opened, path, OwnerRule::kCaller, error)) return false;

  CompressedFileInfo info;
  if (!CompressedFileInfo::inspect(env_, sourceFd_.get(), opened, &info, error, false)) return false;
  switch (info.state) {
    case CompressionState::kPlain:
      break;
    case CompressionState::kMixed:
      return refuse(error, kHFSErrorWrittenAfterCompression, path);
    case CompressionState::kCompressed:
      // Its data fork is empty: there is nothing to read and compress afresh.
      return refuse(error, kHFSErrorAlreadyCompressed, path);
    case CompressionState::kIncomplete:
    case CompressionState::kNotOurs:
      return refuse(error, kHFSErrorAlreadyCompressed, path, info.problem);
  }

  sourcePath_ = path;
  sourceStat_ = opened;
  lastModificationTimeOfPath_ = opened.st_ctim;
  return buildForkImage(sourceFd_.get(), nullptr, static_cast<size_t>(opened.st_size), error);
}

bool QVHFSCompressedFileRepresentation::buildForkImage(int sourceFd, const void* data, size_t size, Error* error) {
  sourceSize_ = static_cast<int64_t>(size);
  numBlocks_ = QVHFSCompressionStructsHelper::blocksRequiredForUncompressedSize(sourceSize_);
  ForkWriteOptions writeOptions;
  writeOptions.workers = options_.workers;
  writeOptions.verify = options_.verify;
  ForkWriteResult result;

  bool written;
  if (std::unique_ptr<SiblingTempFile> copy = sourceFd >= 0 ? unnamedCopyBesideSource() : nullptr) {
    // Straight into the copy's fork: no image to write and copy again.
    Error why;
    std::unique_ptr<AttributeForkWriter> fork = AttributeForkWriter::open(env_,
        FileRef::descriptor(copy->fd()), options_.verify, &why, namesTheCopyWillGet(env_, sourceFd));
    if (!fork) return attributeWriteFailure(env_, error, sourcePath_, copy->fd(), why.code, why.message, 0);
    AttributeForkImageSink sink(env_, *fork, copy->fd(), sourcePath_);
    written = writeForkImage(env_, sourceFd, size, sink, writeOptions, &result, error);
    if (written) stagedCopy_ = std::move(copy);
  } else {
    if (!createImageFile(error)) return false;
    written = sourceFd >= 0 ? writeForkImage(env_, sourceFd, size, imageFd_.get(), writeOptions, &result, error)
                            : writeForkImage(env_, data, size, imageFd_.get(), writeOptions, &result, error);
  }
  if (!written) return false;
  forkSize_ = result.forkSize;
  decmpfsData_ = QVHFSCompressionStructsHelper::createDecmpfsStructForSize(sourceSize_);
  return true;
}

std::unique_ptr<SiblingTempFile> QVHFSCompressedFileRepresentation::unnamedCopyBesideSource() {
  if (sourcePath_.empty()) return nullptr;
  auto copy = std::make_unique<SiblingTempFile>(env_, sourcePath_, Kind::kCompressedCopy);
  // A copy that has a name from the start would be left behind by a crash.
  if (!copy->create(0600) || copy->named()) return nullptr;
  return copy;
}

bool QVHFSCompressedFileRepresentation::createImageFile(Error* error) {
  Env& env = env_;
  Error why;
  std::optional<std::string> dir = TemporaryFiles::privateDirectory(&why);
  if (dir) {
    imageFd_.reset(env.openTmpFile(*dir, 0600));
    if (!imageFd_) {
      // No unnamed files there: a named one, unlinked at once.
      std::optional<TemporaryFiles::Created> created = TemporaryFiles::create(env_, "QVS-tmp.", &why, *dir);
      if (created) {
        env.unlink(created->path);
        imageFd_ = std::move(created->fd);
      }
    }
  }
  if (imageFd_) return true;
  KRLog("Could not create temporary file to hold compressed data");
  return fail(error, kHFSErrorDomain, kHFSErrorNoTemporaryFile,
              "Could not create temporary file to hold compressed data: " + why.message);
}

std::unique_ptr<ForkSource> QVHFSCompressedFileRepresentation::forkImage(Error* error) {
  if (imageFd_) return FdForkSource::open(env_, imageFd_.get(), error);
  if (stagedCopy_) return AttributeForkSource::open(env_, FileRef::descriptor(stagedCopy_->fd()), sourcePath_, error);
  fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead, "Could not read source data");
  return nullptr;
}

// --- Saving --------------------------------------------------------------------

bool QVHFSCompressedFileRepresentation::saveToHFSCompressedFile(const std::string& path, Error* error,
                                                               int64_t* savedSpace, int64_t* uncompressedSize) {
  if (uncompressedSize) *uncompressedSize = sourceSize_;
  if (!imageFd_ && !stagedCopy_) {
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead, "Could not read source data");
  }
  if (!checkPathForRewrite(path, error)) return false;
  struct stat st;
  if (env_.lstat(path, &st) != 0) {
    if (errno == ENOENT) return saveAsNewFile(path, error);
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotOpen,
                "Could not stat source file at " + path + ": " + errnoText(errno));
  }
  return saveInPlace(path, st, error, savedSpace);
}

// Marks a copy whose fork of `forkSize` bytes is in place as compressed: the
// header and the flag.
static bool markCompressed(Env& env, int copyFd, const HFSPlusDecmpfs& decmpfs, uint64_t forkSize,
                           const std::string& path, Error* error) {
  const FileRef copy = FileRef::descriptor(copyFd);
  if (env.setxattr(copy, attr::kDecmpfs, &decmpfs, sizeof decmpfs, 0) != 0) {
    int err = errno;
    return attributeWriteFailure(env, error, path, copyFd, err, "cannot set its compression header: " + errnoText(err),
                                 forkSize);
  }
  if (!FileFlags::set(env, copy, FileFlags::kUFCompressed)) {
    int err = errno;
    return attributeWriteFailure(env, error, path, copyFd, err, "cannot set its compressed flag: " + errnoText(err),
                                 forkSize);
  }
  return true;
}

bool QVHFSCompressedFileRepresentation::writeCompressedForm(int copyFd, const std::string& path, Error* error) {
  // The finished image must be there and not empty (even an empty file's
  // fork has its 314 bytes).
  std::unique_ptr<ForkSource> image = forkImage(error);
  if (!image) return false;
  if (image->size() == 0 || image->size() != forkSize_) {
    KRLog("======> compressedDataFile has 0 bytes, ignoring file <=======");
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead, "Could not read the compressed data");
  }
  Error why;
  const bool written = AttributeFork::writeFrom(env_,
      FileRef::descriptor(copyFd), forkSize_,
      [&image](uint64_t offset, void* buf, size_t n) {
        Error readError;
        if (image->readAt(offset, buf, n, &readError)) return true;
        errno = EIO;
        return false;
      },
      options_.verify, &why);
  if (!written) {
    Error explained;
    attributeWriteFailure(env_, &explained, path, copyFd, why.code, why.message, 0);
    KRLog("*** Error creating resource fork when trying to compress: %s: %s", path.c_str(),
          explained.message.c_str());
    if (error) *error = explained;
    return false;
  }
  return markCompressed(env_, copyFd, decmpfsData_, forkSize_, path, error);
}

bool QVHFSCompressedFileRepresentation::saveAsNewFile(const std::string& path, Error* error) {
  Env& env = env_;
  SiblingTempFile copy(env, path, Kind::kCompressedCopy);
  if (!copy.create(0600)) return couldNotCreate(error, path, errnoText(errno));
  if (!writeCompressedForm(copy.fd(), path, error)) return false;
  // A copy of a file takes its attributes and access; one made from bytes
  // is a new file of mode 0755.
  if (sourceFd_) {
    Error why;
    std::optional<MetadataSnapshot> metadata = MetadataCopy::capture(env_, sourceFd_.get(), &why);
    if (!metadata) return couldNotCreate(error, path, why.message);
    if (!MetadataCopy::copyUserAttributes(env_, FileRef::descriptor(sourceFd_.get()), FileRef::descriptor(copy.fd()),
                                          compressionAttributes(), &why)) {
      return attributeWriteFailure(env, error, path, copy.fd(), why.code, why.message, 0);
    }
    if (!MetadataCopy::applyAccess(env_, *metadata, copy.fd(), &why)) return couldNotCreate(error, path, why.message);
  } else if (env.fchmod(copy.fd(), 0755) != 0) {
    return couldNotCreate(error, path, errnoText(errno));
  }
  if (env.fsync(copy.fd()) != 0) return couldNotCreate(error, path, errnoText(errno));
  // Linking never replaces a file that appeared at the path meanwhile.
  if (!copy.linkAt(path)) return couldNotCreate(error, path, errnoText(errno));
  env.fsyncParentDirectory(path);
  return true;
}

bool QVHFSCompressedFileRepresentation::saveInPlace(const std::string& path, const struct stat& target, Error* error,
                                                    int64_t* savedSpace) {
  Env& env = env_;
  const bool isSource = !sourcePath_.empty() && sameFile(target, sourceStat_);
  if (!refuseTarget(path, target, isSource, error)) return false;

  // Held until the end: cooperating programs stay out, and no other run of
  // ours builds a copy of this file at the same time. It is opened for
  // reading (the kernel would count a descriptor of ours open for writing as
  // a writer), so write permission is asked for separately.
  struct stat locked;
  UniqueFd lock = lockTarget(path, target, isSource, &locked, error);
  if (!lock) return false;
  // Any change from here on shows in the status-change time (or, within one
  // tick of the clock, in the modification time or the size).
  const struct stat expected = isSource ? sourceStat_ : locked;

  std::unique_ptr<SiblingTempFile> copy = prepareCopy(path, lock.get(), isSource, error);
  if (!copy) return false;

  // The write lease needs the lock to be the file's only open descriptor.
  sourceFd_.reset();
  SwapWindow window(env_, lock.get());
  if (env.fstat(lock.get(), &locked) != 0 || !unchanged(locked, expected)) {
    KRLog("**** File %s modified while compressing, aborting", path.c_str());
    return refuse(error, kHFSErrorModified, path);
  }
  if (!checkOpenedFile(locked, path, OwnerRule::kCaller, error)) return false;
  if (WriterCheck writers = checkWriters(env, lock.get(), locked, path, window.leased()); writers.busy) {
    return refuse(error, kHFSErrorOpenForWriting, path, writers.why);
  }

  willEnterCriticalSection(path);
  std::string why = replaceFileAtDestination(path, *copy, lock.get(), expected, window);
  // Only now may a program that tried to open the file meanwhile go on: it
  // finds whichever version stays at the name.
  window.close();
  didExitCriticalSection(path);
  if (!why.empty()) {
    KRLog("Could not replace file %s with compressed copy, aborting", path.c_str());
    const int code = why == kOpenedDuringSwap ? kHFSErrorOpenedDuringSwap : kHFSErrorSwapFailed;
    return fail(error, kHFSErrorDomain, code, "Could not replace file at path " + path + " with its compressed copy: " + why);
  }
  env.fsyncParentDirectory(path);
  if (savedSpace) reportSavedSpace(path, target, savedSpace);
  return true;
}

bool QVHFSCompressedFileRepresentation::refuseTarget(const std::string& path, const struct stat& target, bool isSource,
                                                     Error* error) {
  if (!checkOpenedFile(target, path, OwnerRule::kCaller, error)) return false;
  if (!isSource && path == sourcePath_) {
    KRLog("**** File %s modified while compressing, aborting", path.c_str());
    return refuse(error, kHFSErrorModified, path);
  }
  return true;
}

UniqueFd QVHFSCompressedFileRepresentation::lockTarget(const std::string& path, const struct stat& target,
                                                       bool isSource, struct stat* locked, Error* error) {
  Env& env = env_;
  UniqueFd lock(env.access(path, W_OK) == 0 ? env.openLocked(path, O_RDONLY | O_NONBLOCK) : -1);
  if (!lock) {
    int err = errno;
    KRLog("**** Could not open destination file %s - locked?", path.c_str());
    if (err == EWOULDBLOCK) {
      refuse(error, kHFSErrorLocked, path);
    } else {
      fail(error, kHFSErrorDomain, kHFSErrorCouldNotOpen, "Could not open source file at " + path + ": " + errnoText(err));
    }
    return UniqueFd();
  }
  if (env.fstat(lock.get(), locked) != 0 || !sameFile(*locked, target)) {
    KRLog("**** File %s modified while compressing, aborting", path.c_str());
    refuse(error, kHFSErrorModified, path);
    return UniqueFd();
  }
  if (!checkOpenedFile(*locked, path, OwnerRule::kCaller, error)) return UniqueFd();
  if (isSource) return lock;
  CompressedFileInfo info;
  if (!CompressedFileInfo::inspect(env_, lock.get(), *locked, &info, error, false)) return UniqueFd();
  if (info.state == CompressionState::kMixed) {
    refuse(error, kHFSErrorWrittenAfterCompression, path);
    return UniqueFd();
  }
  if (info.state != CompressionState::kPlain && info.state != CompressionState::kCompressed) {
    refuse(error, kHFSErrorAlreadyCompressed, path, info.problem);
    return UniqueFd();
  }
  return lock;
}

std::unique_ptr<SiblingTempFile> QVHFSCompressedFileRepresentation::prepareCopy(const std::string& path, int lockFd,
                                                                               bool isSource, Error* error) {
  Env& env = env_;
  // What the copy keeps of the file. The access time is the one from before
  // the file was read for compression.
  Error why;
  std::optional<MetadataSnapshot> metadata = MetadataCopy::capture(env_, lockFd, &why);
  if (!metadata) return couldNotCreate(error, path, why.message), nullptr;
  if (isSource) metadata->st.st_atim = sourceStat_.st_atim;

  // The copy beside the source already holds the fork; any other file gets
  // a copy of its own. Either way the staged copy serves one save only.
  std::unique_ptr<SiblingTempFile> copy = std::move(stagedCopy_);
  if (isSource && copy && path == sourcePath_) {
    if (!markCompressed(env_, copy->fd(), decmpfsData_, forkSize_, path, error)) return nullptr;
  } else {
    stagedCopy_ = std::move(copy);  // still the image of the fork
    copy = std::make_unique<SiblingTempFile>(env, path, Kind::kCompressedCopy);
    if (!copy->create(0600)) return couldNotCreate(error, path, errnoText(errno)), nullptr;
    if (!writeCompressedForm(copy->fd(), path, error)) return nullptr;
  }
  if (!MetadataCopy::copyUserAttributes(env_, FileRef::descriptor(lockFd), FileRef::descriptor(copy->fd()),
                                        compressionAttributes(), &why)) {
    return attributeWriteFailure(env_, error, path, copy->fd(), why.code, why.message, forkSize_), nullptr;
  }
  if (!MetadataCopy::apply(env_, *metadata, copy->fd(), &why)) return couldNotCreate(error, path, why.message), nullptr;
  // The copy is complete on disk before it may replace the file.
  if (env.fsync(copy->fd()) != 0) return couldNotCreate(error, path, errnoText(errno)), nullptr;
  return copy;
}

// Space is counted in 512-byte blocks. Some file systems leave attributes out
// of st_blocks, so the fork's own size is the least the file now takes.
void QVHFSCompressedFileRepresentation::reportSavedSpace(const std::string& path, const struct stat& before,
                                                         int64_t* savedSpace) {
  struct stat after;
  if (env_.lstat(path, &after) != 0) return;
  int64_t forkBlocks = static_cast<int64_t>((forkSize_ + sizeof decmpfsData_ + 511) / 512);
  int64_t newBlocks = std::max<int64_t>(after.st_blocks, forkBlocks);
  if (before.st_blocks > newBlocks) *savedSpace = (before.st_blocks - newBlocks) * 512;
}

// --- The swap ------------------------------------------------------------------

const char* const QVHFSCompressedFileRepresentation::kOpenedDuringSwap = "the file was opened while it was swapped";

std::string QVHFSCompressedFileRepresentation::replaceFileAtDestination(const std::string& path, SiblingTempFile& copy,
                                                                        int lockFd, const struct stat& expectedContent,
                                                                        const SwapWindow& window) {
  Env& env = env_;
  if (!copy.link()) {
    int err = errno;
    KRLog("**** Could not name the compressed copy %s of %s, errno: %d [%s]", copy.name().c_str(), path.c_str(), err,
          strerror(err));
    return "cannot name the copy: " + errnoText(err);
  }
  if (!window.undisturbed()) return kOpenedDuringSwap;
  if (!options_.useExchange || !VolumeCapabilities::supportsExchange(env_, path)) {
    if (!window.undisturbed()) return kOpenedDuringSwap;
    if (env.rename(copy.name(), path) != 0) {
      int err = errno;
      KRLog("**** Could not move temporary file %s to final location %s, errno: %u [%s]\n", copy.name().c_str(),
            path.c_str(), static_cast<unsigned>(err), strerror(err));
      return "cannot move the copy in: " + errnoText(err);
    }
    copy.forgetName();
    return {};
  }

  struct stat copyStat, pathStat;
  if (env.fstat(copy.fd(), &copyStat) != 0 || env.lstat(copy.name(), &pathStat) != 0 ||
      !sameFile(copyStat, pathStat) || env.lstat(path, &pathStat) != 0) {
    return "the copy or the file changed before the swap";
  }
  if (env.exchange(copy.name(), path) != 0) {
    int err = errno;
    KRLog("**** Could not exchange %s with its compressed copy, errno: %d [%s]", path.c_str(), err, strerror(err));
    return "cannot exchange the names: " + errnoText(err);
  }
  // The path now names the compressed copy; the copy's name holds the old data.
  std::string doubt = checkSwapped(path, copyStat, lockFd, expectedContent);
  struct stat locked, old;
  if (doubt.empty() &&
      (env.fstat(lockFd, &locked) != 0 || env.lstat(copy.name(), &old) != 0 || !sameFile(old, locked))) {
    // Somebody put another file at the name just before the exchange, which
    // took that one: it goes back.
    doubt = "another file was put at the name meanwhile";
  }
  if (doubt.empty() && !window.undisturbed()) doubt = kOpenedDuringSwap;
  if (!doubt.empty()) {
    rollback(path, copy, copyStat);
    return doubt;
  }
  if (!copy.unlinkName()) {
    int err = errno;
    KRLog("**** Could not remove the original data of %s at %s, errno: %d [%s]", path.c_str(), copy.name().c_str(),
          err, strerror(err));
  }
  return {};
}

std::string QVHFSCompressedFileRepresentation::checkSwapped(const std::string& path, const struct stat& copyStat,
                                                           int lockFd, const struct stat& expectedContent) {
  Env& env = env_;
  const FileRef atPath = FileRef::atPath(path);
  if (!AttributeFork::isPresent(env_, atPath)) {
    KRLog("Resource fork could not be found, rolling back %s", path.c_str());
    return "the resource fork could not be found";
  }
  std::optional<uint32_t> flags = FileFlags::get(env_, atPath);
  if (!attributeEquals(env, atPath, attr::kDecmpfs, &decmpfsData_, sizeof decmpfsData_) || !flags ||
      !(*flags & FileFlags::kUFCompressed)) {
    KRLog("Compression attributes could not be found, rolling back %s", path.c_str());
    return "the compression attributes could not be found";
  }
  struct stat swapped, old;
  if (env.lstat(path, &swapped) != 0 || !sameFile(swapped, copyStat) || swapped.st_size != 0) {
    KRLog("Malformed file detected, rolling back temporary copy");
    return "malformed file detected";
  }
  // A write that reached the old data after the last check before the swap.
  // (The exchange itself changed its status-change time: compare contents'.)
  if (env.fstat(lockFd, &old) != 0 || !sameTime(old.st_mtim, expectedContent.st_mtim) ||
      old.st_size != expectedContent.st_size) {
    KRLog("**** File %s modified while compressing, aborting", path.c_str());
    return "the file was modified while compressing";
  }
  return {};
}

void QVHFSCompressedFileRepresentation::rollback(const std::string& path, SiblingTempFile& copy,
                                                 const struct stat& copyStat) {
  Env& env = env_;
  struct stat st;
  if (env.lstat(path, &st) != 0 || !sameFile(st, copyStat)) {
    // Someone else changed the path meanwhile: the copy's name holds the old
    // data, the only copy of it. Keep it.
    KRLog("**** The original data of %s is kept at %s", path.c_str(), copy.name().c_str());
    copy.forgetName();
    return;
  }
  if (env.exchange(path, copy.name()) == 0) return;  // the copy's name holds the copy again
  int err = errno;
  KRLog("**** Could not exchange back, error: %d [%s]", err, strerror(err));
  if (env.rename(copy.name(), path) == 0) {
    copy.forgetName();
    return;
  }
  err = errno;
  KRLog("**** The original data of %s is kept at %s, errno: %d [%s]", path.c_str(), copy.name().c_str(), err,
        strerror(err));
  copy.forgetName();
}

// The process-wide bracket holds back a quit asked for meanwhile (Ctrl-C, a
// crash path) until the swap and its record are both done.
void QVHFSCompressedFileRepresentation::willEnterCriticalSection(const std::string& path) {
  CriticalSection::enter();
  if (delegate_) delegate_->compressorWillEnterCriticalSectionForFile(this, path);
}

void QVHFSCompressedFileRepresentation::didExitCriticalSection(const std::string& path) {
  if (delegate_) delegate_->compressorDidExitCriticalSectionForFile(this, path);
  CriticalSection::leave();
}

// --- Class operations ------------------------------------------------------------

bool QVHFSCompressedFileRepresentation::compressInPlacePath(Env& env, const std::string& path, Error* error,
                                                           int64_t* savedSpace, int64_t* uncompressedSize, Delegate* delegate,
                                                           const HFSCompressionOptions& options) {
  std::unique_ptr<QVHFSCompressedFileRepresentation> representation =
      createFromContentsOfFile(env, path, error, delegate, options);
  if (!representation) return false;
  return representation->saveToHFSCompressedFile(path, error, savedSpace, uncompressedSize);
}

}  // namespace zephlore
