#include "cli/files/file_actions.h"

#include <sys/stat.h>

#include <cerrno>

#include "cli/files/conversion_safety.h"
#include "engine/candidate_check.h"
#include "engine/compressed_file_info.h"
#include "engine/compression_signature.h"
#include "engine/extended_attributes_helper.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_uncompressor.h"

namespace zephlore::cli {
namespace {

constexpr uint64_t kDecmpfsBytes = 16;

// A file removed while it waited for its turn is not a failure.
FileResult failedOrVanished(Env& env, const FilePipeline::Job& job, const Error& error) {
  struct stat st;
  if (env.lstat(job.path, &st) != 0 && errno == ENOENT) {
    return skipped(job.path, SkipReason::kVanished, job.size, job.named);
  }
  return failed(job.path, error, job.size, job.named);
}

// A compression failure; a file too large for the form is marked as one that
// does not shrink is, so that neither we nor the helper try it again until it
// changes.
FileResult compressionFailed(Env& env, const FilePipeline::Job& job, const Error& error) {
  if (error.domain == kHFSErrorDomain && error.code == kHFSErrorTooLargeForForm) {
    KRExtendedAttributesHelper::setUncompressableAttributeAt(env, job.path);
  }
  // The helper working in the same folder holds the file it converts, or
  // has just converted it: its work, not a failure of ours.
  if (error.domain == kHFSErrorDomain && error.code == kHFSErrorLocked) {
    return skipped(job.path, SkipReason::kInUse, job.size, job.named);
  }
  if (error.domain == kHFSErrorDomain && error.code == kHFSErrorAlreadyCompressed) {
    return skipped(job.path, SkipReason::kAlreadyCompressed, job.size, job.named);
  }
  return failedOrVanished(env, job, error);
}

// The command's result for the engine's verdict: none for a candidate.
std::optional<FileResult> resultFor(const WalkEntry& entry, CandidateRejection rejection, const Error& error) {
  const uint64_t size = static_cast<uint64_t>(entry.st->st_size);
  if (rejection == CandidateRejection::kNone) return std::nullopt;
  if (rejection == CandidateRejection::kUnreadable) return failed(std::string(entry.path), error, size, entry.named);
  return skipped(std::string(entry.path), skipReasonFor(rejection), size, entry.named);
}

// Records the file being swapped for the next run to repair, should this
// one be killed there.
class CrashRecordKeeper : public QVHFSCompressedFileRepresentationDelegate {
 public:
  explicit CrashRecordKeeper(ProcessInProcessRecord* record) : record_(record) {}
  void compressorWillEnterCriticalSectionForFile(QVHFSCompressedFileRepresentation*,
                                                 const std::string& path) override {
    if (record_) record_->willProcessFile(path);
  }
  void compressorDidExitCriticalSectionForFile(QVHFSCompressedFileRepresentation*, const std::string&) override {
    if (record_) record_->didProcessFile();
  }

 private:
  ProcessInProcessRecord* record_;
};

class CompressAction : public FileAction {
 public:
  CompressAction(Env& env, const Clock& clock, bool verify, ConversionSafety* safety)
      : env_(env), clock_(clock), verify_(verify), safety_(safety) {}

  std::optional<FileResult> check(const WalkEntry& entry, bool dry_run) override {
    Error error;
    return resultFor(entry, checkCompressCandidate(env_, entry, !dry_run, &error), error);
  }

  void temporarySeen(const WalkEntry& entry) override {
    if (safety_) safety_->cleanFolderOf(std::string(entry.path));
  }

  FileResult run(const FilePipeline::Job& job, int workers) override {
    if (safety_) safety_->cleanFolderOf(job.path);
    HFSCompressionOptions options;
    options.workers = workers;
    options.verify = verify_;
    // Another program that opens the file during our swap (the helper
    // looking at it, say) undoes the swap: the file is tried again.
    for (int attempt = 1;; ++attempt) {
      Error error;
      std::optional<FileResult> result = compressOnce(job, options, &error);
      if (result) return *result;
      if (error.domain != kHFSErrorDomain || error.code != kHFSErrorOpenedDuringSwap || attempt == kSwapAttempts) {
        return compressionFailed(env_, job, error);
      }
    }
  }

