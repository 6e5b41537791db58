// The XML property-list form: read with GLib's GMarkup (an event parser that
// keeps its own element stack, so nesting costs no recursion), written here.
#include <glib.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "settings/PropertyList.h"
#include "settings/PropertyListCodec.h"

namespace quarvel {

namespace plist_codec {

namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

// Decimal or 0x-hexadecimal, with a sign; -2^63 up to 2^64-1.
std::optional<PlistValue> parseInteger(std::string_view text) {
  text = trimmed(text);
  bool negative = false;
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty() || text[0] == '+' || text[0] == '-') return std::nullopt;
  std::uint64_t magnitude = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (!negative) return PlistValue::unsignedInteger(magnitude);
  if (magnitude > std::uint64_t{1} << 63) return std::nullopt;
  return PlistValue::integer(static_cast<std::int64_t>(0 - magnitude));
}

std::optional<double> parseReal(std::string_view text) {
  text = trimmed(text);
  bool negative = false;
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  if (text.empty() || text[0] == '+' || text[0] == '-') return std::nullopt;
  double value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (end != text.data() + text.size()) return std::nullopt;
  if (ec == std::errc::result_out_of_range) {
    // Past the range: the infinity or zero it rounds to, as strtod reads it.
    value = std::strtod(std::string(text).c_str(), nullptr);
  } else if (ec != std::errc()) {
    return std::nullopt;
  }
  return negative ? -value : value;
}

int base64Digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// Base64 with white space anywhere and the padding optional; anything else is
// no data.
std::optional<PlistData> parseBase64(std::string_view text) {
  PlistData out;
  std::uint32_t bits = 0;
  int count = 0, padding = 0;
  for (char c : text) {
    if (isSpace(c)) continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    int digit = base64Digit(c);
    if (digit < 0 || padding > 0) return std::nullopt;
    bits = (bits << 6) | static_cast<std::uint32_t>(digit);
    if (++count == 4) {
      out.push_back(static_cast<std::uint8_t>(bits >> 16));
      out.push_back(static_cast<std::uint8_t>(bits >> 8));
      out.push_back(static_cast<std::uint8_t>(bits));
      bits = 0;
      count = 0;
    }
  }
  if (count == 1 || padding > 2 || (padding > 0 && count + padding != 4)) return std::nullopt;
  if (count == 2) out.push_back(static_cast<std::uint8_t>(bits >> 4));
  if (count == 3) {
    out.push_back(static_cast<std::uint8_t>(bits >> 10));
    out.push_back(static_cast<std::uint8_t>(bits >> 2));
  }
  return out;
}

enum class Element {
  Plist,
  Dict,
  Array,
  Key,
  String,
  Integer,
  Real,
  True,
  False,
  Date,
  Data,
  Unknown
};

Element elementOf(const char* name) {
  static const struct {
    const char* name;
    Element element;
  } kNames[] = {
      {"plist", Element::Plist}, {"dict", Element::Dict},     {"array", Element::Array},
      {"key", Element::Key},     {"string", Element::String}, {"integer", Element::Integer},
      {"real", Element::Real},   {"true", Element::True},     {"false", Element::False},
      {"date", Element::Date},   {"data", Element::Data}};
  for (const auto& n : kNames)
    if (std::strcmp(name, n.name) == 0) return n.element;
  return Element::Unknown;
}

struct Frame {
  Element element;
  int depth;         // of the value; a key's is its dictionary's
  std::string path;  // where the value lies, for the log
  std::string text;  // a scalar's or key's text
  PlistArray items;
  PlistDictionary entries;
  std::optional<std::string> pendingKey;
  std::size_t childCount = 0;
  bool skipping = false;  // inside an unknown element: left out whole
};

struct XmlReader {
  DropLog& log;
  std::vector<Frame> stack;
  bool sawPlist = false;
  bool finished = false;  // the top value has ended
  std::optional<PlistValue> result;

  static XmlReader& of(gpointer data) { return *static_cast<XmlReader*>(data); }

  static void fail(GError** error, const char* what) {
    g_set_error_literal(error, G_MARKUP_ERROR, G_MARKUP_ERROR_INVALID_CONTENT, what);
  }

