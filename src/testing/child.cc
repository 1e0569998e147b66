#include "testing/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>

extern char** environ;

namespace zephlore::testkit {

namespace {

void readFrom(int& fd, std::string& text, short revents) {
  if (fd < 0 || revents == 0) return;
  char buf[65536];
  ssize_t n = read(fd, buf, sizeof buf);
  if (n > 0) {
    text.append(buf, static_cast<size_t>(n));
  } else if (n == 0 || errno != EINTR) {
    close(fd);
    fd = -1;
  }
}

}  // namespace

Child::Child(const std::vector<std::string>& argv, int stdout_pipe_size) {
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  if (stdout_pipe_size > 0) fcntl(out[1], F_SETPIPE_SZ, stdout_pipe_size);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  std::vector<std::string> copy = argv;
  std::vector<char*> args;
  for (std::string& a : copy) args.push_back(a.data());
  args.push_back(nullptr);
  int spawned = posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(err[1]);
  out_ = out[0];
  err_ = err[0];
  if (spawned != 0) throw std::runtime_error("spawn " + copy[0]);
}

Child::~Child() {
  if (out_ >= 0) close(out_);
  if (err_ >= 0) close(err_);
  if (pid_ > 0 && status_ < 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

bool Child::waitForLine() {
  while (out_text_.find('\n') == std::string::npos) {
    if (!pump()) return false;
  }
  return true;
}

int Child::finish() {
  while (pump()) {
  }
  int status = 0;
  waitpid(pid_, &status, 0);
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return status_;
}

// Waits for output on either pipe; false once both are closed.
bool Child::waitForOutput(const std::function<bool(const std::string&)>& done, int limit_ms) {
  return waitFor(out_text_, done, limit_ms);
}

bool Child::waitForErrorOutput(const std::function<bool(const std::string&)>& done, int limit_ms) {
  return waitFor(err_text_, done, limit_ms);
}

bool Child::waitFor(const std::string& text, const std::function<bool(const std::string&)>& done, int limit_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
  while (!done(text)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !pump(static_cast<int>(left.count()))) return done(text);
  }
  return true;
}

bool Child::pump(int timeout_ms) {
  if (out_ < 0 && err_ < 0) return false;
  pollfd fds[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
  const int ready = poll(fds, 2, timeout_ms);
  if (ready < 0) return errno == EINTR;
  if (ready == 0) return true;  // nothing yet; the caller checks its deadline
  readFrom(out_, out_text_, fds[0].revents);
  readFrom(err_, err_text_, fds[1].revents);
  return out_ >= 0 || err_ >= 0;
}

ProcessResult runProcess(const std::vector<std::string>& argv) {
  Child child(argv);
  int status = child.finish();
  return {status, child.out(), child.err()};
}

HoldingChild::HoldingChild(const std::function<bool()>& setup) {
  int ready[2], release[2];
  if (pipe(ready) != 0 || pipe(release) != 0) throw std::runtime_error("pipe");
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ == 0) {
    close(ready[0]);
    close(release[1]);
    char ok = setup() ? 1 : 0;
    if (write(ready[1], &ok, 1) != 1) _exit(2);
    char c;
    while (read(release[0], &c, 1) < 0 && errno == EINTR) {
    }
    _exit(0);
  }
  close(ready[1]);
  close(release[0]);
  release_ = release[1];
  char ok = 0;
  ready_ = read(ready[0], &ok, 1) == 1 && ok == 1;
  close(ready[0]);
}

HoldingChild::~HoldingChild() {
  close(release_);
  int status;
  waitpid(pid_, &status, 0);
}

bool waitForExit(pid_t pid, int ms) {
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (fd < 0) return true;  // already gone
  struct pollfd wait = {fd, POLLIN, 0};
  const bool ended = poll(&wait, 1, ms) == 1;
  close(fd);
  return ended;
}

}  // namespace zephlore::testkit
