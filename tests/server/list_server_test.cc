// The list server: which requests name which file and what goes over the
// wire. (A whole update run against it is the terminal update's test.)

#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <thread>
#include <vector>

#include "common/Log.h"
#include "format/DataFileFormat.h"
#include "server/ListServer.h"
#include "soak/SoakFigures.h"
#include "support/AuditFixtures.h"
#include "support/RawSocket.h"

// The system's cpp-httplib is not built with ThreadSanitizer: hand-overs
// between its pool threads that it makes through inlined atomics show up as
// races inside it. The server's own code is still checked.
extern "C" const char* __tsan_default_suppressions() { return "race:libcpp-httplib.so\n"; }

namespace quarvel::server {
namespace {

using namespace std::chrono_literals;
using quarvel::testing::TempTree;

// The file a request target names, decoded as the server decodes it.
std::optional<std::string> named(std::string_view target) {
  const RequestTarget parsed = parseRequestTarget(target);
  return listFileForRequest(parsed.path, parsed.params);
}

TEST(ListFileForRequest, NamesTheFileOfEachEndpointAndRefusesEverythingElse) {
  const std::pair<const char*, const char*> cases[] = {
      {"/quarvel/download/list/check/mac/", "macchecklist.dat"},
      {"/quarvel/download/list/package/mac/", "macpcklist.dat"},
      {"/quarvel/download/list/filter/mac/", "macfilterlist.dat"},
      {"/quarvel/download/list/user/mac/", "userchecklist.dat"},
      {"/quarvel/download/list/font/mac/?x=1", "fontchecklist.dat"},
      {"/cmmn/download.nis?type=keyfile&filename=macchecklist.dat", "macchecklist.dat"},
      {"/cmmn/download.nis?type=file&filename=ver.dat", "ver.dat"},
      {"/cmmn/download.nis?type=file&filename=한글 이름.dat", "한글 이름.dat"},
      {"/file/keyfile60/package.dat", "package.dat"},
  };
  for (const auto& [target, file] : cases) EXPECT_EQ(named(target), file) << target;
  const char* const refused[] = {"/cmmn/download.nis?filename=ver.dat",
                                 "/cmmn/download.nis?type=other&filename=ver.dat",
                                 "/cmmn/download.nis?type=file",
                                 "/cmmn/download.nis?type=file&filename=",
                                 "/cmmn/download.nis?type=file&filename=..",
                                 "/cmmn/download.nis?type=file&filename=a%00b",
                                 "/",
                                 "/quarvel/download/list/check/mac",
                                 "/quarvel/download/list/check/mac/x",
                                 "/quarvel/download/list/check/mac/x.sig",
                                 "/file/keyfile60/",
                                 "/file/keyfile60/.",
                                 "/file/keyfile60/../secret",
                                 "/file/keyfile60"};
  for (const char* target : refused) EXPECT_EQ(named(target), std::nullopt) << target;

  // The client asks for a signature where its rule puts it; the server must
  // answer that address with the file's own signature, at every endpoint.
  const std::string download(datafile::kDownloadEndpoint);
  std::vector<std::pair<std::string, std::string>> targets{
      {std::string(datafile::kWindowsPackagePath) + "/package.dat", "package.dat"},
      {download + std::string(datafile::kFileQuery) + "ver.dat", "ver.dat"}};
  for (const auto& list : datafile::kListEndpoints) {
    targets.emplace_back(list.publicPath, list.fileName);
    targets.emplace_back(
        download + std::string(datafile::kKeyFileQuery) + std::string(list.fileName),
        list.fileName);
  }
  for (const auto& [target, file] : targets)
    EXPECT_EQ(named(datafile::signatureUrl(target)), file + std::string(datafile::kSignatureSuffix))
        << target;
}

TEST(ParseRequestTarget, DecodesPathAndQueryAsTheyWereSent) {
  const std::tuple<const char*, std::string, QueryParams> cases[] = {
      {"/a%2Eb/%2e%2E", "/a.b/..", {}},
      {"/a+b%20c", "/a+b c", {}},  // '+' is a space in the query only
      {"/x?type=file&filename=a+b%2Bc", "/x", {{"type", "file"}, {"filename", "a b+c"}}},
      {"/x?filename=a%00b", "/x", {{"filename", std::string("a\0b", 3)}}},
      {"/x?a&&b=&=c", "/x", {{"a", ""}, {"b", ""}, {"", "c"}}},
      {"/x?a=1&a=2", "/x", {{"a", "1"}, {"a", "2"}}},
      {"/%zz%4/%", "/%zz%4/%", {}},  // broken escapes stand for themselves
      {"/x?f=%e2%82%ac", "/x", {{"f", "\xe2\x82\xac"}}},
  };
  for (const auto& [target, path, params] : cases) {
    const RequestTarget parsed = parseRequestTarget(target);
    EXPECT_EQ(std::tie(parsed.path, parsed.params), std::tie(path, params)) << target;
  }
}

TEST(EscapeForLog, LeavesOnlyPrintableUtf8) {
  const std::pair<std::string, const char*> cases[] = {
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
  for (const auto& [text, logged] : cases) EXPECT_EQ(escapeForLog(text), logged);
}

class ServedFolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tree.file("served/package.dat", "pkg");
    port = server->start("127.0.0.1", 0);
    ASSERT_GT(port, 0);
  }
  httplib::Result get(const std::string& target) {
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(5, 0);
    return client.Get(target);
  }

