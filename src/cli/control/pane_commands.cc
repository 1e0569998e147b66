// The helper's control surface: each command changes the shared file first
// and then posts the name the helper listens for, so that a running helper
// re-reads the file and one that is not running finds the change when it
// starts.
#include <sys/stat.h>

#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/util.h"
#include "cli/control/autostart_entry.h"
#include "cli/control/commands.h"
#include "cli/control/exclusion_lists.h"
#include "cli/control/helper_contact.h"
#include "helper/bus/distributed_notification_center.h"
#include "helper/bus/preference_communicator.h"
#include "helper/settings/defaults_controller.h"
#include "helper/settings/exclusion_rules.h"
#include "helper/settings/exclusions_processor.h"
#include "helper/settings/helper_defaults.h"
#include "helper/settings/plist_file.h"
#include "helper/settings/resources.h"
#include "protocol/bus_names.h"
#include "protocol/notification_names.h"

namespace zephlore::cli {
namespace {

const char* yesNo(bool value) { return value ? "yes" : "no"; }

const char* presence(Env& env, const std::string& path) {
  struct stat st;
  return env.stat(path, &st) == 0 ? "present" : "absent";
}

// After the shared file is written: post (unless the setter already did),
// push the notice out of this short-lived process, and say whether a helper
// was there to hear it. A helper still starting up is waited for: it owns
// its bus name before it listens, and a notice sent in between is lost.
// True when a running helper was told; *silent when one runs but never
// answered.
constexpr const char* kAppliedAtStart = "zephlore-helper is not running; it applies the change when it starts.";

bool tellHelper(const std::function<void()>& post, const char* absent = kAppliedAtStart, bool* silent = nullptr) {
  DistributedNotificationCenter& center = DistributedNotificationCenter::defaultCenter();
  if (!center.isConnected()) {
    // Only a setting waits in its file for the helper; a request is gone.
    std::cout << "No D-Bus session bus: no running zephlore-helper could be told"
              << (absent == kAppliedAtStart ? "; it applies the change when it starts.\n" : ".\n");
    return false;
  }
  const HelperPresence presence = waitUntilHelperListens();
  if (post) post();
  center.flush();
  if (presence == HelperPresence::kListens) {
    postVersionIfHelperRuns();
    return true;
  }
  if (presence == HelperPresence::kSilent) {
    std::cerr << "zephlore: zephlore-helper owns its bus name but did not answer within "
              << kHelperStartTimeoutSeconds << " s; it may not have heard this\n";
    if (silent) *silent = true;
    return false;
  }
  std::cout << absent << "\n";
  return false;
}

// A setter of "defaults.plist" followed by its notice.
void setDefault(int* exit_code, bool (KRDefaultsController::*setter)(bool), bool value,
                const std::function<void()>& post, const char* done) {
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  if (!(defaults.*setter)(value)) {
    std::cerr << "zephlore: could not save the setting in " << defaults.defaultsFileName()
              << "\n";
    *exit_code = 1;
    return;
  }
  std::cout << done << "\n";
  tellHelper(post);
}

void postVisibility() {
  DistributedNotificationCenter::defaultCenter().postNotificationName(kVisibilityNotification);
}

void postActiveStatus() {
  KRPreferenceCommunicator::sharedCommunicatorController().notifyHelperActiveStatusChanged();
}

// --- settings ----------------------------------------------------------------

void printList(Env& env, const std::string& title, const std::string& path) {
  std::cout << title << ": " << (path.empty() ? "(no data folder)" : path) << "\n";
  std::string problem;
  std::optional<StringList> list = readListForEditing(env, path, &problem);
  if (!list) {
    std::cout << "  (unreadable: " << problem << ")\n";
  } else if (list->empty()) {
    std::cout << "  (none)\n";
  }
  for (const std::string& entry : list.value_or(StringList{})) std::cout << "  " << entry << "\n";
}

void showSettings(Env& env) {
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  std::cout << "Shared with zephlore-helper: " << defaults.defaultsFileName() << "\n"
            << "  active          " << yesNo(defaults.helperActive())
            << "   (zephlore activate / deactivate)\n"
            << "  visible         " << yesNo(defaults.visible())
            << "   (zephlore show-icon / hide-icon)\n"
            << "  runAtLogin      " << yesNo(defaults.autorunAtLogin())
            << (defaults.autorunAtLogin() && !autostartEntryInstalled(env)
                    ? "   (but no autostart entry: run zephlore login on)\n"
                    : "   (zephlore login on / off)\n")
            << "  checkUpdates    " << yesNo(defaults.checkForUpdates())
            << "   (zephlore updates on / off)\n"
            << "  transparentView " << yesNo(defaults.transparentView())
            << "   (zephlore view-on / view-off)\n"
            << "  firstRun        " << yesNo(defaults.firstRun()) << "\n";
  std::cout << "Autostart entry: " << autostartEntryPath() << " ("
            << (autostartEntryInstalled(env) ? "present" : "absent") << ")\n";

  KRHelperDefaults& own = KRHelperDefaults::sharedHelperDefaults();
  struct stat st;
  uint64_t event = own.lastEventID();
  std::cout << "The helper's own settings: " << own.domainFileName() << "\n"
            << "  lastEventID            "
            << (event == KRHelperDefaults::kSinceNow ? std::string("from now on")
                                                     : std::to_string(event))
            << "\n"
            << "  shouldRelaunchPrefs    " << yesNo(own.shouldRelaunchPrefs()) << "\n"
            << "  useSeamlessFileSwitch  " << yesNo(own.useSeamlessFileSwitch())
            << (env.stat(own.domainFileName(), &st) == 0
                    ? "   (set by hand in that file)\n"
                    : "   (the default; that file does not exist yet, it may be made by hand)\n");

  printList(env, "Excluded paths (zephlore exclude)", KRUtil::pathToExclusionPathsFile());
  printList(env, "Excluded extensions (zephlore exclude-ext)", KRUtil::pathToExclusionExtensionsFile());
  std::string system = KRExclusionRules::kSystemRulesPath;
  std::string builtIn = resourcePath(KRExclusionRules::kHelperRulesName);
  std::cout << "System exclusion rules: " << system << " ("
            << presence(env, system) << ")\n"
            << "Built-in exclusion rules: " << (builtIn.empty() ? "(not found)" : builtIn)
            << "\n";

  DistributedNotificationCenter& center = DistributedNotificationCenter::defaultCenter();
  std::cout << "zephlore-helper: "
            << (!center.isConnected()               ? "unknown (no D-Bus session bus)"
                : center.nameHasOwner(kHelperBusName) ? "running"
                                                      : "not running")
            << "\n";
}

// --- exclude / exclude-ext ---------------------------------------------------

struct ListCommand {
  using Edit = std::function<std::optional<bool>(StringList&, const std::string&)>;
  const char* what;          // "excluded paths"
  std::string (*file)();     // where the list lives
  const char* notification;  // posted after a change
  const char* argumentKind;  // "a path"
  // Applies one argument; none: not a valid argument.
  Edit add;
  Edit remove;
  std::function<std::string(const std::string&)> display;  // the argument as stored
};

std::optional<bool> addPathArgument(Env& env, StringList& list, const std::string& argument) {
  if (argument.empty()) return std::nullopt;
  return addPath(env, list, absolutePath(env, argument));
}

std::optional<bool> removePathArgument(Env& env, StringList& list, const std::string& argument) {
  if (argument.empty()) return std::nullopt;
  return removePath(env, list, absolutePath(env, argument));
}

std::string displayExtension(const std::string& argument) {
  return KRExclusionsProcessor::normalizedExtension(argument).value_or(argument);
}

void editList(Env& env, int* exit_code, const ListCommand& command, bool adding,
              const std::vector<std::string>& arguments) {
  std::string path = command.file();
  if (path.empty()) {
    std::cerr << "zephlore: no data folder for the " << command.what << "\n";
    *exit_code = 1;
    return;
  }
  std::string problem;
  std::optional<StringList> list = readListForEditing(env, path, &problem);
  if (!list) {
    std::cerr << "zephlore: cannot edit the " << command.what << ": " << problem << "\n";
    *exit_code = 1;
    return;
  }
  // Every argument is checked before anything is written.
  for (const std::string& argument : arguments) {
    StringList scratch;
    if (!command.add(scratch, argument)) {
      std::cerr << "zephlore: \"" << argument << "\" is not " << command.argumentKind << "\n";
      *exit_code = 2;
      return;
    }
  }
  bool changed = false;
  for (const std::string& argument : arguments) {
    bool did = adding ? *command.add(*list, argument) : *command.remove(*list, argument);
    changed = changed || did;
    std::string shown = command.display(argument);
    if (adding) {
      std::cout << (did ? "Excluded " : "Already excluded: ") << shown << "\n";
    } else if (did) {
      std::cout << "No longer excluded: " << shown << "\n";
    } else {
      std::cerr << "zephlore: " << shown << " is not among the " << command.what << "\n";
      *exit_code = 1;
    }
  }
  if (!changed) return;
  if (!writeList(env, path, *list, &problem)) {
    std::cerr << "zephlore: could not save the " << command.what << ": " << problem << "\n";
    *exit_code = 1;
    return;
  }
  tellHelper([&] {
    DistributedNotificationCenter::defaultCenter().postNotificationName(command.notification);
  });
}

void listEntries(Env& env, int* exit_code, const ListCommand& command) {
  std::string problem;
  std::string path = command.file();
  std::optional<StringList> list = path.empty() ? std::nullopt : readListForEditing(env, path, &problem);
  if (!list) {
    std::cerr << "zephlore: cannot read the " << command.what << ": "
              << (path.empty() ? "no data folder" : problem) << "\n";
    *exit_code = 1;
    return;
  }
  for (const std::string& entry : *list) std::cout << entry << "\n";
}

void addListCommand(CLI::App& app, Env& env, int* exit_code, const char* name, const char* description,
                    const char* argument_name, const char* argument_help,
                    const ListCommand& command) {
  CLI::App* group = app.add_subcommand(name, description);
  group->require_subcommand(1);
  auto arguments = std::make_shared<std::vector<std::string>>();
  for (bool adding : {true, false}) {
    CLI::App* sub = group->add_subcommand(
        adding ? "add" : "remove",
        std::string(adding ? "Add to the " : "Remove from the ") + command.what);
    sub->add_option(argument_name, *arguments, argument_help)->required();
    sub->callback([=, &env] { editList(env, exit_code, command, adding, *arguments); });
  }
  group->add_subcommand("list", std::string("Print the ") + command.what + ", one per line")
      ->callback([=, &env] { listEntries(env, exit_code, command); });
}

// The four on/off settings of the helper, each a command of its own.
void addSwitchCommands(CLI::App& app, int* exit_code) {
  struct Switch {
    const char* name;
    const char* description;
    bool (KRDefaultsController::*setter)(bool);
    bool value;
    void (*post)();
    const char* done;
  };
  static const Switch kSwitches[] = {
      {"activate", "Let zephlore-helper watch and compress the watched folders",
       &KRDefaultsController::setHelperActive, true, postActiveStatus,
       "zephlore-helper is active."},
      {"deactivate", "Stop zephlore-helper from watching and compressing (it keeps running)",
       &KRDefaultsController::setHelperActive, false, postActiveStatus,
       "zephlore-helper is inactive."},
      {"show-icon", "Show zephlore-helper's status icon (while it is active)",
       &KRDefaultsController::setVisible, true, postVisibility,
       "The status icon is shown while zephlore-helper is active."},
      {"hide-icon", "Hide zephlore-helper's status icon", &KRDefaultsController::setVisible, false,
       postVisibility, "The status icon is hidden."},
      {"view-on",
       "Let zephlore-helper mount a view over each watched folder, so that programs read "
       "compressed files at full content",
       &KRDefaultsController::setTransparentView, true, postActiveStatus,
       "zephlore-helper mounts a view over each watched folder."},
      {"view-off",
       "Stop mounting views over watched folders (a view stays while its folder holds compressed "
       "files, which programs would read empty)",
       &KRDefaultsController::setTransparentView, false, postActiveStatus,
       "zephlore-helper mounts no new views."},
  };
  for (const Switch& entry : kSwitches) {
    app.add_subcommand(entry.name, entry.description)->callback([exit_code, &entry] {
      setDefault(exit_code, entry.setter, entry.value, entry.post, entry.done);
    });
  }
}

void addLoginCommand(CLI::App& app, Env& env, int* exit_code) {
  auto login_state = std::make_shared<std::string>();
  CLI::App* login = app.add_subcommand(
      "login", "Start zephlore-helper at login or not (an autostart entry of the desktop)");
  login->add_option("state", *login_state, "on or off")
      ->required()
      ->check(CLI::IsMember({"on", "off"}));
  login->callback([=, &env] {
    bool on = *login_state == "on";
    KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
    if (!defaults.setAutorunAtLogin(on)) {
      std::cerr << "zephlore: could not save the setting in " << defaults.defaultsFileName()
                << "\n";
      *exit_code = 1;
      return;
    }
    std::string problem;
    if (!(on ? installAutostartEntry(env, &problem) : removeAutostartEntry(env, &problem))) {
      std::cerr << "zephlore: " << problem << "\n";
      *exit_code = 1;
      return;
    }
    std::cout << (on ? "zephlore-helper starts at login (" + autostartEntryPath() + ")."
                     : std::string("zephlore-helper no longer starts at login."))
              << "\n";
  });
}

void addUpdatesCommand(CLI::App& app, int* exit_code) {
  auto updates_action = std::make_shared<std::string>();
  CLI::App* updates = app.add_subcommand(
      "updates", "Turn automatic update checks on or off, or ask for a check now");
  updates->add_option("action", *updates_action, "on, off or check")
      ->required()
      ->check(CLI::IsMember({"on", "off", "check"}));
  updates->callback([=] {
    if (*updates_action == "check") {
      bool told = tellHelper(
          [] {
            KRPreferenceCommunicator::sharedCommunicatorController()
                .notifyHelperShouldCheckForUpdates();
          },
          "zephlore-helper is not running; nothing was checked.");
      if (told) std::cout << "Asked zephlore-helper to check for updates.\n";
      return;
    }
    bool on = *updates_action == "on";
    KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
    // The setter writes the file and then posts its own notice.
    if (!defaults.setCheckForUpdates(on)) {
      std::cerr << "zephlore: could not save the setting in " << defaults.defaultsFileName()
                << "\n";
      *exit_code = 1;
    } else {
      std::cout << (on ? "Automatic update checks are on." : "Automatic update checks are off.")
                << "\n";
    }
    tellHelper(nullptr);
  });
}

void addExclusionCommands(CLI::App& app, Env& env, int* exit_code) {
  addListCommand(app, env, exit_code, "exclude",
                 "Folders and files zephlore-helper never compresses (by path prefix)", "PATH",
                 "Folders or files; relative paths are taken from the working folder",
                 ListCommand{"excluded paths", &KRUtil::pathToExclusionPathsFile, kExcludedPathsNotification,
                             "a path",
                             [&env](StringList& list, const std::string& argument) {
                               return addPathArgument(env, list, argument);
                             },
                             [&env](StringList& list, const std::string& argument) {
                               return removePathArgument(env, list, argument);
                             },
                             [&env](const std::string& argument) { return absolutePath(env, argument); }});
  addListCommand(app, env, exit_code, "exclude-ext",
                 "File extensions zephlore-helper never compresses (any case)", "EXT",
                 "Extensions such as jpg, .JPG or ..jpg (all the same)",
                 ListCommand{"excluded extensions", &KRUtil::pathToExclusionExtensionsFile,
                             kExcludedExtensionsNotification, "a file extension", &addExtension, &removeExtension,
                             &displayExtension});
}

}  // namespace

void addPaneCommands(CLI::App& app, Env& env, int* exit_code) {
  app.add_subcommand("settings",
                     "Show every setting of zephlore-helper and the file it is kept in")
      ->callback([&env] { showSettings(env); });
  addSwitchCommands(app, exit_code);
  addLoginCommand(app, env, exit_code);
  addUpdatesCommand(app, exit_code);
  addExclusionCommands(app, env, exit_code);
  app.add_subcommand("quit", "Ask zephlore-helper to finish the file in hand and quit")
      ->callback([exit_code] {
        bool silent = false;
        bool told = tellHelper(
            [] { KRPreferenceCommunicator::sharedCommunicatorController().notifyHelperShouldQuit(); },
            "zephlore-helper is not running.", &silent);
        if (told) std::cout << "Asked zephlore-helper to quit.\n";
        if (silent) *exit_code = 1;
      });
}

}  // namespace zephlore::cli
