// KRUtil: small helpers of the helper process: how byte counts and dates are
// shown, file ages and group membership for the analyzer's candidate test.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "base/clock.h"
#include "base/error.h"

namespace zephlore {

// How much of a date or time stringWithDate() shows.
enum class DateStyle { kNone, kShort, kMedium, kLong, kFull };

class KRUtil {
 public:
  KRUtil() = delete;

  // --- Display -----------------------------------------------------------

  // "0 b" .. "1023 b", then decimal units: "1.02 KB", "1.50 MB", "123 GB".
  static std::string getPrettySize(uint64_t bytes);

  // --- File age and group membership -------------------------------------

  // The current time on `clock`, in whole seconds, minus `time`.
  static double timeIntervalSinceTime(const Clock& clock, int64_t time);
  // True when `gid` is one of the process's supplementary groups.
  static bool processGroupsInclude(gid_t gid);

  // --- Dates -------------------------------------------------------------

  // The date in local time, rendered for the user's LC_TIME locale.
  static std::string stringWithDate(WallTime date, DateStyle dateStyle, DateStyle timeStyle);
  // Long date, no time.
  static std::string stringWithDate(WallTime date);
};

}  // namespace zephlore
