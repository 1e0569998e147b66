#include "helper/lifecycle/file_in_process_watchdog.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "base/data_folder.h"
#include "testing/files.h"
#include "testing/scoped_env.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using namespace testkit;

TEST(KRFileInProcessWatchdogTest, RecoversThePreviousRecordThenTracesEachFile) {
  ScratchDir home;
  testkit::ScopedEnvVar data_home("XDG_DATA_HOME", home.path());
  ScopedShared<DataFolder> data_folder;  // looked up afresh in this home
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
