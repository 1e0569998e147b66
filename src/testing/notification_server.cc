#include "testing/notification_server.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "testing/child.h"

namespace zephlore::testkit {

MockNotificationServer::MockNotificationServer() {
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    execl("/usr/bin/python3", "python3", "-m", "dbusmock", "--template", "notification_daemon",
          static_cast<char*>(nullptr));
    _exit(127);
  }
  // Blocks until the name is on the bus (no fixed sleep).
  ready_ = pid_ > 0 &&
           runProcess({"gdbus", "wait", "--session", "--timeout", "30", "org.freedesktop.Notifications"}).status == 0;
}

MockNotificationServer::~MockNotificationServer() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

std::string MockNotificationServer::calls() const {
  return runProcess({"gdbus", "call", "--session", "--dest", "org.freedesktop.Notifications", "--object-path",
                     "/org/freedesktop/Notifications", "--method", "org.freedesktop.DBus.Mock.GetCalls"})
      .out;
}

}  // namespace zephlore::testkit
