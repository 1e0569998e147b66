// status, pause and resume: the helper's live status and its Pause/Resume
// methods on the session bus (protocol/bus_names.h). None of them
// starts a helper that is not running; pause and resume wait for one that is
// still starting up.
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>

#include "base/util.h"
#include "cli/control/command_pane.h"
#include "cli/control/commands.h"
#include "view/mount_table.h"

namespace zephlore::cli {
namespace {

constexpr int kNotRunning = 3;   // as service managers report a stopped service
// status says what it knows at once rather than wait on a stopped or busy helper.
constexpr int kStatusTimeoutMs = 1500;

using pane::LiveStatus;

// The watched folders and their savings, as the helper's history has them.
struct StatusFolder {
  std::string path;
  uint64_t savings = 0;
  std::optional<std::string> cannotHold;
};

std::optional<std::vector<StatusFolder>> watchedFoldersForStatus(pane::HelperPane& pane, std::string* problem) {
  std::optional<std::vector<pane::PaneFolder>> all = pane.readFolders(problem, false);
  if (!all) return std::nullopt;
  std::vector<StatusFolder> folders;
  for (const pane::PaneFolder& folder : *all) {
    if (folder.enabled) folders.push_back({folder.path, folder.savedBytes, folder.cannotHold});
  }
  return folders;
}

void printFolders(const std::optional<std::vector<StatusFolder>>& folders, const std::string& folders_problem);

// The helper owns its name but did not answer in time: what the history says.
void printSilentHelper(uint32_t pid, const std::optional<std::vector<StatusFolder>>& folders,
                       const std::string& folders_problem) {
  std::cout << "zephlore-helper";
  if (pid != 0) std::cout << " (pid " << pid << ")";
  std::cout << " runs but does not answer (stopped or busy); its history says:\n";
  printFolders(folders, folders_problem);
}

void printText(const std::optional<LiveStatus>& live, const std::optional<std::vector<StatusFolder>>& folders,
               const std::string& folders_problem) {
  if (!live) {
    std::cout << "zephlore-helper is not running.\n";
  } else {
    const char* yes_no[] = {"no", "yes"};
    std::cout << "zephlore-helper is running.\n"
              << "  Status:          " << live->text << " (" << live->value << ")\n"
              << "  Active:          " << yes_no[live->active] << "\n"
              << "  Paused:          " << yes_no[live->paused] << "\n"
              << "  Total savings:   " << KRUtil::getPrettySize(live->savings) << " (" << live->savings
              << " bytes)\n"
              << "  Queued files:    " << live->queued << "\n"
              << "  File in process: " << (live->file.empty() ? "none" : live->file) << "\n";
    if (!live->waiting.empty()) std::cout << "  Waiting:         " << live->waiting << "\n";
    if (!live->views.empty()) {
      std::cout << "Views:\n";
      for (const std::string& line : live->views) std::cout << "  " << line << "\n";
      // A mount point cannot be renamed, removed or unmounted while in use (EBUSY).
      std::cout << "  (to move or delete a folder with a view: zephlore remove DIR, zephlore decompress -r DIR,\n"
                   "   zephlore unmount DIR; see zephlore remove --help)\n";
    }
  }
  for (const view::ViewMountEntry& mounted : view::viewMounts()) {
    std::optional<view::ViewMountEntry> dead = view::deadViewCovering(mounted.mountPoint);
    if (dead && dead->mountPoint == mounted.mountPoint) {
      std::cout << "Stopped view: " << view::deadViewAdvice(*dead) << "\n";
    } else if (mounted.othersLockedOut) {
      std::cout << "View closed to other users: " << view::othersLockedOutAdvice(mounted.mountPoint) << "\n";
    }
  }
  printFolders(folders, folders_problem);
}

void printFolders(const std::optional<std::vector<StatusFolder>>& folders, const std::string& folders_problem) {
  if (!folders) {
    std::cout << "Watched folders: unknown (" << folders_problem << ")\n";
    return;
  }
  std::cout << "Watched folders: " << (folders->empty() ? "none" : "") << "\n";
  for (const StatusFolder& folder : *folders) {
    std::cout << "  " << folder.path << "  saved " << KRUtil::getPrettySize(folder.savings) << "\n";
    if (folder.cannotHold) std::cout << "    its volume cannot hold compressed files: " << *folder.cannotHold << "\n";
  }
}

nlohmann::ordered_json foldersJson(const std::optional<std::vector<StatusFolder>>& folders) {
  if (!folders) return nullptr;
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const StatusFolder& folder : *folders) {
    list.push_back({{"path", folder.path},
                    {"savings", folder.savings},
                    {"volumeCanHoldCompressedForm", !folder.cannotHold}});
  }
  return list;
}

void printJson(const std::optional<LiveStatus>& live, const std::optional<std::vector<StatusFolder>>& folders) {
  nlohmann::ordered_json out;
  out["running"] = live.has_value();
  if (live) {
    out["status"] = {{"value", live->value}, {"text", live->text}};
    out["active"] = live->active;
    out["paused"] = live->paused;
    out["waiting"] = live->waiting.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(live->waiting);
    out["totalSavings"] = live->savings;
    out["queuedFiles"] = live->queued;
    out["fileInProcess"] = live->file.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(live->file);
    out["views"] = live->views;
  }
  out["folders"] = foldersJson(folders);
  std::cout << out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
}

void printSilentHelperJson(uint32_t pid, const std::optional<std::vector<StatusFolder>>& folders) {
  nlohmann::ordered_json out;
  out["running"] = true;
  out["answering"] = false;
  out["pid"] = pid == 0 ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(pid);
  out["folders"] = foldersJson(folders);
  std::cout << out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
}

void showStatus(Env& env, Clock& clock, const std::string& dataFolder, int* exit_code, bool as_json) {
  std::shared_ptr<pane::HelperPane> pane = makeCommandPane(env, clock, dataFolder);
  pane::StatusReading reading = pane->readStatus(kStatusTimeoutMs);
  const std::optional<LiveStatus>& live = reading.live;
  if (!live && reading.timedOut) {
    std::string folders_problem;
    const auto folders = watchedFoldersForStatus(*pane, &folders_problem);
    const uint32_t pid = pane::helperProcessId(pane->contact().center().connection(), kStatusTimeoutMs);
    if (as_json) {
      printSilentHelperJson(pid, folders);
    } else {
      printSilentHelper(pid, folders, folders_problem);
    }
    *exit_code = 1;
    return;
  } else if (!live && !reading.absent) {
    std::cerr << "zephlore: zephlore-helper runs, but its status cannot be read: " << reading.problem << "\n";
    *exit_code = 1;
    return;
  }
  std::string folders_problem;
  std::optional<std::vector<StatusFolder>> folders = watchedFoldersForStatus(*pane, &folders_problem);
  if (as_json) {
    printJson(live, folders);
  } else {
    printText(live, folders, folders_problem);
  }
  *exit_code = live ? 0 : kNotRunning;
}

void callPauseOrResume(Env& env, Clock& clock, const std::string& dataFolder, int* exit_code, bool pause, const char* done) {
  bool absent = false, silent = false;
  std::string problem;
  if (!makeCommandPane(env, clock, dataFolder)->pauseOrResume(pause, &absent, &silent, &problem)) {
    if (silent) {
      std::cerr << "zephlore: zephlore-helper owns its bus name but did not answer within "
                << pane::kHelperStartTimeoutSeconds << " s\n";
    } else if (absent) {
      std::cerr << "zephlore: zephlore-helper is not running.\n";
    } else {
      std::cerr << "zephlore: the helper did not answer: " << problem << "\n";
    }
    *exit_code = 1;
    return;
  }
  std::cout << done << "\n";
}

}  // namespace

void addStatusCommands(CLI::App& app, Env& env, Clock& clock, const std::string& dataFolder, int* exit_code) {
  auto* status = app.add_subcommand(
      "status", "Show whether zephlore-helper runs, what it does, its savings and the watched folders "
                "(exit status 3 when it is not running; 1 when it runs but does not answer within 1.5 s, "
                "stopped or busy: then the folders and savings its history holds)");
  auto as_json = std::make_shared<bool>(false);
  status->add_flag("--json", *as_json, "One JSON object");
  status->callback([=, &env, &clock, &dataFolder] { showStatus(env, clock, dataFolder, exit_code, *as_json); });
  app.add_subcommand("pause", "Pause the running helper: it stops watching and compressing until resumed")
      ->callback([=, &env, &clock, &dataFolder] { callPauseOrResume(env, clock, dataFolder, exit_code, true, "zephlore-helper is paused."); });
  app.add_subcommand("resume", "Resume the paused helper")
      ->callback([=, &env, &clock, &dataFolder] { callPauseOrResume(env, clock, dataFolder, exit_code, false, "zephlore-helper resumes its work."); });
}

}  // namespace zephlore::cli
