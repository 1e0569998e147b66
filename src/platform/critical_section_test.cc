#include "platform/critical_section.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace zephlore {
namespace {

// Runs `body` in a child and returns its wait status; the child reports on
// `marker_fd` how far it got before the end it asked for took effect.
int statusOfChild(const std::function<void(int marker_fd)>& body, std::string* markers) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    body(fds[1]);
    _exit(99);
  }
  close(fds[1]);
  char c;
  while (read(fds[0], &c, 1) == 1) *markers += c;
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

void mark(int fd, char c) { EXPECT_EQ(write(fd, &c, 1), 1); }

TEST(CriticalSection, AnEndAskedForInsideWaitsForTheLastSectionToLeave) {
  std::string markers;
  int status = statusOfChild([](int fd) {
    CriticalSection::enter();
    {
      CriticalSection::Scope nested;
      CriticalSection::exitWhenOutside(7);
      mark(fd, 'a');  // still alive inside
    }
    mark(fd, 'b');  // one section still open
    CriticalSection::leave();
    mark(fd, 'c');  // never reached
  }, &markers);
  EXPECT_EQ(markers, "ab");
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 7);

  markers.clear();
  status = statusOfChild([](int fd) {
    CriticalSection::exitWhenOutside(3);
    mark(fd, 'x');
  }, &markers);
  EXPECT_EQ(markers, "");
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 3);
}

// The crash path's way out: the default action of the signal, even when the
// signal is caught and blocked in the thread that asks (inside its handler).
TEST(CriticalSection, RaisingEndsTheProcessByTheSignalsDefaultAction) {
  std::string markers;
  int status = statusOfChild([](int fd) {
    signal(SIGUSR1, [](int) { _exit(98); });
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    CriticalSection::Scope inside;
    CriticalSection::raiseWhenOutside(SIGUSR1);
    mark(fd, 'a');
  }, &markers);
  EXPECT_EQ(markers, "a");
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGUSR1);
}

}  // namespace
}  // namespace zephlore
