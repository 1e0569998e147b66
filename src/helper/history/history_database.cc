#include "helper/history/history_database.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "base/log.h"
#include "base/run_loop.h"
#include "helper/notices/notice_bridge.h"

namespace zephlore {

std::string HistoryDatabase::pathInFolder(const std::string& dataFolder) {
  return dataFolder.empty() ? std::string() : dataFolder + "/" + kDatabaseFileName;
}

HistoryDatabase::HistoryDatabase(Env& env, const std::string& dataFolder, KRGrowlBridge* notices)
    : env_(env), path_(pathInFolder(dataFolder)), notices_(notices) {}

void HistoryDatabase::presentError(const std::string& title, const std::string& text) {
  if (!presented_.insert(title + "\n" + text).second) return;
  KRLog("*** %s: %s", title.c_str(), text.c_str());
  if (notices_) notices_->showCriticalNotice(title, text);
}

const HistoryModel* HistoryDatabase::managedObjectModel() {
  if (!model_) model_ = HistoryModel::load(env_);
  return model_ ? &*model_ : nullptr;
}

bool HistoryDatabase::ensureIntegrityOfDatabaseAtPath(const std::string& path) {
  struct stat st;
  if (env_.lstat(path, &st) != 0) return true;

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
  if (env_.unlink(path) != 0) {
    KRLog("*** Cannot delete the damaged history database %s: %s", path.c_str(), strerror(errno));
  }
  // Journals of the damaged file must not be replayed into the new one.
  env_.unlink(path + "-wal");
  env_.unlink(path + "-shm");
  return false;
}

HistoryStore* HistoryDatabase::persistentStoreCoordinator() {
  if (store_) return store_.get();
  const HistoryModel* model = managedObjectModel();
  if (!model) {
    KRLog("*** Managed object model is nil");
    KRLog("KRHelperUtil:persistentStoreCoordinator No model to generate a store from");
    return nullptr;
  }
  if (path_.empty()) {
    presentError("Failed to open the history database", "There is no data folder to keep it in.");
    return nullptr;
  }
  // Checked before SQLite opens it, which would wait forever on a FIFO.
  std::string refusal;
  if (!HistoryStore::databaseFilesUsable(env_, path_, &refusal)) {
    presentError("Failed to open the history database", refusal);
    return nullptr;
  }
  ensureIntegrityOfDatabaseAtPath(path_);
  Error error;
  store_ = HistoryStore::open(env_, path_, *model, &error);
  if (!store_) {
    presentError("Failed to open the history database", error.message);
    return nullptr;
  }
  presented_.clear();
  return store_.get();
}

HistoryContext* HistoryDatabase::managedObjectContext() {
  if (context_) return context_.get();
  HistoryStore* store = persistentStoreCoordinator();
  if (!store) {
    // The helper's domain, code 9999.
    presentError("Failed to initialize the store", "There was an error building up the data file.");
    return nullptr;
  }
  context_ = std::make_unique<HistoryContext>(*store);
  return context_.get();
}

void HistoryDatabase::closeDatabase(RunLoop& mainLoop) {
  if (!mainLoop.isLoopThread()) {
    mainLoop.postAndWait([this, &mainLoop] { closeDatabase(mainLoop); });
    return;
  }
  if (!context_) return;
  if (context_->hasChanges()) context_->save(nullptr);
  context_.reset();
}

}  // namespace zephlore
