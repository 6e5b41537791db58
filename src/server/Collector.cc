#include "server/Collector.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <sodium.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "audit/AuditReport.h"
#include "common/Log.h"
#include "common/Platform.h"
#include "format/DataFileFormat.h"
#include "server/ListServer.h"
#include "server/ServerSockets.h"

namespace quarvel::server {
namespace {

// The name in front of the library's own log lines.
char kLogName[] = "collect";

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

constexpr std::int64_t kSecondsPerDay = 86400;

Json amount(std::int64_t hundredths) {
  if (hundredths % 100 == 0) return hundredths / 100;
  return static_cast<double>(hundredths) / 100.0;
}

// Equal in time independent of where they differ: both sides are hashed
// to one length first, so not even the length leaks.
bool sameSecret(std::string_view given, std::string_view expected) {
  std::array<unsigned char, crypto_generichash_BYTES> a{}, b{};
  crypto_generichash(a.data(), a.size(), reinterpret_cast<const unsigned char*>(given.data()),
                     given.size(), nullptr, 0);
  crypto_generichash(b.data(), b.size(), reinterpret_cast<const unsigned char*>(expected.data()),
                     expected.size(), nullptr, 0);
  return sodium_memcmp(a.data(), b.data(), a.size()) == 0;
}

// The token of an "Authorization: Bearer <token>" header; nothing without one.
std::optional<std::string_view> bearerToken(const char* header) {
  if (!header) return std::nullopt;
  std::string_view value(header);
  constexpr std::string_view kScheme = "bearer ";
  if (value.size() < kScheme.size()) return std::nullopt;
  for (size_t i = 0; i < kScheme.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(value[i])) != kScheme[i]) return std::nullopt;
  }
  value.remove_prefix(kScheme.size());
  while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
  while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
  return value;
}

// A bucket of requests per client address. Full buckets are forgotten
// when the table grows, so a crowd of addresses costs bounded memory.
class RateLimiter {
 public:
  RateLimiter(int perMinute, int burst)
      : perSecond_(std::max(1, perMinute) / 60.0), burst_(std::max(1, burst)) {}

  // Zero when a request may go ahead, else the seconds until one may.
  int take(const std::string& address) {
    const Clock::time_point now = Platform::current()->steadyNow();
    std::lock_guard lock(mutex_);
    if (buckets_.size() >= kMaxAddresses) forgetFull(now);
    auto [it, added] = buckets_.try_emplace(address, Bucket{static_cast<double>(burst_), now});
    Bucket& bucket = it->second;
    refill(bucket, now);
    if (bucket.tokens >= 1.0) {
      bucket.tokens -= 1.0;
      return 0;
    }
    return std::max(1, static_cast<int>(std::ceil((1.0 - bucket.tokens) / perSecond_)));
  }

 private:
  static constexpr size_t kMaxAddresses = 10000;
  struct Bucket {
    double tokens;
    Clock::time_point at;
  };
  void refill(Bucket& bucket, Clock::time_point now) const {
    const double seconds = std::chrono::duration<double>(now - bucket.at).count();
    bucket.tokens = std::min<double>(burst_, bucket.tokens + seconds * perSecond_);
    bucket.at = now;
  }
  void forgetFull(Clock::time_point now) {
    for (auto it = buckets_.begin(); it != buckets_.end();) {
      refill(it->second, now);
      it = it->second.tokens >= burst_ ? buckets_.erase(it) : std::next(it);
    }
    // Still full of busy addresses: the oldest state goes rather than memory.
    if (buckets_.size() >= kMaxAddresses) buckets_.clear();
  }

  const double perSecond_;
  const int burst_;
  std::mutex mutex_;
  std::unordered_map<std::string, Bucket> buckets_;  // guarded by mutex_
};

struct Request {
  std::string target;
  std::string method;
  std::string client;
  bool started = false;  // the header was seen and the request routed
  std::string body;      // a report being received
  unsigned status = 0;   // once answered
  std::size_t size = 0;
  std::uint64_t counted = 0;  // body bytes counted against the bodies in flight
};

