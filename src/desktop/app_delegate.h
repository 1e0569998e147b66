// KRAppDelegate: the helper's application object. So far it pauses and
// resumes the work for the status item's Pause and Resume; start-up, quit
// and the rest of the lifecycle join it later.
#pragma once

#include <functional>

namespace zephlore {

class KRAppDelegate {
 public:
  static KRAppDelegate& sharedAppDelegate();

  // Stops the watcher's event stream (its folders are kept), then pauses
  // the compressor. Main thread.
  void pauseApp();
  // Restarts the stream and resumes the compressor. Main thread.
  void resumeApp();

  // The watcher's setPaused, until the watcher's event stream is here.
  void setWatcherPauseAction(std::function<void(bool paused)> action) { watcherPaused_ = std::move(action); }

  KRAppDelegate(const KRAppDelegate&) = delete;
  KRAppDelegate& operator=(const KRAppDelegate&) = delete;

 private:
  KRAppDelegate() = default;

  std::function<void(bool)> watcherPaused_;
};

}  // namespace zephlore
