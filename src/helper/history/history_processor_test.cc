#include "helper/history/history_processor.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "base/log.h"
#include "base/util.h"
#include "engine/compressed_file_info.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_uncompressor.h"
#include "helper/history/folder_savings.h"
#include "helper/history/history_database.h"
#include "helper/history/history_test_support.h"
#include "protocol/notification_names.h"
#include "testing/files.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

namespace fs = std::filesystem;
using testkit::RecordingSender;
using testkit::ShmFolder;
using testkit::TestHome;

class HistoryProcessorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    loop_.runUntilIdle();  // this thread is the main thread
    std::filesystem::create_directories(home_.dataFolder());
    restart();
  }
  // A new database and processor over the same folder, as a restarted
  // helper makes.
  void restart() {
    processor_.reset();
    database_ = std::make_unique<HistoryDatabase>(Env::system(), home_.dataFolder(), nullptr);
    KRHistoryProcessor::Hooks hooks;
    hooks.postSavingsChanged = [this] { posts_.push_back(clock_.now()); };
    hooks.setWatchPaths = [this](const std::optional<FolderList>& list) { watched_ = list; };
    hooks.helperActive = [] { return true; };
    hooks.savingsIncreased = [this](uint64_t increase, uint64_t total) {
      notices_.notifySavingsIncreasedBy(increase, total);
    };
    processor_ = std::make_unique<KRHistoryProcessor>(loop_, Env::system(), *database_, hooks);
  }

  void advance(double s) {
    clock_.advance(seconds(s));
    loop_.runUntilIdle();
  }
  void add(const std::string& path) { processor_->foldersChanged({path}, {}); }
  void remove(const std::string& path) { processor_->foldersChanged({}, {path}); }
  FolderList folders() { return processor_->folders().value_or(FolderList{}); }

  ManualClock clock_;
  RunLoop loop_{clock_};  // the helper's main loop; this thread runs it
  TestHome home_;
  ShmFolder shm_;
  std::shared_ptr<RecordingSender> sender_ = std::make_shared<RecordingSender>();
  KRGrowlBridge notices_{sender_};
  std::vector<TimePoint> posts_;
  std::optional<FolderList> watched_;
  std::unique_ptr<HistoryDatabase> database_;
  std::unique_ptr<KRHistoryProcessor> processor_;
};

TEST_F(HistoryProcessorTest, AParentTakesOverItsChildAndAChildOfAWatchedFolderIsRefused) {
  EXPECT_EQ(processor_->folders(), std::nullopt);
  EXPECT_EQ(processor_->enabledFolderPathForPath(shm_.path()), "");
  std::string child = shm_.make("a/b");
  std::string parent = shm_.path() + "/a";
  add(child);
  EXPECT_EQ(folders(), FolderList{child});
  EXPECT_EQ(watched_, FolderList{child});

  add(parent);
  EXPECT_EQ(folders(), FolderList{parent});
  EXPECT_FALSE(processor_->shouldAllowFolder(shm_.make("a/c")));
  add(shm_.path() + "/a/c");
  EXPECT_EQ(folders(), FolderList{parent});

  // The string rule: /q/bc/d lies "inside" /q/b; the sibling /q/bc does not,
  // and a file under /q/bc belongs to /q/b.
  std::string b = shm_.make("q/b");
  add(b);
  EXPECT_FALSE(processor_->shouldAllowFolder(shm_.make("q/bc/d")));
  EXPECT_TRUE(processor_->shouldAllowFolder(shm_.path() + "/q/bc"));
  testkit::writeFile(shm_.path() + "/q/bc/file", "x");
  EXPECT_EQ(processor_->enabledFolderPathForPath(shm_.path() + "/q/bc/file"), b);
  EXPECT_EQ(processor_->enabledFolderPathForPath(b), b);
  EXPECT_EQ(processor_->enabledFolderPathForPath("/elsewhere/file"), "");
}

