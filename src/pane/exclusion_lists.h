// Editing the user's exclusion lists ("excludedPaths.plist",
// "excludedExtensions.plist"): what `zephlore exclude` and
// `zephlore exclude-ext` change before they tell the helper.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/env.h"

namespace zephlore::pane {

using StringList = std::vector<std::string>;

// The list in the file: empty when the file is missing; none (and *problem)
// when it exists but is not an array of strings, so that a hand-edited file
// with a mistake is not silently replaced.
std::optional<StringList> readListForEditing(Env& env, const std::string& path, std::string* problem);
bool writeList(Env& env, const std::string& path, const StringList& entries, std::string* problem);

// `path` made absolute against the working folder and lexically cleaned
// ("a/../b" -> "b", no trailing slash); symbolic links are left alone.
std::string absolutePath(Env& env, const std::string& path);

// Adds `path` unless an entry names the same place (same text or same
// resolved path). True when the list changed.
bool addPath(Env& env, StringList& list, const std::string& path);
// Removes every entry naming the same place as `path`. True when any was.
bool removePath(Env& env, StringList& list, const std::string& path);

// Adds the extension (stored lower-case, without dots) unless an entry
// normalises to the same one. None when `entry` is no extension ("", ".");
// else whether the list changed.
std::optional<bool> addExtension(StringList& list, const std::string& entry);
// Removes every entry that normalises like `entry`. None when `entry` is no
// extension; else whether any was removed.
std::optional<bool> removeExtension(StringList& list, const std::string& entry);

}  // namespace zephlore::pane
