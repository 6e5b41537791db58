// The list server: which requests name which file and what goes over the
// wire. (A whole update run against it is the terminal update's test.)

#include <gtest/gtest.h>
#include <httplib.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>
#include <vector>

#include "common/Log.h"
#include "format/DataFileFormat.h"
#include "server/ListServer.h"
#include "support/AuditFixtures.h"
#include "support/RawSocket.h"

// The system's cpp-httplib is not built with ThreadSanitizer: hand-overs
// between its pool threads that it makes through inlined atomics show up as
// races inside it. The server's own code is still checked.
extern "C" const char* __tsan_default_suppressions() { return "race:libcpp-httplib.so\n"; }

namespace quarvel::server {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using quarvel::testing::TempTree;

TEST(ListFileForRequest, NamesTheFileOfEachEndpointAndRefusesEverythingElse) {
  struct Case {
    const char* path;
    QueryParams params;
    const char* file;  // null: refused
  };
  const Case cases[] = {
      {"/quarvel/download/list/check/mac/", {}, "macchecklist.dat"},
      {"/quarvel/download/list/package/mac/", {}, "macpcklist.dat"},
      {"/quarvel/download/list/filter/mac/", {}, "macfilterlist.dat"},
      {"/quarvel/download/list/user/mac/", {}, "userchecklist.dat"},
      {"/quarvel/download/list/font/mac/", {{"x", "1"}}, "fontchecklist.dat"},
      {"/cmmn/download.nis",
       {{"type", "keyfile"}, {"filename", "macchecklist.dat"}},
       "macchecklist.dat"},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", "ver.dat"}}, "ver.dat"},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", "한글 이름.dat"}}, "한글 이름.dat"},
      {"/file/keyfile60/package.dat", {}, "package.dat"},
      {"/cmmn/download.nis", {{"filename", "ver.dat"}}, nullptr},
      {"/cmmn/download.nis", {{"type", "other"}, {"filename", "ver.dat"}}, nullptr},
      {"/cmmn/download.nis", {{"type", "FILE"}, {"filename", "ver.dat"}}, nullptr},
      {"/cmmn/download.nis", {{"type", "file"}}, nullptr},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", ""}}, nullptr},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", ".."}}, nullptr},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", "../etc/passwd"}}, nullptr},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", "/etc/passwd"}}, nullptr},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", std::string("a\0b", 3)}}, nullptr},
      {"/cmmn/download.nis/", {{"type", "file"}, {"filename", "ver.dat"}}, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.path << " " << c.params.size());
    const std::optional<std::string> file = listFileForRequest(c.path, c.params);
    EXPECT_EQ(file, c.file ? std::optional<std::string>(c.file) : std::nullopt);
  }
  // Paths that name no file whatever the query.
  for (const char* path :
       {"/", "/quarvel/download/list/check/mac", "/quarvel/download/list/check/mac/x",
        "/quarvel/download/list/check/mac/x.sig", "/quarvel/download/list/check/mac.sig",
        "/quarvel/download/list/check/mac/.sig.sig", "/quarvel/download/list/", "/macchecklist.dat",
        "/file/keyfile60/", "/file/keyfile60/.", "/file/keyfile60/../secret",
        "/file/keyfile60/sub/package.dat", "/file/keyfile60"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(listFileForRequest(path, {}), std::nullopt);
  }
}

// The client asks for a signature where the rule puts it; the server must
// answer that address with the file's own signature, at every endpoint
// (the addresses next to it that name no signature are refused above).
TEST(ListFileForRequest, AnswersTheSignatureAddressOfEveryFile) {
  std::vector<std::pair<std::string, std::string>> targets;  // target, file
  for (const auto& list : datafile::kListEndpoints) {
    targets.emplace_back(list.publicPath, list.fileName);
    targets.emplace_back(std::string(datafile::kDownloadEndpoint) +
                             std::string(datafile::kKeyFileQuery) + std::string(list.fileName),
                         list.fileName);
  }
  targets.emplace_back(std::string(datafile::kWindowsPackagePath) + "/package.dat", "package.dat");
  targets.emplace_back(
      std::string(datafile::kDownloadEndpoint) + std::string(datafile::kFileQuery) + "ver.dat",
      "ver.dat");
  for (const auto& [target, file] : targets) {
    SCOPED_TRACE(target);
    const RequestTarget parsed = parseRequestTarget(datafile::signatureUrl(target));
    EXPECT_EQ(listFileForRequest(parsed.path, parsed.params),
              file + std::string(datafile::kSignatureSuffix));
  }
}

