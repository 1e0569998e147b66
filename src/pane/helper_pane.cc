#include "pane/helper_pane.h"

#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <mutex>

#include "base/data_folder.h"
#include "base/util.h"
#include "helper/bus/preference_communicator.h"
#include "helper/history/history_database.h"
#include "helper/history/history_store.h"
#include "helper/settings/exclusions_processor.h"
#include "pane/autostart_entry.h"
#include "pane/volume_hold.h"
#include "platform/normal_path.h"
#include "protocol/bus_names.h"
#include "protocol/notification_names.h"

namespace zephlore::pane {
namespace {

constexpr size_t kMaxFolderPathBytes = 1024;
// The helper saves 0.2 s after a change; a busy one gets some more.
constexpr double kSaveWaitSeconds = 3.0;
// The pane says what it knows at once rather than wait on a stopped or busy helper.
constexpr int kStatusTimeoutMs = 1500;
constexpr int kMethodTimeoutMs = 10000;

// The view line of the status object that concerns `folder`, in words.
std::string viewWords(const std::vector<std::string>& lines, const std::string& folder) {
  const std::string own = folder + ": ";
  const std::string down = "not compressing in " + folder + ": ";
  for (const std::string& line : lines) {
    if (line.starts_with(own)) return line.substr(own.size());
    if (line.starts_with(down)) return "not compressing: " + line.substr(down.size());
  }
  return "";
}

std::string sweepWords(const HistoryRecord& record) {
  // A folder no longer watched has no sweep under way or of record.
  if (!record.enabled) return "";
  return std::to_string(record.status) + "% done, last sweep " +
         (record.lastSweep ? KRUtil::stringWithDate(*record.lastSweep, DateStyle::kMedium, DateStyle::kShort)
                           : std::string("never"));
}

std::string baseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

const char* switchNotification(PaneSwitch which) {
  switch (which) {
    case PaneSwitch::kVisible:
      return kVisibilityNotification;
    case PaneSwitch::kActive:
    case PaneSwitch::kTransparentView:
      // The helper re-reads "active" and the views with the folders.
      return kActiveStatusNotification;
    default:
      return nullptr;
  }
}

Outcome toldOutcome(Told told) {
  // A setting waits in its file for a helper that is not running: no failure.
  if (told == Told::kSilent) return "zephlore-helper runs but did not answer; it may not have heard this.";
  return "";
}

}  // namespace

PaneFiles PaneFiles::standard(const std::string& dataFolder) {
  return {HistoryDatabase::pathInFolder(dataFolder), exclusionPathsFileIn(dataFolder), exclusionExtensionsFileIn(dataFolder)};
}

PaneParts PaneParts::standard(Env& env, Clock& clock, DistributedNotificationCenter& center,
                              const std::string& dataFolder) {
  struct Settings {
    explicit Settings(DistributedNotificationCenter& bus) : communicator(bus) {}
    KRPreferenceCommunicator communicator;
    std::once_flag made;
    std::unique_ptr<KRDefaultsController> defaults;
  };
  auto settings = std::make_shared<Settings>(center);
  return {env, clock, center,
          [settings, &env, dataFolder]() -> KRDefaultsController& {
            std::call_once(settings->made, [&] {
              settings->defaults = std::make_unique<KRDefaultsController>(env, dataFolder, &settings->communicator);
            });
            return *settings->defaults;
          },
          PaneFiles::standard(dataFolder)};
}

HelperPane::HelperPane(PaneParts parts, PaneListener* listener, Deliver deliver)
    : env_(parts.env),
      clock_(parts.clock),
      center_(parts.center),
      defaults_(std::move(parts.defaults)),
      files_(std::move(parts.files)),
      contact_(parts.center, parts.clock),
      listener_(listener),
      deliver_(std::move(deliver)) {
  if (listener_) startListening();
}

HelperPane::~HelperPane() {
  *alive_ = false;
  stopListening();
}

// --- Listening ---------------------------------------------------------------

void HelperPane::hand(void (PaneListener::*call)()) {
  std::shared_ptr<bool> alive = alive_;
  PaneListener* listener = listener_;
  auto fn = [alive, listener, call] {
    if (*alive) (listener->*call)();
  };
  if (deliver_) {
    deliver_(std::move(fn));
  } else {
    fn();
  }
}

void HelperPane::startListening() {
  events_ = std::make_unique<RunLoop>(clock_);
  events_thread_ = std::thread([this] { events_->run(); });
  const std::pair<const char*, void (PaneListener::*)()> notices[] = {
      {kSavingsChangedNotification, &PaneListener::foldersChanged},
      {kShowHistoryNotification, &PaneListener::showHistory},
      {kQuitNotification, &PaneListener::helperQuitting},
      {kRestartingAfterUpdateNotification, &PaneListener::reloadEverything},
  };
  for (const auto& [name, call] : notices) {
    auto member = call;
    observers_.push_back(center_.addObserver(name, [this, member](const Notification&) { hand(member); }, *events_));
  }
  GDBusConnection* connection = center_.connection();
  if (!connection) return;
  glib_ = std::make_unique<GlibThread>();
  // Subscribed on the GLib thread, so that the signals arrive there.
  glib_->run([this, connection] {
    // Any sender: a well-known name as sender is matched by the bus only.
    subscriptions_.push_back(g_dbus_connection_signal_subscribe(
        connection, nullptr, "org.freedesktop.DBus.Properties", "PropertiesChanged", status_names::kObjectPath,
        status_names::kInterface, G_DBUS_SIGNAL_FLAGS_NONE, &HelperPane::onBusSignal, this, nullptr));
    subscriptions_.push_back(g_dbus_connection_signal_subscribe(
        connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", "/org/freedesktop/DBus",
        kHelperBusName, G_DBUS_SIGNAL_FLAGS_NONE, &HelperPane::onBusSignal, this, nullptr));
  });
}

void HelperPane::onBusSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
                             gpointer self) {
  static_cast<HelperPane*>(self)->hand(&PaneListener::helperStateChanged);
}

