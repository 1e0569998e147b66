// The compressor queue on real files on tmpfs, the real engine and the real
// crash record, with time driven by a manual clock and the load answered by
// the test.
#include "helper/pipeline/compressor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <optional>
#include <set>

#include <gtest/gtest.h>

#include "base/data_folder.h"

#include "engine/extended_attributes_helper.h"
#include "engine/file_content_reader.h"
#include "engine/hooked_env_for_tests.h"
#include "helper/lifecycle/file_in_process_watchdog.h"
#include "helper/pipeline/pipeline_test_support.h"
#include "platform/thread_priority.h"
#include "testing/bounded_wait.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::FixedLoad;
using testkit::NotificationRecorder;
using testkit::PostedNotification;

class CompressorTest : public ::testing::Test {
 protected:
  CompressorTest() {
    compressor.setFolderWatchTest([this](const std::string& path) {
      std::lock_guard lock(watchedLock);
      return path.rfind(watched, 0) == 0;
    });
    compressor.setSavingsRecorder([this](uint64_t saved, const std::string&) { savings += saved; });
  }
  ~CompressorTest() override { queue.waitUntilAllOperationsAreFinished(); }

  std::vector<std::string> makeFiles(int count, const std::string& prefix = "f") {
    std::vector<std::string> paths;
    for (int i = 0; i < count; ++i) {
      std::string path = dir / (prefix + std::to_string(i));
      testkit::writeFile(path, testkit::compressibleData(8192, static_cast<uint32_t>(i)));
      paths.push_back(path);
    }
    return paths;
  }
  void unwatchAll() {
    std::lock_guard lock(watchedLock);
    watched = "/nowhere/";
  }
  // Lets a finished batch's completion reach the main loop and run there.
  void finishBatches() {
    queue.waitUntilAllOperationsAreFinished();
    loop.runUntilIdle();
  }
  void advance(double s) {
    clock.advance(seconds(s));
    loop.runUntilIdle();
  }
  void runBatch() {
    loop.runUntilIdle();  // the queue's tick is set from the addition on
    advance(KRCompressor::kTickDelay);
    finishBatches();
  }
  // A compressor whose engine reads through `env`; each file handed back is
  // queued again.
  std::unique_ptr<KRCompressor> compressorThrough(Env& env) {
    auto made = std::make_unique<KRCompressor>(
        loop, env, center, KRCompressorParts{.compressionQueue = &queue, .load = &load, .record = &watchdog});
    made->setFolderWatchTest([](const std::string&) { return true; });
    made->setRetryHandler([this, c = made.get()](const std::string& path) {
      handedBack.emplace_back(path, c->addFiles({path}));
    });
    return made;
  }

  const std::string& home = testkit::processTestHome();
  testkit::ScratchDir dir;
  ManualClock clock;
  FixedLoad load{clock};
  RunLoop loop{clock};
  NotificationCenter center;
  NotificationRecorder recorder{clock, center};
  OperationQueue queue{1};
  const std::string dataFolder = findDataFolder().value_or("");
  KRFileInProcessWatchdog watchdog{Env::system(), dataFolder};
  KRCompressor compressor{loop, Env::system(), center, {.compressionQueue = &queue, .load = &load, .record = &watchdog}};
  std::mutex watchedLock;
  std::string watched = dir.path() + "/";
  std::atomic<uint64_t> savings{0};
  std::vector<std::pair<std::string, uint64_t>> handedBack;  // path, files it queued again
};

// Another writer appending just before the engine reads: the file changes under it.
void appendLine(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  (void)!::write(fd, "more lines\n", 11);
  ::close(fd);
}

