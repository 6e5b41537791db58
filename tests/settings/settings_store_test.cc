#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "common/Log.h"
#include "quarvel/CVUserDefaults.h"
#include "settings/PropertyList.h"
#include "settings/SettingsForTesting.h"
#include "support/SettingsSandbox.h"

namespace quarvel {
namespace {

namespace fs = std::filesystem;

std::string domainFile(const testing::SettingsSandbox& sandbox) {
  return sandbox.root() + "/config/com.Corvane.Defaults.plist";
}

std::string readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

TEST(CVUserDefaultsTest, FirstCallFixesTheEditionFlag) {
  {
    testing::SettingsSandbox sandbox;
    CVUserDefaults* first = CVUserDefaults::standardUserDefaultsWithisLiteVer(true);
    EXPECT_EQ(CVUserDefaults::standardUserDefaultsWithisLiteVer(false), first);
    EXPECT_EQ(CVUserDefaults::standardUserDefaults(), first);
    EXPECT_TRUE(first->isLite());
    EXPECT_EQ(first->defaultPath(), sandbox.root() + "/home/Documents/Quarvel");
    // The library folder keeps its visible name in either edition.
    EXPECT_EQ(first->libraryPath(), sandbox.root() + "/data/Quarvel");
  }
  {
    testing::SettingsSandbox sandbox;
    CVUserDefaults* first = CVUserDefaults::standardUserDefaults();
    EXPECT_EQ(CVUserDefaults::standardUserDefaultsWithisLiteVer(true), first);
    EXPECT_FALSE(first->isLite());
    EXPECT_EQ(first->defaultPath(), sandbox.root() + "/home/Documents/.Quarvel");
  }
}

TEST(CVUserDefaultsTest, TypedGettersReadOnlyNumbers) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();

  d->setBool(true, "b");
  EXPECT_TRUE(d->boolForKey("b"));
  EXPECT_EQ(d->objectForKey("b")->kind(), PlistValue::Kind::Boolean);
  EXPECT_FALSE(d->stringForKey("b").has_value());
  EXPECT_EQ(d->integerForKey("b"), 1);

  d->setObject(PlistValue::string("YES"), "closeAfterInspect");
  EXPECT_FALSE(d->boolForKey("closeAfterInspect"));
  EXPECT_TRUE(d->closeAgterInspect()) << "named getters take any value's boolean reading";
  d->setObject(PlistValue::string("42"), "digits");
  EXPECT_EQ(d->integerForKey("digits"), 0);
  EXPECT_EQ(d->doubleForKey("digits"), 0.0);

  d->setDouble(-2.9, "r");
  EXPECT_EQ(d->integerForKey("r"), -2);
  EXPECT_TRUE(d->boolForKey("r"));
  d->setDouble(0.4, "r");
  EXPECT_FALSE(d->boolForKey("r"));
  d->setDouble(1e300, "r");
  EXPECT_EQ(d->integerForKey("r"), INT64_MAX);
  EXPECT_TRUE(std::isinf(d->floatForKey("r")));
  d->setFloat(0.1f, "f");
  EXPECT_EQ(d->floatForKey("f"), 0.1f);

  EXPECT_EQ(d->integerForKey("absent"), 0);
  EXPECT_FALSE(d->precisionInspect());

  d->setURL({"https://example.test/x"}, "u");
  EXPECT_EQ(d->URLForKey("u")->text, "https://example.test/x");
  EXPECT_FALSE(d->stringForKey("u").has_value());
  d->setObject(PlistValue(), "u");
  EXPECT_FALSE(d->objectForKey("u").has_value()) << "storing nothing removes the key";
}

TEST(CVUserDefaultsTest, StringArrays) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
  d->setObject(PlistValue::array({PlistValue::string("a"), PlistValue::string("b")}), "strings");
  d->setObject(PlistValue::array({PlistValue::string("a"), PlistValue::integer(1)}), "mixed");
  d->setObject(PlistValue::array({}), "empty");
  d->setObject(PlistValue::string("a"), "scalar");

  EXPECT_EQ(d->stringArrayForKey("strings"), (std::vector<std::string>{"a", "b"}));
  EXPECT_FALSE(d->stringArrayForKey("mixed").has_value());
  ASSERT_TRUE(d->stringArrayForKey("empty").has_value());
  EXPECT_TRUE(d->stringArrayForKey("empty")->empty());
  EXPECT_FALSE(d->stringArrayForKey("scalar").has_value());
  EXPECT_FALSE(d->stringArrayForKey("absent").has_value());
}

