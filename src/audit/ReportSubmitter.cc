#include "audit/ReportSubmitter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/HttpClient.h"
#include "common/Log.h"
#include "common/Platform.h"
#include "format/DataFileFormat.h"

namespace quarvel::audit {

namespace {

// The collector's answer bodies are a line of JSON; nothing more is kept.
constexpr std::uint64_t kMaxAnswerBytes = 64 * 1024;

}  // namespace

std::optional<std::string> readSecretFile(const std::string& path, std::string& error) {
  const int fd =
      Platform::current()->openAt(AT_FDCWD, path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK, 0);
  if (fd < 0) {
    error = "cannot open the secret file " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::string text(datafile::kMaxSecretFileBytes + 1, '\0');
  std::size_t have = 0;
  struct stat facts {};
  const bool regular = ::fstat(fd, &facts) == 0 && S_ISREG(facts.st_mode);
  while (regular && have < text.size()) {
    const ssize_t got = ::read(fd, text.data() + have, text.size() - have);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    have += static_cast<std::size_t>(got);
  }
  ::close(fd);
  if (!regular) {
    error = "the secret file " + path + " is not a regular file";
    return std::nullopt;
  }
  if (have > datafile::kMaxSecretFileBytes) {
    error = "the secret file " + path + " is larger than " +
            std::to_string(datafile::kMaxSecretFileBytes) + " bytes";
    return std::nullopt;
  }
  text.resize(have);
  while (!text.empty() && std::string_view("\r\n \t").find(text.back()) != std::string_view::npos)
    text.pop_back();
  if (text.empty()) {
    error = "the secret file " + path + " holds no secret";
    return std::nullopt;
  }
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      error = "the secret in " + path + " holds a control character";
      return std::nullopt;
    }
  }
  return text;
}

std::string reportsUrl(std::string_view base) {
  if (base.ends_with(datafile::kReportsEndpoint)) return std::string(base);
  if (base.ends_with('/')) base.remove_suffix(1);
  return std::string(base) + std::string(datafile::kReportsEndpoint);
}

DeliveryAnswer postReport(const Collector& collector, const std::string& reportId,
                          const std::string& body) {
  HttpExchange::Options options;
  options.method = "POST";
  options.body = body;
  options.idleTimeout = collector.idleTimeout;
  options.totalLimit = collector.totalLimit;
  options.maxBodyBytes = kMaxAnswerBytes;
  options.headers = {"Content-Type: application/json", "Authorization: Bearer " + collector.secret,
                     "Idempotency-Key: " + reportId,
                     // No "100 Continue" round trip before the body.
                     "Expect:"};
  std::string answer;
  HttpExchange exchange(reportsUrl(collector.url), std::move(options),
                        [&answer](std::string_view piece) {
                          answer.append(piece);
                          return true;
                        });
  const auto code = static_cast<CURLcode>(Platform::current()->performHttp(exchange));
  const long status = exchange.status();
  // An answer cut short still tells the status, which alone decides.
  if (code != CURLE_OK && status == 0) return {Delivery::Kept, exchange.describe(code)};
  const std::string detail = "HTTP " + std::to_string(status);
  if (status == 200 || status == 201) return {Delivery::Delivered, detail};
  if (status == 400 || status == 413) {
    // The collector's reason, when it gave one, goes into the warning.
    constexpr std::size_t kReasonBytes = 200;
    return {Delivery::Refused,
            answer.empty() ? detail : detail + " " + answer.substr(0, kReasonBytes)};
  }
  return {Delivery::Kept, detail};
}

FlushOutcome flushSpool(ReportSpool& spool, const Collector& collector,
                        std::chrono::milliseconds leaseWait) {
  FlushOutcome outcome;
  std::optional<ReportSpool::Lease> lease = spool.lease(leaseWait);
  if (!lease) {
    outcome.busy = true;
    outcome.left = spool.pending().size();
    return outcome;
  }
  spool.trim(*lease);
  for (const ReportSpool::Entry& entry : spool.pending()) {
    std::optional<std::string> body = spool.read(*lease, entry);
    if (!body) {  // gone, or damaged and moved aside
      const std::string aside = spool.rejectedFolder() + "/" + entry.reportId + ".json";
      if (::access(aside.c_str(), F_OK) == 0) ++outcome.refused;
      continue;
    }
    const DeliveryAnswer answer = postReport(collector, entry.reportId, *body);
    if (answer.delivery == Delivery::Delivered) {
      ++outcome.delivered;
      (void)spool.remove(*lease, entry);
    } else if (answer.delivery == Delivery::Refused) {
      ++outcome.refused;
      (void)spool.reject(*lease, entry, answer.detail);
    } else {
      outcome.stopReason = answer.detail;
      logf("report %s not delivered (%s); it stays in %s", entry.reportId.c_str(),
           answer.detail.c_str(), spool.folder().c_str());
      break;
    }
  }
  outcome.left = spool.pending().size();
  return outcome;
}

}  // namespace quarvel::audit
