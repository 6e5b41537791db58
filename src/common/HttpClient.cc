#include "common/HttpClient.h"

#include <dlfcn.h>

#include <algorithm>
#include <exception>
#include <mutex>
#include <thread>
#include <type_traits>
#include <vector>

#include "common/Log.h"
#include "common/Platform.h"

namespace quarvel {

namespace {

// libcurl is bound at the first exchange instead of at start-up: it brings
// the TLS, Kerberos and LDAP libraries with it, whose loading alone takes
// longer than most of the tool's commands take to run.
struct Curl {
  decltype(&::curl_global_init) global_init = nullptr;
  decltype(&::curl_easy_init) easy_init = nullptr;
  decltype(&::curl_easy_setopt) easy_setopt = nullptr;
  decltype(&::curl_easy_perform) easy_perform = nullptr;
  decltype(&::curl_easy_cleanup) easy_cleanup = nullptr;
  decltype(&::curl_easy_getinfo) easy_getinfo = nullptr;
  decltype(&::curl_easy_strerror) easy_strerror = nullptr;
  decltype(&::curl_slist_append) slist_append = nullptr;
  decltype(&::curl_slist_free_all) slist_free_all = nullptr;
  decltype(&::curl_multi_init) multi_init = nullptr;
  decltype(&::curl_multi_add_handle) multi_add_handle = nullptr;
  decltype(&::curl_multi_remove_handle) multi_remove_handle = nullptr;
  decltype(&::curl_multi_perform) multi_perform = nullptr;
  decltype(&::curl_multi_poll) multi_poll = nullptr;
  decltype(&::curl_multi_wakeup) multi_wakeup = nullptr;
  decltype(&::curl_multi_info_read) multi_info_read = nullptr;
  decltype(&::curl_multi_cleanup) multi_cleanup = nullptr;
};

// The bound library, or null (logged once) when it cannot be loaded: every
// exchange then fails as one without a handle does.
const Curl* curl() {
  static const Curl* const bound = []() -> const Curl* {
    void* library = ::dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
    if (!library) {
      logf("HTTP unavailable: %s", ::dlerror());
      return nullptr;
    }
    static Curl api;
    auto bind = [library](const char* name, auto& function) {
      function =
          reinterpret_cast<std::remove_reference_t<decltype(function)>>(::dlsym(library, name));
      return function != nullptr;
    };
    const bool complete =
        bind("curl_global_init", api.global_init) && bind("curl_easy_init", api.easy_init) &&
        bind("curl_easy_setopt", api.easy_setopt) && bind("curl_easy_perform", api.easy_perform) &&
        bind("curl_easy_cleanup", api.easy_cleanup) &&
        bind("curl_easy_getinfo", api.easy_getinfo) &&
        bind("curl_easy_strerror", api.easy_strerror) &&
        bind("curl_slist_append", api.slist_append) &&
        bind("curl_slist_free_all", api.slist_free_all) &&
        bind("curl_multi_init", api.multi_init) &&
        bind("curl_multi_add_handle", api.multi_add_handle) &&
        bind("curl_multi_remove_handle", api.multi_remove_handle) &&
        bind("curl_multi_perform", api.multi_perform) && bind("curl_multi_poll", api.multi_poll) &&
        bind("curl_multi_wakeup", api.multi_wakeup) &&
        bind("curl_multi_info_read", api.multi_info_read) &&
        bind("curl_multi_cleanup", api.multi_cleanup);
    if (!complete || api.global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
      logf("HTTP unavailable: libcurl.so.4 lacks a function or did not start");
      return nullptr;
    }
    return &api;  // the library stays loaded until the process ends
  }();
  return bound;
}

}  // namespace

HttpExchange::HttpExchange(const std::string& url, Options options, BodySink sink)
    : url_(url),
      options_(std::move(options)),
      sink_(std::move(sink)),
      platform_(Platform::current()) {
  lastActivity_ = platform_->steadyNow();
  const Curl* api = curl();
  if (!api) return;
  easy_ = api->easy_init();
  if (!easy_) return;
  for (const std::string& header : options_.headers)
    headers_ = api->slist_append(headers_, header.c_str());
  CURL* e = easy_;
  api->easy_setopt(e, CURLOPT_URL, url.c_str());
  api->easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
  api->easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  api->easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
  api->easy_setopt(e, CURLOPT_MAXREDIRS, 10L);
  api->easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
  api->easy_setopt(e, CURLOPT_QUICK_EXIT, 1L);
  api->easy_setopt(e, CURLOPT_HTTPHEADER, headers_);
  api->easy_setopt(e, CURLOPT_ERRORBUFFER, errorText_);
  if (!options_.body.empty()) {
    api->easy_setopt(e, CURLOPT_POSTFIELDS, options_.body.data());
    api->easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(options_.body.size()));
  }
  api->easy_setopt(e, CURLOPT_CUSTOMREQUEST, options_.method.c_str());
  api->easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options_.idleTimeout.count()));
  if (options_.totalLimit.count() > 0)
    api->easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.totalLimit.count()));
  if (options_.receiveBuffer > 0) api->easy_setopt(e, CURLOPT_BUFFERSIZE, options_.receiveBuffer);
  // A body announced larger than the ceiling is refused before it comes.
  if (options_.maxBodyBytes <= static_cast<std::uint64_t>(std::numeric_limits<curl_off_t>::max()))
    api->easy_setopt(e, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(options_.maxBodyBytes));
  api->easy_setopt(e, CURLOPT_WRITEFUNCTION, onBody);
  api->easy_setopt(e, CURLOPT_WRITEDATA, this);
  api->easy_setopt(e, CURLOPT_XFERINFOFUNCTION, onProgress);
  api->easy_setopt(e, CURLOPT_XFERINFODATA, this);
  api->easy_setopt(e, CURLOPT_NOPROGRESS, 0L);
}

