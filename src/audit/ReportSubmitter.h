#pragma once
// Delivers audit reports to a collector: `POST <base>/api/reports` with the
// site's enrolment secret as a bearer token and the reportId as the
// idempotency key, through the library's HTTP client and the platform's
// performHttp (so a test answers in libcurl's place).
//
// The collector's answers: 200 (already stored) and 201 (stored) deliver a
// report; 400 and 413 refuse it for good; anything else (no connection, a
// time-out, 401, 403, 408, 429, 5xx) leaves it for a later attempt.
//
// Failures are answered, never thrown. Functions may be called from any
// thread; a spool's delivery excludes other processes through its lease.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "audit/ReportSpool.h"

namespace quarvel::audit {

struct Collector {
  std::string url;     // the collector's base ("http://host:8470") or the full path
  std::string secret;  // readSecretFile()
  // No byte moving for this long fails an exchange, connecting included;
  // the whole exchange is bounded by totalLimit.
  std::chrono::milliseconds idleTimeout{std::chrono::seconds(15)};
  std::chrono::milliseconds totalLimit{std::chrono::seconds(60)};
};

// The enrolment secret: the file's text with trailing CR, LF, space and tab
// removed. Nothing, with the reason in `error`, when the file cannot be
// read, is larger than kMaxSecretFileBytes, or the secret is empty or holds
// a control character (it goes into a header line).
std::optional<std::string> readSecretFile(const std::string& path, std::string& error);

// The address reports are posted to: the base with "/api/reports" appended
// (one trailing slash dropped first), or the URL as it is when it already
// ends with that path.
std::string reportsUrl(std::string_view base);

enum class Delivery {
  Delivered,  // stored now or before (200, 201)
  Refused,    // refused for good (400, 413)
  Kept,       // not delivered this time; try again later
};

struct DeliveryAnswer {
  Delivery delivery = Delivery::Kept;
  std::string detail;  // "HTTP 503", libcurl's words for a failed exchange, ...
};

// Posts one report body. Blocks for at most the collector's limits.
DeliveryAnswer postReport(const Collector& collector, const std::string& reportId,
                          const std::string& body);

struct FlushOutcome {
  std::size_t delivered = 0;
  std::size_t refused = 0;  // refused (by the collector, or damaged): in rejected
  std::size_t left = 0;     // still waiting in the spool
  bool busy = false;        // another process held the spool: nothing was sent
  std::string stopReason;   // why sending stopped early ("" when it did not)
};

// Sends the spool's reports oldest first, after trimming it to its bounds.
// A delivered report is removed and a refused one moved to rejected; the
// first answer that keeps a report ends the run (the collector is down,
// busy or refuses this machine), so that a dead collector costs one
// time-out rather than one per report. Waits up to `leaseWait` for another
// process that sends from the same spool.
FlushOutcome flushSpool(ReportSpool& spool, const Collector& collector,
                        std::chrono::milliseconds leaseWait);

}  // namespace quarvel::audit