// Spreadsheets run a cell starting with one of these as a formula; the
// export is opened in them, and the texts come from machines.
std::string spreadsheetSafe(std::string text) {
  if (!text.empty() && std::string_view("=+-@\t\r").find(text.front()) != std::string_view::npos)
    text.insert(text.begin(), '\'');
  return text;
}

std::string joinPlaces(const std::vector<std::string>& places) {
  std::string out;
  for (const std::string& place : places) {
    if (!out.empty()) out += "; ";
    out += place;
  }
  return out;
}

// One finding as a line of the CSV export.
std::string exportLine(const ExportRow& row) {
  const ReportFinding& f = row.finding;
  return audit::csvRow({spreadsheetSafe(row.hostName), row.scannedAt,
                        formatUtcTimestamp(row.lastSeen), f.kind, spreadsheetSafe(f.list),
                        std::to_string(f.record), spreadsheetSafe(f.id), spreadsheetSafe(f.maker),
                        spreadsheetSafe(f.product), spreadsheetSafe(f.version),
                        f.priceHundredths ? audit::Money{*f.priceHundredths}.toString() : "",
                        spreadsheetSafe(f.priceText), spreadsheetSafe(f.type),
                        spreadsheetSafe(f.group), spreadsheetSafe(joinPlaces(f.where))});
}

// Machines read from the store per batch of the export: a few MB of
// lines at a time, whatever the size of the fleet.
constexpr int kExportMachinesPerBatch = 50;

// The CSV export, read from the store a batch at a time as the client
// takes it.
struct ExportStream {
  ReportStore* store;
  std::string buffer;
  size_t offset = 0;
  std::string after;  // the last host name exported
  bool done = false;

  // The next batch into the buffer; false on a store failure.
  bool fill() {
    buffer.clear();
    offset = 0;
    auto last = store->exportRows(after, kExportMachinesPerBatch,
                                  [&](const ExportRow& row) { buffer += exportLine(row); });
    if (!last) return false;
    done = last->empty();
    after = std::move(*last);
    return true;
  }
};

ssize_t readExport(void* cls, std::uint64_t, char* out, size_t max) {
  auto* stream = static_cast<ExportStream*>(cls);
  while (stream->offset == stream->buffer.size()) {
    if (stream->done) return MHD_CONTENT_READER_END_OF_STREAM;
    if (!stream->fill()) {
      logf("collect: the export stopped: the store failed");
      return MHD_CONTENT_READER_END_WITH_ERROR;
    }
  }
  const size_t count = std::min(max, stream->buffer.size() - stream->offset);
  stream->buffer.copy(out, count, stream->offset);
  stream->offset += count;
  return static_cast<ssize_t>(count);
}

void freeExport(void* cls) { delete static_cast<ExportStream*>(cls); }

struct Answer {
  Answer(unsigned s, std::string b, std::string type = "application/json")
      : status(s), body(std::move(b)), contentType(std::move(type)) {}
  unsigned status;
  std::string body;
  std::string contentType;
  std::vector<std::pair<std::string, std::string>> headers;
  std::unique_ptr<ExportStream> stream;  // when set, the body comes from it
};

