#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "common/Log.h"
#include "settings/PropertyList.h"
#include "support/FileText.h"
#include "support/ScratchDir.h"

namespace quarvel {
namespace {

// The same document as the Python side builds below, kind for kind.
PlistValue everyKind() {
  return PlistValue::dictionary({
      {"yes", PlistValue::boolean(true)},
      {"no", PlistValue::boolean(false)},
      {"int", PlistValue::integer(42)},
      {"negative", PlistValue::integer(-7)},
      {"large", PlistValue::integer(std::int64_t{1} << 62)},
      {"lowest", PlistValue::integer(INT64_MIN)},
      {"real", PlistValue::real(3.25)},
      {"tiny", PlistValue::real(-2.5e-10)},
      {"third", PlistValue::real(1.0 / 3.0)},
      {"text", PlistValue::string("한글 café ✓ <&>")},
      {"empty", PlistValue::string("")},
      {"data", PlistValue::data({0x00, 0x01, 0xFF, 0x80})},
      {"leapDay", PlistValue::date({730902896.0})},          // 2024-02-29T12:34:56Z
      {"beforeEpoch", PlistValue::date({-31622401.0})},      // 1999-12-31T23:59:59Z
      {"distantFuture", PlistValue::date({63113904000.0})},  // 4001-01-01T00:00:00Z
      {"late", PlistValue::date({2506161600.0})},            // 2080-06-01T12:00:00Z
      {"early", PlistValue::date({-2551046400.0})},          // 1920-03-01T00:00:00Z
      {"huge", PlistValue::unsignedInteger(UINT64_MAX)},
      {"half", PlistValue::unsignedInteger(std::uint64_t{1} << 63)},
      {"up", PlistValue::real(INFINITY)},
      {"down", PlistValue::real(-INFINITY)},
      {"list",
       PlistValue::array({PlistValue::integer(1), PlistValue::string("two"),
                          PlistValue::array({PlistValue::real(3.5)}), PlistValue::array({})})},
      {"nested", PlistValue::dictionary(
                     {{"키", PlistValue::string("값")},
                      {"inner", PlistValue::dictionary({{"flag", PlistValue::boolean(false)}})},
                      {"hollow", PlistValue::dictionary({})}})},
  });
}

// With the Python side's entries that only the binary form holds.
PlistValue withBinaryOnly() {
  PlistDictionary all = *everyKind().asDictionary();
  all.insert({{"controls", PlistValue::string(std::string("a\0b\x01\x1f\x7f\u2028", 9))},
              {"crlf", PlistValue::string("one\r\ntwo\r")},
              {"fraction", PlistValue::date({725760000.5})}});  // 2024-01-01T00:00:00.5Z
  return PlistValue::dictionary(std::move(all));
}

// Builds the same document with plistlib and writes it as XML and binary,
// then loads the documents we wrote and checks that plistlib writes each
// back byte for byte as it writes its own (so True and 1 stay apart).
constexpr const char* kPythonSide = R"PY(
import datetime, plistlib, sys
doc = {
    "yes": True, "no": False, "int": 42, "negative": -7, "large": 1 << 62,
    "lowest": -(1 << 63), "real": 3.25, "tiny": -2.5e-10, "third": 1.0 / 3.0,
    "text": "한글 café ✓ <&>", "empty": "", "data": b"\x00\x01\xff\x80",
    "leapDay": datetime.datetime(2024, 2, 29, 12, 34, 56),
    "beforeEpoch": datetime.datetime(1999, 12, 31, 23, 59, 59),
    "distantFuture": datetime.datetime(4001, 1, 1), "late": datetime.datetime(2080, 6, 1, 12),
    "early": datetime.datetime(1920, 3, 1), "huge": (1 << 64) - 1, "half": 1 << 63,
    "up": float("inf"), "down": float("-inf"),
    "list": [1, "two", [3.5], []],
    "nested": {"키": "값", "inner": {"flag": False}, "hollow": {}},
}
# What only the binary form holds; plistlib writes it in binary alone.
extra = {
    "controls": "a\x00b\x01\x1f\x7f\u2028", "crlf": "one\r\ntwo\r",
    "fraction": datetime.datetime(2024, 1, 1, 0, 0, 0, 500000),
}
folder, fmt = sys.argv[1], plistlib.FMT_BINARY
for name, value, form in (("xml", doc, plistlib.FMT_XML), ("bin", dict(doc, **extra), fmt)):
    with open(folder + "/python." + name, "wb") as f:
        plistlib.dump(value, f, fmt=form)
    if len(sys.argv) > 2:
        with open(folder + "/ours." + name, "rb") as f:
            if plistlib.dumps(plistlib.load(f), fmt=fmt) != plistlib.dumps(value, fmt=fmt):
                sys.exit("ours." + name + " differs")
)PY";

// Both directions against plistlib, where python3 has it.
TEST(PropertyListTest, ReadsAndWritesWhatPlistlibDoes) {
  if (std::system("python3 -c 'import plistlib' >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "python3 with plistlib is not available";
  testing::ScratchDir folder;
  std::ofstream(folder / "side.py") << kPythonSide;
  const std::string run = "python3 '" + folder / "side.py" + "' '" + folder.path() + "'";
  ASSERT_EQ(std::system(run.c_str()), 0);
  for (const char* name : {"python.xml", "python.bin"}) {
    SCOPED_TRACE(name);
    std::optional<PlistValue> read = readPropertyList(testing::readFile(folder / name));
    ASSERT_TRUE(read.has_value());
    const bool xml = std::string(name) == "python.xml";
    EXPECT_TRUE(*read == (xml ? everyKind() : withBinaryOnly()));
  }

  std::optional<std::string> xml = writePropertyList(everyKind());
  std::optional<std::string> binary = writePropertyList(withBinaryOnly());
  ASSERT_TRUE(xml && binary);
  ASSERT_TRUE(xml->starts_with("<?xml")) << "XML holds every value of this one";
  ASSERT_TRUE(binary->starts_with("bplist00"));
  std::ofstream(folder / "ours.xml", std::ios::binary) << *xml;
  std::ofstream(folder / "ours.bin", std::ios::binary) << *binary;
  EXPECT_EQ(std::system((run + " check").c_str()), 0) << *xml;
}

// Each value alone in a dictionary: the form the writer picks for it, and
// that it reads back equal and writes back the same bytes.
TEST(PropertyListTest, EachValueKeepsItsFormAndReadsBackEqual) {
  const double nan = std::nan("");
  double otherNan;
  std::uint64_t bits = 0x7FF8000000000123;
  std::memcpy(&otherNan, &bits, sizeof otherNan);
  const struct {
    const char* what;
    PlistValue value;
    bool xml;
  } cases[] = {
      {"plain text", PlistValue::string("tab\tline\n<&>\"'"), true},
      {"CR", PlistValue::string("a\rb"), true},
      {"NUL", PlistValue::string(std::string("a\0b", 3)), false},
      {"other controls", PlistValue::string("\x01\x0b\x1f"), false},
      {"U+FFFE", PlistValue::string("\xEF\xBF\xBE"), false},
      {"control in a key", PlistValue::dictionary({{"k\x02", PlistValue::boolean(true)}}), false},
      {"lone surrogate", PlistValue::string("\xED\xA0\x80x"), false},
      {"year 1", PlistValue::date({-63113904000.0}), true},
      {"year 9999", PlistValue::date({252423993599.0}), true},
      {"year 10000", PlistValue::date({252423993600.0}), false},
      {"before year 1", PlistValue::date({-63113904001.0}), false},
      {"fractional date", PlistValue::date({0.25}), false},
      {"negative zero date", PlistValue::date({-0.0}), false},
      {"NaN date", PlistValue::date({nan}), false},
      {"unsigned", PlistValue::unsignedInteger(UINT64_MAX - 1), true},
      {"lowest", PlistValue::integer(INT64_MIN), true},
      {"NaN", PlistValue::real(nan), true},
      {"NaN with a payload", PlistValue::real(otherNan), false},
      {"negative zero", PlistValue::real(-0.0), true},
      {"smallest", PlistValue::real(4.9406564584124654e-324), true},
      {"data", PlistValue::data(PlistData(1000, 0xA5)), true},
      {"large string", PlistValue::string(std::string(70000, 'x') + "\xC3\xA9"), true},
      {"large binary string", PlistValue::string(std::string(70000, '\x01')), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const PlistValue document =
        PlistValue::dictionary({{"v", c.value}, {"n", PlistValue::integer(3)}});
    std::optional<std::string> first = writePropertyList(document);
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(first->starts_with("<?xml"), c.xml);
    std::optional<PlistValue> back = readPropertyList(*first);
    ASSERT_TRUE(back.has_value());
    EXPECT_TRUE(*back == document);
    EXPECT_EQ(writePropertyList(*back), first);
  }
}

// A binary document of the given objects (references `width` bytes wide,
// written by the caller), the first one on top.
std::string binaryDocument(const std::vector<std::string>& objects, int width = 1) {
  std::string out = "bplist00";
  std::vector<std::uint64_t> offsets;
  for (const std::string& object : objects) {
    offsets.push_back(out.size());
    out += object;
  }
  const std::uint64_t table = out.size();
  for (std::uint64_t offset : offsets)
    for (int i = 3; i >= 0; --i) out.push_back(static_cast<char>(offset >> (8 * i)));
  std::string trailer(32, '\0');
  trailer[6] = 4;
  trailer[7] = static_cast<char>(width);
  for (int i = 0; i < 8; ++i) {
    trailer[8 + i] = static_cast<char>(objects.size() >> (8 * (7 - i)));
    trailer[24 + i] = static_cast<char>(table >> (8 * (7 - i)));
  }
  return out + trailer;
}

std::string ref(std::uint64_t index, int width) {
  std::string out;
  for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<char>(index >> (8 * i)));
  return out;
}

// An array holding the next object, `levels` times, then true.
std::string deepBinary(std::uint64_t levels) {
  const int width = levels < 0xFFFF ? 2 : 4;
  std::vector<std::string> objects;
  for (std::uint64_t i = 0; i < levels; ++i) objects.push_back("\xA1" + ref(i + 1, width));
  objects.push_back("\x09");
  return binaryDocument(objects, width);
}

std::string deepXml(std::size_t levels) {
  std::string out = "<plist version=\"1.0\">";
  for (std::size_t i = 0; i < levels; ++i) out += "<array>";
  out += "<true/>";
  for (std::size_t i = 0; i < levels; ++i) out += "</array>";
  return out + "</plist>";
}

TEST(PropertyListTest, DamagedDocumentsReadAsAbsent) {
  const std::string good = *writePropertyList(everyKind());
  const std::string goodBinary = writeBinaryPropertyList(everyKind());
  std::string badTrailer = goodBinary;
  badTrailer[badTrailer.size() - 1] = '\x7F';  // table past the end
  const struct {
    const char* what;
    std::string bytes;
  } cases[] = {
      {"empty", ""},
      {"not a property list", "not a property list"},
      {"torn XML", good.substr(0, good.size() / 2)},
      {"unknown entity", "<plist><string>&nbsp;</string></plist>"},
      {"key without a value", "<plist><dict><key>a</key></dict></plist>"},
      {"value without a key", "<plist><dict><true/></dict></plist>"},
      {"two top values", "<plist><true/><false/></plist>"},
      {"element inside a string", "<plist><string>a<b/></string></plist>"},
      {"bad top value", "<plist><integer>x</integer></plist>"},
      {"header without a body", "bplist00"},
      {"torn binary", goodBinary.substr(0, goodBinary.size() - 8)},
      {"bad trailer", badTrailer},
      {"bad top object", binaryDocument({"\xA1\x05"}).replace(8, 1, "\x77")},
      {"string into the offset table", binaryDocument({"\x55"
                                                       "abcd"})},
      {"XML 257 deep", deepXml(257)},
      {"XML 200,000 deep", deepXml(200000)},
      {"binary 257 deep", deepBinary(257)},
      {"binary 200,000 deep", deepBinary(200000)},
      {"binary cycle", binaryDocument({std::string("\xA2\x00\x01", 3), "\x09"})},
      {"binary dictionary cycle", binaryDocument({std::string("\xD1\x01\x00", 3), "\x51k"})},
      // 40 arrays each holding the next one twice: 2^40 values from 200 bytes.
      {"binary expansion",
       [] {
         std::vector<std::string> objects;
         for (char i = 0; i < 40; ++i)
           objects.push_back(std::string("\xA2") + char(i + 1) + char(i + 1));
         objects.push_back("\x09");
         return binaryDocument(objects);
       }()},
      {"larger than the limit", std::string(kMaxPropertyListBytes + 1, ' ')},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_FALSE(readPropertyList(c.bytes).has_value());
  }
  EXPECT_TRUE(readPropertyList(deepXml(256)).has_value());
  EXPECT_TRUE(readPropertyList(deepBinary(256)).has_value());
}

// One unreadable value costs its entry; the rest of the document loads. In
// the binary objects "Tkeep" and "Sbad" are ASCII strings (markers 0x54 and
// 0x53: four and three characters).
TEST(PropertyListTest, AnUnreadableValueCostsOnlyItsEntry) {
  auto xml = [](const std::string& inner) {
    return "<?xml version=\"1.0\"?>\n<!DOCTYPE plist PUBLIC \"x\" \"y\">\n<plist version=\"1.0\">"
           "<dict><key>keep</key><integer>1</integer>" +
           inner + "</dict></plist>";
  };
  const PlistValue keep = PlistValue::integer(1);
  const struct {
    const char* what;
    std::string bytes;
    PlistDictionary read;  // besides "keep"
    const char* logged;    // null: nothing left out
  } cases[] = {
      {"XML integer", xml("<key>bad</key><integer>abc</integer>"), {}, "/bad"},
      {"XML integer past 64 bits",
       xml("<key>bad</key><integer>18446744073709551616</integer>"),
       {},
       "/bad"},
      {"XML date", xml("<key>bad</key><date>2024-02-30T00:00:00Z</date>"), {}, "/bad"},
      {"XML data", xml("<key>bad</key><data>QUJD*</data>"), {}, "/bad"},
      {"XML data padded inside", xml("<key>bad</key><data>QUJD=QUJ</data>"), {}, "/bad"},
      {"XML unknown element", xml("<key>bad</key><set><x/></set>"), {}, "/bad"},
      {"XML array element",
       xml("<key>list</key><array><real>1.5</real><real>one</real><true/></array>"),
       {{"list", PlistValue::array({PlistValue::real(1.5), PlistValue::boolean(true)})}},
       "/list[1]"},
      {"XML comments, CDATA, char refs, CRLF",
       xml("<!-- note --><key>s</key><string>a&#13;b\r\nc<![CDATA[<&>]]>&#x1F600;</string>"
           "<key>d</key><date>2080Z</date><key>h</key><integer>0x10</integer>"
           "<key>r</key><real> -infinity </real><key>b</key><data>QU\n JD</data>"
           "<key>p</key><data>QUI=</data>"),
       {{"s", PlistValue::string("a\rb\nc<&>\xF0\x9F\x98\x80")},
        {"d", PlistValue::date({2492985600.0})},
        {"h", PlistValue::integer(16)},
        {"r", PlistValue::real(-INFINITY)},
        {"b", PlistValue::data({'A', 'B', 'C'})},
        {"p", PlistValue::data({'A', 'B'})}},
       nullptr},
      {"XML after a byte order mark",
       "\xEF\xBB\xBF" + xml("<key>t</key><true/>"),
       {{"t", PlistValue::boolean(true)}},
       nullptr},
      {"binary bad marker",
       binaryDocument({"\xD2\x01\x02\x03\x04", "Tkeep", "Sbad", "\x10\x01", "\x77"}),
       {},
       "/bad"},
      {"binary reference past the objects",
       binaryDocument({"\xD2\x01\x02\x03\x09", "Tkeep", "Sbad", "\x10\x01"}),
       {},
       "/bad"},
      {"binary length past the table",
       binaryDocument({"\xD2\x01\x02\x03\x04", "Tkeep", "Sbad", "\x10\x01", "\x5F\x10\xFF"}),
       {},
       "/bad"},
      {"binary key that is no string",
       binaryDocument({"\xD2\x01\x03\x02\x02", "Tkeep", "\x10\x01", "\x10\x05"}),
       {},
       "(key 1)"},
      {"binary NUL in a key and a string",
       binaryDocument({"\xD2\x01\x02\x03\x04", "Tkeep", std::string("\x53k\0y", 4), "\x10\x01",
                       std::string("\x62\x00\x00\xD5\x5C", 5)}),
       {{std::string("k\0y", 3), PlistValue::string(std::string("\0\xED\x95\x9C", 4))}},
       nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    LogCapture log;
    std::optional<PlistValue> read = readPropertyList(c.bytes);
    ASSERT_TRUE(read.has_value());
    PlistDictionary expected = c.read;
    expected.emplace("keep", keep);
    EXPECT_TRUE(*read == PlistValue::dictionary(expected));
    if (c.logged) {
      ASSERT_EQ(log.lines().size(), 1u);
      EXPECT_TRUE(log.contains(c.logged)) << log.lines()[0];
    } else {
      EXPECT_TRUE(log.lines().empty());
    }
  }
}

TEST(PropertyListTest, TheWriterRefusesWhatTheReaderWould) {
  PlistValue value = PlistValue::boolean(true);
  for (int i = 0; i < 256; ++i) value = PlistValue::array({value});
  EXPECT_EQ(nestingDepth(value), 256);
  EXPECT_TRUE(writePropertyList(value).has_value());
  value = PlistValue::array({value});
  EXPECT_EQ(nestingDepth(value), 257);
  EXPECT_FALSE(writePropertyList(value).has_value());
}

}  // namespace
}  // namespace quarvel
