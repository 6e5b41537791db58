// HTTP requests for the settings object, run by one network thread of the
// library's own that drives a libcurl multi handle.
#include "settings/HttpRequest.h"

#include <curl/curl.h>

#include <atomic>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "common/HttpClient.h"
#include "common/Log.h"
#include "common/Platform.h"
#include "common/StringUtil.h"
#include "quarvel/CVUserDefaults.h"

namespace quarvel {

namespace {

// The longest answer kept: the texts asked for are a few lines; a larger
// body fails the request instead of filling memory.
constexpr std::uint64_t kMaxAnswerBytes = 16 * 1024 * 1024;

struct Transfer {
  std::unique_ptr<HttpExchange> exchange;
  std::string received;
  std::function<void(std::optional<std::string>)> done;
  CURL* easy() const { return exchange->handle(); }
};

// Owns the network thread. It lives in a function-local static, so that its
// destructor (at exit or when the library is unloaded) stops the thread
// before anything the completions might use goes away; requests still in
// flight are dropped then, their completions never called.
class HttpDispatcher {
 public:
  static HttpDispatcher& shared() {
    static HttpDispatcher dispatcher;
    return dispatcher;
  }

  void submit(std::unique_ptr<Transfer> transfer) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) return;
      incoming_.push_back(std::move(transfer));
    }
    curl_multi_wakeup(multi_);
  }

  ~HttpDispatcher() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    curl_multi_wakeup(multi_);
    thread_.join();
    for (auto& t : active_) curl_multi_remove_handle(multi_, t->easy());
    active_.clear();
    incoming_.clear();
    curl_multi_cleanup(multi_);
  }

 private:
  HttpDispatcher() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_ = curl_multi_init();
    thread_ = std::thread([this] { run(); });
  }

  void run() {
    for (;;) {
      std::vector<std::unique_ptr<Transfer>> added;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) return;
        added.swap(incoming_);
      }
      for (auto& t : added) {
        curl_multi_add_handle(multi_, t->easy());
        active_.push_back(std::move(t));
      }
      int running = 0;
      curl_multi_perform(multi_, &running);
      finishCompleted();
      failSilent();
      // Wake at least a few times a second while requests run, to notice
      // silence; otherwise sleep until a request or the teardown wakes us.
      int waitMs = active_.empty() ? 60'000 : 100;
      curl_multi_poll(multi_, nullptr, 0, waitMs, nullptr);
    }
  }

  void finishCompleted() {
    int left = 0;
    while (CURLMsg* msg = curl_multi_info_read(multi_, &left)) {
      if (msg->msg != CURLMSG_DONE) continue;
      std::optional<std::string> text;
      if (msg->data.result == CURLE_OK) {
        Transfer* t = find(msg->easy_handle);
        if (t && isValidUtf8(t->received)) text = std::move(t->received);
      }
      complete(msg->easy_handle, std::move(text));
    }
  }

  void failSilent() {
    std::vector<CURL*> silent;
    for (auto& t : active_) {
      if (t->exchange->idle()) silent.push_back(t->easy());
    }
    for (CURL* easy : silent) complete(easy, std::nullopt);
  }

  Transfer* find(CURL* easy) {
    for (auto& t : active_) {
      if (t->easy() == easy) return t.get();
    }
    return nullptr;
  }

  void complete(CURL* easy, std::optional<std::string> text) {
    std::unique_ptr<Transfer> transfer;
    for (auto it = active_.begin(); it != active_.end(); ++it) {
      if ((*it)->easy() == easy) {
        transfer = std::move(*it);
        active_.erase(it);
        break;
      }
    }
    if (!transfer) return;
    curl_multi_remove_handle(multi_, easy);
    try {
      transfer->done(std::move(text));
    } catch (const std::exception& e) {
      logf("sendRequest completion failed: %s", e.what());
    } catch (...) {
      logf("sendRequest completion failed");
    }
  }

  CURLM* multi_ = nullptr;
  std::thread thread_;
  std::mutex mutex_;
  bool stopping_ = false;                            // guarded by mutex_
  std::vector<std::unique_ptr<Transfer>> incoming_;  // guarded by mutex_
  std::vector<std::unique_ptr<Transfer>> active_;    // network thread only
};

}  // namespace

std::chrono::milliseconds httpIdleTimeout() { return Platform::current()->httpIdleTimeout(); }

void sendHttpRequest(const std::string& url, const std::string& body,
                     std::function<void(std::optional<std::string>)> done) {
  HttpDispatcher& dispatcher = HttpDispatcher::shared();
  auto t = std::make_unique<Transfer>();
  t->done = std::move(done);
  HttpExchange::Options options;
  options.idleTimeout = httpIdleTimeout();
  options.maxBodyBytes = kMaxAnswerBytes;
  options.body = body;
  options.headers = {"content-type: application/x-www-form-urlencoded",
                     "Expect:"};  // send the body without waiting
  t->exchange = std::make_unique<HttpExchange>(url, std::move(options),
                                               [received = &t->received](std::string_view piece) {
                                                 received->append(piece);
                                                 return true;
                                               });
  if (!t->exchange->handle()) {
    t->done(std::nullopt);
    return;
  }
  dispatcher.submit(std::move(t));
}

void CVUserDefaults::sendRequest(const std::string& url, const std::string& body, const void*,
                                 std::function<void(const std::string&)> completetion) {
  // The body goes out cut to as many bytes as it has UTF-16 units: all of an
  // ASCII body, and less of one with other characters, as hosts expect.
  std::string bytes = body.substr(0, utf16Length(body));
  sendHttpRequest(url, bytes,
                  [completetion = std::move(completetion)](std::optional<std::string> text) {
                    completetion(text ? *text : std::string());
                  });
}

}  // namespace quarvel
