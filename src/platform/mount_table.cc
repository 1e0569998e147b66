#include "platform/mount_table.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/statfs.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "base/log.h"

extern char** environ;

namespace zephlore {

std::string unescapeMountField(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      const char a = field[i + 1], b = field[i + 2], c = field[i + 3];
      if (a >= '0' && a <= '3' && b >= '0' && b <= '7' && c >= '0' && c <= '7') {
        out.push_back(static_cast<char>((a - '0') * 64 + (b - '0') * 8 + (c - '0')));
        i += 3;
        continue;
      }
    }
    out.push_back(field[i]);
  }
  return out;
}

std::optional<MountEntry> parseMountInfoLine(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> fields;
  for (std::string field; in >> field;) fields.push_back(field);
  // id parent major:minor root mountpoint options [optional...] - type source super
  size_t dash = 6;
  while (dash < fields.size() && fields[dash] != "-") ++dash;
  if (fields.size() < 7 || dash + 2 >= fields.size()) return std::nullopt;
  MountEntry entry;
  const std::string& numbers = fields[2];
  size_t colon = numbers.find(':');
  if (colon == std::string::npos) return std::nullopt;
  char* end = nullptr;
  entry.major = static_cast<unsigned>(std::strtoul(numbers.c_str(), &end, 10));
  if (end != numbers.c_str() + colon) return std::nullopt;
  entry.minor = static_cast<unsigned>(std::strtoul(numbers.c_str() + colon + 1, &end, 10));
  if (*end != '\0') return std::nullopt;
  entry.mountPoint = unescapeMountField(fields[4]);
  entry.fsType = unescapeMountField(fields[dash + 1]);
  entry.source = unescapeMountField(fields[dash + 2]);
  if (dash + 3 < fields.size()) entry.superOptions = fields[dash + 3];
  return entry;
}

std::vector<MountEntry> mountTable() {
  std::vector<MountEntry> entries;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    if (std::optional<MountEntry> entry = parseMountInfoLine(line)) entries.push_back(std::move(*entry));
  }
  return entries;
}

bool mountServerGone(const std::string& mountPoint) {
  struct statfs st;
  return statfs(mountPoint.c_str(), &st) != 0 && errno == ENOTCONN;
}

bool unmountFuse(const std::string& mountPoint, bool lazy) {
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

}  // namespace zephlore
