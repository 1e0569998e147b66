#include "helper/history/history_processor.h"

#include <sys/stat.h>

#include "base/log.h"
#include "engine/path_string.h"
#include "engine/volume.h"
#include "platform/normal_path.h"
#include "protocol/notification_names.h"

namespace zephlore {
namespace {

constexpr size_t kMaxFolderPathBytes = 1024;

// "/a/b" -> {"/", "a", "b"}.
std::vector<std::string> pathComponents(const std::string& path) {
  std::vector<std::string> parts;
  if (!path.empty() && path[0] == '/') parts.push_back("/");
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) parts.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// Roots under which removable volumes appear; a record there keeps its path.
bool isOnRemovableRoot(const std::string& path) {
  for (const char* root : {"/Volumes/", "/media/", "/run/media/", "/mnt/"}) {
    if (startsWith(path, root)) return true;
  }
  return false;
}

bool isDirectoryPath(Env& env, const std::string& path) { return QVPathString::isDirectory(env, path); }

}  // namespace

KRHistoryProcessor::KRHistoryProcessor(RunLoop& loop, Env& env, HistoryDatabase& database, Hooks hooks)
    : loop_(loop), env_(env), database_(database), hooks_(std::move(hooks)) {
  if (!hooks_.postSavingsChanged) hooks_.postSavingsChanged = [] {};
  if (!hooks_.helperActive) hooks_.helperActive = [] { return true; };
  refreshTotalSavings();
}

KRHistoryProcessor::~KRHistoryProcessor() { loop_.cancelPerform(this, "saveContext"); }

void KRHistoryProcessor::setWatchPathsHandler(
    std::function<void(const std::optional<FolderList>&)> handler) {
  hooks_.setWatchPaths = std::move(handler);
}

void KRHistoryProcessor::addTotalSavingsObserver(std::function<void(uint64_t)> observer) {
  std::lock_guard<std::mutex> lock(observers_mutex_);
  total_observers_.push_back(std::move(observer));
}

HistoryContext* KRHistoryProcessor::context() { return database_.managedObjectContext(); }

void KRHistoryProcessor::runOnMain(std::function<void()> fn) {
  if (!loop_.postAndWait(std::move(fn))) {
    KRLog("History update dropped: the main run loop has stopped");
  }
}

// --- Queries -----------------------------------------------------------------

std::optional<FolderList> KRHistoryProcessor::folders() {
  HistoryContext* ctx = context();
  if (!ctx) return std::nullopt;
  std::optional<std::vector<HistoryContext::Object*>> enabled =
      ctx->fetch("historyForEnabledFolders", {}, nullptr);
  if (!enabled || enabled->empty()) return std::nullopt;
  FolderList list;
  for (HistoryContext::Object* object : *enabled) {
    HTAlias alias(object->record().folderAlias);
    std::optional<std::string> resolved = alias.fullPath(env_, loop_.clock(), aliases_);
    if (resolved && !resolved->empty() && isDirectoryPath(env_, *resolved)) {
      list.push_back(QVPathString::stringByCanonicalizingPath(env_, *resolved));
    } else if (alias.originalAliasInfo()) {
      // Gone or on an unmounted volume: it stays watched under its old path.
      list.push_back(alias.originalAliasInfo()->pathString);
    } else {
      list.push_back(object->record().folder);
    }
  }
  return list;
}

std::string KRHistoryProcessor::enabledFolderPathForPath(const std::string& path) {
  std::optional<FolderList> watched = folders();
  if (!watched) return "";
  for (const std::string& folder : *watched) {
    if (folder == path) return folder;
  }
  std::string candidate = path;
  struct stat st;
  if (env_.stat(path, &st) == 0 && !S_ISDIR(st.st_mode)) {
    size_t slash = path.find_last_of('/');
    if (slash != std::string::npos) candidate = slash == 0 ? "/" : path.substr(0, slash);
  }
  // A plain string prefix: a file under /a/bc belongs to a watched /a/b.
  std::string best;
  for (const std::string& folder : *watched) {
    if (startsWith(candidate, folder) && folder.size() > best.size()) best = folder;
  }
  return best;
}

HistoryContext::Object* KRHistoryProcessor::enabledFolderHistoryForFolderPath(
    const std::string& folder) {
  HistoryContext* ctx = context();
  if (!ctx) return nullptr;
  Error error;
  std::optional<std::vector<HistoryContext::Object*>> found =
      ctx->fetch("historyForEnabledFolder", {{"HISTORY_PATH", folder}}, &error);
  if (!found) {
    database_.presentError("Cannot read the history", error.message);
    return nullptr;
  }
  return found->empty() ? nullptr : found->front();
}

std::optional<WallTime> KRHistoryProcessor::folderSweepDate(const std::string& folder) {
  std::optional<WallTime> date;
  runOnMain([&] {
    if (HistoryContext::Object* record = enabledFolderHistoryForFolderPath(folder)) {
      date = record->record().lastSweep;
    }
  });
  return date;
}

uint32_t KRHistoryProcessor::progressForFolder(const std::string& folder) {
  uint32_t progress = 0;
  runOnMain([&] {
    if (HistoryContext::Object* record = enabledFolderHistoryForFolderPath(folder)) {
      progress = record->record().status;
    }
  });
  return progress;
}

bool KRHistoryProcessor::shouldAllowFolder(const std::string& path) {
  HistoryContext* ctx = context();
  if (!ctx) return true;
  std::optional<std::vector<HistoryContext::Object*>> enabled =
      ctx->fetch("historyForEnabledFolders", {}, nullptr);
  if (!enabled || enabled->empty()) return true;
  const std::vector<std::string> newParts = pathComponents(path);
  for (HistoryContext::Object* object : *enabled) {
    const std::string folder = object->record().folder;
    const std::vector<std::string> parts = pathComponents(folder);
    // The new, outer folder takes over a watched folder inside it.
    if (parts.size() >= newParts.size() &&
        std::equal(newParts.begin(), newParts.end(), parts.begin()) &&
        QVVolume::areInSameVolumePath(env_, path, folder)) {
      object->setEnabled(false);
    }
    // Inside a watched folder (a string test: /a/bc/d is inside /a/b).
    if (folder.size() < path.size() && startsWith(path, folder) &&
        parts.size() != newParts.size() && QVVolume::areInSameVolumePath(env_, path, folder)) {
      return false;
    }
  }
  return true;
}

std::vector<HistoryRecord> KRHistoryProcessor::allFolderEntries() {
  std::vector<HistoryRecord> entries;
  if (HistoryContext* ctx = context()) {
    for (HistoryContext::Object* object : ctx->allObjects()) entries.push_back(object->record());
  }
  return entries;
}

std::vector<std::vector<uint8_t>> KRHistoryProcessor::folderAliases() {
  std::vector<std::vector<uint8_t>> aliases;
  HistoryContext* ctx = context();
  if (!ctx) return aliases;
  for (HistoryContext::Object* object :
       ctx->fetch("historyForEnabledFolders", {}, nullptr).value_or(
           std::vector<HistoryContext::Object*>{})) {
    aliases.push_back(object->record().folderAlias);
  }
  return aliases;
}

// --- Updates -------------------------------------------------------------------

void KRHistoryProcessor::addSavingsForPath(uint64_t bytes, const std::string& path) {
  if (bytes == 0) return;
  runOnMain([&] { addSavingsForPath_main(bytes, path); });
}

void KRHistoryProcessor::addSavingsForFolder(uint64_t bytes, const std::string& folder) {
  if (bytes == 0) return;
  runOnMain([&] { addSavingsForFolder_main(bytes, folder); });
}

void KRHistoryProcessor::setSavingsForFolder(uint64_t bytes, const std::string& folder) {
  runOnMain([&] { setSavingsForFolder_main(bytes, folder); });
}

void KRHistoryProcessor::setProgressForPath(uint32_t percent, const std::string& path) {
  runOnMain([&] { setProgressForPath_main(percent, path); });
}

void KRHistoryProcessor::setProgressForFolder(uint32_t percent, const std::string& folder) {
  runOnMain([&] { setProgressForFolder_main(percent, folder); });
}

void KRHistoryProcessor::resetProgressForFolder(const std::string& folder) {
  runOnMain([&] { resetProgressForFolder_main(folder); });
}

void KRHistoryProcessor::justSweptFolder(const std::string& folder) {
  runOnMain([&] { justSweptFolder_main(folder); });
}

void KRHistoryProcessor::addSavingsForPath_main(uint64_t bytes, const std::string& path) {
  if (bytes == 0) return;
  std::string folder = enabledFolderPathForPath(path);
  if (folder.empty()) return;
  addSavingsForFolder_main(bytes, folder);
}

void KRHistoryProcessor::addSavingsForFolder_main(uint64_t bytes, const std::string& folder) {
  if (bytes == 0) return;
  HistoryContext::Object* record = enabledFolderHistoryForFolderPath(folder);
  if (!record) return;
  record->setSavings(record->record().savings + bytes);
  const uint64_t oldTotal = totalSavings();
  notifyHistoryChanged();
  refreshTotalSavings();
  const uint64_t newTotal = totalSavings();
  // Whole gigabytes crossed, counted in 32 bits: a jump of five or more in
  // one addition wraps, as it always has.
  const auto oldCount = static_cast<uint32_t>(oldTotal / kGigabyte);
  const auto newCount = static_cast<uint32_t>(newTotal / kGigabyte);
  if (newTotal >= kGigabyte && oldCount != newCount) {
    const uint32_t increase = (newCount - oldCount) * static_cast<uint32_t>(kGigabyte);
    if (hooks_.savingsIncreased) hooks_.savingsIncreased(increase, newTotal);
  }
}

void KRHistoryProcessor::setSavingsForFolder_main(uint64_t bytes, const std::string& folder) {
  HistoryContext::Object* record = enabledFolderHistoryForFolderPath(folder);
  if (!record || record->record().savings == bytes) return;
  record->setSavings(bytes);
  notifyHistoryChanged();
  refreshTotalSavings();
}

void KRHistoryProcessor::setProgressForPath_main(uint32_t percent, const std::string& path) {
  std::string folder = enabledFolderPathForPath(path);
  if (!folder.empty()) setProgressForFolder_main(percent, folder);
}

void KRHistoryProcessor::setProgressForFolder_main(uint32_t percent, const std::string& folder) {
  HistoryContext::Object* record = enabledFolderHistoryForFolderPath(folder);
  if (!record) return;
  record->setStatus(percent);
  notifyHistoryChanged();
}

void KRHistoryProcessor::resetProgressForFolder_main(const std::string& folder) {
  HistoryContext::Object* record = enabledFolderHistoryForFolderPath(folder);
  if (record && record->record().status == 100) setProgressForFolder_main(0, folder);
}

void KRHistoryProcessor::justSweptFolder_main(const std::string& folder) {
  // Written with the next save.
  if (HistoryContext::Object* record = enabledFolderHistoryForFolderPath(folder)) {
    record->setLastSweep(loop_.clock().wallNow());
  }
}

// --- Folder list changes ---------------------------------------------------------

FolderList KRHistoryProcessor::usableFolders(const Notification& notification, const char* key) {
  FolderList usable;
  auto it = notification.userInfo.find(key);
  if (it == notification.userInfo.end()) return usable;
  const std::vector<std::string>* list = userInfoStrings(notification.userInfo, key);
  if (!list) {
    KRLog("%s: \"%s\" is not a list of paths; ignored", notification.name.c_str(), key);
    return usable;
  }
  for (const std::string& path : *list) {
    const char* problem = nullptr;
    if (path.empty() || path[0] != '/') {
      problem = "not an absolute path";
    } else if (path.size() > kMaxFolderPathBytes) {
      problem = "longer than 1024 bytes";
    } else if (path.find('\n') != std::string::npos) {
      problem = "a name with a line break";
    }
    if (problem) {
      KRLog("%s: folder \"%.100s\" refused: %s", notification.name.c_str(), path.c_str(), problem);
    } else {
      // The rules compare one form: "/a/b/.." is "/a", its links resolved.
      usable.push_back(resolvedUserPath(env_, path));
    }
  }
  return usable;
}

void KRHistoryProcessor::foldersChanged(const Notification& notification) {
  FolderList toAdd = usableFolders(notification, kFoldersToAddKey);
  FolderList toRemove = usableFolders(notification, kFoldersToRemoveKey);
  foldersChanged(toAdd, toRemove);
}

void KRHistoryProcessor::foldersChanged(const FolderList& toAdd, const FolderList& toRemove) {
  HistoryContext* ctx = context();
  if (ctx) {
    for (const std::string& path : toRemove) {
      auto found = ctx->fetch("historyForFolder", {{"HISTORY_PATH", path}}, nullptr);
      if (!found || found->empty()) continue;
      // Its savings stay in the history and the total.
      HistoryContext::Object* record = found->front();
      record->setEnabled(false);
      record->setLastSweep(std::nullopt);
      record->setStatus(0);
    }
    for (const std::string& path : toAdd) {
      auto found = ctx->fetch("historyForFolder", {{"HISTORY_PATH", path}}, nullptr);
      if (!shouldAllowFolder(path)) {
        KRLog("Folder %s lies inside a watched folder; not added", path.c_str());
        continue;
      }
      if (found && !found->empty()) {
        found->front()->setEnabled(true);
        continue;
      }
      Error error;
      std::optional<HTAlias> alias = HTAlias::aliasWithPath(env_, loop_.clock(), aliases_, path, &error);
      if (!alias) {
        KRLog("Folder %s cannot be watched: %s", path.c_str(), error.message.c_str());
        continue;
      }
      HistoryContext::Object* record = ctx->insertNewObject();
      record->setFolderAlias(alias->aliasData());
      record->setFolder(path);
    }
  }
  if (hooks_.helperActive() && hooks_.setWatchPaths) hooks_.setWatchPaths(folders());
  notifyHistoryChanged();
}

void KRHistoryProcessor::resolveAliases() {
  HistoryContext* ctx = context();
  if (!ctx) return;
  for (HistoryContext::Object* object : ctx->allObjects()) {
    HTAlias alias(object->record().folderAlias);
    std::optional<std::string> resolved = alias.fullPath(env_, loop_.clock(), aliases_);
    if (resolved && !resolved->empty()) {
      std::string path = QVPathString::stringByCanonicalizingPath(env_, *resolved);
      const std::string& folder = object->record().folder;
      if (path == folder || isOnRemovableRoot(path) || isOnRemovableRoot(folder) ||
          !isDirectoryPath(env_, path)) {
        continue;
      }
      object->setFolder(path);
      // A fresh record finds it at once next time instead of searching.
      if (std::optional<HTAlias> fresh = HTAlias::aliasWithPath(env_, loop_.clock(), aliases_, path)) {
        object->setFolderAlias(fresh->aliasData());
      }
      continue;
    }
    if (!alias.originalAliasInfo()) continue;
    const std::string recorded = alias.originalAliasInfo()->pathString;
    struct stat st;
    if (recorded.empty() || env_.stat(recorded, &st) != 0) continue;
    if (std::optional<HTAlias> fresh = HTAlias::aliasWithPath(env_, loop_.clock(), aliases_, recorded)) {
      object->setFolderAlias(fresh->aliasData());
      object->setFolder(recorded);
    }
  }
  notifyHistoryChanged();
}

void KRHistoryProcessor::watchedFolderAtPathWasRenamedTo(const std::string&, const std::string&) {
  resolveAliases();
}

void KRHistoryProcessor::mountStatusDidChangeForPath(const std::string&) { notifyHistoryChanged(); }

// --- Total and saving ------------------------------------------------------------

void KRHistoryProcessor::refreshTotalSavings() {
  uint64_t total = 0;
  if (HistoryContext* ctx = context()) {
    for (HistoryContext::Object* object : ctx->allObjects()) total += object->record().savings;
  }
  total_savings_.store(total);
  std::vector<std::function<void(uint64_t)>> observers;
  {
    std::lock_guard<std::mutex> lock(observers_mutex_);
    observers = total_observers_;
  }
  for (auto& observer : observers) observer(total);
}

void KRHistoryProcessor::saveContext() {
  if (HistoryContext* ctx = context()) {
    Error error;
    if (ctx->commitEditing() && !ctx->save(&error, loop_.clock().wallNow())) {
      KRLog("*** Error saving context, error: %s", error.describe().c_str());
    }
  }
  hooks_.postSavingsChanged();
}

void KRHistoryProcessor::notifyHistoryChanged() {
  loop_.cancelPerform(this, "saveContext");
  loop_.performAfterDelay(this, "saveContext", seconds(kSaveDelaySeconds),
                          [this] { saveContext(); });
}

void KRHistoryProcessor::saveNow() {
  loop_.cancelPerform(this, "saveContext");
  saveContext();
}

}  // namespace zephlore
