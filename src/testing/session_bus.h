// A private dbus-daemon with a configuration of its own (a socket in
// `folder`, everything allowed), started for one test and killed at its end.
// Sets DBUS_SESSION_BUS_ADDRESS so that this process and its children use it,
// and puts the previous value back at the end.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace zephlore::testkit {

class TestSessionBus {
 public:
  explicit TestSessionBus(const std::string& folder);
  ~TestSessionBus();
  TestSessionBus(const TestSessionBus&) = delete;
  TestSessionBus& operator=(const TestSessionBus&) = delete;

  const std::string& address() const { return address_; }
  // Kills the daemon now, as a session that ends (or a daemon that dies) does.
  void kill();

 private:
  pid_t pid_ = -1;
  std::string address_;
  std::optional<std::string> previous_;
};

}  // namespace zephlore::testkit
