// A second process for the concurrent-writers test. Runs in the environment
// (HOME, XDG folders) it inherits from the test.
//   writer DIR NAME ROUNDS   loads the domain, creates DIR/NAME.ready, waits
//                            for DIR/go, sets NAME.count to 1..ROUNDS, then
//                            writes its whole dictionary to DIR/NAME.final
//   reader DIR ROUNDS A B..  loads the domain, creates DIR/reader.ready and
//                            reads the domain file over and over until
//                            DIR/stop exists, judging every state it reads
// Waits are bounded (60 s for go, 120 s for stop). Exit status 0 when every
// check held.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "common/Log.h"
#include "quarvel/CVUserDefaults.h"
#include "settings/PropertyList.h"

using quarvel::CVUserDefaults;
using quarvel::PlistDictionary;
using quarvel::PlistValue;

namespace {

bool fail(const std::string& what) {
  std::fprintf(stderr, "settings_child: %s\n", what.c_str());
  return false;
}

bool waitFor(const std::string& path, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!std::filesystem::exists(path)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

int writer(CVUserDefaults* defaults, const std::string& dir, const std::string& name, int rounds) {
  std::ofstream(dir + "/" + name + ".ready").put('\n');
  if (!waitFor(dir + "/go", std::chrono::seconds(60))) return fail(name + " never went") ? 0 : 1;
  for (int i = 1; i <= rounds; ++i) defaults->setInteger(i, name + ".count");
  std::ofstream(dir + "/" + name + ".final", std::ios::binary)
      << *quarvel::writePropertyList(PlistValue::dictionary(quarvel::defaultsDic));
  return 0;
}

// Every writer loaded the same domain (`loaded`, with the DefaultPath of its
// start-up) before any wrote, and each write stores the writer's whole
// dictionary: a state is `initial`, or `loaded` plus exactly one writer's
// counter, that writer's counters never going back. Anything else is a torn
// or mixed file.
int reader(CVUserDefaults* defaults, const std::string& dir, int rounds,
           const std::vector<std::string>& names) {
  quarvel::LogCapture log;
  const PlistDictionary initial =
      defaults->persistentDomainForName(CVUserDefaults::kDomainName).value_or(PlistDictionary{});
  const PlistDictionary loaded = quarvel::defaultsDic;
  std::ofstream(dir + "/reader.ready").put('\n');

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  std::map<std::string, std::int64_t> seen;  // by writer, the latest counter read
  bool ok = true;
  for (bool last = false; ok && !last;) {
    last = std::filesystem::exists(dir + "/stop");  // one more read of the file left
    if (std::chrono::steady_clock::now() > deadline) return fail("never told to stop") ? 0 : 1;
    const auto state = defaults->persistentDomainForName(CVUserDefaults::kDomainName);
    if (!state) return fail("a read did not load") ? 0 : 1;
    if (*state == initial) {
      ok = seen.empty() || fail("the initial file came back");
      continue;
    }
    std::vector<std::string> owners;
    for (const std::string& name : names)
      if (state->count(name + ".count")) owners.push_back(name);
    if (owners.size() != 1)
      return fail("a file held " + std::to_string(owners.size()) + " counters") ? 0 : 1;
    const std::string& owner = owners[0];
    const std::int64_t count = state->at(owner + ".count").integerValue();
    PlistDictionary expected = loaded;
    expected.insert_or_assign(owner + ".count", PlistValue::integer(count));
    ok = (*state == expected || fail("not " + owner + "'s whole dictionary")) &&
         (count >= seen[owner] || fail(owner + " went back to " + std::to_string(count))) &&
         (!last || count == rounds || fail("the file left is not a last write"));
    seen[owner] = count;
  }
  if (log.contains("could not be read")) ok = fail("the reader set the domain aside");
  // Without states of both writers the reader did not overlap their writing.
  for (const std::string& name : names)
    if (seen[name] == 0) ok = fail("no state written by " + name + " was read");
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  const std::string mode = argv[1];
  // The external-address lookup of the start-up must not leave the machine.
  CVUserDefaults::setEchoServiceHost("127.0.0.1:1");
  CVUserDefaults* defaults = CVUserDefaults::standardUserDefaults();
  if (mode == "writer" && argc == 5) return writer(defaults, argv[2], argv[3], std::atoi(argv[4]));
  if (mode == "reader")
    return reader(defaults, argv[2], std::atoi(argv[3]), {argv + 4, argv + argc});
  return 2;
}
