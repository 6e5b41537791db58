// The list server: which requests name which file, what goes over the wire,
// and a whole update run against it in both variants.

#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>
#include <vector>

#include "common/Log.h"
#include "format/DataFileFormat.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateRun.h"
#include "server/ListServer.h"
#include "support/SettingsSandbox.h"

// The system's cpp-httplib is not built with ThreadSanitizer: hand-overs
// between its pool threads that it makes through inlined atomics show up as
// races inside it. The server's own code is still checked.
extern "C" const char* __tsan_default_suppressions() { return "race:libcpp-httplib.so\n"; }

namespace quarvel::server {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

TEST(ListFileForRequest, NamesTheFileOfEachEndpoint) {
  struct Case {
    const char* path;
    QueryParams params;
    const char* file;
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
      {"/quarvel/download/list/check/mac/.sig", {}, "macchecklist.dat.sig"},
      {"/quarvel/download/list/font/mac/.sig", {}, "fontchecklist.dat.sig"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(listFileForRequest(c.path, c.params), c.file);
  }
}

// The client asks for a signature where the rule puts it; the server must
// answer that address with the file's own signature, at every endpoint.
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

TEST(ListFileForRequest, RefusesEverythingElse) {
  struct Case {
    const char* path;
    QueryParams params;
  };
  const Case cases[] = {
      {"/", {}},
      {"/quarvel/download/list/check/mac", {}},
      {"/quarvel/download/list/check/mac/x", {}},
      {"/quarvel/download/list/check/mac/x.sig", {}},
      {"/quarvel/download/list/check/mac.sig", {}},
      {"/quarvel/download/list/check/mac/.sig.sig", {}},
      {"/quarvel/download/list/", {}},
      {"/macchecklist.dat", {}},
      {"/cmmn/download.nis", {{"filename", "ver.dat"}}},
      {"/cmmn/download.nis", {{"type", "other"}, {"filename", "ver.dat"}}},
      {"/cmmn/download.nis", {{"type", "FILE"}, {"filename", "ver.dat"}}},
      {"/cmmn/download.nis", {{"type", "file"}}},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", ""}}},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", ".."}}},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", "../etc/passwd"}}},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", "/etc/passwd"}}},
      {"/cmmn/download.nis", {{"type", "file"}, {"filename", std::string("a\0b", 3)}}},
      {"/cmmn/download.nis/", {{"type", "file"}, {"filename", "ver.dat"}}},
      {"/file/keyfile60/", {}},
      {"/file/keyfile60/.", {}},
      {"/file/keyfile60/../secret", {}},
      {"/file/keyfile60/sub/package.dat", {}},
      {"/file/keyfile60", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.path << " " << c.params.size());
    EXPECT_FALSE(listFileForRequest(c.path, c.params));
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

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

class ServedFolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/quarvel-serve-XXXXXX";
    ASSERT_TRUE(::mkdtemp(pattern));
    root = pattern;
    folder = root + "/served";
    fs::create_directories(folder + "/sub");
    writeFile(root + "/secret.txt", "secret");
    writeFile(folder + "/sub/inner.dat", "inner");
    server = std::make_unique<ListServer>(folder);
    port = server->start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
  }
  void TearDown() override {
    server.reset();
    fs::remove_all(root);
  }
  httplib::Result get(const std::string& target) {
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(5, 0);
    return client.Get(target.c_str());
  }

  std::string root;
  std::string folder;
  std::unique_ptr<ListServer> server;
  int port = -1;
};

