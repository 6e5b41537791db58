#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

// Records the completions of one request.
class Completion {
 public:
  std::function<void(const std::string&)> callback() {
    return [this](const std::string& text) {
      std::lock_guard<std::mutex> lock(mutex_);
      ++calls_;
      text_ = text;
      thread_ = std::this_thread::get_id();
      done_.notify_all();
    };
  }
  // Waits for the first call, then a little longer for a wrong second one.
  bool wait(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex_);
    bool called = done_.wait_for(lock, limit, [this] { return calls_ > 0; });
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return called;
  }
  int calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  std::string text() {
    std::lock_guard<std::mutex> lock(mutex_);
    return text_;
  }
  std::thread::id thread() {
    std::lock_guard<std::mutex> lock(mutex_);
    return thread_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  int calls_ = 0;
  std::string text_;
  std::thread::id thread_;
};

class HttpRequestTest : public ::testing::Test {
 protected:
  HttpRequestTest() {
    CVUserDefaults::resetStandardUserDefaults();  // a bare instance: no start-up work
    defaults_ = CVUserDefaults::standardUserDefaults();
  }

  quarvel::testing::SettingsSandbox sandbox_;
  CVUserDefaults* defaults_ = nullptr;
};

TEST_F(HttpRequestTest, SendsTheBodyCutToItsUtf16LengthWithAGetAndTheFormHeader) {
  struct Case {
    std::string body;
    std::string sent;
    const char* why;
  } cases[] = {
      {"x=1&y=2", "x=1&y=2", "ASCII goes whole"},
      {"\xC3\xA9"
       "a",
       "\xC3\xA9", "two-byte letter and ASCII: two units, two bytes"},
      {"\xF0\x9F\x98\x80", "\xF0\x9F", "a surrogate pair: two units"},
      {"\xED\x95\x9C\xEA\xB8\x80", "\xED\x95", "two Hangul syllables: two units"},
  };
  LoopbackHttpServer server([](const HttpReceived& r) { return HttpReply::text("got " + r.body); });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    Completion completion;
    defaults_->sendRequest(server.url("/echo?q=1"), c.body, nullptr, completion.callback());
    ASSERT_TRUE(completion.wait());
    EXPECT_EQ(completion.calls(), 1);
    HttpReceived received = server.requests().back();
    EXPECT_EQ(received.method, "GET");
    EXPECT_EQ(received.target, "/echo?q=1");
    EXPECT_EQ(received.body, c.sent);
    EXPECT_EQ(received.headers["content-type"], "application/x-www-form-urlencoded");
    // Cut bodies may end inside a character; the answer then is not UTF-8.
    if (c.sent == c.body) {
      EXPECT_EQ(completion.text(), "got " + c.sent);
    }
  }
}

