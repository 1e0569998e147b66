// The settings the helper shares with the zephlore command: "defaults.plist"
// in the data folder, an XML property list whose top level is a dictionary
// (protocol/settings_keys.h names the file and its keys).
// The command writes it and then posts a notification; the helper reads it
// again on each such notice (reload()).
#pragma once

#include <plist/plist.h>

#include <mutex>
#include <string>

#include "helper/settings/plist_file.h"
#include "protocol/settings_keys.h"

namespace zephlore {

class KRPreferenceCommunicator;

class KRDefaultsController {
 public:
  // Reads the file and writes it back at once, so the file exists (with the
  // built-in defaults on a first run) from then on. One per process, made
  // by its owner (the helper's delegate, the pane) over the real system:
  // the settings files are the user's own, never beneath a view. The file
  // is kept in `dataFolder` ("": none, the built-in settings only). The
  // update switch is told through `communicator` (none: only written).
  KRDefaultsController(Env& env, std::string dataFolder, KRPreferenceCommunicator* communicator = nullptr);
  KRDefaultsController(const KRDefaultsController&) = delete;
  KRDefaultsController& operator=(const KRDefaultsController&) = delete;

  // The data folder + "defaults.plist"; "" when there is no data folder.
  std::string defaultsFileName() const;

  // Reads the file again. A dictionary with at least one entry becomes the
  // working copy as it is (keys it lacks fall back one by one in the
  // getters); a missing, empty, unparsable or non-dictionary file, or an
  // empty dictionary, gives a full copy of the built-in defaults.
  void reload();
  // Writes the working copy atomically. On failure logs "Could not write
  // preferences to file: <path>" and keeps the values in memory.
  bool synchronize();

  // Each reads its key from the working copy, else the built-in default.
  bool firstRun() const;
  bool helperActive() const;
  bool autorunAtLogin() const;
  bool checkForUpdates() const;
  bool visible() const;
  bool transparentView() const;

  // Each stores its key and writes the file at once.
  bool setFirstRunDone();
  bool setHelperActive(bool active);
  bool setAutorunAtLogin(bool run);
  bool setVisible(bool visible);
  bool setTransparentView(bool on);
  // Also tells the helper afterwards: "krimbleHelperEnableUpdates" or
  // "krimbleHelperDisableUpdates".
  bool setCheckForUpdates(bool check);

  // A copy of the working dictionary / of the built-in defaults.
  PlistPtr defaults() const;
  PlistPtr defaultValues() const;

 private:
  void setupDefaultValues();
  bool boolForKey(const char* key) const;
  bool setBool(const char* key, bool value);

  // Whether a read problem is new (reloads repeat one; the log says it once).
  bool sayReadProblem(const std::string& problem);

  Env& env_;
  const std::string dataFolder_;
  KRPreferenceCommunicator* communicator_;
  mutable std::mutex mutex_;  // guards the two dictionaries and the problem said
  PlistPtr default_values_;   // built once, never changed
  PlistPtr defaults_;         // the working copy
  std::string read_problem_said_;
};

}  // namespace zephlore
