#pragma once
// A private GLib main context made thread-default for the lifetime of the
// object, and bounded ways to run it.

#include <glib.h>

#include <chrono>
#include <functional>
#include <thread>

namespace quarvel::test {

class MainContextLoop {
 public:
  MainContextLoop() : context_(g_main_context_new()) {
    g_main_context_push_thread_default(context_);
  }
  ~MainContextLoop() {
    while (g_main_context_iteration(context_, FALSE)) {
    }
    g_main_context_pop_thread_default(context_);
    g_main_context_unref(context_);
  }

  // Dispatches until `done` answers true or `limit` has passed; answers done().
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline)
      if (!g_main_context_iteration(context_, FALSE))
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return done();
  }
  void runFor(std::chrono::milliseconds duration) {
    runUntil([] { return false; }, duration);
  }

 private:
  GMainContext* context_;
};

}  // namespace quarvel::test