// The keys are what other programs and earlier versions read: a typo here
// would silently lose a user's setting.
TEST(CVUserDefaultsTest, NamedSettingsUseTheirKeys) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
  using Setter = std::function<void(PlistValue)>;
  using Getter = std::function<std::optional<PlistValue>()>;
  struct Case {
    const char* key;
    Setter set;
    Getter get;
  } cases[] = {
      // The accessors whose key differs from their name, and two plain ones.
      {"selectedArr", [&](PlistValue v) { d->setSelectedPathArrInPrecisionInspect(v); },
       [&] { return d->selectedPathArrInPrecisionInspect(); }},
      {"filterArr", [&](PlistValue v) { d->setfilterPathArrInPrecisionInspect(v); },
       [&] { return d->filterPathArrInPrecisionInspect(); }},
      {"lastUpdateDate", [&](PlistValue v) { d->setUpdated(v); },
       [&] { return d->lastUpdateDate(); }},
      {"WebQuarvelIPAddress", [&](PlistValue v) { d->setWebQuarvelIPAddress(v); },
       [&] { return d->webQuarvelIPAddress(); }},
      {"WebQuarvelDepartmentNameTemp", [&](PlistValue v) { d->setWebQuarvelDepartmentNameTemp(v); },
       [&] { return d->webQuarvelDepartmentNameTemp(); }},
      {"forceQuarvelTime", [&](PlistValue v) { d->setWebQuarvelForceQuarvelTime(v); },
       [&] { return d->webQuarvelForceQuarvelTime(); }},
      {"dateQuarvelTime", [&](PlistValue v) { d->setWebQuarvelDateQuarvelTime(v); },
       [&] { return d->webQuarvelDateQuarvelTime(); }},
      {"leadAgency", [&](PlistValue v) { d->setLeadAgency(v); }, [&] { return d->leadAgency(); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    const PlistValue value = PlistValue::string(std::string("value of ") + c.key);
    c.set(value);
    EXPECT_TRUE(c.get() == value);
    ASSERT_TRUE(d->persistentDomainForName(CVUserDefaults::kDomainName)->count(c.key));
  }

  struct BoolCase {
    const char* key;
    void (CVUserDefaults::*set)(bool);
    bool (CVUserDefaults::*get)() const;
  } bools[] = {
      {"closeAfterInspect", &CVUserDefaults::setCloseAfterInspect,
       &CVUserDefaults::closeAgterInspect},
      {"searchOnlyFont", &CVUserDefaults::setSearchOnlyFont, &CVUserDefaults::searchOnlyFont},
  };
  for (const BoolCase& c : bools) {
    SCOPED_TRACE(c.key);
    (d->*c.set)(true);
    EXPECT_TRUE((d->*c.get)());
    EXPECT_TRUE(d->boolForKey(c.key));
    (d->*c.set)(false);
    EXPECT_FALSE(d->boolForKey(c.key));
    EXPECT_EQ(d->objectForKey(c.key)->kind(), PlistValue::Kind::Boolean);
  }
}

TEST(CVUserDefaultsTest, DomainAppearsWithTheFirstWrite) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
  EXPECT_FALSE(fs::exists(domainFile(sandbox)));
  EXPECT_FALSE(d->persistentDomainForName(CVUserDefaults::kDomainName).has_value());
  EXPECT_TRUE(defaultsDic.count("DefaultPath"));

  d->setSearchFont(true);
  auto domain = d->persistentDomainForName(CVUserDefaults::kDomainName);
  ASSERT_TRUE(domain.has_value());
  EXPECT_TRUE(domain->at("DefaultPath") == PlistValue::string(*d->defaultPath()));
  EXPECT_TRUE(domain->at("searchFont") == PlistValue::boolean(true));
  EXPECT_EQ(domain->size(), 2u);

  // Only the domain file is left behind: no temporary files.
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(sandbox.root() + "/config"))
    names.push_back(entry.path().filename().string());
  EXPECT_EQ(names, std::vector<std::string>{"com.Corvane.Defaults.plist"});
}

TEST(CVUserDefaultsTest, ResetKeepsTheValuesAndSkipsStartUp) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* old = CVUserDefaults::standardUserDefaultsWithisLiteVer(true);
  old->setArea(PlistValue::string("서울"));
  fs::remove_all(sandbox.root() + "/home/Documents/Quarvel");

  CVUserDefaults::resetStandardUserDefaults();
  CVUserDefaults* bare = CVUserDefaults::standardUserDefaultsWithisLiteVer(true);
  EXPECT_NE(bare, old);
  EXPECT_EQ(userdefaultsInstance, bare);
  EXPECT_FALSE(bare->isLite());
  EXPECT_TRUE(bare->area() == PlistValue::string("서울"));
  EXPECT_EQ(bare->defaultPath(), sandbox.root() + "/home/Documents/Quarvel");
  EXPECT_FALSE(fs::exists(sandbox.root() + "/home/Documents/Quarvel")) << "no folder work";

  // A write through the old instance still lands in the one store.
  old->setRegulator(PlistValue::integer(3));
  EXPECT_EQ(bare->integerForKey("regulator"), 3);
}

