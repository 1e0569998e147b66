// A view over an Env that fails on demand: what fails beneath reaches the
// program writing through the view as its own error, and the file beneath
// keeps what it had.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

#include "base/unique_fd.h"
#include "platform/fault_env.h"
#include "platform/fuse_availability.h"
#include "testing/bounded_wait.h"
#include "testing/private_tmpfs.h"
#include "view/mount_table.h"
#include "view/forked_view_for_tests.h"
#include "view/view_mount.h"

namespace zephlore::view {
namespace {

std::string contentOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

TEST(ViewFaults, FailuresBeneathReachTheWriterAndLeaveTheFileAsItWas) {
  if (!fuseUsable()) GTEST_SKIP() << "/dev/fuse is missing or not usable: a view cannot be mounted here";
  testkit::PrivateTmpfs tmpfs;
  if (!tmpfs.mounted()) GTEST_SKIP() << "mounting a tmpfs of the test's own needs root";
  const std::string source = tmpfs / "source", shown = tmpfs / "view";
  ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(shown.c_str(), 0755), 0);
  { std::ofstream(source + "/letter.txt") << "earlier content"; }

  // The first write beneath finds the volume full; the first flush fails.
  FaultInjectingEnv env;
  env.inject({.op = "pwrite", .error = ENOSPC, .match = "letter.txt"});
  env.inject({.op = "fsync", .error = EIO, .match = "letter.txt"});
  ForkedView view(env, source, shown);
  ASSERT_TRUE(view.mounted());

  UniqueFd fd(open((shown + "/letter.txt").c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_TRUE(fd) << strerror(errno);
  errno = 0;
  EXPECT_EQ(pwrite(fd.get(), "revised", 7, 0), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(contentOf(source + "/letter.txt"), "earlier content");

  // The next write goes through; its flush fails as the writer's own.
  EXPECT_EQ(pwrite(fd.get(), "revised", 7, 0), 7);
  errno = 0;
  EXPECT_EQ(fsync(fd.get()), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(fsync(fd.get()), 0);
  EXPECT_EQ(contentOf(source + "/letter.txt"), "revised content");
}

}  // namespace
}  // namespace zephlore::view