Answer jsonError(unsigned status, std::string_view message) {
  return {status, Json{{"error", message}}.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

}  // namespace

// The overview is written a row at a time rather than built as one
// document: at 10,000 machines the document's many small objects cost
// more than the query. Each value still goes through the JSON library.
std::string overviewJson(const Overview& overview, std::int64_t now, int staleDays) {
  std::string out;
  out.reserve(256 + 128 * overview.products.size() + 256 * overview.machines.size());
  const auto put = [&out](std::string_view key, const Json& value) {
    out += out.back() == '{' ? "\"" : ",\"";
    out += key;
    out += "\":";
    out += value.dump(-1, ' ', false, Json::error_handler_t::replace);
  };
  out += '{';
  put("generatedAt", formatUtcTimestamp(now));
  put("staleDays", staleDays);
  out += ",\"products\":[";
  for (const ProductSummary& p : overview.products) {
    out += out.back() == '[' ? "{" : ",{";
    put("maker", p.maker);
    put("product", p.product);
    put("machines", p.machines);
    put("findings", p.findings);
    put("price", amount(p.priceHundredths));
    out += '}';
  }
  out += "],\"machines\":[";
  const std::int64_t staleBefore = now - static_cast<std::int64_t>(staleDays) * kSecondsPerDay;
  for (const MachineSummary& m : overview.machines) {
    out += out.back() == '[' ? "{" : ",{";
    put("hostName", m.hostName);
    put("osVersion", m.osVersion);
    put("networkIdentity", m.networkIdentity);
    put("lastSeen", formatUtcTimestamp(m.lastSeen));
    put("scannedAt", m.scannedAt);
    put("findings", m.findings);
    put("price", amount(m.priceHundredths));
    out += '}';
  }
  out += "],\"stale\":[";
  for (const MachineSummary& m : overview.machines) {
    if (m.lastSeen >= staleBefore) continue;
    out += out.back() == '[' ? "{" : ",{";
    put("hostName", m.hostName);
    put("lastSeen", formatUtcTimestamp(m.lastSeen));
    put("daysUnseen", (now - m.lastSeen) / kSecondsPerDay);
    out += '}';
  }
  out += "]}\n";
  return out;
}

std::string findingsJson(const std::vector<ReportFinding>& findings) {
  Json out = Json::array();
  for (const ReportFinding& f : findings)
    out.push_back({{"kind", f.kind},
                   {"list", f.list},
                   {"record", f.record},
                   {"id", f.id},
                   {"maker", f.maker},
                   {"product", f.product},
                   {"version", f.version},
                   {"price", f.priceHundredths ? amount(*f.priceHundredths) : Json(nullptr)},
                   {"priceText", f.priceText},
                   {"type", f.type},
                   {"group", f.group},
                   {"where", f.where}});
  return out.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string overviewHtml(const Overview& overview, std::int64_t now, int staleDays) {
  using audit::escapeHtml;
  const auto money = [](std::int64_t hundredths) {
    return audit::Money{hundredths}.toString(true);
  };
  std::map<std::string, std::int64_t> byMaker;
  for (const ProductSummary& p : overview.products) byMaker[p.maker] += p.priceHundredths;
  std::vector<audit::ChartBar> bars;
  bars.reserve(byMaker.size());
  for (const auto& [maker, sum] : byMaker) bars.push_back({maker, audit::Money{sum}});
  std::stable_sort(bars.begin(), bars.end(), [](const auto& a, const auto& b) {
    return a.value.hundredths > b.value.hundredths;
  });
  const std::int64_t staleBefore = now - static_cast<std::int64_t>(staleDays) * kSecondsPerDay;
  std::size_t staleCount = 0;
  for (const MachineSummary& m : overview.machines) staleCount += m.lastSeen < staleBefore;

  std::string out =
      "<!DOCTYPE html>\n<html lang=\"ko\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<title>Quarvel fleet</title>\n<style>\n";
  out += audit::pageStyle();
  out += "tr.stale td{color:#a33}\n</style>\n</head>\n<body>\n<h1>Quarvel fleet</h1>\n";
  out += "<p class=\"meta\">" + escapeHtml(formatUtcTimestamp(now)) + " \u00b7 " +
         std::to_string(overview.machines.size()) + " machines \u00b7 " +
         std::to_string(staleCount) + " not seen for " + std::to_string(staleDays) + " days</p>\n";
  if (!bars.empty())
    out += "<h2>Price by maker</h2>\n" + audit::barChartSvg(bars, "Price sum per maker");
  out +=
      "<h2>Products</h2>\n<table class=\"products\">\n<thead><tr><th>Maker</th><th>Product</th>"
      "<th class=\"num\">Machines</th><th class=\"num\">Price</th></tr></thead>\n<tbody>\n";
  for (const ProductSummary& p : overview.products)
    out += "<tr><td>" + escapeHtml(p.maker) + "</td><td>" + escapeHtml(p.product) +
           "</td><td class=\"num\">" + std::to_string(p.machines) + "</td><td class=\"num\">" +
           money(p.priceHundredths) + "</td></tr>\n";
  out +=
      "</tbody>\n</table>\n<h2>Machines</h2>\n<table class=\"machines\">\n<thead><tr>"
      "<th>Host</th><th>System</th><th>Last seen</th><th>Scanned</th>"
      "<th class=\"num\">Findings</th><th class=\"num\">Price</th></tr></thead>\n<tbody>\n";
  for (const MachineSummary& m : overview.machines)
    out += std::string(m.lastSeen < staleBefore ? "<tr class=\"stale\">" : "<tr>") + "<td>" +
           escapeHtml(m.hostName) + "</td><td>" + escapeHtml(m.osVersion) + "</td><td>" +
           formatUtcTimestamp(m.lastSeen) + "</td><td>" + escapeHtml(m.scannedAt) +
           "</td><td class=\"num\">" + std::to_string(m.findings) + "</td><td class=\"num\">" +
           money(m.priceHundredths) + "</td></tr>\n";
  out += "</tbody>\n</table>\n</body>\n</html>\n";
  return out;
}

// What the library's callbacks share with the collector object.
struct Collector::State {
  State(ReportStore& s, CollectorOptions o)
      : store(s), options(std::move(o)), limiter(options.limits.perMinute, options.limits.burst) {}

  ReportStore& store;
  CollectorOptions options;
  RateLimiter limiter;
  MHD_Daemon* daemon = nullptr;
  std::atomic<std::uint64_t> bodiesInFlight{0};  // bytes of bodies being read

  // The open connections, for the deadline and the stop.
  ConnectionTracker connections{"collect", "no whole request"};

  Answer route(MHD_Connection* connection, Request& request);
  Answer receive(MHD_Connection* connection, Request& request);
  std::optional<Answer> refuseReader(MHD_Connection* connection, const Request& request);
};

namespace {

using State = Collector::State;

std::int64_t wallSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             Platform::current()->wallNow().time_since_epoch())
      .count();
}

MHD_Result queue(MHD_Connection* connection, Request& request, Answer answer) {
  MHD_Response* response = nullptr;
  if (ExportStream* stream = answer.stream.release()) {
    // The response owns the stream from here, and frees it when done.
    response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, 64 * 1024, &readExport, stream,
                                                 &freeExport);
    if (!response) delete stream;
  } else {
    response = MHD_create_response_from_buffer(answer.body.size(), answer.body.data(),
                                               MHD_RESPMEM_MUST_COPY);
  }
  if (!response) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.contentType.c_str());
  MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
  MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  for (const auto& [name, value] : answer.headers)
    MHD_add_response_header(response, name.c_str(), value.c_str());
  request.status = answer.status;
  request.size = answer.body.size();
  const MHD_Result queued = MHD_queue_response(connection, answer.status, response);
  MHD_destroy_response(response);
  return queued;
}

