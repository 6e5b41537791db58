#pragma once
// The library's one HTTP client setup on libcurl. Every exchange, the
// settings' requests and the update run's downloads alike, is made here: the
// same protocols (http and https only, redirects included), redirect limit,
// signal-free time-outs, an idle watch (no byte moving for too long, the
// connection included, fails the exchange) and a cap on the body, which
// arrives piece by piece and is never held here.
//
// Threading: an exchange belongs to one thread at a time.

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quarvel {

class Platform;

class HttpExchange {
 public:
  struct Options {
    // No byte moving for this long fails the exchange, connecting included.
    std::chrono::milliseconds idleTimeout{std::chrono::seconds(60)};
    // The whole exchange; zero for no bound beyond the idle watch.
    std::chrono::milliseconds totalLimit{0};
    // A body announced or received beyond this fails the exchange.
    std::uint64_t maxBodyBytes = std::numeric_limits<std::uint64_t>::max();
    std::vector<std::string> headers;  // "Name: value"
    std::string body;                  // sent with the request when not empty
    std::string method = "GET";        // e.g. "POST" to deliver `body`
    long receiveBuffer = 0;            // bytes; 0 for libcurl's own
  };
  // Receives each piece of the body; answering false ends the exchange.
  using BodySink = std::function<bool(std::string_view)>;

  HttpExchange(const std::string& url, Options options, BodySink sink);
  ~HttpExchange();
  HttpExchange(const HttpExchange&) = delete;
  HttpExchange& operator=(const HttpExchange&) = delete;

  // Null when libcurl could not make a handle; perform() then fails.
  CURL* handle() const { return easy_; }
  // Runs the exchange to its end on this thread, through libcurl.
  CURLcode perform();
  // Hands the exchange to the library's network thread, which drives every
  // such exchange through one libcurl multi handle and calls `finished`
  // there, once, with the outcome (CURLE_OPERATION_TIMEDOUT when it went
  // idle). The thread lives in a static, so at exit or unload it stops
  // before what the callbacks use goes away: exchanges still in flight are
  // dropped then, their callbacks never called. An exception thrown by a
  // callback is logged and swallowed. An exchange without a handle fails at
  // once, on this thread, with CURLE_FAILED_INIT.
  static void startInBackground(std::shared_ptr<HttpExchange> exchange,
                                std::function<void(int code)> finished);
  // Hands a piece of the body over as libcurl would: counted against the
  // cap, then given to the sink. False when the exchange must end there
  // (the cap passed, or the sink refused). For platforms that answer in
  // libcurl's place.
  bool deliver(std::string_view piece);
  // The URL asked for.
  const std::string& url() const { return url_; }
  // Whether no byte has moved for the idle time-out, for exchanges that a
  // multi handle drives.
  bool idle() const;
  // Whether the body passed maxBodyBytes, announced or received.
  bool overCeiling() const { return overCeiling_; }
  std::uint64_t received() const { return received_; }
  // The answer's HTTP status, set by perform() (0 before, or when no answer
  // came); a platform answering in libcurl's place sets it.
  long status() const { return status_; }
  void setStatus(long status) { status_ = status; }
  // What the exchange was made with: method, headers and body to send.
  const Options& options() const { return options_; }
  // libcurl's words for how `code` came about.
  std::string describe(CURLcode code) const;

 private:
  static size_t onBody(char* data, size_t size, size_t count, void* self);
  static int onProgress(void* self, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up);
  void touch();

  std::string url_;
  CURL* easy_ = nullptr;
  curl_slist* headers_ = nullptr;
  Options options_;
  BodySink sink_;
  std::shared_ptr<Platform> platform_;  // its clock runs the idle watch
  std::chrono::steady_clock::time_point lastActivity_;
  curl_off_t lastDown_ = 0;
  curl_off_t lastUp_ = 0;
  std::uint64_t received_ = 0;
  bool overCeiling_ = false;
  long status_ = 0;
  char errorText_[CURL_ERROR_SIZE] = {};
};

}  // namespace quarvel
