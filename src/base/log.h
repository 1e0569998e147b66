// Logging: one printf-style line per call, to syslog with the ident
// "ZephloreHelper" and to stderr when stderr is a terminal. Tests may capture
// the lines instead.
#pragma once

#include <functional>
#include <string>

namespace zephlore {

void KRLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

enum class LogTarget {
  kSyslogAndTerminal,  // the helper: syslog, plus stderr when it is a tty
  kStderr,             // command-line tools: stderr only
};
void setLogTarget(LogTarget target);

// Replaces the output while alive (for tests); lines arrive without newline.
class ScopedLogCapture {
 public:
  explicit ScopedLogCapture(std::function<void(const std::string&)> sink);
  ~ScopedLogCapture();
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;
};

}  // namespace zephlore
