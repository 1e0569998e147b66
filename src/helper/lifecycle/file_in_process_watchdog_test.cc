#include "helper/lifecycle/file_in_process_watchdog.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "platform/env.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using namespace testkit;

TEST(KRFileInProcessWatchdogTest, RecoversThePreviousRecordThenTracesEachFile) {
  ScratchDir home;
  const std::string record = home / "inprocess.kr";
  writeFile(record, "/a/b\n42");

  KRFileInProcessWatchdog watchdog(Env::system(), home.path());
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
