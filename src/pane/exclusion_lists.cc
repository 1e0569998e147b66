#include "pane/exclusion_lists.h"

#include <algorithm>

#include "helper/settings/exclusions_processor.h"
#include "helper/settings/plist_file.h"
#include "platform/normal_path.h"

namespace zephlore::pane {
namespace {

bool samePlace(Env& env, const std::string& a, const std::string& b) {
  return a == b || KRExclusionsProcessor::canonicalPath(env, a) == KRExclusionsProcessor::canonicalPath(env, b);
}

}  // namespace

std::optional<StringList> readListForEditing(Env& env, const std::string& path, std::string* problem) {
  PlistReadResult file = readPlistFile(env, path);
  if (file.status == PlistReadStatus::kMissing) return StringList{};
  if (file.status != PlistReadStatus::kOk) {
    if (problem) *problem = path + ": " + file.problem;
    return std::nullopt;
  }
  size_t skipped = 0;
  std::optional<StringList> list = plistStringArray(file.root.get(), &skipped);
  if (!list || skipped > 0) {
    if (problem) *problem = path + " is not an array of strings; correct or remove it first";
    return std::nullopt;
  }
  return list;
}

bool writeList(Env& env, const std::string& path, const StringList& entries, std::string* problem) {
  PlistPtr array = makePlistStringArray(entries);
  return writePlistFileAtomically(env, path, array.get(), problem);
}

std::string absolutePath(Env& env, const std::string& path) { return resolvedUserPath(env, path); }

bool addPath(Env& env, StringList& list, const std::string& path) {
  for (const std::string& entry : list) {
    if (samePlace(env, entry, path)) return false;
  }
  list.push_back(path);
  return true;
}

bool removePath(Env& env, StringList& list, const std::string& path) {
  return std::erase_if(list, [&](const std::string& entry) { return samePlace(env, entry, path); }) > 0;
}

std::optional<bool> addExtension(StringList& list, const std::string& entry) {
  std::optional<std::string> wanted = KRExclusionsProcessor::normalizedExtension(entry);
  if (!wanted) return std::nullopt;
  for (const std::string& existing : list) {
    if (KRExclusionsProcessor::normalizedExtension(existing) == wanted) return false;
  }
  list.push_back(wanted->substr(1));
  return true;
}

std::optional<bool> removeExtension(StringList& list, const std::string& entry) {
  std::optional<std::string> unwanted = KRExclusionsProcessor::normalizedExtension(entry);
  if (!unwanted) return std::nullopt;
  return std::erase_if(list, [&](const std::string& existing) {
           return KRExclusionsProcessor::normalizedExtension(existing) == unwanted;
         }) > 0;
}

}  // namespace zephlore::pane
