// Property-list files on disk: reading one whole (XML or binary, never
// trusting the bytes), writing one atomically, and reading its values the
// forgiving way the settings and rule files need.
#pragma once

#include <plist/plist.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/plist_ptr.h"
#include "platform/env.h"

namespace zephlore {

// Why a property-list file gave no tree.
enum class PlistReadStatus { kOk, kMissing, kEmpty, kUnreadable, kUnparsable };

struct PlistReadResult {
  PlistReadStatus status = PlistReadStatus::kMissing;
  PlistPtr root;        // set when status == kOk
  std::string problem;  // a short phrase for the log line otherwise
};

// Reads and parses the whole file. Files above 16 MiB count as unreadable:
// no settings or rule file is anywhere near that size. So does anything
// but a regular file (a link to one is followed); nothing waits.
PlistReadResult readPlistFile(Env& env, const std::string& path);

// Writes `bytes` so that readers see either the old file or the new one,
// never a part: a temporary file in the same folder, flushed to disk, renamed
// over `path`, then the folder flushed. The new file gets mode `mode`. On
// failure returns false, leaves the old file alone and sets *problem.
bool writeFileAtomically(Env& env, const std::string& path, const std::string& bytes, std::string* problem,
                         mode_t mode = 0644);
// The same for `root` as an XML property list.
bool writePlistFileAtomically(Env& env, const std::string& path, plist_t root, std::string* problem);

// A node read as a boolean: a boolean as itself, a number as non-zero, a
// string as its leading "Y"/"y"/"T"/"t" or non-zero digit. None for other
// types (arrays, dictionaries, data, dates).
std::optional<bool> plistBoolValue(plist_t node);

// A node read as an unsigned 64-bit number (integers, and reals that hold a
// whole non-negative value). None for other types.
std::optional<uint64_t> plistUnsignedValue(plist_t node);

// The strings of an array node, in order. None when `node` is not an array;
// elements that are not strings are left out and counted in *skipped.
std::optional<std::vector<std::string>> plistStringArray(plist_t node, size_t* skipped);

// A new array node of `strings`.
PlistPtr makePlistStringArray(const std::vector<std::string>& strings);

}  // namespace zephlore