HttpExchange::~HttpExchange() {
  if (!easy_) return;  // no handle, no headers: libcurl may not even be loaded
  curl()->easy_cleanup(easy_);
  curl()->slist_free_all(headers_);
}

CURLcode HttpExchange::perform() {
  if (!easy_) return CURLE_FAILED_INIT;
  const CURLcode code = curl()->easy_perform(easy_);
  long status = 0;
  if (curl()->easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK) status_ = status;
  if (code == CURLE_FILESIZE_EXCEEDED) overCeiling_ = true;
  return overCeiling_ ? CURLE_FILESIZE_EXCEEDED : code;
}

bool HttpExchange::idle() const {
  return platform_->steadyNow() - lastActivity_ >= options_.idleTimeout;
}

std::string HttpExchange::describe(CURLcode code) const {
  if (code == CURLE_FILESIZE_EXCEEDED || overCeiling_)
    return "the body passed " + std::to_string(options_.maxBodyBytes) + " bytes";
  if (errorText_[0]) return errorText_;
  return curl() ? curl()->easy_strerror(code) : "libcurl could not be loaded";
}

void HttpExchange::touch() { lastActivity_ = platform_->steadyNow(); }

bool HttpExchange::deliver(std::string_view piece) {
  touch();
  const std::uint64_t room = options_.maxBodyBytes - std::min(received_, options_.maxBodyBytes);
  if (piece.size() > room) {
    overCeiling_ = true;
    return false;
  }
  received_ += piece.size();
  return !sink_ || sink_(piece);
}

size_t HttpExchange::onBody(char* data, size_t size, size_t count, void* self) {
  const size_t bytes = size * count;
  // Zero ends the exchange with CURLE_WRITE_ERROR.
  return static_cast<HttpExchange*>(self)->deliver(std::string_view(data, bytes)) ? bytes : 0;
}