// {"area": "seoul"} as a binary property list.
const std::string kBinaryDomain(
    "bplist00\xd1\x01\x02\x54"
    "area\x55"
    "seoul\x08\x0b\x10\0\0\0\0\0\0\x01\x01"
    "\0\0\0\0\0\0\0\x03\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x16",
    57);

TEST(CVUserDefaultsTest, BinaryDomainLoads) {
  testing::SettingsSandbox sandbox;
  { std::ofstream(domainFile(sandbox), std::ios::binary) << kBinaryDomain; }
  EXPECT_TRUE(CVUserDefaults::standardUserDefaults()->area() == PlistValue::string("seoul"));
}

TEST(CVUserDefaultsTest, UnreadableDomainIsKeptAsideAndTheStoreStartsEmpty) {
  const struct {
    const char* what;
    std::string bytes;
  } cases[] = {
      {"garbage", std::string("\x89\0\xff garbage \x01\x02 <dict>", 20)},
      {"truncated XML", "<?xml version=\"1.0\"?><plist><dict><key>area</key><str"},
      {"truncated binary", kBinaryDomain.substr(0, 40)},
      {"XML nested 200,000 deep",
       [] {
         std::string xml = "<plist><dict><key>a</key>";
         for (int i = 0; i < 200000; ++i) xml += "<array>";
         return xml;
       }()},
      {"binary reference cycle", std::string("bplist00\xd1\x01\x00\x51k\x08\x0b\0\0\0\0\0\0\x01\x01"
                                             "\0\0\0\0\0\0\0\x02\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x0d",
                                             47)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    testing::SettingsSandbox sandbox;
    { std::ofstream(domainFile(sandbox), std::ios::binary) << c.bytes; }

    LogCapture log;
    CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
    EXPECT_FALSE(d->area().has_value());
    EXPECT_EQ(defaultsDic.size(), 1u) << "only DefaultPath";
    EXPECT_TRUE(log.contains("could not be read; kept it as " + domainFile(sandbox) + ".corrupt-"));

    std::vector<fs::path> aside;
    for (const auto& entry : fs::directory_iterator(sandbox.root() + "/config"))
      if (entry.path() != domainFile(sandbox)) aside.push_back(entry.path());
    ASSERT_EQ(aside.size(), 1u);
    const std::string name = aside[0].filename().string();
    EXPECT_TRUE(name.starts_with("com.Corvane.Defaults.plist.corrupt-") && name.size() == 50 &&
                name[43] == '_')
        << name;
    EXPECT_EQ(readBytes(aside[0].string()), c.bytes);

    // Writing starts a fresh domain and leaves the damaged copy alone.
    d->setArea(PlistValue::string("부산"));
    d->setInteger(2, "count");
    auto domain = d->persistentDomainForName(CVUserDefaults::kDomainName);
    ASSERT_TRUE(domain.has_value());
    EXPECT_TRUE(domain->at("area") == PlistValue::string("부산"));
    EXPECT_EQ(domain->size(), 3u);
    EXPECT_EQ(readBytes(aside[0].string()), c.bytes);
  }
}

// Another process's write is simulated by replacing the domain behind the
// store's back. The store loaded the domain once and does not read it again:
// its next write replaces the file with this process's whole dictionary.
TEST(CVUserDefaultsTest, AWriteReplacesTheWholeDomain) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
  d->setArea(PlistValue::string("mine"));

  PlistDictionary other = *d->persistentDomainForName(CVUserDefaults::kDomainName);
  other.insert_or_assign("addedByOther", PlistValue::integer(7));
  other.insert_or_assign("area", PlistValue::string("theirs"));
  ASSERT_TRUE(d->setPersistentDomain(other, CVUserDefaults::kDomainName));

  d->setInteger(1, "count");
  EXPECT_FALSE(d->objectForKey("addedByOther").has_value());
  EXPECT_TRUE(d->area() == PlistValue::string("mine"));
  EXPECT_TRUE(d->persistentDomainForName(CVUserDefaults::kDomainName) == defaultsDic);
}

