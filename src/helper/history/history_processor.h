// KRHistoryProcessor: the one front end to the history. Per folder the user
// ever chose to watch it keeps one record (path, alias, watched or not,
// bytes saved, last sweep, sweep progress); it answers which folders are
// watched and which watched folder holds a path, adds savings, keeps the
// running total and announces each whole decimal gigabyte, and repairs folder
// paths after renames. Every change is saved 0.2 s after the last one and
// then announced with "krimbleSavingsChanged".
//
// All database work runs on the main run loop's thread; the updates other
// threads call hop there and wait until done.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/notification_center.h"
#include "base/run_loop.h"
#include "helper/history/history_database.h"
#include "helper/history/history_store.h"
#include "helper/history/ht_alias.h"
#include "platform/env.h"

namespace zephlore {

using FolderList = std::vector<std::string>;

class KRHistoryProcessor {
 public:
  // Where the processor's effects leave it; the defaults are nothing
  // (until the helper wires them) and an active helper.
  struct Hooks {
    // Posts "krimbleSavingsChanged".
    std::function<void()> postSavingsChanged;
    // The watcher's new folder list (none: no folders).
    std::function<void(const std::optional<FolderList>&)> setWatchPaths;
    // Whether the settings say the helper is active (none: it is, the
    // setting's default).
    std::function<bool()> helperActive;
    // Told when the total crosses whole gigabytes: the increase and the new
    // total (none: nobody; the helper shows a notice).
    std::function<void(uint64_t increase, uint64_t total)> savingsIncreased;
  };

  static constexpr uint64_t kGigabyte = 1'000'000'000;
  static constexpr double kSaveDelaySeconds = 0.2;

  // Computes the total at once (a database access on the calling thread).
  // The watched folders are looked at through `env`; the history is kept in
  // `database`, which outlives the processor.
  KRHistoryProcessor(RunLoop& loop, Env& env, HistoryDatabase& database, Hooks hooks = {});
  ~KRHistoryProcessor();
  KRHistoryProcessor(const KRHistoryProcessor&) = delete;
  KRHistoryProcessor& operator=(const KRHistoryProcessor&) = delete;

  void setWatchPathsHandler(std::function<void(const std::optional<FolderList>&)> handler);

  // --- Queries (main thread) ---------------------------------------------

  // The watched folders, or none when there is none (never an empty list).
  std::optional<FolderList> folders();
  // The watched folder holding `path` (a plain string prefix), or "".
  std::string enabledFolderPathForPath(const std::string& path);
  // The enabled record of `folder`, or none.
  HistoryContext::Object* enabledFolderHistoryForFolderPath(const std::string& folder);
  std::optional<WallTime> folderSweepDate(const std::string& folder);
  uint32_t progressForFolder(const std::string& folder);
  // May disable watched folders that `path` contains, as a side effect.
  bool shouldAllowFolder(const std::string& path);
  std::vector<HistoryRecord> allFolderEntries();
  std::vector<std::vector<uint8_t>> folderAliases();
  // Any thread.
  uint64_t totalSavings() const { return total_savings_.load(); }
  // Called with the new total after every recomputation ("totalSavings").
  void addTotalSavingsObserver(std::function<void(uint64_t)> observer);

  // --- Updates: any thread; each hops to the main thread and waits -------

  void addSavingsForPath(uint64_t bytes, const std::string& path);
  void addSavingsForFolder(uint64_t bytes, const std::string& folder);
  // Puts what a sweep measured in place of the folder's running sum.
  void setSavingsForFolder(uint64_t bytes, const std::string& folder);
  void setProgressForPath(uint32_t percent, const std::string& path);
  void setProgressForFolder(uint32_t percent, const std::string& folder);
  void resetProgressForFolder(const std::string& folder);
  void justSweptFolder(const std::string& folder);

  void addSavingsForPath_main(uint64_t bytes, const std::string& path);
  void addSavingsForFolder_main(uint64_t bytes, const std::string& folder);
  void setSavingsForFolder_main(uint64_t bytes, const std::string& folder);
  void setProgressForPath_main(uint32_t percent, const std::string& path);
  void setProgressForFolder_main(uint32_t percent, const std::string& folder);
  void resetProgressForFolder_main(const std::string& folder);
  void justSweptFolder_main(const std::string& folder);

  // --- Other entry points (main thread) ----------------------------------

  // "com.quorvane.krimble.folders": "foldersToAdd" / "foldersToRemove".
  void foldersChanged(const Notification& notification);
  void foldersChanged(const FolderList& toAdd, const FolderList& toRemove);
  void resolveAliases();
  void watchedFolderAtPathWasRenamedTo(const std::string& oldPath, const std::string& newPath);
  void mountStatusDidChangeForPath(const std::string& path);
  void refreshTotalSavings();
  void saveContext();
  // Schedules saveContext() 0.2 s from now, replacing a pending one.
  void notifyHistoryChanged();
  // Saves now instead of later (the helper's quit).
  void saveNow();

 private:
  HistoryContext* context();
  void runOnMain(std::function<void()> fn);
  // The folders of payload `key`, refusing unusable paths with a log line.
  FolderList usableFolders(const Notification& notification, const char* key);

  RunLoop& loop_;
  Env& env_;
  HistoryDatabase& database_;
  // What resolving the folders' aliases remembers between look-ups.
  FolderAliases aliases_;
  Hooks hooks_;
  std::atomic<uint64_t> total_savings_{0};
  std::mutex observers_mutex_;
  std::vector<std::function<void(uint64_t)>> total_observers_;
};

}  // namespace zephlore