TEST_F(HistoryProcessorTest, SavingsStayAfterARemoveAndComeBackWithTheFolder) {
  std::string folder = shm_.make("docs");
  testkit::writeFile(folder + "/f", "x");
  add(folder);
  processor_->addSavingsForPath(4096, folder + "/f");
  processor_->addSavingsForPath(0, folder + "/f");
  processor_->addSavingsForPath(512, "/outside/f");
  EXPECT_EQ(processor_->totalSavings(), 4096u);

  processor_->setProgressForFolder(100, folder);
  processor_->justSweptFolder(folder);
  EXPECT_EQ(processor_->folderSweepDate(folder), clock_.wallNow());
  remove(folder);
  EXPECT_EQ(processor_->folders(), std::nullopt);
  EXPECT_EQ(processor_->totalSavings(), 4096u);
  processor_->addSavingsForPath(100, folder + "/f");  // no longer watched: dropped
  EXPECT_EQ(processor_->totalSavings(), 4096u);

  add(folder);
  ASSERT_EQ(processor_->allFolderEntries().size(), 1u);
  HistoryRecord record = processor_->allFolderEntries()[0];
  EXPECT_TRUE(record.enabled);
  EXPECT_EQ(record.savings, 4096u);
  EXPECT_EQ(record.status, 0u);
  EXPECT_EQ(record.lastSweep, std::nullopt);
}

// A file counted twice (compressed again after a write), one expanded and
// one deleted: after the sweep's measurement only what stays compressed counts.
TEST_F(HistoryProcessorTest, SweptSavingsAreMeasuredFromTheFilesAndReplaceTheRunningSum) {
  std::string folder = shm_.make("measured");
  add(folder);
  const std::string text = testkit::compressibleData(300000, 1);
  for (const char* name : {"kept", "expanded", "deleted"}) {
    const std::string path = folder + "/" + name;
    testkit::writeFile(path, text);
    Error error;
    int64_t saved = 0;
    ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(Env::system(), path, &error, &saved)) << error.describe();
    processor_->addSavingsForPath(static_cast<uint64_t>(saved), path);
    processor_->addSavingsForPath(static_cast<uint64_t>(saved), path);
  }
  testkit::writeFile(folder + "/plain", text);
  ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(Env::system(), folder + "/expanded"));
  ASSERT_EQ(unlink((folder + "/deleted").c_str()), 0);

  CompressedFileInfo kept;
  Error error;
  ASSERT_TRUE(CompressedFileInfo::inspect(Env::system(), folder + "/kept", &kept, &error)) << error.describe();
  const std::optional<uint64_t> measured = measureFolderSavings(Env::system(), folder);
  ASSERT_TRUE(measured.has_value());
  EXPECT_EQ(*measured, kept.savedBytes());
  EXPECT_GT(*measured, text.size() / 2);
  EXPECT_GT(processor_->totalSavings(), 5 * *measured);
  processor_->setSavingsForFolder(*measured, folder);
  EXPECT_EQ(processor_->totalSavings(), *measured);
  ASSERT_EQ(processor_->allFolderEntries().size(), 1u);
  EXPECT_EQ(processor_->allFolderEntries()[0].savings, *measured);
  EXPECT_EQ(measureFolderSavings(Env::system(), folder + "/gone"), std::nullopt);
}