  static void start(GMarkupParseContext*, const char* name, const char**, const char**,
                    gpointer data, GError** error) {
    XmlReader& r = of(data);
    Element element = elementOf(name);
    if (r.finished) return fail(error, "content after the top value");
    if (r.stack.empty()) {
      if (element == Element::Plist && !r.sawPlist) {
        r.sawPlist = true;
        r.stack.push_back({Element::Plist, -1, "", {}, {}, {}, {}});
        return;
      }
      r.stack.push_back({element, 0, "", {}, {}, {}, {}});
      r.stack.back().skipping = element == Element::Unknown;
      if (element == Element::Key) return fail(error, "a key outside a dictionary");
      return;
    }
    Frame& parent = r.stack.back();
    if (parent.skipping) {
      if (parent.depth >= kMaxPropertyListDepth) return fail(error, "nested too deep");
      r.stack.push_back({Element::Unknown, parent.depth + 1, parent.path, {}, {}, {}, {}});
      r.stack.back().skipping = true;
      return;
    }
    if (parent.element == Element::Plist) {
      if (parent.childCount++ > 0) return fail(error, "more than one top value");
    } else if (parent.element != Element::Dict && parent.element != Element::Array) {
      return fail(error, "an element inside a value that holds text");
    }
    if (element == Element::Key) {
      if (parent.element != Element::Dict || parent.pendingKey)
        return fail(error, "a key out of place");
      r.stack.push_back({Element::Key, parent.depth, parent.path, {}, {}, {}, {}});
      return;
    }
    if (element == Element::Plist) return fail(error, "a plist element inside a value");
    if (parent.element == Element::Dict && !parent.pendingKey)
      return fail(error, "a dictionary value without a key");
    int depth = parent.depth + 1;
    if (depth > kMaxPropertyListDepth) return fail(error, "nested too deep");
    std::string path = parent.path;
    if (parent.element == Element::Dict)
      path += "/" + *parent.pendingKey;
    else if (parent.element == Element::Array)
      path += "[" + std::to_string(parent.childCount++) + "]";
    r.stack.push_back({element, depth, std::move(path), {}, {}, {}, {}});
    r.stack.back().skipping = element == Element::Unknown;
  }

  static void text(GMarkupParseContext*, const char* text, gsize length, gpointer data,
                   GError** error) {
    XmlReader& r = of(data);
    if (r.stack.empty()) return;
    Frame& top = r.stack.back();
    if (top.skipping) return;
    switch (top.element) {
      case Element::Plist:
      case Element::Dict:
      case Element::Array:
        for (gsize i = 0; i < length; ++i)
          if (!isSpace(text[i])) return fail(error, "text between elements");
        return;
      default:
        top.text.append(text, length);
    }
  }

  // The finished value of a frame, or why it cannot be read.
  static std::optional<PlistValue> valueOf(Frame& f, const char*& why) {
    why = nullptr;
    switch (f.element) {
      case Element::Dict:
        return PlistValue::dictionary(std::move(f.entries));
      case Element::Array:
        return PlistValue::array(std::move(f.items));
      case Element::String:
        return PlistValue::string(std::move(f.text));
      case Element::True:
      case Element::False:
        if (!trimmed(f.text).empty()) break;
        return PlistValue::boolean(f.element == Element::True);
      case Element::Integer:
        if (auto v = parseInteger(f.text)) return v;
        break;
      case Element::Real:
        if (auto v = parseReal(f.text)) return PlistValue::real(*v);
        break;
      case Element::Date:
        if (auto v = parseXmlDate(trimmed(f.text))) return PlistValue::date({*v});
        break;
      case Element::Data:
        if (auto v = parseBase64(f.text)) return PlistValue::data(std::move(*v));
        break;
      default:
        why = "unknown element";
        return std::nullopt;
    }
    why = "not a valid value of its kind";
    return std::nullopt;
  }

  static void end(GMarkupParseContext*, const char* name, gpointer data, GError** error) {
    XmlReader& r = of(data);
    Frame done = std::move(r.stack.back());
    r.stack.pop_back();
    if (done.element == Element::Plist) {
      if (done.childCount == 0) return fail(error, "no value in the plist element");
      return;
    }
    if (!r.stack.empty() && r.stack.back().skipping) return;
    if (done.element == Element::Key) {
      r.stack.back().pendingKey = std::move(done.text);
      return;
    }
    if (done.element == Element::Dict && done.pendingKey)
      return fail(error, "a key without a value");
    const char* why = nullptr;
    std::optional<PlistValue> value = valueOf(done, why);
    if (!value) {
      r.log.drop(done.path, std::string(why) + " <" + name + ">");
    }
    if (r.stack.empty() || r.stack.back().element == Element::Plist) {
      r.finished = true;
      r.result = std::move(value);
      return;
    }
    Frame& parent = r.stack.back();
    if (parent.element == Element::Dict) {
      if (value) parent.entries.insert_or_assign(std::move(*parent.pendingKey), std::move(*value));
      parent.pendingKey.reset();
    } else if (value) {
      parent.items.push_back(std::move(*value));
    }
  }
};

void appendEscaped(std::string& out, std::string_view text) {
  // Characters XML cannot carry (and bad UTF-8) become U+FFFD; the writer
  // only sends such strings here when the binary form was not chosen.
  for (std::size_t i = 0; i < text.size();) {
    std::int32_t c = decodeUtf8(text, i);
    if (c < 0) {
      ++i;
      out += "\xEF\xBF\xBD";
      continue;
    }
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '\r':
        out += "&#13;";
        break;  // a raw CR would read back as LF
      default:
        if ((c < 0x20 && c != '\t' && c != '\n') || c == 0xFFFE || c == 0xFFFF)
          out += "\xEF\xBF\xBD";
        else
          appendUtf8(out, static_cast<std::uint32_t>(c));
    }
  }
}

