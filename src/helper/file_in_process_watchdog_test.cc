#include "helper/file_in_process_watchdog.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

#include <sys/stat.h>

#include <gtest/gtest.h>


namespace zephlore {
namespace {

using namespace testkit;

// The single instance reads the data folder once per process; each test runs
// in a process of its own, so the data home is set before the first use.
TEST(KRFileInProcessWatchdogTest, RecoversThePreviousRecordThenTracesEachFile) {
  ScratchDir home;
  setenv("XDG_DATA_HOME", home.path().c_str(), 1);
  ASSERT_EQ(mkdir((home / "Zephlore").c_str(), 0700), 0);
  const std::string record = home / "Zephlore/inprocess.kr";
  writeFile(record, "/a/b\n42");

  EXPECT_EQ(KRFileInProcessWatchdog::watchdogFilename(), record);
  ScopedShared<KRFileInProcessWatchdog> fresh_watchdog;
  KRFileInProcessWatchdog& watchdog = KRFileInProcessWatchdog::sharedWatchdog();
  EXPECT_EQ(&watchdog, &KRFileInProcessWatchdog::sharedWatchdog());
  EXPECT_TRUE(watchdog.hasInProcessFileFromPreviousSession());
  EXPECT_EQ(watchdog.inProcessFileFromPreviousSession(), "/a/b");
  EXPECT_EQ(watchdog.expectedSizeOfInProcessFile(), 42);

  watchdog.reset();
  writeFile(home / "file", "12345");
  watchdog.willProcessFile(home / "file");
  EXPECT_EQ(readFile(record), home / "file\n5");
  watchdog.didProcessFile("/ignored");
  struct stat st;
  ASSERT_EQ(stat(record.c_str(), &st), 0);  // emptied, never deleted
  EXPECT_EQ(st.st_size, 0);
  EXPECT_EQ(watchdog.inProcessFileFromPreviousSession(), "/a/b");  // kept for the process's life
}

}  // namespace
}  // namespace zephlore
