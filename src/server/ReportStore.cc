#include "server/ReportStore.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <nlohmann/json.hpp>

#include "common/Log.h"
#include "server/SqlConnection.h"

namespace quarvel::server {
namespace {

// The schema, one step at a time. A step is never edited once released: a
// change is a new step. "{id}" stands for the dialect's numbered key.
struct Migration {
  int version;
  const char* sql;
};

constexpr Migration kMigrations[] = {
    {1, R"(
CREATE TABLE machines (
  id {id},
  host_name TEXT NOT NULL UNIQUE,
  network_identity TEXT NOT NULL,
  os_version TEXT NOT NULL,
  last_seen BIGINT NOT NULL,
  current_report BIGINT
);
CREATE TABLE reports (
  id {id},
  report_id TEXT NOT NULL UNIQUE,
  machine_id BIGINT NOT NULL REFERENCES machines (id),
  scanned_at TEXT NOT NULL,
  effective_at BIGINT NOT NULL,
  received_at BIGINT NOT NULL,
  lists TEXT NOT NULL
);
CREATE INDEX reports_by_machine ON reports (machine_id);
CREATE TABLE findings (
  report_id BIGINT NOT NULL REFERENCES reports (id),
  seq INTEGER NOT NULL,
  kind TEXT NOT NULL,
  list TEXT NOT NULL,
  record BIGINT NOT NULL,
  item_id TEXT NOT NULL,
  maker TEXT NOT NULL,
  product TEXT NOT NULL,
  version TEXT NOT NULL,
  price BIGINT,
  price_text TEXT NOT NULL,
  type TEXT NOT NULL,
  grp TEXT NOT NULL,
  places TEXT NOT NULL,
  PRIMARY KEY (report_id, seq)
);
)"},
    // Running totals, so that the overview reads one row per product and
    // per machine instead of adding up every finding of every current
    // report: a report's own count and price sum (fixed once stored), and
    // per maker and product the machines, findings and price of the
    // current reports, kept in step by insert(). Filled here from what an
    // existing store already holds.
    {2, R"(
ALTER TABLE reports ADD COLUMN finding_count BIGINT NOT NULL DEFAULT 0;
ALTER TABLE reports ADD COLUMN price_total BIGINT NOT NULL DEFAULT 0;
UPDATE reports SET
  finding_count = (SELECT COUNT(*) FROM findings f WHERE f.report_id = reports.id),
  price_total = (SELECT COALESCE(SUM(f.price), 0) FROM findings f WHERE f.report_id = reports.id);
CREATE TABLE product_totals (
  maker TEXT NOT NULL,
  product TEXT NOT NULL,
  machines BIGINT NOT NULL,
  findings BIGINT NOT NULL,
  price BIGINT NOT NULL,
  PRIMARY KEY (maker, product)
);
INSERT INTO product_totals (maker, product, machines, findings, price)
  SELECT f.maker, f.product, COUNT(DISTINCT m.id), COUNT(*), COALESCE(SUM(f.price), 0)
  FROM machines m JOIN findings f ON f.report_id = m.current_report
  GROUP BY f.maker, f.product;
)"},
};

std::string withIdentity(std::string sql, std::string_view identity) {
  for (size_t at = sql.find("{id}"); at != std::string::npos; at = sql.find("{id}", at))
    sql.replace(at, 4, identity);
  return sql;
}

const std::string kFindDuplicate = "SELECT id FROM reports WHERE report_id = $1";
const std::string kUpsertMachine =
    "INSERT INTO machines (host_name, network_identity, os_version, last_seen) "
    "VALUES ($1, $2, $3, $4) ON CONFLICT (host_name) DO UPDATE SET last_seen = "
    "CASE WHEN excluded.last_seen > machines.last_seen THEN excluded.last_seen "
    "ELSE machines.last_seen END RETURNING id";
const std::string kInsertReport =
    "INSERT INTO reports (report_id, machine_id, scanned_at, effective_at, received_at, lists, "
    "finding_count, price_total) VALUES ($1, $2, $3, $4, $5, $6, $7, $8) "
    "ON CONFLICT (report_id) DO NOTHING RETURNING id";
// Findings go in rows of up to kFindingsPerStatement per statement: one
// round trip per 64 findings rather than per finding, which is what the
// ingest rate on PostgreSQL is made of.
constexpr size_t kFindingsPerStatement = 64;
constexpr size_t kFindingColumnsInserted = 14;

std::string insertFindingsSql(size_t rows) {
  std::string sql =
      "INSERT INTO findings (report_id, seq, kind, list, record, item_id, maker, product, "
      "version, price, price_text, type, grp, places) VALUES ";
  size_t value = 1;
  for (size_t row = 0; row < rows; ++row) {
    sql += row ? ", (" : "(";
    for (size_t column = 0; column < kFindingColumnsInserted; ++column)
      sql += (column ? ", $" : "$") + std::to_string(value++);
    sql += ")";
  }
  return sql;
}

const std::string kCurrentReport = "SELECT current_report FROM machines WHERE id = $1";
// Answers a row only when the report became the machine's current one.
const std::string kMakeCurrent =
    "UPDATE machines SET current_report = $1, network_identity = $2, os_version = $3 "
    "WHERE id = $4 AND (current_report IS NULL OR "
    "(SELECT effective_at FROM reports WHERE reports.id = machines.current_report) <= $5) "
    "RETURNING id";
// Adds ($1 = 1) or takes away ($1 = -1) the findings of report $2 to the
// product totals: each product it holds counts its machine once. (SQLite
// numbers $-values in the order they first appear, so they appear in
// order. The WHERE clause also keeps it from reading ON CONFLICT as a
// join.)
const std::string kAddToTotals =
    "INSERT INTO product_totals (maker, product, machines, findings, price) "
    "SELECT maker, product, CAST($1 AS BIGINT), CAST($1 AS BIGINT) * COUNT(*), "
    "CAST($1 AS BIGINT) * COALESCE(SUM(price), 0) FROM findings WHERE report_id = $2 "
    "GROUP BY maker, product ON CONFLICT (maker, product) DO UPDATE SET "
    "machines = product_totals.machines + excluded.machines, "
    "findings = product_totals.findings + excluded.findings, "
    "price = product_totals.price + excluded.price";
const std::string kDropEmptyTotals = "DELETE FROM product_totals WHERE machines <= 0";
const std::string kProducts =
    "SELECT maker, product, machines, findings, price FROM product_totals";
const std::string kMachines =
    "SELECT m.host_name, m.os_version, m.network_identity, m.last_seen, "
    "COALESCE(r.scanned_at, ''), COALESCE(r.finding_count, 0), COALESCE(r.price_total, 0) "
    "FROM machines m LEFT JOIN reports r ON r.id = m.current_report";
const std::string kFindingColumns =
    "f.kind, f.list, f.record, f.item_id, f.maker, f.product, f.version, f.price, f.price_text, "
    "f.type, f.grp, f.places";
const std::string kMachineFindings = "SELECT " + kFindingColumns +
                                     " FROM machines m JOIN findings f ON f.report_id = "
                                     "m.current_report WHERE m.host_name = $1 ORDER BY f.seq";
const std::string kExportBatch =
    "SELECT host_name FROM machines WHERE host_name > $1 AND current_report IS NOT NULL "
    "ORDER BY host_name LIMIT $2";
const std::string kExport = "SELECT m.host_name, r.scanned_at, m.last_seen, " + kFindingColumns +
                            " FROM machines m JOIN reports r ON r.id = m.current_report "
                            "JOIN findings f ON f.report_id = r.id "
                            "WHERE m.host_name > $1 AND m.host_name <= $2 "
                            "ORDER BY m.host_name, f.seq";

ReportFinding findingFrom(const SqlRow& row, int first) {
  ReportFinding f;
  f.kind = row.text(first);
  f.list = row.text(first + 1);
  f.record = row.integer(first + 2);
  f.id = row.text(first + 3);
  f.maker = row.text(first + 4);
  f.product = row.text(first + 5);
  f.version = row.text(first + 6);
  if (!row.isNull(first + 7)) f.priceHundredths = row.integer(first + 7);
  f.priceText = row.text(first + 8);
  f.type = row.text(first + 9);
  f.group = row.text(first + 10);
  auto places = nlohmann::json::parse(row.text(first + 11), nullptr, false);
  if (places.is_array()) {
    for (const auto& place : places)
      if (place.is_string()) f.where.push_back(place.get<std::string>());
  }
  return f;
}

class SqlReportStore final : public ReportStore {
 public:
  SqlReportStore(std::unique_ptr<SqlConnection> connection, std::string name)
      : db_(std::move(connection)), name_(std::move(name)) {}

