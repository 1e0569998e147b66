#include "helper/history/history_store.h"

#include <sys/stat.h>

#include <cerrno>


#include "base/log.h"
#include "helper/settings/resources.h"
#include "platform/config_file.h"

namespace zephlore {
namespace {

constexpr const char* kStoreDomain = "com.quorvane.zephlore.history";

double toUnixSeconds(WallTime when) {
  return std::chrono::duration<double>(when.time_since_epoch()).count();
}

WallTime fromUnixSeconds(double value) {
  return WallTime(std::chrono::duration_cast<Duration>(std::chrono::duration<double>(value)));
}

bool storeFail(Error* error, const std::string& what) {
  return fail(error, kStoreDomain, 1, what);
}

}  // namespace

// --- Model -----------------------------------------------------------------

std::optional<HistoryModel> HistoryModel::load(Env& env) {
  std::string path = resourcePath(kResourceName);
  if (path.empty()) return std::nullopt;
  ConfigFileText text = readConfigFile(env, path, 1 << 20);
  if (text.status != ConfigFileStatus::kOk) {
    KRLog("*** Cannot read the history model %s: %s", path.c_str(), text.problem.c_str());
    return std::nullopt;
  }
  HistoryModel model;
  model.schema_ = std::move(text.text);
  if (model.schema_.empty()) return std::nullopt;
  return model;
}

std::optional<bool> HistoryModel::matchesTemplate(const std::string& name,
                                                  const HistoryRecord& record,
                                                  const FetchVariables& variables) {
  auto path = [&]() -> const std::string* {
    auto it = variables.find("HISTORY_PATH");
    return it == variables.end() ? nullptr : &it->second;
  };
  if (name == "historyForEnabledFolders") return record.enabled;
  if (name == "historyForFolder") return path() && record.folder == *path();
  if (name == "historyForEnabledFolder") {
    return path() && record.folder == *path() && record.enabled;
  }
  return std::nullopt;
}

// --- Store -----------------------------------------------------------------

bool HistoryStore::databaseFilesUsable(Env& env, const std::string& path, std::string* problem) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    const std::string file = path + suffix;
    std::string refusal;
    if (!configWriteTarget(env, file, &refusal)) {
      if (problem) *problem = file + " is " + refusal + "; left alone";
      return false;
    }
  }
  return true;
}

std::unique_ptr<HistoryStore> HistoryStore::open(Env& env, const std::string& path, const HistoryModel& model,
                                                 Error* error) {
  std::unique_ptr<HistoryStore> store(new HistoryStore(env));
  store->path_ = path;
  std::string problem;
  if (!databaseFilesUsable(env, path, &problem)) {
    storeFail(error, problem);
    return nullptr;
  }
  if (!store->db_.open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, &problem)) {
    storeFail(error, "Cannot open " + path + ": " + problem);
    return nullptr;
  }
  {
    SqliteStatement wal(store->db_, "PRAGMA journal_mode=WAL;");
    if (!wal.ok() || !wal.step() || wal.columnText(0) != "wal") {
      storeFail(error, "Cannot open " + path + " for writing: " +
                           (wal.problem().empty() ? store->db_.lastError() : wal.problem()));
      return nullptr;
    }
  }
  std::optional<int64_t> version = store->db_.queryInt("PRAGMA user_version;", &problem);
  if (!version) {
    storeFail(error, "Cannot read " + path + ": " + problem);
    return nullptr;
  }
  if (*version > HistoryModel::kVersion) {
    storeFail(error, path + " was made by a newer version of Zephlore (schema " +
                         std::to_string(*version) + ")");
    return nullptr;
  }
  if (*version < HistoryModel::kVersion) {
    if (!store->db_.exec("BEGIN IMMEDIATE;", &problem) ||
        !store->db_.exec(model.schema(), &problem) || !store->db_.exec("COMMIT;", &problem)) {
      store->db_.exec("ROLLBACK;", nullptr);
      storeFail(error, "Cannot create the history in " + path + ": " + problem);
      return nullptr;
    }
  }
  return store;
}