void HelperPane::stopListening() {
  for (DistributedNotificationCenter::ObserverId id : observers_) center_.removeObserver(id);
  observers_.clear();
  if (glib_) {
    GDBusConnection* connection = center_.connection();
    // Unsubscribed where they were made: no callback runs afterwards.
    glib_->run([this, connection] {
      for (guint id : subscriptions_) g_dbus_connection_signal_unsubscribe(connection, id);
    });
    subscriptions_.clear();
    glib_->stop();
    glib_.reset();
  }
  if (events_) {
    events_->stop();
    events_thread_.join();
    events_.reset();
  }
}

// --- Reading -----------------------------------------------------------------

std::optional<std::vector<PaneFolder>> HelperPane::readFolders(std::string* problem, bool withViews) {
  std::vector<HistoryRecord> records;
  Error error;
  // Read-only: the helper may be writing at the same time.
  if (files_.database.empty() || !HistoryStore::readRecords(env_, files_.database, &records, &error)) {
    if (problem) *problem = files_.database.empty() ? "no data folder" : error.message;
    return std::nullopt;
  }
  std::vector<std::string> views;
  if (withViews && !records.empty() && center_.isConnected() && center_.nameHasOwner(kHelperBusName)) {
    StatusReading reading = readLiveStatus(center_.connection(), kStatusTimeoutMs);
    if (reading.live) views = reading.live->views;
  }
  std::vector<PaneFolder> folders;
  for (const HistoryRecord& record : records) {
    PaneFolder folder;
    folder.path = record.folder;
    folder.enabled = record.enabled;
    struct stat st;
    folder.exists = env_.stat(record.folder, &st) == 0;
    folder.savedBytes = record.savings;
    folder.sweep = sweepWords(record);
    folder.cannotHold = volumeCannotHoldReason(env_, record.folder);
    folder.view = viewWords(views, record.folder);
    folders.push_back(std::move(folder));
  }
  return folders;
}

