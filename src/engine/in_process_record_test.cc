#include "engine/in_process_record.h"

#include <sys/stat.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/log.h"
#include "engine/scratch_dir_for_tests.h"

namespace zephlore {
namespace {

using testing::ScratchDir;
using testing::readFile;
using testing::writeFile;

TEST(InProcessRecordTest, ParsesWhatEarlierRunsLeft) {
  struct Case {
    std::string text;
    std::optional<std::string> path;
    int64_t size;
  };
  const Case cases[] = {
      {"/a/b\n42", "/a/b", 42},
      {"/only/a/path", "/only/a/path", 0},  // no line feed: size 0
      {"", std::nullopt, 0},                // empty record: nothing in process
      {"/x\nnot a number", "/x", 0},
      {"/x\n12abc", "/x", 12},  // leading digits only
      {"/x\n", "/x", 0},
      // A path holding a line feed comes back cut at it.
      {"/dir/line\nfeed\n99", "/dir/line", 0},
      {"/big\n99999999999999999999999", "/big", INT64_MAX},  // saturates
  };
  for (const Case& c : cases) {
    InProcessRecord record = InProcessRecordFile::parse(c.text);
    EXPECT_EQ(record.path, c.path) << c.text;
    EXPECT_EQ(record.expectedSize, c.size) << c.text;
  }
  EXPECT_EQ(InProcessRecordFile::format("/a/b", 12345), "/a/b\n12345");
  InProcessRecord back = InProcessRecordFile::parse(InProcessRecordFile::format("/é/\xff", 18446744073709551615ull));
  EXPECT_EQ(back.path, "/é/\xff");
}

TEST(InProcessRecordTest, KeepsThePreviousRecordUntilResetAndWritesExactBytes) {
  ScratchDir dir;
  std::string record = dir / "inprocess.kr";
  writeFile(record, "/a/b\n42");
  std::string target = dir / "target";
  writeFile(target, std::string(12345, 'x'));

  InProcessRecordFile file(record);
  ASSERT_TRUE(file.isOpen());
  EXPECT_EQ(file.previous().path, "/a/b");
  EXPECT_EQ(file.previous().expectedSize, 42);
  EXPECT_EQ(readFile(record), "/a/b\n42");  // opening does not truncate

  file.reset();
  struct stat st;
  ASSERT_EQ(stat(record.c_str(), &st), 0);  // emptied, not deleted
  EXPECT_EQ(st.st_size, 0);

  file.willProcessFile(target);
  EXPECT_EQ(readFile(record), target + "\n12345");
  file.reset();
  file.willProcessFile(dir / "gone");  // no such file: size 0
  EXPECT_EQ(readFile(record), dir / "gone\n0");
  file.reset();
  EXPECT_EQ(readFile(record), "");
  // The previous run's values stay in memory after the reset.
  EXPECT_EQ(file.previous().path, "/a/b");
}

TEST(InProcessRecordTest, SecondHolderAndMissingFolderLogAndNeverWrite) {
  ScratchDir dir;
  std::string record = dir / "inprocess.kr";
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });

  InProcessRecordFile first(record);
  ASSERT_TRUE(first.isOpen());
  EXPECT_TRUE(lines.empty());
  first.willProcessFile("/first");

  InProcessRecordFile second(record);  // the lock is held by `first`
  EXPECT_FALSE(second.isOpen());
  EXPECT_EQ(second.previous().path, "/first");  // it still reads what is there
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], ::testing::StartsWith("Could not create watchdog file at " + record +
                                               ", errno: "));
  second.reset();
  second.willProcessFile("/second");
  EXPECT_EQ(readFile(record), "/first\n0");

  InProcessRecordFile nowhere(dir / "missing/inprocess.kr");
  EXPECT_FALSE(nowhere.isOpen());
  EXPECT_FALSE(nowhere.previous().path.has_value());
  EXPECT_EQ(lines.size(), 2u);
  nowhere.willProcessFile("/x");  // a silent no-op
  EXPECT_EQ(lines.size(), 2u);
}

}  // namespace
}  // namespace zephlore