TEST_F(HistoryProcessorTest, EachWholeGigabyteCrossedIsAnnouncedOnceCountedIn32Bits) {
  std::string folder = shm_.make("big");
  add(folder);
  processor_->addSavingsForFolder(999'999'999, folder);
  EXPECT_TRUE(sender_->taken().empty());
  processor_->addSavingsForFolder(1, folder);
  processor_->addSavingsForFolder(5, folder);  // same gigabyte: nothing
  std::vector<Notice> notices = sender_->taken();
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].name, "Savings Increased");
  EXPECT_EQ(notices[0].description,
            "Total savings of Zephlore have increased by 1.00 GB, they are now 1.00 GB.");

  // Five gigabytes at once: 5,000,000,000 wraps to 705,032,704 in 32 bits.
  processor_->addSavingsForFolder(5'000'000'000, folder);
  notices = sender_->taken();
  ASSERT_EQ(notices.size(), 2u);
  EXPECT_EQ(notices[1].description, "Total savings of Zephlore have increased by " +
                                        KRUtil::getPrettySize(705'032'704) + ", they are now " +
                                        KRUtil::getPrettySize(6'000'000'005) + ".");
}

TEST_F(HistoryProcessorTest, TwoFolderNoticesInQuickSuccessionGiveOneSaveAfterTheSecond) {
  std::string a = shm_.make("a");
  std::string b = shm_.make("b");
  Notification first{kFoldersNotification, nullptr, {{kFoldersToAddKey, FolderList{a}}}};
  Notification second{kFoldersNotification, nullptr, {{kFoldersToAddKey, FolderList{b}}}};
  processor_->foldersChanged(first);
  advance(0.1);
  processor_->foldersChanged(second);
  const TimePoint secondAt = clock_.now();
  advance(0.19);
  EXPECT_TRUE(posts_.empty());
  advance(0.01);
  ASSERT_EQ(posts_.size(), 1u);
  EXPECT_EQ(posts_[0], secondAt + seconds(0.2));

  // The save reached the file: a restarted helper sees both folders.
  restart();
  EXPECT_EQ(folders(), (FolderList{a, b}));
}

TEST_F(HistoryProcessorTest, ABurstFromAWorkerThreadEndsInOneTransaction) {
  std::string folder = shm_.make("burst");
  testkit::writeFile(folder + "/f", "x");
  add(folder);
  advance(0.2);
  const uint64_t before = database_->persistentStoreCoordinator()->transactionCount();

  std::atomic<bool> done{false};
  std::thread worker([&] {
    for (int i = 0; i < 10'000; ++i) processor_->addSavingsForPath(512, folder + "/f");
    done = true;
    loop_.post([] {});
  });
  loop_.runUntil([&] { return done.load(); });
  worker.join();
  advance(0.2);
  EXPECT_EQ(processor_->totalSavings(), 5'120'000u);
  EXPECT_LE(database_->persistentStoreCoordinator()->transactionCount() - before, 2u);
  EXPECT_EQ(posts_.size(), 2u);  // the add's save, then the burst's
  // The save that changed the total sampled it at the helper's clock.
  std::vector<HistorySample> samples;
  ASSERT_TRUE(HistoryStore::readSamples(Env::system(), database_->databasePath(), &samples, nullptr));
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].totalSaved, 5'120'000u);
  EXPECT_EQ(std::chrono::duration_cast<std::chrono::seconds>(samples[0].time.time_since_epoch()),
            std::chrono::duration_cast<std::chrono::seconds>(clock_.wallNow().time_since_epoch()));
}

TEST_F(HistoryProcessorTest, UnusablePayloadsAreRefusedWithALogLine) {
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  std::string ok = shm_.make("ok");
  processor_->foldersChanged(Notification{kFoldersNotification, nullptr,
                                          {{kFoldersToAddKey, int64_t{42}},
                                           {kFoldersToRemoveKey, std::string("/x")}}});
  processor_->foldersChanged(Notification{
      kFoldersNotification, nullptr,
      {{kFoldersToAddKey, FolderList{"relative", "/" + std::string(1100, 'x'), ok + "/a\nb",
                                     shm_.path() + "/missing", ok}}}});
  processor_->foldersChanged(Notification{kFoldersNotification, nullptr,
                                          {{kFoldersToAddKey, FolderList{}}}});
  EXPECT_EQ(folders(), FolderList{ok});
  EXPECT_EQ(lines.size(), 6u);
}

TEST_F(HistoryProcessorTest, PathsAreRepairedAfterARenameAndAGoneFolderKeepsItsPath) {
  std::string folder = shm_.make("old");
  std::string gone = shm_.make("gone");
  add(folder);
  add(gone);
  std::string renamed = shm_.path() + "/new";
  fs::rename(folder, renamed);
  fs::remove(gone);
  EXPECT_EQ(folders(), (FolderList{renamed, gone}));

  processor_->setProgressForFolder(100, gone);
  processor_->resetProgressForFolder(gone);
  EXPECT_EQ(processor_->progressForFolder(gone), 0u);
  processor_->setProgressForFolder(50, gone);
  processor_->resetProgressForFolder(gone);
  EXPECT_EQ(processor_->progressForFolder(gone), 50u);

  processor_->resolveAliases();
  std::vector<HistoryRecord> entries = processor_->allFolderEntries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].folder, renamed);
  EXPECT_EQ(entries[1].folder, gone);
  // The repaired record is found again by its new path.
  processor_->addSavingsForFolder(7, renamed);
  EXPECT_EQ(processor_->totalSavings(), 7u);
}

}  // namespace
}  // namespace zephlore