TEST_F(CompressorTest, QueuesOnceAndRunsBatchesOf50Every5SecondsAfterTheLastFinished) {
  EXPECT_EQ(compressor.addFiles({}), 0u);
  loop.runUntilIdle();
  EXPECT_TRUE(recorder.named(kCompressionStartedNotification).empty());

  std::vector<std::string> files = makeFiles(120);
  std::vector<std::string> withDuplicate = files;
  withDuplicate.push_back(files[0]);
  EXPECT_EQ(compressor.addFiles(withDuplicate), 120u);
  EXPECT_EQ(compressor.addFiles({files[1], std::string("/elsewhere/x")}), 0u);  // queued; not watched
  EXPECT_TRUE(compressor.isInProcess(files[119]));

  // The compression thread yields to the user's work; the status item can
  // name the file in hand while it is compressed, and none after.
  int nice = 0;
  bool idleIo = false;
  bool idleScheduling = false;
  std::vector<std::string> inHandWhenTaken, inHandWhenDone;
  NotificationCenter::ObserverId probe = center.addObserver(
      kFileCompressedNotification, nullptr, [&](const Notification&) {
        nice = currentThreadNice();
        idleIo = currentThreadHasIdleIoPriority();
        idleScheduling = currentThreadHasIdleScheduling();
        inHandWhenDone.push_back(compressor.fileInHand());
      });
  NotificationCenter::ObserverId taken = center.addObserver(
      kFileWillCompressNotification, nullptr,
      [&](const Notification&) { inHandWhenTaken.push_back(compressor.fileInHand()); });

  const TimePoint start = clock.now();
  loop.runUntilIdle();
  advance(4.9);
  EXPECT_EQ(compressor.queuedFiles().size(), 120u);
  advance(0.1);  // batch 1 at 5.0 s
  finishBatches();
  advance(5.0);  // batch 2, 5.0 s after batch 1 finished
  finishBatches();
  advance(4.0);
  EXPECT_EQ(compressor.queuedFiles().size(), 20u);
  advance(1.0);  // batch 3
  finishBatches();
  center.removeObserver(probe);
  center.removeObserver(taken);
  EXPECT_EQ(inHandWhenTaken, files);
  EXPECT_EQ(inHandWhenDone, std::vector<std::string>(120, ""));
  EXPECT_EQ(compressor.fileInHand(), "");

  std::vector<PostedNotification> done = recorder.named(kFileCompressedNotification);
  ASSERT_EQ(done.size(), 120u);
  for (size_t i = 0; i < done.size(); ++i) {
    EXPECT_EQ(done[i].path, files[i]);
    EXPECT_EQ(done[i].errorCode, 0) << done[i].path;
    const double at = i < 50 ? 5.0 : i < 100 ? 10.0 : 15.0;
    EXPECT_EQ(done[i].time - start, seconds(at)) << i;
  }
  for (const std::string& file : files) {
    Error error;
    auto reader = FileContentReader::open(Env::system(), file, &error);
    ASSERT_TRUE(reader && reader->isCompressed()) << file;
    EXPECT_TRUE(KRExtendedAttributesHelper::compressionSignatureAtPath(Env::system(), file)) << file;
  }
  EXPECT_GT(savings.load(), 0u);
  EXPECT_EQ(nice, KRCompressor::kCompressionThreadNice);
  EXPECT_TRUE(idleIo);
  EXPECT_TRUE(idleScheduling);
  EXPECT_EQ(recorder.named(kCompressionEndedNotification).size(), 1u);
  EXPECT_FALSE(compressor.isInProcess(files[0]));
  // The crash record exists and is empty between swaps.
  struct stat record;
  ASSERT_EQ(stat(KRFileInProcessWatchdog::watchdogFilename(dataFolder).c_str(), &record), 0);
  EXPECT_EQ(record.st_size, 0);
}

TEST_F(CompressorTest, BusyProcessorIsRetestedEvery2SecondsAndExactly070Passes) {
  std::mutex waitsLock;
  std::vector<bool> waits;  // what the status is told
  compressor.setLoadWaitHandler([&](bool waiting) {
    std::lock_guard lock(waitsLock);
    waits.push_back(waiting);
  });
  load.setCPULoad(0.71f);
  std::vector<std::string> files = makeFiles(1);
  compressor.addFiles(files);
  loop.runUntilIdle();
  advance(5.0);
  load.waitForReads(1);
  clock.waitForSleepers(1);
  EXPECT_TRUE(compressor.waitingForLoad());
  advance(1.5);
  advance(0.5);
  load.waitForReads(2);
  clock.waitForSleepers(1);
  load.setCPULoad(0.70f);
  advance(2.0);
  recorder.waitFor(kFileCompressedNotification, 1);
  std::vector<TimePoint> reads = load.waitForReads(3);
  ASSERT_EQ(reads.size(), 3u);
  EXPECT_EQ(reads[1] - reads[0], seconds(2.0));
  EXPECT_EQ(reads[2] - reads[1], seconds(2.0));
  EXPECT_EQ(recorder.named(kFileCompressedNotification)[0].errorCode, 0);
  EXPECT_FALSE(compressor.waitingForLoad());
  std::lock_guard lock(waitsLock);
  EXPECT_EQ(waits, (std::vector<bool>{true, false})) << "told once when the wait began and once when it ended";
}

