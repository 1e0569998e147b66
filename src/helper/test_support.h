// Test support for the helper's and the command's tests (header only, not
// part of any library): a private home, a private D-Bus daemon, and running
// a program to completion.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace zephlore::testing {

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

// A fresh home for one test process: HOME, XDG_DATA_HOME, XDG_CONFIG_HOME and
// XDG_RUNTIME_DIR point into a temporary folder, and no session bus is known
// until a TestSessionBus provides one. Removed at the end.
class TestHome {
 public:
  TestHome() {
    char pattern[] = "/tmp/zephlore-test-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    root_ = pattern;
    for (const char* sub : {"/data", "/config", "/run"}) {
      std::filesystem::create_directory(root_ + sub);
    }
    std::filesystem::permissions(root_ + "/run", std::filesystem::perms::owner_all);
    setenv("HOME", root_.c_str(), 1);
    setenv("XDG_DATA_HOME", (root_ + "/data").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (root_ + "/config").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", (root_ + "/run").c_str(), 1);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }
  ~TestHome() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  TestHome(const TestHome&) = delete;
  TestHome& operator=(const TestHome&) = delete;

  const std::string& root() const { return root_; }
  // The data folder the helper chooses in this home.
  std::string dataFolder() const { return root_ + "/data/Zephlore"; }
  std::string configFolder() const { return root_ + "/config"; }

 private:
  std::string root_;
};

// A private dbus-daemon with a configuration of its own (a socket in `folder`,
// everything allowed), started for one test and killed at its end. Sets
// DBUS_SESSION_BUS_ADDRESS so that this process and its children use it.
class TestSessionBus {
 public:
  explicit TestSessionBus(const std::string& folder) {
    std::string config = folder + "/bus.conf";
    writeFile(config,
              "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
              " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
              "<busconfig>\n"
              "  <type>session</type>\n"
              "  <listen>unix:dir=" + folder + "</listen>\n"
              "  <auth>EXTERNAL</auth>\n"
              "  <policy context=\"default\">\n"
              "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
              "    <allow eavesdrop=\"true\"/>\n"
              "    <allow own=\"*\"/>\n"
              "  </policy>\n"
              "</busconfig>\n");
    // Everything the child needs is made before fork(): other threads may
    // hold the allocator's lock at that moment.
    std::string config_arg = "--config-file=" + config;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      // The daemon dies with the test, also when the test crashes.
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      dup2(fds[1], 3);  // dup2 clears close-on-exec on the copy
      execlp("dbus-daemon", "dbus-daemon", config_arg.c_str(), "--nofork", "--print-address=3",
             static_cast<char*>(nullptr));
      _exit(127);
    }
    close(fds[1]);
    // The daemon prints its address once it listens: reading blocks until then.
    char c;
    while (read(fds[0], &c, 1) == 1 && c != '\n') address_ += c;
    close(fds[0]);
    if (address_.empty()) throw std::runtime_error("dbus-daemon did not start");
    setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
  }
  ~TestSessionBus() {
    kill(pid_, SIGTERM);
    int status;
    waitpid(pid_, &status, 0);
  }
  TestSessionBus(const TestSessionBus&) = delete;
  TestSessionBus& operator=(const TestSessionBus&) = delete;

  const std::string& address() const { return address_; }

 private:
  pid_t pid_ = -1;
  std::string address_;
};

struct ProcessResult {
  int exit_code = -1;  // -1 when it did not exit normally
  std::string out;
  std::string err;
};

// Runs `argv` (looked up in PATH) to completion with this process's
// environment; its output is collected through files, so a chatty program
// cannot block on a full pipe.
inline ProcessResult runProcess(const std::vector<std::string>& argv) {
  char out_name[] = "/tmp/zephlore-test-out-XXXXXX";
  char err_name[] = "/tmp/zephlore-test-err-XXXXXX";
  int out = mkstemp(out_name);
  int err = mkstemp(err_name);
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out, 1);
    dup2(err, 2);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(out);
  close(err);
  ProcessResult result;
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  result.out = readFile(out_name);
  result.err = readFile(err_name);
  unlink(out_name);
  unlink(err_name);
  return result;
}

}  // namespace zephlore::testing
