#pragma once
// A private GLib main context made thread-default for the lifetime of the
// object, and bounded ways to run it.

#include <glib.h>

#include <chrono>
#include <functional>

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
  MainContextLoop(const MainContextLoop&) = delete;
  MainContextLoop& operator=(const MainContextLoop&) = delete;

  // Dispatches until `done` answers true or `limit` has passed; answers done().
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    // A tick, so that a blocking iteration wakes up to look at the clock.
    GSource* tick = g_timeout_source_new(10);
    g_source_set_callback(
        tick, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    g_source_attach(tick, context_);
    while (!done() && std::chrono::steady_clock::now() < deadline)
      g_main_context_iteration(context_, TRUE);
    g_source_destroy(tick);
    g_source_unref(tick);
    return done();
  }
  void runFor(std::chrono::milliseconds duration) {
    runUntil([] { return false; }, duration);
  }

 private:
  GMainContext* context_;
};

}  // namespace quarvel::test