bool HistoryStore::readRecords(Env& env, const std::string& path, std::vector<HistoryRecord>* records,
                               Error* error) {
  records->clear();
  struct stat st;
  if (env.stat(path, &st) != 0) return true;
  HistoryStore store(env);
  store.path_ = path;
  std::string problem;
  if (!databaseFilesUsable(env, path, &problem)) return storeFail(error, problem);
  if (!store.db_.open(path, SQLITE_OPEN_READONLY, &problem)) {
    return storeFail(error, "Cannot open " + path + ": " + problem);
  }
  // A file the helper has not made a history yet (zero bytes) has none.
  std::optional<int64_t> version = store.db_.queryInt("PRAGMA user_version;", &problem);
  if (!version) return storeFail(error, "Cannot read " + path + ": " + problem);
  if (*version == 0) return true;
  return store.loadAll(records, error);
}

bool HistoryStore::readSamples(Env& env, const std::string& path, std::vector<HistorySample>* samples,
                               Error* error) {
  samples->clear();
  struct stat st;
  if (env.stat(path, &st) != 0) return true;
  std::string problem;
  if (!databaseFilesUsable(env, path, &problem)) return storeFail(error, problem);
  SqliteConnection db;
  if (!db.open(path, SQLITE_OPEN_READONLY, &problem)) return storeFail(error, "Cannot open " + path + ": " + problem);
  std::optional<int64_t> version = db.queryInt("PRAGMA user_version;", &problem);
  if (!version) return storeFail(error, "Cannot read " + path + ": " + problem);
  // Before version 2 there were no samples; the helper adds the table when it opens the file.
  if (*version < 2) return true;
  SqliteStatement select(db, "SELECT time, totalSaved FROM Samples ORDER BY time;");
  if (!select.ok()) return storeFail(error, "Cannot read " + path + ": " + select.problem());
  while (select.step()) {
    int64_t total = select.columnInt(1);
    samples->push_back({fromUnixSeconds(select.columnDouble(0)), static_cast<uint64_t>(total < 0 ? 0 : total)});
  }
  if (!select.done()) return storeFail(error, "Cannot read " + path + ": " + select.problem());
  return true;
}

bool HistoryStore::writeSample(WallTime at, std::string* problem) {
  std::optional<int64_t> total = db_.queryInt("SELECT COALESCE(SUM(savings), 0) FROM History;", problem);
  if (!total) return false;
  SqliteStatement last(db_, "SELECT time, totalSaved FROM Samples ORDER BY time DESC LIMIT 1;");
  if (!last.ok()) {
    *problem = last.problem();
    return false;
  }
  std::optional<double> lastTime;
  if (last.step()) {
    if (last.columnInt(1) == *total) return true;
    lastTime = last.columnDouble(0);
  } else if (!last.done()) {
    *problem = last.problem();
    return false;
  } else if (*total == 0) {
    return true;  // nothing saved yet, nothing to chart
  }
  const double now = toUnixSeconds(at);
  // One row a minute: within it (or when the clock went back) the last row
  // takes the new total, so the table grows with minutes, not with saves.
  const bool sameRow = lastTime && now - *lastTime < HistoryModel::kSampleSpacingSeconds;
  SqliteStatement statement(db_, sameRow ? "UPDATE Samples SET totalSaved = ?2 WHERE time = ?1;"
                                         : "INSERT OR REPLACE INTO Samples (time, totalSaved) VALUES (?1, ?2);");
  statement.bind(1, sameRow ? *lastTime : now);
  statement.bind(2, *total);
  statement.step();
  if (!statement.done()) {
    *problem = statement.problem();
    return false;
  }
  if (sameRow) return true;
  // A chart of months needs no minutes: past the detail kept, a day keeps
  // its last sample, so the table stays small for good.
  SqliteStatement thin(db_,
                       "DELETE FROM Samples WHERE time < ?1 AND time NOT IN "
                       "(SELECT MAX(time) FROM Samples WHERE time < ?1 GROUP BY CAST(time / 86400 AS INTEGER));");
  thin.bind(1, now - HistoryModel::kSampleDetailSeconds);
  thin.step();
  if (!thin.done()) {
    *problem = thin.problem();
    return false;
  }
  return true;
}

