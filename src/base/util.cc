#include "base/util.h"

#include <langinfo.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "base/log.h"

namespace zephlore {
namespace {

bool isAbsolute(const char* path) { return path && path[0] == '/'; }

std::string errnoText(int err) { return std::strerror(err); }

bool isDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// mkdir -p with mode 0700 for each folder made. Used only for the user's data
// home, which a fresh account may not have yet.
bool makeFolders(const std::string& path, Error* error) {
  if (isDirectory(path)) return true;
  for (size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos != path.size() && path[pos] != '/') continue;
    std::string prefix = path.substr(0, pos);
    if (mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
      return fail(error, kHelperErrorDomain, errno,
                  "cannot create the folder " + prefix + ": " + errnoText(errno));
    }
  }
  if (!isDirectory(path)) {
    return fail(error, kHelperErrorDomain, ENOTDIR, path + " is not a folder");
  }
  return true;
}

std::string homeFromUserDatabase() {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(size > 0 ? static_cast<size_t>(size) : 16384);
  struct passwd pw;
  struct passwd* found = nullptr;
  if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &found) != 0 || !found) return "";
  return isAbsolute(found->pw_dir) ? found->pw_dir : "";
}

// The user's data home, the stand-in for the per-user Application Support
// folder: $XDG_DATA_HOME, else $HOME/.local/share, else the user database's
// home, else the private temporary directory.
std::optional<std::string> dataHome() {
  const char* xdg = getenv("XDG_DATA_HOME");
  if (xdg && *xdg) {
    if (isAbsolute(xdg)) return std::string(xdg);
    KRLog("ZephloreHelper: ignoring XDG_DATA_HOME \"%s\": not an absolute path", xdg);
  }
  const char* home = getenv("HOME");
  if (isAbsolute(home)) return std::string(home) + "/.local/share";
  std::string pw_home = homeFromUserDatabase();
  if (!pw_home.empty()) {
    KRLog("ZephloreHelper: HOME is not a full path; using the home folder %s of the user database",
          pw_home.c_str());
    return pw_home + "/.local/share";
  }
  std::optional<std::string> tmp = KRUtil::privateTemporaryDirectory();
  if (tmp) {
    KRLog("ZephloreHelper: no home folder known; keeping data in the temporary folder %s",
          tmp->c_str());
  } else {
    KRLog("*** ZephloreHelper: no home folder known and no private temporary folder");
  }
  return tmp;
}

std::mutex g_data_folder_mutex;
std::string* g_data_folder = nullptr;  // the cache; never freed

}  // namespace

// --- The data folder -------------------------------------------------------

std::optional<std::string> KRUtil::dataFolderIn(const std::string& base, Error* error) {
  // Folders of earlier installations come first, in this order, so their
  // data is reused where it is rather than moved.
  for (const char* old_name : {"Krimble", "Krimbler"}) {
    std::string candidate = base + "/" + old_name;
    if (isDirectory(candidate)) return candidate;
  }
  std::string folder = base + "/Zephlore";
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    fail(error, kHelperErrorDomain, errno,
         "cannot create the data folder " + folder + ": " + errnoText(errno));
    return std::nullopt;
  }
  if (!isDirectory(folder)) {
    fail(error, kHelperErrorDomain, ENOTDIR, "the data folder " + folder + " is not a folder");
    return std::nullopt;
  }
  return folder;
}

std::optional<std::string> KRUtil::applicationSupportFolder() {
  return applicationSupportFolder(nullptr);
}

std::optional<std::string> KRUtil::applicationSupportFolder(Error* error) {
  std::lock_guard lock(g_data_folder_mutex);
  if (g_data_folder) return *g_data_folder;
  std::optional<std::string> base = dataHome();
  if (!base) {
    fail(error, kHelperErrorDomain, ENOENT, "no home folder and no private temporary folder");
    return std::nullopt;
  }
  if (!makeFolders(*base, error)) return std::nullopt;
  std::optional<std::string> folder = dataFolderIn(*base, error);
  if (folder) g_data_folder = new std::string(*folder);
  return folder;
}

std::string KRUtil::pathToExclusionPathsFile() {
  std::optional<std::string> folder = applicationSupportFolder();
  return folder ? *folder + "/excludedPaths.plist" : "";
}

std::string KRUtil::pathToExclusionExtensionsFile() {
  std::optional<std::string> folder = applicationSupportFolder();
  return folder ? *folder + "/excludedExtensions.plist" : "";
}

std::optional<std::string> KRUtil::makePrivateDirectory(const std::string& path, Error* error) {
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    fail(error, kHelperErrorDomain, errno, "cannot create " + path + ": " + errnoText(errno));
    return std::nullopt;
  }
  // lstat: a symlink planted in a shared folder must not redirect us.
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    fail(error, kHelperErrorDomain, errno, "cannot read " + path + ": " + errnoText(errno));
    return std::nullopt;
  }
  const char* problem = nullptr;
  if (S_ISLNK(st.st_mode)) {
    problem = "is a symbolic link";
  } else if (!S_ISDIR(st.st_mode)) {
    problem = "is not a folder";
  } else if (st.st_uid != geteuid()) {
    problem = "belongs to another user";
  } else if (st.st_mode & 077) {
    problem = "is open to other users";
  }
  if (problem) {
    fail(error, kHelperErrorDomain, EPERM, path + " " + problem);
    return std::nullopt;
  }
  return path;
}

std::optional<std::string> KRUtil::privateTemporaryDirectory() {
  std::vector<std::string> candidates;
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (isAbsolute(runtime)) candidates.push_back(std::string(runtime) + "/zephlore");
  candidates.push_back("/tmp/zephlore-" + std::to_string(geteuid()));
  for (const std::string& candidate : candidates) {
    Error error;
    if (auto dir = makePrivateDirectory(candidate, &error)) return dir;
    KRLog("*** ZephloreHelper: refusing the temporary folder: %s", error.message.c_str());
  }
  return std::nullopt;
}

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
