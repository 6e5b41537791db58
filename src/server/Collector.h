#pragma once
// The collector behind `quarvel collect`: an HTTP server that receives the
// audit reports of an organisation's machines and shows what they found.
//
//   POST /api/reports      a report (Authorization: Bearer <enrolment secret>)
//   GET  /api/overview     JSON: per maker and product, per machine, stale machines
//   GET  /api/export.csv   every finding of every machine's current report
//   GET  /                 the overview as a self-contained HTML page
//
// The GET endpoints need the admin token (Authorization: Bearer <token>)
// when one is set, and otherwise answer loopback clients only. Every
// request has a size cap, a deadline and a rate per client address.
// Built on libmicrohttpd, like the list server.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "server/ReportStore.h"

namespace quarvel::server {

struct CollectLimits {
  int threads = 4;
  int maxConnections = 512;
  int maxPerAddress = 32;  // connections held at once from one address
  std::size_t maxBody = kMaxReportBytes;
  // The bodies of all requests being read, together: past it a body is cut
  // (its sender keeps the report for later), so a crowd of large uploads
  // costs this much memory, not maxConnections times maxBody.
  std::uint64_t maxBodiesInFlight = std::uint64_t{128} << 20;
  // From a connection's start, or its previous answer, until the answer to
  // its request is queued, body included; the connection is closed when
  // it passes, however steadily the bytes trickle in.
  std::chrono::milliseconds deadline{30000};
  std::chrono::seconds idle{10};  // of silence before a connection is closed
  // Requests per address: a bucket of `burst` refilled at `perMinute`.
  int perMinute = 600;
  int burst = 120;
  std::chrono::milliseconds grace{1000};  // after stop(), for the requests under way
};

struct CollectorOptions {
  std::string secret;      // the enrolment secret; must not be empty
  std::string adminToken;  // empty: GET endpoints answer loopback clients only
  int staleDays = 30;      // the overview's default for "not seen for N days"
  CollectLimits limits;
};

// The overview as JSON, with the machines not seen since `now - staleDays`
// days listed again under "stale". Pure.
std::string overviewJson(const Overview& overview, std::int64_t now, int staleDays);
// The same as a self-contained HTML page: no scripts, no outside
// resources, an inline SVG chart of the price sum per maker. Pure.
std::string overviewHtml(const Overview& overview, std::int64_t now, int staleDays);
// The findings of one machine as a JSON array. Pure.
std::string findingsJson(const std::vector<ReportFinding>& findings);

class Collector {
 public:
  // Serves `store`, which must outlive the collector.
  Collector(ReportStore& store, CollectorOptions options);
  ~Collector();  // stops
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  // Binds `address` on `port` (0 picks a free one) and serves on
  // background threads. Answers the bound port, or -1 when the secret is
  // empty or binding failed (logged).
  int start(const std::string& address, int port);
  // Stops serving: the port closes at once, requests under way get the
  // grace period, then connections are cut. Safe more than once, from any
  // thread but the server's own.
  void stop();

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace quarvel::server
