#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

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
