#include "platform/programs.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace zephlore {

std::string thisProgramPath() {
  char buf[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (length <= 0) return "";
  std::string path(buf, static_cast<size_t>(length));
  const std::string deleted = " (deleted)";
  if (path.size() > deleted.size() && path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0) {
    path.resize(path.size() - deleted.size());
  }
  return path;
}

std::string thisProgramFolder() {
  const std::string self = thisProgramPath();
  return self.empty() ? "" : self.substr(0, self.find_last_of('/'));
}

std::string findReadableFile(const std::vector<std::string>& folders, const std::string& name) {
  for (const std::string& folder : folders) {
    std::string path = folder + "/" + name;
    if (access(path.c_str(), R_OK) == 0) return path;
  }
  return "";
}

std::string findProgram(const std::string& folder, const std::string& name) {
  if (!folder.empty()) {
    const std::string beside = folder + "/" + name;
    if (access(beside.c_str(), X_OK) == 0) return beside;
  }
  const char* path = getenv("PATH");
  const std::string dirs = path ? path : "";
  size_t start = 0;
  while (start < dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    if (end > start) {
      const std::string candidate = dirs.substr(start, end - start) + "/" + name;
      if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    start = end + 1;
  }
  return "";
}

bool startProgram(const std::vector<std::string>& argv, std::string* problem) {
  if (argv.empty()) {
    if (problem) *problem = "nothing to run";
    return false;
  }
  // Everything the children use is made before fork: between fork and exec
  // only async-signal-safe calls are allowed in a threaded process.
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  // The grandchild writes errno here when exec fails; exec closes it.
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    if (problem) *problem = strerror(errno);
    return false;
  }
  const pid_t child = fork();
  if (child < 0) {
    const int error = errno;
    close(report[0]);
    close(report[1]);
    if (problem) *problem = strerror(error);
    return false;
  }
  if (child == 0) {
    // The intermediate child ends at once, so the program is nobody's child
    // to reap and outlives a terminal that closes.
    setsid();
    if (fork() != 0) _exit(0);
    const int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
      dup2(null, 0);
      dup2(null, 1);
      dup2(null, 2);
    }
    execv(words[0], words.data());
    const int error = errno;
    (void)!write(report[1], &error, sizeof error);
    _exit(127);
  }
  close(report[1]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  int error = 0;
  ssize_t got;
  while ((got = read(report[0], &error, sizeof error)) < 0 && errno == EINTR) {
  }
  close(report[0]);
  if (got == static_cast<ssize_t>(sizeof error)) {
    if (problem) *problem = std::string("cannot run ") + argv[0] + ": " + strerror(error);
    return false;
  }
  return true;
}

}  // namespace zephlore