std::vector<PaneFolder> HelperPane::folders(std::string* problem) {
  return readFolders(problem).value_or(std::vector<PaneFolder>{});
}

uint64_t HelperPane::totalSaved() {
  std::vector<HistoryRecord> records;
  if (files_.database.empty() || !HistoryStore::readRecords(env_, files_.database, &records, nullptr)) return 0;
  uint64_t total = 0;
  for (const HistoryRecord& record : records) total += record.savings;
  return total;
}

std::vector<SavingsSample> HelperPane::savingsOverTime() {
  std::vector<HistorySample> samples;
  if (files_.database.empty() || !HistoryStore::readSamples(env_, files_.database, &samples, nullptr)) return {};
  std::vector<SavingsSample> out;
  for (const HistorySample& sample : samples) {
    out.push_back({std::chrono::duration_cast<std::chrono::seconds>(sample.time.time_since_epoch()).count(),
                   sample.totalSaved});
  }
  return out;
}

PaneSettings HelperPane::settings() {
  KRDefaultsController& defaults = defaults_();
  defaults.reload();
  return {defaults.helperActive(), defaults.visible(), defaults.autorunAtLogin(), defaults.transparentView(),
          defaults.checkForUpdates()};
}

StatusReading HelperPane::readStatus(int timeout_ms) {
  StatusReading reading = readLiveStatus(center_.connection(), timeout_ms);
  // A helper still starting up answers within moments: it is waited for.
  if (!reading.live && reading.starting && contact_.waitUntilHelperListens() == HelperPresence::kListens) {
    reading = readLiveStatus(center_.connection(), timeout_ms);
  }
  return reading;
}

HelperState HelperPane::helperState() {
  using Kind = HelperState::Kind;
  HelperState state;
  if (!center_.isConnected() || !center_.nameHasOwner(kHelperBusName)) {
    state.words = "Not running";
    return state;
  }
  StatusReading reading = readLiveStatus(center_.connection(), kStatusTimeoutMs);
  if (!reading.live) {
    state.kind = reading.absent ? Kind::kNotRunning : Kind::kSilent;
    state.words = reading.absent ? "Not running" : "Not answering";
    return state;
  }
  const LiveStatus& live = *reading.live;
  state.fileInProcess = live.file;
  state.queuedFiles = live.queued;
  state.totalSavings = live.savings;
  for (const std::string& line : live.views) state.views += line + "\n";
  if (live.paused) {
    state.kind = Kind::kPaused;
    state.words = live.waiting.empty() ? "Paused" : "Paused: " + live.waiting;
  } else if (!live.active) {
    state.kind = Kind::kInactive;
    state.words = "Inactive";
  } else if (live.value == 4 || !live.file.empty()) {
    state.kind = Kind::kWorking;
    state.words = live.file.empty() ? "Compressing" : "Compressing " + baseName(live.file);
  } else if (live.value == 3) {
    state.kind = Kind::kWorking;
    state.words = "Analyzing";
  } else {
    state.kind = Kind::kIdle;
    state.words = "Idle";
  }
  if (!live.paused && live.active && !live.waiting.empty()) state.words += "; waiting: " + live.waiting;
  // A folder whose view is down is not compressed in (its files would read empty).
  size_t withoutView = 0;
  for (const std::string& line : live.views) withoutView += line.starts_with("not compressing in ") ? 1 : 0;
  if (withoutView > 0 && state.kind != Kind::kPaused && state.kind != Kind::kInactive) {
    state.words += withoutView == 1 ? "; one folder waits for its view" : "; " + std::to_string(withoutView) +
                                                                             " folders wait for their views";
  }
  return state;
}

std::optional<StringList> HelperPane::readExclusions(ExclusionList which, std::string* problem) {
  const std::string& path = which == ExclusionList::kPaths ? files_.excludedPaths : files_.excludedExtensions;
  if (path.empty()) {
    if (problem) *problem = "no data folder";
    return std::nullopt;
  }
  return readListForEditing(env_, path, problem);
}

std::vector<std::string> HelperPane::excludedPaths() {
  return readExclusions(ExclusionList::kPaths, nullptr).value_or(StringList{});
}

