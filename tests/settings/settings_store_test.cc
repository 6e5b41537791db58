#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include "common/Log.h"
#include "quarvel/CVUserDefaults.h"
#include "settings/PropertyList.h"
#include "settings/SettingsForTesting.h"
#include "support/FileText.h"
#include "support/SettingsSandbox.h"
#include "support/TestPlatform.h"

namespace quarvel {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using V = PlistValue;

constexpr const char* kDomain = CVUserDefaults::kDomainName;
constexpr const char* kDomainFileName = "com.Corvane.Defaults.plist";

std::string domainFile(const testing::SettingsSandbox& sandbox) {
  return sandbox.root() + "/config/" + kDomainFileName;
}

std::vector<std::string> configNames(const testing::SettingsSandbox& sandbox) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(sandbox.root() + "/config"))
    names.push_back(entry.path().filename().string());
  return names;
}

TEST(CVUserDefaultsTest, TypedGettersReadOnlyTheirKind) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
  EXPECT_FALSE(fs::exists(domainFile(sandbox))) << "the domain appears with the first write";
  d->setBool(true, "b");
  EXPECT_TRUE(d->boolForKey("b"));
  EXPECT_FALSE(d->stringForKey("b").has_value());
  EXPECT_EQ(d->integerForKey("b"), 1);

  d->setObject(V::string("YES"), "closeAfterInspect");
  EXPECT_FALSE(d->boolForKey("closeAfterInspect"));
  EXPECT_TRUE(d->closeAgterInspect()) << "named getters take any value's boolean reading";
  d->setObject(V::string("42"), "digits");
  EXPECT_EQ(d->integerForKey("digits"), 0);
  EXPECT_EQ(d->doubleForKey("digits"), 0.0);
  d->setDouble(1e300, "r");
  EXPECT_TRUE(std::isinf(d->floatForKey("r")));
  EXPECT_EQ(d->integerForKey("absent"), 0);
  EXPECT_FALSE(d->precisionInspect());

  d->setObject(V::data({1, 2}), "data");
  EXPECT_EQ(d->dataForKey("data"), (PlistData{1, 2}));
  EXPECT_FALSE(d->dataForKey("b") || d->arrayForKey("data") || d->dictionaryForKey("data"));

  d->setURL({"https://example.test/x"}, "u");
  EXPECT_EQ(d->URLForKey("u")->text, "https://example.test/x");
  d->setObject(V(), "u");
  EXPECT_FALSE(d->objectForKey("u").has_value()) << "storing nothing removes the key";

  d->setObject(V::array({V::string("a"), V::string("b")}), "strings");
  d->setObject(V::array({V::string("a"), V::integer(1)}), "mixed");
  EXPECT_EQ(d->stringArrayForKey("strings"), (std::vector<std::string>{"a", "b"}));
  for (const char* key : {"mixed", "digits", "absent"})
    EXPECT_FALSE(d->stringArrayForKey(key)) << key;
}

// The keys are what other programs and earlier versions read: a typo here
// would silently lose a user's setting.
TEST(CVUserDefaultsTest, NamedSettingsUseTheirKeys) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
  using C = CVUserDefaults;
  const struct {
    const char* key;
    void (C::*set)(V);
    std::optional<V> (C::*get)() const;
  } cases[] = {
      // The accessors whose key differs from their name, and two plain ones.
      {"selectedArr", &C::setSelectedPathArrInPrecisionInspect,
       &C::selectedPathArrInPrecisionInspect},
      {"filterArr", &C::setfilterPathArrInPrecisionInspect, &C::filterPathArrInPrecisionInspect},
      {"lastUpdateDate", &C::setUpdated, &C::lastUpdateDate},
      {"WebQuarvelIPAddress", &C::setWebQuarvelIPAddress, &C::webQuarvelIPAddress},
      {"WebQuarvelDepartmentNameTemp", &C::setWebQuarvelDepartmentNameTemp,
       &C::webQuarvelDepartmentNameTemp},
      {"forceQuarvelTime", &C::setWebQuarvelForceQuarvelTime, &C::webQuarvelForceQuarvelTime},
      {"dateQuarvelTime", &C::setWebQuarvelDateQuarvelTime, &C::webQuarvelDateQuarvelTime},
      {"leadAgency", &C::setLeadAgency, &C::leadAgency},
  };
  for (const auto& c : cases) {
    const V value = V::string(std::string("value of ") + c.key);
    (d->*c.set)(value);
    EXPECT_TRUE((d->*c.get)() == value) << c.key;
    EXPECT_TRUE(d->persistentDomainForName(kDomain)->count(c.key)) << c.key;
  }
  const struct {
    const char* key;
    void (C::*set)(bool);
    bool (C::*get)() const;
  } bools[] = {{"closeAfterInspect", &C::setCloseAfterInspect, &C::closeAgterInspect},
               {"searchOnlyFont", &C::setSearchOnlyFont, &C::searchOnlyFont},
               {"searchFont", &C::setSearchFont, &C::searchFont}};
  for (const auto& c : bools) {
    (d->*c.set)(true);
    EXPECT_TRUE((d->*c.get)() && d->boolForKey(c.key)) << c.key;
    (d->*c.set)(false);
    EXPECT_FALSE(d->boolForKey(c.key)) << c.key;
    EXPECT_EQ(d->objectForKey(c.key)->kind(), V::Kind::Boolean) << c.key;
  }
}

