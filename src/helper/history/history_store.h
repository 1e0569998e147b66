// The history's object store over SQLite: the model (the schema resource and
// the named fetch templates), the store on "history.db" (one connection, WAL,
// so that `zephlore folders` reads while the helper writes) and a context
// that keeps the records in memory with their pending changes and writes
// them in one transaction per save.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/error.h"
#include "helper/history/sqlite_handle.h"
#include "platform/env.h"

namespace zephlore {

// One "History" record: a folder the user chose to watch at some time.
struct HistoryRecord {
  int64_t id = 0;  // the row; 0 until first saved
  std::string folder;
  std::vector<uint8_t> folderAlias;
  bool enabled = true;
  uint64_t savings = 0;
  std::optional<WallTime> lastSweep;
  uint32_t status = 0;  // sweep progress in percent
};

// The total saved at a moment (a row of "Samples").
struct HistorySample {
  WallTime time;
  uint64_t totalSaved = 0;
};

using FetchVariables = std::map<std::string, std::string>;

class HistoryModel {
 public:
  static constexpr int kVersion = 2;
  // Samples closer together than this share one row.
  static constexpr double kSampleSpacingSeconds = 60.0;
  // Older samples are thinned to the last one of each day.
  static constexpr double kSampleDetailSeconds = 30 * 86400.0;
  static constexpr const char* kResourceName = "HistoryModel.sql";

  // The model from its resource file; none when the file is missing.
  static std::optional<HistoryModel> load(Env& env);

  const std::string& schema() const { return schema_; }
  // Whether `record` satisfies the named template; none for an unknown name.
  static std::optional<bool> matchesTemplate(const std::string& name, const HistoryRecord& record,
                                             const FetchVariables& variables);

 private:
  std::string schema_;
};

// One SQLite store. Opening creates the schema in a new (or zero-byte) file.
class HistoryStore {
 public:
  // False, with *problem naming it, when the database or a journal beside
  // it is something other than a regular file (a FIFO would hang SQLite's
  // first read): somebody else's, left alone.
  static bool databaseFilesUsable(Env& env, const std::string& path, std::string* problem);
  // None and *error when the file cannot be opened or made into a store.
  static std::unique_ptr<HistoryStore> open(Env& env, const std::string& path, const HistoryModel& model,
                                            Error* error);

  // Reads the records of the file at `path` without writing anything (the
  // command's view while the helper may be writing). A missing file has none.
  static bool readRecords(Env& env, const std::string& path, std::vector<HistoryRecord>* records,
                          Error* error);

  // The samples of the file at `path`, oldest first, read-only. A missing
  // file, or one of version 1, has none.
  static bool readSamples(Env& env, const std::string& path, std::vector<HistorySample>* samples, Error* error);

  const std::string& path() const { return path_; }
  bool loadAll(std::vector<HistoryRecord>* records, Error* error);
  // Writes `changed` (inserting those without an id) in one transaction;
  // sets the new ids. With `sampleAt`, a sample of the new total is written
  // in the same transaction when the total changed. Nothing is written on
  // failure.
  bool write(const std::vector<HistoryRecord*>& changed, Error* error,
             std::optional<WallTime> sampleAt = std::nullopt);
  // Transactions committed so far (saves are counted, not guessed).
  uint64_t transactionCount() const { return transactions_; }

 private:
  explicit HistoryStore(Env& env) : env_(env) {}
  // A file deleted under the running helper (by hand, by a clean-up tool)
  // would take the history with it at exit: what the open connection holds
  // is written anew at the path, and the store goes on there.
  void keepFileAtPath();
  // Inside write()'s transaction.
  bool writeSample(WallTime at, std::string* problem);

  Env& env_;
  std::string path_;
  SqliteConnection db_;
  uint64_t transactions_ = 0;
  bool rewrite_problem_logged_ = false;
};

// A scratch pad of records over a store: reads once, changes in memory,
// writes on save().
class HistoryContext {
 public:
  // A record the context owns; its address stays valid for the context's life.
  class Object {
   public:
    const HistoryRecord& record() const { return record_; }
    void setFolder(const std::string& folder);
    void setFolderAlias(const std::vector<uint8_t>& bytes);
    void setEnabled(bool enabled);
    void setSavings(uint64_t savings);
    void setLastSweep(std::optional<WallTime> when);
    void setStatus(uint32_t status);

   private:
    friend class HistoryContext;
    HistoryRecord record_;
    bool changed_ = false;
  };

  // Loads every record; a store that cannot be read gives an empty context
  // (logged).
  explicit HistoryContext(HistoryStore& store);

  bool hasChanges() const;
  // Nothing is edited outside the context; kept for the save order callers use.
  bool commitEditing() { return true; }
  // Writes every change in one transaction. On failure the changes stay
  // pending for the next save. With `sampleAt` (the helper's clock), the new
  // total is sampled when it changed.
  bool save(Error* error, std::optional<WallTime> sampleAt = std::nullopt);

  Object* insertNewObject();
  // Every record, in insertion order.
  std::vector<Object*> allObjects();
  // The records of a named fetch template. None and *error for an unknown one.
  std::optional<std::vector<Object*>> fetch(const std::string& templateName,
                                            const FetchVariables& variables, Error* error);

 private:
  HistoryStore& store_;
  std::vector<std::unique_ptr<Object>> objects_;
};

}  // namespace zephlore