  bool migrate() {
    std::lock_guard lock(mutex_);
    if (!db_->execute("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)"))
      return false;
    if (!db_->beginExclusive()) return false;
    int version = readVersion();
    if (version < 0) return rollback();
    if (version > currentSchemaVersion()) {
      logf("collect: %s has schema version %d; this collector knows up to %d", name_.c_str(),
           version, currentSchemaVersion());
      return rollback();
    }
    for (const Migration& step : kMigrations) {
      if (step.version <= version) continue;
      const std::array<SqlValue, 1> values{std::int64_t{step.version}};
      if (!db_->execute(withIdentity(step.sql, db_->identityColumn())) ||
          !db_->run("INSERT INTO schema_version (version) VALUES ($1)", values))
        return rollback();
      logf("collect: %s migrated to schema version %d", name_.c_str(), step.version);
    }
    return db_->execute("COMMIT");
  }

  Insert insert(const Report& report, std::int64_t receivedAt) override {
    std::lock_guard lock(mutex_);
    if (!db_->beginExclusive()) return Insert::kFailed;
    const Insert result = insertLocked(report, receivedAt);
    if (result != Insert::kStored) {
      db_->execute("ROLLBACK");
      return result;
    }
    if (!db_->execute("COMMIT")) {
      db_->execute("ROLLBACK");
      return Insert::kFailed;
    }
    return result;
  }

