// The running helper's live status object (protocol/bus_names.h), read and
// called from the pane's side: what `zephlore status`, `pause` and `resume`
// and the window's General page show and do.
#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zephlore::pane {

struct LiveStatus {
  int32_t value = 0;  // 0 Idle, 1 Ready, 2 Paused, 3 Analyzing, 4 Compressing
  std::string text;
  bool paused = false, active = false;
  uint64_t savings = 0, queued = 0;
  std::string file;
  std::vector<std::string> views;  // one line per view over a folder
  std::string waiting;             // why compression waits, "" when it does not
};

// What asking the status object came to.
struct StatusReading {
  std::optional<LiveStatus> live;
  bool absent = false;    // no helper owns the bus name (or there is no bus)
  bool timedOut = false;  // one owns it but did not answer in time (stopped or busy)
  bool starting = false;  // one owns it but has not published its status object yet
  std::string problem;    // why not, when no status came
};

// Every property of the status object, in one call of at most `timeout_ms`.
StatusReading readLiveStatus(GDBusConnection* connection, int timeout_ms);

// Calls Pause or Resume. False with *absent (no helper) or *problem.
bool callStatusMethod(GDBusConnection* connection, const char* method, int timeout_ms, bool* absent,
                      std::string* problem);

// The process that owns the helper's bus name, asked of the bus itself
// (which answers even when the helper does not); 0 when unknown.
uint32_t helperProcessId(GDBusConnection* connection, int timeout_ms);

}  // namespace zephlore::pane