// A write that runs out of room (a file-size limit stands in for a full
// disk) must leave the previous domain whole and no temporary file behind.
TEST(CVUserDefaultsTest, AFailedWriteLeavesTheOldDomain) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
  d->setArea(PlistValue::string("before"));
  const std::string before = readBytes(domainFile(sandbox));

  LogCapture log;
  rlimit saved{};
  ::getrlimit(RLIMIT_FSIZE, &saved);
  auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit small = saved;
  small.rlim_cur = before.size() + 64;
  ::setrlimit(RLIMIT_FSIZE, &small);
  d->setArea(PlistValue::string(std::string(4096, 'x')));
  ::setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previousHandler);

  EXPECT_TRUE(log.contains("not written"));
  EXPECT_TRUE(CVUserDefaults::lastWriteFailed());
  EXPECT_EQ(readBytes(domainFile(sandbox)), before);
  EXPECT_EQ(
      std::distance(fs::directory_iterator(sandbox.root() + "/config"), fs::directory_iterator()),
      1);
  EXPECT_EQ(d->area()->asString()->size(), 4096u) << "memory keeps the new value";
}

// Values other programs stored, each kept exactly through writes of other
// settings and a new start.
TEST(CVUserDefaultsTest, ValuesTheStoreDidNotChangeAreKeptExactly) {
  const struct {
    const char* what;
    PlistValue value;
  } cases[] = {
      {"distant future", PlistValue::date({63113904000.0})},
      {"1920", PlistValue::date({-2551046400.0})},
      {"fractional date", PlistValue::date({-1e11 + 0.125})},
      {"unsigned", PlistValue::unsignedInteger(UINT64_MAX)},
      {"controls", PlistValue::string(std::string("a\0\x01\r\n", 5))},
      {"NaN and infinity",
       PlistValue::array({PlistValue::real(std::nan("")), PlistValue::real(-INFINITY)})},
      {"nested", PlistValue::dictionary({{"d", PlistValue::array({PlistValue::data({0, 1})})}})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    testing::SettingsSandbox sandbox;
    PlistDictionary theirs{{"theirs", c.value}};
    {
      std::ofstream out(domainFile(sandbox), std::ios::binary);
      out << *writePropertyList(PlistValue::dictionary(theirs));
    }
    CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
    d->setInteger(1, "count");
    d->setInteger(2, "count");
    EXPECT_FALSE(CVUserDefaults::lastWriteFailed());
    discardSharedSettingsForTesting();
    d = CVUserDefaults::standardUserDefaults();
    ASSERT_TRUE(d->objectForKey("theirs").has_value());
    EXPECT_TRUE(*d->objectForKey("theirs") == c.value);
    EXPECT_EQ(d->integerForKey("count"), 2);
  }
}

TEST(CVUserDefaultsTest, AValueTooDeepToReadBackIsRefused) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
  d->setArea(PlistValue::string("before"));
  const std::string before = readBytes(domainFile(sandbox));
  PlistValue deep = PlistValue::boolean(true);
  for (int i = 0; i < 255; ++i) deep = PlistValue::array({deep});

  LogCapture log;
  d->setObject(PlistValue::array({deep}), "deep");  // 257 levels under the domain
  EXPECT_TRUE(CVUserDefaults::lastWriteFailed());
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.contains("nested deeper than 256"));
  EXPECT_EQ(readBytes(domainFile(sandbox)), before);
  EXPECT_FALSE(d->objectForKey("deep").has_value());

  d->setObject(deep, "deep");  // 256 levels: the deepest the reader takes
  EXPECT_FALSE(CVUserDefaults::lastWriteFailed());
  discardSharedSettingsForTesting();
  EXPECT_TRUE(CVUserDefaults::standardUserDefaults()->objectForKey("deep") == deep);
}

// Set aside without being read: a file past the size limit, and a pipe in
// the file's place, which must not hold the start-up waiting for a writer.
TEST(CVUserDefaultsTest, ADomainTooLargeOrNoFileIsKeptAsideUnread) {
  const struct {
    const char* what;
    std::function<void(const std::string&)> make;
    const char* logged;
  } cases[] = {
      {"past the size limit",
       [](const std::string& path) {
         { std::ofstream(path) << "<plist><dict/></plist>"; }
         fs::resize_file(path, kMaxPropertyListBytes + 1);  // sparse, never read
       },
       "is larger than"},
      {"a pipe", [](const std::string& path) { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); },
       "is not a regular file"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    testing::SettingsSandbox sandbox;
    c.make(domainFile(sandbox));
    LogCapture log;
    CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
    EXPECT_TRUE(log.contains(c.logged));
    EXPECT_FALSE(fs::exists(domainFile(sandbox)));
    d->setInteger(1, "count");
    EXPECT_TRUE(fs::is_regular_file(domainFile(sandbox)));
  }
}

