// A second process for the persistence tests: "write" stores a known set of
// settings through the shared instance, "check" verifies the set that the
// test process wrote. Runs in the environment (HOME, XDG folders) it
// inherits from the test.
#include <cstdio>
#include <cstring>

#include "quarvel/settings/CVUserDefaults.h"

using quarvel::CVUserDefaults;
using quarvel::PlistValue;

namespace {

int failures = 0;

void expect(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "settings_child: %s\n", what);
    ++failures;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  CVUserDefaults* defaults = CVUserDefaults::standardUserDefaults();
  if (std::strcmp(argv[1], "write") == 0) {
    defaults->setPrecisionInspect(true);
    defaults->setInteger(-12, "count");
    defaults->setDouble(0.1, "ratio");
    defaults->setObject(PlistValue::string("감사 도구"), "title");
    defaults->setUpdated(PlistValue::string("07"));
    defaults->setSelectedPathArrInPrecisionInspect(
        PlistValue::array({PlistValue::string("/Applications"), PlistValue::string("/opt/앱")}));
    defaults->setObject(PlistValue::data({0, 255}), "blob");
    return 0;
  }
  if (std::strcmp(argv[1], "check") == 0) {
    expect(defaults->closeAgterInspect(), "closeAfterInspect is not set");
    expect(!defaults->objectForKey("count").has_value(), "count was not removed");
    expect(defaults->stringForKey("title") == "바뀐 제목", "title differs");
    expect(defaults->webQuarvelIPAddress() == PlistValue::string("10.0.0.5"),
           "WebQuarvelIPAddress differs");
    expect(defaults->floatForKey("scale") == 1.5f, "scale differs");
    expect(defaults->precisionInspect(), "precisionInspect from the first process is lost");
    return failures == 0 ? 0 : 1;
  }
  return 2;
}