  LogCapture quiet;  // tests that read the log capture it themselves
  TempTree tree;
  const std::string folder = tree.path("served");
  std::unique_ptr<ListServer> server = std::make_unique<ListServer>(folder);
  int port = -1;
};

TEST_F(ServedFolderTest, ServesPlainFilesOnlyAndLogsEachRequest) {
  const std::string binary("\x01\x00\xff", 3);
  tree.file("served/macchecklist.dat", binary);
  tree.file("served/sub/inner.dat", "inner");
  tree.file("served/del\x7f.dat", "del");  // a control character in the name
  tree.link(tree.file("secret.txt", "secret"), "served/link.dat");
  ASSERT_EQ(::mkfifo((folder + "/fifo").c_str(), 0600), 0);

  LogCapture log;
  const std::pair<const char*, std::string> cases[] = {
      {"/quarvel/download/list/check/mac/", binary},
      {"/file/keyfile60/package.dat", "pkg"},
      {"/cmmn/download.nis?type=keyfile&filename=macchecklist%2Edat", binary},
      {"/quarvel/download/list/font/mac/", ""},                       // not there
      {"/cmmn/download.nis?type=file&filename=..%2Fsecret.txt", ""},  // traversal
      {"/cmmn/download.nis?type=file&filename=link.dat", ""},         // a link
      {"/cmmn/download.nis?type=file&filename=sub", ""},              // a folder
      {"/cmmn/download.nis?type=file&filename=fifo", ""},             // not a regular file
      {"/file/keyfile60/del%7F.dat", ""},
  };
  for (const auto& [target, body] : cases) {
    auto result = get(target);
    ASSERT_TRUE(result) << target;
    EXPECT_EQ(result->status, body.empty() ? 404 : 200) << target;
    EXPECT_EQ(result->body, body.empty() ? "Not Found\n" : body) << target;
  }
  auto head = httplib::Client("127.0.0.1", port).Head("/file/keyfile60/package.dat");
  ASSERT_TRUE(head);
  EXPECT_EQ(std::make_tuple(head->status, head->body, head->get_header_value("Content-Length")),
            std::make_tuple(200, "", "3"));
  // A request line no client library would send reaches the log escaped.
  EXPECT_EQ(testing::rawExchange(port,
                                 "GET /file/keyfile60/a\"b\xff HTTP/1.1\r\nHost: x\r\n"
                                 "Connection: close\r\n\r\n")
                .status,
            404);
  EXPECT_EQ(testing::rawExchange(port, "GET /bad HTTP/1.1\r\nNo colon\r\n\r\n").status, 400);
  // A line is written once its answer has gone out, so lines may trail
  // their clients; the stop waits for the threads that write them.
  server->stop();
  std::size_t served = 0;  // each case, the HEAD and the raw requests
  for (const std::string& line : log.lines()) served += line.starts_with("serve: 127.0.0.1 ");
  EXPECT_EQ(served, std::size(cases) + 3);
  EXPECT_TRUE(log.contains("\"GET /quarvel/download/list/check/mac/\" 200 3"));
  EXPECT_TRUE(log.contains("\"GET /cmmn/download.nis?type=file&filename=link.dat\" 404"));
  EXPECT_TRUE(log.contains("\"GET /file/keyfile60/a\\x22b\\xFF\" 404"));
  EXPECT_TRUE(log.contains("\"/bad\" no answer (cut: error)"));
}

// The stop cuts a request still coming in once its grace has passed, and
// gives the port back.
TEST_F(ServedFolderTest, HoldsItsPortAloneAndFreesItOnStop) {
  ListServer rival(folder);
  EXPECT_EQ(rival.start("127.0.0.1", port), -1);
  // A header still trickling in when the server stops is cut once the grace
  // of a second has passed; one whose client left is logged as such.
  LogCapture log;
  const int fd = testing::connectTo(port), gone = testing::connectTo(port);
  ASSERT_TRUE(testing::sendText(gone, "GET /gone HTTP/1.1\r\n"));
  auto closed = std::async(std::launch::async, [&] {
    return testing::trickleUntilClosed(fd, "GET / HTTP/1.1\r\n", "X-Line: 1\r\n", 40, 200ms);
  });
  std::this_thread::sleep_for(500ms);
  ::close(gone);
  server.reset();  // the server closes first: its side lingers in TIME_WAIT
  EXPECT_TRUE(closed.get());
  ::close(fd);
  EXPECT_TRUE(log.contains("serve: stopping, cut 1 connection still open"));
  EXPECT_TRUE(log.contains("\"/gone\" no answer (cut: client gone)"));
  httplib::Client client("127.0.0.1", port);
  client.set_connection_timeout(1, 0);
  EXPECT_FALSE(client.Get("/"));
  ListServer again(folder, {.threads = 1});  // a pool of one is no pool
  EXPECT_EQ(again.start("127.0.0.1", port), port);
}

TEST_F(ServedFolderTest, SendsALargeFileToManyClientsWithoutHoldingIt) {
  constexpr std::uint64_t kSize = 100ull << 20;
  std::filesystem::resize_file(tree.file("served/macpcklist.dat", ""), kSize);  // sparse
  const long before = soak::residentKiB();
  std::atomic<bool> done{false};
  std::atomic<long> peak{before};
  std::thread sampler([&] {
    for (; !done; std::this_thread::sleep_for(5ms))
      peak = std::max(peak.load(), soak::residentKiB());
  });
  std::vector<std::future<std::uint64_t>> clients;
  for (int i = 0; i < 6; ++i)
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
  for (auto& client : clients) EXPECT_EQ(client.get(), kSize);
  done = true;
  sampler.join();
  // One copy in memory would be 100 MiB; a copy per client, 600.
  EXPECT_LT(peak - before, 32 * 1024) << "VmRSS grew from " << before << " to " << peak << " KiB";
}

}  // namespace
}  // namespace quarvel::server
