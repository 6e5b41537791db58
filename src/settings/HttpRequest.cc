// HTTP requests for the settings object, started through the platform: the
// system's runs them on the library's network thread.
#include "settings/HttpRequest.h"

#include <curl/curl.h>

#include <memory>

#include "common/HttpClient.h"
#include "common/Platform.h"
#include "common/StringUtil.h"
#include "quarvel/CVUserDefaults.h"

namespace quarvel {

namespace {

// The longest answer kept: the texts asked for are a few lines; a larger
// body fails the request instead of filling memory.
constexpr std::uint64_t kMaxAnswerBytes = 16 * 1024 * 1024;

}  // namespace

std::chrono::milliseconds httpIdleTimeout() { return Platform::current()->httpIdleTimeout(); }

void sendHttpRequest(const std::string& url, const std::string& body,
                     std::function<void(std::optional<std::string>)> done) {
  HttpExchange::Options options;
  options.idleTimeout = httpIdleTimeout();
  options.maxBodyBytes = kMaxAnswerBytes;
  options.body = body;
  options.headers = {"content-type: application/x-www-form-urlencoded",
                     "Expect:"};  // send the body without waiting
  auto received = std::make_shared<std::string>();
  auto exchange =
      std::make_shared<HttpExchange>(url, std::move(options), [received](std::string_view piece) {
        received->append(piece);
        return true;
      });
  Platform::current()->startHttp(std::move(exchange), [received, done = std::move(done)](int code) {
    std::optional<std::string> text;
    if (code == CURLE_OK && isValidUtf8(*received)) text = std::move(*received);
    done(std::move(text));
  });
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
