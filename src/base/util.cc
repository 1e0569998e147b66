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

double KRUtil::timeIntervalSinceLastModificationOfPath(const char* path) {
  struct stat st;
  if (!path || lstat(path, &st) != 0) return -1.0;
  return timeIntervalSinceTime(S_ISDIR(st.st_mode) ? st.st_mtime : st.st_ctime);
}

double KRUtil::timeIntervalSinceTime(int64_t time) {
  const auto now = std::chrono::floor<std::chrono::seconds>(Clock::shared().wallNow());
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

bool digitsAt(const std::string& text, size_t pos, size_t count, int* value) {
  int v = 0;
  for (size_t i = pos; i < pos + count; ++i) {
    if (i >= text.size() || text[i] < '0' || text[i] > '9') return false;
    v = v * 10 + (text[i] - '0');
  }
  *value = v;
  return true;
}

std::optional<std::chrono::year_month_day> calendarDay(int y, int m, int d) {
  std::chrono::year_month_day day{std::chrono::year(y),
                                  std::chrono::month(static_cast<unsigned>(m)),
                                  std::chrono::day(static_cast<unsigned>(d))};
  if (!day.ok()) return std::nullopt;
  return day;
}

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

std::optional<WallTime> KRUtil::dateWithShortDateString(const std::string& text) {
  int y, m, d;
  if (text.size() != 8 || !digitsAt(text, 0, 4, &y) || !digitsAt(text, 4, 2, &m) ||
      !digitsAt(text, 6, 2, &d) || !calendarDay(y, m, d)) {
    return std::nullopt;
  }
  struct tm local = {};
  local.tm_year = y - 1900;
  local.tm_mon = m - 1;
  local.tm_mday = d;
  local.tm_isdst = -1;  // whatever daylight-saving time that day has
  const time_t t = mktime(&local);
  if (t == static_cast<time_t>(-1) && (local.tm_year != y - 1900 || local.tm_mday != d)) {
    return std::nullopt;
  }
  return WallTime(std::chrono::seconds(t));
}

std::optional<WallTime> KRUtil::dateWithInternationalOrShortString(const std::string& text) {
  // "2024-01-15 13:45:30 +0100"
  int y, mo, d, h, mi, s, zh, zm;
  if (text.size() == 25 && text[4] == '-' && text[7] == '-' && text[10] == ' ' &&
      text[13] == ':' && text[16] == ':' && text[19] == ' ' &&
      (text[20] == '+' || text[20] == '-') && digitsAt(text, 0, 4, &y) &&
      digitsAt(text, 5, 2, &mo) && digitsAt(text, 8, 2, &d) && digitsAt(text, 11, 2, &h) &&
      digitsAt(text, 14, 2, &mi) && digitsAt(text, 17, 2, &s) && digitsAt(text, 21, 2, &zh) &&
      digitsAt(text, 23, 2, &zm) && h < 24 && mi < 60 && s < 60 && zh < 24 && zm < 60) {
    if (auto day = calendarDay(y, mo, d)) {
      namespace chr = std::chrono;
      const chr::seconds offset = (text[20] == '-' ? -1 : 1) * (chr::hours(zh) + chr::minutes(zm));
      const auto utc =
          chr::sys_days(*day) + chr::hours(h) + chr::minutes(mi) + chr::seconds(s) - offset;
      return WallTime(utc.time_since_epoch());
    }
  }
  return dateWithShortDateString(text);
}

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
