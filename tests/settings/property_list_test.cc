#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "common/Log.h"
#include "settings/PropertyList.h"
#include "support/FileText.h"
#include "support/ScratchDir.h"

namespace quarvel {
namespace {

using V = PlistValue;

// plistlib writes one document as XML and, with what only the binary form
// holds, as binary; asked again, it loads what we wrote back from each and
// checks that it writes that byte for byte as it writes its own (so True and
// 1 stay apart).
constexpr const char* kPythonSide = R"PY(
import plistlib, sys
from datetime import datetime as d
doc = {
    "yes": True, "no": False, "int": 42, "negative": -7, "large": 1 << 62,
    "lowest": -(1 << 63), "real": 3.25, "tiny": -2.5e-10, "third": 1.0 / 3.0,
    "text": "한글 café ✓ <&>", "empty": "", "data": b"\x00\x01\xff\x80",
    "leapDay": d(2024, 2, 29, 12, 34, 56), "beforeEpoch": d(1999, 12, 31, 23, 59, 59),
    "distantFuture": d(4001, 1, 1), "late": d(2080, 6, 1, 12), "early": d(1920, 3, 1),
    "huge": (1 << 64) - 1, "half": 1 << 63, "up": float("inf"), "down": float("-inf"),
    "list": [1, "two", [3.5], []], "nested": {"키": "값", "inner": {"flag": False}, "hollow": {}},
}
extra = {"controls": "a\x00b\x01\x1f\x7f\u2028", "crlf": "one\r\ntwo\r",
         "fraction": d(2024, 1, 1, 0, 0, 0, 500000)}
folder, fmt = sys.argv[1], plistlib.FMT_BINARY
for name, value, form in (("xml", doc, plistlib.FMT_XML), ("bin", dict(doc, **extra), fmt)):
    if len(sys.argv) == 2:
        with open(folder + "/python." + name, "wb") as f:
            plistlib.dump(value, f, fmt=form)
    else:
        with open(folder + "/ours." + name, "rb") as f:
            if plistlib.dumps(plistlib.load(f), fmt=fmt) != plistlib.dumps(value, fmt=fmt):
                sys.exit("ours." + name + " differs")
)PY";

// Both directions against plistlib, where python3 has it; our two readers
// must also agree on the entries both documents hold (the binary form keeps
// a date as its seconds, the XML form spells it out).
TEST(PropertyListTest, ReadsAndWritesWhatPlistlibDoes) {
  if (std::system("python3 -c 'import plistlib' >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "python3 with plistlib is not available";
  testing::ScratchDir folder;
  std::ofstream(folder / "side.py") << kPythonSide;
  const std::string run = "python3 '" + folder / "side.py" + "' '" + folder.path() + "'";
  ASSERT_EQ(std::system(run.c_str()), 0);
  const auto xml = readPropertyList(testing::readFile(folder / "python.xml"));
  const auto binary = readPropertyList(testing::readFile(folder / "python.bin"));
  ASSERT_TRUE(xml && binary);
  PlistDictionary shared = *binary->asDictionary();
  for (const char* key : {"controls", "crlf", "fraction"}) EXPECT_EQ(shared.erase(key), 1u);
  EXPECT_TRUE(*xml == V::dictionary(shared));

  const auto ourXml = writePropertyList(*xml), ourBinary = writePropertyList(*binary);
  ASSERT_TRUE(ourXml && ourBinary);
  EXPECT_TRUE(ourXml->starts_with("<?xml")) << "XML holds every value of this one";
  EXPECT_TRUE(ourBinary->starts_with("bplist00"));
  std::ofstream(folder / "ours.xml", std::ios::binary) << *ourXml;
  std::ofstream(folder / "ours.bin", std::ios::binary) << *ourBinary;
  EXPECT_EQ(std::system((run + " check").c_str()), 0) << *ourXml;
}

// Each value alone in a dictionary: the form the writer picks for it, and
// that it reads back equal and writes back the same bytes.
TEST(PropertyListTest, EachValueKeepsItsFormAndReadsBackEqual) {
  const double nan = std::nan("");
  const double otherNan = std::bit_cast<double>(std::uint64_t{0x7FF8000000000123});
  const struct {
    const char* what;
    V value;
    bool xml;
  } cases[] = {
      {"plain text", V::string("tab\tline\n<&>\"'"), true},
      {"CR", V::string("a\rb"), true},
      {"NUL", V::string(std::string("a\0b", 3)), false},
      {"U+FFFE", V::string("\xEF\xBF\xBE"), false},
      {"control in a key", V::dictionary({{"k\x02", V::boolean(true)}}), false},
      {"lone surrogate", V::string("\xED\xA0\x80x"), false},
      {"year 1", V::date({-63113904000.0}), true},
      {"year 9999", V::date({252423993599.0}), true},
      {"year 10000", V::date({252423993600.0}), false},
      {"before year 1", V::date({-63113904001.0}), false},
      {"fractional date", V::date({0.25}), false},
      {"negative zero date", V::date({-0.0}), false},
      {"NaN date", V::date({nan}), false},
      {"NaN", V::real(nan), true},
      {"NaN with a payload", V::real(otherNan), false},
      {"negative zero", V::real(-0.0), true},
      {"data", V::data(PlistData(1000, 0xA5)), true},
      {"large string", V::string(std::string(70000, 'x') + "\xC3\xA9"), true},
      {"large binary string", V::string(std::string(70000, '\x01')), false},
  };
  for (const auto& c : cases) {
    const V document = V::dictionary({{"v", c.value}, {"n", V::integer(3)}});
    const std::optional<std::string> first = writePropertyList(document);
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(first->starts_with("<?xml"), c.xml) << c.what;
    const std::optional<V> back = readPropertyList(*first);
    ASSERT_TRUE(back == document) << c.what;
    EXPECT_EQ(writePropertyList(*back), first);
  }
}

// `value` as `width` big-endian bytes.
std::string bigEndian(std::uint64_t value, int width) {
  std::string out;
  for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<char>(value >> (8 * i)));
  return out;
}

// A binary document of the given objects (references `width` bytes wide,
// written by the caller), the first one on top. The trailer: six unused
// bytes, the offsets' width (4), the references', the object count, the top
// object (0) and where the offset table starts.
std::string binaryDocument(const std::vector<std::string>& objects, int width = 1) {
  std::string out = "bplist00", table;
  for (const std::string& object : objects) {
    table += bigEndian(out.size(), 4);
    out += object;
  }
  return out + table + std::string(6, '\0') + '\4' + static_cast<char>(width) +
         bigEndian(objects.size(), 8) + std::string(8, '\0') + bigEndian(out.size(), 8);
}

// An array holding the next object (`twice`: twice over), `levels` times,
// then true.
std::string deepBinary(std::uint64_t levels, bool twice = false) {
  const int width = levels < 0xFFFF ? 2 : 4;
  std::vector<std::string> objects;
  for (std::uint64_t i = 1; i <= levels; ++i) {
    const std::string next = bigEndian(i, width);
    objects.push_back(twice ? "\xA2" + next + next : "\xA1" + next);
  }
  objects.push_back("\x09");
  return binaryDocument(objects, width);
}

std::string deepXml(std::size_t levels) {
  std::string open, close;
  for (std::size_t i = 0; i < levels; ++i) open += "<array>", close += "</array>";
  return "<plist version=\"1.0\">" + open + "<true/>" + close + "</plist>";
}

TEST(PropertyListTest, DamagedDocumentsReadAsAbsent) {
  const V document = V::dictionary({{"list", V::array({V::integer(1), V::string("two")})},
                                    {"nested", V::dictionary({{"flag", V::boolean(false)}})}});
  const std::string good = *writePropertyList(document);
  const std::string goodBinary = writeBinaryPropertyList(document);
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
      {"references nine bytes wide", binaryDocument({"\x09"}, 9)},
      {"offset into the table", binaryDocument({"\x09"}).replace(9, 4, bigEndian(9, 4))},
      {"bad top object", binaryDocument({"\xA1\x05"}).replace(8, 1, "\x77")},
      {"string into the offset table", binaryDocument({"Uabcd"})},
      {"XML 257 deep", deepXml(257)},
      {"XML 200,000 deep", deepXml(200000)},
      {"binary 257 deep", deepBinary(257)},
      {"binary 200,000 deep", deepBinary(200000)},
      {"binary cycle", binaryDocument({std::string("\xA2\x00\x01", 3), "\x09"})},
      {"binary dictionary cycle", binaryDocument({std::string("\xD1\x01\x00", 3), "\x51k"})},
      {"binary expansion: 2^40 values from 200 bytes", deepBinary(40, true)},
      {"larger than the limit", std::string(kMaxPropertyListBytes + 1, ' ')},
  };
  for (const auto& c : cases) EXPECT_FALSE(readPropertyList(c.bytes).has_value()) << c.what;
  EXPECT_TRUE(readPropertyList(deepXml(256)).has_value());
  EXPECT_TRUE(readPropertyList(deepBinary(256)).has_value());
  // The writer refuses what the reader would.
  V deep = V::boolean(true);
  for (int i = 0; i < 256; ++i) deep = V::array({deep});
  EXPECT_TRUE(writePropertyList(deep).has_value());
  EXPECT_FALSE(writePropertyList(V::array({deep})).has_value());
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
  auto bad = [&](const std::string& value) { return xml("<key>bad</key>" + value); };
  auto keepAnd = [](const std::string& bad) {
    return binaryDocument({"\xD2\x01\x02\x03\x04", "Tkeep", "Sbad", "\x10\x01", bad});
  };
  const struct {
    const char* what;
    std::string bytes;
    const char* logged;         // null: nothing left out
    PlistDictionary read = {};  // besides "keep"
  } cases[] = {
      {"XML integer", bad("<integer>abc</integer>"), "/bad"},
      {"XML integer past 64 bits", bad("<integer>18446744073709551616</integer>"), "/bad"},
      {"XML date", bad("<date>2024-02-30T00:00:00Z</date>"), "/bad"},
      {"XML data", bad("<data>QUJD*</data>"), "/bad"},
      {"XML data padded inside", bad("<data>QUJD=QUJ</data>"), "/bad"},
      {"XML unknown element", bad("<set><x/></set>"), "/bad"},
      {"XML array element",
       xml("<key>list</key><array><real>1.5</real><real>one</real><true/></array>"),
       "/list[1]",
       {{"list", V::array({V::real(1.5), V::boolean(true)})}}},
      {"XML comments, CDATA, char refs, CRLF",
       xml("<!-- note --><key>s</key><string>a&#13;b\r\nc<![CDATA[<&>]]>&#x1F600;</string>"
           "<key>d</key><date>2080Z</date><key>h</key><integer>0x10</integer>"
           "<key>r</key><real> -infinity </real><key>b</key><data>QU\n JD</data>"
           "<key>p</key><data>QUI=</data>"),
       nullptr,
       {{"s", V::string("a\rb\nc<&>\xF0\x9F\x98\x80")},
        {"d", V::date({2492985600.0})},
        {"h", V::integer(16)},
        {"r", V::real(-INFINITY)},
        {"b", V::data({'A', 'B', 'C'})},
        {"p", V::data({'A', 'B'})}}},
      {"XML after a byte order mark",
       "\xEF\xBB\xBF" + xml("<key>t</key><true/>"),
       nullptr,
       {{"t", V::boolean(true)}}},
      {"binary bad marker", keepAnd("\x77"), "/bad"},
      {"binary length past the table", keepAnd("\x5F\x10\xFF"), "/bad"},
      {"binary reference past the end",
       binaryDocument({"\xD2\x01\x02\x03\x09", "Tkeep", "Sbad", "\x10\x01"}), "/bad"},
      {"binary key that is no string",
       binaryDocument({"\xD2\x01\x03\x02\x02", "Tkeep", "\x10\x01", "\x10\x05"}), "(key 1)"},
      {"binary NUL in a key and a string",
       binaryDocument({"\xD2\x01\x02\x03\x04", "Tkeep", std::string("\x53k\0y", 4), "\x10\x01",
                       std::string("\x62\x00\x00\xD5\x5C", 5)}),
       nullptr,
       {{std::string("k\0y", 3), V::string(std::string("\0\xED\x95\x9C", 4))}}},
  };
  for (const auto& c : cases) {
    LogCapture log;
    PlistDictionary expected = c.read;
    expected.emplace("keep", V::integer(1));
    EXPECT_TRUE(readPropertyList(c.bytes) == V::dictionary(expected)) << c.what;
    ASSERT_EQ(log.lines().size(), c.logged ? 1u : 0u);
    EXPECT_TRUE(!c.logged || log.contains(c.logged)) << log.lines()[0];
  }
}

}  // namespace
}  // namespace quarvel
