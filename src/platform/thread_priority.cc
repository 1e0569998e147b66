#include "platform/thread_priority.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace zephlore {
namespace {

// From the kernel's uapi ioprio.h; glibc has no wrapper.
constexpr int kIoprioWhoProcess = 1;  // a thread id counts as a process here
constexpr int kIoprioClassShift = 13;
constexpr int kIoprioClassIdle = 3;

pid_t currentThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

}  // namespace

bool setCurrentThreadNice(int nice) {
  // On Linux the nice value is per thread: PRIO_PROCESS with a thread id.
  return setpriority(PRIO_PROCESS, static_cast<id_t>(currentThreadId()), nice) == 0;
}

bool setCurrentThreadIdleIoPriority() {
  return syscall(SYS_ioprio_set, kIoprioWhoProcess, currentThreadId(), kIoprioClassIdle << kIoprioClassShift) == 0;
}

bool setCurrentThreadIdleScheduling() {
  struct sched_param param = {};
  return sched_setscheduler(currentThreadId(), SCHED_IDLE, &param) == 0;
}

bool currentThreadHasIdleScheduling() { return sched_getscheduler(currentThreadId()) == SCHED_IDLE; }

int currentThreadNice() {
  errno = 0;
  return getpriority(PRIO_PROCESS, static_cast<id_t>(currentThreadId()));
}

bool currentThreadHasIdleIoPriority() {
  long value = syscall(SYS_ioprio_get, kIoprioWhoProcess, currentThreadId());
  return value >= 0 && (value >> kIoprioClassShift) == kIoprioClassIdle;
}

}  // namespace zephlore
