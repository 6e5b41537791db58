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

#include "common/Log.h"
#include "common/Platform.h"
#include "common/StringUtil.h"
#include "quarvel/CVUserDefaults.h"

namespace quarvel {

namespace {

using Clock = std::chrono::steady_clock;


struct Transfer {
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  std::string body;
  std::string received;
  std::function<void(std::optional<std::string>)> done;
  std::chrono::milliseconds idleTimeout{};
  Clock::time_point lastActivity = Clock::now();
  curl_off_t lastDown = 0;
  curl_off_t lastUp = 0;

  Transfer() = default;
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    curl_slist_free_all(headers);
  }
};

size_t onData(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  t->received.append(data, size * count);
  t->lastActivity = Clock::now();
  return size * count;
}

int onProgress(void* user, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
  auto* t = static_cast<Transfer*>(user);
  if (down != t->lastDown || up != t->lastUp) {
    t->lastDown = down;
    t->lastUp = up;
    t->lastActivity = Clock::now();
  }
  return 0;
}

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
    for (auto& t : active_) curl_multi_remove_handle(multi_, t->easy);
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
        t->lastActivity = Clock::now();
        curl_multi_add_handle(multi_, t->easy);
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
    auto now = Clock::now();
    std::vector<CURL*> silent;
    for (auto& t : active_) {
      if (now - t->lastActivity >= t->idleTimeout) silent.push_back(t->easy);
    }
    for (CURL* easy : silent) complete(easy, std::nullopt);
  }

  Transfer* find(CURL* easy) {
    for (auto& t : active_) {
      if (t->easy == easy) return t.get();
    }
    return nullptr;
  }

  void complete(CURL* easy, std::optional<std::string> text) {
    std::unique_ptr<Transfer> transfer;
    for (auto it = active_.begin(); it != active_.end(); ++it) {
      if ((*it)->easy == easy) {
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
  t->body = body;
  t->done = std::move(done);
  t->idleTimeout = httpIdleTimeout();
  t->easy = curl_easy_init();
  t->headers = curl_slist_append(nullptr, "content-type: application/x-www-form-urlencoded");
  t->headers = curl_slist_append(t->headers, "Expect:");  // send the body without waiting
  CURL* e = t->easy;
  curl_easy_setopt(e, CURLOPT_URL, url.c_str());
  curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(e, CURLOPT_MAXREDIRS, 10L);
  curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
  // Teardown must not wait for a name lookup still running.
  curl_easy_setopt(e, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(e, CURLOPT_HTTPHEADER, t->headers);
  if (!t->body.empty()) {
    curl_easy_setopt(e, CURLOPT_POSTFIELDS, t->body.data());
    curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t->body.size()));
  }
  curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, "GET");
  curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(t->idleTimeout.count()));
  curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onData);
  curl_easy_setopt(e, CURLOPT_WRITEDATA, t.get());
  curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, onProgress);
  curl_easy_setopt(e, CURLOPT_XFERINFODATA, t.get());
  curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);
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
