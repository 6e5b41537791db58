#pragma once
// Reports as machines send them, and the checks every report store must
// pass, shared by the SQLite and the PostgreSQL tests.

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string>
#include <tuple>

#include "server/ReportStore.h"

namespace quarvel::server::testing {

using Json = nlohmann::ordered_json;

inline std::string reportId(unsigned n) {
  char id[40];
  std::snprintf(id, sizeof id, "%08x-0000-4000-8000-%012x", n, n);
  return id;
}

inline Json finding(const std::string& maker, const std::string& product, Json price,
                    Json where = Json::array({"/opt/app"})) {
  return {{"kind", "software"},    {"list", "checklist"}, {"record", 7},
          {"id", "ID-" + product}, {"maker", maker},      {"product", product},
          {"version", "2.0"},      {"price", price},      {"priceText", price.dump()},
          {"type", "상용"},        {"group", "Office"},   {"where", std::move(where)}};
}

inline Json report(unsigned n, const std::string& host, const std::string& scannedAt,
                   Json findings) {
  return {
      {"format", 1},
      {"reportId", reportId(n)},
      {"machine",
       {{"hostName", host}, {"networkIdentity", "10.0.0.7<br>aa:bb"}, {"osVersion", "Debian 12"}}},
      {"scannedAt", scannedAt},
      {"lists", Json::parse(R"({"checklist":"2026.11.01","userchecklist":null,"filter":null,)"
                            R"("font":"7"})")},
      {"findings", std::move(findings)},
      {"totals", Json::object()},
      {"scan", {{"files", 10}}}};
}

inline Report parsed(const Json& json) {
  ReportReading reading = readReport(json.dump());
  EXPECT_TRUE(reading.report) << reading.error;
  return reading.report ? *reading.report : Report{};
}

// Report number `n` of `host`, read and stored as received at `now`.
inline ReportStore::Insert send(ReportStore& store, std::int64_t now, unsigned n,
                                const std::string& host, const std::string& scannedAt,
                                Json findings) {
  return store.insert(parsed(report(n, host, scannedAt, std::move(findings))), now);
}

// The store's machines, reports and findings; -1s when it is not intact.
inline std::tuple<std::int64_t, std::int64_t, std::int64_t> counts(ReportStore& store) {
  const auto health = store.health();
  if (!health || !health->intact) return {-1, -1, -1};
  return {health->machines, health->reports, health->findings};
}

// What every store must do with duplicates, clocks, hostile texts and sums.
inline void checkStoreBehaviour(ReportStore& store) {
  using Insert = ReportStore::Insert;
  const std::int64_t kNow = *parseUtcTimestamp("2026-11-18T08:00:00Z");
  const Report first =
      parsed(report(1, "pc-01", "2026-11-18T08:00:00Z",
                    Json::array({finding("Acme", "Paint", 1200000), finding("Acme", "Type", 12.5),
                                 finding("다온테크", "Hangul Font", nullptr)})));
  ASSERT_EQ(store.insert(first, kNow), Insert::kStored);
  ASSERT_EQ(store.insert(first, kNow + 5), Insert::kDuplicate);
  EXPECT_EQ(counts(store), std::make_tuple(1, 1, 3));

  // A clock years ahead does not keep its report current: the next honest
  // scan replaces it, and last seen follows the receipts.
  ASSERT_EQ(send(store, kNow + 100, 2, "pc-01", "2099-01-01T00:00:00Z",
                 Json::array({finding("Acme", "Paint", 99)})),
            Insert::kStored);
  ASSERT_EQ(send(store, kNow + 200, 3, "pc-01", "2026-11-18T08:30:00Z",
                 Json::array({finding("Acme", "Paint", 1200000), finding("Acme", "Type", 12.5)})),
            Insert::kStored);
  // An old report delivered late from the spool does not replace a newer one.
  ASSERT_EQ(send(store, kNow + 300, 4, "pc-01", "2026-11-01T00:00:00Z", Json::array()),
            Insert::kStored);

  // Texts that look like SQL or hold control characters come back exactly.
  const std::string sqlLike = "x'); DROP TABLE findings; --";
  const std::string controls = std::string("a\x01\x1f\x7f\tb\r\n\"\\") + "\u2028z";
  const std::vector<std::string> places{"/opt/it's \"here\"", controls};
  ASSERT_EQ(send(store, kNow, 5, sqlLike, "2026-11-18T09:00:00Z",
                 Json::array({finding(sqlLike, controls, 0.01, places)})),
            Insert::kStored);
  const auto hostile = store.machineFindings(sqlLike);
  ASSERT_TRUE(hostile && hostile->size() == 1u);
  const ReportFinding& h = hostile->at(0);
  EXPECT_EQ(std::tie(h.maker, h.product, h.where, h.priceHundredths, h.type),
            std::make_tuple(sqlLike, controls, places, std::optional<std::int64_t>(1), "상용"));

  auto overview = store.overview();
  ASSERT_TRUE(overview);
  ASSERT_EQ(overview->machines.size(), 2u);
  const MachineSummary& pc = overview->machines[0];
  EXPECT_EQ(std::tie(pc.hostName, pc.lastSeen, pc.scannedAt, pc.findings, pc.priceHundredths),
            std::make_tuple("pc-01", kNow + 300, "2026-11-18T08:30:00Z", 2, 120001250));
  ASSERT_EQ(overview->products.size(), 3u);
  const ProductSummary& paint = overview->products[0];
  EXPECT_EQ(std::tie(paint.maker, paint.product, paint.machines, paint.priceHundredths),
            std::make_tuple("Acme", "Paint", 1, 120000000));
  EXPECT_EQ(overview->products[2].maker, sqlLike);

  // Paged one machine at a time: each machine's current findings, in order.
  std::vector<std::string> rows;
  std::string after;
  for (int page = 0; page < 5; ++page) {
    auto last = store.exportRows(after, 1, [&](const ExportRow& row) {
      rows.push_back(row.hostName + " " + row.finding.product);
    });
    ASSERT_TRUE(last);
    if (last->empty()) break;
    after = *last;
  }
  EXPECT_EQ(rows,
            (std::vector<std::string>{"pc-01 Paint", "pc-01 Type", sqlLike + " " + controls}));

  EXPECT_EQ(counts(store), std::make_tuple(2, 5, 3 + 1 + 2 + 0 + 1));
  EXPECT_EQ(store.schemaVersion(), currentSchemaVersion());
}

// The store's running totals against the same sums counted again from
// every finding of every machine's current report, as the export pages
// through them. Machines whose current report found nothing have no rows.
inline void expectTotalsMatchRecount(ReportStore& store) {
  using Key = std::pair<std::string, std::string>;
  using Sums = std::pair<std::int64_t, std::int64_t>;  // findings, price
  std::map<Key, std::set<std::string>> hosts;
  std::map<Key, Sums> products;
  std::map<std::string, Sums> machines, recounted;
  std::string after;
  for (std::optional<std::string> last; !last || !last->empty(); after = *last) {
    last = store.exportRows(after, 3, [&](const ExportRow& row) {
      const Key key{row.finding.maker, row.finding.product};
      hosts[key].insert(row.hostName);
      for (Sums* sums : {&products[key], &recounted[row.hostName]})
        *sums = {sums->first + 1, sums->second + row.finding.priceHundredths.value_or(0)};
    });
    ASSERT_TRUE(last);
  }
  const auto overview = store.overview();
  ASSERT_TRUE(overview);
  ASSERT_FALSE(products.empty());
  using Product = std::tuple<std::string, std::string, std::int64_t, std::int64_t, std::int64_t>;
  std::vector<Product> expected, stored;
  for (const auto& [key, sums] : products)
    expected.emplace_back(key.first, key.second, static_cast<std::int64_t>(hosts[key].size()),
                          sums.first, sums.second);
  for (const ProductSummary& p : overview->products)
    stored.emplace_back(p.maker, p.product, p.machines, p.findings, p.priceHundredths);
  EXPECT_EQ(stored, expected);
  for (const MachineSummary& m : overview->machines)
    if (m.findings) machines[m.hostName] = {m.findings, m.priceHundredths};
  EXPECT_EQ(machines, recounted);
}

// A random sequence of reports: new scans that replace a machine's
// current report, late ones from a spool, clocks far ahead and the same
// report sent again. After it the running totals must equal the recount.
// Every n-th report (0: never) is scanned before its machine's latest, is an
// earlier report sent again, or claims a clock years ahead.
struct FleetHistory {
  const char* name;
  unsigned seed;
  int reports, hosts, lateEvery, duplicateEvery, aheadEvery;
};

inline const FleetHistory kFleetHistories[] = {
    {"everything, one machine", 5, 50, 1, 4, 5, 6},
    {"everything, a fleet", 6, 120, 12, 5, 6, 9},
};

inline void checkTotalsFollowHistory(ReportStore& store, const FleetHistory& history) {
  std::mt19937 random(history.seed);
  const auto pick = [&](int below) {
    return static_cast<int>(random() % static_cast<unsigned>(below));
  };
  const std::int64_t start = *parseUtcTimestamp("2026-11-01T00:00:00Z");
  std::vector<Report> sent;
  for (int step = 1; step <= history.reports; ++step) {
    const std::int64_t now = start + step * 3600;
    if (history.duplicateEvery && step % history.duplicateEvery == 0 && !sent.empty()) {
      ASSERT_EQ(store.insert(sent[static_cast<size_t>(pick(static_cast<int>(sent.size())))], now),
                ReportStore::Insert::kDuplicate);
      continue;
    }
    std::int64_t scanned = now - 60;
    if (history.lateEvery && step % history.lateEvery == 0) scanned = start - pick(30) * 86400;
    if (history.aheadEvery && step % history.aheadEvery == 0) scanned = now + 50LL * 365 * 86400;
    // A few makers and products, some found twice on one machine, some
    // without a price.
    Json findings = Json::array();
    for (int i = pick(6); i > 0; --i) {
      const int product = pick(7);
      findings.push_back(finding("Maker " + std::to_string(product % 3),
                                 "Product " + std::to_string(product),
                                 pick(4) == 0 ? Json(nullptr) : Json(pick(5000) / 4.0)));
    }
    sent.push_back(
        parsed(report(static_cast<unsigned>(step), "pc-" + std::to_string(pick(history.hosts)),
                      formatUtcTimestamp(scanned), std::move(findings))));
    ASSERT_EQ(store.insert(sent.back(), now), ReportStore::Insert::kStored);
  }
  expectTotalsMatchRecount(store);
}

// Both checks above, each on a store of its own that `open` makes fresh
// under the given name.
inline void checkStore(const std::function<std::unique_ptr<ReportStore>(std::string)>& open) {
  auto store = open("exact");
  ASSERT_TRUE(store);
  checkStoreBehaviour(*store);
  for (const FleetHistory& history : kFleetHistories) {
    SCOPED_TRACE(history.name);
    store = open("totals" + std::to_string(history.seed));
    ASSERT_TRUE(store);
    checkTotalsFollowHistory(*store, history);
  }
}

}  // namespace quarvel::server::testing