  std::optional<Overview> overview() override {
    std::lock_guard lock(mutex_);
    Overview out;
    const bool ok = db_->run(kProducts, {}, [&](const SqlRow& row) {
      out.products.push_back(
          {row.text(0), row.text(1), row.integer(2), row.integer(3), row.integer(4)});
    }) && db_->run(kMachines, {}, [&](const SqlRow& row) {
      out.machines.push_back({row.text(0), row.text(1), row.text(2), row.integer(3), row.text(4),
                              row.integer(5), row.integer(6)});
    });
    if (!ok) return std::nullopt;
    // Sorted here by bytes, so that both databases, whatever their
    // collation, answer in the same order.
    std::sort(out.products.begin(), out.products.end(), [](const auto& a, const auto& b) {
      return std::tie(a.maker, a.product) < std::tie(b.maker, b.product);
    });
    std::sort(out.machines.begin(), out.machines.end(),
              [](const auto& a, const auto& b) { return a.hostName < b.hostName; });
    return out;
  }

  std::optional<std::vector<ReportFinding>> machineFindings(std::string_view hostName) override {
    std::lock_guard lock(mutex_);
    std::vector<ReportFinding> out;
    const std::array<SqlValue, 1> values{hostName};
    if (!db_->run(kMachineFindings, values,
                  [&](const SqlRow& row) { out.push_back(findingFrom(row, 0)); }))
      return std::nullopt;
    return out;
  }

  std::optional<std::string> exportRows(
      std::string_view afterHost, int machines,
      const std::function<void(const ExportRow&)>& rowFunction) override {
    std::lock_guard lock(mutex_);
    std::string last;
    const std::array<SqlValue, 2> batch{afterHost, std::int64_t{std::max(1, machines)}};
    if (!db_->run(kExportBatch, batch, [&](const SqlRow& row) { last = row.text(0); }))
      return std::nullopt;
    if (last.empty()) return last;
    const std::array<SqlValue, 2> range{afterHost, std::string_view(last)};
    if (!db_->run(kExport, range, [&](const SqlRow& row) {
          rowFunction({row.text(0), row.text(1), row.integer(2), findingFrom(row, 3)});
        }))
      return std::nullopt;
    return last;
  }

  std::optional<Health> health() override {
    std::lock_guard lock(mutex_);
    Health out;
    const auto count = [&](const char* table, std::int64_t& into) {
      return db_->run(std::string("SELECT COUNT(*) FROM ") + table, {},
                      [&](const SqlRow& row) { into = row.integer(0); });
    };
    if (!count("machines", out.machines) || !count("reports", out.reports) ||
        !count("findings", out.findings))
      return std::nullopt;
    out.intact = db_->intact();
    return out;
  }

  int schemaVersion() override {
    std::lock_guard lock(mutex_);
    return readVersion();
  }

 private:
  bool rollback() {
    db_->execute("ROLLBACK");
    return false;
  }

  int readVersion() {
    int version = -1;
    if (!db_->run("SELECT COALESCE(MAX(version), 0) FROM schema_version", {},
                  [&](const SqlRow& row) { version = static_cast<int>(row.integer(0)); }))
      return -1;
    return version;
  }

