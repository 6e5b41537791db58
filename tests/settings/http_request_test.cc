#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "common/HttpClient.h"
#include "quarvel/CVUserDefaults.h"
#include "settings/HttpRequest.h"
#include "settings/NetworkFakes.h"
#include "support/LoopbackHttpServer.h"
#include "support/SettingsSandbox.h"
#include "support/TestPlatform.h"

namespace quarvel {
namespace {

using testing::HttpReceived;
using testing::HttpReply;
using testing::LoopbackHttpServer;

using namespace std::chrono_literals;

class HttpRequestTest : public ::testing::Test {
 protected:
  struct Seen {
    int calls = 0;
    std::string text;
    std::thread::id thread;
  };
  // Sends `body` to `url` and answers the completions seen: waits for the
  // first, then a little longer for a wrong second one.
  Seen send(const std::string& url, const std::string& body = "") {
    CVUserDefaults::resetStandardUserDefaults();  // a bare instance: no start-up work
    std::mutex mutex;
    std::condition_variable done;
    Seen seen;
    CVUserDefaults::standardUserDefaults()->sendRequest(
        url, body, nullptr, [&](const std::string& text) {
          std::lock_guard<std::mutex> lock(mutex);
          seen = {seen.calls + 1, text, std::this_thread::get_id()};
          done.notify_all();
        });
    std::unique_lock<std::mutex> lock(mutex);
    done.wait_for(lock, 10s, [&] { return seen.calls > 0; });
    lock.unlock();
    std::this_thread::sleep_for(50ms);
    lock.lock();
    return seen;
  }
  quarvel::testing::SettingsSandbox sandbox_;
};

// Through a real server: a GET with the form header and the body cut to its
// UTF-16 length; an error status still counts its body; a connection closed
// without an answer or past the cap completes once with empty text; always
// off the caller's thread.
TEST_F(HttpRequestTest, ExchangesWithALoopbackServer) {
  struct Case {
    const char* why;
    std::string target, body, sent;
    std::optional<std::string> text;  // none: the cut ends inside a character
  } cases[] = {
      {"ASCII goes whole", "/echo?q=1", "x=1&y=2", "x=1&y=2", "got x=1&y=2"},
      {"two-byte letter and ASCII: two units, two bytes", "/echo", "\xC3\xA9\x61", "\xC3\xA9",
       "got \xC3\xA9"},
      {"a surrogate pair: two units", "/echo", "\xF0\x9F\x98\x80", "\xF0\x9F", std::nullopt},
      {"two Hangul syllables: two units", "/echo", "\xED\x95\x9C\xEA\xB8\x80", "\xED\x95",
       std::nullopt},
      {"error status: the body still counts", "/missing", "", "", "not here"},
      {"server closes without answering", "/close", "", "", ""},
      {"an answer past 16 MiB", "/large", "", "", ""},
  };
  LoopbackHttpServer server([](const HttpReceived& r) {
    if (r.target == "/missing") return HttpReply::text("not here", 404);
    if (r.target == "/close") return HttpReply::closeWithoutAnswer();
    if (r.target == "/large") return HttpReply::text(std::string(16 * 1024 * 1024 + 1, 'x'));
    return HttpReply::text("got " + r.body);
  });
  for (const Case& c : cases) {
    const Seen seen = send(server.url(c.target), c.body);
    EXPECT_EQ(seen.calls, 1) << c.why;
    EXPECT_NE(seen.thread, std::this_thread::get_id());
    EXPECT_EQ(seen.text, c.text.value_or(seen.text));
    HttpReceived received = server.requests().back();
    EXPECT_EQ(received.method, "GET");
    EXPECT_EQ(received.target, c.target);
    EXPECT_EQ(received.body, c.sent) << c.why;
    EXPECT_EQ(received.headers["content-type"], "application/x-www-form-urlencoded");
  }
}

// A refused connection, a target that is no URL or no HTTP and a server
// that never answers (once the idle time-out is past) complete once with
// empty text.
TEST_F(HttpRequestTest, FailedTransfersCompleteOnceWithEmptyText) {
  quarvel::testing::TestPlatform platform;
  platform->httpIdle = 300ms;
  LoopbackHttpServer silent([](const HttpReceived&) { return HttpReply::silence(); });
  auto start = std::chrono::steady_clock::now();
  for (const std::string& url : {std::string("http://127.0.0.1:1/ip"), std::string("not a url"),
                                 std::string("file:///etc/hostname"), silent.url("/slow")}) {
    start = std::chrono::steady_clock::now();
    const Seen seen = send(url, "a=b");
    EXPECT_EQ(seen.calls, 1) << url;
    EXPECT_EQ(seen.text, "") << url;
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms) << "the silent server's wait";
}

// The transfer's own faults, made in-process: only a whole answer that is
// UTF-8 reaches the completion; a cut transfer and an answer past the cap,
// delivered piece by piece, read as empty text.
TEST_F(HttpRequestTest, TransferFaultsInjectedInProcess) {
  const std::string atCap(16 * 1024 * 1024, 'x');
  const struct {
    const char* why;
    std::string body;
    std::size_t piece;
    CURLcode code;
    std::string expected;
  } cases[] = {
      {"an answer in pieces", "203.0.113.9\n", 4, CURLE_OK, "203.0.113.9\n"},
      {"answer that is not UTF-8", "\xFF\xFE", 1, CURLE_OK, ""},
      {"connection reset mid-body", "203.0.", 3, CURLE_RECV_ERROR, ""},
      {"at the cap", atCap, 1 << 20, CURLE_OK, atCap},
      {"past the cap", atCap + 'x', 1 << 20, CURLE_OK, ""},
  };
  for (const auto& c : cases) {
    auto network = std::make_shared<quarvel::testing::AnsweringNetwork>(c.body, c.piece, c.code);
    quarvel::testing::ScopedPlatform scope(network);
    const Seen seen = send("http://198.51.100.1/ip");
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.text, c.expected) << c.why;
    network->join();
    EXPECT_THAT(network->urls, ::testing::ElementsAre("http://198.51.100.1/ip"));
  }
}

// A process may end while a request waits for an answer: it exits at once and
// the completion never runs once the library is gone.
TEST(HttpRequestDeathTest, InFlightRequestDoesNotHoldUpExit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        static LoopbackHttpServer* server =
            new LoopbackHttpServer([](const HttpReceived&) { return HttpReply::silence(); });
        sendHttpRequest(server->url("/hang"), "",
                        [](std::optional<std::string>) { std::fputs("completion ran\n", stderr); });
        std::this_thread::sleep_for(300ms);
        std::exit(7);
      },
      ::testing::ExitedWithCode(7), ::testing::Not(::testing::HasSubstr("completion ran")));
}

}  // namespace
}  // namespace quarvel