TEST_F(CompressorTest, PauseMidBatchPutsItsPathsBackInFrontAndResumeStartsWithThem) {
  std::vector<std::string> files = makeFiles(60);
  // Quiet for two files, then busy: the batch waits before its third file.
  load.setCPULoadByRead([](int read) { return read <= 2 ? 0.0f : 0.9f; });
  compressor.addFiles(files);
  loop.runUntilIdle();
  advance(5.0);
  load.waitForReads(3);
  clock.waitForSleepers(1);

  compressor.pauseCompression();
  queue.waitUntilAllOperationsAreFinished();
  loop.runUntilIdle();
  EXPECT_EQ(recorder.named(kFileCompressedNotification).size(), 2u);
  // The two it was done with are not put back.
  std::vector<std::string> queued = compressor.queuedFiles();
  ASSERT_EQ(queued.size(), 58u);
  EXPECT_EQ(std::set<std::string>(queued.begin(), queued.begin() + 48),
            std::set<std::string>(files.begin() + 2, files.begin() + 50));
  EXPECT_EQ(std::vector<std::string>(queued.begin() + 48, queued.end()),
            std::vector<std::string>(files.begin() + 50, files.end()));
  EXPECT_EQ(compressor.filesBeingCompressedCount(), 0u);

  // Paused: additions still arm a tick, whose batch stops at once and stays
  // counted as in flight (the next pause moves it back).
  compressor.addFiles(makeFiles(1, "late"));
  loop.runUntilIdle();
  advance(5.0);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(compressor.filesBeingCompressedCount(), 50u);
  EXPECT_EQ(recorder.named(kFileCompressedNotification).size(), 2u);
  compressor.pauseCompression();
  EXPECT_EQ(compressor.queuedFiles().size(), 59u);

  load.setCPULoad(0.0f);
  recorder.clear();
  compressor.resumeCompression();
  advance(5.0);
  finishBatches();
  std::vector<PostedNotification> done = recorder.named(kFileCompressedNotification);
  ASSERT_EQ(done.size(), 50u);
  std::set<std::string> firstAgain;
  for (const PostedNotification& n : done) firstAgain.insert(n.path);
  EXPECT_EQ(firstAgain, std::set<std::string>(files.begin() + 2, files.begin() + 52));
}

// Which files the engine refuses, and that a refusal leaves the file as it
// was, is the engine's (QVHFSCompressedFileRepresentationTest): here only
// that the compressor marks no refusal but data that does not shrink.
TEST_F(CompressorTest, OnlyIncompressibleDataIsMarkedAndRefusalsTouchNothing) {
  const std::string noise = dir / "noise";
  testkit::writeFile(noise, testkit::randomData(200000, 7));
  // One block: it fits in 64 KiB compressed, yet the whole would grow.
  const std::string smallNoise = dir / "small-noise";
  testkit::writeFile(smallNoise, testkit::randomData(20000, 8));
  const std::string linked = dir / "linked";
  testkit::writeFile(linked, testkit::compressibleData(20000));
  ASSERT_EQ(link(linked.c_str(), (dir / "second-name").c_str()), 0);

  compressor.addFiles({noise, smallNoise, linked});
  runBatch();

  std::vector<PostedNotification> done = recorder.named(kFileCompressedNotification);
  ASSERT_EQ(done.size(), 3u);
  EXPECT_EQ(done[0].errorCode, 704);
  EXPECT_TRUE(KRExtendedAttributesHelper::isUncompressableAttributeSetAt(Env::system(), noise));
  EXPECT_EQ(done[1].errorCode, 704);
  EXPECT_TRUE(KRExtendedAttributesHelper::isUncompressableAttributeSetAt(Env::system(), smallNoise));
  EXPECT_EQ(testkit::readFile(smallNoise), testkit::randomData(20000, 8)) << "left plain";
  EXPECT_NE(done[2].errorCode, 0);
  EXPECT_NE(done[2].errorCode, 704);
  EXPECT_FALSE(KRExtendedAttributesHelper::isUncompressableAttributeSetAt(Env::system(), linked));
  EXPECT_EQ(testkit::readFile(linked), testkit::compressibleData(20000));
  EXPECT_EQ(savings.load(), 0u);
}