bool HistoryStore::loadAll(std::vector<HistoryRecord>* records, Error* error) {
  SqliteStatement select(
      db_, "SELECT id, folder, folderAlias, enabled, savings, lastSweep, status FROM History "
           "ORDER BY id;");
  if (!select.ok()) return storeFail(error, "Cannot read " + path_ + ": " + select.problem());
  records->clear();
  while (select.step()) {
    HistoryRecord record;
    record.id = select.columnInt(0);
    record.folder = select.columnText(1);
    record.folderAlias = select.columnBlob(2);
    record.enabled = select.columnInt(3) != 0;
    record.savings = static_cast<uint64_t>(select.columnInt(4));
    if (!select.isNull(5)) record.lastSweep = fromUnixSeconds(select.columnDouble(5));
    int64_t status = select.columnInt(6);
    record.status = static_cast<uint32_t>(status < 0 ? 0 : status);
    records->push_back(std::move(record));
  }
  if (!select.done()) return storeFail(error, "Cannot read " + path_ + ": " + select.problem());
  return true;
}

bool HistoryStore::write(const std::vector<HistoryRecord*>& changed, Error* error,
                         std::optional<WallTime> sampleAt) {
  if (changed.empty()) return true;
  std::string problem;
  if (!db_.exec("BEGIN IMMEDIATE;", &problem)) {
    return storeFail(error, "Cannot write " + path_ + ": " + problem);
  }
  SqliteStatement insert(db_,
                         "INSERT INTO History (folder, folderAlias, enabled, savings, lastSweep, "
                         "status) VALUES (?1, ?2, ?3, ?4, ?5, ?6);");
  SqliteStatement update(db_,
                         "UPDATE History SET folder = ?1, folderAlias = ?2, enabled = ?3, "
                         "savings = ?4, lastSweep = ?5, status = ?6 WHERE id = ?7;");
  std::vector<std::pair<HistoryRecord*, int64_t>> inserted;
  bool ok = insert.ok() && update.ok();
  if (!ok) problem = insert.ok() ? update.problem() : insert.problem();
  for (HistoryRecord* record : changed) {
    if (!ok) break;
    SqliteStatement& statement = record->id == 0 ? insert : update;
    statement.reset();
    statement.bind(1, record->folder);
    statement.bindBlob(2, record->folderAlias);
    statement.bind(3, static_cast<int64_t>(record->enabled ? 1 : 0));
    statement.bind(4, static_cast<int64_t>(record->savings));
    if (record->lastSweep) {
      statement.bind(5, toUnixSeconds(*record->lastSweep));
    } else {
      statement.bindNull(5);
    }
    statement.bind(6, static_cast<int64_t>(record->status));
    if (record->id != 0) statement.bind(7, record->id);
    statement.step();
    if (!statement.done()) {
      ok = false;
      problem = statement.problem();
    } else if (record->id == 0) {
      inserted.emplace_back(record, sqlite3_last_insert_rowid(db_.get()));
    }
  }
  if (ok && sampleAt) ok = writeSample(*sampleAt, &problem);
  if (!ok || !db_.exec("COMMIT;", &problem)) {
    db_.exec("ROLLBACK;", nullptr);
    return storeFail(error, "Cannot write " + path_ + ": " + problem);
  }
  ++transactions_;
  for (auto& [record, id] : inserted) record->id = id;
  keepFileAtPath();
  return true;
}

namespace {

bool copyDatabase(const SqliteConnection& from, const SqliteConnection& to) {
  sqlite3_backup* backup = sqlite3_backup_init(to.get(), "main", from.get(), "main");
  const bool copied = backup && sqlite3_backup_step(backup, -1) == SQLITE_DONE;
  return sqlite3_backup_finish(backup) == SQLITE_OK && copied;
}

}  // namespace

