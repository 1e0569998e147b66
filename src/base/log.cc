#include "base/log.h"

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
bool g_syslog_open = false;

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
    if (!g_syslog_open) {
      openlog("ZephloreHelper", LOG_PID, LOG_USER);
      g_syslog_open = true;
    }
    syslog(priority, "%s", line.c_str());
    // The journal takes standard error of a service (JOURNAL_STREAM is set).
    if (!isatty(STDERR_FILENO) && !getenv("JOURNAL_STREAM")) return;
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
