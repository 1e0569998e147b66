// The pane's folder commands: `add` and `remove` tell the helper which
// folders to watch (starting it when needed), `folders` shows the history
// the helper keeps, read-only, whether or not the helper runs.
#include <sys/stat.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "base/util.h"
#include "cli/control/command_pane.h"
#include "cli/control/commands.h"
#include "cli/control/volume_advice.h"
#include "cli/files/beneath_views.h"
#include "helper/history/history_database.h"
#include "helper/history/history_store.h"
#include "pane/volume_hold.h"

namespace zephlore::cli {
namespace {

void changeFolders(Env& env, Clock& clock, const std::string& dataFolder, int* exit_code, bool adding, const std::vector<std::string>& arguments) {
  if (reportDeadViews(arguments, adding ? "add" : "remove")) {
    *exit_code = 1;
    return;
  }
  std::shared_ptr<pane::HelperPane> pane = makeCommandPane(env, clock, dataFolder);
  std::vector<std::string> folders;
  for (const std::string& argument : arguments) {
    std::string problem;
    std::optional<std::string> folder =
        adding ? pane->folderToAdd(argument, &problem) : pane->folderToRemove(argument, &problem);
    if (!folder) {
      std::cerr << "zephlore: " << problem << "\n";
      *exit_code = 1;
      return;
    }
    folders.push_back(*folder);
  }
  // Waits until the history shows the change, so that `zephlore folders`
  // right afterwards shows it too.
  pane::FolderChange change = pane->changeFolders(adding, folders, true);
  if (!change.helperRuns) {
    std::cerr << "zephlore: " << change.problem << "; nothing was " << (adding ? "added" : "removed") << "\n";
    *exit_code = 1;
    return;
  }
  for (const std::string& folder : folders) {
    if (std::find(change.unrecorded.begin(), change.unrecorded.end(), folder) != change.unrecorded.end()) {
      std::cout << folder << ": zephlore-helper has not recorded the change"
                << (adding ? " (a folder inside a watched one is not added on its own)" : "")
                << "\n";
    } else {
      std::cout << (adding ? "Watching " : "No longer watching ") << folder << "\n";
    }
  }
}

std::string lastSweepText(const HistoryRecord& record) {
  return record.lastSweep ? KRUtil::stringWithDate(*record.lastSweep, DateStyle::kMedium,
                                                   DateStyle::kShort)
                          : "never";
}

void showFolders(Env& env, const std::string& dataFolder, int* exit_code, bool json) {
  std::string path = HistoryDatabase::pathInFolder(dataFolder);
  std::vector<HistoryRecord> records;
  Error error;
  if (path.empty() || !HistoryStore::readRecords(env, path, &records, &error)) {
    std::cerr << "zephlore: cannot read the history: "
              << (path.empty() ? "no data folder" : error.message) << "\n";
    *exit_code = 1;
    return;
  }
  uint64_t total = 0;
  for (const HistoryRecord& record : records) total += record.savings;

  if (json) {
    nlohmann::json list = nlohmann::json::array();
    for (const HistoryRecord& record : records) {
      nlohmann::json sweep = nullptr;
      if (record.lastSweep) {
        sweep = std::chrono::duration_cast<std::chrono::seconds>(
                    record.lastSweep->time_since_epoch())
                    .count();
      }
      list.push_back({{"path", record.folder},
                      {"watched", record.enabled},
                      {"volumeCanHoldCompressedForm", !pane::volumeCannotHoldReason(env, record.folder)},
                      {"savings", record.savings},
                      {"savingsText", KRUtil::getPrettySize(record.savings)},
                      // A folder no longer watched has no sweep under way or of record.
                      {"progress", record.enabled ? nlohmann::json(record.status) : nlohmann::json(nullptr)},
                      {"lastSweep", sweep}});
    }
    nlohmann::json out = {{"database", path},
                          {"folders", list},
                          {"totalSavings", total},
                          {"totalSavingsText", KRUtil::getPrettySize(total)}};
    std::cout << out.dump(2) << "\n";
    return;
  }
  if (records.empty()) {
    std::cout << "No folders yet (zephlore add DIR watches one).\n";
    return;
  }
  for (const HistoryRecord& record : records) {
    std::cout << record.folder << "\n"
              << "  " << (record.enabled ? "watched" : "not watched") << ", saved "
              << KRUtil::getPrettySize(record.savings);
    // Removing a folder clears its sweep (a new one is due once it is added
    // again): "never" would not be true of it.
    if (record.enabled) {
      std::cout << ", sweep " << record.status << "% done, last sweep " << lastSweepText(record);
    }
    std::cout << "\n";
    if (auto why = pane::volumeCannotHoldReason(env, record.folder)) {
      std::cout << "  its volume cannot hold compressed files: " << *why << "\n";
    }
  }
  std::cout << "Total saved: " << KRUtil::getPrettySize(total) << "\n";
}

}  // namespace

void addFolderCommands(CLI::App& app, Env& env, Clock& clock, const std::string& dataFolder, int* exit_code) {
  for (bool adding : {true, false}) {
    auto arguments = std::make_shared<std::vector<std::string>>();
    CLI::App* sub = app.add_subcommand(
        adding ? "add" : "remove",
        adding ? "Watch folders: zephlore-helper compresses what is worth it inside them"
               : "Stop watching folders (their savings stay in the history)");
    sub->add_option("DIR", *arguments, "Folders; relative paths are taken from the working folder")
        ->required();
    if (!adding) {
      sub->footer(
          "A watched folder with a view over it is a mount point: moving, deleting or unmounting it fails with "
          "EBUSY. Its view ends when the folder is removed, unless a file in it is still compressed (programs "
          "would read that file empty without the view; zephlore status names it). To move or delete such a "
          "folder:\n"
          "  zephlore remove DIR         # the helper compresses nothing more in it\n"
          "  zephlore decompress -r DIR  # every file at full size again, through its usual path\n"
          "  zephlore unmount DIR        # the view ends (if it is still there)\n"
          "then move or delete DIR, and zephlore add its new place to watch it again.\n");
    }
    auto anyway = std::make_shared<bool>(false);
    if (adding) {
      sub->add_flag("--anyway", *anyway,
                    "Watch folders whose volume cannot hold compressed files all the same (nothing in them is "
                    "compressed until it can)");
    }
    sub->callback([=, &env, &clock, &dataFolder] {
      if (adding && !volumesCanHoldOrAnyway(env, *arguments, *anyway)) {
        *exit_code = 1;
        return;
      }
      changeFolders(env, clock, dataFolder, exit_code, adding, *arguments);
    });
  }
  auto json = std::make_shared<bool>(false);
  CLI::App* folders = app.add_subcommand(
      "folders", "Show every folder in the history: watched or not, savings, sweeps, the total");
  folders->add_flag("--json", *json, "Print one JSON object");
  folders->callback([=, &env, &dataFolder] { showFolders(env, dataFolder, exit_code, *json); });
}

}  // namespace zephlore::cli
