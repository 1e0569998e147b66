// `zephlore preferences` starts the window found beside the command, else on
// PATH, without waiting for it; without one it says so and fails.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "testing/child.h"
#include "testing/files.h"
#include "testing/scoped_env.h"
#include "testing/scratch_dir.h"
#include "testing/zephlore_command.h"

namespace zephlore {
namespace {

TEST(WindowCommandTest, StartsTheWindowBesideTheCommandElseOnPathElseSaysItIsMissing) {
  // A copy of the command in a folder of its own: /proc/self/exe names the
  // copy, so "beside" is that folder and not the build's.
  testkit::ScratchDir dir;
  const std::string installed = dir / "bin";
  const std::string elsewhere = dir / "path";
  std::filesystem::create_directories(installed);
  std::filesystem::create_directories(elsewhere);
  const std::string command = installed + "/zephlore";
  std::filesystem::copy_file(testkit::zephloreBinary(), command);
  // The window's stand-in says where it was found into a FIFO: a started
  // program's output goes to /dev/null, and it runs after the command ended.
  const std::string said = dir / "said";
  ASSERT_EQ(mkfifo(said.c_str(), 0600), 0);
  // Read and write, so that the stand-in's close is no end of file.
  const int saidFd = open(said.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(saidFd, 0);
  auto window = [&](const std::string& folder) {
    testkit::writeFile(folder + "/zephlore-preferences", "#!/bin/sh\necho \"window from $0 $*\" > " + said + "\n",
                       0755);
  };
  auto heard = [&] {
    pollfd ready{saidFd, POLLIN, 0};
    if (poll(&ready, 1, 5000) != 1) return std::string("nothing within 5 s");
    char buf[512];
    const ssize_t n = read(saidFd, buf, sizeof buf);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
  };
  // Nothing else on PATH: an installed window must not answer for the copy.
  testkit::ScopedEnvVar path("PATH", elsewhere);

  auto missing = testkit::runProcess({command, "preferences"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("the preference window is not installed"), std::string::npos) << missing.err;

  window(elsewhere);
  auto onPath = testkit::runProcess({command, "preferences"});
  EXPECT_EQ(onPath.status, 0) << onPath.err;
  EXPECT_EQ(heard(), "window from " + elsewhere + "/zephlore-preferences \n");

  window(installed);
  auto beside = testkit::runProcess({command, "preferences"});
  EXPECT_EQ(beside.status, 0) << beside.err;
  EXPECT_EQ(heard(), "window from " + installed + "/zephlore-preferences \n");
  close(saidFd);
}

}  // namespace
}  // namespace zephlore
