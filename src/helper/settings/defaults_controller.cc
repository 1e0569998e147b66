#include "helper/settings/defaults_controller.h"

#include <optional>
#include <utility>

#include "base/log.h"
#include "helper/bus/preference_communicator.h"
#include "platform/fuse_availability.h"

namespace zephlore {
namespace {

// Linux cannot end a process abruptly on the system's whim the way some
// desktops do, so there is nothing to switch off; the calls mark the span in
// which such a kill would leave the settings half read.
void disableSuddenTermination() {}
void enableSuddenTermination() {}

const char* kBooleanKeys[] = {
    kFirstRunKey, kActiveKey, kRunAtLoginKey, kCheckUpdatesKey, kVisibleKey, kTransparentViewKey};

const char* typeName(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_ARRAY: return "an array";
    case PLIST_DICT: return "a dictionary";
    case PLIST_DATA: return "data";
    case PLIST_DATE: return "a date";
    case PLIST_STRING: return "a string";
    case PLIST_UINT: return "a number";
    default: return "another type";
  }
}

}  // namespace

KRDefaultsController::KRDefaultsController(Env& env, std::string dataFolder,
                                           KRPreferenceCommunicator* communicator)
    : env_(env), dataFolder_(std::move(dataFolder)), communicator_(communicator) {
  setupDefaultValues();
}

void KRDefaultsController::setupDefaultValues() {
  disableSuddenTermination();
  default_values_.reset(plist_new_dict());
  plist_t values = default_values_.get();
  plist_dict_set_item(values, kFirstRunKey, plist_new_bool(1));
  plist_dict_set_item(values, kFolderAliasesKey, plist_new_array());
  plist_dict_set_item(values, kActiveKey, plist_new_bool(1));
  plist_dict_set_item(values, kRunAtLoginKey, plist_new_bool(1));
  plist_dict_set_item(values, kCheckUpdatesKey, plist_new_bool(1));
  plist_dict_set_item(values, kVisibleKey, plist_new_bool(1));
  plist_dict_set_item(values, kTransparentViewKey, plist_new_bool(fuseUsable() ? 1 : 0));
  defaults_.reset(plist_new_dict());
  reload();
  synchronize();
  enableSuddenTermination();
}

std::string KRDefaultsController::defaultsFileName() const {
  return dataFolder_.empty() ? "" : dataFolder_ + "/" + kDefaultsFileName;
}

bool KRDefaultsController::sayReadProblem(const std::string& problem) {
  std::lock_guard lock(mutex_);
  if (problem == read_problem_said_) return false;
  read_problem_said_ = problem;
  return true;
}

void KRDefaultsController::reload() {
  const std::string path = defaultsFileName();
  PlistReadResult file;
  if (path.empty()) {
    KRLog("No data folder: using the built-in settings");
  } else {
    file = readPlistFile(env_, path);
    const bool failed = file.status != PlistReadStatus::kOk && file.status != PlistReadStatus::kMissing;
    if (sayReadProblem(failed ? file.problem : "") && failed) {
      KRLog("Could not read preferences from %s (%s): using the built-in settings", path.c_str(),
            file.problem.c_str());
    } else if (file.status == PlistReadStatus::kOk &&
               plist_get_node_type(file.root.get()) != PLIST_DICT) {
      KRLog("Preferences file %s does not hold a dictionary: using the built-in settings",
            path.c_str());
    }
  }
  plist_t root = file.root.get();
  bool usable = root && plist_get_node_type(root) == PLIST_DICT && plist_dict_get_size(root) > 0;

  std::lock_guard lock(mutex_);
  defaults_.reset(plist_copy(usable ? root : default_values_.get()));
  if (!usable) return;
  // Say once which values the getters cannot read and will take from the
  // built-in defaults instead.
  std::string unusable;
  for (const char* key : kBooleanKeys) {
    plist_t value = plist_dict_get_item(root, key);
    if (value && !plistBoolValue(value)) {
      unusable += std::string(unusable.empty() ? "" : ", ") + key + " is " + typeName(value);
    }
  }
  plist_t aliases = plist_dict_get_item(root, kFolderAliasesKey);
  if (aliases && plist_get_node_type(aliases) != PLIST_ARRAY) {
    unusable += std::string(unusable.empty() ? "" : ", ") + kFolderAliasesKey + " is " +
                typeName(aliases);
  }
  if (!unusable.empty()) {
    KRLog("Preferences file %s: %s; using the built-in values for them", path.c_str(),
          unusable.c_str());
  }
}

bool KRDefaultsController::synchronize() {
  const std::string path = defaultsFileName();
  std::string problem = "no data folder";
  bool written = false;
  if (!path.empty()) {
    std::lock_guard lock(mutex_);
    written = writePlistFileAtomically(env_, path, defaults_.get(), &problem);
  }
  if (!written) KRLog("Could not write preferences to file: %s", path.c_str());
  return written;
}

bool KRDefaultsController::boolForKey(const char* key) const {
  std::lock_guard lock(mutex_);
  if (std::optional<bool> value = plistBoolValue(plist_dict_get_item(defaults_.get(), key))) {
    return *value;
  }
  return plistBoolValue(plist_dict_get_item(default_values_.get(), key)).value_or(false);
}

bool KRDefaultsController::setBool(const char* key, bool value) {
  {
    std::lock_guard lock(mutex_);
    plist_dict_set_item(defaults_.get(), key, plist_new_bool(value ? 1 : 0));
  }
  return synchronize();
}

bool KRDefaultsController::firstRun() const { return boolForKey(kFirstRunKey); }
bool KRDefaultsController::helperActive() const { return boolForKey(kActiveKey); }
bool KRDefaultsController::autorunAtLogin() const { return boolForKey(kRunAtLoginKey); }
bool KRDefaultsController::checkForUpdates() const { return boolForKey(kCheckUpdatesKey); }
bool KRDefaultsController::visible() const { return boolForKey(kVisibleKey); }
bool KRDefaultsController::transparentView() const { return boolForKey(kTransparentViewKey); }

bool KRDefaultsController::setFirstRunDone() { return setBool(kFirstRunKey, false); }
bool KRDefaultsController::setHelperActive(bool active) { return setBool(kActiveKey, active); }
bool KRDefaultsController::setAutorunAtLogin(bool run) { return setBool(kRunAtLoginKey, run); }
bool KRDefaultsController::setVisible(bool visible) { return setBool(kVisibleKey, visible); }
bool KRDefaultsController::setTransparentView(bool on) { return setBool(kTransparentViewKey, on); }

bool KRDefaultsController::setCheckForUpdates(bool check) {
  bool written = setBool(kCheckUpdatesKey, check);
  // The file first, then the notice: the helper's reaction reads no file,
  // but a pane reading "checkUpdates" on the notice must see the new value.
  if (!communicator_) return written;
  if (check) {
    communicator_->notifyAutomaticUpdatesEnabled();
  } else {
    communicator_->notifyAutomaticUpdatesDisabled();
  }
  return written;
}

PlistPtr KRDefaultsController::defaults() const {
  std::lock_guard lock(mutex_);
  return PlistPtr(plist_copy(defaults_.get()));
}

PlistPtr KRDefaultsController::defaultValues() const {
  return PlistPtr(plist_copy(default_values_.get()));
}

}  // namespace zephlore
