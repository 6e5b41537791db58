#pragma once
// Where the collector keeps the reports: SQLite (one file, WAL) for one
// collector, PostgreSQL for several. Both hold the same schema, built by
// the same numbered migrations (recorded in a schema_version table), and
// answer through the same SQL, every query a prepared statement with its
// values bound, never spliced into the text.
//
// The tables: machines (one row per host name, with when it was last heard
// from and its current report), reports (one per reportId) and findings
// (one per finding of a report, in the order sent).
//
// Threading: a store may be called from any thread; calls are serialised
// on its one connection.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "server/ReportSchema.h"

namespace quarvel::server {

// What a machine shows in the overview: its current report's figures.
struct MachineSummary {
  std::string hostName;
  std::string osVersion;
  std::string networkIdentity;
  std::int64_t lastSeen = 0;  // seconds since 1970: the latest receipt of its reports
  std::string scannedAt;      // of the current report
  std::int64_t findings = 0;
  std::int64_t priceHundredths = 0;
};

// A maker's product across the machines' current reports.
struct ProductSummary {
  std::string maker;
  std::string product;
  std::int64_t machines = 0;  // machines where it was found
  std::int64_t findings = 0;
  std::int64_t priceHundredths = 0;  // the sum of the prices found
};

struct Overview {
  std::vector<ProductSummary> products;  // by maker, then product
  std::vector<MachineSummary> machines;  // by host name
};

// One finding of a machine's current report, as the export lists it.
struct ExportRow {
  std::string hostName;
  std::string scannedAt;
  std::int64_t lastSeen = 0;
  ReportFinding finding;
};

class ReportStore {
 public:
  virtual ~ReportStore() = default;

  enum class Insert { kStored, kDuplicate, kFailed };
  // Stores `report`, received at `receivedAt` (seconds since 1970), in one
  // transaction: the report, its findings and its machine's row. A
  // reportId already stored leaves the store as it was (kDuplicate);
  // kFailed (logged) when the store could not be written, and nothing of
  // the report is kept.
  //
  // A machine's current report is the one scanned latest, a scan time
  // later than its receipt counting as the receipt: a wrong clock ahead
  // cannot pin a machine's findings. Its last-seen time is the latest
  // receipt, whatever the report claims.
  virtual Insert insert(const Report& report, std::int64_t receivedAt) = 0;

  // Every machine and every product; nothing (logged) on a store failure.
  virtual std::optional<Overview> overview() = 0;
  // The findings of one machine's current report, in the order sent;
  // nothing on a failure, empty for an unknown machine.
  virtual std::optional<std::vector<ReportFinding>> machineFindings(std::string_view hostName) = 0;
  // Calls `row` for every finding of the current reports of the next
  // `machines` machines (by host name) after `afterHost` ("" for the
  // first), in the order sent. Answers the last host name of the batch, ""
  // when there were no more machines; nothing on a store failure (rows may
  // have been passed). A caller pages through the whole fleet this way
  // without holding it in memory.
  virtual std::optional<std::string> exportRows(
      std::string_view afterHost, int machines,
      const std::function<void(const ExportRow&)>& row) = 0;

  // Row counts of machines, reports and findings, and whether the
  // database's own consistency check passes; for tests and monitoring.
  struct Health {
    std::int64_t machines = 0, reports = 0, findings = 0;
    bool intact = false;
  };
  virtual std::optional<Health> health() = 0;
  // The highest migration applied.
  virtual int schemaVersion() = 0;
};

// The highest migration this build knows.
int currentSchemaVersion();

// Opens (creating and migrating) the SQLite database at `path`, in WAL
// mode. Null (logged) when it cannot be opened or was written by a newer
// collector (a higher schema version).
std::unique_ptr<ReportStore> openSqliteStore(const std::string& path);

// Connects to the PostgreSQL database named by `url` (postgresql://...)
// with libpq and migrates it; several collectors may share it. Null
// (logged, without the password) when it cannot be reached or is newer.
std::unique_ptr<ReportStore> openPostgresStore(const std::string& url);

// openPostgresStore for a "postgresql://" or "postgres://" URL, else
// openSqliteStore for a path.
std::unique_ptr<ReportStore> openReportStore(const std::string& location);

}  // namespace quarvel::server
