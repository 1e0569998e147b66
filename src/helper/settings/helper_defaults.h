// The helper's private settings, its own defaults domain: the XML property
// list $XDG_CONFIG_HOME/com.quorvane.ZephloreHelper.plist (~/.config when
// XDG_CONFIG_HOME is unset). Keys missing from the file read as their
// registered fallbacks; values an administrator writes there by hand (say
// "useSeamlessFileSwitch" = false) are honoured.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>

#include "base/run_loop.h"
#include "helper/settings/plist_file.h"

namespace zephlore {

class KRHelperDefaults {
 public:
  static constexpr const char* kDomainFileName = "com.quorvane.ZephloreHelper.plist";
  static constexpr const char* kLastEventIDKey = "lastEventID";
  static constexpr const char* kShouldRelaunchPrefsKey = "shouldRelaunchPrefs";
  static constexpr const char* kUseSeamlessFileSwitchKey = "useSeamlessFileSwitch";
  // The event id that means "from now on".
  static constexpr uint64_t kSinceNow = UINT64_MAX;

  // One per process, made by its owner (the helper's delegate, the command)
  // over the real system: the settings files are the user's own, never
  // beneath a view.
  explicit KRHelperDefaults(Env& env);
  KRHelperDefaults(const KRHelperDefaults&) = delete;
  KRHelperDefaults& operator=(const KRHelperDefaults&) = delete;

  // Where the domain lives: $XDG_CONFIG_HOME (else ~/.config) + file name.
  const std::string& domainFileName() const { return path_; }

  // Fallback kSinceNow. The setter writes the file and flushes it to disk
  // before it returns, so the id survives a crash. Any thread.
  uint64_t lastEventID() const;
  bool setLastEventID(uint64_t eventID);

  // Fallback false. The setter keeps the value and writes it on `loop`'s
  // next turn (or at the next synchronize()).
  bool shouldRelaunchPrefs() const;
  void setShouldRelaunchPrefs(bool relaunch, RunLoop& loop);

  // Fallback true: the compressor may swap file contents in one step where
  // the file system allows it. Set by hand, never by the helper.
  bool useSeamlessFileSwitch() const;
  void setUseSeamlessFileSwitch(bool use, RunLoop& loop);

  // Reads the file again (changes made by hand since are taken in), lays the
  // values changed here over it and writes the result if anything changed.
  bool synchronize();

 private:
  void setupDefaultValues();
  void registerDefaults(plist_t fallbacks);
  bool synchronizeLocked();
  plist_t valueLocked(const char* key) const;
  void setLocked(const char* key, plist_t value);
  void scheduleSynchronize(RunLoop& loop);

  Env& env_;
  std::string path_;
  mutable std::mutex mutex_;  // guards everything below
  PlistPtr registered_;       // the fallbacks
  PlistPtr values_;           // the file's values plus our changes
  std::set<std::string> changed_;  // keys set here and not yet written
  bool write_failure_said_ = false;  // each save retries; the log says it once
};

}  // namespace zephlore