TEST(ParseRequestTarget, DecodesPathAndQueryAsTheyWereSent) {
  struct Case {
    const char* target;
    std::string path;
    QueryParams params;
  };
  const Case cases[] = {
      {"/a%2Eb/%2e%2E", "/a.b/..", {}},
      {"/a+b%20c", "/a+b c", {}},  // '+' is a space in the query only
      {"/x?type=file&filename=a+b%2Bc", "/x", {{"type", "file"}, {"filename", "a b+c"}}},
      {"/x?filename=a%00b", "/x", {{"filename", std::string("a\0b", 3)}}},
      {"/x%00y", std::string("/x\0y", 4), {}},
      {"/x?a&&b=&=c", "/x", {{"a", ""}, {"b", ""}, {"", "c"}}},
      {"/x?a=1&a=2", "/x", {{"a", "1"}, {"a", "2"}}},
      {"/%zz%4/%", "/%zz%4/%", {}},  // broken escapes stand for themselves
      {"/x?f=%e2%82%ac", "/x", {{"f", "\xe2\x82\xac"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.target);
    const RequestTarget parsed = parseRequestTarget(c.target);
    EXPECT_EQ(parsed.path, c.path);
    EXPECT_EQ(parsed.params, c.params);
  }
}

TEST(EscapeForLog, LeavesOnlyPrintableUtf8) {
  struct Case {
    std::string text;
    const char* logged;
  };
  const Case cases[] = {
      {"/cmmn/download.nis?type=file&filename=a.dat",
       "/cmmn/download.nis?type=file&filename=a.dat"},
      {"\"quoted\"", "\\x22quoted\\x22"},
      {"back\\slash", "back\\x5Cslash"},
      {"line\r\nbreak\ttab", "line\\x0D\\x0Abreak\\x09tab"},
      {std::string("nul\0del\x7f", 8), "nul\\x00del\\x7F"},
      {"\xed\x95\x9c\xea\xb8\x80 \xe2\x82\xac \xf0\x9f\x98\x80",
       "\xed\x95\x9c\xea\xb8\x80 \xe2\x82\xac \xf0\x9f\x98\x80"},
      {"\xff\xfe", "\\xFF\\xFE"},
      {"\xc0\xaf", "\\xC0\\xAF"},                    // overlong '/'
      {"\xe0\x80\xaf", "\\xE0\\x80\\xAF"},           // overlong, three bytes
      {"\xed\xa0\x80", "\\xED\\xA0\\x80"},           // a surrogate
      {"\xf4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},  // beyond U+10FFFF
      {"\xe2\x82", "\\xE2\\x82"},                    // cut short
      {"\xc2\x85", "\\xC2\\x85"},                    // C1 control (NEL)
      {"\xc2\xa0", "\xc2\xa0"},                      // no-break space is printable
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.logged);
    EXPECT_EQ(escapeForLog(c.text), c.logged);
  }
}

class ServedFolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tree.file("secret.txt", "secret");
    tree.file("served/sub/inner.dat", "inner");
    tree.file("served/macchecklist.dat", "check");
    port = server->start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
  }
  httplib::Result get(const std::string& target, int at = 0) {
    httplib::Client client("127.0.0.1", at ? at : port);
    client.set_read_timeout(5, 0);
    return client.Get(target.c_str());
  }

  LogCapture quiet;  // tests that read the log capture it themselves
  TempTree tree;
  const std::string folder = tree.path("served");
  std::unique_ptr<ListServer> server = std::make_unique<ListServer>(folder);
  int port = -1;
};

