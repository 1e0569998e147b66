#include "helper/settings/exclusions_processor.h"

#include <cstdlib>

#include "base/log.h"
#include "base/data_folder.h"
#include "helper/bus/distributed_notification_center.h"
#include "helper/settings/plist_file.h"
#include "protocol/notification_names.h"

namespace zephlore {
namespace {

std::string lowercase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

}  // namespace

KRExclusionsProcessor::KRExclusionsProcessor(Env& env, const std::string& dataFolder,
                                             DistributedNotificationCenter& center, RunLoop& loop)
    : env_(env),
      pathsFile_(exclusionPathsFileIn(dataFolder)),
      extensionsFile_(exclusionExtensionsFileIn(dataFolder)),
      center_(center),
      paths_observer_(center_.addObserver(kExcludedPathsNotification,
                                          [this](const Notification&) { excludedPathsUpdate(); }, loop)),
      extensions_observer_(center_.addObserver(
          kExcludedExtensionsNotification,
          [this](const Notification&) { excludedExtensionsUpdate(); }, loop)) {
  readFiles();
}

KRExclusionsProcessor::~KRExclusionsProcessor() {
  center_.removeObserver(paths_observer_);
  center_.removeObserver(extensions_observer_);
}

void KRExclusionsProcessor::readFiles() {
  excludedPathsUpdate();
  excludedExtensionsUpdate();
}

std::optional<KRExclusionsProcessor::List> KRExclusionsProcessor::readListFile(
    Env& env, const std::string& path, const char* what) {
  if (path.empty()) return std::nullopt;
  PlistReadResult file = readPlistFile(env, path);
  if (file.status == PlistReadStatus::kMissing) return std::nullopt;
  if (file.status != PlistReadStatus::kOk) {
    KRLog("Could not read the %s from %s (%s): no %s", what, path.c_str(), file.problem.c_str(),
          what);
    return std::nullopt;
  }
  size_t skipped = 0;
  std::optional<List> strings = plistStringArray(file.root.get(), &skipped);
  if (!strings) {
    KRLog("The %s file %s does not hold an array: no %s", what, path.c_str(), what);
    return std::nullopt;
  }
  if (skipped > 0) {
    KRLog("The %s file %s: ignored %zu entries that are not strings", what, path.c_str(), skipped);
  }
  return strings;
}

void KRExclusionsProcessor::excludedPathsUpdate() {
  {
    std::lock_guard lock(mutex_);
    paths_.reset();
  }
  std::optional<List> entries = readListFile(env_, pathsFile_, "excluded paths");
  if (!entries) return;
  auto resolved = std::make_shared<List>();
  for (const std::string& entry : *entries) {
    // An empty entry would be a prefix of every path.
    if (!entry.empty()) resolved->push_back(canonicalPath(env_, entry));
  }
  std::lock_guard lock(mutex_);
  paths_ = std::move(resolved);
}

void KRExclusionsProcessor::excludedExtensionsUpdate() {
  {
    std::lock_guard lock(mutex_);
    extensions_.reset();
  }
  std::optional<List> entries =
      readListFile(env_, extensionsFile_, "excluded extensions");
  if (!entries) return;
  auto normalized = std::make_shared<List>();
  for (const std::string& entry : *entries) {
    if (std::optional<std::string> extension = normalizedExtension(entry)) {
      normalized->push_back(*extension);
    }
  }
  std::lock_guard lock(mutex_);
  extensions_ = std::move(normalized);
}

bool KRExclusionsProcessor::isExcluded(const std::string& path) const {
  std::shared_ptr<const List> paths;
  std::shared_ptr<const List> extensions;
  {
    std::lock_guard lock(mutex_);
    paths = paths_;
    extensions = extensions_;
  }
  if (!paths && !extensions) return false;
  const std::string resolved = canonicalPath(env_, path);
  if (paths) {
    for (const std::string& prefix : *paths) {
      if (resolved.starts_with(prefix)) return true;
    }
  }
  if (extensions) {
    const std::string lower = lowercase(resolved);
    for (const std::string& extension : *extensions) {
      if (lower.ends_with(extension)) return true;
    }
  }
  return false;
}

KRExclusionsProcessor::List KRExclusionsProcessor::excludedPaths() const {
  std::lock_guard lock(mutex_);
  return paths_ ? *paths_ : List{};
}

KRExclusionsProcessor::List KRExclusionsProcessor::excludedExtensions() const {
  std::lock_guard lock(mutex_);
  return extensions_ ? *extensions_ : List{};
}

std::optional<std::string> KRExclusionsProcessor::normalizedExtension(const std::string& entry) {
  std::string lower = lowercase(entry);
  size_t first = lower.find_first_not_of('.');
  std::string extension = "." + (first == std::string::npos ? "" : lower.substr(first));
  if (extension.size() < 2) return std::nullopt;
  return extension;
}

std::string KRExclusionsProcessor::canonicalPath(Env& env, const std::string& path) {
  return env.realPath(path).value_or(path);
}

}  // namespace zephlore
