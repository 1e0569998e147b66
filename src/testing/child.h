// Other processes for tests: a program run with its output collected, and
// a forked copy of the test that holds some state (an open file, a working
// folder) until released, so a test can look at it from outside without any
// sleep.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace zephlore::testkit {

// `argv` (the program looked up in PATH) running with this process's
// environment, no input, and its output on pipes.
class Child {
 public:
  explicit Child(const std::vector<std::string>& argv, int stdout_pipe_size = 0);
  ~Child();  // kills it if still running
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& out() const { return out_text_; }
  const std::string& err() const { return err_text_; }

  // Reads until stdout holds a complete line; false at end of output.
  bool waitForLine();
  // Reads until `done(stdout so far)` holds; false at end of output or when
  // `limit_ms` pass without it.
  bool waitForOutput(const std::function<bool(const std::string&)>& done, int limit_ms);
  // The same for its standard error.
  bool waitForErrorOutput(const std::function<bool(const std::string&)>& done, int limit_ms);
  // Reads everything and returns the exit status (128 + signal if killed).
  int finish();

 private:
  bool pump(int timeout_ms = -1);
  bool waitFor(const std::string& text, const std::function<bool(const std::string&)>& done, int limit_ms);

  pid_t pid_ = -1;
  int out_ = -1, err_ = -1;
  int status_ = -1;
  std::string out_text_, err_text_;
};

struct ProcessResult {
  int status = -1;  // the exit status, 128 + signal if killed
  std::string out;
  std::string err;
};

// Runs `argv` to completion.
ProcessResult runProcess(const std::vector<std::string>& argv);

// A forked copy of this process that runs `setup` and then waits until the
// object is destroyed.
class HoldingChild {
 public:
  explicit HoldingChild(const std::function<bool()>& setup);
  ~HoldingChild();
  HoldingChild(const HoldingChild&) = delete;
  HoldingChild& operator=(const HoldingChild&) = delete;

  pid_t pid() const { return pid_; }
  // Whether `setup` returned true.
  bool ready() const { return ready_; }

 private:
  pid_t pid_ = -1;
  int release_ = -1;
  bool ready_ = false;
};

// Blocks until process `pid` (any, not only a child) has ended, at most
// `ms`: an event wait on its pidfd, not a sleep. False on timeout.
bool waitForExit(pid_t pid, int ms);

}  // namespace zephlore::testkit
