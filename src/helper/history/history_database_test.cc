#include "helper/history/history_database.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <random>

#include "base/log.h"
#include "base/run_loop.h"
#include "helper/history/history_test_support.h"
#include "testing/files.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::RecordingSender;
using testkit::TestHome;

class HelperUtilTest : public ::testing::Test {
 protected:
  void SetUp() override {
    loop_.runUntilIdle();  // this thread is the main thread
    std::filesystem::create_directories(home_.dataFolder());
    restart();
    path_ = database_->databasePath();
    ASSERT_FALSE(path_.empty());
  }
  // A new database over the same folder, as a restarted helper makes.
  void restart() {
    database_.reset();
    database_ = std::make_unique<HistoryDatabase>(Env::system(), home_.dataFolder(), &notices_);
  }

  std::optional<int64_t> userVersion() {
    SqliteConnection db;
    if (!db.open(path_, SQLITE_OPEN_READONLY, nullptr)) return std::nullopt;
    return db.queryInt("PRAGMA user_version;", nullptr);
  }

  ManualClock clock_;
  RunLoop loop_{clock_};
  TestHome home_;
  std::shared_ptr<RecordingSender> sender_ = std::make_shared<RecordingSender>();
  KRGrowlBridge notices_{sender_};
  std::unique_ptr<HistoryDatabase> database_;
  std::string path_;
};

TEST_F(HelperUtilTest, RandomBytesAreReportedDeletedAndReplacedByAnEmptyStore) {
  std::string bytes(8192, '\0');
  std::mt19937 random(7);
  for (char& c : bytes) c = static_cast<char>(random());
  testkit::writeFile(path_, bytes);
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });

  HistoryContext* context = database_->managedObjectContext();
  ASSERT_NE(context, nullptr);
  EXPECT_TRUE(context->allObjects().empty());
  EXPECT_EQ(userVersion(), HistoryModel::kVersion);

  std::vector<Notice> notices = sender_->taken();
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_TRUE(notices[0].critical);
  EXPECT_EQ(notices[0].title, "Zephlore Database Error");
  EXPECT_EQ(notices[0].description, HistoryDatabase::kDatabaseCorruptMessage);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0].rfind("*** Zephlore Database Error: Zephlore database is corrupt", 0), 0u);
}

TEST_F(HelperUtilTest, AZeroByteFilePassesAndBecomesTheStore) {
  testkit::writeFile(path_, "");
  EXPECT_TRUE(database_->ensureIntegrityOfDatabaseAtPath(path_));
  EXPECT_TRUE(database_->ensureIntegrityOfDatabaseAtPath(path_ + ".none"));
  ASSERT_NE(database_->managedObjectContext(), nullptr);
  EXPECT_TRUE(sender_->taken().empty());
  EXPECT_EQ(userVersion(), HistoryModel::kVersion);
}

TEST_F(HelperUtilTest, RecordsSurviveCloseAndRestartAndCloseTwiceIsHarmless) {
  HistoryContext* context = database_->managedObjectContext();
  ASSERT_NE(context, nullptr);
  EXPECT_FALSE(context->hasChanges());
  HistoryContext::Object* record = context->insertNewObject();
  record->setFolder("/data/Photos");
  record->setFolderAlias({1, 2, 3});
  record->setSavings(UINT64_MAX - 5);
  record->setLastSweep(WallTime(std::chrono::seconds(1'700'000'000)));
  record->setStatus(100);
  EXPECT_TRUE(context->hasChanges());
  HistoryStore* store = database_->persistentStoreCoordinator();
  const uint64_t before = store->transactionCount();

  database_->closeDatabase(loop_);
  database_->closeDatabase(loop_);
  EXPECT_EQ(store->transactionCount(), before + 1);

  restart();
  context = database_->managedObjectContext();
  ASSERT_NE(context, nullptr);
  ASSERT_EQ(context->allObjects().size(), 1u);
  const HistoryRecord& read = context->allObjects()[0]->record();
  EXPECT_EQ(read.folder, "/data/Photos");
  EXPECT_EQ(read.folderAlias, (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_TRUE(read.enabled);
  EXPECT_EQ(read.savings, UINT64_MAX - 5);
  EXPECT_EQ(read.lastSweep, WallTime(std::chrono::seconds(1'700'000'000)));
  EXPECT_EQ(read.status, 100u);

  Error error;
  auto found = context->fetch("historyForEnabledFolder", {{"HISTORY_PATH", "/data/Photos"}}, &error);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->size(), 1u);
  EXPECT_FALSE(context->fetch("historyForNothing", {}, &error));
  EXPECT_NE(error.message.find("historyForNothing"), std::string::npos);

  // A row written by another program without "enabled": the schema's default.
  SqliteConnection other;
  ASSERT_TRUE(other.open(path_, SQLITE_OPEN_READWRITE, nullptr));
  ASSERT_TRUE(other.exec("INSERT INTO History (folder) VALUES ('/x');", nullptr));
  restart();
  context = database_->managedObjectContext();
  ASSERT_EQ(context->allObjects().size(), 2u);
  EXPECT_TRUE(context->allObjects()[1]->record().enabled);
  EXPECT_EQ(context->allObjects()[1]->record().savings, 0u);
}

TEST_F(HelperUtilTest, ASaveBlockedByAnotherWriterKeepsItsChangesForTheNextSave) {
  HistoryContext* context = database_->managedObjectContext();
  ASSERT_NE(context, nullptr);
  context->insertNewObject()->setFolder("/kept");
  SqliteConnection writer;
  ASSERT_TRUE(writer.open(path_, SQLITE_OPEN_READWRITE, nullptr));
  ASSERT_TRUE(writer.exec("BEGIN IMMEDIATE;", nullptr));

  // Locked, not damaged: the check keeps the file.
  EXPECT_TRUE(database_->ensureIntegrityOfDatabaseAtPath(path_));
  Error error;
  EXPECT_FALSE(context->save(&error));
  EXPECT_TRUE(context->hasChanges());

  ASSERT_TRUE(writer.exec("COMMIT;", nullptr));
  EXPECT_TRUE(context->save(&error)) << error.message;
  EXPECT_FALSE(context->hasChanges());
  EXPECT_EQ(writer.queryInt("SELECT COUNT(*) FROM History;", nullptr), 1);
}

TEST_F(HelperUtilTest, ADirectoryInItsPlaceIsReportedOnceAndRetried) {
  std::filesystem::create_directory(path_);
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  EXPECT_EQ(database_->managedObjectContext(), nullptr);
  EXPECT_EQ(database_->managedObjectContext(), nullptr);
  std::vector<Notice> notices = sender_->taken();
  // Not damage, and not ours to delete: the refusal and the 9999 error, each once.
  ASSERT_EQ(notices.size(), 2u);
  EXPECT_EQ(notices[0].title, "Failed to open the history database");
  EXPECT_NE(notices[0].description.find("a directory, not a regular file"), std::string::npos)
      << notices[0].description;
  EXPECT_EQ(notices[1].title, "Failed to initialize the store");
  EXPECT_EQ(notices[1].description, "There was an error building up the data file.");
  for (const Notice& notice : notices) EXPECT_TRUE(notice.critical);

  // The folder is cleared: the next request builds the store.
  std::filesystem::remove(path_);
  EXPECT_NE(database_->managedObjectContext(), nullptr);
}

}  // namespace
}  // namespace zephlore
