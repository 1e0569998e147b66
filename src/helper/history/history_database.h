// KRHelperUtil: the helper's one history store, built lazily on first use:
// the model, the store on data folder + "history.db" (checked before it is
// opened; a file SQLite cannot parse is replaced by a new empty one after the
// user was told) and the context all history work goes through.
//
// A background process shows no dialog: what would be an alert or a
// presented error becomes one "*** " log line and a critical desktop notice.
// Everything here runs on the main run loop's thread.
#pragma once

#include <string>

#include "base/error.h"
#include "base/run_loop.h"
#include "helper/history/history_store.h"
#include "platform/env.h"

namespace zephlore {

class KRGrowlBridge;

class KRHelperUtil {
 public:
  KRHelperUtil() = delete;

  static constexpr const char* kDatabaseFileName = "history.db";
  static constexpr const char* kDatabaseErrorTitle = "Zephlore Database Error";
  static constexpr const char* kDatabaseCorruptMessage =
      "Zephlore database is corrupt, and recovery attempts did not succeed.\n\nA new empty "
      "database will be created now. Please note you will lose your configured folders and "
      "savings history.";

  // The model, or none when its resource is missing.
  static const HistoryModel* managedObjectModel();
  // True when the file at `path` may be opened as it is (also when there is
  // none). False when it was judged damaged, reported and deleted.
  static bool ensureIntegrityOfDatabaseAtPath(Env& env, const std::string& path);
  // The store, or none (reported; the next call tries again).
  static HistoryStore* persistentStoreCoordinator();
  // The context, or none (reported; the next call tries again).
  static HistoryContext* managedObjectContext();
  // Saves pending changes (a failure is ignored) and drops the context; the
  // store stays. Hops to `mainLoop` when called on another thread.
  static void closeDatabase(RunLoop& mainLoop);

  // Data folder + "history.db"; "" without a data folder.
  static std::string databasePath();

  // What the platform would present to the user: a log line and a notice.
  static void presentError(const std::string& title, const std::string& text);
  // Where presented errors are shown besides the log: the bridge of the
  // helper that owns the store (none: the log only).
  static void setNoticeBridge(KRGrowlBridge* notices);

  // Forgets the store and the bridge as well, as a restart of the helper
  // would (tests).
  static void resetForTesting();
};

}  // namespace zephlore
