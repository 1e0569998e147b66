#include "helper/history/sqlite_handle.h"

namespace zephlore {
namespace {
constexpr int kBusyTimeoutMs = 5000;
}  // namespace

SqliteConnection::~SqliteConnection() {
  if (db_) sqlite3_close_v2(db_);
}

SqliteConnection& SqliteConnection::operator=(SqliteConnection&& other) noexcept {
  if (this != &other) {
    if (db_) sqlite3_close_v2(db_);
    db_ = other.db_;
    other.db_ = nullptr;
  }
  return *this;
}

bool SqliteConnection::open(const std::string& path, int flags, std::string* problem) {
  sqlite3* db = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  if (rc != SQLITE_OK) {
    if (problem) *problem = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close_v2(db);
    return false;
  }
  sqlite3_extended_result_codes(db, 1);
  // Another process may hold the file a moment (a helper starting up
  // recovers the write-ahead log under an exclusive lock); wait for it
  // instead of failing a read that would succeed an instant later.
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  if (db_) sqlite3_close_v2(db_);
  db_ = db;
  return true;
}

bool SqliteConnection::exec(const std::string& sql, std::string* problem) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) == SQLITE_OK) return true;
  if (problem) *problem = message ? message : lastError();
  sqlite3_free(message);
  return false;
}

std::optional<int64_t> SqliteConnection::queryInt(const std::string& sql, std::string* problem) {
  SqliteStatement statement(*this, sql);
  if (statement.ok() && statement.step()) return statement.columnInt(0);
  if (problem) *problem = statement.problem().empty() ? "no row" : statement.problem();
  return std::nullopt;
}

std::string SqliteConnection::lastError() const {
  return db_ ? sqlite3_errmsg(db_) : "not open";
}

SqliteStatement::SqliteStatement(const SqliteConnection& db, const std::string& sql)
    : db_(db.get()) {
  if (!db_) {
    problem_ = "not open";
    return;
  }
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt_, nullptr) != SQLITE_OK) {
    problem_ = sqlite3_errmsg(db_);
    stmt_ = nullptr;
  }
}

SqliteStatement::~SqliteStatement() { sqlite3_finalize(stmt_); }

void SqliteStatement::bind(int index, int64_t value) { sqlite3_bind_int64(stmt_, index, value); }
void SqliteStatement::bind(int index, double value) { sqlite3_bind_double(stmt_, index, value); }
void SqliteStatement::bind(int index, const std::string& text) {
  sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}
void SqliteStatement::bindBlob(int index, const std::vector<uint8_t>& bytes) {
  // A zero-length blob stays a blob, not NULL.
  sqlite3_bind_blob(stmt_, index, bytes.empty() ? "" : static_cast<const void*>(bytes.data()),
                    static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
}
void SqliteStatement::bindNull(int index) { sqlite3_bind_null(stmt_, index); }

bool SqliteStatement::step() {
  if (!stmt_) return false;
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  done_ = rc == SQLITE_DONE;
  if (!done_) problem_ = sqlite3_errmsg(db_);
  return false;
}

void SqliteStatement::reset() {
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
  done_ = false;
  problem_.clear();
}

bool SqliteStatement::isNull(int column) const {
  return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}
int64_t SqliteStatement::columnInt(int column) const { return sqlite3_column_int64(stmt_, column); }
double SqliteStatement::columnDouble(int column) const {
  return sqlite3_column_double(stmt_, column);
}
std::string SqliteStatement::columnText(int column) const {
  const unsigned char* text = sqlite3_column_text(stmt_, column);
  return text ? std::string(reinterpret_cast<const char*>(text),
                            static_cast<size_t>(sqlite3_column_bytes(stmt_, column)))
              : std::string();
}
std::vector<uint8_t> SqliteStatement::columnBlob(int column) const {
  const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(stmt_, column));
  return bytes ? std::vector<uint8_t>(bytes, bytes + sqlite3_column_bytes(stmt_, column))
               : std::vector<uint8_t>();
}

}  // namespace zephlore
