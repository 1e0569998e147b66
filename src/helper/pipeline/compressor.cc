#include "helper/pipeline/compressor.h"

#include "platform/own_rewrites.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/list_util.h"
#include "base/log.h"
#include "base/notification_center.h"
#include "engine/compression_signature.h"
#include "engine/extended_attributes_helper.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "helper/lifecycle/file_in_process_watchdog.h"
#include "helper/pipeline/system_load_handler.h"
#include "helper/settings/helper_defaults.h"
#include "platform/thread_priority.h"

namespace zephlore {
namespace {

constexpr const char* kTickKey = "compressionTick";

std::string retryKey(const std::string& path) { return "retry " + path; }

// The engine's refusals of a file that was being written meanwhile: it had
// grown or changed while being read, was open for writing, or was opened
// during the swap. Once the file settles it can be compressed.
bool refusedWhileBeingWritten(const Error& error) {
  if (error.domain != kHFSErrorDomain) return false;
  switch (error.code) {
    case kHFSErrorModified:
    case kHFSErrorOpenForWriting:
    case kHFSErrorOpenedDuringSwap:
    case kHFSErrorCouldNotRead:
      return true;
    default:
      return false;
  }
}

// Once per worker thread: the user's own work always comes first.
void yieldToEverythingElse() {
  thread_local bool done = false;
  if (done) return;
  done = true;
  if (!setCurrentThreadNice(KRCompressor::kCompressionThreadNice)) {
    KRLog("Could not lower the compression thread's priority: %s", strerror(errno));
  }
  // On a core shared with a busy program, nice 10 alone still takes about a
  // tenth of it (the scheduler's weights are 1024 to 110); the idle class
  // gives the program all of it while it wants it.
  if (!setCurrentThreadIdleScheduling()) {
    KRLog("Could not put the compression thread in the idle scheduling class: %s", strerror(errno));
  }
  if (!setCurrentThreadIdleIoPriority()) {
    KRLog("Could not put the compression thread's I/O in the idle class: %s", strerror(errno));
  }
}

}  // namespace

KRCompressor::KRCompressor(RunLoop& mainLoop, Env& env, NotificationCenter& center, Parts parts)
    : mainLoop_(mainLoop),
      env_(env),
      center_(center),
      compressionQueue_(parts.compressionQueue),
      load_(parts.load),
      record_(parts.record),
      ownRewrites_(parts.ownRewrites),
      settings_(parts.settings) {
  if (!compressionQueue_) {
    ownQueue_ = std::make_unique<OperationQueue>(1);
    compressionQueue_ = ownQueue_.get();
  }
}

KRCompressor::~KRCompressor() {
  {
    std::lock_guard lock(loadWaitLock_);
    paused_ = true;
  }
  loadWaitCv_.notify_all();
  mainLoop_.cancelPerform(this, kTickKey);
  for (const std::string& path : retriesPending_) mainLoop_.cancelPerform(this, retryKey(path));
  if (ownQueue_) ownQueue_->waitUntilAllOperationsAreFinished();
}

void KRCompressor::setFolderWatchTest(FolderWatchTest test) {
  std::lock_guard lock(hooksLock_);
  folderWatchTest_ = std::move(test);
}

void KRCompressor::setSavingsRecorder(SavingsRecorder recorder) {
  std::lock_guard lock(hooksLock_);
  savingsRecorder_ = std::move(recorder);
}

void KRCompressor::setCompressionHold(CompressionHold hold) {
  std::lock_guard lock(hooksLock_);
  compressionHold_ = std::move(hold);
}

std::string KRCompressor::holdReason(const std::string& path) {
  CompressionHold hold;
  {
    std::lock_guard lock(hooksLock_);
    hold = compressionHold_;
  }
  return hold ? hold(path) : std::string();
}

void KRCompressor::setRetryHandler(RetryHandler handler) {
  std::lock_guard lock(hooksLock_);
  retryHandler_ = std::move(handler);
}

void KRCompressor::setLoadWaitHandler(LoadWaitHandler handler) {
  std::lock_guard lock(hooksLock_);
  loadWaitHandler_ = std::move(handler);
}

double KRCompressor::busyRetryDelay(int refusals) {
  double delay = kBusyRetryDelay;
  for (int i = 1; i < refusals && delay < kMaxBusyRetryDelay; ++i) delay *= 2;
  return std::min(delay, kMaxBusyRetryDelay);
}

void KRCompressor::noteOutcome(const std::string& path, bool busy) {
  if (!busy) {
    busyRefusals_.erase(path);
    return;
  }
  const int refusals = ++busyRefusals_[path];
  if (!retriesPending_.insert(path).second) return;
  mainLoop_.performAfterDelay(this, retryKey(path), seconds(busyRetryDelay(refusals)), [this, path] {
    retriesPending_.erase(path);
    RetryHandler handler;
    {
      std::lock_guard lock(hooksLock_);
      handler = retryHandler_;
    }
    if (handler) {
      handler(path);
    } else {
      addFiles({path});
    }
  });
}

bool KRCompressor::isWatched(const std::string& path) {
  FolderWatchTest test;
  {
    std::lock_guard lock(hooksLock_);
    test = folderWatchTest_;
  }
  return test && test(path);
}

Error KRCompressor::folderNotWatchedError(const std::string& path) {
  return Error{kHelperErrorDomain, kFolderNotWatchedErrorCode,
               "Not compressing file " + path + " because folder is no longer being watched"};
}

uint64_t KRCompressor::addFiles(const std::vector<std::string>& paths) {
  if (paths.empty()) return 0;
  uint64_t added = 0;
  {
    std::lock_guard lock(fileQueueLock_);
    for (const std::string& path : paths) {
      // Re-enters the queue's lock (recursive), then takes the set's.
      if (isInProcess(path) || !isWatched(path) || !holdReason(path).empty()) continue;
      fileQueue_.push_back(path);
      queuedPaths_.insert(path);
      ++added;
    }
  }
  mainLoop_.post([this] { scheduleTick(); });
  return added;
}

bool KRCompressor::isInProcess(const std::string& path) {
  {
    std::lock_guard lock(fileQueueLock_);
    if (queuedPaths_.count(path) != 0) return true;
  }
  std::lock_guard lock(filesBeingCompressedLock_);
  return filesBeingCompressed_.count(path) != 0;
}

void KRCompressor::scheduleTick() {
  mainLoop_.cancelPerform(this, kTickKey);
  bool queueEmpty;
  {
    std::lock_guard lock(fileQueueLock_);
    queueEmpty = fileQueue_.empty();
  }
  // A steady stream of additions postpones compression until it pauses.
  if (!queueEmpty) mainLoop_.performAfterDelay(this, kTickKey, seconds(kTickDelay), [this] { compressionTick(); });
  bool inFlightEmpty;
  {
    std::lock_guard lock(filesBeingCompressedLock_);
    inFlightEmpty = filesBeingCompressed_.empty();
  }
  center_.post(
      queueEmpty && inFlightEmpty ? kCompressionEndedNotification : kCompressionStartedNotification);
}

void KRCompressor::compressionTick() {
  std::vector<std::string> batch;
  {
    std::lock_guard lock(fileQueueLock_);
    batch = leftPopNumObjects(fileQueue_, kBatchSize);
    for (const std::string& path : batch) queuedPaths_.erase(queuedPaths_.find(path));
  }
  {
    std::lock_guard lock(filesBeingCompressedLock_);
    filesBeingCompressed_.insert(batch.begin(), batch.end());
  }
  // Even an empty batch goes through the queue: its completion is what
  // reports the end of compression.
  // Each file leaves the in-flight set as soon as it is done with, so the
  // completion lets go only of those the batch did not reach: one of the
  // others may be queued, or in a later batch, again by then.
  auto reached = std::make_shared<std::atomic<size_t>>(0);
  compressionQueue_->addOperation([this, batch, reached] { compressFiles(batch, *reached); },
                                  [this, batch, reached] {
                                    // A paused batch stays counted until
                                    // pauseCompression moves it back.
                                    if (paused_) return;
                                    {
                                      std::lock_guard lock(filesBeingCompressedLock_);
                                      for (size_t i = reached->load(); i < batch.size(); ++i) {
                                        filesBeingCompressed_.erase(batch[i]);
                                      }
                                    }
                                    mainLoop_.post([this] { scheduleTick(); });
                                  });
}

bool KRCompressor::waitForQuietSystem() {
  Clock& clock = mainLoop_.clock();
  const auto waiting = [this](bool now) {
    if (waitingForLoad_.exchange(now) == now) return;
    std::lock_guard hooks(hooksLock_);
    if (loadWaitHandler_) loadWaitHandler_(now);
  };
  for (;;) {
    if (!load_ || !(load_->currentCPULoad() > kMaxCPULoad || load_->currentDiskLoad() > kMaxDiskLoad)) {
      waiting(false);
      return !paused_;
    }
    waiting(true);
    std::unique_lock lock(loadWaitLock_);
    if (clock.waitUntil(lock, loadWaitCv_, clock.now() + seconds(kLoadRetestInterval),
                        [this] { return paused_.load(); })) {
      lock.unlock();
      waiting(false);
      return false;
    }
  }
}

void KRCompressor::compressFiles(const std::vector<std::string>& batch, std::atomic<size_t>& reached) {
  yieldToEverythingElse();
  HFSCompressionOptions options;
  options.workers = 1;
  options.useExchange = !settings_ || settings_->useSeamlessFileSwitch();
  for (const std::string& path : batch) {
    if (paused_) return;
    // A pause during the wait stops the batch here, before the file.
    if (!waitForQuietSystem()) return;
    Error error;
    const bool compressed = compressQueuedFile(path, options, &error);
    // Done with: a change from now on (or the retry of a refusal) must find
    // the file free to be queued again, though the batch goes on.
    {
      std::lock_guard lock(filesBeingCompressedLock_);
      filesBeingCompressed_.erase(path);
    }
    reached.fetch_add(1);
    postFileCompressed(path, compressed ? nullptr : &error);
  }
}

bool KRCompressor::compressQueuedFile(const std::string& path, const HFSCompressionOptions& options, Error* error) {
  // Asked again at the last moment: a hold may have come since the file
  // was queued.
  if (!isWatched(path)) {
    *error = folderNotWatchedError(path);
    return false;
  }
  if (const std::string held = holdReason(path); !held.empty()) {
    *error = Error{kHelperErrorDomain, kFolderHeldErrorCode, "Not compressing " + path + ": " + held};
    KRLogInfo("Not compressed %s: %s", path.c_str(), held.c_str());
    return false;
  }
  setFileInHand(path);
  center_.post(kFileWillCompressNotification, this, UserInfo{{kFileCompressedPathKey, path}});
  int64_t saved = 0;
  int64_t uncompressedSize = 0;
  // Where the event source cannot tell our writes by process, it tells
  // them by path (the signature below included).
  if (ownRewrites_) ownRewrites_->begin(path);
  bool compressed = compressInPlace(path, options, error, &saved, &uncompressedSize);
  // A save renamed over the name just after the swap leaves a plain file
  // there: marked as ours, later analyses would pass it over for days.
  // It is tried again like a file caught being written.
  if (compressed && !KRExtendedAttributesHelper::isCompressionAttributeSetAt(env_, path)) {
    compressed = false;
    *error = Error{kHFSErrorDomain, kHFSErrorModified, "File at path " + path + " was replaced while compressing"};
  }
  if (compressed) {
    recordCompressed(path, static_cast<uint64_t>(std::max<int64_t>(0, saved)),
                     static_cast<uint64_t>(std::max<int64_t>(0, uncompressedSize)));
  } else {
    recordNotCompressed(path, *error);
  }
  if (ownRewrites_) ownRewrites_->end(path);
  setFileInHand({});
  const bool busy = !compressed && refusedWhileBeingWritten(*error);
  mainLoop_.post([this, path, busy] { noteOutcome(path, busy); });
  return compressed;
}

void KRCompressor::recordCompressed(const std::string& path, uint64_t saved, uint64_t uncompressedSize) {
  KRExtendedAttributesHelper::setCompressionSignature(
      env_, KRCompressionSignature::signatureWithUncompressedSize(uncompressedSize, mainLoop_.clock()), path);
  SavingsRecorder recorder;
  {
    std::lock_guard lock(hooksLock_);
    recorder = savingsRecorder_;
  }
  if (recorder) recorder(saved, path);
  KRLogInfo("Compressed %s: %llu bytes saved of %llu", path.c_str(), static_cast<unsigned long long>(saved),
            static_cast<unsigned long long>(uncompressedSize));
}

void KRCompressor::recordNotCompressed(const std::string& path, const Error& error) {
  // Only the code is compared: the data does not shrink, so later analyses
  // pass the file over until it changes.
  if (error.code == kHFSErrorNotCompressible) {
    KRExtendedAttributesHelper::setUncompressableAttributeAt(env_, path);
    return;
  }
  KRLogInfo("Not compressed %s: %s", path.c_str(), error.message.c_str());
  // Too large for the form: not tried again until it changes either.
  if (error.code == kHFSErrorTooLargeForForm) KRExtendedAttributesHelper::setUncompressableAttributeAt(env_, path);
}

bool KRCompressor::compressInPlace(const std::string& path, const HFSCompressionOptions& options, Error* error,
                                   int64_t* saved, int64_t* uncompressedSize) {
  std::unique_ptr<QVHFSCompressedFileRepresentation> representation =
      QVHFSCompressedFileRepresentation::createFromContentsOfFile(env_, path, error, this, options);
  if (!representation) return false;
  // A block can shrink while the whole does not (a small file of noise: one
  // block, plus the fork's own tables): such a file stays as it is.
  constexpr uint64_t kHeaderBytes = sizeof(HFSPlusDecmpfs);
  if (representation->forkSize() + kHeaderBytes >= static_cast<uint64_t>(representation->sourceSize())) {
    return fail(error, kHFSErrorDomain, kHFSErrorNotCompressible, "Source data cannot be compressed: it would not shrink");
  }
  return representation->saveToHFSCompressedFile(path, error, saved, uncompressedSize);
}

void KRCompressor::postFileCompressed(const std::string& path, const Error* error) {
  UserInfo info{{kFileCompressedPathKey, path}};
  if (error) info.emplace(kFileCompressedErrorKey, *error);
  center_.post(kFileCompressedNotification, this, std::move(info));
}

void KRCompressor::removeFilesNoLongerBeingWatched() {
  std::lock_guard lock(fileQueueLock_);
  const std::deque<std::string> copy = fileQueue_;
  for (const std::string& path : copy) {
    if (isWatched(path)) continue;
    fileQueue_.erase(std::find(fileQueue_.begin(), fileQueue_.end(), path));
    queuedPaths_.erase(queuedPaths_.find(path));
    // Posted under the queue's lock: observers must not wait on another
    // thread that calls back into the compressor.
    const Error error = folderNotWatchedError(path);
    postFileCompressed(path, &error);
  }
}

void KRCompressor::pauseCompression() {
  {
    std::lock_guard lock(loadWaitLock_);
    paused_ = true;
  }
  loadWaitCv_.notify_all();
  mainLoop_.cancelPerform(this, kTickKey);
  std::vector<std::string> inFlight;
  {
    std::lock_guard lock(filesBeingCompressedLock_);
    inFlight.assign(filesBeingCompressed_.begin(), filesBeingCompressed_.end());
    filesBeingCompressed_.clear();
  }
  std::lock_guard lock(fileQueueLock_);
  fileQueue_.insert(fileQueue_.begin(), inFlight.begin(), inFlight.end());
  queuedPaths_.insert(inFlight.begin(), inFlight.end());
}

void KRCompressor::resumeCompression() {
  paused_ = false;
  scheduleTick();
}

std::vector<std::string> KRCompressor::queuedFiles() {
  std::lock_guard lock(fileQueueLock_);
  return {fileQueue_.begin(), fileQueue_.end()};
}

size_t KRCompressor::queuedFileCount() {
  std::lock_guard lock(fileQueueLock_);
  return fileQueue_.size();
}

std::string KRCompressor::fileInHand() {
  std::lock_guard lock(fileInHandLock_);
  return fileInHand_;
}

void KRCompressor::setFileInHand(const std::string& path) {
  std::lock_guard lock(fileInHandLock_);
  fileInHand_ = path;
}

size_t KRCompressor::filesBeingCompressedCount() {
  std::lock_guard lock(filesBeingCompressedLock_);
  return filesBeingCompressed_.size();
}

void KRCompressor::compressorWillEnterCriticalSectionForFile(QVHFSCompressedFileRepresentation*,
                                                             const std::string& path) {
  // Lock first, record second: the record never names a file whose swap
  // another thread could be in.
  criticalSectionLock_.lock();
  if (record_) record_->willProcessFile(path);
}

void KRCompressor::compressorDidExitCriticalSectionForFile(QVHFSCompressedFileRepresentation*,
                                                           const std::string& path) {
  if (record_) record_->didProcessFile(path);
  criticalSectionLock_.unlock();
}

}  // namespace zephlore
