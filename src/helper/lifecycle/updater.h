// KRUpdater: the update bridge. Software comes from the package manager and
// the helper sits in no enclosing bundle, so there is no updater: checks and
// automatic-update switches do nothing. What stays is relaunch(): a command
// of a newer package tells the helper its version, and the helper restarts
// into the executable now installed. The helper's application delegate owns
// the one bridge of the process.
#pragma once

#include <string>
#include <sys/types.h>

namespace zephlore {

class KRUpdater {
 public:
  KRUpdater() = default;

  // The helper's own version: the project version of the build.
  static std::string ownVersion();

  void checkForUpdates() {}
  void enableAutomaticUpdates() { setAutomaticUpdates(true); }
  void disableAutomaticUpdates() { setAutomaticUpdates(false); }
  void setAutomaticUpdates(bool) {}

  // Starts a fresh copy of the installed executable that waits until this
  // process has ended and then runs. Does not end this process; the caller
  // terminates right after. False (and a log line) when it cannot start.
  bool relaunch();
  // The same for any program and process id (the relaunch tool's contract).
  static bool relaunchAfterExit(const std::string& program, pid_t waitFor);

  // The executable of this process as installed now (an upgrade that
  // replaced the file gives the new one).
  static std::string installedExecutable();

  KRUpdater(const KRUpdater&) = delete;
  KRUpdater& operator=(const KRUpdater&) = delete;
};

}  // namespace zephlore
