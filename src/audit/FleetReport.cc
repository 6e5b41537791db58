#include "audit/FleetReport.h"

#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <nlohmann/json.hpp>

#include "audit/AuditReport.h"
#include "format/DataFileFormat.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/CommonLib.h"

namespace quarvel::audit {

MachineFacts gatherMachineFacts() {
  MachineFacts facts;
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) == 0) facts.hostName = name;
  facts.networkIdentity = CVUserDefaults::standardUserDefaults()->IPAddress();
  facts.osVersion = CommonLib::getOSXVersion();
  return facts;
}

std::optional<std::string> newReportId() {
  std::array<unsigned char, 16> bytes{};
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t got = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    filled += static_cast<std::size_t>(got);
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);  // version 4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789abcdef";
  std::string id;
  id.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) id += '-';
    id += kHex[bytes[i] >> 4];
    id += kHex[bytes[i] & 0x0f];
  }
  return id;
}

bool isReportId(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    if (dash ? c != '-' : !hex) return false;
  }
  return text[14] == '4' && std::string_view("89ab").find(text[19]) != std::string_view::npos;
}

std::string utcTimeStamp(std::chrono::system_clock::time_point when) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
  std::tm utc{};
  if (!::gmtime_r(&seconds, &utc)) return "1970-01-01T00:00:00Z";
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

std::string formatFleetReport(const AuditResult& result, const FleetReportInfo& info) {
  using Json = nlohmann::ordered_json;
  // The audit's own JSON read back, so that its three members stay exactly
  // what `--json` prints. Its text is valid UTF-8 by construction.
  const Json audit = Json::parse(formatJson(result), nullptr, false);
  auto version = [](const std::optional<std::string>& v) { return v ? Json(*v) : Json(nullptr); };
  Json doc = {{"format", datafile::kReportFormatVersion},
              {"reportId", info.reportId},
              {"machine",
               {{"hostName", info.machine.hostName},
                {"networkIdentity", info.machine.networkIdentity},
                {"osVersion", info.machine.osVersion}}},
              {"scannedAt", utcTimeStamp(info.scannedAt)},
              {"lists",
               {{"checklist", version(info.lists.checkList)},
                {"userchecklist", version(info.lists.userCheckList)},
                {"filter", version(info.lists.filter)},
                {"font", version(info.lists.font)}}}};
  for (const char* member : {"findings", "totals", "scan"}) {
    const bool present = audit.is_object() && audit.contains(member);
    doc[member] = present ? audit[member] : member[0] == 'f' ? Json::array() : Json::object();
  }
  return doc.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace quarvel::audit
