// A second process for the persistence tests. Runs in the environment (HOME,
// XDG folders) it inherits from the test.
//   write                      stores a known set of settings
//   check                      verifies the set that the test process wrote
//   writer DIR NAME ROUNDS     loads the domain, creates DIR/NAME.ready, waits
//                              for DIR/go, then ROUNDS times: NAME.count = i,
//                              then NAME.stamp = "NAME-i"; last, writes its
//                              whole dictionary to DIR/NAME.final
//   reader DIR ROUNDS A B      loads the domain, creates DIR/reader.ready and
//                              reads the domain file over and over until
//                              DIR/stop exists, checking every state it sees
//                              against what writers A and B can write
// Waits are bounded (60 s for go, 120 s for stop). Exit status 0 when every
// check held.
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/Log.h"
#include "quarvel/CVUserDefaults.h"
#include "settings/PropertyList.h"

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

bool exists(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0;
}

void touch(const std::string& path) { std::ofstream(path).put('\n'); }

bool waitFor(const std::string& path, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!exists(path)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::string stamp(const std::string& name, long round) {
  return name + "-" + std::to_string(round);
}

int writer(CVUserDefaults* defaults, const std::string& dir, const std::string& name, int rounds) {
  touch(dir + "/" + name + ".ready");
  if (!waitFor(dir + "/go", std::chrono::seconds(60))) {
    expect(false, name + " was never told to go");
    return 1;
  }
  for (int i = 1; i <= rounds; ++i) {
    defaults->setInteger(i, name + ".count");
    defaults->setObject(PlistValue::string(stamp(name, i)), name + ".stamp");
  }
  std::ofstream(dir + "/" + name + ".final", std::ios::binary)
      << *quarvel::writePropertyList(PlistValue::dictionary(quarvel::defaultsDic));
  return 0;
}

// What the reader knows about the file states writers may leave. Every
// writer loaded the same domain before any of them wrote (`loaded`, with the
// DefaultPath of its start-up), and each write stores the writer's whole
// dictionary, so a state written by NAME is exactly `loaded` plus NAME.count
// and (after its first round) NAME.stamp, the stamp naming this round or,
// between the two writes of a round, the one before. Anything else (a key of
// the other writer, a key of `loaded` lost or changed, a stamp out of step)
// is a torn or mixed file.
struct StateCheck {
  PlistDictionary initial;  // the file before any writer wrote
  PlistDictionary loaded;
  std::vector<std::string> names;

  // The writer of `state` and its progress (2 per round, the count write
  // first), or the reason the state cannot be one writer's dictionary.
  // Progress 0 is the initial file.
  std::pair<std::string, long> judge(const PlistDictionary& state, std::string& why) const {
    if (state == initial) return {"", 0};
    std::string owner;
    for (const std::string& name : names)
      if (state.count(name + ".count")) {
        if (!owner.empty()) {
          why = "holds the counters of " + owner + " and " + name;
          return {"", -1};
        }
        owner = name;
      }
    if (owner.empty()) {
      why = "holds no writer's counter";
      return {"", -1};
    }
    const long count = state.at(owner + ".count").integerValue();
    PlistDictionary expected = loaded;
    expected.insert_or_assign(owner + ".count", PlistValue::integer(count));
    long progress = 2 * count - 1;
    auto found = state.find(owner + ".stamp");
    if (found != state.end()) {
      const std::string* text = found->second.asString();
      if (text && *text == stamp(owner, count))
        progress = 2 * count;
      else if (!(text && count > 1 && *text == stamp(owner, count - 1))) {
        why = owner + ".stamp is out of step with " + owner + ".count " + std::to_string(count);
        return {"", -1};
      }
      expected.insert_or_assign(owner + ".stamp", found->second);
    }
    if (count < 1 || state != expected) {
      why = "is not " + owner + "'s whole dictionary at count " + std::to_string(count);
      return {"", -1};
    }
    return {owner, progress};
  }
};

int reader(CVUserDefaults* defaults, const std::string& dir, int rounds,
           std::vector<std::string> names) {
  quarvel::LogCapture log;
  StateCheck check;
  check.initial =
      defaults->persistentDomainForName(CVUserDefaults::kDomainName).value_or(PlistDictionary{});
  check.loaded = quarvel::defaultsDic;
  check.names = std::move(names);
  touch(dir + "/reader.ready");

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  std::map<std::string, long> progress;  // by writer, the latest seen
  std::set<std::pair<std::string, long>> states;
  std::string lastOwner;
  long reads = 0;
  long turns = 0;  // times the file passed from one writer to the other
  for (bool last = false; !last && failures == 0;) {
    // One more read after the writers are done: the file they leave.
    last = exists(dir + "/stop");
    if (std::chrono::steady_clock::now() > deadline) {
      expect(false, "the reader was never told to stop");
      break;
    }
    auto domain = defaults->persistentDomainForName(CVUserDefaults::kDomainName);
    ++reads;
    if (!domain) {
      expect(false, "read " + std::to_string(reads) + " did not load");
      break;
    }
    std::string why;
    auto [owner, step] = check.judge(*domain, why);
    if (step < 0) {
      expect(false, "read " + std::to_string(reads) + ": the file " + why);
      break;
    }
    if (step == 0) {
      expect(progress.empty(), "the initial file came back after a writer wrote");
      continue;
    }
    expect(step >= progress[owner], owner + " went back from step " +
                                        std::to_string(progress[owner]) + " to " +
                                        std::to_string(step));
    progress[owner] = step;
    states.emplace(owner, step);
    if (!lastOwner.empty() && owner != lastOwner) ++turns;
    lastOwner = owner;
    if (last)
      expect(step == 2 * rounds, "the final file is not " + owner + "'s last write but its step " +
                                     std::to_string(step));
  }
  expect(!log.contains("could not be read"), "the reader set the domain aside");
  // Without states of both writers the reader did not overlap their writing.
  for (const std::string& name : check.names)
    expect(progress.count(name), "the reader saw no state written by " + name);
  std::fprintf(stderr, "settings_child: reader: %ld reads, %zu distinct states, %ld turns\n", reads,
               states.size(), turns);
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
  if (mode == "writer" && argc == 5) return writer(defaults, argv[2], argv[3], std::atoi(argv[4]));
  if (mode == "reader" && argc >= 5)
    return reader(defaults, argv[2], std::atoi(argv[3]), {argv + 4, argv + argc});
  return 2;
}
