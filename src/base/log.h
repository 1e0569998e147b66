// Logging: one printf-style line per call, to syslog with the ident
// "ZephloreHelper" and to stderr when stderr is a terminal or the journal.
// Where no syslog daemon listens at the first line, all lines go to stderr.
// Tests may capture the lines instead.
#pragma once

#include <functional>
#include <string>

namespace zephlore {

void KRLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A line about routine work that may come once per file (a file compressed,
// a folder analysed): syslog's info level, one below KRLog's notices, so that
// a syslog filter can keep the notices alone. Terminal and tests see both.
void KRLogInfo(const char* format, ...) __attribute__((format(printf, 1, 2)));

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
