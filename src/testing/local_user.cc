#include "testing/local_user.h"

#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "testing/child.h"

namespace zephlore::testkit {
namespace {

std::atomic<int> g_serial{0};

}  // namespace

LocalUser::LocalUser() {
  name_ = "zl-test-" + std::to_string(getpid()) + "-" + std::to_string(g_serial++);
  if (geteuid() != 0) {
    problem_ = "creating a user needs root";
    return;
  }
  // Another session may hold the password files' lock for a moment.
  ProcessResult result;
  for (int attempt = 0; attempt < 5; ++attempt) {
    result = runProcess({"/usr/sbin/useradd", "-M", "-U", "-s", "/usr/sbin/nologin", name_});
    if (result.status == 0) break;
  }
  if (result.status != 0) {
    problem_ = "useradd " + name_ + " failed: " + result.err;
    return;
  }
  const struct passwd* entry = getpwnam(name_.c_str());
  if (!entry) {
    problem_ = "useradd made no entry for " + name_;
    runProcess({"/usr/sbin/userdel", name_});
    return;
  }
  uid_ = entry->pw_uid;
  gid_ = entry->pw_gid;
  created_ = true;
}

LocalUser::~LocalUser() {
  if (!created_) return;
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (runProcess({"/usr/sbin/userdel", name_}).status == 0) break;
  }
}

bool LocalUser::become() const {
  return created_ && setgroups(0, nullptr) == 0 && setgid(gid_) == 0 && setuid(uid_) == 0 && geteuid() == uid_;
}

std::optional<std::string> LocalUser::run(const std::function<std::string()>& fn) const {
  int out[2];
  if (pipe(out) != 0) return std::nullopt;
  const pid_t pid = fork();
  if (pid < 0) {
    close(out[0]);
    close(out[1]);
    return std::nullopt;
  }
  if (pid == 0) {
    close(out[0]);
    if (!become()) _exit(3);
    const std::string said = fn();
    size_t done = 0;
    while (done < said.size()) {
      const ssize_t n = write(out[1], said.data() + done, said.size() - done);
      if (n <= 0) _exit(4);
      done += static_cast<size_t>(n);
    }
    _exit(0);
  }
  close(out[1]);
  std::string said;
  char buf[4096];
  ssize_t n;
  while ((n = read(out[0], buf, sizeof buf)) != 0) {
    if (n > 0) said.append(buf, static_cast<size_t>(n));
    else if (errno != EINTR) break;
  }
  close(out[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return said;
}

}  // namespace zephlore::testkit
