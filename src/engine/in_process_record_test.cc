#include "engine/in_process_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/log.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using namespace testkit;

TEST(InProcessRecordTest, ParsesWhatEarlierRunsLeft) {
  const struct {
    std::string text;
    std::optional<std::string> path;
    int64_t size;
  } cases[] = {
      {"/a/b\n42", "/a/b", 42},
      {"/only/a/path", "/only/a/path", 0},
      {"", std::nullopt, 0},  // empty: nothing was in process
      {"/x\nnot a number", "/x", 0},
      {"/x\n12abc", "/x", 12},
      {"/dir/line\nfeed\n99", "/dir/line", 0},  // a path is cut at its first line feed
      {"/big\n99999999999999999999999", "/big", INT64_MAX},
  };
  for (const auto& c : cases) {
    InProcessRecord record = InProcessRecordFile::parse(c.text);
    EXPECT_EQ(record.path, c.path) << c.text;
    EXPECT_EQ(record.expectedSize, c.size) << c.text;
  }
}

TEST(InProcessRecordTest, OneHolderWritesTheOthersLogAndStaySilent) {
  ScratchDir dir;
  const std::string record = dir / "inprocess.kr";
  writeFile(record, "/a/b\n42");
  writeFile(dir / "target", std::string(12345, 'x'));
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });

  InProcessRecordFile first(record, Env::system());
  EXPECT_EQ(first.previous().path, "/a/b");
  EXPECT_EQ(readFile(record), "/a/b\n42");  // kept until reset
  first.reset();
  first.willProcessFile(dir / "target");
  EXPECT_EQ(readFile(record), dir / "target\n12345");
  EXPECT_TRUE(lines.empty());

  EXPECT_FALSE(first.heldElsewhere());
  InProcessRecordFile second(record, Env::system());  // the lock is held by `first`
  EXPECT_FALSE(second.isOpen());
  EXPECT_TRUE(second.heldElsewhere()) << "its helper must compress nothing";
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], ::testing::StartsWith("Could not create watchdog file at " + record + ", errno: "));
  second.reset();
  second.willProcessFile("/second");
  EXPECT_EQ(readFile(record), dir / "target\n12345");

  first.reset();
  first.willProcessFile(dir / "gone");
  EXPECT_EQ(readFile(record), dir / "gone\n0");
}

}  // namespace
}  // namespace zephlore
