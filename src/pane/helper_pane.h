// The pane model over the real things: the history database, the shared
// "defaults.plist" and exclusion lists, the helper's status object and the
// distributed notification center. The window shows it; the zephlore
// command does its pane work through the same calls (the lower-level ones
// below return what the command puts in its own words), so the helper
// cannot tell the one from the other.
#pragma once

#include <gio/gio.h>

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/run_loop.h"
#include "helper/bus/distributed_notification_center.h"
#include "helper/bus/glib_thread.h"
#include "helper/settings/defaults_controller.h"
#include "pane/exclusion_lists.h"
#include "pane/helper_contact.h"
#include "pane/helper_status.h"
#include "pane/pane_model.h"
#include "platform/env.h"

namespace zephlore::pane {

// Where the shared files are.
struct PaneFiles {
  std::string database;            // the history, "" without a data folder
  std::string excludedPaths;       // "excludedPaths.plist"
  std::string excludedExtensions;  // "excludedExtensions.plist"
  // Those in `dataFolder` ("": none), where the helper keeps them.
  static PaneFiles standard(const std::string& dataFolder);
};

// What the pane works through.
struct PaneParts {
  Env& env;
  Clock& clock;
  DistributedNotificationCenter& center;
  // Asked for only when a setting is read or written: opening
  // "defaults.plist" writes it, which an unrelated action must not do.
  std::function<KRDefaultsController&()> defaults;
  PaneFiles files;
  // This login's, over the program's `center`: the shared settings file (a
  // controller of the pane's own, made when first asked for) and the files
  // in `dataFolder`, which the program's main found.
  static PaneParts standard(Env& env, Clock& clock, DistributedNotificationCenter& center,
                            const std::string& dataFolder);
};

// Whether a running helper heard what was posted.
enum class Told {
  kNotTold,     // nothing was posted (no notice belongs to the change)
  kNoBus,       // no session bus: nothing could be posted
  kHeard,       // a helper listens and was told
  kNotRunning,  // posted, but no helper runs
  kSilent,      // a helper owns its bus name but did not answer in time
};

enum class PaneSwitch { kActive, kVisible, kRunAtLogin, kTransparentView, kCheckUpdates };
enum class ExclusionList { kPaths, kExtensions };

struct SwitchResult {
  bool saved = false;
  std::string problem;  // when not saved
  Told told = Told::kNotTold;
};

struct ListEdit {
  enum class Status { kDone, kNoDataFolder, kUnreadable, kNotValid, kNotSaved };
  Status status = Status::kDone;
  std::string problem;  // kUnreadable, kNotSaved: why; kNotValid: the argument
  // Each argument as the list stores it, and whether it changed the list.
  std::vector<std::pair<std::string, bool>> entries;
  Told told = Told::kNotTold;  // told only when the list was changed and saved
};

struct FolderChange {
  bool helperRuns = false;  // false: *problem says why nothing was posted
  std::string problem;
  std::vector<std::string> unrecorded;  // not yet in the history when the wait ended
};

class HelperPane final : public PaneModel {
 public:
  // With a listener, the pane hears the helper on threads of its own and
  // hands every call for the listener to `deliver`.
  explicit HelperPane(PaneParts parts, PaneListener* listener = nullptr, Deliver deliver = {});
  ~HelperPane() override;
  HelperPane(const HelperPane&) = delete;
  HelperPane& operator=(const HelperPane&) = delete;

  // --- PaneModel ---
  std::vector<PaneFolder> folders(std::string* problem) override;
  uint64_t totalSaved() override;
  std::vector<SavingsSample> savingsOverTime() override;
  PaneSettings settings() override;
  HelperState helperState() override;
  std::vector<std::string> excludedPaths() override;
  std::vector<std::string> excludedExtensions() override;
  // Enabling is adding and disabling is removing: the helper's one message
  // for both keeps a removed folder's savings in the history.
  Outcome addFolder(const std::string& path) override;
  Outcome removeFolder(const std::string& path) override;
  Outcome setFolderEnabled(const std::string& path, bool enabled) override;
  Outcome setActive(bool on) override;
  Outcome setVisible(bool on) override;
  Outcome setRunAtLogin(bool on) override;
  Outcome setTransparentView(bool on) override;
  Outcome setCheckUpdates(bool on) override;
  Outcome addExcludedPath(const std::string& path) override;
  Outcome removeExcludedPath(const std::string& path) override;
  Outcome addExcludedExtension(const std::string& extension) override;
  Outcome removeExcludedExtension(const std::string& extension) override;
  Outcome startHelper() override;
  Outcome pause() override;
  Outcome resume() override;
  Outcome quit() override;

  // --- What the command words itself ---
  // Every folder of the history; none (and *problem) when it cannot be read.
  // `withViews` asks the running helper for the views' words too.
  std::optional<std::vector<PaneFolder>> readFolders(std::string* problem, bool withViews = true);
  // Waits for a helper still starting up, runs `post` (may be empty),
  // pushes it out of the process and says who heard it.
  Told tell(const std::function<void()>& post);
  // Writes the switch in "defaults.plist" (and the autostart entry for
  // kRunAtLogin), then posts its name.
  SwitchResult applySwitch(PaneSwitch which, bool on);
  // Checks every argument, applies them in order, writes the list once and
  // posts its name when it changed.
  ListEdit editExclusions(ExclusionList which, bool adding, const std::vector<std::string>& arguments);
  // The list as its file holds it; none (and *problem) when unreadable.
  std::optional<StringList> readExclusions(ExclusionList which, std::string* problem);
  // The canonical folder an argument names; none and *problem ("ARG: not a folder").
  std::optional<std::string> folderToAdd(const std::string& argument, std::string* problem);
  // A watched folder is matched by its recorded path even when it is gone.
  std::optional<std::string> folderToRemove(const std::string& argument, std::string* problem);
  // Starts the helper if needed, posts "com.quorvane.krimble.folders" and,
  // when `waitForRecord`, waits (on the clock) until the history shows the change.
  FolderChange changeFolders(bool adding, const std::vector<std::string>& folders, bool waitForRecord);
  Told quitHelper();
  Told askToCheckForUpdates();
  // Pause or Resume on the status object; false and *problem (*silent when
  // a helper owns its name but never answered).
  bool pauseOrResume(bool pause, bool* absent, bool* silent, std::string* problem);
  // The live status, waiting for a helper still starting up.
  StatusReading readStatus(int timeout_ms);

  HelperContact& contact() { return contact_; }

 private:
  void startListening();
  void stopListening();
  void hand(void (PaneListener::*call)());
  static void onBusSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
                          gpointer self);
  Outcome folderOutcome(bool adding, const std::string& path);
  Outcome switchOutcome(PaneSwitch which, bool on);
  Outcome listOutcome(ExclusionList which, bool adding, const std::string& entry);
  Outcome pauseOutcome(bool pause);

  Env& env_;
  Clock& clock_;
  DistributedNotificationCenter& center_;
  std::function<KRDefaultsController&()> defaults_;
  PaneFiles files_;
  HelperContact contact_;

  PaneListener* listener_;
  Deliver deliver_;
  // Cleared when the pane goes, so that calls already handed over do nothing.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  // The center's notices arrive on this loop, on its own thread; the status
  // object's and the bus's signals on the GLib thread.
  std::unique_ptr<RunLoop> events_;
  std::thread events_thread_;
  std::vector<DistributedNotificationCenter::ObserverId> observers_;
  std::unique_ptr<GlibThread> glib_;
  std::vector<guint> subscriptions_;
};

}  // namespace zephlore::pane
