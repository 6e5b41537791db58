#include "quarvel/settings/PropertyList.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace quarvel {
namespace {

namespace fs = std::filesystem;

std::string readBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void writeBytes(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

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
      {"leapDay", PlistValue::date({730902896.0})},   // 2024-02-29T12:34:56Z
      {"beforeEpoch", PlistValue::date({-31622401.0})},  // 1999-12-31T23:59:59Z
      {"list", PlistValue::array({PlistValue::integer(1), PlistValue::string("two"),
                                  PlistValue::array({PlistValue::real(3.5)}),
                                  PlistValue::array({})})},
      {"nested", PlistValue::dictionary({{"키", PlistValue::string("값")},
                                         {"inner", PlistValue::dictionary({{"flag",
                                                                            PlistValue::boolean(false)}})},
                                         {"hollow", PlistValue::dictionary({})}})},
  });
}

// Builds the same document with plistlib, writes it as XML and binary, and
// checks a document we wrote against it with a kind-strict comparison
// (plistlib would otherwise take True for 1).
constexpr const char* kPythonSide = R"PY(
import datetime, plistlib, sys
doc = {
    "yes": True, "no": False, "int": 42, "negative": -7, "large": 1 << 62,
    "lowest": -(1 << 63), "real": 3.25, "tiny": -2.5e-10, "third": 1.0 / 3.0,
    "text": "한글 café ✓ <&>", "empty": "", "data": b"\x00\x01\xff\x80",
    "leapDay": datetime.datetime(2024, 2, 29, 12, 34, 56),
    "beforeEpoch": datetime.datetime(1999, 12, 31, 23, 59, 59),
    "list": [1, "two", [3.5], []],
    "nested": {"키": "값", "inner": {"flag": False}, "hollow": {}},
}
def same(a, b, where):
    if type(a) is not type(b):
        sys.exit("%s: %r is not %r" % (where, a, b))
    if isinstance(a, dict):
        if sorted(a) != sorted(b):
            sys.exit("%s: keys %r differ from %r" % (where, sorted(a), sorted(b)))
        for k in a:
            same(a[k], b[k], where + "/" + k)
    elif isinstance(a, list):
        if len(a) != len(b):
            sys.exit("%s: lengths differ" % where)
        for i, (x, y) in enumerate(zip(a, b)):
            same(x, y, "%s[%d]" % (where, i))
    elif a != b:
        sys.exit("%s: %r != %r" % (where, a, b))
folder = sys.argv[1]
with open(folder + "/python.xml", "wb") as f:
    plistlib.dump(doc, f, fmt=plistlib.FMT_XML)
with open(folder + "/python.bin", "wb") as f:
    plistlib.dump(doc, f, fmt=plistlib.FMT_BINARY)
if len(sys.argv) > 2:
    with open(folder + "/ours.xml", "rb") as f:
        same(plistlib.load(f), doc, "")
)PY";

class PropertyListPythonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::system("python3 -c 'import plistlib' >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "python3 with plistlib is not available";
    std::string pattern = (fs::temp_directory_path() / "quarvel-plist-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
    writeBytes(folder_ / "side.py", kPythonSide);
  }
  void TearDown() override {
    std::error_code ignored;
    if (!folder_.empty()) fs::remove_all(folder_, ignored);
  }
  int runPython(bool checkOurs) {
    std::string command = "python3 '" + (folder_ / "side.py").string() + "' '" + folder_.string() +
                          "'" + (checkOurs ? " check" : "");
    return std::system(command.c_str());
  }
  fs::path folder_;
};

TEST_F(PropertyListPythonTest, ReadsWhatPlistlibWritesInBothFormats) {
  ASSERT_EQ(runPython(false), 0);
  for (const char* name : {"python.xml", "python.bin"}) {
    SCOPED_TRACE(name);
    std::optional<PlistValue> read = readPropertyList(readBytes(folder_ / name));
    ASSERT_TRUE(read.has_value());
    ASSERT_NE(read->asDictionary(), nullptr);
    const PlistValue expected = everyKind();
    for (const auto& [key, value] : *expected.asDictionary()) {
      SCOPED_TRACE(key);
      auto found = read->asDictionary()->find(key);
      ASSERT_NE(found, read->asDictionary()->end());
      EXPECT_TRUE(found->second == value);
    }
    EXPECT_EQ(read->asDictionary()->size(), expected.asDictionary()->size());
  }
}

TEST_F(PropertyListPythonTest, PlistlibReadsWhatWeWrite) {
  writeBytes(folder_ / "ours.xml", writeXmlPropertyList(everyKind()));
  EXPECT_EQ(runPython(true), 0) << readBytes(folder_ / "ours.xml");
}

TEST(PropertyListTest, WriteThenReadKeepsEveryKind) {
  PlistValue document = everyKind();
  std::string first = writeXmlPropertyList(document);
  std::optional<PlistValue> back = readPropertyList(first);
  ASSERT_TRUE(back.has_value());
  EXPECT_TRUE(*back == document);
  EXPECT_EQ(writeXmlPropertyList(*back), first);
}

TEST(PropertyListTest, DamagedDocumentsReadAsAbsent) {
  const std::string good = writeXmlPropertyList(everyKind());
  const std::string cases[] = {
      "",
      "not a property list",
      good.substr(0, good.size() / 2),  // torn write
      "bplist00",                       // header without a body
      std::string("bplist00\xd1\x01\x02", 11),
      // Binary documents whose key or string holds a NUL: libplist would
      // abort the process on them.
      std::string("bplist00\xd1\x01\x02\x53\x61\x00\x62\x10\x01\x08\x0b\x0f\0\0\0\0\0\0\x01\x01"
                  "\0\0\0\0\0\0\0\x03\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x11", 52),
      std::string("bplist00\xd1\x01\x02\x51\x6b\x62\xd5\x5c\0\0\x08\x0b\x0d\0\0\0\0\0\0\x01\x01"
                  "\0\0\0\0\0\0\0\x03\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x12", 53),
  };
  for (const std::string& bytes : cases) {
    SCOPED_TRACE(bytes.substr(0, 60));
    EXPECT_FALSE(readPropertyList(bytes).has_value());
  }
}

}  // namespace
}  // namespace quarvel
