#pragma once
// One HTTP exchange at a time per call, run by the library's own network
// thread (libcurl). Completions are called on that thread, exactly once per
// request, unless the library is torn down first: then requests still in
// flight are dropped without calling them, and the teardown does not wait
// for the network.

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace quarvel {

// Sends `body` with the method GET (a GET that carries a body when the body is
// not empty) and the header "content-type: application/x-www-form-urlencoded".
// `done` receives the answer's body as text whatever the status code, or
// nothing when no answer arrived (bad URL, no connection, time-out, the peer
// closed early) or the answer is not valid UTF-8. Returns at once.
void sendHttpRequest(const std::string& url, const std::string& body,
                     std::function<void(std::optional<std::string>)> done);

// A request fails after this long without any byte moving, connection
// included: the current Platform's, 60 seconds on the system's; applies to
// requests sent afterwards.
std::chrono::milliseconds httpIdleTimeout();

}  // namespace quarvel