int HttpExchange::onProgress(void* self, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
  auto* exchange = static_cast<HttpExchange*>(self);
  if (down != exchange->lastDown_ || up != exchange->lastUp_) {
    exchange->lastDown_ = down;
    exchange->lastUp_ = up;
    exchange->touch();
  }
  return exchange->idle() ? 1 : 0;  // 1 ends the exchange
}

namespace {

// Owns the network thread and its multi handle. It lives in a function-local
// static, so that its destructor (at exit or when the library is unloaded)
// stops the thread before anything the callbacks might use goes away.
class HttpDispatcher {
 public:
  struct Transfer {
    std::shared_ptr<HttpExchange> exchange;
    std::function<void(int)> finished;
  };

  static HttpDispatcher& shared() {
    static HttpDispatcher dispatcher;
    return dispatcher;
  }

  void submit(Transfer transfer) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) return;
      incoming_.push_back(std::move(transfer));
    }
    api_->multi_wakeup(multi_);
  }

  ~HttpDispatcher() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    api_->multi_wakeup(multi_);
    thread_.join();
    for (auto& t : active_) api_->multi_remove_handle(multi_, t.exchange->handle());
    active_.clear();
    incoming_.clear();
    api_->multi_cleanup(multi_);
  }

  HttpDispatcher(const HttpDispatcher&) = delete;
  HttpDispatcher& operator=(const HttpDispatcher&) = delete;

 private:
  // Made by the first exchange that has a handle, so libcurl is loaded.
  HttpDispatcher() : api_(curl()), multi_(api_->multi_init()), thread_([this] { run(); }) {}

  void run() {
    for (;;) {
      std::vector<Transfer> added;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) return;
        added.swap(incoming_);
      }
      for (auto& t : added) {
        api_->multi_add_handle(multi_, t.exchange->handle());
        active_.push_back(std::move(t));
      }
      int running = 0;
      api_->multi_perform(multi_, &running);
      int left = 0;
      while (CURLMsg* msg = api_->multi_info_read(multi_, &left)) {
        if (msg->msg == CURLMSG_DONE) complete(msg->easy_handle, msg->data.result);
      }
      std::vector<CURL*> silent;
      for (auto& t : active_) {
        if (t.exchange->idle()) silent.push_back(t.exchange->handle());
      }
      for (CURL* easy : silent) complete(easy, CURLE_OPERATION_TIMEDOUT);
      // Wake at least a few times a second while exchanges run, to notice
      // silence; otherwise sleep until an exchange or the teardown wakes us.
      const int waitMs = active_.empty() ? 60'000 : 100;
      api_->multi_poll(multi_, nullptr, 0, waitMs, nullptr);
    }
  }

  void complete(CURL* easy, CURLcode code) {
    auto it = std::find_if(active_.begin(), active_.end(),
                           [easy](const Transfer& t) { return t.exchange->handle() == easy; });
    if (it == active_.end()) return;
    Transfer transfer = std::move(*it);
    active_.erase(it);
    api_->multi_remove_handle(multi_, easy);
    try {
      transfer.finished(code);
    } catch (const std::exception& e) {
      logf("HTTP completion failed: %s", e.what());
    } catch (...) {
      logf("HTTP completion failed");
    }
  }

  const Curl* api_;
  CURLM* multi_;
  std::mutex mutex_;
  bool stopping_ = false;           // guarded by mutex_
  std::vector<Transfer> incoming_;  // guarded by mutex_
  std::vector<Transfer> active_;    // network thread only
  std::thread thread_;              // last: starts once the rest is ready
};

}  // namespace

void HttpExchange::startInBackground(std::shared_ptr<HttpExchange> exchange,
                                     std::function<void(int code)> finished) {
  if (!exchange || !exchange->handle()) {
    finished(CURLE_FAILED_INIT);
    return;
  }
  HttpDispatcher::shared().submit({std::move(exchange), std::move(finished)});
}

}  // namespace quarvel
