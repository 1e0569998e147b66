#include "platform/config_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

bool bindSocket(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), std::min(path.size() + 1, sizeof address.sun_path - 1));
  const bool bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return bound;
}

class ConfigFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testkit::writeFile(dir_ / "regular", "settings");
    ASSERT_EQ(mkfifo((dir_ / "fifo").c_str(), 0600), 0);
    ASSERT_TRUE(bindSocket(dir_ / "socket"));
    ASSERT_EQ(mkdir((dir_ / "folder").c_str(), 0700), 0);
    ASSERT_EQ(symlink("regular", (dir_ / "link-to-regular").c_str()), 0);
    ASSERT_EQ(symlink("fifo", (dir_ / "link-to-fifo").c_str()), 0);
    ASSERT_EQ(symlink("socket", (dir_ / "link-to-socket").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (dir_ / "dangling").c_str()), 0);
  }
  testkit::ScratchDir dir_;
  Env& env_ = Env::system();
};

// Each kind of object at a settings path: read (never waiting) or refused.
TEST_F(ConfigFileTest, OnlyRegularFilesAreReadAndNothingWaits) {
  struct Case {
    const char* name;
    ConfigFileStatus status;
    const char* problem;  // part of the phrase, "" for none
  };
  const Case cases[] = {
      {"regular", ConfigFileStatus::kOk, ""},
      {"link-to-regular", ConfigFileStatus::kOk, ""},
      {"missing", ConfigFileStatus::kMissing, ""},
      {"dangling", ConfigFileStatus::kMissing, ""},
      {"fifo", ConfigFileStatus::kNotRegular, "a FIFO, not a regular file"},
      {"link-to-fifo", ConfigFileStatus::kNotRegular, "a FIFO, not a regular file"},
      {"socket", ConfigFileStatus::kNotRegular, "a socket, not a regular file"},
      {"link-to-socket", ConfigFileStatus::kNotRegular, "a socket, not a regular file"},
      {"folder", ConfigFileStatus::kNotRegular, "a directory, not a regular file"},
      {"regular/below", ConfigFileStatus::kUnreadable, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ConfigFileText text = readConfigFile(env_, dir_ / c.name, 1024);
    EXPECT_EQ(text.status, c.status) << text.problem;
    EXPECT_NE(text.problem.find(c.problem), std::string::npos) << text.problem;
    EXPECT_EQ(text.text, c.status == ConfigFileStatus::kOk ? "settings" : "");
  }
  // A limit below the size refuses the file, and one at the size reads it.
  EXPECT_EQ(readConfigFile(env_, dir_ / "regular", 7).status, ConfigFileStatus::kUnreadable);
  EXPECT_EQ(readConfigFile(env_, dir_ / "regular", 8).text, "settings");
  testkit::writeFile(dir_ / "empty", "");
  ConfigFileText empty = readConfigFile(env_, dir_ / "empty", 8);
  EXPECT_EQ(empty.status, ConfigFileStatus::kOk);
  EXPECT_EQ(empty.text, "");
}

// What a writer may replace: nothing of somebody else's, and a link to a
// regular file is written where it leads.
TEST_F(ConfigFileTest, WritesGoWhereALinkLeadsAndNeverReplaceOtherObjects) {
  std::string problem;
  EXPECT_EQ(configWriteTarget(env_, dir_ / "regular", &problem), dir_ / "regular");
  EXPECT_EQ(configWriteTarget(env_, dir_ / "missing", &problem), dir_ / "missing");
  EXPECT_EQ(configWriteTarget(env_, dir_ / "dangling", &problem), dir_ / "dangling");
  EXPECT_EQ(configWriteTarget(env_, dir_ / "link-to-regular", &problem), env_.realPath(dir_ / "regular"));
  for (const char* name : {"fifo", "socket", "folder", "link-to-fifo", "link-to-socket"}) {
    problem.clear();
    EXPECT_EQ(configWriteTarget(env_, dir_ / name, &problem), std::nullopt) << name;
    EXPECT_NE(problem.find("not a regular file"), std::string::npos) << name << ": " << problem;
  }
}

}  // namespace
}  // namespace zephlore
