// python3-dbusmock's notification daemon on the test's private bus: the
// desktop's org.freedesktop.Notifications for libnotify, with a record of the
// calls it received.
#pragma once

#include <sys/types.h>

#include <string>

namespace zephlore::testkit {

class MockNotificationServer {
 public:
  // Starts the server on the session bus of this process's environment and
  // waits until its name is on the bus.
  MockNotificationServer();
  ~MockNotificationServer();
  MockNotificationServer(const MockNotificationServer&) = delete;
  MockNotificationServer& operator=(const MockNotificationServer&) = delete;

  bool ready() const { return ready_; }

  // The Notify calls the server received, as gdbus prints them.
  std::string calls() const;

 private:
  pid_t pid_ = -1;
  bool ready_ = false;
};

}  // namespace zephlore::testkit