// The edition is fixed by the first call; a reset makes a bare instance
// (not the lite edition, no folder work) over the same values.
TEST(CVUserDefaultsTest, ResetKeepsTheValuesAndSkipsStartUp) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* old = CVUserDefaults::standardUserDefaultsWithisLiteVer(true);
  EXPECT_EQ(CVUserDefaults::standardUserDefaultsWithisLiteVer(false), old);
  EXPECT_TRUE(old->isLite());
  old->setArea(V::string("서울"));
  fs::remove_all(sandbox.root() + "/home/Documents/Quarvel");

  CVUserDefaults::resetStandardUserDefaults();
  CVUserDefaults* bare = CVUserDefaults::standardUserDefaultsWithisLiteVer(true);
  EXPECT_NE(bare, old);
  EXPECT_EQ(userdefaultsInstance, bare);
  EXPECT_FALSE(bare->isLite());
  EXPECT_TRUE(bare->area() == V::string("서울"));
  EXPECT_EQ(bare->defaultPath(), sandbox.root() + "/home/Documents/Quarvel");
  EXPECT_FALSE(fs::exists(sandbox.root() + "/home/Documents/Quarvel")) << "no folder work";

  // A write through the old instance still lands in the one store.
  old->setRegulator(V::integer(3));
  EXPECT_EQ(bare->integerForKey("regulator"), 3);
}

// A domain that cannot be loaded is kept aside under a dated name and the
// store starts empty; a write starts a fresh domain and leaves the copy
// alone. A file past the size limit and a pipe in the file's place go aside
// unread: the pipe must not hold the start-up waiting for a writer.
TEST(CVUserDefaultsTest, AnUnloadableDomainIsKeptAsideAndTheStoreStartsEmpty) {
  const struct {
    const char* what;
    std::string bytes;  // the file's, unless `make` makes it
    std::function<void(const std::string&)> make;
    const char* logged;
  } cases[] = {
      // How the reader fails is its own tests' matter; here only that it
      // does, and a document that is not a dictionary.
      {"garbage", std::string("\x89\0\xff garbage \x01\x02 <dict>", 20), nullptr, "could not"},
      {"not a dictionary", "<plist><array><string>area</string></array></plist>", nullptr,
       "could not"},
      {"past the size limit", "",
       [](const std::string& path) {
         { std::ofstream(path) << "<plist><dict/></plist>"; }
         fs::resize_file(path, kMaxPropertyListBytes + 1);  // sparse, never read
       },
       "is larger than"},
      {"a pipe", "", [](const std::string& path) { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); },
       "is not a regular file"},
  };
  for (const auto& c : cases) {
    testing::SettingsSandbox sandbox;
    const std::string path = domainFile(sandbox);
    if (c.make)
      c.make(path);
    else
      std::ofstream(path, std::ios::binary) << c.bytes;

    LogCapture log;
    CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
    EXPECT_FALSE(d->area().has_value());
    EXPECT_EQ(defaultsDic.size(), 1u) << "only DefaultPath";
    EXPECT_TRUE(log.contains(c.logged));
    EXPECT_TRUE(log.contains("could not be read; kept it as " + path + ".corrupt-"));
    const std::vector<std::string> aside = configNames(sandbox);
    ASSERT_EQ(aside.size(), 1u) << c.what;
    EXPECT_TRUE(aside[0].starts_with("com.Corvane.Defaults.plist.corrupt-") &&
                aside[0].size() == 50 && aside[0][43] == '_')
        << aside[0];

    d->setArea(V::string("부산"));
    d->setInteger(2, "count");
    EXPECT_EQ(defaultsDic.size(), 3u);
    EXPECT_TRUE(d->persistentDomainForName(kDomain) == defaultsDic);
    EXPECT_EQ(c.make ? c.bytes : readFile(sandbox.root() + "/config/" + aside[0]), c.bytes);
  }
}

