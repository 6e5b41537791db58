#include "SettingsTool.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

#include "common/StringUtil.h"
#include "settings/HostEnvironment.h"
#include "settings/WorkFolders.h"

namespace quarvel::cli {

namespace {

// Seconds between 1970-01-01 and 2001-01-01, where property-list dates count from.
constexpr std::int64_t kReferenceDate = 978307200;

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    // Control characters (a NUL too) are shown escaped, not sent raw to the terminal.
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
      out += escaped;
    } else {
      if (c == '"' || c == '\\') out.push_back('\\');
      out.push_back(c);
    }
  }
  return out + "\"";
}

std::string formatReal(double value) {
  char text[40];
  std::snprintf(text, sizeof text, "%.17g", value);
  // Prefer the shortest text that reads back to the same value.
  for (int digits = 1; digits < 17; ++digits) {
    char shorter[40];
    std::snprintf(shorter, sizeof shorter, "%.*g", digits, value);
    if (std::strtod(shorter, nullptr) == value) return shorter;
  }
  return text;
}

std::string formatDate(double seconds) {
  std::time_t unix = static_cast<std::time_t>(std::floor(seconds)) + kReferenceDate;
  std::tm utc{};
  if (!gmtime_r(&unix, &utc)) return formatReal(seconds);
  char text[40];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

std::optional<PlistValue> fromJson(const nlohmann::json& j) {
  switch (j.type()) {
    case nlohmann::json::value_t::boolean:
      return PlistValue::boolean(j.get<bool>());
    case nlohmann::json::value_t::number_integer:
      return PlistValue::integer(j.get<std::int64_t>());
    case nlohmann::json::value_t::number_unsigned:
      return PlistValue::unsignedInteger(j.get<std::uint64_t>());
    case nlohmann::json::value_t::number_float:
      return PlistValue::real(j.get<double>());
    case nlohmann::json::value_t::string:
      return PlistValue::string(j.get<std::string>());
    case nlohmann::json::value_t::array: {
      PlistArray items;
      for (const auto& item : j) {
        auto value = fromJson(item);
        if (!value) return std::nullopt;
        items.push_back(std::move(*value));
      }
      return PlistValue::array(std::move(items));
    }
    case nlohmann::json::value_t::object: {
      PlistDictionary entries;
      for (const auto& [key, item] : j.items()) {
        auto value = fromJson(item);
        if (!value) return std::nullopt;
        entries.insert_or_assign(key, std::move(*value));
      }
      return PlistValue::dictionary(std::move(entries));
    }
    default:
      return std::nullopt;  // null and binary have no property-list kind
  }
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string describePaths(const CVUserDefaults& defaults) {
  auto environment = HostEnvironment::current();
  std::string out;
  auto line = [&out](const char* name, const std::optional<std::string>& path) {
    out += std::string(name) + ": " + orNull(path) + "\n";
  };
  out += std::string("portable: ") + (isPortableRun(*environment) ? "yes" : "no") + "\n";
  line("bundlePath", environment->bundlePath());
  line("domainFile", CVUserDefaults::persistentDomainPath(CVUserDefaults::kDomainName));
  line("defaultPath", defaults.defaultPath());
  line("checkOutPath", defaults.checkOutPath());
  line("IPTFolderPath", defaults.IPTFolderPath());
  line("TLSFolderPath", defaults.TLSFolderPath());
  line("RSTFolderPath", defaults.RSTFolderPath());
  line("tempIPTFolderPath", defaults.tempIPTFolderPath());
  line("tempTLSFolderPath", defaults.tempTLSFolderPath());
  line("tempRSTFolderPath", defaults.tempRSTFolderPath());
  line("LOGSFolderPath", defaults.LOGSFolderPath());
  line("libraryPath", defaults.libraryPath());
  line("checkListFilePath", defaults.checkListFilePath());
  line("packageFilePath", defaults.packageFilePath());
  line("filterFilePath", defaults.filterFilePath());
  line("fontListFilePath", defaults.fontListFilePath());
  line("userCheckListFilePath", defaults.userCheckListFilePath());
  line("windowPackageFilePath", defaults.windowPackageFilePath());
  line("verFilePath", defaults.verFilePath());
  line("editionFilePath", defaults.editionFilePath());
  return out;
}

std::string describeValue(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::None:
      return "(null)";
    case PlistValue::Kind::Boolean:
      return value.boolValue() ? "YES" : "NO";
    case PlistValue::Kind::Integer:
      return value.isUnsignedInteger() ? std::to_string(value.unsignedIntegerValue())
                                       : std::to_string(value.integerValue());
    case PlistValue::Kind::Real:
      return formatReal(value.doubleValue());
    case PlistValue::Kind::String:
      return quoted(*value.asString());
    case PlistValue::Kind::Data: {
      static const char* kHex = "0123456789abcdef";
      std::string out = "<";
      for (std::uint8_t b : *value.asData()) {
        out.push_back(kHex[b >> 4]);
        out.push_back(kHex[b & 15]);
      }
      return out + ">";
    }
    case PlistValue::Kind::Date:
      return formatDate(value.asDate()->secondsSinceReferenceDate);
    case PlistValue::Kind::URL:
      return "<url:" + value.asURL()->text + ">";
    case PlistValue::Kind::Array: {
      std::vector<std::string> items;
      for (const PlistValue& item : *value.asArray()) items.push_back(describeValue(item));
      return items.empty() ? "()" : "( " + join(items, ", ") + " )";
    }
    case PlistValue::Kind::Dictionary: {
      std::string out = "{";
      for (const auto& [key, item] : *value.asDictionary())
        out += " " + quoted(key) + " = " + describeValue(item) + ";";
      return out + (value.asDictionary()->empty() ? "}" : " }");
    }
  }
  return "(null)";
}

std::string describeSettings(const PlistDictionary& settings) {
  std::string out;
  for (const auto& [key, value] : settings) out += key + " = " + describeValue(value) + "\n";
  return out;
}

std::optional<PlistValue> parseValue(const std::string& text, const std::string& type) {
  if (type == "string") return PlistValue::string(text);
  if (type == "url") return PlistValue::url(text);
  if (type == "bool") {
    std::string lower = lowercase(text);
    if (lower == "yes" || lower == "true" || lower == "1") return PlistValue::boolean(true);
    if (lower == "no" || lower == "false" || lower == "0") return PlistValue::boolean(false);
    return std::nullopt;
  }
  if (type == "int") {
    if (text.empty()) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || std::isspace(static_cast<unsigned char>(text[0])))
      return std::nullopt;
    return PlistValue::integer(value);
  }
  if (type == "real") {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return std::nullopt;
    char* end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    if (*end != '\0' || !std::isfinite(value)) return std::nullopt;
    return PlistValue::real(value);
  }
  if (type == "date") {
    std::tm utc{};
    const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    if (!end || *end != '\0') return std::nullopt;
    std::time_t unix = timegm(&utc);
    return PlistValue::date({static_cast<double>(unix - kReferenceDate)});
  }
  if (type == "data") {
    if (text.size() % 2 != 0) return std::nullopt;
    PlistData bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
      int high = hexDigit(text[i]), low = hexDigit(text[i + 1]);
      if (high < 0 || low < 0) return std::nullopt;
      bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return PlistValue::data(std::move(bytes));
  }
  if (type == "json") {
    nlohmann::json parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) return std::nullopt;
    return fromJson(parsed);
  }
  return std::nullopt;
}

}  // namespace quarvel::cli
