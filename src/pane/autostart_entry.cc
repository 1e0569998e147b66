#include "pane/autostart_entry.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <climits>
#include <cstring>
#include <optional>
#include <sstream>

#include "base/xdg.h"
#include "helper/settings/plist_file.h"
#include "helper/settings/resources.h"
#include "platform/config_file.h"
#include "platform/programs.h"

namespace zephlore::pane {
namespace {

constexpr const char* kEntryName = "zephlore-helper.desktop";
// No desktop entry comes near this; anything larger is not one.
constexpr size_t kMaxEntryBytes = 1 << 20;

// Used when the shipped template cannot be found (a copied binary).
constexpr const char* kBuiltInEntry =
    "[Desktop Entry]\n"
    "Type=Application\n"
    "Name=Zephlore Helper\n"
    "Comment=Compresses files in the watched folders in the background\n"
    "Exec=zephlore-helper\n"
    "Terminal=false\n"
    "NoDisplay=true\n"
    "X-GNOME-Autostart-enabled=true\n";

std::string entryTemplate(Env& env) {
  std::string path = resourcePath(kEntryName);
  if (path.empty()) return kBuiltInEntry;
  ConfigFileText text = readConfigFile(env, path, kMaxEntryBytes);
  return text.status == ConfigFileStatus::kOk ? text.text : kBuiltInEntry;
}

// A user entry that switches off the system's own entry of the same name.
constexpr const char* kMaskingEntry =
    "[Desktop Entry]\n"
    "Type=Application\n"
    "Name=Zephlore Helper\n"
    "Hidden=true\n";

std::string fileText(Env& env, const std::string& path) { return readConfigFile(env, path, kMaxEntryBytes).text; }

// Whether something is at `path`, a symbolic link followed (as access(F_OK)).
bool entryExists(Env& env, const std::string& path) {
  struct stat st;
  return env.stat(path, &st) == 0;
}

// The package's entry for every user ($XDG_CONFIG_DIRS, default /etc/xdg).
bool systemEntryInstalled(Env& env) {
  const char* dirs = getenv("XDG_CONFIG_DIRS");
  std::string list = dirs && *dirs ? dirs : "/etc/xdg";
  std::istringstream folders(list);
  std::string folder;
  while (std::getline(folders, folder, ':')) {
    if (!folder.empty() && entryExists(env, folder + "/autostart/" + kEntryName)) return true;
  }
  return false;
}

}  // namespace

std::string autostartEntryPath() { return configHome() + "/autostart/" + kEntryName; }

bool autostartEntryInstalled(Env& env) {
  // A user entry overrides the system one; Hidden=true switches it off.
  if (entryExists(env, autostartEntryPath())) {
    return fileText(env, autostartEntryPath()).find("Hidden=true") == std::string::npos;
  }
  return systemEntryInstalled(env);
}

std::string helperExecutablePath(Env& env) {
  const std::string path = thisProgramPath();
  if (!path.empty()) {
    std::string helper = path.substr(0, path.rfind('/') + 1) + "zephlore-helper";
    // A newline cannot be written into the entry's Exec line.
    // Env::access() looks at a final link itself; the program is what must run.
    std::optional<std::string> program = env.realPath(helper);
    if (program && env.access(*program, X_OK) == 0 && helper.find('\n') == std::string::npos) return helper;
  }
  return "zephlore-helper";
}

std::string quoteForExec(const std::string& text) {
  // Reserved characters force double quotes, inside which ", `, $ and \ are
  // escaped with a backslash (written doubled, as desktop entries unescape
  // backslashes once more when they read the value).
  // A literal % is written %% (a lone one starts a field code).
  std::string escaped;
  for (char c : text) {
    escaped += c;
    if (c == '%') escaped += '%';
  }
  if (escaped.find_first_of(" \t\n\"'\\><~|&;$*?#()`") == std::string::npos) return escaped;
  std::string quoted = "\"";
  for (char c : escaped) {
    if (c == '"' || c == '`' || c == '$') {
      quoted += "\\\\";
    } else if (c == '\\') {
      quoted += "\\\\\\";
    }
    quoted += c;
  }
  return quoted + "\"";
}

bool installAutostartEntry(Env& env, std::string* problem) {
  std::string path = autostartEntryPath();
  std::string folder = path.substr(0, path.rfind('/'));
  if (!makeFolders(folder)) {
    if (problem) *problem = "cannot create the folder " + folder;
    return false;
  }
  std::istringstream lines(entryTemplate(env));
  std::string entry;
  std::string line;
  while (std::getline(lines, line)) {
    if (line.starts_with("Exec=")) line = "Exec=" + quoteForExec(helperExecutablePath(env));
    entry += line + "\n";
  }
  return writeFileAtomically(env, path, entry, problem);
}

bool removeAutostartEntry(Env& env, std::string* problem) {
  std::string path = autostartEntryPath();
  // With the package's entry for every user, only a masking entry of the
  // user's own stops the start at login.
  if (systemEntryInstalled(env)) {
    std::string folder = path.substr(0, path.rfind('/'));
    if (!makeFolders(folder)) {
      if (problem) *problem = "cannot create the folder " + folder;
      return false;
    }
    return writeFileAtomically(env, path, kMaskingEntry, problem);
  }
  if (env.unlink(path) == 0 || errno == ENOENT) return true;
  if (problem) *problem = "cannot remove " + path + ": " + std::strerror(errno);
  return false;
}

}  // namespace zephlore::pane
