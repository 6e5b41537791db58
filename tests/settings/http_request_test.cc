#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "common/HttpClient.h"
#include "quarvel/CVUserDefaults.h"
#include "settings/HttpRequest.h"
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
// UTF-16 length; an error status still counts its body; only a whole answer
// that is UTF-8 and within the cap reaches the completion, anything else
// completes once with empty text; always off the caller's thread.
TEST_F(HttpRequestTest, ExchangesWithALoopbackServer) {
  const std::string atCap(16 * 1024 * 1024, 'x');
  using R = HttpReply;
  struct Case {
    const char* why;
    std::string target, body, sent;
    std::optional<std::string> text;  // none: the cut ends inside a character
    std::optional<HttpReply> reply;   // none: "got " and the body
  } cases[] = {
      {"ASCII goes whole", "/echo?q=1", "x=1&y=2", "x=1&y=2", "got x=1&y=2", {}},
      {"é, a: two units, two bytes", "/echo", "\xC3\xA9\x61", "\xC3\xA9", "got \xC3\xA9", {}},
      {"a surrogate pair: two units", "/echo", "\xF0\x9F\x98\x80", "\xF0\x9F", std::nullopt, {}},
      {"two Hangul syllables: two units", "/echo", "\xED\x95\x9C\xEA\xB8\x80", "\xED\x95", {}, {}},
      {"error status: the body still counts", "/", "", "", "not here", R::text("not here", 404)},
      {"server closes without answering", "/", "", "", "", R::closeWithoutAnswer()},
      {"an answer in pieces", "/", "", "", "203.0.113.9\n", R::trickle("203.0.113.9\n", 4, 0ms)},
      {"an answer that is not UTF-8", "/", "", "", "", R::text("\xFF\xFE")},
      {"connection reset mid-body", "/", "", "", "", R::resetAfter("203.0.113.9", 6)},
      {"at the cap", "/", "", "", atCap, R::text(atCap)},
      {"past the cap", "/", "", "", "", R::text(atCap + 'x')},
      {"past the cap, no length announced", "/", "", "", "", R::flood(std::string(1 << 16, 'x'))},
  };
  std::atomic<const Case*> current = nullptr;
  LoopbackHttpServer server([&](const HttpReceived& r) {
    return current.load()->reply.value_or(R::text("got " + r.body));
  });
  for (const Case& c : cases) {
    current = &c;
    const Seen seen = send(server.url(c.target), c.body);
    EXPECT_EQ(seen.calls, 1) << c.why;
    EXPECT_NE(seen.thread, std::this_thread::get_id());
    EXPECT_EQ(seen.text, c.text.value_or(seen.text)) << c.why;
    HttpReceived received = server.requests().back();
    EXPECT_EQ(received.method, "GET");
    EXPECT_EQ(received.target, c.target);
    EXPECT_EQ(received.body, c.sent) << c.why;
    EXPECT_EQ(received.headers["content-type"], "application/x-www-form-urlencoded");
  }
}

// A refused connection, a target that is no URL or no HTTP and a server
// that never answers (once the idle time-out is past) complete once with
// empty text; each goes to the network as given.
TEST_F(HttpRequestTest, FailedTransfersCompleteOnceWithEmptyText) {
  struct Recording : quarvel::testing::ReplacingPlatform {
    void startHttp(std::shared_ptr<HttpExchange> exchange,
                   std::function<void(int)> finished) override {
      urls.push_back(exchange->url());
      ReplacingPlatform::startHttp(std::move(exchange), std::move(finished));
    }
    std::vector<std::string> urls;
  };
  auto network = std::make_shared<Recording>();
  network->httpIdle = 300ms;
  quarvel::testing::ScopedPlatform scope(network);
  LoopbackHttpServer silent([](const HttpReceived&) { return HttpReply::silence(); });
  const std::vector<std::string> urls = {"http://127.0.0.1:1/ip", "not a url",
                                         "file:///etc/hostname", silent.url("/slow")};
  auto start = std::chrono::steady_clock::now();
  for (const std::string& url : urls) {
    start = std::chrono::steady_clock::now();
    const Seen seen = send(url, "a=b");
    EXPECT_EQ(seen.calls, 1) << url;
    EXPECT_EQ(seen.text, "") << url;
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms) << "the silent server's wait";
  EXPECT_EQ(network->urls, urls);
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