// A write the disk fails (full, a failed flush, a rename refused) leaves the
// previous domain whole and no temporary file behind; memory keeps the value.
TEST(CVUserDefaultsTest, AFailedWriteLeavesTheOldDomain) {
  using Fault = testing::FaultyDisk::Fault;
  for (Fault fault : {Fault::kFull, Fault::kFlush, Fault::kRename}) {
    testing::SettingsSandbox sandbox;
    CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
    d->setArea(V::string("before"));
    const std::string before = readFile(domainFile(sandbox));
    {
      testing::ScopedPlatform disk(std::make_shared<testing::FaultyDisk>(fault, 1000));
      LogCapture log;
      d->setArea(V::string(std::string(4096, 'x')));
      EXPECT_TRUE(log.contains("not written"));
    }
    EXPECT_TRUE(CVUserDefaults::lastWriteFailed());
    EXPECT_EQ(readFile(domainFile(sandbox)), before);
    EXPECT_EQ(configNames(sandbox), std::vector<std::string>{kDomainFileName});
    EXPECT_EQ(d->area()->asString()->size(), 4096u);
  }
}

// Values other programs stored are kept exactly through writes of other
// settings and a new start, which reads what this one wrote and removed. A
// value nested too deep for the reader is refused, store and file as they
// were; the deepest the reader takes is stored.
TEST(CVUserDefaultsTest, ValuesAreKeptExactlyAndTooDeepOnesRefused) {
  testing::SettingsSandbox sandbox;
  const PlistDictionary theirs{
      {"distant future", V::date({63113904000.0})},
      {"unsigned", V::unsignedInteger(UINT64_MAX)},
      // Controls only the binary form holds: the domain is a binary file.
      {"controls", V::string(std::string("a\0\x01\r\n", 5))},
      {"NaN and infinity", V::array({V::real(std::nan("")), V::real(-INFINITY)})},
      {"nested", V::dictionary({{"d", V::array({V::data({0, 1})})}})},
  };
  std::ofstream(domainFile(sandbox), std::ios::binary) << *writePropertyList(V::dictionary(theirs));
  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
  d->setInteger(1, "count");
  d->setFloat(1.5f, "gone");
  d->removeObjectForKey("gone");
  d->setInteger(2, "count");
  EXPECT_FALSE(CVUserDefaults::lastWriteFailed());

  const std::string before = readFile(domainFile(sandbox));
  V deep = V::boolean(true);
  for (int i = 0; i < 255; ++i) deep = V::array({deep});
  LogCapture log;
  d->setObject(V::array({deep}), "deep");  // 257 levels under the domain
  EXPECT_TRUE(CVUserDefaults::lastWriteFailed());
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.contains("nested deeper than 256"));
  EXPECT_EQ(readFile(domainFile(sandbox)), before);
  EXPECT_FALSE(d->objectForKey("deep").has_value());
  d->setObject(deep, "deep");  // 256 levels: the deepest the reader takes
  EXPECT_FALSE(CVUserDefaults::lastWriteFailed());

  discardSharedSettingsForTesting();
  d = CVUserDefaults::standardUserDefaults();
  for (const auto& [key, value] : theirs) EXPECT_TRUE(d->objectForKey(key) == value) << key;
  EXPECT_EQ(d->integerForKey("count"), 2);
  EXPECT_FALSE(d->objectForKey("gone").has_value());
  EXPECT_TRUE(d->objectForKey("deep") == deep);
}

