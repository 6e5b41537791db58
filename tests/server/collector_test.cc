// The collector: reading reports, the SQLite store, and the server facing
// hostile machines on loopback.

#include "server/Collector.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>

#include "common/Log.h"
#include "server/ReportFixtures.h"
#include "support/AuditFixtures.h"
#include "support/RawSocket.h"
#include "support/TestPlatform.h"

extern "C" const char* __tsan_default_suppressions() { return "race:libcpp-httplib.so\n"; }

namespace quarvel::server {
namespace {

using namespace std::chrono_literals;
using quarvel::testing::RawAnswer;
using quarvel::testing::rawExchange;
using testing::finding;
using testing::Json;
using testing::report;

const Json kGood =
    report(1, "pc-01", "2026-11-18T08:00:00Z", Json::array({finding("Acme", "Paint", 1200000)}));

// The good report with the member at `where` set to `value`, as sent.
std::string with(const char* where, Json value) {
  Json json = kGood;
  json[Json::json_pointer(where)] = std::move(value);
  return json.dump();
}

TEST(ReadReport, RefusesWhatIsNotAReportAndReadsTheRest) {
  Json missing = kGood;
  missing.erase("findings");
  struct Case {
    const char* name;
    std::string body;
    const char* error;                    // empty: accepted
    std::int64_t hundredths = 120000000;  // the first price, when accepted
  };
  const Case cases[] = {
      {"good", kGood.dump(), ""},
      {"not JSON", "{\"format\":1,", "not JSON"},
      {"bad UTF-8", "{\"format\":\"\xff\"}", "not JSON"},
      {"deep nesting", std::string(100000, '[') + std::string(100000, ']'), "nested too deeply"},
      {"deep inside totals",
       with("/totals", Json::parse(std::string(40, '[') + std::string(40, ']'))), "nested"},
      {"unknown member", with("/machine/serial", "x"), "additionalProperties"},
      {"missing member", missing.dump(), "required"},
      {"upper-case id", with("/reportId", "0000000A-0000-4000-8000-000000000001"), "pattern"},
      {"format 2", with("/format", 2), "enum"},
      {"negative price", with("/findings/0/price", -1), "minimum"},
      {"price as text", with("/findings/0/price", "12"), "type"},
      {"totals not an object", with("/totals", Json::array()), "type"},
      {"31 February", with("/scannedAt", "2026-02-31T00:00:00Z"), "date"},
      {"29 February of a leap year", with("/scannedAt", "2028-02-29T00:00:00Z"), ""},
      {"second 60", with("/scannedAt", "2026-11-18T08:00:60Z"), "date"},
      {"local time", with("/scannedAt", "2026-02-01T00:00:00+09:00"), "pattern"},
      {"NUL in a text", with("/findings/0/maker", std::string("a\0b", 3)), "U+0000"},
      {"empty host", with("/machine/hostName", ""), "minLength"},
      // Prices become hundredths without drift.
      {"price 19.99", with("/findings/0/price", 19.99), "", 1999},
      {"price 1e10", with("/findings/0/price", 1e10), "", 1000000000000},
  };
  for (const Case& c : cases) {
    ReportReading reading = readReport(c.body);
    if (*c.error == '\0') {
      ASSERT_TRUE(reading.report) << c.name << ": " << reading.error;
      EXPECT_EQ(reading.report->findings.at(0).priceHundredths, c.hundredths) << c.name;
      EXPECT_EQ(reading.report->listsJson,
                R"({"checklist":"2026.11.01","userchecklist":null,"filter":null,"font":"7"})");
    } else {
      EXPECT_FALSE(reading.report) << c.name;
      EXPECT_NE(reading.error.find(c.error), std::string::npos) << c.name << ": " << reading.error;
    }
  }
}

TEST(SqliteStore, KeepsReportsExactlyAndRunningTotalsMatchARecount) {
  quarvel::testing::TempTree tree;
  testing::checkStore([&](const std::string& name) { return openSqliteStore(tree.path(name)); });
}

// Runs `sql` on the database at `path` behind the store's back: the first
// column of the last row answered ("" for none), nothing when it fails.
std::optional<std::string> rawSql(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  std::string last;
  const auto keep = [](void* to, int, char** values, char**) {
    *static_cast<std::string*>(to) = values[0] ? values[0] : "";
    return 0;
  };
  const bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
                  sqlite3_exec(db, sql.c_str(), keep, &last, nullptr) == SQLITE_OK;
  sqlite3_close(db);
  return ok ? std::optional(last) : std::nullopt;
}

// Opened again, a store migrates nothing and loses nothing; one written
// before the running totals existed gets them, filled from the reports it
// holds; one from a newer collector is refused.
TEST(SqliteStore, MigratesOnceFillsTheRunningTotalsAndRefusesANewerSchema) {
  quarvel::testing::TempTree tree;
  const std::string path = tree.path("collect.sqlite");
  const auto reopened = [&] {
    auto store = openSqliteStore(path);
    if (!store) throw std::runtime_error("cannot open the store");
    EXPECT_EQ(store->schemaVersion(), currentSchemaVersion());
    return store;
  };
  testing::checkTotalsFollowHistory(*reopened(), testing::kFleetHistories[1]);
  EXPECT_EQ(reopened()->health()->reports, 100);
  EXPECT_EQ(rawSql(path, "PRAGMA journal_mode"), "wal");
  ASSERT_TRUE(rawSql(path,
                     "DROP TABLE product_totals; ALTER TABLE reports DROP COLUMN finding_count; "
                     "ALTER TABLE reports DROP COLUMN price_total; "
                     "DELETE FROM schema_version WHERE version > 1"));
  testing::expectTotalsMatchRecount(*reopened());
  ASSERT_TRUE(rawSql(path, "INSERT INTO schema_version VALUES (99)"));
  LogCapture log;
  EXPECT_FALSE(openSqliteStore(path));
  EXPECT_TRUE(log.contains("schema version 99"));
  EXPECT_FALSE(openSqliteStore(tree.path("no/such/folder/collect.sqlite")));
}

TEST(OverviewFormats, ListStaleMachinesAndQuoteWhatMachinesSent) {
  const std::int64_t now = *parseUtcTimestamp("2026-11-25T00:00:00Z");
  Overview overview;
  overview.products = {{"<script>alert(1)</script>", "=HYPERLINK()", 2, 2, 250},
                       {"Acme", "Paint", 1, 1, 120000000}};
  overview.machines = {{"fresh", "Debian", "", now - 3600, "2026-11-24T23:00:00Z", 1, 100},
                       {"gone", "Debian", "", now - 31 * 86400, "2026-10-25T00:00:00Z", 1, 150}};
  Json json = Json::parse(overviewJson(overview, now, 30));
  EXPECT_EQ(json["stale"], Json::parse(R"([{"hostName":"gone","lastSeen":"2026-10-25T00:00:00Z",)"
                                       R"("daysUnseen":31}])"));
  EXPECT_EQ(Json::array({json["products"][0]["price"], json["products"][1]["price"],
                         json["machines"][0]["lastSeen"]}),
            Json::array({2.5, 1200000, "2026-11-24T23:00:00Z"}));
  EXPECT_TRUE(Json::parse(overviewJson(overview, now, 40))["stale"].empty());

  const std::string page = overviewHtml(overview, now, 30);
  EXPECT_EQ(page.find("<script"), std::string::npos);
  for (const char* part :
       {"&lt;script&gt;", "<svg class=\"chart\"", "<tr class=\"stale\"><td>gone"})
    EXPECT_NE(page.find(part), std::string::npos) << part;
}

// --- the server --------------------------------------------------------------

const std::string kSecret = "s3cret enrolment";
const std::string kAuth = "Authorization: Bearer " + kSecret + "\r\n";

std::string post(const std::string& body, const std::string& headers) {
  return "POST /api/reports HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
         "Content-Type: application/json\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n" + headers + "\r\n" + body;
}

std::string rawGet(const std::string& target, const std::string& headers) {
  return "GET " + target + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + headers + "\r\n";
}

class CollectorTest : public ::testing::Test {
 protected:
  void start(CollectLimits limits = {}, const std::string& adminToken = "",
             const std::string& db = "collect.sqlite") {
    store_ = openSqliteStore(tree_.path(db));
    ASSERT_TRUE(store_);
    collector_ = std::make_unique<Collector>(
        *store_, CollectorOptions{.secret = kSecret, .adminToken = adminToken, .limits = limits});
    port_ = collector_->start("127.0.0.1", 0);
    ASSERT_GT(port_, 0);
  }
  httplib::Result get(const std::string& target, const httplib::Headers& headers = {}) {
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(10, 0);
    return client.Get(target, headers);
  }

