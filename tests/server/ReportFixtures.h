#pragma once
// Reports as machines send them, and the checks every report store must
// pass, shared by the SQLite and the PostgreSQL tests.

#include <gtest/gtest.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

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
      {"lists",
       {{"checklist", "2026.11.01"},
        {"userchecklist", nullptr},
        {"filter", nullptr},
        {"font", "7"}}},
      {"findings", std::move(findings)},
      {"totals", Json::object()},
      {"scan", {{"files", 10}}}};
}

inline Report parsed(const Json& json) {
  ReportReading reading = readReport(json.dump());
  EXPECT_TRUE(reading.report) << reading.error;
  return reading.report ? *reading.report : Report{};
}

// What every store must do with duplicates, clocks, hostile texts and sums.
inline void checkStoreBehaviour(ReportStore& store) {
  const std::int64_t kNow = *parseUtcTimestamp("2026-11-18T08:00:00Z");
  const Report first =
      parsed(report(1, "pc-01", "2026-11-18T08:00:00Z",
                    Json::array({finding("Acme", "Paint", 1200000), finding("Acme", "Type", 12.5),
                                 finding("다온테크", "Hangul Font", nullptr)})));
  ASSERT_EQ(store.insert(first, kNow), ReportStore::Insert::kStored);
  ASSERT_EQ(store.insert(first, kNow + 5), ReportStore::Insert::kDuplicate);
  auto health = store.health();
  ASSERT_TRUE(health);
  EXPECT_EQ(health->reports, 1);
  EXPECT_EQ(health->findings, 3);

  // A clock years ahead does not keep its report current: the next honest
  // scan replaces it, and last seen follows the receipts.
  ASSERT_EQ(store.insert(parsed(report(2, "pc-01", "2099-01-01T00:00:00Z",
                                       Json::array({finding("Acme", "Paint", 99)}))),
                         kNow + 100),
            ReportStore::Insert::kStored);
  ASSERT_EQ(store.insert(parsed(report(3, "pc-01", "2026-11-18T08:30:00Z",
                                       Json::array({finding("Acme", "Paint", 1200000),
                                                    finding("Acme", "Type", 12.5)}))),
                         kNow + 200),
            ReportStore::Insert::kStored);
  // An old report delivered late from the spool does not replace a newer one.
  ASSERT_EQ(
      store.insert(parsed(report(4, "pc-01", "2026-11-01T00:00:00Z", Json::array())), kNow + 300),
      ReportStore::Insert::kStored);

  // Texts that look like SQL or hold control characters come back exactly.
  const std::string sqlLike = "x'); DROP TABLE findings; --";
  const std::string controls = std::string("a\x01\x1f\x7f\tb\r\n\"\\") + "\u2028z";
  const Json places = Json::array({"/opt/it's \"here\"", controls});
  ASSERT_EQ(store.insert(parsed(report(5, sqlLike, "2026-11-18T09:00:00Z",
                                       Json::array({finding(sqlLike, controls, 0.01, places)}))),
                         kNow),
            ReportStore::Insert::kStored);
  auto hostile = store.machineFindings(sqlLike);
  ASSERT_TRUE(hostile);
  ASSERT_EQ(hostile->size(), 1u);
  EXPECT_EQ((*hostile)[0].maker, sqlLike);
  EXPECT_EQ((*hostile)[0].product, controls);
  EXPECT_EQ((*hostile)[0].where, (std::vector<std::string>{"/opt/it's \"here\"", controls}));
  EXPECT_EQ((*hostile)[0].priceHundredths, 1);
  EXPECT_EQ((*hostile)[0].type, "상용");

  auto overview = store.overview();
  ASSERT_TRUE(overview);
  ASSERT_EQ(overview->machines.size(), 2u);
  const MachineSummary& pc = overview->machines[0];
  EXPECT_EQ(pc.hostName, "pc-01");
  EXPECT_EQ(pc.lastSeen, kNow + 300);
  EXPECT_EQ(pc.scannedAt, "2026-11-18T08:30:00Z");
  EXPECT_EQ(pc.findings, 2);
  EXPECT_EQ(pc.priceHundredths, 120001250);
  ASSERT_EQ(overview->products.size(), 3u);
  EXPECT_EQ(overview->products[0].maker, "Acme");
  EXPECT_EQ(overview->products[0].product, "Paint");
  EXPECT_EQ(overview->products[0].machines, 1);
  EXPECT_EQ(overview->products[0].priceHundredths, 120000000);
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

  health = store.health();
  ASSERT_TRUE(health);
  EXPECT_TRUE(health->intact);
  EXPECT_EQ(health->machines, 2);
  EXPECT_EQ(health->reports, 5);
  EXPECT_EQ(health->findings, 3 + 1 + 2 + 0 + 1);
  EXPECT_EQ(store.schemaVersion(), currentSchemaVersion());
}

}  // namespace quarvel::server::testing
