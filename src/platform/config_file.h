// Settings, rules and records kept in files that other programs can replace
// with anything: a FIFO (whose open or read waits for a writer forever), a
// socket, a directory, a device. Each is opened without waiting and used only
// when it is a regular file; a symbolic link the user made to a regular file
// is followed.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "platform/env.h"

namespace zephlore {

enum class ConfigFileStatus { kOk, kMissing, kNotRegular, kUnreadable };

struct OpenedConfigFile {
  ConfigFileStatus status = ConfigFileStatus::kMissing;
  UniqueFd fd;          // open for reading when kOk
  struct stat st = {};  // of the open file when kOk
  std::string problem;  // a short phrase for the log line otherwise
};

// Opens `path` for reading. Never waits, whatever is at the path.
OpenedConfigFile openConfigFile(Env& env, const std::string& path);

struct ConfigFileText {
  ConfigFileStatus status = ConfigFileStatus::kMissing;
  std::string text;     // the whole file when kOk
  std::string problem;
};

// Reads the whole file; more than `maxBytes` counts as unreadable.
ConfigFileText readConfigFile(Env& env, const std::string& path, size_t maxBytes);

// The name to write or replace for `path`: the path itself when nothing or a
// regular file is there, the file a symbolic link leads to when it leads to a
// regular file (so the user's link stays), or the path when a link leads
// nowhere. None, with *problem set, when something that is not a regular
// file is there: it belongs to somebody else and is left alone.
std::optional<std::string> configWriteTarget(Env& env, const std::string& path, std::string* problem);

// "a FIFO", "a socket", "a directory", ... for messages.
std::string fileTypePhrase(mode_t mode);

}  // namespace zephlore
