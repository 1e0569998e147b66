// The helper's names on the session bus: its well-known name, and its live
// status, which the helper exports and `zephlore status`, `pause` and
// `resume` read and call.
//
//   object    /com/quorvane/ZephloreHelper on com.quorvane.ZephloreHelper
//   interface com.quorvane.ZephloreHelper (read-only properties, with
//             org.freedesktop.DBus.Properties.PropertiesChanged)
//   methods   Pause(), Resume()
#pragma once

namespace zephlore {

// The helper's well-known bus name; counting its queued owners counts the
// running copies.
inline constexpr const char* kHelperBusName = "com.quorvane.ZephloreHelper";

}  // namespace zephlore

namespace zephlore::status_names {

inline constexpr const char* kObjectPath = "/com/quorvane/ZephloreHelper";
inline constexpr const char* kInterface = "com.quorvane.ZephloreHelper";

inline constexpr const char* kStatusValue = "StatusValue";      // i: 0 Idle .. 4 Compressing
inline constexpr const char* kStatusText = "StatusText";        // s
inline constexpr const char* kPaused = "Paused";                // b
inline constexpr const char* kActive = "Active";                // b
inline constexpr const char* kTotalSavings = "TotalSavings";    // t: bytes
inline constexpr const char* kQueuedFiles = "QueuedFiles";      // t
inline constexpr const char* kFileInProcess = "FileInProcess";  // s: "" when none
inline constexpr const char* kViews = "Views";                  // s: one line per view, "" when none
// s: why compression waits though not paused by the user, "" when it does not
inline constexpr const char* kWaiting = "Waiting";
inline constexpr const char* kWaitingOnBattery = "on battery";
inline constexpr const char* kWaitingForLoad = "other programs keep the computer busy";

inline constexpr const char* kPause = "Pause";
inline constexpr const char* kResume = "Resume";

}  // namespace zephlore::status_names