std::vector<std::string> HelperPane::excludedExtensions() {
  return readExclusions(ExclusionList::kExtensions, nullptr).value_or(StringList{});
}

// --- Telling the helper ------------------------------------------------------

Told HelperPane::tell(const std::function<void()>& post) {
  // Only a setting waits in its file for the helper; a request is gone.
  if (!center_.isConnected()) return Told::kNoBus;
  // A helper owns its bus name before it listens: a notice sent in between is lost.
  const HelperPresence presence = contact_.waitUntilHelperListens();
  if (post) post();
  center_.flush();
  switch (presence) {
    case HelperPresence::kListens:
      contact_.postVersionIfHelperRuns();
      return Told::kHeard;
    case HelperPresence::kSilent:
      return Told::kSilent;
    default:
      return Told::kNotRunning;
  }
}

SwitchResult HelperPane::applySwitch(PaneSwitch which, bool on) {
  SwitchResult result;
  KRDefaultsController& defaults = defaults_();
  // Another writer (the command, the other window) may have changed another key.
  defaults.reload();
  const std::string unsaved = "could not save the setting in " + defaults.defaultsFileName();
  switch (which) {
    case PaneSwitch::kActive:
      result.saved = defaults.setHelperActive(on);
      break;
    case PaneSwitch::kVisible:
      result.saved = defaults.setVisible(on);
      break;
    case PaneSwitch::kTransparentView:
      result.saved = defaults.setTransparentView(on);
      break;
    case PaneSwitch::kRunAtLogin:
      // The desktop starts the helper at login, not the helper itself: no notice.
      if (!defaults.setAutorunAtLogin(on)) {
        result.problem = unsaved;
        return result;
      }
      result.saved = on ? installAutostartEntry(env_, &result.problem) : removeAutostartEntry(env_, &result.problem);
      return result;
    case PaneSwitch::kCheckUpdates:
      // The setter writes the file and then posts its own notice.
      result.saved = defaults.setCheckForUpdates(on);
      if (!result.saved) result.problem = unsaved;
      result.told = tell(nullptr);
      return result;
  }
  if (!result.saved) {
    result.problem = unsaved;
    return result;
  }
  const char* name = switchNotification(which);
  result.told = tell([this, name] { center_.postNotificationName(name); });
  return result;
}

Told HelperPane::quitHelper() {
  return tell([this] { center_.postNotificationName(kHelperShouldQuitNotification); });
}

Told HelperPane::askToCheckForUpdates() {
  return tell([this] { center_.postNotificationName(kShouldCheckForUpdatesNotification); });
}

ListEdit HelperPane::editExclusions(ExclusionList which, bool adding, const std::vector<std::string>& arguments) {
  ListEdit edit;
  const bool paths = which == ExclusionList::kPaths;
  const std::string& path = paths ? files_.excludedPaths : files_.excludedExtensions;
  if (path.empty()) {
    edit.status = ListEdit::Status::kNoDataFolder;
    return edit;
  }
  std::optional<StringList> list = readListForEditing(env_, path, &edit.problem);
  if (!list) {
    edit.status = ListEdit::Status::kUnreadable;
    return edit;
  }
  auto apply = [&](StringList& target, const std::string& argument, bool add) -> std::optional<bool> {
    if (!paths) return add ? addExtension(target, argument) : removeExtension(target, argument);
    if (argument.empty()) return std::nullopt;
    const std::string absolute = absolutePath(env_, argument);
    return add ? addPath(env_, target, absolute) : removePath(env_, target, absolute);
  };
  // Every argument is checked before anything is written.
  for (const std::string& argument : arguments) {
    StringList scratch;
    if (!apply(scratch, argument, true)) {
      edit.status = ListEdit::Status::kNotValid;
      edit.problem = argument;
      return edit;
    }
  }
  bool changed = false;
  for (const std::string& argument : arguments) {
    bool did = *apply(*list, argument, adding);
    changed = changed || did;
    edit.entries.emplace_back(
        paths ? absolutePath(env_, argument)
              : KRExclusionsProcessor::normalizedExtension(argument).value_or(argument),
        did);
  }
  if (!changed) return edit;
  if (!writeList(env_, path, *list, &edit.problem)) {
    edit.status = ListEdit::Status::kNotSaved;
    return edit;
  }
  const char* name = paths ? kExcludedPathsNotification : kExcludedExtensionsNotification;
  edit.told = tell([this, name] { center_.postNotificationName(name); });
  return edit;
}

