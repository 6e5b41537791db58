// Sending audit reports: the collector's answers (given in libcurl's place
// through the platform), the spool's order, bounds and damaged files, the
// secret file, and one whole audit against a loopback collector.

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "audit/AuditCommand.h"
#include "audit/AuditReport.h"
#include "audit/ReportSubmitter.h"
#include "common/HttpClient.h"
#include "common/Log.h"
#include "format/DataFileFormat.h"
#include "support/AuditFixtures.h"
#include "support/LoopbackHttpServer.h"
#include "support/SettingsSandbox.h"
#include "support/TestPlatform.h"

namespace quarvel::audit {
namespace {

using quarvel::testing::ScopedPlatform;
using quarvel::testing::TempTree;
using Json = nlohmann::json;

std::string reportBody(const std::string& id) { return Json{{"reportId", id}}.dump(); }

// Answers every exchange in libcurl's place with one CURLcode and status,
// recording what was asked.
struct ScriptedCollector : PlatformWrapper {
  ScriptedCollector(CURLcode code, long status) : code(code), status(status) {}
  int performHttp(HttpExchange& exchange) override {
    std::lock_guard lock(mutex);
    urls.push_back(exchange.url());
    requests.push_back(exchange.options());
    if (code == CURLE_OK) {
      exchange.setStatus(status);
      (void)exchange.deliver(R"({"error":"no"})");
    }
    return code;
  }
  const CURLcode code;
  const long status;
  std::mutex mutex;
  std::vector<std::string> urls;
  std::vector<HttpExchange::Options> requests;
};

std::string header(const HttpExchange::Options& o, std::string_view name) {
  for (const std::string& h : o.headers)
    if (h.starts_with(name) && h.size() > name.size() && h[name.size()] == ':')
      return h.substr(name.size() + 2);
  return "";
}

std::vector<std::string> idsIn(const ReportSpool& spool) {
  std::vector<std::string> ids;
  for (const auto& e : spool.pending()) ids.push_back(e.reportId);
  return ids;
}

std::size_t filesIn(const std::string& folder) {
  return std::ranges::count_if(std::filesystem::directory_iterator(folder),
                               [](const auto& e) { return e.path().extension() == ".json"; });
}

TEST(ReportDelivery, CollectorAnswersDecideWhereEachReportGoes) {
  const struct {
    const char* name;
    CURLcode code;
    long status;
    std::size_t posts, delivered, refused, left;
  } cases[] = {
      {"connection refused", CURLE_COULDNT_CONNECT, 0, 1, 0, 0, 3},
      {"store unavailable", CURLE_OK, 503, 1, 0, 0, 3},
      {"malformed", CURLE_OK, 400, 3, 0, 3, 0},
      {"too large", CURLE_OK, 413, 3, 0, 3, 0},
      {"stored", CURLE_OK, 201, 3, 3, 0, 0},
      {"duplicate", CURLE_OK, 200, 3, 3, 0, 0},
  };
  for (const auto& c : cases) {
    TempTree tree;
    ReportSpool spool(tree.path("spool"));
    std::vector<std::string> added;
    for (int i = 0; i < 3; ++i) {
      added.push_back(*newReportId());
      ASSERT_TRUE(spool.add(added.back(), reportBody(added.back())));
    }
    auto collector = std::make_shared<ScriptedCollector>(c.code, c.status);
    ScopedPlatform platform(collector);
    LogCapture log;
    const FlushOutcome o =
        flushSpool(spool, {.url = "http://collector.test:8470/", .secret = "s3"}, {});
    EXPECT_EQ((std::array{collector->requests.size(), o.delivered, o.refused, o.left,
                          filesIn(spool.rejectedFolder())}),
              (std::array{c.posts, c.delivered, c.refused, c.left, c.refused}))
        << c.name;
    EXPECT_EQ(log.contains("refused (HTTP"), c.refused > 0) << c.name;
    // Oldest first, each with its own key, to the one endpoint.
    for (std::size_t i = 0; i < collector->requests.size(); ++i) {
      const HttpExchange::Options& r = collector->requests[i];
      EXPECT_EQ(collector->urls[i] + " " + r.method + " " + header(r, "Authorization") + " " +
                    header(r, "Idempotency-Key") + " " + header(r, "Content-Type") + " " + r.body,
                "http://collector.test:8470/api/reports POST Bearer s3 " + added[i] +
                    " application/json " + reportBody(added[i]));
    }
  }
}

TEST(ReportDelivery, CollectorUrlAndSecretFile) {
  for (const auto& [base, url] : std::vector<std::pair<std::string, std::string>>{
           {"http://h:8470", "http://h:8470/api/reports"},
           {"http://h:8470/", "http://h:8470/api/reports"},
           {"http://h/api/reports", "http://h/api/reports"}})
    EXPECT_EQ(reportsUrl(base), url);

  TempTree tree;
  for (const auto& [text, secret] : std::vector<std::pair<std::string, std::optional<std::string>>>{
           {"t0ken \t\r\n\n", "t0ken"},
           {std::string(4096, 'k'), std::string(4096, 'k')},
           {std::string(4097, 'k'), std::nullopt},
           {"", std::nullopt},
           {"a\nb\n", std::nullopt}}) {
    std::string error;
    EXPECT_EQ(readSecretFile(tree.file("secret", text), error), secret) << text.substr(0, 9);
    EXPECT_EQ(error.empty(), secret.has_value()) << error;
  }
  std::string error;
  EXPECT_FALSE(readSecretFile(tree.path("missing"), error));
  EXPECT_FALSE(readSecretFile(tree.root(), error));
}

TEST(ReportSpool, FlushWaitsItsTurnAndSetsDamagedFilesAside) {
  TempTree tree;
  ReportSpool spool(tree.path("spool"));
  const std::string good = *newReportId(), notJson = *newReportId(), big = *newReportId(),
                    misnamed = *newReportId();
  ASSERT_TRUE(spool.add(good, reportBody(good)) && spool.add(notJson, "{\"reportId\": tru") &&
              spool.add(big, std::string(datafile::kMaxReportBytes + 1, ' ')) &&
              spool.add(misnamed, reportBody(good)));
  tree.file("spool/notes.json", "{}");
  tree.file("spool/" + good + ".json.part", "x");
  auto collector = std::make_shared<ScriptedCollector>(CURLE_OK, 201);
  ScopedPlatform platform(collector);
  {
    // One sender at a time: a second waits for the lease, then gives up.
    ReportSpool other(tree.path("spool"));
    auto held = other.lease({});
    ASSERT_TRUE(held);
    const FlushOutcome busy =
        flushSpool(spool, {.url = "http://c", .secret = "s"}, std::chrono::milliseconds(120));
    EXPECT_TRUE(busy.busy && busy.left == 4u && collector->requests.empty());
  }
  LogCapture log;
  const FlushOutcome outcome = flushSpool(spool, {.url = "http://c", .secret = "s"}, {});
  EXPECT_EQ((std::array{outcome.delivered, outcome.refused, filesIn(spool.rejectedFolder())}),
            (std::array<std::size_t, 3>{1, 3, 3}));
  // What is not a report is left alone.
  EXPECT_TRUE(std::filesystem::exists(tree.path("spool/notes.json")) &&
              std::filesystem::exists(tree.path("spool/" + good + ".json.part")));
  EXPECT_TRUE(log.contains("larger than") && log.contains("not a JSON object"));
}

TEST(ReportSpool, BoundsDropTheOldestWithAWarning) {
  TempTree tree;
  ReportSpool spool(
      tree.path("spool"),
      {.maxReports = 3, .maxBytes = 1 << 20, .maxRejected = 2, .maxRejectedBytes = 120});
  std::vector<std::string> ids;
  for (int i = 0; i < 5; ++i) {
    ids.push_back(*newReportId());
    ASSERT_TRUE(spool.add(ids.back(), reportBody(ids.back())));
  }
  EXPECT_EQ(idsIn(spool), ids);  // stamped in order, whatever the names
  LogCapture log;
  auto lease = spool.lease({});
  ASSERT_TRUE(lease);
  EXPECT_EQ(spool.trim(*lease), 2u);
  EXPECT_EQ(idsIn(spool), std::vector<std::string>(ids.begin() + 2, ids.end()));
  EXPECT_TRUE(log.contains(ids[0]) && log.contains(ids[1])) << "each dropped report is named";
  // The rejected place holds two reports of this size at most.
  for (const auto& entry : spool.pending()) ASSERT_TRUE(spool.reject(*lease, entry, "test"));
  EXPECT_EQ(filesIn(spool.rejectedFolder()), 2u);
  EXPECT_TRUE(std::filesystem::exists(spool.rejectedFolder() + "/" + ids[4] + ".json"));
}

TEST(FleetReport, ReportIds) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string id = *newReportId();
    ASSERT_TRUE(isReportId(id)) << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 1000u);
  for (const char* bad :
       {"0f8fad5b-d9cb-469f-a165-70867728950", "0F8FAD5B-D9CB-469F-A165-70867728950E",
        "0f8fad5b-d9cb-369f-a165-70867728950e", "0f8fad5b-d9cb-469f-c165-70867728950e"})
    EXPECT_FALSE(isReportId(bad)) << bad;
}

