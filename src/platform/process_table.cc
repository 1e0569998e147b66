#include "platform/process_table.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace zephlore {
namespace {

constexpr const char* kDeletedSuffix = " (deleted)";

std::string processEntry(pid_t pid) { return "/proc/" + std::to_string(pid); }

std::optional<std::string> executableBehind(Env& env, const std::string& entry) {
  char target[PATH_MAX];
  const ssize_t length = env.readLinkAt(AT_FDCWD, (entry + "/exe").c_str(), target, sizeof target - 1);
  if (length <= 0) return std::nullopt;
  std::string path(target, static_cast<size_t>(length));
  const size_t suffix = strlen(kDeletedSuffix);
  if (path.size() > suffix && path.compare(path.size() - suffix, suffix, kDeletedSuffix) == 0) {
    path.resize(path.size() - suffix);
  }
  return path;
}

// The first line of a small kernel file ("" when it cannot be read): its
// size reads 0, so it is read to a bound rather than by its size.
std::string firstLineOf(Env& env, const std::string& path) {
  const int fd = env.open(path, O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) return "";
  char buf[4096];
  const ssize_t n = env.preadFully(fd, buf, sizeof buf, 0);
  env.close(fd);
  if (n <= 0) return "";
  std::string text(buf, static_cast<size_t>(n));
  return text.substr(0, text.find('\n'));
}

}  // namespace

std::vector<pid_t> listProcesses(Env& env) {
  std::vector<pid_t> pids;
  for (const std::string& name : env.listDirectory("/proc").value_or(std::vector<std::string>{})) {
    if (name.empty() || !isdigit(static_cast<unsigned char>(name[0]))) continue;
    pids.push_back(static_cast<pid_t>(atoi(name.c_str())));
  }
  return pids;
}

std::optional<uid_t> processOwner(Env& env, pid_t pid) {
  struct stat st;
  if (env.lstat(processEntry(pid), &st) != 0) return std::nullopt;
  return st.st_uid;
}

std::optional<std::string> processExecutable(Env& env, pid_t pid) {
  return executableBehind(env, processEntry(pid));
}

std::optional<std::string> ownExecutable(Env& env) { return executableBehind(env, "/proc/self"); }

// Field 22 of the process's stat line; the command name before it may hold
// spaces and parentheses, so the fields are counted from its last ")".
unsigned long long processStartTicks(Env& env, pid_t pid) {
  const std::string line = firstLineOf(env, processEntry(pid) + "/stat");
  const size_t close = line.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(line.substr(close + 1));
  std::string field;
  for (int index = 3; index <= 22 && fields >> field; ++index) {
    if (index == 22) return std::strtoull(field.c_str(), nullptr, 10);
  }
  return 0;
}

}  // namespace zephlore
