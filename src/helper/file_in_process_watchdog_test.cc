#include "helper/file_in_process_watchdog.h"

#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "engine/scratch_dir_for_tests.h"

namespace zephlore {
namespace {

using testing::ScratchDir;
using testing::readFile;
using testing::writeFile;

// The single instance reads the data folder once per process; each test runs
// in a process of its own, so the data home is pointed at a scratch folder
// before the first use.
TEST(KRFileInProcessWatchdogTest, SharedInstanceRecoversThePreviousRecordThenTracesFiles) {
  ScratchDir home;
  setenv("XDG_DATA_HOME", home.path().c_str(), 1);
  ASSERT_EQ(mkdir((home / "Zephlore").c_str(), 0700), 0);
  std::string record = home / "Zephlore/inprocess.kr";
  writeFile(record, "/a/b\n42");

  EXPECT_EQ(KRFileInProcessWatchdog::watchdogFilename(), record);
  KRFileInProcessWatchdog& watchdog = KRFileInProcessWatchdog::sharedWatchdog();
  EXPECT_EQ(&watchdog, &KRFileInProcessWatchdog::sharedWatchdog());
  EXPECT_TRUE(watchdog.hasInProcessFileFromPreviousSession());
  EXPECT_EQ(watchdog.inProcessFileFromPreviousSession(), "/a/b");
  EXPECT_EQ(watchdog.expectedSizeOfInProcessFile(), 42);

  watchdog.reset();
  EXPECT_EQ(readFile(record), "");
  std::string file = home / "file";
  writeFile(file, "12345");
  watchdog.willProcessFile(file);
  EXPECT_EQ(readFile(record), file + "\n5");
  watchdog.didProcessFile("/ignored");
  struct stat st;
  ASSERT_EQ(stat(record.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 0);
  // The previous run's values stay for the life of the process.
  EXPECT_EQ(watchdog.inProcessFileFromPreviousSession(), "/a/b");
}

TEST(KRFileInProcessWatchdogTest, NoRecordMeansNoPreviousFile) {
  ScratchDir home;
  setenv("XDG_DATA_HOME", home.path().c_str(), 1);
  KRFileInProcessWatchdog& watchdog = KRFileInProcessWatchdog::sharedWatchdog();
  EXPECT_FALSE(watchdog.hasInProcessFileFromPreviousSession());
  EXPECT_FALSE(watchdog.inProcessFileFromPreviousSession().has_value());
  EXPECT_EQ(watchdog.expectedSizeOfInProcessFile(), 0);
  struct stat st;
  EXPECT_EQ(stat(KRFileInProcessWatchdog::watchdogFilename().c_str(), &st), 0);  // created
}

}  // namespace
}  // namespace zephlore