// Queues the answer; from then on the connection's deadline no longer
// runs: a large answer takes as long as the client takes to read it.
MHD_Result answer(State* state, MHD_Connection* connection, Request& request, Answer reply) {
  const MHD_Result queued = queue(connection, request, std::move(reply));
  state->connections.settle(connection);
  return queued;
}

MHD_Result onRequest(void* cls, MHD_Connection* connection, const char*, const char* method,
                     const char*, const char* data, size_t* uploadSize, void** context) {
  auto* state = static_cast<State*>(cls);
  auto* request = static_cast<Request*>(*context);
  if (!request) return MHD_NO;
  if (request->status != 0) {
    *uploadSize = 0;  // a body nobody asked for, after the answer was queued
    return MHD_YES;
  }
  if (!request->started) {
    request->started = true;
    request->method = method ? method : "";
    request->client = clientAddress(connection);
    // Behind a reverse proxy on this machine, the client is the address
    // the proxy names (nginx: X-Forwarded-For $remote_addr), and it is not
    // a local client, whatever the socket says.
    if (isLoopback(request->client)) {
      if (const char* forwarded =
              MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "X-Forwarded-For")) {
        std::string_view last(forwarded);
        if (const size_t comma = last.rfind(','); comma != std::string_view::npos)
          last.remove_prefix(comma + 1);
        while (!last.empty() && last.front() == ' ') last.remove_prefix(1);
        while (!last.empty() && last.back() == ' ') last.remove_suffix(1);
        request->client = "via proxy " + escapeForLog(last.substr(0, 64));
      }
    }
    if (auto refusal = state->refuseReader(connection, *request))
      return answer(state, connection, *request, std::move(*refusal));
    if (request->method == "POST") return MHD_YES;  // the body follows
    return answer(state, connection, *request, state->route(connection, *request));
  }
  if (*uploadSize > 0) {
    // Without a Content-Length (chunked), the cap is only known here; such
    // a client is cut rather than read to the end.
    if (request->body.size() + *uploadSize > state->options.limits.maxBody) {
      logf("collect: %s: body over %zu bytes, closing", request->client.c_str(),
           state->options.limits.maxBody);
      return MHD_NO;
    }
    const std::uint64_t before = state->bodiesInFlight.fetch_add(*uploadSize);
    request->counted += *uploadSize;
    if (before + *uploadSize > state->options.limits.maxBodiesInFlight) {
      logf("collect: %s: bodies in flight over %llu bytes, closing", request->client.c_str(),
           static_cast<unsigned long long>(state->options.limits.maxBodiesInFlight));
      return MHD_NO;
    }
    request->body.append(data, *uploadSize);
    *uploadSize = 0;
    return MHD_YES;
  }
  return answer(state, connection, *request, state->receive(connection, *request));
}

