// KRUtil: small stateless helpers of the helper process: where its private
// data folder is, how byte counts and dates are shown, file ages and group
// membership for the analyzer's candidate test.
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

  // --- The data folder ---------------------------------------------------

  // The helper's data folder, chosen once per process: inside the user's data
  // home ($XDG_DATA_HOME, else ~/.local/share) the first existing folder of
  // "Krimble" and "Krimbler" (data of earlier installations is reused in
  // place), else "Zephlore", created with mode 0700 when missing. Once found
  // the path is cached for the life of the process. None when it could not be
  // made; then nothing is cached and the next call tries again.
  static std::optional<std::string> applicationSupportFolder();
  // The same, telling why it failed.
  static std::optional<std::string> applicationSupportFolder(Error* error);

  // Data folder + "excludedPaths.plist" / "excludedExtensions.plist"; "" when
  // there is no data folder.
  static std::string pathToExclusionPathsFile();
  static std::string pathToExclusionExtensionsFile();

  // A private per-user directory (mode 0700, owned by us):
  // $XDG_RUNTIME_DIR/zephlore, else /tmp/zephlore-<uid>. Created when
  // missing. None (and a logged line) when neither can be made safe.
  static std::optional<std::string> privateTemporaryDirectory();

  // Creates `path` (not its parents) with mode 0700 if missing and checks it
  // is a real directory owned by this user with no group or other access.
  // None and a filled `error` otherwise; a symlink is never followed.
  static std::optional<std::string> makePrivateDirectory(const std::string& path,
                                                         Error* error = nullptr);

  // The data folder choice inside `base` without the cache (steps after the
  // data home is known). Exposed for tests.
  static std::optional<std::string> dataFolderIn(const std::string& base, Error* error);

  // --- Display -----------------------------------------------------------

  // "0 b" .. "1023 b", then decimal units: "1.02 KB", "1.50 MB", "123 GB".
  static std::string getPrettySize(uint64_t bytes);

  // --- File age and group membership -------------------------------------

  // Seconds since `path` last changed: a directory's modification time, for
  // anything else its status-change time (a metadata change makes a file
  // young). Links are not followed. -1.0 when the path cannot be read.
  static double timeIntervalSinceLastModificationOfPath(const char* path);
  // The current time in whole seconds (from the shared clock) minus `time`.
  static double timeIntervalSinceTime(int64_t time);
  // True when `gid` is one of the process's supplementary groups.
  static bool processGroupsInclude(gid_t gid);

  // --- Dates -------------------------------------------------------------

  // "YYYYMMDD" (exactly 8 digits, a valid calendar day) at local midnight.
  static std::optional<WallTime> dateWithShortDateString(const std::string& text);
  // "YYYY-MM-DD HH:MM:SS ±HHMM", else the short form.
  static std::optional<WallTime> dateWithInternationalOrShortString(const std::string& text);
  // The date in local time, rendered for the user's LC_TIME locale.
  static std::string stringWithDate(WallTime date, DateStyle dateStyle, DateStyle timeStyle);
  // Long date, no time.
  static std::string stringWithDate(WallTime date);
};

}  // namespace zephlore
