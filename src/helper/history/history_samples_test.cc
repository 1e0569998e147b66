// The total saved over time ("Samples", schema version 2): a version 1
// database gains the table when the helper opens it, each save that changes
// the total writes a sample, at most one a minute.
#include <gtest/gtest.h>

#include "helper/history/history_store.h"
#include "helper/history/history_test_support.h"

namespace zephlore {
namespace {

WallTime at(int64_t unix_seconds) { return WallTime(std::chrono::seconds(unix_seconds)); }

std::vector<std::pair<int64_t, uint64_t>> samplesIn(const std::string& path) {
  std::vector<HistorySample> samples;
  Error error;
  EXPECT_TRUE(HistoryStore::readSamples(Env::system(), path, &samples, &error)) << error.message;
  std::vector<std::pair<int64_t, uint64_t>> out;
  for (const HistorySample& sample : samples) {
    out.emplace_back(std::chrono::duration_cast<std::chrono::seconds>(sample.time.time_since_epoch()).count(),
                     sample.totalSaved);
  }
  return out;
}

class HistorySamplesTest : public ::testing::Test {
 protected:
  std::unique_ptr<HistoryStore> open() {
    std::optional<HistoryModel> model = HistoryModel::load(Env::system());
    EXPECT_TRUE(model);
    Error error;
    std::unique_ptr<HistoryStore> store = HistoryStore::open(Env::system(), path_, *model, &error);
    EXPECT_TRUE(store) << error.message;
    return store;
  }

  testkit::ShmFolder folder_;
  std::string path_ = folder_.path() + "/history.db";
};

TEST_F(HistorySamplesTest, AVersionOneHistoryGainsSamplesAndKeepsItsRecords) {
  {
    SqliteConnection old;
    ASSERT_TRUE(old.open(path_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr));
    // Version 1 as it shipped.
    ASSERT_TRUE(old.exec("CREATE TABLE History (id INTEGER PRIMARY KEY, folder TEXT, folderAlias BLOB, "
                         "enabled INTEGER NOT NULL DEFAULT 1, savings INTEGER NOT NULL DEFAULT 0, lastSweep REAL, "
                         "status INTEGER NOT NULL DEFAULT 0);"
                         "INSERT INTO History (folder, savings) VALUES ('/w', 500);"
                         "PRAGMA user_version = 1;",
                         nullptr));
  }
  // Read-only readers see no samples yet, and no error.
  EXPECT_TRUE(samplesIn(path_).empty());

  std::unique_ptr<HistoryStore> store = open();
  ASSERT_TRUE(store);
  std::vector<HistoryRecord> records;
  ASSERT_TRUE(store->loadAll(&records, nullptr));
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].savings, 500u);
  SqliteConnection check;
  ASSERT_TRUE(check.open(path_, SQLITE_OPEN_READONLY, nullptr));
  EXPECT_EQ(check.queryInt("PRAGMA user_version;", nullptr), 2);
  EXPECT_EQ(check.queryInt("SELECT COUNT(*) FROM Samples;", nullptr), 0);

  HistoryContext context(*store);
  context.allObjects()[0]->setSavings(800);
  ASSERT_TRUE(context.save(nullptr, at(1'800'000'000)));
  EXPECT_EQ(samplesIn(path_), (std::vector<std::pair<int64_t, uint64_t>>{{1'800'000'000, 800}}));
}

TEST_F(HistorySamplesTest, SavesThatChangeTheTotalWriteAtMostOneSampleAMinute) {
  std::unique_ptr<HistoryStore> store = open();
  ASSERT_TRUE(store);
  HistoryContext context(*store);
  HistoryContext::Object* a = context.insertNewObject();
  a->setFolder("/a");
  // Nothing saved yet: nothing to chart.
  ASSERT_TRUE(context.save(nullptr, at(1000)));
  EXPECT_TRUE(samplesIn(path_).empty());

  a->setSavings(100);
  ASSERT_TRUE(context.save(nullptr, at(1000)));
  // Within the minute the row takes the newer total.
  a->setSavings(150);
  ASSERT_TRUE(context.save(nullptr, at(1030)));
  // A save that leaves the total alone adds nothing.
  a->setStatus(50);
  ASSERT_TRUE(context.save(nullptr, at(1100)));
  HistoryContext::Object* b = context.insertNewObject();
  b->setFolder("/b");
  b->setSavings(50);
  ASSERT_TRUE(context.save(nullptr, at(1100)));
  // A save without a time (no clock) writes no sample.
  a->setSavings(10);
  ASSERT_TRUE(context.save(nullptr));
  // A clock set back does not add a row before the last one.
  a->setSavings(20);
  ASSERT_TRUE(context.save(nullptr, at(500)));
  a->setSavings(1000);
  ASSERT_TRUE(context.save(nullptr, at(1300)));
  EXPECT_EQ(samplesIn(path_),
            (std::vector<std::pair<int64_t, uint64_t>>{{1000, 150}, {1100, 70}, {1300, 1050}}));
}

TEST_F(HistorySamplesTest, SamplesOlderThanAMonthAreThinnedToOneADay) {
  std::unique_ptr<HistoryStore> store = open();
  ASSERT_TRUE(store);
  HistoryContext context(*store);
  HistoryContext::Object* a = context.insertNewObject();
  a->setFolder("/a");
  const int64_t day = 86400, start = 20'000 * day;
  // Three samples on each of two days.
  for (int64_t i = 0; i < 6; ++i) {
    a->setSavings(static_cast<uint64_t>(i + 1));
    ASSERT_TRUE(context.save(nullptr, at(start + (i / 3) * day + (i % 3) * 120)));
  }
  EXPECT_EQ(samplesIn(path_).size(), 6u);
  a->setSavings(100);
  ASSERT_TRUE(context.save(nullptr, at(start + 40 * day)));
  EXPECT_EQ(samplesIn(path_), (std::vector<std::pair<int64_t, uint64_t>>{
                                  {start + 240, 3}, {start + day + 240, 6}, {start + 40 * day, 100}}));
}

}  // namespace
}  // namespace zephlore
