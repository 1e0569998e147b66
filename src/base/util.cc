#include "base/util.h"

#include <langinfo.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/log.h"

namespace zephlore {

// --- Display ---------------------------------------------------------------

std::string KRUtil::getPrettySize(uint64_t bytes) {
  char buf[64];
  if (bytes <= 1023) {
    snprintf(buf, sizeof buf, "%llu b", static_cast<unsigned long long>(bytes));
    return buf;
  }
  // The quotient is computed in single precision on purpose: 9,999,999,999
  // bytes becomes exactly 10.0 and shows as "10.0 GB".
  const float count = static_cast<float>(bytes);
  float quotient;
  const char* unit;
  if (bytes > 999999999ULL) {
    quotient = count / 1e9f;
    unit = " GB";
  } else if (bytes > 999999ULL) {
    quotient = count / 1e6f;
    unit = " MB";
  } else {
    quotient = count / 1000.0f;
    unit = " KB";
  }
  const double value = quotient;
  const char* format = value < 10.0 ? "%.2f%s" : value < 100.0 ? "%.1f%s" : "%.0f%s";
  snprintf(buf, sizeof buf, format, value, unit);
  return buf;
}

// --- File age and group membership -------------------------------------------

double KRUtil::timeIntervalSinceTime(const Clock& clock, int64_t time) {
  const auto now = std::chrono::floor<std::chrono::seconds>(clock.wallNow());
  return static_cast<double>(now.time_since_epoch().count() - time);
}

bool KRUtil::processGroupsInclude(gid_t gid) {
  int count = getgroups(0, nullptr);
  if (count < 1) return false;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  count = getgroups(count, groups.data());
  for (int i = 0; i < count; ++i) {
    if (groups[static_cast<size_t>(i)] == gid) return true;
  }
  return false;
}

// --- Dates -------------------------------------------------------------------

namespace {

// Where the month and the year stand in the locale's numeric date ("%m/%d/%y"
// in the C locale), so that spelled-out dates follow the same order.
enum class DateOrder { kMonthFirst, kDayFirst, kYearFirst };

DateOrder localeDateOrder() {
  const std::string format = nl_langinfo(D_FMT);
  size_t day = format.find("%d"), month = format.find("%m"), year = format.find("%y");
  if (year == std::string::npos) year = format.find("%Y");
  if (day == std::string::npos || month == std::string::npos) return DateOrder::kMonthFirst;
  if (year != std::string::npos && year < month && year < day) return DateOrder::kYearFirst;
  return month < day ? DateOrder::kMonthFirst : DateOrder::kDayFirst;
}

std::string spelledDate(const char* month) {
  switch (localeDateOrder()) {
    case DateOrder::kMonthFirst: return std::string(month) + " %-d, %Y";
    case DateOrder::kDayFirst: return std::string("%-d ") + month + " %Y";
    case DateOrder::kYearFirst: return std::string("%Y ") + month + " %-d";
  }
  return "%x";
}

std::string dateFormat(DateStyle style) {
  switch (style) {
    case DateStyle::kNone: return "";
    case DateStyle::kShort: return "%x";
    case DateStyle::kMedium: return spelledDate("%b");
    case DateStyle::kLong: return spelledDate("%B");
    case DateStyle::kFull: return "%A, " + spelledDate("%B");
  }
  return "";
}

std::string timeFormat(DateStyle style) {
  const std::string locale_time = nl_langinfo(T_FMT);
  const bool twelve_hour = locale_time.find("%p") != std::string::npos ||
                           locale_time.find("%r") != std::string::npos ||
                           locale_time.find("%I") != std::string::npos;
  const std::string hm = twelve_hour ? "%-I:%M" : "%H:%M";
  const std::string am_pm = twelve_hour ? " %p" : "";
  switch (style) {
    case DateStyle::kNone: return "";
    case DateStyle::kShort: return hm + am_pm;
    case DateStyle::kMedium: return hm + ":%S" + am_pm;
    case DateStyle::kLong:
    case DateStyle::kFull: return hm + ":%S" + am_pm + " %Z";
  }
  return "";
}

}  // namespace

std::string KRUtil::stringWithDate(WallTime date, DateStyle dateStyle, DateStyle timeStyle) {
  const time_t t = static_cast<time_t>(
      std::chrono::floor<std::chrono::seconds>(date).time_since_epoch().count());
  struct tm local;
  if (!localtime_r(&t, &local)) return "";
  std::string format = dateFormat(dateStyle);
  const std::string time_part = timeFormat(timeStyle);
  if (!format.empty() && !time_part.empty()) format += " ";
  format += time_part;
  if (format.empty()) return "";
  char buf[256];
  const size_t n = strftime(buf, sizeof buf, format.c_str(), &local);
  return std::string(buf, n);
}

std::string KRUtil::stringWithDate(WallTime date) {
  return stringWithDate(date, DateStyle::kLong, DateStyle::kNone);
}

}  // namespace zephlore