void onCompleted(void* cls, MHD_Connection* connection, void** context,
                 MHD_RequestTerminationCode code) {
  auto* state = static_cast<State*>(cls);
  auto* request = static_cast<Request*>(*context);
  *context = nullptr;
  if (!request) return;
  state->bodiesInFlight.fetch_sub(request->counted);
  const std::string target = escapeForLog(request->target);
  if (request->status != 0)
    logf("collect: %s \"%s %s\" %u %zu%s", request->client.c_str(),
         escapeForLog(request->method).c_str(), target.c_str(), request->status, request->size,
         code == MHD_REQUEST_TERMINATED_COMPLETED_OK ? "" : " (cut)");
  else
    logf("collect: %s \"%s\" no answer (cut)", clientAddress(connection).c_str(), target.c_str());
  delete request;
  state->connections.restart(connection);
}

}  // namespace

// Refusals decided from the header alone, before any body is read: the
// rate, the secret or token, a declared body over the cap.
std::optional<Answer> State::refuseReader(MHD_Connection* connection, const Request& request) {
  if (const int wait = limiter.take(request.client)) {
    Answer answer = jsonError(MHD_HTTP_TOO_MANY_REQUESTS, "too many requests");
    answer.headers.emplace_back(MHD_HTTP_HEADER_RETRY_AFTER, std::to_string(wait));
    return answer;
  }
  const RequestTarget target = parseRequestTarget(request.target);
  const auto token =
      bearerToken(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Authorization"));
  if (target.path == datafile::kReportsEndpoint) {
    if (request.method != "POST") {
      Answer answer = jsonError(MHD_HTTP_METHOD_NOT_ALLOWED, "use POST");
      answer.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, "POST");
      return answer;
    }
    if (!token || !sameSecret(*token, options.secret))
      return jsonError(MHD_HTTP_UNAUTHORIZED, "missing or wrong enrolment secret");
    const char* length =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    if (length) {
      char* end = nullptr;
      errno = 0;
      const unsigned long long declared = std::strtoull(length, &end, 10);
      if (errno != 0 || end == length || declared > options.limits.maxBody)
        return jsonError(MHD_HTTP_CONTENT_TOO_LARGE, "report larger than the collector takes");
    }
    return std::nullopt;
  }
  if (request.method != "GET" && request.method != "HEAD") {
    Answer answer = jsonError(MHD_HTTP_METHOD_NOT_ALLOWED, "use GET");
    answer.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    return answer;
  }
  if (options.adminToken.empty()) {
    if (!isLoopback(request.client))
      return jsonError(MHD_HTTP_FORBIDDEN, "only from this machine without an admin token");
  } else if (!token || !sameSecret(*token, options.adminToken)) {
    Answer answer = jsonError(MHD_HTTP_UNAUTHORIZED, "missing or wrong admin token");
    answer.headers.emplace_back(MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Bearer");
    return answer;
  }
  return std::nullopt;
}

Answer State::route(MHD_Connection*, Request& request) {
  const RequestTarget target = parseRequestTarget(request.target);
  int staleDays = options.staleDays;
  if (auto it = target.params.find("staleDays"); it != target.params.end()) {
    char* end = nullptr;
    const long days = std::strtol(it->second.c_str(), &end, 10);
    if (it->second.empty() || *end != '\0' || days < 0 || days > 36500)
      return jsonError(MHD_HTTP_BAD_REQUEST, "staleDays is a number of days, 0 to 36500");
    staleDays = static_cast<int>(days);
  }
  const std::int64_t now = wallSeconds();
  if (target.path == "/api/overview" || target.path == "/") {
    if (auto it = target.params.find("machine"); target.path != "/" && it != target.params.end()) {
      auto findings = store.machineFindings(it->second);
      if (!findings) return jsonError(MHD_HTTP_SERVICE_UNAVAILABLE, "the store is unavailable");
      return {MHD_HTTP_OK, findingsJson(*findings)};
    }
    auto overview = store.overview();
    if (!overview) return jsonError(MHD_HTTP_SERVICE_UNAVAILABLE, "the store is unavailable");
    if (target.path == "/api/overview")
      return {MHD_HTTP_OK, overviewJson(*overview, now, staleDays)};
    Answer page{MHD_HTTP_OK, overviewHtml(*overview, now, staleDays), "text/html; charset=utf-8"};
    // The page needs nothing but its own inline style and SVG.
    page.headers.emplace_back("Content-Security-Policy",
                              "default-src 'none'; style-src 'unsafe-inline'; img-src data:");
    return page;
  }
  if (target.path == "/api/export.csv") {
    auto stream = std::make_unique<ExportStream>();
    stream->store = &store;
    // The first batch is read before answering, so that a store that is
    // down answers 503 rather than a cut-off file.
    if (!stream->fill()) return jsonError(MHD_HTTP_SERVICE_UNAVAILABLE, "the store is unavailable");
    stream->buffer.insert(0, audit::csvRow({"Host", "Scanned at", "Last seen", "Kind", "List",
                                            "Record", "Id", "Maker", "Product", "Version", "Price",
                                            "Price text", "Type", "Group", "Where"}));
    Answer answer{MHD_HTTP_OK, "", "text/csv; charset=utf-8"};
    answer.stream = std::move(stream);
    answer.headers.emplace_back("Content-Disposition",
                                "attachment; filename=\"quarvel-fleet.csv\"");
    return answer;
  }
  return jsonError(MHD_HTTP_NOT_FOUND, "no such endpoint");
}

Answer State::receive(MHD_Connection* connection, Request& request) {
  ReportReading reading = readReport(request.body);
  request.body = std::string();  // the report's copy is all that is needed now
  if (!reading.report) return jsonError(MHD_HTTP_BAD_REQUEST, reading.error);
  const Report& report = *reading.report;
  const char* key = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Idempotency-Key");
  if (key && report.reportId != key)
    return jsonError(MHD_HTTP_BAD_REQUEST, "Idempotency-Key differs from reportId");
  const std::int64_t now = wallSeconds();
  if (report.scannedAtSeconds > now + kSecondsPerDay)
    logf(
        "collect: %s: %s says it was scanned at %s, ahead of this clock; last seen counts "
        "from receipt",
        request.client.c_str(), escapeForLog(report.hostName).c_str(), report.scannedAt.c_str());
  switch (store.insert(report, now)) {
    case ReportStore::Insert::kStored:
      return {MHD_HTTP_CREATED, Json{{"stored", true}, {"reportId", report.reportId}}.dump()};
    case ReportStore::Insert::kDuplicate:
      return {MHD_HTTP_OK,
              Json{{"stored", false}, {"duplicate", true}, {"reportId", report.reportId}}.dump()};
    case ReportStore::Insert::kFailed:
      break;
  }
  return jsonError(MHD_HTTP_SERVICE_UNAVAILABLE, "the store is unavailable");
}

Collector::Collector(ReportStore& store, CollectorOptions options)
    : state_(std::make_unique<State>(store, std::move(options))) {}

Collector::~Collector() { stop(); }

int Collector::start(const std::string& address, int port) {
  State& state = *state_;
  if (state.daemon) return -1;
  if (state.options.secret.empty()) {
    logf("collect: no enrolment secret, not starting");
    return -1;
  }
  if (sodium_init() < 0) return -1;
  const CollectLimits& limits = state.options.limits;
  const int listenFd = listenOn(address, port, 1024);
  if (listenFd < 0) {
    logf("collect: cannot listen on %s:%d", escapeForLog(address).c_str(), port);
    return -1;
  }
  const int maxConnections = std::max(1, limits.maxConnections);
  const int threads = std::clamp(limits.threads, 1, maxConnections);
  MHD_OptionItem pool[] = {
      {threads > 1 ? MHD_OPTION_THREAD_POOL_SIZE : MHD_OPTION_END, threads, nullptr},
      {MHD_OPTION_END, 0, nullptr}};
  sigset_t pipe, previous;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, &previous);
  state.daemon = MHD_start_daemon(
      MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC | MHD_USE_ERROR_LOG, 0, nullptr, nullptr,
      &onRequest, &state, MHD_OPTION_EXTERNAL_LOGGER, &logLibraryMessage, kLogName,
      MHD_OPTION_LISTEN_SOCKET, listenFd, MHD_OPTION_ARRAY, pool, MHD_OPTION_CONNECTION_LIMIT,
      static_cast<unsigned>(maxConnections), MHD_OPTION_PER_IP_CONNECTION_LIMIT,
      static_cast<unsigned>(std::max(1, limits.maxPerAddress)), MHD_OPTION_CONNECTION_TIMEOUT,
      static_cast<unsigned>(std::max<long long>(1, limits.idle.count())),
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<size_t>(64 * 1024),
      MHD_OPTION_NOTIFY_CONNECTION, &ConnectionTracker::notify, &state.connections,
      MHD_OPTION_NOTIFY_COMPLETED, &onCompleted, &state, MHD_OPTION_URI_LOG_CALLBACK,
      &startRequest<Request>, nullptr, MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1, MHD_OPTION_END);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (!state.daemon) {
    ::close(listenFd);
    return -1;
  }
  const int bound = boundPort(listenFd);
  // A request not answered within the deadline, however steadily its
  // bytes trickle in, is cut.
  state.connections.start(limits.deadline);
  return bound;
}

void Collector::stop() {
  State& state = *state_;
  if (!state.daemon) return;
  const int listenFd = MHD_quiesce_daemon(state.daemon);
  if (listenFd >= 0) ::shutdown(listenFd, SHUT_RDWR);
  state.connections.waitForClose(Clock::now() + state.options.limits.grace);
  state.connections.stop();
  MHD_stop_daemon(state.daemon);
  state.daemon = nullptr;
  if (listenFd >= 0) ::close(listenFd);
}

}  // namespace quarvel::server
