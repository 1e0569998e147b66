#include "helper/lifecycle/single_copy.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "platform/process_table.h"
#include "testing/session_bus.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::TestHome;
using testkit::TestSessionBus;

bool listed(const std::vector<RunningCopy>& copies, pid_t pid) {
  return std::any_of(copies.begin(), copies.end(), [pid](const RunningCopy& c) { return c.pid == pid; });
}

TEST(SingleCopy, CountsTheProcessesOfThisExecutableOnly) {
  std::optional<std::string> exe = ownExecutable(Env::system());
  ASSERT_TRUE(exe);
  int hold[2];
  ASSERT_EQ(pipe(hold), 0);
  pid_t twin = fork();  // the same executable
  if (twin == 0) {
    close(hold[1]);
    char c;
    while (read(hold[0], &c, 1) > 0) {
    }
    _exit(0);
  }
  // Closed by the exec itself: its end tells that the other one no longer
  // runs our image.
  int execed[2];
  ASSERT_EQ(pipe2(execed, O_CLOEXEC), 0);
  pid_t other = fork();  // another executable
  if (other == 0) {
    dup2(hold[0], 0);
    close(hold[1]);
    close(execed[0]);
    execlp("cat", "cat", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(hold[0]);
  close(execed[1]);
  char c;
  ASSERT_EQ(read(execed[0], &c, 1), 0);
  close(execed[0]);
  const std::vector<RunningCopy> copies = runningCopiesOf(Env::system(), *exe);
  EXPECT_TRUE(listed(copies, getpid()));
  EXPECT_TRUE(listed(copies, twin));
  EXPECT_FALSE(listed(copies, other));
  close(hold[1]);
  waitpid(twin, nullptr, 0);
  waitpid(other, nullptr, 0);
  EXPECT_FALSE(listed(runningCopiesOf(Env::system(), *exe), twin));
}

// A stand-in helper: reports its verdict on a line, and when it stays, runs
// until this side closes its input.
class Probe {
 public:
  static std::string builtProbe() { return std::string(ZEPHLORE_BINARY_DIR) + "/bin/single_copy_probe"; }
  explicit Probe(const std::string& path = builtProbe()) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    input_ = in[1];
    output_ = out[0];
  }
  ~Probe() {
    release();
    close(output_);
  }
  std::string verdict() {
    std::string line;
    char c;
    while (read(output_, &c, 1) == 1 && c != '\n') line += c;
    return line;
  }
  void release() {
    if (input_ >= 0) close(input_);
    input_ = -1;
    if (pid_ > 0) waitpid(pid_, &status_, 0);
    pid_ = -1;
  }
  int status() const { return status_; }

 private:
  pid_t pid_ = -1;
  int input_ = -1, output_ = -1;
  int status_ = -1;
};

bool stays(const std::string& verdict) { return verdict.rfind("running", 0) == 0; }

// Started at the same moment, both may count two: the bus name leaves one.
// A copy started later while one runs ends at once.
TEST(SingleCopy, CopiesStartedTogetherOrLaterLeaveExactlyOne) {
  TestHome home;
  TestSessionBus bus(home.root());
  for (int round = 0; round < 5; ++round) {
    Probe first, second;
    const std::string a = first.verdict(), b = second.verdict();
    EXPECT_EQ(stays(a) + stays(b), 1) << a << " / " << b;
    EXPECT_NE((stays(a) ? a : b).find("primary=1"), std::string::npos);
    Probe& loser = stays(a) ? second : first;
    loser.release();
    EXPECT_TRUE(WIFEXITED(loser.status()) && WEXITSTATUS(loser.status()) == 0);

    Probe late;
    EXPECT_EQ(late.verdict().rfind("second copy copies=2", 0), 0u);
  }

  // The package's executable and a build tree's are two programs to /proc,
  // yet one helper of the user's: the bus name decides between them.
  const std::string other = home.root() + "/single_copy_probe";
  std::filesystem::copy_file(Probe::builtProbe(), other);
  std::filesystem::permissions(other, std::filesystem::perms::owner_all);
  Probe first;
  EXPECT_TRUE(stays(first.verdict()));
  Probe elsewhere(other);
  EXPECT_EQ(elsewhere.verdict().rfind("second copy", 0), 0u);
}

TEST(SingleCopy, WithoutABusTheOldestCopyStays) {
  TestHome home;  // no session bus known
  Probe first, second;
  const std::string a = first.verdict(), b = second.verdict();
  EXPECT_EQ(stays(a) + stays(b), 1) << a << " / " << b;
  EXPECT_TRUE(stays(a)) << "the older one";
}

}  // namespace
}  // namespace zephlore