TEST_F(ServedFolderTest, ServesPlainFilesOnlyAndLogsEachRequest) {
  tree.file("served/macchecklist.dat", std::string("\x01\x00\xff", 3));
  tree.file("served/package.dat", "pkg");
  tree.file("served/del\x7f.dat", "del");  // a control character in the name
  tree.link(tree.path("secret.txt"), "served/link.dat");
  ASSERT_EQ(::mkfifo((folder + "/fifo").c_str(), 0600), 0);

  LogCapture log;
  const struct {
    const char* target;
    int status;
    std::string body;
  } cases[] = {
      {"/quarvel/download/list/check/mac/", 200, std::string("\x01\x00\xff", 3)},
      {"/file/keyfile60/package.dat", 200, "pkg"},
      {"/cmmn/download.nis?type=keyfile&filename=macchecklist%2Edat", 200,
       std::string("\x01\x00\xff", 3)},
      {"/", 404, ""},                                                      // no listing
      {"/quarvel/download/list/font/mac/", 404, ""},                       // not there
      {"/cmmn/download.nis?type=file&filename=..%2Fsecret.txt", 404, ""},  // traversal
      {"/cmmn/download.nis?type=file&filename=link.dat", 404, ""},         // a link
      {"/cmmn/download.nis?type=file&filename=sub", 404, ""},              // a folder
      {"/cmmn/download.nis?type=file&filename=%2e%2e", 404, ""},           // encoded dots
      {"/cmmn/download.nis?type=file&filename=package.dat%00x", 404, ""},  // NUL
      {"/cmmn/download.nis?type=file&filename=fifo", 404, ""},             // not a regular file
      {"/file/keyfile60/del%7F.dat", 404, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target);
    auto result = get(c.target);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, c.status);
    if (c.status == 200) {
      EXPECT_EQ(result->body, c.body);
    }
    EXPECT_NE(result->body, "secret");
  }
  httplib::Client client("127.0.0.1", port);
  auto head = client.Head("/file/keyfile60/package.dat");
  ASSERT_TRUE(head);
  EXPECT_EQ(head->status, 200);
  EXPECT_EQ(head->get_header_value("Content-Length"), "3");
  EXPECT_EQ(head->body, "");
  // A request line no client library would send reaches the log escaped.
  EXPECT_EQ(testing::rawExchange(port,
                                 "GET /file/keyfile60/a\"b\xff HTTP/1.1\r\nHost: x\r\n"
                                 "Connection: close\r\n\r\n")
                .status,
            404);
  // A line is written once its answer has gone out, by whichever thread
  // served it, so lines may trail their clients: wait for all of them first.
  // Each case, the HEAD and the raw request.
  const int expected = static_cast<int>(std::size(cases)) + 2;
  int serveLines = 0;
  for (int wait = 0; wait < 1000 && serveLines < expected; ++wait) {
    if (wait) std::this_thread::sleep_for(10ms);
    serveLines = 0;
    for (const auto& line : log.lines()) serveLines += line.rfind("serve: ", 0) == 0;
  }
  EXPECT_EQ(serveLines, expected);
  EXPECT_TRUE(log.contains("\"GET /quarvel/download/list/check/mac/\" 200 3"));
  EXPECT_TRUE(log.contains("\"GET /cmmn/download.nis?type=file&filename=link.dat\" 404"));
  EXPECT_TRUE(log.contains("\"GET /file/keyfile60/a\\x22b\\xFF\" 404"));
}

TEST_F(ServedFolderTest, HoldsItsPortAloneAndFreesItOnStop) {
  ListServer rival(folder);
  EXPECT_EQ(rival.start("127.0.0.1", port), -1);
  ASSERT_TRUE(get("/"));  // the server closes first: its side lingers in TIME_WAIT
  server.reset();
  httplib::Client client("127.0.0.1", port);
  client.set_connection_timeout(1, 0);
  EXPECT_FALSE(client.Get("/"));
  ListServer again(folder);
  EXPECT_EQ(again.start("127.0.0.1", port), port);
}

// A header that never ends, a line at a time: closed at the header deadline
// however steadily it comes, or by a stop once its grace has passed (each
// line well within the 5 seconds of silence allowed).
TEST_F(ServedFolderTest, ClosesAHeaderStillTricklingAtItsDeadlineOrOnStop) {
  const std::string head = "GET /quarvel/download/list/check/mac/ HTTP/1.1\r\n";
  const struct {
    const char* name;
    ServeLimits limits;
    bool stop;
    std::chrono::milliseconds atLeast, below;
  } cases[] = {
      {"header deadline", {.headerDeadline = 2s}, false, 1900ms, 5s},
      {"stop", {.grace = 50ms}, true, 0ms, 3s},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ListServer strict(folder, c.limits);
    const int strictPort = strict.start("127.0.0.1", 0);
    ASSERT_GT(strictPort, 0);
    LogCapture log;
    const int fd = testing::connectTo(strictPort);
    ASSERT_GE(fd, 0);
    const auto began = std::chrono::steady_clock::now();
    auto closed = std::async(std::launch::async, [&] {
      return testing::trickleUntilClosed(fd, head, "X-Line: 1\r\n", 40, 200ms);
    });
    if (c.stop) {
      std::this_thread::sleep_for(500ms);
      strict.stop();
    }
    EXPECT_TRUE(closed.get());
    const auto held = std::chrono::steady_clock::now() - began;
    ::close(fd);
    EXPECT_GE(held, c.atLeast);
    EXPECT_LT(held, c.below);
    EXPECT_EQ(log.contains("no complete request header within 2000 ms"), !c.stop);
  }
}

