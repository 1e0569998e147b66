// QVHFSCompressedFileRepresentation: turns one ordinary file into the
// compressed form in place, as one transaction that either completes or
// leaves the file exactly as it was.
//
// The file is read in 64 KiB blocks, each compressed with zlib into a fork
// image in a private temporary file. A copy of the file is then built beside
// it, unnamed until the last moment: the image as its resource fork, the
// compression header, the compressed flag, and the file's user attributes,
// ACL, owner, mode and times; it is flushed to disk. Inside a short critical
// section, reported to the delegate so that it can record the file for crash
// recovery, the copy is given a name and swapped in by exchanging the two
// names atomically; the result is checked and swapped back on any doubt.
//
// Files it refuses, each with a clear error and untouched: anything but a
// regular file, a file with more than one hard link (exchanging names would
// leave the old data under the other names), a file already compressed or
// written into after it was compressed, a file locked, open for writing or
// changed by another process meanwhile, and paths the crash record could not
// hold faithfully (a line feed, bytes that are not UTF-8, over-long paths).
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "base/error.h"
#include "engine/hfs_compression_structs_helper.h"
#include "platform/env.h"

namespace zephlore {

class QVHFSCompressedFileRepresentation;
class ForkSource;
class SiblingTempFile;
class SwapWindow;

// Told when the file's critical section begins and ends. The compressor
// queue records the file as in process in between (KRFileInProcessWatchdog).
class QVHFSCompressedFileRepresentationDelegate {
 public:
  virtual ~QVHFSCompressedFileRepresentationDelegate() = default;
  virtual void compressorWillEnterCriticalSectionForFile(QVHFSCompressedFileRepresentation* compressor,
                                                         const std::string& path) {
    (void)compressor;
    (void)path;
  }
  virtual void compressorDidExitCriticalSectionForFile(QVHFSCompressedFileRepresentation* compressor,
                                                       const std::string& path) {
    (void)compressor;
    (void)path;
  }
};

struct HFSCompressionOptions {
  int workers = 1;           // threads compressing blocks
  bool verify = true;        // inflate every block again before the copy may replace the file
  bool useExchange = true;   // swap by exchanging names (the helper's "useSeamlessFileSwitch");
                             // else rename the copy over the file
};

class QVHFSCompressedFileRepresentation {
 public:
  using Delegate = QVHFSCompressedFileRepresentationDelegate;

  // Compresses the file at `path` in place. savedSpace: bytes of disk space
  // freed (left as set when the file did not shrink); uncompressedSize: the
  // file's size. Errors in kHFSErrorDomain: 700..704 and our own refusals
  // (hfs_refusal_codes.h).
  static bool compressInPlacePath(Env& env, const std::string& path, Error* error = nullptr,
                                  int64_t* savedSpace = nullptr, int64_t* uncompressedSize = nullptr,
                                  Delegate* delegate = nullptr, const HFSCompressionOptions& options = {});

  // Repairs the file a crash left inside its critical section, given the
  // size recorded for it: keeps a completed conversion, turns a half-made
  // one back into a plain file, and removes the temporary copy left beside
  // it. True when the file is whole (or gone); false when it is an empty
  // file without a fork or could not be repaired.
  static bool recoverInProcessFileAtPath(Env& env, const std::string& path, uint64_t expectedSize);

  // Reads and compresses the file (or the bytes) into a fork image. None,
  // with the error, on failure.
  static std::unique_ptr<QVHFSCompressedFileRepresentation> createFromContentsOfFile(
      Env& env, const std::string& path, Error* error = nullptr, Delegate* delegate = nullptr,
      const HFSCompressionOptions& options = {});
  static std::unique_ptr<QVHFSCompressedFileRepresentation> createFromData(
      Env& env, const void* data, size_t size, Error* error = nullptr, const HFSCompressionOptions& options = {});

  ~QVHFSCompressedFileRepresentation();
  QVHFSCompressedFileRepresentation(const QVHFSCompressedFileRepresentation&) = delete;
  QVHFSCompressedFileRepresentation& operator=(const QVHFSCompressedFileRepresentation&) = delete;

  // Writes the compressed form to `path`: in place of the file there (which
  // must be the source, unchanged, when the data came from a file there), or
  // as a new file when nothing is there (with the source file's access and
  // attributes, or for bytes, mode 0755).
  bool saveToHFSCompressedFile(const std::string& path, Error* error = nullptr,
                               int64_t* savedSpace = nullptr, int64_t* uncompressedSize = nullptr);

  const HFSPlusDecmpfs& decmpfsData() const { return decmpfsData_; }
  int64_t sourceSize() const { return sourceSize_; }
  uint64_t forkSize() const { return forkSize_; }
  uint64_t numBlocks() const { return numBlocks_; }
  const std::string& sourcePath() const { return sourcePath_; }

 private:
  QVHFSCompressedFileRepresentation(Env& env, Delegate* delegate, const HFSCompressionOptions& options);

  bool initWithContentsOfFile(const std::string& path, Error* error);
  bool buildForkImage(int sourceFd, const void* data, size_t size, Error* error);
  std::unique_ptr<SiblingTempFile> unnamedCopyBesideSource();
  bool createImageFile(Error* error);
  std::unique_ptr<ForkSource> forkImage(Error* error);
  bool writeCompressedForm(int copyFd, const std::string& path, Error* error);
  bool saveInPlace(const std::string& path, const struct stat& target, Error* error, int64_t* savedSpace);
  bool refuseTarget(const std::string& path, const struct stat& target, bool isSource, Error* error);
  // Opens the file for the swap under its lock and checks it is still ours to replace.
  UniqueFd lockTarget(const std::string& path, const struct stat& target, bool isSource, struct stat* locked,
                      Error* error);
  // The copy that will replace the file: fork, header, flag, attributes and metadata, on disk.
  std::unique_ptr<SiblingTempFile> prepareCopy(const std::string& path, int lockFd, bool isSource, Error* error);
  void reportSavedSpace(const std::string& path, const struct stat& before, int64_t* savedSpace);
  bool saveAsNewFile(const std::string& path, Error* error);
  // Names the copy and swaps it in; on any doubt after the swap (or when the
  // window saw an opener), swaps back. Empty when done, else why not.
  std::string replaceFileAtDestination(const std::string& path, SiblingTempFile& copy, int lockFd,
                                       const struct stat& expectedContent, const SwapWindow& window);
  // What is wrong with the file at `path` after the exchange; empty when nothing.
  std::string checkSwapped(const std::string& path, const struct stat& copyStat, int lockFd,
                           const struct stat& expectedContent);
  static const char* const kOpenedDuringSwap;
  void rollback(const std::string& path, SiblingTempFile& copy, const struct stat& copyStat);
  void willEnterCriticalSection(const std::string& path);
  void didExitCriticalSection(const std::string& path);

  Delegate* delegate_;
  HFSCompressionOptions options_;
  Env& env_;
  std::string sourcePath_;  // empty when built from data
  struct timespec lastModificationTimeOfPath_ {};  // the source's status-change time when opened
  struct stat sourceStat_ {};
  UniqueFd sourceFd_;
  int64_t sourceSize_ = 0;
  uint64_t numBlocks_ = 0;
  uint64_t forkSize_ = 0;
  // The fork image: written straight into the attributes of an unnamed copy
  // beside the source, which will replace it; else (data from memory, a
  // volume without unnamed files) an unnamed file in the private temporary
  // directory.
  std::unique_ptr<SiblingTempFile> stagedCopy_;
  UniqueFd imageFd_;
  HFSPlusDecmpfs decmpfsData_ {};
};

}  // namespace zephlore