  Insert insertLocked(const Report& report, std::int64_t receivedAt) {
    bool duplicate = false;
    const std::array<SqlValue, 1> id{std::string_view(report.reportId)};
    if (!db_->run(kFindDuplicate, id, [&](const SqlRow&) { duplicate = true; }))
      return Insert::kFailed;
    if (duplicate) return Insert::kDuplicate;

    std::int64_t machine = -1;
    const std::array<SqlValue, 4> machineValues{std::string_view(report.hostName),
                                                std::string_view(report.networkIdentity),
                                                std::string_view(report.osVersion), receivedAt};
    if (!db_->run(kUpsertMachine, machineValues,
                  [&](const SqlRow& row) { machine = row.integer(0); }) ||
        machine < 0)
      return Insert::kFailed;

    const std::int64_t effective = std::min(report.scannedAtSeconds, receivedAt);
    std::int64_t priceTotal = 0;
    for (const ReportFinding& f : report.findings) priceTotal += f.priceHundredths.value_or(0);
    std::int64_t stored = -1;
    const std::array<SqlValue, 8> reportValues{std::string_view(report.reportId),
                                               machine,
                                               std::string_view(report.scannedAt),
                                               effective,
                                               receivedAt,
                                               std::string_view(report.listsJson),
                                               static_cast<std::int64_t>(report.findings.size()),
                                               priceTotal};
    if (!db_->run(kInsertReport, reportValues, [&](const SqlRow& row) { stored = row.integer(0); }))
      return Insert::kFailed;
    // Another collector on the same database stored it in the meantime.
    if (stored < 0) return Insert::kDuplicate;

    const auto& findings = report.findings;
    std::vector<std::string> places;
    std::vector<SqlValue> values;
    for (size_t first = 0; first < findings.size(); first += kFindingsPerStatement) {
      const size_t rows = std::min(kFindingsPerStatement, findings.size() - first);
      places.clear();
      places.reserve(rows);  // the values point into these strings
      values.clear();
      for (size_t i = first; i < first + rows; ++i) {
        const ReportFinding& f = findings[i];
        places.push_back(nlohmann::json(f.where).dump());
        values.insert(values.end(), {stored, static_cast<std::int64_t>(i), std::string_view(f.kind),
                                     std::string_view(f.list), f.record, std::string_view(f.id),
                                     std::string_view(f.maker), std::string_view(f.product),
                                     std::string_view(f.version),
                                     f.priceHundredths ? SqlValue(*f.priceHundredths) : SqlValue(),
                                     std::string_view(f.priceText), std::string_view(f.type),
                                     std::string_view(f.group), std::string_view(places.back())});
      }
      if (!db_->run(rows == kFindingsPerStatement ? fullBatch_ : insertFindingsSql(rows), values))
        return Insert::kFailed;
    }
    return makeCurrent(report, machine, stored, effective) ? Insert::kStored : Insert::kFailed;
  }

  // Makes the stored report its machine's current one unless that machine
  // has a newer one, and moves the product totals from the report it
  // replaces to this one. A report that does not become current leaves
  // the totals as they were.
  bool makeCurrent(const Report& report, std::int64_t machine, std::int64_t stored,
                   std::int64_t effective) {
    std::optional<std::int64_t> previous;
    const std::array<SqlValue, 1> machineId{machine};
    if (!db_->run(kCurrentReport, machineId, [&](const SqlRow& row) {
          if (!row.isNull(0)) previous = row.integer(0);
        }))
      return false;
    bool replaced = false;
    const std::array<SqlValue, 5> current{stored, std::string_view(report.networkIdentity),
                                          std::string_view(report.osVersion), machine, effective};
    if (!db_->run(kMakeCurrent, current, [&](const SqlRow&) { replaced = true; })) return false;
    if (!replaced) return true;
    if (previous) {
      const std::array<SqlValue, 2> remove{std::int64_t{-1}, *previous};
      if (!db_->run(kAddToTotals, remove) || !db_->run(kDropEmptyTotals, {})) return false;
    }
    const std::array<SqlValue, 2> add{std::int64_t{1}, stored};
    return db_->run(kAddToTotals, add);
  }

  const std::string fullBatch_ = insertFindingsSql(kFindingsPerStatement);
  std::mutex mutex_;
  std::unique_ptr<SqlConnection> db_;  // guarded by mutex_
  std::string name_;
};

}  // namespace

int currentSchemaVersion() { return std::end(kMigrations)[-1].version; }

std::unique_ptr<ReportStore> makeSqlStore(std::unique_ptr<SqlConnection> connection,
                                          std::string name) {
  auto store = std::make_unique<SqlReportStore>(std::move(connection), std::move(name));
  if (!store->migrate()) return nullptr;
  return store;
}

std::unique_ptr<ReportStore> openReportStore(const std::string& location) {
  if (location.starts_with("postgresql://") || location.starts_with("postgres://"))
    return openPostgresStore(location);
  return openSqliteStore(location);
}

}  // namespace quarvel::server