TEST_F(CompressorTest, UnwatchedFolderGives8000AndAnEmptiedQueueStillEndsWithCompressionEnded) {
  std::vector<std::string> files = makeFiles(3);
  compressor.addFiles(files);
  loop.runUntilIdle();
  recorder.clear();

  unwatchAll();
  compressor.removeFilesNoLongerBeingWatched();
  std::vector<PostedNotification> dropped = recorder.named(kFileCompressedNotification);
  ASSERT_EQ(dropped.size(), 3u);
  for (const PostedNotification& n : dropped) EXPECT_EQ(n.errorCode, 8000);
  EXPECT_TRUE(compressor.queuedFiles().empty());
  EXPECT_TRUE(recorder.named(kCompressionEndedNotification).empty());

  advance(5.0);  // the tick armed before the removal still fires
  finishBatches();
  EXPECT_EQ(recorder.named(kCompressionEndedNotification).size(), 1u);

  // A file already in a batch when its folder goes is refused when reached.
  {
    std::lock_guard lock(watchedLock);
    watched = dir.path() + "/";
  }
  load.setCPULoad(0.9f);
  compressor.addFiles({files[0]});
  loop.runUntilIdle();
  advance(5.0);
  load.waitForReads(1);
  clock.waitForSleepers(1);
  unwatchAll();
  load.setCPULoad(0.0f);
  advance(2.0);
  finishBatches();
  dropped = recorder.named(kFileCompressedNotification);
  ASSERT_EQ(dropped.size(), 4u);
  EXPECT_EQ(dropped[3].errorCode, 8000);
  EXPECT_EQ(testkit::readFile(files[0]), testkit::compressibleData(8192, 0));
}

// A file that grows under the engine's read is refused; once it has been
// left alone for the settle time it is handed back (not left for the next
// sweep), a few times in a row at most; refusals for other reasons are not.
TEST_F(CompressorTest, AFileCaughtWhileBeingWrittenIsTriedAgainOnceItSettled) {
  const std::string growing = dir / "growing.log";
  const std::string endless = dir / "endless.log";
  testkit::writeFile(growing, testkit::compressibleData(100000, 3));
  testkit::writeFile(endless, testkit::compressibleData(100000, 4));
  const std::string noise = dir / "noise";
  testkit::writeFile(noise, testkit::randomData(100000, 5));
  std::atomic<bool> growNextRead{true};
  testkit::HookedEnv env([&](const char* op) {
    if (std::string_view(op) == "pread" && growNextRead.exchange(false)) appendLine(growing);
  });
  std::unique_ptr<KRCompressor> busy = compressorThrough(env);
  using HandedBack = std::vector<std::pair<std::string, uint64_t>>;

  busy->addFiles({growing, noise});
  runBatch();
  EXPECT_FALSE(KRExtendedAttributesHelper::isCompressionAttributeSetAt(Env::system(), growing)) << "refused while it grew";
  advance(KRCompressor::kBusyRetryDelay - 0.1);
  EXPECT_TRUE(handedBack.empty());
  advance(0.2);
  EXPECT_EQ(handedBack, (HandedBack{{growing, 1}})) << "the noise is not tried again";
  runBatch();
  EXPECT_TRUE(KRExtendedAttributesHelper::isCompressionAttributeSetAt(Env::system(), growing));
  EXPECT_EQ(testkit::readFile(growing), "") << "its data is in the compressed form now";

  // A file that changes at every attempt is tried less and less often, but
  // never given up: an hour apart at the most.
  handedBack.clear();
  testkit::HookedEnv alwaysGrowing([&](const char* op) {
    if (std::string_view(op) == "pread") appendLine(endless);
  });
  std::unique_ptr<KRCompressor> writtenForever = compressorThrough(alwaysGrowing);
  writtenForever->addFiles({endless});
  for (int refusals = 1; refusals <= 4; ++refusals) {
    runBatch();
    const double wait = KRCompressor::busyRetryDelay(refusals);
    EXPECT_EQ(wait, KRCompressor::kBusyRetryDelay * (1 << (refusals - 1)));
    advance(wait - 0.1);
    EXPECT_EQ(handedBack.size(), static_cast<size_t>(refusals - 1)) << "not before its wait";
    advance(0.2);
    EXPECT_EQ(handedBack.size(), static_cast<size_t>(refusals));
  }
  EXPECT_EQ(KRCompressor::busyRetryDelay(100), KRCompressor::kMaxBusyRetryDelay);
  EXPECT_FALSE(KRExtendedAttributesHelper::isCompressionAttributeSetAt(Env::system(), endless));
}