TEST_F(HttpRequestTest, CompletionRunsOnceOnTheLibrarysThreadWithWhatArrived) {
  struct Case {
    HttpReply reply;
    std::string expected;
    const char* why;
  } cases[] = {
      {HttpReply::text("203.0.113.9\n"), "203.0.113.9\n", "plain answer"},
      {HttpReply::text("not here", 404), "not here", "error status: the body still counts"},
      {HttpReply::text(""), "", "empty answer"},
      {HttpReply::text("\xFF\xFE"), "", "answer that is not UTF-8"},
      {HttpReply::closeWithoutAnswer(), "", "server closes without answering"},
      {HttpReply::text(std::string(16 * 1024 * 1024 + 1, 'x')), "", "an answer past 16 MiB"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    LoopbackHttpServer server([&](const HttpReceived&) { return c.reply; });
    Completion completion;
    defaults_->sendRequest(server.url("/ip"), "", nullptr, completion.callback());
    ASSERT_TRUE(completion.wait());
    EXPECT_EQ(completion.calls(), 1);
    EXPECT_EQ(completion.text(), c.expected);
    EXPECT_NE(completion.thread(), std::this_thread::get_id());
    EXPECT_EQ(server.requests().size(), 1u);
  }
}

TEST_F(HttpRequestTest, UnusableTargetsCompleteOnceWithEmptyText) {
  for (const char* url : {"http://127.0.0.1:1/ip", "not a url", "file:///etc/hostname"}) {
    SCOPED_TRACE(url);
    Completion completion;
    defaults_->sendRequest(url, "a=b", nullptr, completion.callback());
    ASSERT_TRUE(completion.wait());
    EXPECT_EQ(completion.calls(), 1);
    EXPECT_EQ(completion.text(), "");
  }
}

TEST_F(HttpRequestTest, SilentServerFailsAfterTheIdleTimeout) {
  EXPECT_EQ(httpIdleTimeout(), std::chrono::seconds(60));
  quarvel::testing::TestPlatform platform;
  platform->httpIdle = std::chrono::milliseconds(300);
  LoopbackHttpServer server([](const HttpReceived&) { return HttpReply::silence(); });
  Completion completion;
  auto start = std::chrono::steady_clock::now();
  defaults_->sendRequest(server.url("/slow"), "", nullptr, completion.callback());
  ASSERT_TRUE(completion.wait());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  EXPECT_EQ(completion.calls(), 1);
  EXPECT_EQ(completion.text(), "");
}

// Answers every started exchange from a thread of its own, in libcurl's
// place: `body` in pieces of `piece` bytes, then `code`.
class AnsweringNetwork : public PlatformWrapper {
 public:
  AnsweringNetwork(std::string body, std::size_t piece, CURLcode code)
      : body_(std::move(body)), piece_(piece), code_(code) {}
  // The answering threads hold the exchanges, and those the platform: a test
  // joins them before letting go of it.
  void join() {
    for (std::thread& t : threads_) t.join();
    threads_.clear();
  }
  void startHttp(std::shared_ptr<HttpExchange> exchange,
                 std::function<void(int)> finished) override {
    std::lock_guard<std::mutex> lock(mutex_);
    urls.push_back(exchange->url());
    threads_.emplace_back([this, exchange, finished] {
      for (std::size_t at = 0; at < body_.size(); at += piece_) {
        if (!exchange->deliver(std::string_view(body_).substr(at, piece_)))
          return finished(CURLE_WRITE_ERROR);
      }
      finished(code_);
    });
  }
  std::vector<std::string> urls;  // guarded by mutex_

 private:
  std::string body_;
  std::size_t piece_;
  CURLcode code_;
  std::mutex mutex_;
  std::vector<std::thread> threads_;
};

// The transfer's own faults, made in-process: only a whole, valid answer
// reaches the completion; a cut transfer, a time-out and an answer past the
// cap delivered piece by piece all read as empty text.
TEST_F(HttpRequestTest, TransferFaultsInjectedInProcess) {
  const std::string atCap(16 * 1024 * 1024, 'x');
  const std::string past = atCap + 'x';
  const struct {
    std::string body;
    std::size_t piece;
    CURLcode code;
    std::string expected;
    const char* why;
  } cases[] = {
      {"203.0.113.9\n", 4, CURLE_OK, "203.0.113.9\n", "an answer in pieces"},
      {"203.0.", 3, CURLE_RECV_ERROR, "", "connection reset mid-body"},
      {"", 1, CURLE_OPERATION_TIMEDOUT, "", "gone idle"},
      {atCap, 1 << 20, CURLE_OK, atCap, "at the cap"},
      {past, 1 << 20, CURLE_OK, "", "past the cap"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    auto network = std::make_shared<AnsweringNetwork>(c.body, c.piece, c.code);
    quarvel::testing::ScopedPlatform scope(network);
    Completion completion;
    defaults_->sendRequest("http://198.51.100.1/ip", "", nullptr, completion.callback());
    ASSERT_TRUE(completion.wait());
    EXPECT_EQ(completion.calls(), 1);
    EXPECT_EQ(completion.text(), c.expected);
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
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::exit(7);
      },
      ::testing::ExitedWithCode(7), ::testing::Not(::testing::HasSubstr("completion ran")));
}

}  // namespace
}  // namespace quarvel