int runChild(const char* mode) {
  std::string command = std::string("'") + QUARVEL_SETTINGS_CHILD + "' " + mode;
  return std::system(command.c_str());
}

TEST(CVUserDefaultsTest, SettingsOutliveTheProcess) {
  testing::SettingsSandbox sandbox;
  ASSERT_EQ(runChild("write"), 0);

  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
  EXPECT_TRUE(d->precisionInspect());
  EXPECT_EQ(d->integerForKey("count"), -12);
  EXPECT_EQ(d->doubleForKey("ratio"), 0.1);
  EXPECT_EQ(d->stringForKey("title"), "감사 도구");
  EXPECT_TRUE(d->lastUpdateDate() == PlistValue::string("07"));
  EXPECT_EQ(d->stringArrayForKey("selectedArr"),
            (std::vector<std::string>{"/Applications", "/opt/앱"}));
  EXPECT_EQ(d->dataForKey("blob"), (PlistData{0, 255}));

  d->setCloseAfterInspect(true);
  d->removeObjectForKey("count");
  d->setObject(PlistValue::string("바뀐 제목"), "title");
  d->setWebQuarvelIPAddress(PlistValue::string("10.0.0.5"));
  d->setFloat(1.5f, "scale");
  EXPECT_EQ(runChild("check"), 0);
}

// settings_child run with `args`, waited for at most `limit`: its exit
// status, or -1 when it had to be killed.
class Child {
 public:
  explicit Child(std::vector<std::string> args) {
    args.insert(args.begin(), QUARVEL_SETTINGS_CHILD);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    if (::posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) pid_ = -1;
  }
  ~Child() { wait(std::chrono::seconds(0)); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  int wait(std::chrono::steady_clock::duration limit) {
    if (pid_ <= 0) return -1;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
};

bool waitForFile(const std::string& path, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!fs::exists(path)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// Two processes write the domain in turn while a third reads the file all
// along. Each write replaces the file with the writer's whole dictionary (as
// loaded once, plus its own keys), so the reader must only ever find a file
// that loads and is exactly one writer's dictionary as of one of its writes,
// each writer's states in the order it wrote them (settings_child checks
// every read), and at the end the last writer's whole dictionary.
TEST(CVUserDefaultsTest, ProcessesWritingInTurnNeverTearTheFile) {
  testing::SettingsSandbox sandbox;
  constexpr int kRounds = 150;  // two writes each
  constexpr auto kLimit = std::chrono::seconds(120);
  const std::string dir = sandbox.root() + "/run";
  fs::create_directories(dir);
  const auto started = std::chrono::steady_clock::now();

  // Some bulk, so that a torn file would be more than a cut-off tag.
  PlistArray paths;
  for (int i = 0; i < 200; ++i) paths.push_back(PlistValue::string("/opt/앱/" + std::to_string(i)));
  CVUserDefaults* d = CVUserDefaults::standardUserDefaults();
  ASSERT_TRUE(d->setPersistentDomain(
      {{"selectedArr", PlistValue::array(paths)}, {"title", PlistValue::string("감사 도구")}},
      CVUserDefaults::kDomainName));

  const std::string rounds = std::to_string(kRounds);
  Child reader({"reader", dir, rounds, "first", "second"});
  Child first({"writer", dir, "first", rounds});
  Child second({"writer", dir, "second", rounds});
  for (const char* name : {"reader", "first", "second"})
    ASSERT_TRUE(waitForFile(dir + "/" + name + ".ready", std::chrono::seconds(60))) << name;
  { std::ofstream(dir + "/go").put('\n'); }
  EXPECT_EQ(first.wait(kLimit), 0);
  EXPECT_EQ(second.wait(kLimit), 0);
  { std::ofstream(dir + "/stop").put('\n'); }
  EXPECT_EQ(reader.wait(kLimit), 0);

  // Byte for byte what one writer held after its last write.
  const std::string last = readBytes(domainFile(sandbox));
  EXPECT_TRUE(last == readBytes(dir + "/first.final") || last == readBytes(dir + "/second.final"));
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(sandbox.root() + "/config"))
    names.push_back(entry.path().filename().string());
  EXPECT_EQ(names, std::vector<std::string>{"com.Corvane.Defaults.plist"})
      << "nothing set aside, no temporary file left";
  std::fprintf(stderr, "settings writers: %d writes each, %.1f s\n", 2 * kRounds,
               std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
}

}  // namespace
}  // namespace quarvel