// A file the batch is done with is no longer in process though the batch
// goes on: the retry of a refusal, or a change the watcher reports, due
// while later files of the batch are still being compressed, queues it again
// rather than finding it "in process" and dropping it for good.
TEST_F(CompressorTest, AFileDoneWithLeavesTheBatchAtOnceSoItsRetryIsNotLost) {
  const std::string growing = dir / "growing.log";
  const std::string slow = dir / "slow.txt";
  testkit::writeFile(growing, testkit::compressibleData(100000, 6));
  testkit::writeFile(slow, testkit::compressibleData(100000, 7));
  std::atomic<bool> growNextRead{true};
  testkit::BoundedLatch inSlow(1), released(1);
  KRCompressor* compressorOf = nullptr;
  testkit::HookedEnv env([&](const char* op) {
    if (std::string_view(op) != "pread") return;
    if (growNextRead.exchange(false)) return appendLine(growing);
    // The batch's next file takes as long as the test wants.
    if (compressorOf->fileInHand() != slow) return;
    inSlow.countDown();
    EXPECT_TRUE(released.wait());
  });
  std::unique_ptr<KRCompressor> busy = compressorThrough(env);
  compressorOf = busy.get();

  busy->addFiles({growing, slow});
  loop.runUntilIdle();
  advance(KRCompressor::kTickDelay);
  ASSERT_TRUE(inSlow.wait());
  EXPECT_FALSE(busy->isInProcess(growing)) << "refused and done with";
  EXPECT_TRUE(busy->isInProcess(slow));
  loop.runUntilIdle();
  advance(KRCompressor::kBusyRetryDelay + 0.1);
  EXPECT_EQ(handedBack, (std::vector<std::pair<std::string, uint64_t>>{{growing, 1}}));
  EXPECT_EQ(busy->queuedFiles(), std::vector<std::string>{growing});
  released.countDown();
  finishBatches();
  EXPECT_TRUE(KRExtendedAttributesHelper::isCompressionAttributeSetAt(Env::system(), slow));
  EXPECT_EQ(busy->queuedFiles(), std::vector<std::string>{growing}) << "its batch's end does not take it out";
  EXPECT_EQ(busy->filesBeingCompressedCount(), 0u);
  advance(KRCompressor::kTickDelay);
  finishBatches();
  EXPECT_TRUE(KRExtendedAttributesHelper::isCompressionAttributeSetAt(Env::system(), growing));
}

// An editor's save renamed over the name right after the swap: the plain
// file now there is neither taken for compressed nor marked as ours (later
// analyses would pass it over), and it is tried again.
TEST_F(CompressorTest, AFileSavedOverJustAfterTheSwapIsTriedAgain) {
  const std::string note = dir / "note.txt";
  const std::string saving = dir / "note.txt.saving";
  testkit::writeFile(note, testkit::compressibleData(100000, 8));
  testkit::writeFile(saving, testkit::compressibleData(90000, 9));
  std::atomic<bool> saved{false};
  testkit::HookedEnv env([&](const char* op) {
    if (std::string_view(op) != "fsyncDirectory" || saved) return;
    // Only once the compressed file is at the name.
    if (::getxattr(note.c_str(), "user.com.apple.decmpfs", nullptr, 0) < 0) return;
    saved = ::rename(saving.c_str(), note.c_str()) == 0;
  });
  std::unique_ptr<KRCompressor> racing = compressorThrough(env);
  racing->addFiles({note});
  runBatch();
  ASSERT_TRUE(saved.load()) << "the save did not land after the swap";
  EXPECT_FALSE(KRExtendedAttributesHelper::isCompressionAttributeSetAt(Env::system(), note));
  EXPECT_FALSE(KRExtendedAttributesHelper::compressionSignatureAtPath(Env::system(), note)) << "not marked as ours";
  EXPECT_EQ(testkit::readFile(note), testkit::compressibleData(90000, 9));
  advance(KRCompressor::kBusyRetryDelay + 0.1);
  EXPECT_EQ(handedBack.size(), 1u);
  EXPECT_EQ(handedBack[0].first, note);
  advance(KRCompressor::kTickDelay);
  finishBatches();
  EXPECT_TRUE(KRExtendedAttributesHelper::isCompressionAttributeSetAt(Env::system(), note));
}

}  // namespace
}  // namespace zephlore
