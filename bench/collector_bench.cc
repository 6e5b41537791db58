// The collector's store at fleet scale: 10,000 machines each sending one
// report of 200 findings, stored into SQLite and into PostgreSQL (a
// throw-away server on loopback, when PostgreSQL 15 is installed), then
// the overview over those 10,000 machines. A plain program: each figure is
// one long run, which Google Benchmark's repetitions would only multiply.
//
//   collector_bench [MACHINES] [FINDINGS]   (defaults 10000 200)

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "server/Collector.h"
#include "server/PostgresServer.h"
#include "server/ReportSchema.h"
#include "server/ReportStore.h"
#include "support/AuditFixtures.h"

using namespace quarvel::server;
using Clock = std::chrono::steady_clock;

namespace {

// A report as `audit --submit` sends it: makers and products drawn from a
// catalogue of 500 products, so the overview has real groups to add up.
std::string reportBody(unsigned machine, int findings) {
  std::string body = "{\"format\":1,\"reportId\":\"";
  char id[40];
  std::snprintf(id, sizeof id, "%08x-0000-4000-8000-%012x", machine, machine);
  body += id;
  body += "\",\"machine\":{\"hostName\":\"pc-" + std::to_string(machine) +
          "\",\"networkIdentity\":\"10.1.2.3<br>00:11:22:33:44:55\",\"osVersion\":\"Debian "
          "12\"},\"scannedAt\":\"2026-11-18T08:00:00Z\",\"lists\":{\"checklist\":\"2026.11\","
          "\"userchecklist\":null,\"filter\":\"3\",\"font\":\"7\"},\"findings\":[";
  for (int i = 0; i < findings; ++i) {
    const unsigned product = (machine * 7 + static_cast<unsigned>(i) * 13) % 500;
    if (i) body += ',';
    body += "{\"kind\":\"software\",\"list\":\"checklist\",\"record\":" + std::to_string(product) +
            ",\"id\":\"DB" + std::to_string(product) + "\",\"maker\":\"Maker " +
            std::to_string(product % 40) + "\",\"product\":\"Product " + std::to_string(product) +
            "\",\"version\":\"1." + std::to_string(i % 10) +
            "\",\"price\":" + std::to_string(10000 + product * 100) + ",\"priceText\":\"" +
            std::to_string(10000 + product * 100) +
            "\",\"type\":\"commercial\",\"group\":\"Office\",\"where\":[\"/opt/product" +
            std::to_string(product) + "/bin/app\"]}";
  }
  return body + "],\"totals\":{},\"scan\":{\"files\":120000}}";
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

void measure(const char* name, ReportStore& store, const std::vector<std::string>& bodies,
             int findings) {
  std::printf("%s\n", name);
  const auto start = Clock::now();
  double parsing = 0;
  for (const std::string& body : bodies) {
    const auto before = Clock::now();
    ReportReading reading = readReport(body);
    parsing += seconds(Clock::now() - before);
    if (!reading.report ||
        store.insert(*reading.report, 1795000000) != ReportStore::Insert::kStored) {
      std::fprintf(stderr, "  insert failed: %s\n", reading.error.c_str());
      std::exit(1);
    }
  }
  const double total = seconds(Clock::now() - start);
  std::printf(
      "  ingest:   %zu reports x %d findings in %.1f s: %.0f reports/s, %.0f findings/s "
      "(validation %.1f s of it)\n",
      bodies.size(), findings, total, bodies.size() / total, bodies.size() * findings / total,
      parsing);
  for (int round = 0; round < 3; ++round) {
    const auto before = Clock::now();
    auto overview = store.overview();
    const double query = seconds(Clock::now() - before);
    const auto json = overviewJson(*overview, 1795000000, 30);
    const double answer = seconds(Clock::now() - before);
    std::printf(
        "  overview: %zu machines, %zu products: query %.3f s, with the JSON %.3f s (%zu bytes)\n",
        overview->machines.size(), overview->products.size(), query, answer, json.size());
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each figure as it comes, also into a file
  const unsigned machines = argc > 1 ? static_cast<unsigned>(std::atoi(argv[1])) : 10000;
  const int findings = argc > 2 ? std::atoi(argv[2]) : 200;
  std::vector<std::string> bodies;
  size_t bytes = 0;
  for (unsigned m = 0; m < machines; ++m) {
    bodies.push_back(reportBody(m + 1, findings));
    bytes += bodies.back().size();
  }
  std::printf("%u reports, %.1f MB of JSON\n", machines, bytes / 1e6);

  quarvel::testing::TempTree tree;
  {
    auto store = openSqliteStore(tree.path("collect.sqlite"));
    if (!store) return 1;
    measure("SQLite (WAL, synchronous=NORMAL)", *store, bodies, findings);
  }
  if (::access((std::string(testing::kPostgresBin) + "/initdb").c_str(), X_OK) != 0) {
    std::printf("PostgreSQL: not installed, skipped\n");
    return 0;
  }
  testing::PostgresServer server;
  if (!server.running()) {
    std::printf("PostgreSQL: did not start\n");
    return 1;
  }
  auto store = openPostgresStore(server.freshDatabase("bench"));
  if (!store) return 1;
  measure("PostgreSQL 15 (loopback TCP, fsync off)", *store, bodies, findings);
  return 0;
}