TEST_F(ServedFolderTest, ServesPlainFilesOnlyAndLogsEachRequest) {
  writeFile(folder + "/macchecklist.dat", std::string("\x01\x00\xff", 3));
  writeFile(folder + "/package.dat", "pkg");
  fs::create_symlink(root + "/secret.txt", folder + "/link.dat");
  ASSERT_EQ(::mkfifo((folder + "/fifo").c_str(), 0600), 0);

  LogCapture log;
  auto good = get("/quarvel/download/list/check/mac/");
  ASSERT_TRUE(good);
  EXPECT_EQ(good->status, 200);
  EXPECT_EQ(good->body, std::string("\x01\x00\xff", 3));
  auto windows = get("/file/keyfile60/package.dat");
  ASSERT_TRUE(windows);
  EXPECT_EQ(windows->body, "pkg");
  auto encoded = get("/cmmn/download.nis?type=keyfile&filename=macchecklist%2Edat");
  ASSERT_TRUE(encoded);
  EXPECT_EQ(encoded->status, 200);

  for (const char* target : {
           "/",                                                      // no listing
           "/quarvel/download/list/font/mac/",                       // not there
           "/cmmn/download.nis?type=file&filename=..%2Fsecret.txt",  // traversal
           "/cmmn/download.nis?type=file&filename=link.dat",         // a link
           "/cmmn/download.nis?type=file&filename=sub",              // a folder
           "/file/keyfile60/sub%2Finner.dat", "/file/keyfile60/../secret.txt",
           "/file/keyfile60/%2E%2E%2Fsecret.txt",  // encoded dots
           "/cmmn/download.nis?type=file&filename=%2e%2e",
           "/cmmn/download.nis?type=file&filename=package.dat%00x",  // NUL
           "/file/keyfile60/package.dat%00x",
           "/cmmn/download.nis?type=file&filename=fifo",  // not a regular file
       }) {
    SCOPED_TRACE(target);
    auto result = get(target);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 404);
    EXPECT_NE(result->body, "secret");
  }
  httplib::Client client("127.0.0.1", port);
  auto head = client.Head("/file/keyfile60/package.dat");
  ASSERT_TRUE(head);
  EXPECT_EQ(head->status, 200);
  EXPECT_EQ(head->get_header_value("Content-Length"), "3");
  EXPECT_EQ(head->body, "");
  // A line is written once its answer has gone out, by whichever thread
  // served it, so lines may trail their clients: wait for all of them first.
  int serveLines = 0;
  for (int wait = 0; wait < 1000 && serveLines < 16; ++wait) {
    if (wait) std::this_thread::sleep_for(10ms);
    serveLines = 0;
    for (const auto& line : log.lines()) serveLines += line.rfind("serve: ", 0) == 0;
  }
  EXPECT_EQ(serveLines, 16);
  EXPECT_TRUE(log.contains("\"GET /quarvel/download/list/check/mac/\" 200 3"));
  EXPECT_TRUE(log.contains("\"GET /cmmn/download.nis?type=file&filename=link.dat\" 404"));
}

TEST_F(ServedFolderTest, AnswersClientsConcurrently) {
  writeFile(folder + "/macfilterlist.dat", std::string(200000, 'f'));
  std::vector<std::future<bool>> clients;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(std::async(std::launch::async, [this] {
      for (int j = 0; j < 5; ++j) {
        auto result = get("/quarvel/download/list/filter/mac/");
        if (!result || result->status != 200 || result->body.size() != 200000) return false;
      }
      return true;
    }));
  }
  for (auto& client : clients) EXPECT_TRUE(client.get());
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

// Sends `request` to 127.0.0.1:port a byte every 100 ms, counting the bytes
// in `sent`. Answers true when the server closed the connection before the
// whole request had gone out.
bool trickleUntilClosed(int port, const std::string& request, std::atomic<int>& sent) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool closed = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0;
  for (size_t i = 0; i < request.size() && !closed; ++i) {
    char byte;
    closed =
        ::send(fd, &request[i], 1, MSG_NOSIGNAL) != 1 || ::recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
    ++sent;
    std::this_thread::sleep_for(100ms);
  }
  ::close(fd);
  return closed;
}