TEST_F(ServedFolderTest, ClientsTricklingHeadersDoNotHoldANormalRequest) {
  std::vector<int> slow;
  for (int i = 0; i < 80; ++i) {
    slow.push_back(testing::connectTo(port));
    ASSERT_GE(slow.back(), 0);
    testing::sendText(slow.back(), "GET /quarvel/download/list/check/mac/ HTTP/1.1\r\n");
  }
  std::atomic<bool> done{false};
  std::thread trickle([&] {
    for (int round = 0; !done; ++round) {
      for (int fd : slow) testing::sendText(fd, "X-Round: " + std::to_string(round) + "\r\n");
      for (int i = 0; i < 10 && !done; ++i) std::this_thread::sleep_for(100ms);
    }
  });
  std::this_thread::sleep_for(1500ms);  // every slow client has sent a line or two
  const auto began = std::chrono::steady_clock::now();
  auto result = get("/quarvel/download/list/check/mac/");
  const auto took = std::chrono::steady_clock::now() - began;
  done = true;
  trickle.join();
  for (int fd : slow) ::close(fd);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->body, "check");
  EXPECT_LT(took, 5s);
}

TEST_F(ServedFolderTest, RefusesConnectionsBeyondItsCaps) {
  // Beyond the per-address cap a connection is closed at once; beyond the
  // cap in all it waits in the kernel's queue until a place is free.
  struct Case {
    const char* name;
    ServeLimits limits;
    bool queued;
  };
  const Case cases[] = {
      {"per address", {.threads = 1, .maxPerAddress = 3}, false},
      {"in all", {.threads = 1, .maxConnections = 3}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ListServer capped(folder, c.limits);
    const int cappedPort = capped.start("127.0.0.1", 0);
    ASSERT_GT(cappedPort, 0);
    std::vector<int> held;
    for (int i = 0; i < 3; ++i) {
      held.push_back(testing::connectTo(cappedPort));
      ASSERT_TRUE(testing::sendText(held.back(), "GET / HTTP/1.1\r\n"));
    }
    const int extra = testing::connectTo(cappedPort);
    ASSERT_GE(extra, 0);
    testing::sendText(extra, "GET /quarvel/download/list/check/mac/ HTTP/1.1\r\nHost: x\r\n\r\n");
    pollfd entry{extra, POLLIN, 0};
    if (c.queued) {
      EXPECT_EQ(::poll(&entry, 1, 1000), 0) << "answered beyond the cap";
    } else {
      EXPECT_TRUE(testing::closedByServer(extra, 3s));
    }
    ::close(held.back());
    held.pop_back();
    if (c.queued) {
      char answer[64] = {};
      ASSERT_EQ(::poll(&entry, 1, 3000), 1);
      ASSERT_GT(::recv(extra, answer, sizeof answer - 1, 0), 12);
      EXPECT_EQ(std::string(answer, 12), "HTTP/1.1 200");
    }
    ::close(extra);
    // Once the server has seen that one go, there is room again. The library
    // may notice a client's close only at its next time-out (5 s of silence),
    // as it does under AddressSanitizer, so the wait allows for that.
    std::string body;
    for (int i = 0; i < 400 && body.empty(); ++i) {
      std::this_thread::sleep_for(20ms);
      if (auto again = get("/quarvel/download/list/check/mac/", cappedPort)) body = again->body;
    }
    EXPECT_EQ(body, "check");
    for (int fd : held) ::close(fd);
  }
}

long residentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

TEST_F(ServedFolderTest, SendsALargeFileToManyClientsWithoutHoldingIt) {
  constexpr std::uint64_t kSize = 100ull << 20;
  fs::resize_file(tree.file("served/macpcklist.dat", ""), kSize);  // sparse: all zeros
  const long before = residentKiB();
  std::atomic<bool> done{false};
  std::atomic<long> peak{before};
  std::thread sampler([&] {
    while (!done) {
      peak = std::max(peak.load(), residentKiB());
      std::this_thread::sleep_for(5ms);
    }
  });
  std::vector<std::future<std::uint64_t>> clients;
  for (int i = 0; i < 6; ++i) {
    clients.push_back(std::async(std::launch::async, [this] {
      std::uint64_t received = 0;
      httplib::Client client("127.0.0.1", port);
      client.set_read_timeout(30, 0);
      auto result =
          client.Get("/quarvel/download/list/package/mac/", [&](const char*, size_t length) {
            received += length;
            return true;
          });
      return result && result->status == 200 ? received : 0;
    }));
  }
  for (auto& client : clients) EXPECT_EQ(client.get(), kSize);
  done = true;
  sampler.join();
  // One copy in memory would be 100 MiB; a copy per client, 600.
  EXPECT_LT(peak - before, 32 * 1024) << "VmRSS grew from " << before << " to " << peak << " KiB";
}

}  // namespace
}  // namespace quarvel::server
