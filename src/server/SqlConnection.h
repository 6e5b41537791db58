#pragma once
// The little the report store asks of a database: statements run with
// bound values, rows read by column. SQLite and PostgreSQL each answer it
// (SqliteStore.cc, PostgresStore.cc), so the store's SQL is written once.
// Values are written $1, $2, ... in the SQL for both.
//
// Threading: one thread at a time; the store serialises its calls.

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "server/ReportStore.h"

namespace quarvel::server {

using SqlValue = std::variant<std::monostate, std::int64_t, std::string_view>;

class SqlRow {
 public:
  virtual ~SqlRow() = default;
  virtual bool isNull(int column) const = 0;
  virtual std::int64_t integer(int column) const = 0;  // 0 for NULL
  virtual std::string text(int column) const = 0;      // "" for NULL
};

class SqlConnection {
 public:
  virtual ~SqlConnection() = default;

  // The column type of an automatically numbered primary key.
  virtual std::string_view identityColumn() const = 0;
  // Statements without values (the migrations, COMMIT); false (logged) on
  // failure.
  virtual bool execute(const std::string& sql) = 0;
  // Starts a transaction that no other writer can interleave with.
  virtual bool beginExclusive() = 0;
  // Runs `sql` as a prepared statement (prepared on first use and kept)
  // with `values` bound to $1, $2, ...; `onRow` sees each row. False
  // (logged) on failure.
  using RowFunction = std::function<void(const SqlRow&)>;
  virtual bool run(const std::string& sql, std::span<const SqlValue> values,
                   const RowFunction& onRow = {}) = 0;
  // The database's own consistency check.
  virtual bool intact() = 0;
};

// A store over `connection`, migrated; null when the migration failed or
// the schema is newer than this build. `name` is for log lines.
std::unique_ptr<ReportStore> makeSqlStore(std::unique_ptr<SqlConnection> connection,
                                          std::string name);

}  // namespace quarvel::server