TEST_F(ServedFolderTest, StopCutsAClientStillSendingItsRequestAfterTheGrace) {
  ListServer quick(folder, {.grace = 50ms});
  const int quickPort = quick.start("127.0.0.1", 0);
  ASSERT_GT(quickPort, 0);
  // Each byte comes well within the read time-out, so the request would
  // hold its worker, and the stop, for the 5 seconds it takes to arrive.
  std::atomic<int> sent{0};
  auto closedEarly = std::async(std::launch::async, [&] {
    return trickleUntilClosed(quickPort, "GET /quarvel/download/list/check/mac/ HTTP/1.1\r\n\r\n",
                              sent);
  });
  while (sent < 3) std::this_thread::sleep_for(10ms);
  quick.stop();
  EXPECT_TRUE(closedEarly.get());
}

// A connection to 127.0.0.1:port, or -1.
int connectTo(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

bool sendText(int fd, const std::string& text) {
  return ::send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// True when the server has closed `fd` (an end of stream or a reset, any
// answer before it read and dropped), waiting up to `wait`.
bool closedByServer(int fd, std::chrono::milliseconds wait) {
  const auto until = std::chrono::steady_clock::now() + wait;
  char buffer[4096];
  for (;;) {
    pollfd entry{fd, POLLIN, 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - std::chrono::steady_clock::now());
    if (left.count() <= 0 || ::poll(&entry, 1, static_cast<int>(left.count())) <= 0) return false;
    const ssize_t got = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) return true;
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

TEST_F(ServedFolderTest, HeaderDeadlineClosesAClientSendingALineEachSecond) {
  ListServer strict(folder, {.headerDeadline = 2s});
  const int strictPort = strict.start("127.0.0.1", 0);
  ASSERT_GT(strictPort, 0);
  LogCapture log;
  const int fd = connectTo(strictPort);
  ASSERT_GE(fd, 0);
  const auto began = std::chrono::steady_clock::now();
  // Each line comes well within the 5 seconds of silence the server allows.
  bool closed = !sendText(fd, "GET /quarvel/download/list/check/mac/ HTTP/1.1\r\n");
  int lines = 0;
  while (!closed && lines < 8) {
    closed = closedByServer(fd, 1s);
    if (!closed) closed = !sendText(fd, "X-Line: " + std::to_string(++lines) + "\r\n");
  }
  const auto held = std::chrono::steady_clock::now() - began;
  ::close(fd);
  EXPECT_TRUE(closed);
  EXPECT_GE(held, 1900ms);
  EXPECT_LT(held, 5s);
  EXPECT_TRUE(log.contains("no complete request header within 2000 ms"));
}

TEST_F(ServedFolderTest, ClientsTricklingHeadersDoNotHoldANormalRequest) {
  writeFile(folder + "/macchecklist.dat", "check");
  std::vector<int> slow;
  for (int i = 0; i < 80; ++i) {
    const int fd = connectTo(port);
    ASSERT_GE(fd, 0);
    sendText(fd, "GET /quarvel/download/list/check/mac/ HTTP/1.1\r\n");
    slow.push_back(fd);
  }
  std::atomic<bool> done{false};
  std::thread trickle([&] {
    for (int round = 0; !done; ++round) {
      for (int fd : slow) sendText(fd, "X-Round: " + std::to_string(round) + "\r\n");
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
  writeFile(folder + "/macchecklist.dat", "check");
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
      held.push_back(connectTo(cappedPort));
      ASSERT_TRUE(sendText(held.back(), "GET / HTTP/1.1\r\n"));
    }
    const int extra = connectTo(cappedPort);
    ASSERT_GE(extra, 0);
    sendText(extra, "GET /quarvel/download/list/check/mac/ HTTP/1.1\r\nHost: x\r\n\r\n");
    if (c.queued) {
      pollfd entry{extra, POLLIN, 0};
      EXPECT_EQ(::poll(&entry, 1, 1000), 0) << "answered beyond the cap";
    } else {
      EXPECT_TRUE(closedByServer(extra, 3s));
    }
    ::close(held.back());
    held.pop_back();
    if (c.queued) {
      char answer[64] = {};
      pollfd entry{extra, POLLIN, 0};
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
      httplib::Client client("127.0.0.1", cappedPort);
      client.set_read_timeout(2, 0);
      if (auto again = client.Get("/quarvel/download/list/check/mac/")) body = again->body;
    }
    EXPECT_EQ(body, "check");
    for (int fd : held) ::close(fd);
  }
}

TEST_F(ServedFolderTest, SendsALargeFileToManyClientsWithoutHoldingIt) {
  constexpr std::uint64_t kSize = 100ull << 20;
  { std::ofstream(folder + "/macpcklist.dat"); }
  fs::resize_file(folder + "/macpcklist.dat", kSize);  // sparse: all zeros
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

TEST_F(ServedFolderTest, EscapesRequestLinesInItsLog) {
  struct Case {
    std::string target;
    const char* logged;
  };
  const Case cases[] = {
      {"/file/keyfile60/a\"b", "/file/keyfile60/a\\x22b"},
      {"/file/keyfile60/\xff\xfe.dat", "/file/keyfile60/\\xFF\\xFE.dat"},
      {"/file/keyfile60/\xed\x95\x9c.dat", "/file/keyfile60/\xed\x95\x9c.dat"},
      {"/file/keyfile60/x\\y%0A", "/file/keyfile60/x\\x5Cy%0A"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.logged);
    LogCapture log;
    const int fd = connectTo(port);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(
        sendText(fd, "GET " + c.target + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"));
    EXPECT_TRUE(closedByServer(fd, 5s));
    ::close(fd);
    const std::string quoted = std::string(c.logged) + "\" 404";
    bool found = false;
    for (int wait = 0; wait < 500 && !found; ++wait) {
      if (wait) std::this_thread::sleep_for(10ms);
      found = log.contains(quoted);
    }
    EXPECT_TRUE(found) << "no line with " << quoted;
  }
}

class NullView : public UpdateView {
 public:
  void setStatusText(const std::string&) override {}
  void setProgress(double) override {}
  void errorAlert(const std::string& code) override { alerts.push_back(code); }
  void close() override {}
  std::vector<std::string> alerts;  // written by the worker, read after it ended
};

TEST_F(ServedFolderTest, UpdateRunFetchesFromItInBothVariants) {
  const char* names[] = {"macchecklist.dat", "macpcklist.dat", "macfilterlist.dat",
                         "userchecklist.dat", "fontchecklist.dat"};
  for (const char* name : names) writeFile(folder + "/" + name, std::string("served ") + name);

  for (bool web : {false, true}) {
    SCOPED_TRACE(web);
    testing::SettingsSandbox sandbox;
    CVUserDefaults* settings = CVUserDefaults::standardUserDefaults();
    settings->setWebQuarvelIPAddress(PlistValue::string("127.0.0.1:" + std::to_string(port)));
    UpdateOptions options;
    options.listServer = "http://127.0.0.1:" + std::to_string(port);
    options.pacing = 1ms;
    options.networkCheck = [] { return true; };
    auto view = std::make_shared<NullView>();
    auto run = UpdateRun::create(view, options);
    run->setIsWebQuarvel(web);
    run->start();
    ASSERT_TRUE(run->waitUntilFinished(30s));
    EXPECT_EQ(run->updateStatus(), UpdateStatusDone);
    EXPECT_EQ(view->alerts, std::vector<std::string>{"DOWNLOAD_DONE"});
    for (const char* name : names) {
      std::ifstream in(*settings->libraryPath() + "/" + name);
      std::stringstream text;
      text << in.rdbuf();
      EXPECT_EQ(text.str(), std::string("served ") + name);
    }
  }
}

}  // namespace
}  // namespace quarvel::server
