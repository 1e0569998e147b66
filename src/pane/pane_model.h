// The preference pane's side of the helper's messaging, in one place: what
// the window and the zephlore command read (folders, savings, settings,
// exclusions, the helper's live state) and what they do (write the shared
// file first, then post its name). The window and the command both use it,
// so the helper cannot tell one from the other.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zephlore::pane {

// One row of the folders page.
struct PaneFolder {
  std::string path;
  bool enabled = true;      // watched; a disabled folder keeps its savings
  bool exists = true;       // its path is still there
  uint64_t savedBytes = 0;
  std::string sweep;        // the state of its sweep in words; "" when none
  // Set when its volume cannot hold the compressed form: why.
  std::optional<std::string> cannotHold;
  std::string view;         // the view over it in words; "" when none is wanted
};

// The total saved at a moment, for the chart of savings over time.
struct SavingsSample {
  int64_t unixTime = 0;     // seconds
  uint64_t totalSaved = 0;  // bytes
};

// The switches of the General page, as "defaults.plist" holds them.
struct PaneSettings {
  bool active = true;
  bool visible = true;           // status icon shown
  bool runAtLogin = false;
  bool transparentView = true;
  bool checkUpdates = true;
};

struct HelperState {
  enum class Kind { kNotRunning, kSilent, kIdle, kWorking, kPaused, kInactive };
  Kind kind = Kind::kNotRunning;
  std::string words;             // "Idle", "Compressing NAME", "Paused: on battery", ...
  std::string fileInProcess;     // "" when none
  uint64_t queuedFiles = 0;
  uint64_t totalSavings = 0;
  std::string views;             // one line per view, "" when none
};

// What a window hears. Each call arrives through the model's Deliver, so on
// the thread the window chose (its main loop).
class PaneListener {
 public:
  virtual ~PaneListener() = default;
  virtual void foldersChanged() = 0;       // "krimbleSavingsChanged", a folder edit
  virtual void helperStateChanged() = 0;   // the status object changed, appeared or left
  virtual void showHistory() = 0;          // "com.quorvane.zephlore.show.history"
  virtual void helperQuitting() = 0;       // "com.quorvane.zephlore.quit": let go of the helper
  virtual void reloadEverything() = 0;     // "com.quorvane.zephlore.restarting.after.update"
};

// Runs a function on the listener's thread.
using Deliver = std::function<void(std::function<void()>)>;

// A result: "" when done, else one sentence saying why not, for the user.
using Outcome = std::string;

class PaneModel {
 public:
  virtual ~PaneModel() = default;

  // Reading. Each reads the shared files or the bus afresh.
  virtual std::vector<PaneFolder> folders(std::string* problem) = 0;
  virtual uint64_t totalSaved() = 0;
  virtual std::vector<SavingsSample> savingsOverTime() = 0;
  virtual PaneSettings settings() = 0;
  virtual HelperState helperState() = 0;
  virtual std::vector<std::string> excludedPaths() = 0;
  virtual std::vector<std::string> excludedExtensions() = 0;

  // Folders: posted as "com.quorvane.krimble.folders", as `zephlore add` does.
  virtual Outcome addFolder(const std::string& path) = 0;
  virtual Outcome removeFolder(const std::string& path) = 0;
  virtual Outcome setFolderEnabled(const std::string& path, bool enabled) = 0;

  // General: each writes "defaults.plist", then posts its name.
  virtual Outcome setActive(bool on) = 0;
  virtual Outcome setVisible(bool on) = 0;
  virtual Outcome setRunAtLogin(bool on) = 0;
  virtual Outcome setTransparentView(bool on) = 0;
  virtual Outcome setCheckUpdates(bool on) = 0;

  // Exclusions: each rewrites its list file, then posts its name.
  virtual Outcome addExcludedPath(const std::string& path) = 0;
  virtual Outcome removeExcludedPath(const std::string& path) = 0;
  virtual Outcome addExcludedExtension(const std::string& extension) = 0;
  virtual Outcome removeExcludedExtension(const std::string& extension) = 0;

  // The helper itself.
  virtual Outcome startHelper() = 0;   // as `zephlore add` starts one
  virtual Outcome pause() = 0;
  virtual Outcome resume() = 0;
  virtual Outcome quit() = 0;
};

}  // namespace zephlore::pane
