#include "helper/settings/helper_defaults.h"

#include <optional>

#include "base/log.h"
#include "base/run_loop.h"
#include "base/xdg.h"

namespace zephlore {

KRHelperDefaults::KRHelperDefaults(Env& env)
    : env_(env),
      path_(configHome() + "/" + kDomainFileName),
      registered_(plist_new_dict()),
      values_(plist_new_dict()) {
  setupDefaultValues();
}

void KRHelperDefaults::setupDefaultValues() {
  PlistPtr fallbacks(plist_new_dict());
  plist_dict_set_item(fallbacks.get(), kLastEventIDKey, plist_new_uint(kSinceNow));
  plist_dict_set_item(fallbacks.get(), kShouldRelaunchPrefsKey, plist_new_bool(0));
  plist_dict_set_item(fallbacks.get(), kUseSeamlessFileSwitchKey, plist_new_bool(1));
  registerDefaults(fallbacks.get());
  synchronize();
}

void KRHelperDefaults::registerDefaults(plist_t fallbacks) {
  std::lock_guard lock(mutex_);
  registered_.reset(plist_copy(fallbacks));
}

bool KRHelperDefaults::synchronize() {
  std::lock_guard lock(mutex_);
  return synchronizeLocked();
}

bool KRHelperDefaults::synchronizeLocked() {
  PlistReadResult file = readPlistFile(env_, path_);
  PlistPtr fresh;
  if (file.status == PlistReadStatus::kOk && plist_get_node_type(file.root.get()) == PLIST_DICT) {
    fresh = std::move(file.root);
    // Say once which hand-set values cannot be read as their type.
    std::string unusable;
    auto check = [&](const char* key, bool ok) {
      if (plist_dict_get_item(fresh.get(), key) && !ok) {
        unusable += std::string(unusable.empty() ? "" : ", ") + key;
      }
    };
    check(kLastEventIDKey, plistUnsignedValue(plist_dict_get_item(fresh.get(), kLastEventIDKey)).has_value());
    check(kShouldRelaunchPrefsKey, plistBoolValue(plist_dict_get_item(fresh.get(), kShouldRelaunchPrefsKey)).has_value());
    check(kUseSeamlessFileSwitchKey, plistBoolValue(plist_dict_get_item(fresh.get(), kUseSeamlessFileSwitchKey)).has_value());
    if (!unusable.empty()) {
      KRLog("Helper settings %s: cannot read %s; using the fallback values", path_.c_str(),
            unusable.c_str());
    }
  } else {
    if (file.status == PlistReadStatus::kOk) {
      KRLog("Helper settings %s do not hold a dictionary: using the fallback values",
            path_.c_str());
    } else if (file.status != PlistReadStatus::kMissing) {
      KRLog("Could not read helper settings from %s (%s): using the fallback values",
            path_.c_str(), file.problem.c_str());
    }
    fresh.reset(plist_new_dict());
  }
  for (const std::string& key : changed_) {
    plist_t mine = plist_dict_get_item(values_.get(), key.c_str());
    if (mine) plist_dict_set_item(fresh.get(), key.c_str(), plist_copy(mine));
  }
  values_ = std::move(fresh);
  if (changed_.empty()) return true;

  makeFolders(path_.substr(0, path_.rfind('/')));
  std::string problem;
  if (!writePlistFileAtomically(env_, path_, values_.get(), &problem)) {
    if (!write_failure_said_) KRLog("Could not write helper settings to %s: %s", path_.c_str(), problem.c_str());
    write_failure_said_ = true;
    return false;
  }
  write_failure_said_ = false;
  changed_.clear();
  return true;
}

plist_t KRHelperDefaults::valueLocked(const char* key) const {
  return plist_dict_get_item(values_.get(), key);
}

void KRHelperDefaults::setLocked(const char* key, plist_t value) {
  plist_dict_set_item(values_.get(), key, value);
  changed_.insert(key);
}

void KRHelperDefaults::scheduleSynchronize(RunLoop& loop) {
  loop.cancelPerform(this, "synchronize");
  loop.performAfterDelay(this, "synchronize", Duration(0), [this] { synchronize(); });
}

uint64_t KRHelperDefaults::lastEventID() const {
  std::lock_guard lock(mutex_);
  if (auto value = plistUnsignedValue(valueLocked(kLastEventIDKey))) return *value;
  return plistUnsignedValue(plist_dict_get_item(registered_.get(), kLastEventIDKey))
      .value_or(kSinceNow);
}

bool KRHelperDefaults::setLastEventID(uint64_t eventID) {
  std::lock_guard lock(mutex_);
  setLocked(kLastEventIDKey, plist_new_uint(eventID));
  return synchronizeLocked();
}

bool KRHelperDefaults::shouldRelaunchPrefs() const {
  std::lock_guard lock(mutex_);
  if (auto value = plistBoolValue(valueLocked(kShouldRelaunchPrefsKey))) return *value;
  return plistBoolValue(plist_dict_get_item(registered_.get(), kShouldRelaunchPrefsKey))
      .value_or(false);
}

void KRHelperDefaults::setShouldRelaunchPrefs(bool relaunch, RunLoop& loop) {
  {
    std::lock_guard lock(mutex_);
    setLocked(kShouldRelaunchPrefsKey, plist_new_bool(relaunch ? 1 : 0));
  }
  scheduleSynchronize(loop);
}

bool KRHelperDefaults::useSeamlessFileSwitch() const {
  std::lock_guard lock(mutex_);
  if (auto value = plistBoolValue(valueLocked(kUseSeamlessFileSwitchKey))) return *value;
  return plistBoolValue(plist_dict_get_item(registered_.get(), kUseSeamlessFileSwitchKey))
      .value_or(true);
}

void KRHelperDefaults::setUseSeamlessFileSwitch(bool use, RunLoop& loop) {
  {
    std::lock_guard lock(mutex_);
    setLocked(kUseSeamlessFileSwitchKey, plist_new_bool(use ? 1 : 0));
  }
  scheduleSynchronize(loop);
}

}  // namespace zephlore
