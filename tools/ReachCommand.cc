#include "ReachCommand.h"

#include <arpa/inet.h>
#include <glib-unix.h>
#include <glib.h>
#include <signal.h>

#include <ostream>

#include "quarvel/NotificationCenter.h"

namespace quarvel::cli {

std::unique_ptr<Reachability> makeReachMonitor(const ReachOptions& options) {
  if (options.localWiFi) return Reachability::reachabilityForLocalWiFi();
  if (options.target.empty()) return Reachability::reachabilityForInternetConnection();
  sockaddr_in address{};
  address.sin_family = AF_INET;
  if (inet_pton(AF_INET, options.target.c_str(), &address.sin_addr) == 1)
    return Reachability::reachabilityWithAddress(&address);
  sockaddr_in6 address6{};
  address6.sin6_family = AF_INET6;
  if (inet_pton(AF_INET6, options.target.c_str(), &address6.sin6_addr) == 1)
    return Reachability::reachabilityWithAddress(&address6);
  return Reachability::reachabilityWithHostName(options.target);
}

std::string describeReach(Reachability& monitor, bool localWiFi, std::int64_t* answer) {
  auto flags = monitor.currentFlags();
  std::int64_t status = ReachabilityNone;
  if (flags)
    status =
        localWiFi ? monitor.localWiFiStatusForFlags(*flags) : monitor.networkStatusForFlags(*flags);
  if (answer) *answer = status;
  const char* meaning = status == ReachabilityViaCellular       ? "reachable via cellular"
                        : status == ReachabilityViaLocalNetwork ? "reachable via local network"
                                                                : "not reachable";
  return (flags ? reachabilityFlagLetters(*flags) : std::string("unreadable")) + "  " +
         std::to_string(status) + " (" + meaning + ")";
}

int runReach(const ReachOptions& options, std::ostream& out, std::ostream& err) {
  auto monitor = makeReachMonitor(options);
  if (!monitor) {
    err << "reach: not a usable host name: \"" << options.target << "\"\n";
    return kReachExitUnusable;
  }
  std::int64_t status = ReachabilityNone;
  out << describeReach(*monitor, options.localWiFi, &status) << std::endl;
  auto exitFor = [&status] {
    return status == ReachabilityNone ? kReachExitUnreachable : kReachExitReachable;
  };
  if (!options.watch) return exitFor();

  GMainContext* context = g_main_context_new();
  g_main_context_push_thread_default(context);
  GMainLoop* loop = g_main_loop_new(context, FALSE);
  GSource* interrupt = g_unix_signal_source_new(SIGINT);
  g_source_set_callback(
      interrupt,
      [](gpointer data) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(data));
        return G_SOURCE_REMOVE;
      },
      loop, nullptr);
  g_source_attach(interrupt, context);

  auto token = NotificationCenter::defaultCenter().add(
      kReachabilityChangedNotification, monitor.get(), [&](const Notification&) {
        out << describeReach(*monitor, options.localWiFi, &status) << std::endl;
      });
  int exitStatus = kReachExitNoWatch;
  if (monitor->startNotifier()) {
    g_main_loop_run(loop);
    monitor->stopNotifier();
    exitStatus = exitFor();
  } else {
    err << "reach: cannot watch for changes\n";
  }
  NotificationCenter::defaultCenter().remove(token);
  g_source_destroy(interrupt);
  g_source_unref(interrupt);
  g_main_loop_unref(loop);
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
  return exitStatus;
}

}  // namespace quarvel::cli
