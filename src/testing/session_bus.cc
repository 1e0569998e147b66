#include "testing/session_bus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "testing/files.h"

namespace zephlore::testkit {

TestSessionBus::TestSessionBus(const std::string& folder) {
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
  // Everything the child needs is made before fork(): other threads may hold
  // the allocator's lock at that moment.
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
  if (const char* old = getenv("DBUS_SESSION_BUS_ADDRESS")) previous_ = old;
  setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

TestSessionBus::~TestSessionBus() {
  if (previous_) {
    setenv("DBUS_SESSION_BUS_ADDRESS", previous_->c_str(), 1);
  } else {
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
}

void TestSessionBus::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

}  // namespace zephlore::testkit