 private:
  static constexpr int kSwapAttempts = 3;

  // The file's result, or none with *error set for a failed conversion.
  std::optional<FileResult> compressOnce(const FilePipeline::Job& job, const HFSCompressionOptions& options,
                                         Error* errorOut) {
    Error& error = *errorOut;
    CrashRecordKeeper guard(safety_ ? safety_->record() : nullptr);
    std::unique_ptr<QVHFSCompressedFileRepresentation> representation =
        QVHFSCompressedFileRepresentation::createFromContentsOfFile(env_, job.path, &error, &guard, options);
    if (!representation) {
      if (error.domain == kHFSErrorDomain && error.code == kHFSErrorNotCompressible) return notCompressible(job);
      return std::nullopt;
    }
    const uint64_t size = static_cast<uint64_t>(representation->sourceSize());
    const uint64_t stored = representation->forkSize() + kDecmpfsBytes;
    // The image is ready; a file that would not shrink is left as it is and
    // marked, so that neither we nor the helper try it again until it changes.
    if (stored >= size) return notCompressible(job);
    int64_t saved = 0;
    int64_t uncompressed = 0;
    if (!representation->saveToHFSCompressedFile(job.path, &error, &saved, &uncompressed)) return std::nullopt;
    KRExtendedAttributesHelper::setCompressionSignature(
        env_, KRCompressionSignature::signatureWithUncompressedSize(size, clock_), job.path);
    FileResult r;
    r.path = job.path;
    r.outcome = Outcome::kConverted;
    r.size_before = size;
    r.size_after = stored;
    r.disk_saved = saved;
    return r;
  }

  FileResult notCompressible(const FilePipeline::Job& job) {
    KRExtendedAttributesHelper::setUncompressableAttributeAt(env_, job.path);
    return skipped(job.path, SkipReason::kNotCompressible, job.size, job.named);
  }

  Env& env_;
  const Clock& clock_;
  bool verify_;
  ConversionSafety* safety_;
};

class DecompressAction : public FileAction {
 public:
  DecompressAction(Env& env, ConversionSafety* safety) : env_(env), safety_(safety) {}

  void temporarySeen(const WalkEntry& entry) override {
    if (safety_) safety_->cleanFolderOf(std::string(entry.path));
  }

  uint64_t workSize(const WalkEntry& entry) override {
    // A compressed file's data fork is empty: its size is in its header.
    if (entry.st->st_size != 0) return static_cast<uint64_t>(entry.st->st_size);
    CompressedFileInfo info;
    // The fork's table is read too: a damaged header's size must not count.
    if (!CompressedFileInfo::inspect(env_, std::string(entry.path), &info, nullptr)) return 0;
    return info.uncompressedSize;
  }

  std::optional<FileResult> check(const WalkEntry& entry, bool) override {
    Error error;
    return resultFor(entry, checkDecompressCandidate(env_, entry, &error), error);
  }

  FileResult run(const FilePipeline::Job& job, int workers) override {
    Error error;
    int64_t compressed = -1;
    int64_t uncompressed = -1;
    if (safety_) safety_->cleanFolderOf(job.path);
    HFSExpandOptions options;
    options.workers = workers;
    options.record = safety_ ? safety_->record() : nullptr;
    if (!QVHFSUncompressor::expandInPlacePath(env_, job.path, &error, &compressed, &uncompressed, false, options)) {
      return failedOrVanished(env_, job, error);
    }
    FileResult r;
    r.path = job.path;
    r.outcome = Outcome::kConverted;
    r.size_before = compressed >= 0 ? static_cast<uint64_t>(compressed) + kDecmpfsBytes : 0;
    r.size_after = uncompressed >= 0 ? static_cast<uint64_t>(uncompressed) : job.size;
    return r;
  }

 private:
  Env& env_;
  ConversionSafety* safety_;
};

}  // namespace

std::unique_ptr<FileAction> makeCompressAction(Env& env, const Clock& clock, bool verify, ConversionSafety* safety) {
  return std::make_unique<CompressAction>(env, clock, verify, safety);
}
std::unique_ptr<FileAction> makeDecompressAction(Env& env, ConversionSafety* safety) {
  return std::make_unique<DecompressAction>(env, safety);
}

}  // namespace zephlore::cli
