#include "view/mount_table.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <fstream>
#include <sstream>
#include <vector>

#include "base/log.h"

extern char** environ;

namespace zephlore::view {
std::string absolutePath(const std::string& path) {
  std::string full = path;
  if (full.empty() || full[0] != '/') {
    std::vector<char> cwd(4096);
    if (getcwd(cwd.data(), cwd.size())) full = std::string(cwd.data()) + "/" + full;
  }
  std::vector<std::string> parts;
  std::stringstream in(full);
  for (std::string part; std::getline(in, part, '/');) {
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
      continue;
    }
    parts.push_back(part);
  }
  std::string out;
  for (const std::string& part : parts) out += "/" + part;
  return out.empty() ? "/" : out;
}

std::vector<ViewMountEntry> viewMounts() {
  std::vector<ViewMountEntry> views;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    // id parent major:minor root mountpoint options [optional...] - type source super
    std::istringstream fields(line);
    std::string id, parent, device, root, point;
    fields >> id >> parent >> device >> root >> point;
    const size_t dash = line.find(" - ");
    if (dash == std::string::npos) continue;
    std::istringstream tail(line.substr(dash + 3));
    std::string type, source, super;
    tail >> type >> source >> super;
    if (type != kViewFileSystemType) continue;
    const bool allowOther = ("," + super + ",").find(",allow_other,") != std::string::npos;
    views.push_back({unescapeMountField(point), unescapeMountField(source), !allowOther});
  }
  return views;
}

std::string othersLockedOutAdvice(const std::string& mountPoint) {
  return "only the user who mounted the view on " + mountPoint +
         " may enter it: other users, and the system's services that run as root (backups, indexers, "
         "updatedb), get \"Permission denied\" there and skip the folder. To let them in, the administrator "
         "adds the line user_allow_other to /etc/fuse.conf; views mounted afterwards let them in (checking "
         "each file's owner and mode as beneath)";
}

bool isViewMounted(const std::string& mountPoint) {
  for (const ViewMountEntry& view : viewMounts()) {
    if (view.mountPoint == mountPoint) return true;
  }
  return false;
}

namespace {

// Asked of the view's process every time: the kernel answers stat() from
// its cache for a second after the process is gone.
bool answersNotConnected(const std::string& mountPoint) {
  struct statfs st;
  return statfs(mountPoint.c_str(), &st) != 0 && errno == ENOTCONN;
}

}  // namespace

bool isViewDisconnected(const std::string& mountPoint) {
  return answersNotConnected(mountPoint) && isViewMounted(mountPoint);
}

bool isWithinFolder(const std::string& path, const std::string& folder) {
  if (folder == "/") return true;
  return path.compare(0, folder.size(), folder) == 0 && (path.size() == folder.size() || path[folder.size()] == '/');
}

std::optional<ViewMountEntry> deadViewCovering(const std::string& path) {
  const std::string absolute = absolutePath(path);
  std::optional<ViewMountEntry> innermost;
  for (ViewMountEntry& view : viewMounts()) {
    // Later entries are mounted on top of earlier ones.
    if (isWithinFolder(absolute, view.mountPoint) &&
        (!innermost || view.mountPoint.size() >= innermost->mountPoint.size())) {
      innermost = std::move(view);
    }
  }
  if (!innermost || !answersNotConnected(innermost->mountPoint)) return std::nullopt;
  return innermost;
}

std::string remountCommand(const ViewMountEntry& view) {
  return isOverView(view) ? "zephlore mount --over " + view.mountPoint
                          : "zephlore mount " + view.source + " " + view.mountPoint;
}

std::string deadViewAdvice(const ViewMountEntry& view) {
  return "the view on " + view.mountPoint +
         " has stopped (its process is gone: \"Transport endpoint is not connected\"); put it back with: " +
         remountCommand(view);
}

bool detachDeadView(const std::string& mountPoint, Error* error) { return unmountView(mountPoint, true, error); }

static bool runFusermount(const std::string& mountPoint, bool lazy);

bool unmountView(const std::string& mountPoint, bool lazy, Error* error) {
  if (!isViewMounted(mountPoint)) {
    return fail(error, "posix", EINVAL, "no view is mounted on " + mountPoint);
  }
  // Another program that looks at the views for a moment (a zephlore
  // command checking for dead views, a file manager) makes the mount busy
  // for that moment: a plain unmount is tried a few times before it is
  // called busy.
  const int attempts = lazy ? 1 : 25;
  for (int attempt = 1;; ++attempt) {
    if (runFusermount(mountPoint, lazy)) return true;
    if (attempt >= attempts || !isViewMounted(mountPoint)) break;
  }
  return fail(error, "posix", EBUSY,
              "fusermount3 could not unmount " + mountPoint + (lazy ? "" : " (is a file in it still open?)"));
}

static bool runFusermount(const std::string& mountPoint, bool lazy) {
  std::vector<std::string> args = {"fusermount3", lazy ? "-uz" : "-u", "--", mountPoint};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  pid_t pid = 0;
  int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    KRLog("cannot run fusermount3: %s", strerror(spawned));
    return false;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string unescapeMountField(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      out += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

}  // namespace zephlore::view
