// Test support: a view served by a child process, in the foreground, until
// the object ends; the child's first output tells when it is mounted.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/env.h"
#include "testing/bounded_wait.h"
#include "view/mount_table.h"
#include "view/view_mount.h"

namespace zephlore::view {

class ForkedView {
 public:
  ForkedView(Env& env, const std::string& source, const std::string& mountPoint,
             std::vector<std::string> fuseOptions = {})
      : mountPoint_(mountPoint) {
    int fds[2];
    if (pipe(fds) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fds[1], STDOUT_FILENO);
      close(fds[0]);
      close(fds[1]);
      ViewMountOptions options;
      options.source = source;
      options.mountPoint = mountPoint;
      options.foreground = true;
      options.fuseOptions = std::move(fuseOptions);
      _exit(runView(env, options));
    }
    close(fds[1]);
    pollfd ready{fds[0], POLLIN, 0};
    char c;
    mounted_ = pid_ > 0 &&
               poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(testkit::kWaitLimit).count())) == 1 &&
               read(fds[0], &c, 1) == 1 && isViewMounted(mountPoint);
    close(fds[0]);
  }
  ~ForkedView() {
    if (pid_ <= 0) return;
    Error error;
    if (!unmountView(mountPoint_, true, &error)) kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  ForkedView(const ForkedView&) = delete;
  ForkedView& operator=(const ForkedView&) = delete;
  bool mounted() const { return mounted_; }

 private:
  std::string mountPoint_;
  pid_t pid_ = -1;
  bool mounted_ = false;
};

}  // namespace zephlore::view