// The whole command against a collector on a loopback port: delivered;
// then kept while the collector is away, and sent by --flush (both through
// the platform in libcurl's place).
TEST(AuditSubmit, LoopbackCollector) {
  const std::string samples = QUARVEL_SAMPLES;
  if (!std::filesystem::exists(samples + "/macchecklist.dat")) GTEST_SKIP() << "no sample lists";
  quarvel::testing::SettingsSandbox sandbox;  // the lists not named are not found
  TempTree tree;
  tree.executable("machine/opt/\xff/photoloom6");  // not UTF-8: the report still goes
  AuditCommandOptions o;
  o.trees = {tree.path("machine")};
  o.checkList = samples + "/macchecklist.dat";
  o.fontList = samples + "/fontchecklist.dat";
  o.format = ReportFormat::Json;
  o.progress = false;
  o.secretFile = tree.file("secret", "enrol-7\n");
  o.spoolFolder = tree.path("spool");
  o.machine = MachineFacts{"pc-1", "lo 127.0.0.1", "Test OS"};
  o.collectorIdleTimeout = std::chrono::seconds(5);
  auto run = [&](int status) {
    std::ostringstream out, err;
    EXPECT_EQ(runAudit(o, out, err, nullptr), status) << err.str();
  };
  std::vector<quarvel::testing::HttpReceived> received;
  {
    quarvel::testing::LoopbackHttpServer server(
        [](const auto&) { return quarvel::testing::HttpReply::text(R"({"stored":true})", 201); });
    o.submitUrl = server.url("");
    run(0);
    received = server.requests();
  }
  ASSERT_EQ(received.size(), 1u);
  auto& r = received[0];
  Json stored = Json::parse(r.body);
  EXPECT_EQ(
      std::tuple(r.method, r.target, r.headers["authorization"], r.headers["idempotency-key"]),
      std::tuple("POST", "/api/reports", "Bearer enrol-7", stored["reportId"]));
  EXPECT_EQ(
      Json::array({stored["format"], stored["machine"], stored["lists"]["checklist"].is_string(),
                   stored["lists"]["userchecklist"], stored["findings"][0]["product"]}),
      Json::parse(R"([1, {"hostName": "pc-1", "networkIdentity": "lo 127.0.0.1",
                "osVersion": "Test OS"}, true, null, "PhotoLoom 6"])"));

  ReportSpool spool(tree.path("spool"));
  {
    ScopedPlatform away(std::make_shared<ScriptedCollector>(CURLE_COULDNT_CONNECT, 0));
    run(kAuditExitNotDelivered);
  }
  ASSERT_EQ(spool.pending().size(), 1u);
  const std::string waiting = spool.pending()[0].reportId;
  auto collector = std::make_shared<ScriptedCollector>(CURLE_OK, 201);
  ScopedPlatform back(collector);
  o.flushOnly = true;
  o.trees = {"/nonexistent"};  // nothing is scanned
  run(0);
  EXPECT_TRUE(spool.pending().empty());
  ASSERT_EQ(collector->requests.size(), 1u);
  EXPECT_EQ(header(collector->requests[0], "Idempotency-Key"), waiting);
}

}  // namespace
}  // namespace quarvel::audit
