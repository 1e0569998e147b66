// A thin RAII layer over SQLite's C API: a connection and a prepared
// statement that finalize themselves, with the few binds and reads the
// history needs.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zephlore {

class SqliteStatement;

class SqliteConnection {
 public:
  SqliteConnection() = default;
  ~SqliteConnection();
  SqliteConnection(SqliteConnection&& other) noexcept : db_(other.db_) { other.db_ = nullptr; }
  SqliteConnection& operator=(SqliteConnection&& other) noexcept;
  SqliteConnection(const SqliteConnection&) = delete;
  SqliteConnection& operator=(const SqliteConnection&) = delete;

  // Opens `path` with `flags` (SQLITE_OPEN_*). False and *problem on failure.
  bool open(const std::string& path, int flags, std::string* problem);
  bool isOpen() const { return db_ != nullptr; }
  sqlite3* get() const { return db_; }

  // Runs statements without results. False and *problem on failure.
  bool exec(const std::string& sql, std::string* problem);
  // The one integer a pragma or query returns; none on failure.
  std::optional<int64_t> queryInt(const std::string& sql, std::string* problem);

  std::string lastError() const;

 private:
  sqlite3* db_ = nullptr;
};

class SqliteStatement {
 public:
  SqliteStatement(const SqliteConnection& db, const std::string& sql);
  ~SqliteStatement();
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  bool ok() const { return stmt_ != nullptr; }
  const std::string& problem() const { return problem_; }

  // Binds are 1-based, as in SQLite.
  void bind(int index, int64_t value);
  void bind(int index, double value);
  void bind(int index, const std::string& text);
  void bindBlob(int index, const std::vector<uint8_t>& bytes);
  void bindNull(int index);

  // True while a row is there; on the end or an error false (error in
  // problem(), done() tells which).
  bool step();
  bool done() const { return done_; }
  void reset();

  bool isNull(int column) const;
  int64_t columnInt(int column) const;
  double columnDouble(int column) const;
  std::string columnText(int column) const;
  std::vector<uint8_t> columnBlob(int column) const;

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* stmt_ = nullptr;
  bool done_ = false;
  std::string problem_;
};

}  // namespace zephlore