// Two writer processes (settings_child) write the domain in turn while this
// one reads it all along. A write replaces the file with the writer's whole
// dictionary (as loaded once, plus its own counter), so every read must load
// and be one writer's dictionary at one of its writes, in the order it wrote
// them, and the file left one writer's last dictionary, byte for byte.
TEST(CVUserDefaultsTest, ProcessesWritingInTurnNeverTearTheFile) {
  testing::SettingsSandbox sandbox;
  const std::string dir = sandbox.root() + "/run";
  const std::vector<std::string> names = {"first", "second"};
  constexpr int kRounds = 300;
  fs::create_directories(dir);
  // Some bulk, so that a torn file would be more than a cut-off tag.
  PlistArray paths;
  for (int i = 0; i < 200; ++i) paths.push_back(V::string("/opt/앱/" + std::to_string(i)));
  const PlistDictionary initial{{"selectedArr", V::array(paths)}};
  ASSERT_TRUE(CVUserDefaults::standardUserDefaults()->setPersistentDomain(initial, kDomain));
  PlistDictionary loaded = initial;  // what each writer starts from
  loaded.insert_or_assign("DefaultPath", defaultsDic.at("DefaultPath"));

  std::map<pid_t, int> writers;  // exit status once it ended, -1 while it runs
  for (std::string name : names) {
    std::string program = QUARVEL_SETTINGS_CHILD, folder = dir, rounds = std::to_string(kRounds);
    char* argv[] = {program.data(), folder.data(), name.data(), rounds.data(), nullptr};
    pid_t pid = -1;
    ASSERT_EQ(::posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ), 0);
    writers[pid] = -1;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  for (const std::string& name : names)
    while (!fs::exists(dir + "/" + name + ".ready") && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::ofstream(dir + "/go").put('\n');

  LogCapture log;
  std::map<std::string, std::int64_t> seen;  // by writer, the latest counter read
  std::string fault, owner;
  for (bool last = false; fault.empty() && !last;) {
    last = true;  // once both writers ended, one more read of the file left
    for (auto& [pid, status] : writers) {
      int raw = 0;
      if (status == -1 && std::chrono::steady_clock::now() > deadline) ::kill(pid, SIGKILL);
      if (status == -1 && ::waitpid(pid, &raw, WNOHANG) == pid)
        status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128;
      last = last && status != -1;
    }
    const auto state = CVUserDefaults::standardUserDefaults()->persistentDomainForName(kDomain);
    if (!state) {
      fault = "a read did not load";
    } else if (*state == initial) {
      if (!seen.empty()) fault = "the initial file came back";
    } else {
      std::vector<std::string> owners;
      for (const std::string& name : names)
        if (state->count(name + ".count")) owners.push_back(name);
      if (owners.size() != 1) {
        fault = "a file held " + std::to_string(owners.size()) + " counters";
        break;
      }
      owner = owners[0];
      const std::int64_t count = state->at(owner + ".count").integerValue();
      PlistDictionary expected = loaded;
      expected.insert_or_assign(owner + ".count", V::integer(count));
      if (!(*state == expected)) fault = "not " + owner + "'s whole dictionary";
      if (count < seen[owner]) fault = owner + " went back to " + std::to_string(count);
      if (last && count != kRounds) fault = "the file left is not a last write";
      seen[owner] = count;
    }
  }
  EXPECT_EQ(fault, "");
  for (const auto& [pid, status] : writers) {
    if (status == -1) ::waitpid(pid, nullptr, 0);  // a fault ended the reading early
    EXPECT_EQ(status, 0);
  }
  EXPECT_FALSE(log.contains("could not be read"));
  // Without states of both writers the reading did not overlap their writing.
  for (const std::string& name : names) EXPECT_GT(seen[name], 0) << name;
  EXPECT_EQ(readFile(domainFile(sandbox)), readFile(dir + "/" + owner + ".final"));
  EXPECT_EQ(configNames(sandbox), std::vector<std::string>{kDomainFileName});
}

}  // namespace
}  // namespace quarvel
