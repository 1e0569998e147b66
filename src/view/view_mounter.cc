#include "view/view_mounter.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "platform/env.h"
#include "view/mount_table.h"
#include "view/stored_files.h"
#include "view/underlying_tree.h"

extern char** environ;

namespace zephlore::view {
namespace {

bool onPath(const std::string& program) {
  const char* path = getenv("PATH");
  std::istringstream dirs(path ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    if (!dir.empty() && access((dir + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

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

ViewMounter::ViewMounter(std::string command) : command_(std::move(command)) {}

bool ViewMounter::fuseUsable() {
  const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  close(fd);
  return geteuid() == 0 || onPath("fusermount3");
}

std::string ViewMounter::defaultCommand() {
  std::vector<char> self(4096);
  ssize_t n = readlink("/proc/self/exe", self.data(), self.size() - 1);
  if (n > 0) {
    std::string beside = parentDirectory(std::string(self.data(), static_cast<size_t>(n))) + "/zephlore";
    if (access(beside.c_str(), X_OK) == 0) return beside;
  }
  return "zephlore";
}

bool ViewMounter::mountOver(const std::string& folder, Error* error) {
  const std::string absolute = absolutePath(folder);
  if (isViewMounted(absolute) && !isViewDisconnected(absolute)) return true;
  std::string errors;
  const int status = run({command_, "mount", "--over", absolute}, &errors);
  if (status == 0) return true;
  while (!errors.empty() && errors.back() == '\n') errors.pop_back();
  return fail(error, "posix", EIO,
              "cannot mount a view over " + absolute + (errors.empty() ? "" : ": " + errors));
}

std::string ViewMounter::beneath(const std::string& folder) const { return pathBeneathViews(folder); }

bool ViewMounter::unmountIfUnused(const std::string& folder, std::string* why) {
  const std::string absolute = absolutePath(folder);
  if (!isViewMounted(absolute)) return true;
  const CompressedFiles compressed = compressedFilesIn(pathBeneathViews(absolute), 1);
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
