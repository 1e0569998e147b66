// Test support: runs the built zephlore command as a child process, feeding
// nothing to its input and collecting its output and exit status.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace zephlore::testing {

inline std::string zephloreBinary() { return ZEPHLORE_BINARY_DIR "/bin/zephlore"; }

// A running child with its output on pipes.
class Child {
 public:
  explicit Child(const std::vector<std::string>& args, int stdout_pipe_size = 0) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    if (stdout_pipe_size > 0) fcntl(out[1], F_SETPIPE_SZ, stdout_pipe_size);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    std::vector<std::string> full = {zephloreBinary()};
    full.insert(full.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : full) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
      throw std::runtime_error("spawn " + full[0]);
    }
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    out_ = out[0];
    err_ = err[0];
  }
  ~Child() {
    if (out_ >= 0) close(out_);
    if (err_ >= 0) close(err_);
    if (pid_ > 0 && status_ < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  pid_t pid() const { return pid_; }
  const std::string& out() const { return out_text_; }
  const std::string& err() const { return err_text_; }

  // Reads until stdout holds a complete line; false at end of output.
  bool waitForLine() {
    while (out_text_.find('\n') == std::string::npos) {
      if (!pump()) return false;
    }
    return true;
  }

  // Reads everything and returns the exit status (128 + signal if killed).
  int finish() {
    while (pump()) {
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return status_;
  }

 private:
  // Waits for output on either pipe; false once both are closed.
  bool pump() {
    pollfd fds[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
    if (out_ < 0 && err_ < 0) return false;
    if (poll(fds, 2, -1) < 0) return errno == EINTR;
    readFrom(out_, out_text_, fds[0].revents);
    readFrom(err_, err_text_, fds[1].revents);
    return out_ >= 0 || err_ >= 0;
  }
  static void readFrom(int& fd, std::string& text, short revents) {
    if (fd < 0 || revents == 0) return;
    char buf[65536];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0) {
      text.append(buf, static_cast<size_t>(n));
    } else {
      close(fd);
      fd = -1;
    }
  }

  pid_t pid_ = -1;
  int out_ = -1, err_ = -1;
  int status_ = -1;
  std::string out_text_, err_text_;
};

struct RunResult {
  int status;
  std::string out;
  std::string err;
};

inline RunResult runZephlore(const std::vector<std::string>& args) {
  Child child(args);
  int status = child.finish();
  return {status, child.out(), child.err()};
}

}  // namespace zephlore::testing
