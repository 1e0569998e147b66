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
#include "cli/control/commands.h"
#include "cli/control/helper_contact.h"
#include "cli/control/status_folders.h"
#include "helper/bus/distributed_notification_center.h"
#include "protocol/bus_names.h"
#include "view/mount_table.h"

namespace zephlore::cli {
namespace {

using namespace status_names;

constexpr int kNotRunning = 3;   // as service managers report a stopped service
constexpr gint kTimeoutMs = 10000;
// status says what it knows at once rather than wait on a stopped or busy helper.
constexpr gint kStatusTimeoutMs = 1500;

struct LiveStatus {
  int32_t value = 0;
  std::string text;
  bool paused = false, active = false;
  uint64_t savings = 0, queued = 0;
  std::string file;
  std::vector<std::string> views;  // one line per view over a folder
};

bool helperIsAbsent(const GError* error) {
  return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
         g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER);
}

// A helper owns its bus name from its first moments, and publishes its
// status object only once it has started its parts.
bool objectNotYetPublished(const GError* error) {
  return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT) ||
         g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_INTERFACE) ||
         g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD);
}

// Calls `method` on the helper. None when no helper runs (*absent set) or
// the call failed (*problem set).
GVariant* callHelper(const char* interface, const char* method, GVariant* parameters, const char* reply,
                     bool* absent, std::string* problem, gint timeout_ms = kTimeoutMs, bool* timed_out = nullptr,
                     bool* starting = nullptr) {
  GDBusConnection* connection = DistributedNotificationCenter::defaultCenter().connection();
  if (!connection) {
    if (parameters) g_variant_unref(g_variant_ref_sink(parameters));
    *absent = true;
    return nullptr;
  }
  GError* error = nullptr;
  GVariant* result = g_dbus_connection_call_sync(connection, kHelperBusName, kObjectPath, interface, method,
                                                 parameters, G_VARIANT_TYPE(reply), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                 timeout_ms, nullptr, &error);
  if (!result) {
    *absent = helperIsAbsent(error);
    if (timed_out) *timed_out = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT);
    if (starting) *starting = objectNotYetPublished(error);
    *problem = error->message;
    g_error_free(error);
  }
  return result;
}

LiveStatus decode(GVariant* all) {
  LiveStatus s;
  GVariant* dict = g_variant_get_child_value(all, 0);
  g_variant_lookup(dict, kStatusValue, "i", &s.value);
  const gchar* text = nullptr;
  if (g_variant_lookup(dict, kStatusText, "&s", &text)) s.text = text;
  gboolean flag = FALSE;
  if (g_variant_lookup(dict, kPaused, "b", &flag)) s.paused = flag;
  if (g_variant_lookup(dict, kActive, "b", &flag)) s.active = flag;
  guint64 number = 0;
  if (g_variant_lookup(dict, kTotalSavings, "t", &number)) s.savings = number;
  if (g_variant_lookup(dict, kQueuedFiles, "t", &number)) s.queued = number;
  if (g_variant_lookup(dict, kFileInProcess, "&s", &text)) s.file = text;
  if (g_variant_lookup(dict, kViews, "&s", &text)) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty()) s.views.push_back(line);
    }
  }
  g_variant_unref(dict);
  return s;
}

// The process that owns the helper's bus name, asked of the bus itself
// (which answers even when the helper does not); 0 when unknown.
uint32_t helperProcessId() {
  GDBusConnection* connection = DistributedNotificationCenter::defaultCenter().connection();
  if (!connection) return 0;
  GVariant* reply = g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "GetConnectionUnixProcessID", g_variant_new("(s)", kHelperBusName), G_VARIANT_TYPE("(u)"),
      G_DBUS_CALL_FLAGS_NONE, kStatusTimeoutMs, nullptr, nullptr);
  if (!reply) return 0;
  uint32_t pid = 0;
  g_variant_get(reply, "(u)", &pid);
  g_variant_unref(reply);
  return pid;
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

void showStatus(Env& env, int* exit_code, bool as_json) {
  bool absent = false;
  std::string problem;
  bool timed_out = false;
  std::optional<LiveStatus> live;
  bool starting = false;
  GVariant* all = callHelper("org.freedesktop.DBus.Properties", "GetAll", g_variant_new("(s)", kInterface),
                             "(a{sv})", &absent, &problem, kStatusTimeoutMs, &timed_out, &starting);
  // A helper still starting up answers within moments: it is waited for.
  if (!all && starting && waitUntilHelperListens() == HelperPresence::kListens) {
    all = callHelper("org.freedesktop.DBus.Properties", "GetAll", g_variant_new("(s)", kInterface), "(a{sv})",
                     &absent, &problem, kStatusTimeoutMs, &timed_out);
  }
  if (all) {
    live = decode(all);
    g_variant_unref(all);
  } else if (timed_out) {
    std::string folders_problem;
    const auto folders = watchedFoldersForStatus(env, &folders_problem);
    if (as_json) {
      printSilentHelperJson(helperProcessId(), folders);
    } else {
      printSilentHelper(helperProcessId(), folders, folders_problem);
    }
    *exit_code = 1;
    return;
  } else if (!absent) {
    std::cerr << "zephlore: zephlore-helper runs, but its status cannot be read: " << problem << "\n";
    *exit_code = 1;
    return;
  }
  std::string folders_problem;
  std::optional<std::vector<StatusFolder>> folders = watchedFoldersForStatus(env, &folders_problem);
  if (as_json) {
    printJson(live, folders);
  } else {
    printText(live, folders, folders_problem);
  }
  *exit_code = live ? 0 : kNotRunning;
}

void callPauseOrResume(int* exit_code, const char* method, const char* done) {
  // A helper still starting up has no methods yet: it is waited for.
  if (waitUntilHelperListens() == HelperPresence::kSilent) {
    std::cerr << "zephlore: zephlore-helper owns its bus name but did not answer within "
              << kHelperStartTimeoutSeconds << " s\n";
    *exit_code = 1;
    return;
  }
  bool absent = false;
  std::string problem;
  GVariant* reply = callHelper(kInterface, method, nullptr, "()", &absent, &problem);
  if (!reply) {
    if (absent) {
      std::cerr << "zephlore: zephlore-helper is not running.\n";
    } else {
      std::cerr << "zephlore: the helper did not answer: " << problem << "\n";
    }
    *exit_code = 1;
    return;
  }
  g_variant_unref(reply);
  std::cout << done << "\n";
}

}  // namespace

void addStatusCommands(CLI::App& app, Env& env, int* exit_code) {
  auto* status = app.add_subcommand(
      "status", "Show whether zephlore-helper runs, what it does, its savings and the watched folders "
                "(exit status 3 when it is not running; 1 when it runs but does not answer within 1.5 s, "
                "stopped or busy: then the folders and savings its history holds)");
  auto as_json = std::make_shared<bool>(false);
  status->add_flag("--json", *as_json, "One JSON object");
  status->callback([=, &env] { showStatus(env, exit_code, *as_json); });
  app.add_subcommand("pause", "Pause the running helper: it stops watching and compressing until resumed")
      ->callback([=] { callPauseOrResume(exit_code, kPause, "zephlore-helper is paused."); });
  app.add_subcommand("resume", "Resume the paused helper")
      ->callback([=] { callPauseOrResume(exit_code, kResume, "zephlore-helper resumes its work."); });
}

}  // namespace zephlore::cli