std::optional<std::string> HelperPane::folderToAdd(const std::string& argument, std::string* problem) {
  std::optional<std::string> resolved = argument.empty() ? std::nullopt : env_.realPath(argument);
  if (!resolved) {
    *problem = argument + ": no such folder";
    return std::nullopt;
  }
  const std::string& path = *resolved;
  struct stat st;
  if (env_.stat(path, &st) != 0 || !S_ISDIR(st.st_mode)) {
    *problem = argument + ": not a folder";
    return std::nullopt;
  }
  if (path.size() > kMaxFolderPathBytes || path.find('\n') != std::string::npos) {
    *problem = argument + ": a watched folder's path must be at most 1024 bytes without line breaks";
    return std::nullopt;
  }
  return path;
}

std::optional<std::string> HelperPane::folderToRemove(const std::string& argument, std::string* problem) {
  if (argument.empty()) return folderToAdd(argument, problem);
  const std::string path = resolvedUserPath(env_, argument);
  std::vector<HistoryRecord> records;
  HistoryStore::readRecords(env_, files_.database, &records, nullptr);
  if (std::any_of(records.begin(), records.end(),
                  [&](const HistoryRecord& record) { return record.enabled && record.folder == path; })) {
    return path;
  }
  struct stat st;
  if (env_.stat(path, &st) != 0) {
    *problem = argument + ": not a watched folder";
    return std::nullopt;
  }
  return folderToAdd(argument, problem);
}

FolderChange HelperPane::changeFolders(bool adding, const std::vector<std::string>& folders, bool waitForRecord) {
  FolderChange change;
  if (!contact_.ensureHelperRunning(&change.problem)) return change;
  change.helperRuns = true;
  // The helper saves a moment after the change and then says so. Each such
  // notice, the history is read again until it shows the change (a save the
  // helper made for another reason may come first).
  RunLoop loop(clock_);
  std::vector<std::string> pending = waitForRecord ? folders : std::vector<std::string>{};
  auto recorded = [&] {
    std::vector<HistoryRecord> records;
    HistoryStore::readRecords(env_, files_.database, &records, nullptr);
    std::erase_if(pending, [&](const std::string& folder) {
      return std::any_of(records.begin(), records.end(), [&](const HistoryRecord& record) {
        return record.folder == folder && record.enabled == adding;
      });
    });
  };
  std::optional<DistributedNotificationCenter::ObserverId> observer;
  if (waitForRecord) {
    observer = center_.addObserver(kSavingsChangedNotification, [&](const Notification&) { recorded(); }, loop);
  }
  center_.postNotificationName(kFoldersNotification, {{adding ? kFoldersToAddKey : kFoldersToRemoveKey, folders}},
                               false);
  center_.flush();
  if (observer) {
    bool timedOut = false;
    loop.performAfterDelay(seconds(kSaveWaitSeconds), [&] { timedOut = true; });
    loop.runUntil([&] { return pending.empty() || timedOut; });
    center_.removeObserver(*observer);
  }
  contact_.postVersionIfHelperRuns();
  change.unrecorded = pending;
  return change;
}

bool HelperPane::pauseOrResume(bool pause, bool* absent, bool* silent, std::string* problem) {
  *absent = false;
  *silent = false;
  // A helper still starting up has no methods yet: it is waited for.
  if (contact_.waitUntilHelperListens() == HelperPresence::kSilent) {
    *silent = true;
    return false;
  }
  return callStatusMethod(center_.connection(), pause ? status_names::kPause : status_names::kResume,
                          kMethodTimeoutMs, absent, problem);
}

