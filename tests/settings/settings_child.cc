// A second process for the persistence tests. Runs in the environment (HOME,
// XDG folders) it inherits from the test.
//   write                    stores a known set of settings
//   check                    verifies the set that the test process wrote
//   writer NAME COUNT        COUNT times: NAME.count = i, then shared = "NAME-i"
//   reader READY STOP        reads the domain file over and over, from creating
//                            READY until STOP exists (at most 120 s)
// Exit status 0 when every check held.
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "quarvel/common/Log.h"
#include "quarvel/settings/CVUserDefaults.h"

using quarvel::CVUserDefaults;
using quarvel::PlistDictionary;
using quarvel::PlistValue;

namespace {

int failures = 0;

void expect(bool ok, const std::string& what) {
  if (!ok) {
    std::fprintf(stderr, "settings_child: %s\n", what.c_str());
    ++failures;
  }
}

bool exists(const char* path) {
  struct stat info;
  return ::stat(path, &info) == 0;
}

// The "*.count" values of a domain.
std::map<std::string, std::int64_t> counts(const PlistDictionary& domain) {
  std::map<std::string, std::int64_t> found;
  for (const auto& [key, value] : domain)
    if (key.ends_with(".count")) found[key] = value.integerValue();
  return found;
}

// Every counter of `now` is at least what it was in `before`, and none has
// gone missing: a lower or lost counter is a write that was undone.
void expectNoCounterWentBack(const std::map<std::string, std::int64_t>& before,
                             const std::map<std::string, std::int64_t>& now, const char* where) {
  for (const auto& [key, value] : before) {
    auto found = now.find(key);
    expect(found != now.end() && found->second >= value,
           std::string(where) + ": " + key + " went from " + std::to_string(value) + " to " +
               (found == now.end() ? std::string("absent") : std::to_string(found->second)));
  }
}

int writer(CVUserDefaults* defaults, const std::string& name, int count) {
  const std::string key = name + ".count";
  auto before = counts(quarvel::defaultsDic);
  for (int i = 1; i <= count && failures == 0; ++i) {
    defaults->setInteger(i, key);
    defaults->setObject(PlistValue::string(name + "-" + std::to_string(i)), "shared");
    auto domain = defaults->persistentDomainForName(CVUserDefaults::kDomainName);
    expect(domain && domain->count(key) && domain->at(key).integerValue() == i,
           "the file lost " + key + " = " + std::to_string(i));
    // defaultsDic takes in the other writer's counters as this one writes.
    auto now = counts(quarvel::defaultsDic);
    expectNoCounterWentBack(before, now, "writer's store");
    before = now;
  }
  return failures == 0 ? 0 : 1;
}

int reader(CVUserDefaults* defaults, const char* ready, const char* stop) {
  quarvel::LogCapture log;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  std::map<std::string, std::int64_t> last;
  bool appeared = false;
  long reads = 0;
  long changes = 0;
  std::ofstream(ready).put('\n');
  while (!exists(stop) && failures == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      expect(false, "never told to stop");
      break;
    }
    auto domain = defaults->persistentDomainForName(CVUserDefaults::kDomainName);
    if (!domain) {
      expect(!appeared, "the domain could not be loaded after it appeared");
      continue;
    }
    appeared = true;
    ++reads;
    auto now = counts(*domain);
    expectNoCounterWentBack(last, now, "reader");
    if (now != last) ++changes;
    last = std::move(now);
  }
  expect(!log.contains("could not be read"), "the reader set the domain aside");
  // Fewer than two states seen means the reader did not overlap the writers.
  expect(changes >= 2, "the reader saw " + std::to_string(changes) + " states");
  std::fprintf(stderr, "settings_child: reader: %ld reads, %ld states\n", reads, changes);
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const std::string mode = argv[1];
  // The external-address lookup of the start-up must not leave the machine.
  CVUserDefaults::setEchoServiceHost("127.0.0.1:1");
  CVUserDefaults* defaults = CVUserDefaults::standardUserDefaults();
  if (mode == "write" && argc == 2) {
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
  if (mode == "check" && argc == 2) {
    expect(defaults->closeAgterInspect(), "closeAfterInspect is not set");
    expect(!defaults->objectForKey("count").has_value(), "count was not removed");
    expect(defaults->stringForKey("title") == "바뀐 제목", "title differs");
    expect(defaults->webQuarvelIPAddress() == PlistValue::string("10.0.0.5"),
           "WebQuarvelIPAddress differs");
    expect(defaults->floatForKey("scale") == 1.5f, "scale differs");
    expect(defaults->precisionInspect(), "precisionInspect from the first process is lost");
    return failures == 0 ? 0 : 1;
  }
  if (mode == "writer" && argc == 4) return writer(defaults, argv[2], std::atoi(argv[3]));
  if (mode == "reader" && argc == 4) return reader(defaults, argv[2], argv[3]);
  return 2;
}