  LogCapture quiet_;  // tests that read the log capture it themselves
  quarvel::testing::TempTree tree_;
  std::unique_ptr<ReportStore> store_;
  std::unique_ptr<Collector> collector_;
  int port_ = -1;
};

TEST_F(CollectorTest, RefusesWhatIsNotAnEnrolledReportAndStoresTheRest) {
  start();
  const std::string good = kGood.dump();
  const Json future =
      report(3, "pc-ahead", "2126-01-01T00:00:00Z", Json::array({finding("Acme", "Paint", 5)}));
  const std::tuple<const char*, std::string, int, const char*> cases[] = {
      {"no secret", post(good, ""), 401, "secret"},
      {"wrong secret", post(good, "Authorization: Bearer s3cret enrolmenT\r\n"), 401, "secret"},
      {"secret as Basic", post(good, "Authorization: Basic " + kSecret + "\r\n"), 401, ""},
      {"secret with a longer tail", post(good, kAuth.substr(0, kAuth.size() - 2) + "x\r\n"), 401,
       ""},
      {"100 MB declared",
       "POST /api/reports HTTP/1.1\r\nHost: x\r\n" + kAuth + "Content-Length: 104857600\r\n\r\n{",
       413, "larger"},
      {"deep nesting", post(std::string(200000, '[') + std::string(200000, ']'), kAuth), 400,
       "nested"},
      {"idempotency key of another report",
       post(good, kAuth + "Idempotency-Key: " + testing::reportId(9) + "\r\n"), 400, "Idempotency"},
      {"GET on the report endpoint", "GET /api/reports HTTP/1.1\r\nHost: x\r\n\r\n", 405, ""},
      {"good", post(good, kAuth + "Idempotency-Key: " + testing::reportId(1) + "\r\n"), 201,
       "\"stored\":true"},
      {"the same again", post(good, kAuth), 200, "\"duplicate\":true"},
      {"a clock a century ahead", post(future.dump(), kAuth), 201, "\"stored\":true"},
      // Without an admin token only local clients, not those a proxy here passes on, see pages.
      {"a local client's overview", rawGet("/api/overview", ""), 200, "\"machines\""},
      {"a proxied overview", rawGet("/api/overview", "X-Forwarded-For: 203.0.113.9\r\n"), 403, ""},
      {"a proxied page", rawGet("/", "X-Forwarded-For: 127.0.0.1, 203.0.113.9\r\n"), 403, ""},
  };
  for (const auto& [name, request, status, contains] : cases) {
    const RawAnswer answer = rawExchange(port_, request);
    EXPECT_EQ(answer.status, status) << name << ": " << answer.text.substr(0, 300);
    EXPECT_NE(answer.text.find(contains), std::string::npos) << name;
  }
  // Last seen is the receipt, not the scan a clock a century ahead claims.
  // The collector's clock: time() reads the kernel's coarse clock, which
  // can still show the second before the one just stamped.
  const std::int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
  const auto overview = store_->overview();  // the loop must not outlive it
  ASSERT_TRUE(overview);
  for (const MachineSummary& m : overview->machines)
    EXPECT_TRUE(m.lastSeen <= now && m.lastSeen > now - 60) << m.hostName << " " << m.lastSeen;
  EXPECT_EQ(testing::counts(*store_), std::make_tuple(2, 2, 2));
}

TEST_F(CollectorTest, CutsAnUndeclaredBodyOverACapAndGivesItsBytesBack) {
  const std::pair<CollectLimits, const char*> cases[] = {
      {{.maxBody = 64 * 1024, .maxBodiesInFlight = std::uint64_t{1} << 30},
       "body over 65536 bytes"},
      {{.maxBodiesInFlight = 64 * 1024}, "bodies in flight over 65536 bytes"},
  };
  std::string request =
      "POST /api/reports HTTP/1.1\r\nHost: x\r\n" + kAuth + "Transfer-Encoding: chunked\r\n\r\n";
  for (int i = 0; i < 8; ++i) request += "4000\r\n" + std::string(16 * 1024, ' ') + "\r\n";
  request += "0\r\n\r\n";
  for (const auto& [limits, logged] : cases) {
    start(limits, "", std::string(logged) + ".sqlite");
    LogCapture log;
    EXPECT_EQ(rawExchange(port_, request).status, 0) << logged;
    EXPECT_TRUE(log.contains(logged));
    EXPECT_EQ(store_->health()->reports, 0) << logged;
    // The cut body's bytes no longer count: a report that fits gets in.
    EXPECT_EQ(rawExchange(port_, post(kGood.dump(), kAuth)).status, 201) << logged;
    collector_->stop();
  }
}

TEST_F(CollectorTest, ClosesARequestStillTricklingAtItsDeadline) {
  start({.deadline = 300ms});
  LogCapture log;
  const int fd = quarvel::testing::connectTo(port_);
  ASSERT_GE(fd, 0);
  const std::string head =
      "POST /api/reports HTTP/1.1\r\nHost: x\r\n" + kAuth + "Content-Length: 1000\r\n\r\n";
  const auto begin = std::chrono::steady_clock::now();
  // A byte every 100 ms, for up to 4 s.
  EXPECT_TRUE(quarvel::testing::trickleUntilClosed(fd, head, " ", 40, 100ms));
  ::close(fd);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
  EXPECT_TRUE(log.contains("no whole request within 300 ms"));
}

// The limiter's clock stands still, so no token comes back between the
// requests: the burst's last token is exactly one, and is taken.
TEST_F(CollectorTest, LimitsTheRateOfEachAddress) {
  struct StillClock : PlatformWrapper {
    std::chrono::steady_clock::time_point at = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point steadyNow() override { return at; }
  };
  quarvel::testing::ScopedPlatform still(std::make_shared<StillClock>());
  start({.perMinute = 1, .burst = 3});
  for (int i = 0; i < 3; ++i) EXPECT_EQ(get("/api/overview")->status, 200) << i;
  auto refused = get("/api/overview");
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 429);
  EXPECT_EQ(refused->get_header_value("Retry-After"), "60");
}

TEST_F(CollectorTest, AdminPagesNeedTheTokenWhenOneIsSet) {
  start({}, "admin-token");
  ASSERT_EQ(store_->insert(testing::parsed(kGood), 1), ReportStore::Insert::kStored);
  // No token, a wrong one and the reports' secret are refused; the admin sees every page.
  const std::tuple<const char*, std::string, int, const char*, const char*> pages[] = {
      {"/", "", 401, "", ""},
      {"/", "admin-tokeN", 401, "", ""},
      {"/", kSecret, 401, "", ""},
      {"/api/overview?staleDays=5", "admin-token", 200, "application/json", "\"staleDays\":5"},
      {"/api/overview?machine=pc-01", "admin-token", 200, "application/json", "\"maker\":\"Acme\""},
      {"/api/export.csv", "admin-token", 200, "text/csv", "pc-01,2026-11-18T08:00:00Z"},
      {"/", "admin-token", 200, "text/html", "<svg"},
      {"/api/overview?staleDays=-1", "admin-token", 400, "", ""},
      {"/nothing", "admin-token", 404, "", ""},
  };
  for (const auto& [target, token, status, type, contains] : pages) {
    auto answer = token.empty() ? get(target) : get(target, {{"Authorization", "Bearer " + token}});
    ASSERT_TRUE(answer) << target;
    EXPECT_EQ(answer->status, status) << target << " " << token;
    EXPECT_TRUE(answer->get_header_value("Content-Type").starts_with(type)) << target;
    EXPECT_NE(answer->body.find(contains), std::string::npos) << answer->body.substr(0, 300);
  }
}

// The export goes out in batches: a fleet larger than one comes out whole,
// machine by machine. Texts that a spreadsheet would run as a formula are
// exported with a leading quote.
TEST_F(CollectorTest, ExportsAFleetLargerThanOneBatchQuotingFormulas) {
  start();
  std::vector<std::string> hosts{"Host"};  // the first cell of each line expected
  for (unsigned n = 1; n <= 120; ++n) {
    const Json findings =
        n == 1 ? Json::array({finding("=Acme", "+Paint", 1), finding("@Ink", "-Pen", 2)})
               : Json::array({finding("Acme", "Paint", 1), finding("Acme", "Ink", 2)});
    hosts.insert(hosts.end(), 2, "pc-" + std::to_string(1000 + n));
    ASSERT_EQ(testing::send(*store_, 1, n, hosts.back(), "2026-11-18T08:00:00Z", findings),
              ReportStore::Insert::kStored);
  }
  auto answer = get("/api/export.csv");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 200);
  std::vector<std::string> lines;
  for (size_t at = 0, end; (end = answer->body.find("\r\n", at)) != std::string::npos; at = end + 2)
    lines.push_back(answer->body.substr(at, answer->body.find(',', at) - at));
  EXPECT_EQ(lines, hosts);
  for (const char* cell : {",'=Acme,'+Paint,", ",'@Ink,'-Pen,"})
    EXPECT_NE(answer->body.find(cell), std::string::npos) << cell;
}

}  // namespace
}  // namespace quarvel::server