// --- The model's actions -----------------------------------------------------

Outcome HelperPane::folderOutcome(bool adding, const std::string& path) {
  std::string problem;
  std::optional<std::string> folder = adding ? folderToAdd(path, &problem) : folderToRemove(path, &problem);
  if (!folder) return problem;
  // The window hears "krimbleSavingsChanged" when the helper has saved the change.
  FolderChange change = changeFolders(adding, {*folder}, false);
  return change.helperRuns ? "" : change.problem;
}

Outcome HelperPane::addFolder(const std::string& path) { return folderOutcome(true, path); }
Outcome HelperPane::removeFolder(const std::string& path) { return folderOutcome(false, path); }
Outcome HelperPane::setFolderEnabled(const std::string& path, bool enabled) { return folderOutcome(enabled, path); }

Outcome HelperPane::switchOutcome(PaneSwitch which, bool on) {
  SwitchResult result = applySwitch(which, on);
  return result.saved ? toldOutcome(result.told) : result.problem;
}

Outcome HelperPane::setActive(bool on) { return switchOutcome(PaneSwitch::kActive, on); }
Outcome HelperPane::setVisible(bool on) { return switchOutcome(PaneSwitch::kVisible, on); }
Outcome HelperPane::setRunAtLogin(bool on) { return switchOutcome(PaneSwitch::kRunAtLogin, on); }
Outcome HelperPane::setTransparentView(bool on) { return switchOutcome(PaneSwitch::kTransparentView, on); }
Outcome HelperPane::setCheckUpdates(bool on) { return switchOutcome(PaneSwitch::kCheckUpdates, on); }

Outcome HelperPane::listOutcome(ExclusionList which, bool adding, const std::string& entry) {
  ListEdit edit = editExclusions(which, adding, {entry});
  const char* what = which == ExclusionList::kPaths ? "excluded paths" : "excluded extensions";
  switch (edit.status) {
    case ListEdit::Status::kNoDataFolder:
      return std::string("There is no data folder for the ") + what + ".";
    case ListEdit::Status::kUnreadable:
      return "The " + std::string(what) + " cannot be edited: " + edit.problem;
    case ListEdit::Status::kNotValid:
      return "\"" + edit.problem + "\" is not " + (which == ExclusionList::kPaths ? "a path." : "a file extension.");
    case ListEdit::Status::kNotSaved:
      return "The " + std::string(what) + " could not be saved: " + edit.problem;
    case ListEdit::Status::kDone:
      break;
  }
  return toldOutcome(edit.told);
}

Outcome HelperPane::addExcludedPath(const std::string& path) { return listOutcome(ExclusionList::kPaths, true, path); }
Outcome HelperPane::removeExcludedPath(const std::string& path) {
  return listOutcome(ExclusionList::kPaths, false, path);
}
Outcome HelperPane::addExcludedExtension(const std::string& extension) {
  return listOutcome(ExclusionList::kExtensions, true, extension);
}
Outcome HelperPane::removeExcludedExtension(const std::string& extension) {
  return listOutcome(ExclusionList::kExtensions, false, extension);
}

Outcome HelperPane::startHelper() {
  std::string problem;
  return contact_.ensureHelperRunning(&problem) ? "" : problem;
}

Outcome HelperPane::pauseOutcome(bool pause) {
  bool absent = false, silent = false;
  std::string problem;
  if (pauseOrResume(pause, &absent, &silent, &problem)) return "";
  if (silent) return "zephlore-helper runs but did not answer.";
  return absent ? "zephlore-helper is not running." : "zephlore-helper did not answer: " + problem;
}

Outcome HelperPane::pause() { return pauseOutcome(true); }
Outcome HelperPane::resume() { return pauseOutcome(false); }

Outcome HelperPane::quit() {
  Told told = quitHelper();
  if (told == Told::kNoBus) return "There is no session bus: zephlore-helper cannot be reached.";
  return toldOutcome(told);
}

}  // namespace zephlore::pane
