// The report store on SQLite: one file, write-ahead log, one connection.

#include <sqlite3.h>

#include <unordered_map>

#include "common/Log.h"
#include "server/ListServer.h"
#include "server/SqlConnection.h"

namespace quarvel::server {
namespace {

class SqliteRow final : public SqlRow {
 public:
  explicit SqliteRow(sqlite3_stmt* statement) : statement_(statement) {}
  bool isNull(int column) const override {
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
  }
  std::int64_t integer(int column) const override {
    return sqlite3_column_int64(statement_, column);
  }
  std::string text(int column) const override {
    const auto* bytes = sqlite3_column_text(statement_, column);
    if (!bytes) return {};
    return {reinterpret_cast<const char*>(bytes),
            static_cast<size_t>(sqlite3_column_bytes(statement_, column))};
  }

 private:
  sqlite3_stmt* statement_;
};

class SqliteConnection final : public SqlConnection {
 public:
  SqliteConnection(sqlite3* db, std::string path) : db_(db), path_(std::move(path)) {}
  ~SqliteConnection() override {
    for (auto& [sql, statement] : statements_) sqlite3_finalize(statement);
    sqlite3_close(db_);
  }
  SqliteConnection(const SqliteConnection&) = delete;
  SqliteConnection& operator=(const SqliteConnection&) = delete;

  std::string_view identityColumn() const override { return "INTEGER PRIMARY KEY"; }

  bool execute(const std::string& sql) override {
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK) return true;
    fail("execute");
    return false;
  }

  bool beginExclusive() override { return execute("BEGIN IMMEDIATE"); }

  bool run(const std::string& sql, std::span<const SqlValue> values,
           const RowFunction& onRow) override {
    sqlite3_stmt* statement = prepared(sql);
    if (!statement) return false;
    for (size_t i = 0; i < values.size(); ++i) {
      const int index = static_cast<int>(i) + 1;
      int code = SQLITE_OK;
      if (const auto* number = std::get_if<std::int64_t>(&values[i]))
        code = sqlite3_bind_int64(statement, index, *number);
      else if (const auto* text = std::get_if<std::string_view>(&values[i]))
        code = sqlite3_bind_text64(statement, index, text->data(), text->size(), SQLITE_STATIC,
                                   SQLITE_UTF8);
      else
        code = sqlite3_bind_null(statement, index);
      if (code != SQLITE_OK) {
        fail("bind");
        sqlite3_reset(statement);
        return false;
      }
    }
    int code;
    const SqliteRow row(statement);
    while ((code = sqlite3_step(statement)) == SQLITE_ROW) {
      if (onRow) onRow(row);
    }
    if (code != SQLITE_DONE) fail("step");
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    return code == SQLITE_DONE;
  }

  bool intact() override {
    std::string answer;
    const bool ran = run("PRAGMA integrity_check", {}, [&](const SqlRow& row) {
      if (answer.empty()) answer = row.text(0);
    });
    return ran && answer == "ok";
  }

 private:
  sqlite3_stmt* prepared(const std::string& sql) {
    auto it = statements_.find(sql);
    if (it != statements_.end()) return it->second;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(db_, sql.c_str(), static_cast<int>(sql.size()),
                           SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
      fail("prepare");
      return nullptr;
    }
    statements_.emplace(sql, statement);
    return statement;
  }

  void fail(const char* what) {
    logf("collect: %s: SQLite %s failed: %s", escapeForLog(path_).c_str(), what,
         sqlite3_errmsg(db_));
  }

  sqlite3* db_;
  std::string path_;
  std::unordered_map<std::string, sqlite3_stmt*> statements_;
};

}  // namespace

std::unique_ptr<ReportStore> openSqliteStore(const std::string& path) {
  sqlite3* db = nullptr;
  const int code = sqlite3_open_v2(
      path.c_str(), &db,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW,
      nullptr);
  if (code != SQLITE_OK) {
    logf("collect: cannot open %s: %s", escapeForLog(path).c_str(),
         db ? sqlite3_errmsg(db) : sqlite3_errstr(code));
    sqlite3_close(db);
    return nullptr;
  }
  auto connection = std::make_unique<SqliteConnection>(db, path);
  // WAL lets the overview read while a report is written; NORMAL sync is
  // durable across a crash of the process, and a power cut loses at most
  // the last transactions, never the file's consistency.
  if (!connection->execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; "
                           "PRAGMA foreign_keys=ON; PRAGMA busy_timeout=5000;"))
    return nullptr;
  return makeSqlStore(std::move(connection), path);
}

}  // namespace quarvel::server
