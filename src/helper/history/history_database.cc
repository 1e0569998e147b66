#include "helper/history/history_database.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <set>

#include "base/log.h"
#include "base/run_loop.h"
#include "base/util.h"
#include "helper/notices/notice_bridge.h"

namespace zephlore {
namespace {

struct Stack {
  std::optional<HistoryModel> model;
  std::unique_ptr<HistoryStore> store;
  std::unique_ptr<HistoryContext> context;
  // A failure that repeats on every retry is told once.
  std::set<std::string> presented;
  KRGrowlBridge* notices = nullptr;
};

Stack& stack() {
  static Stack* instance = new Stack();
  return *instance;
}

// SQLite opens the database by its path through the real system, never
// through an Env: the checks before it look at the same file.
Env& databaseEnv() { return Env::system(); }

}  // namespace

std::string KRHelperUtil::databasePath() {
  std::optional<std::string> folder = KRUtil::applicationSupportFolder();
  return folder ? *folder + "/" + kDatabaseFileName : std::string();
}

void KRHelperUtil::presentError(const std::string& title, const std::string& text) {
  if (!stack().presented.insert(title + "\n" + text).second) return;
  KRLog("*** %s: %s", title.c_str(), text.c_str());
  if (KRGrowlBridge* notices = stack().notices) notices->showCriticalNotice(title, text);
}

void KRHelperUtil::setNoticeBridge(KRGrowlBridge* notices) { stack().notices = notices; }

const HistoryModel* KRHelperUtil::managedObjectModel() {
  Stack& s = stack();
  if (!s.model) s.model = HistoryModel::load(databaseEnv());
  return s.model ? &*s.model : nullptr;
}

bool KRHelperUtil::ensureIntegrityOfDatabaseAtPath(Env& env, const std::string& path) {
  struct stat st;
  if (env.lstat(path, &st) != 0) return true;

  // Only the preparation decides: a file SQLite can parse passes, whatever
  // the pragma would report.
  sqlite3* db = nullptr;
  int rc = sqlite3_open(path.c_str(), &db);
  if (rc == SQLITE_OK) {
    sqlite3_busy_timeout(db, 5000);  // a reader's lock is not damage
    sqlite3_stmt* statement = nullptr;
    rc = sqlite3_prepare_v2(db, "PRAGMA integrity_check;", -1, &statement, nullptr);
    sqlite3_step(statement);
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
  if (rc == SQLITE_OK) return true;
  // A file another writer holds is busy, not damaged: deleting it would lose
  // the user's history for a lock.
  if (rc == SQLITE_BUSY || rc == SQLITE_LOCKED) {
    KRLog("History database %s is locked by another program; it is kept", path.c_str());
    return true;
  }

  presentError(kDatabaseErrorTitle, kDatabaseCorruptMessage);
  if (env.unlink(path) != 0) {
    KRLog("*** Cannot delete the damaged history database %s: %s", path.c_str(), strerror(errno));
  }
  // Journals of the damaged file must not be replayed into the new one.
  env.unlink(path + "-wal");
  env.unlink(path + "-shm");
  return false;
}

HistoryStore* KRHelperUtil::persistentStoreCoordinator() {
  Stack& s = stack();
  if (s.store) return s.store.get();
  const HistoryModel* model = managedObjectModel();
  if (!model) {
    KRLog("*** Managed object model is nil");
    KRLog("KRHelperUtil:persistentStoreCoordinator No model to generate a store from");
    return nullptr;
  }
  std::string path = databasePath();
  if (path.empty()) {
    presentError("Failed to open the history database", "There is no data folder to keep it in.");
    return nullptr;
  }
  // Checked before SQLite opens it, which would wait forever on a FIFO.
  std::string refusal;
  if (!HistoryStore::databaseFilesUsable(databaseEnv(), path, &refusal)) {
    presentError("Failed to open the history database", refusal);
    return nullptr;
  }
  ensureIntegrityOfDatabaseAtPath(databaseEnv(), path);
  Error error;
  s.store = HistoryStore::open(databaseEnv(), path, *model, &error);
  if (!s.store) {
    presentError("Failed to open the history database", error.message);
    return nullptr;
  }
  s.presented.clear();
  return s.store.get();
}

HistoryContext* KRHelperUtil::managedObjectContext() {
  Stack& s = stack();
  if (s.context) return s.context.get();
  HistoryStore* store = persistentStoreCoordinator();
  if (!store) {
    // The helper's domain, code 9999.
    presentError("Failed to initialize the store", "There was an error building up the data file.");
    return nullptr;
  }
  s.context = std::make_unique<HistoryContext>(*store);
  return s.context.get();
}

void KRHelperUtil::closeDatabase(RunLoop& mainLoop) {
  if (!mainLoop.isLoopThread()) {
    mainLoop.postAndWait([&mainLoop] { closeDatabase(mainLoop); });
    return;
  }
  Stack& s = stack();
  if (!s.context) return;
  if (s.context->hasChanges()) s.context->save(nullptr);
  s.context.reset();
}

void KRHelperUtil::resetForTesting() {
  Stack& s = stack();
  s.context.reset();
  s.store.reset();
  s.presented.clear();
  s.notices = nullptr;
}

}  // namespace zephlore
