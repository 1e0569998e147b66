// HistoryDatabase: the helper's one history store, built lazily on first
// use: the model, the store on data folder + "history.db" (checked before it
// is opened; a file SQLite cannot parse is replaced by a new empty one after
// the user was told) and the context all history work goes through. The
// Helper owns the one of the process and hands it to its users.
//
// A background process shows no dialog: what would be an alert or a
// presented error becomes one "*** " log line and a critical desktop notice.
// Everything here runs on the main run loop's thread.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "base/error.h"
#include "base/run_loop.h"
#include "helper/history/history_store.h"
#include "platform/env.h"

namespace zephlore {

class KRGrowlBridge;

class HistoryDatabase {
 public:
  static constexpr const char* kDatabaseFileName = "history.db";
  static constexpr const char* kDatabaseErrorTitle = "Zephlore Database Error";
  static constexpr const char* kDatabaseCorruptMessage =
      "Zephlore database is corrupt, and recovery attempts did not succeed.\n\nA new empty "
      "database will be created now. Please note you will lose your configured folders and "
      "savings history.";

  // `dataFolder` + "history.db"; "" without a data folder.
  static std::string pathInFolder(const std::string& dataFolder);

  // The database lives in `dataFolder` ("": none, every request is refused
  // with a notice). SQLite opens it by its path, so `env` must reach the
  // same file as the real system does. Presented errors go to `notices`
  // besides the log (none: the log only). Nothing is opened yet.
  HistoryDatabase(Env& env, const std::string& dataFolder, KRGrowlBridge* notices);
  HistoryDatabase(const HistoryDatabase&) = delete;
  HistoryDatabase& operator=(const HistoryDatabase&) = delete;

  // The model, or none when its resource is missing.
  const HistoryModel* managedObjectModel();
  // True when the file at `path` may be opened as it is (also when there is
  // none). False when it was judged damaged, reported and deleted.
  bool ensureIntegrityOfDatabaseAtPath(const std::string& path);
  // The store, or none (reported; the next call tries again).
  HistoryStore* persistentStoreCoordinator();
  // The context, or none (reported; the next call tries again).
  HistoryContext* managedObjectContext();
  // Saves pending changes (a failure is ignored) and drops the context; the
  // store stays. Hops to `mainLoop` when called on another thread.
  void closeDatabase(RunLoop& mainLoop);

  const std::string& databasePath() const { return path_; }

  // What the platform would present to the user: a log line and a notice.
  void presentError(const std::string& title, const std::string& text);

 private:
  Env& env_;
  const std::string path_;
  KRGrowlBridge* const notices_;
  std::optional<HistoryModel> model_;
  std::unique_ptr<HistoryStore> store_;
  std::unique_ptr<HistoryContext> context_;
  // A failure that repeats on every retry is told once.
  std::set<std::string> presented_;
};

}  // namespace zephlore
