#include "view/view_mounter.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "base/log.h"
#include "platform/descriptor_paths.h"
#include "platform/env.h"
#include "platform/fuse_availability.h"
#include "platform/programs.h"
#include "protocol/program_names.h"
#include "view/mount_table.h"
#include "view/stored_files.h"
#include "view/underlying_tree.h"

extern char** environ;

namespace zephlore::view {
namespace {

// Runs `args`; its exit status and what it wrote to standard error.
int run(const std::vector<std::string>& args, std::string* errors) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 2);
  std::vector<std::string> copy = args;
  std::vector<char*> argv;
  for (std::string& a : copy) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  if (spawned != 0) {
    close(pipeFds[0]);
    *errors = "cannot run " + args[0] + ": " + strerror(spawned);
    return -1;
  }
  // The view goes into the background once mounted; its copy of the pipe
  // is closed then, so this read ends.
  char buf[4096];
  for (ssize_t n; (n = read(pipeFds[0], buf, sizeof buf)) != 0;) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    errors->append(buf, static_cast<size_t>(n));
  }
  close(pipeFds[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

ViewMounter::ViewMounter(Env& env, std::string command) : env_(env), command_(std::move(command)) {}

bool ViewMounter::fuseUsable() { return zephlore::fuseUsable(); }

std::string ViewMounter::defaultCommand() {
  const std::string found = findProgram(thisProgramFolder(), kCommandProgram);
  return found.empty() ? kCommandProgram : found;
}

bool ViewMounter::mountOver(const std::string& folder, Error* error) {
  const std::string absolute = absolutePath(folder);
  if (isViewMounted(absolute)) {
    // Asked of the mount point itself, never through env_: the helper's maps
    // a watched folder to the tree beneath its view, which is always alive.
    if (!isViewDisconnected(absolute)) return true;
    // A dead view answers every look with ENOTCONN: detached, the folder's
    // path shows the stored files again, and the new view opens those.
    Error detached;
    if (!unmountView(absolute, true, &detached)) {
      return fail(error, "posix", EIO, "cannot detach the dead view over " + absolute + ": " + detached.message);
    }
  }
  std::string errors;
  const int status = run({command_, "mount", "--over", absolute}, &errors);
  if (status == 0) {
    noteIfOthersLockedOut(absolute);
    return true;
  }
  while (!errors.empty() && errors.back() == '\n') errors.pop_back();
  return fail(error, "posix", EIO,
              "cannot mount a view over " + absolute + (errors.empty() ? "" : ": " + errors));
}

void ViewMounter::noteIfOthersLockedOut(const std::string& mountPoint) {
  for (const ViewMountEntry& entry : viewMounts()) {
    if (entry.mountPoint != mountPoint || !entry.othersLockedOut) continue;
    // Every view is mounted alike: once is enough.
    if (!toldOthersLockedOut_.exchange(true)) KRLog("Views: %s", othersLockedOutAdvice(mountPoint).c_str());
  }
}

bool ViewMounter::covered(const std::string& folder) const { return isViewMounted(absolutePath(folder)); }

std::optional<ServingView> ViewMounter::servingView(const std::string& folder) const {
  const std::string absolute = absolutePath(folder);
  std::optional<ViewCover> cover = viewCovering(absolute);
  if (!cover || cover->mountPoint != absolute) return std::nullopt;
  const std::optional<DescriptorPathParts> served = splitDescriptorPath(cover->beneath);
  if (!served) return std::nullopt;
  return ServingView{served->pid, cover->beneath};
}

int ViewMounter::openTree(const ServingView& view) const {
  // "/." steps through the descriptor's link to the tree.
  return env_.open(view.beneath + "/.", O_PATH | O_DIRECTORY);
}

int ViewMounter::watchProcess(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

std::string ViewMounter::beneath(const std::string& folder) const { return pathBeneathViews(folder); }

bool ViewMounter::unmountIfUnused(const std::string& folder, std::string* why) {
  const std::string absolute = absolutePath(folder);
  if (!isViewMounted(absolute)) return true;
  const CompressedFiles compressed = compressedFilesIn(env_, pathBeneathViews(absolute), 1);
  if (compressed.count > 0) {
    *why = "its view stays: " + absolute + "/" + compressed.first +
           " is compressed, and programs would read it empty without the view";
    return false;
  }
  Error error;
  if (unmountView(absolute, false, &error)) return true;
  *why = "its view stays: " + error.message;
  return false;
}

}  // namespace zephlore::view
