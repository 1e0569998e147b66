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
#include "view/view_mount.h"

namespace zephlore::view {
namespace {

// A view served by a child process through `env`, in the foreground, until
// the object ends; the child's first output tells when it is mounted.
class ForkedView {
 public:
  ForkedView(Env& env, const std::string& source, const std::string& mountPoint) : mountPoint_(mountPoint) {
    int fds[2];
    if (pipe(fds) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fds[1], STDOUT_FILENO);
      close(fds[0]);
      close(fds[1]);
      ViewMountOptions options;
      options.source = source;
      options.mountPoint = mountPoint;
      options.foreground = true;
      _exit(runView(env, options));
    }
    close(fds[1]);
    pollfd ready{fds[0], POLLIN, 0};
    char c;
    mounted_ = pid_ > 0 &&
               poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(testkit::kWaitLimit).count())) == 1 &&
               read(fds[0], &c, 1) == 1 && isViewMounted(mountPoint);
    close(fds[0]);
  }
  ~ForkedView() {
    if (pid_ <= 0) return;
    Error error;
    if (!unmountView(mountPoint_, true, &error)) kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  bool mounted() const { return mounted_; }

 private:
  std::string mountPoint_;
  pid_t pid_ = -1;
  bool mounted_ = false;
};

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