std::string formatReal(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "+infinity" : "-infinity";
  char text[64];
  auto [end, ec] = std::to_chars(text, text + sizeof text, value);  // shortest that reads back
  return std::string(text, ec == std::errc() ? end : text);
}

std::string base64(const PlistData& data) {
  gchar* encoded = g_base64_encode(data.data(), data.size());
  std::string out = encoded;
  g_free(encoded);
  return out;
}

void writeXmlValue(std::string& out, const PlistValue& value, int indent) {
  out.append(static_cast<std::size_t>(indent), '\t');
  auto simple = [&](const char* tag, std::string_view body, bool escape) {
    out += "<";
    out += tag;
    out += ">";
    if (escape)
      appendEscaped(out, body);
    else
      out += body;
    out += "</";
    out += tag;
    out += ">\n";
  };
  switch (value.kind()) {
    case PlistValue::Kind::None:
      out += "<string></string>\n";
      return;
    case PlistValue::Kind::Boolean:
      out += value.boolValue() ? "<true/>\n" : "<false/>\n";
      return;
    case PlistValue::Kind::Integer:
      simple("integer",
             value.isUnsignedInteger() ? std::to_string(value.unsignedIntegerValue())
                                       : std::to_string(value.integerValue()),
             false);
      return;
    case PlistValue::Kind::Real:
      simple("real", formatReal(value.doubleValue()), false);
      return;
    case PlistValue::Kind::String:
      simple("string", *value.asString(), true);
      return;
    case PlistValue::Kind::URL:
      simple("string", value.asURL()->text, true);
      return;
    case PlistValue::Kind::Data:
      simple("data", base64(*value.asData()), false);
      return;
    case PlistValue::Kind::Date:
      simple("date", formatXmlDate(value.asDate()->secondsSinceReferenceDate), false);
      return;
    case PlistValue::Kind::Array: {
      const PlistArray& items = *value.asArray();
      if (items.empty()) {
        out += "<array/>\n";
        return;
      }
      out += "<array>\n";
      for (const PlistValue& item : items) writeXmlValue(out, item, indent + 1);
      out.append(static_cast<std::size_t>(indent), '\t');
      out += "</array>\n";
      return;
    }
    case PlistValue::Kind::Dictionary: {
      const PlistDictionary& entries = *value.asDictionary();
      bool any = false;
      for (const auto& [key, item] : entries) {
        if (item.isNone()) continue;
        if (!any) out += "<dict>\n";
        any = true;
        out.append(static_cast<std::size_t>(indent) + 1, '\t');
        out += "<key>";
        appendEscaped(out, key);
        out += "</key>\n";
        writeXmlValue(out, item, indent + 1);
      }
      if (!any) {
        out += "<dict/>\n";
        return;
      }
      out.append(static_cast<std::size_t>(indent), '\t');
      out += "</dict>\n";
      return;
    }
  }
}

}  // namespace

std::optional<PlistValue> readXml(std::string_view bytes, DropLog& log) {
  if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);  // a UTF-8 byte order mark
  // XML reads every raw CR (alone or before LF) as LF; only "&#13;" is a CR.
  std::string normalized;
  if (std::memchr(bytes.data(), '\r', bytes.size())) {
    normalized.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (bytes[i] != '\r') {
        normalized.push_back(bytes[i]);
      } else {
        normalized.push_back('\n');
        if (i + 1 < bytes.size() && bytes[i + 1] == '\n') ++i;
      }
    }
    bytes = normalized;
  }
  XmlReader reader{log, {}, false, false, std::nullopt};
  static const GMarkupParser kParser = {&XmlReader::start, &XmlReader::end, &XmlReader::text,
                                        nullptr, nullptr};
  std::unique_ptr<GMarkupParseContext, void (*)(GMarkupParseContext*)> context(
      g_markup_parse_context_new(&kParser, G_MARKUP_TREAT_CDATA_AS_TEXT, &reader, nullptr),
      g_markup_parse_context_free);
  GError* error = nullptr;
  bool ok = g_markup_parse_context_parse(context.get(), bytes.data(),
                                         static_cast<gssize>(bytes.size()), &error) &&
            g_markup_parse_context_end_parse(context.get(), &error);
  if (error) g_error_free(error);
  if (!ok || !reader.finished) return std::nullopt;
  return std::move(reader.result);
}

}  // namespace plist_codec

std::string writeXmlPropertyList(const PlistValue& value) {
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n";
  plist_codec::writeXmlValue(out, value, 0);
  out += "</plist>\n";
  return out;
}

}  // namespace quarvel
