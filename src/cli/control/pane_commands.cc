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

#include "base/data_folder.h"
#include "cli/control/command_pane.h"
#include "cli/control/commands.h"
#include "helper/bus/distributed_notification_center.h"
#include "helper/settings/defaults_controller.h"
#include "helper/settings/exclusion_rules.h"
#include "pane/autostart_entry.h"
#include "pane/exclusion_lists.h"
#include "helper/settings/helper_defaults.h"
#include "helper/settings/plist_file.h"
#include "helper/settings/resources.h"
#include "protocol/bus_names.h"

namespace zephlore::cli {
namespace {

const char* yesNo(bool value) { return value ? "yes" : "no"; }

const char* presence(Env& env, const std::string& path) {
  struct stat st;
  return env.stat(path, &st) == 0 ? "present" : "absent";
}

using pane::ExclusionList;
using pane::ListEdit;
using pane::PaneSwitch;
using pane::StringList;

// --- settings ----------------------------------------------------------------

void printList(Env& env, const std::string& title, const std::string& path) {
  std::cout << title << ": " << (path.empty() ? "(no data folder)" : path) << "\n";
  std::string problem;
  std::optional<StringList> list = pane::readListForEditing(env, path, &problem);
  if (!list) {
    std::cout << "  (unreadable: " << problem << ")\n";
  } else if (list->empty()) {
    std::cout << "  (none)\n";
  }
  for (const std::string& entry : list.value_or(StringList{})) std::cout << "  " << entry << "\n";
}

void showSettings(Env& env, const std::string& dataFolder) {
  // Only read here: no notice is posted.
  KRDefaultsController defaults(env, dataFolder);
  std::cout << "Shared with zephlore-helper: " << defaults.defaultsFileName() << "\n"
            << "  active          " << yesNo(defaults.helperActive())
            << "   (zephlore activate / deactivate)\n"
            << "  visible         " << yesNo(defaults.visible())
            << "   (zephlore show-icon / hide-icon)\n"
            << "  runAtLogin      " << yesNo(defaults.autorunAtLogin())
            << (defaults.autorunAtLogin() && !pane::autostartEntryInstalled(env)
                    ? "   (but no autostart entry: run zephlore login on)\n"
                    : "   (zephlore login on / off)\n")
            << "  checkUpdates    " << yesNo(defaults.checkForUpdates())
            << "   (zephlore updates on / off)\n"
            << "  transparentView " << yesNo(defaults.transparentView())
            << "   (zephlore view-on / view-off)\n"
            << "  firstRun        " << yesNo(defaults.firstRun()) << "\n";
  std::cout << "Autostart entry: " << pane::autostartEntryPath() << " ("
            << (pane::autostartEntryInstalled(env) ? "present" : "absent") << ")\n";

  KRHelperDefaults own(env);
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

  printList(env, "Excluded paths (zephlore exclude)", exclusionPathsFileIn(dataFolder));
  printList(env, "Excluded extensions (zephlore exclude-ext)", exclusionExtensionsFileIn(dataFolder));
  std::string system = KRExclusionRules::kSystemRulesPath;
  std::string builtIn = resourcePath(KRExclusionRules::kHelperRulesName);
  std::cout << "System exclusion rules: " << system << " ("
            << presence(env, system) << ")\n"
            << "Built-in exclusion rules: " << (builtIn.empty() ? "(not found)" : builtIn)
            << "\n";

  DistributedNotificationCenter center;
  std::cout << "zephlore-helper: "
            << (!center.isConnected()               ? "unknown (no D-Bus session bus)"
                : center.nameHasOwner(kHelperBusName) ? "running"
                                                      : "not running")
            << "\n";
}

// --- exclude / exclude-ext ---------------------------------------------------

struct ListCommand {
  const char* what;          // "excluded paths"
  ExclusionList list;
  const char* argumentKind;  // "a path"
};

void editList(Env& env, Clock& clock, const std::string& dataFolder, int* exit_code, const ListCommand& command, bool adding,
              const std::vector<std::string>& arguments) {
  ListEdit edit = makeCommandPane(env, clock, dataFolder)->editExclusions(command.list, adding, arguments);
  switch (edit.status) {
    case ListEdit::Status::kNoDataFolder:
      std::cerr << "zephlore: no data folder for the " << command.what << "\n";
      *exit_code = 1;
      return;
    case ListEdit::Status::kUnreadable:
      std::cerr << "zephlore: cannot edit the " << command.what << ": " << edit.problem << "\n";
      *exit_code = 1;
      return;
    case ListEdit::Status::kNotValid:
      std::cerr << "zephlore: \"" << edit.problem << "\" is not " << command.argumentKind << "\n";
      *exit_code = 2;
      return;
    default:
      break;
  }
  for (const auto& [shown, did] : edit.entries) {
    if (adding) {
      std::cout << (did ? "Excluded " : "Already excluded: ") << shown << "\n";
    } else if (did) {
      std::cout << "No longer excluded: " << shown << "\n";
    } else {
      std::cerr << "zephlore: " << shown << " is not among the " << command.what << "\n";
      *exit_code = 1;
    }
  }
  if (edit.status == ListEdit::Status::kNotSaved) {
    std::cerr << "zephlore: could not save the " << command.what << ": " << edit.problem << "\n";
    *exit_code = 1;
    return;
  }
  reportTold(edit.told);
}

void listEntries(Env& env, const std::string& dataFolder, int* exit_code, const ListCommand& command) {
  std::string problem;
  // Read without the pane, which would reach for the bus.
  std::string path = command.list == ExclusionList::kPaths ? exclusionPathsFileIn(dataFolder)
                                                           : exclusionExtensionsFileIn(dataFolder);
  std::optional<StringList> list = path.empty() ? std::nullopt : pane::readListForEditing(env, path, &problem);
  if (!list) {
    std::cerr << "zephlore: cannot read the " << command.what << ": "
              << (path.empty() ? "no data folder" : problem) << "\n";
    *exit_code = 1;
    return;
  }
  for (const std::string& entry : *list) std::cout << entry << "\n";
}

void addListCommand(CLI::App& app, Env& env, Clock& clock, const std::string& dataFolder, int* exit_code, const char* name, const char* description,
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
    sub->callback(
        [=, &env, &clock, &dataFolder] { editList(env, clock, dataFolder, exit_code, command, adding, *arguments); });
  }
  group->add_subcommand("list", std::string("Print the ") + command.what + ", one per line")
      ->callback([=, &env, &dataFolder] { listEntries(env, dataFolder, exit_code, command); });
}

// Writes a switch and tells the helper, saying `done` in between.
void applySwitch(Env& env, Clock& clock, const std::string& dataFolder, int* exit_code, PaneSwitch which, bool on, const char* done) {
  pane::SwitchResult result = makeCommandPane(env, clock, dataFolder)->applySwitch(which, on);
  if (!result.saved) {
    std::cerr << "zephlore: " << result.problem << "\n";
    *exit_code = 1;
    return;
  }
  std::cout << done << "\n";
  reportTold(result.told);
}

// The four on/off settings of the helper, each a command of its own.
void addSwitchCommands(CLI::App& app, Env& env, Clock& clock, const std::string& dataFolder, int* exit_code) {
  struct Switch {
    const char* name;
    const char* description;
    PaneSwitch which;
    bool value;
    const char* done;
  };
  static const Switch kSwitches[] = {
      {"activate", "Let zephlore-helper watch and compress the watched folders", PaneSwitch::kActive, true,
       "zephlore-helper is active."},
      {"deactivate", "Stop zephlore-helper from watching and compressing (it keeps running)", PaneSwitch::kActive,
       false, "zephlore-helper is inactive."},
      {"show-icon", "Show zephlore-helper's status icon (while it is active)", PaneSwitch::kVisible, true,
       "The status icon is shown while zephlore-helper is active."},
      {"hide-icon", "Hide zephlore-helper's status icon", PaneSwitch::kVisible, false, "The status icon is hidden."},
      {"view-on",
       "Let zephlore-helper mount a view over each watched folder, so that programs read "
       "compressed files at full content",
       PaneSwitch::kTransparentView, true, "zephlore-helper mounts a view over each watched folder."},
      {"view-off",
       "Stop mounting views over watched folders (a view stays while its folder holds compressed "
       "files, which programs would read empty)",
       PaneSwitch::kTransparentView, false, "zephlore-helper mounts no new views."},
  };
  for (const Switch& entry : kSwitches) {
    app.add_subcommand(entry.name, entry.description)->callback([exit_code, &entry, &env, &clock, &dataFolder] {
      applySwitch(env, clock, dataFolder, exit_code, entry.which, entry.value, entry.done);
    });
  }
}

void addLoginCommand(CLI::App& app, Env& env, Clock& clock, const std::string& dataFolder, int* exit_code) {
  auto login_state = std::make_shared<std::string>();
  CLI::App* login = app.add_subcommand(
      "login", "Start zephlore-helper at login or not (an autostart entry of the desktop)");
  login->add_option("state", *login_state, "on or off")
      ->required()
      ->check(CLI::IsMember({"on", "off"}));
  login->callback([=, &env, &clock, &dataFolder] {
    bool on = *login_state == "on";
    pane::SwitchResult result = makeCommandPane(env, clock, dataFolder)->applySwitch(PaneSwitch::kRunAtLogin, on);
    if (!result.saved) {
      std::cerr << "zephlore: " << result.problem << "\n";
      *exit_code = 1;
      return;
    }
    std::cout << (on ? "zephlore-helper starts at login (" + pane::autostartEntryPath() + ")."
                     : std::string("zephlore-helper no longer starts at login."))
              << "\n";
  });
}

void addUpdatesCommand(CLI::App& app, Env& env, Clock& clock, const std::string& dataFolder, int* exit_code) {
  auto updates_action = std::make_shared<std::string>();
  CLI::App* updates = app.add_subcommand(
      "updates", "Turn automatic update checks on or off, or ask for a check now");
  updates->add_option("action", *updates_action, "on, off or check")
      ->required()
      ->check(CLI::IsMember({"on", "off", "check"}));
  updates->callback([=, &env, &clock, &dataFolder] {
    std::shared_ptr<pane::HelperPane> pane = makeCommandPane(env, clock, dataFolder);
    if (*updates_action == "check") {
      bool told = reportTold(pane->askToCheckForUpdates(), "zephlore-helper is not running; nothing was checked.");
      if (told) std::cout << "Asked zephlore-helper to check for updates.\n";
      return;
    }
    bool on = *updates_action == "on";
    pane::SwitchResult result = pane->applySwitch(PaneSwitch::kCheckUpdates, on);
    if (!result.saved) {
      std::cerr << "zephlore: " << result.problem << "\n";
      *exit_code = 1;
    } else {
      std::cout << (on ? "Automatic update checks are on." : "Automatic update checks are off.") << "\n";
    }
    reportTold(result.told);
  });
}

void addExclusionCommands(CLI::App& app, Env& env, Clock& clock, const std::string& dataFolder, int* exit_code) {
  addListCommand(app, env, clock, dataFolder, exit_code, "exclude",
                 "Folders and files zephlore-helper never compresses (by path prefix)", "PATH",
                 "Folders or files; relative paths are taken from the working folder",
                 ListCommand{"excluded paths", ExclusionList::kPaths, "a path"});
  addListCommand(app, env, clock, dataFolder, exit_code, "exclude-ext",
                 "File extensions zephlore-helper never compresses (any case)", "EXT",
                 "Extensions such as jpg, .JPG or ..jpg (all the same)",
                 ListCommand{"excluded extensions", ExclusionList::kExtensions, "a file extension"});
}

}  // namespace

void addPaneCommands(CLI::App& app, Env& env, Clock& clock, const std::string& dataFolder, int* exit_code) {
  app.add_subcommand("settings",
                     "Show every setting of zephlore-helper and the file it is kept in")
      ->callback([&env, &dataFolder] { showSettings(env, dataFolder); });
  addSwitchCommands(app, env, clock, dataFolder, exit_code);
  addLoginCommand(app, env, clock, dataFolder, exit_code);
  addUpdatesCommand(app, env, clock, dataFolder, exit_code);
  addExclusionCommands(app, env, clock, dataFolder, exit_code);
  app.add_subcommand("quit", "Ask zephlore-helper to finish the file in hand and quit")
      ->callback([exit_code, &env, &clock, &dataFolder] {
        bool silent = false;
        bool told = reportTold(makeCommandPane(env, clock, dataFolder)->quitHelper(), "zephlore-helper is not running.", &silent);
        if (told) std::cout << "Asked zephlore-helper to quit.\n";
        if (silent) *exit_code = 1;
      });
}

}  // namespace zephlore::cli
