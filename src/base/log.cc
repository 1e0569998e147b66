#include "base/log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace zephlore {
namespace {

std::mutex g_mutex;
LogTarget g_target = LogTarget::kSyslogAndTerminal;
std::function<void(const std::string&)>* g_capture = nullptr;

// Decided on the first line of the helper's target and kept: asking per line
// cost a failed connect (no syslog daemon, as in containers, where the C
// library tries again on every line) and a failed terminal query each time.
struct HelperSinks {
  bool toSyslog = false;
  bool toStderr = false;
};

// Whether a syslog daemon listens; the C library's own connect fails
// silently and is retried on every line.
bool syslogListens() {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", _PATH_LOG);
  const bool listens = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return listens;
}

const HelperSinks& helperSinks() {
  static const HelperSinks sinks = [] {
    HelperSinks chosen;
    chosen.toSyslog = syslogListens();
    if (chosen.toSyslog) openlog("ZephloreHelper", LOG_PID | LOG_NDELAY, LOG_USER);
    // The journal takes standard error of a service (JOURNAL_STREAM is set);
    // without syslog, standard error is all there is.
    chosen.toStderr = !chosen.toSyslog || isatty(STDERR_FILENO) || getenv("JOURNAL_STREAM");
    return chosen;
  }();
  return sinks;
}

void logLine(int priority, const char* format, va_list args) {
  char stack_buf[1024];
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(stack_buf, sizeof stack_buf, format, args);
  std::string line;
  if (n < 0) {
    line = format;
  } else if (static_cast<size_t>(n) < sizeof stack_buf) {
    line.assign(stack_buf, static_cast<size_t>(n));
  } else {
    line.resize(static_cast<size_t>(n) + 1);
    vsnprintf(line.data(), line.size(), format, copy);
    line.resize(static_cast<size_t>(n));
  }
  va_end(copy);
  while (!line.empty() && line.back() == '\n') line.pop_back();

  std::lock_guard lock(g_mutex);
  if (g_capture) {
    (*g_capture)(line);
    return;
  }
  if (g_target == LogTarget::kSyslogAndTerminal) {
    const HelperSinks& sinks = helperSinks();
    if (sinks.toSyslog) syslog(priority, "%s", line.c_str());
    if (!sinks.toStderr) return;
  }
  fprintf(stderr, "%s\n", line.c_str());
}

}  // namespace

void setLogTarget(LogTarget target) {
  std::lock_guard lock(g_mutex);
  g_target = target;
}

void KRLog(const char* format, ...) {
  va_list args;
  va_start(args, format);
  logLine(LOG_NOTICE, format, args);
  va_end(args);
}

void KRLogInfo(const char* format, ...) {
  va_list args;
  va_start(args, format);
  logLine(LOG_INFO, format, args);
  va_end(args);
}

ScopedLogCapture::ScopedLogCapture(std::function<void(const std::string&)> sink) {
  std::lock_guard lock(g_mutex);
  g_capture = new std::function<void(const std::string&)>(std::move(sink));
}

ScopedLogCapture::~ScopedLogCapture() {
  std::lock_guard lock(g_mutex);
  delete g_capture;
  g_capture = nullptr;
}

}  // namespace zephlore