void HistoryStore::keepFileAtPath() {
  struct stat st;
  if (env_.stat(path_, &st) == 0 || errno != ENOENT) return;
  // The old connection must be closed before a new file takes the name: both
  // would use the one "-wal" file beside it. Memory holds the data meanwhile.
  std::string problem;
  SqliteConnection held;
  if (!held.open(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, &problem) || !copyDatabase(db_, held)) {
    return;  // the open connection stays; the next save tries again
  }
  db_ = std::move(held);
  SqliteConnection fresh;
  if (!databaseFilesUsable(env_, path_, &problem) ||
      !fresh.open(path_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, &problem) || !copyDatabase(db_, fresh) ||
      !fresh.exec("PRAGMA journal_mode=WAL;", &problem)) {
    if (problem.empty()) problem = fresh.lastError();
    if (!rewrite_problem_logged_) {
      KRLog("*** The history database %s was deleted and cannot be written anew (%s); the history is kept in "
            "memory until it can",
            path_.c_str(), problem.c_str());
      rewrite_problem_logged_ = true;
    }
    return;
  }
  db_ = std::move(fresh);
  rewrite_problem_logged_ = false;
  KRLog("The history database %s was deleted; written anew from what the helper holds", path_.c_str());
}

// --- Context ---------------------------------------------------------------

void HistoryContext::Object::setFolder(const std::string& folder) {
  record_.folder = folder;
  changed_ = true;
}
void HistoryContext::Object::setFolderAlias(const std::vector<uint8_t>& bytes) {
  record_.folderAlias = bytes;
  changed_ = true;
}
void HistoryContext::Object::setEnabled(bool enabled) {
  record_.enabled = enabled;
  changed_ = true;
}
void HistoryContext::Object::setSavings(uint64_t savings) {
  record_.savings = savings;
  changed_ = true;
}
void HistoryContext::Object::setLastSweep(std::optional<WallTime> when) {
  record_.lastSweep = when;
  changed_ = true;
}
void HistoryContext::Object::setStatus(uint32_t status) {
  record_.status = status;
  changed_ = true;
}

HistoryContext::HistoryContext(HistoryStore& store) : store_(store) {
  std::vector<HistoryRecord> records;
  Error error;
  if (!store_.loadAll(&records, &error)) {
    KRLog("*** Cannot read the history: %s", error.message.c_str());
  }
  for (HistoryRecord& record : records) {
    objects_.push_back(std::make_unique<Object>());
    objects_.back()->record_ = std::move(record);
  }
}

bool HistoryContext::hasChanges() const {
  for (const auto& object : objects_) {
    if (object->changed_) return true;
  }
  return false;
}

bool HistoryContext::save(Error* error, std::optional<WallTime> sampleAt) {
  std::vector<HistoryRecord*> changed;
  for (auto& object : objects_) {
    if (object->changed_) changed.push_back(&object->record_);
  }
  if (!store_.write(changed, error, sampleAt)) return false;
  for (auto& object : objects_) object->changed_ = false;
  return true;
}

HistoryContext::Object* HistoryContext::insertNewObject() {
  objects_.push_back(std::make_unique<Object>());
  objects_.back()->changed_ = true;
  return objects_.back().get();
}

std::vector<HistoryContext::Object*> HistoryContext::allObjects() {
  std::vector<Object*> all;
  for (auto& object : objects_) all.push_back(object.get());
  return all;
}

std::optional<std::vector<HistoryContext::Object*>> HistoryContext::fetch(
    const std::string& templateName, const FetchVariables& variables, Error* error) {
  std::vector<Object*> found;
  for (auto& object : objects_) {
    std::optional<bool> match =
        HistoryModel::matchesTemplate(templateName, object->record_, variables);
    if (!match) {
      fail(error, kStoreDomain, 2, "No fetch request template named " + templateName);
      return std::nullopt;
    }
    if (*match) found.push_back(object.get());
  }
  if (objects_.empty() && !HistoryModel::matchesTemplate(templateName, HistoryRecord{}, variables)) {
    fail(error, kStoreDomain, 2, "No fetch request template named " + templateName);
    return std::nullopt;
  }
  return found;
}

}  // namespace zephlore
