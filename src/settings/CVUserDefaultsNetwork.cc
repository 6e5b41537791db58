// The network identity of the settings object: the external-address lookup,
// the identity text and the background job that computes it at start-up.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "common/Platform.h"
#include "quarvel/CVUserDefaults.h"
#include "settings/HttpRequest.h"
#include "settings/NetworkIdentity.h"
#include "settings/NetworkSources.h"
#include "settings/SettingsForTesting.h"

namespace quarvel {

// Shared by an instance, its external-address lookup and its background job.
struct NetworkIdentityState {
  std::mutex mutex;
  std::optional<std::string> ipAddress;       // the finished text; guarded by mutex
  std::optional<std::string> outIpAddress;    // the echo service's answer; guarded by mutex
  std::optional<NetworkIdentityRun> lastRun;  // guarded by mutex
};

namespace {

constexpr std::chrono::seconds kExternalAddressWait{2};

std::mutex echoHostMutex;
std::string& echoHost() {
  static std::string host = QUARVEL_ECHO_SERVER_HOST;
  return host;
}

// Where identity runs take their facts from: the current Platform's sources,
// members left empty standing for the system's.
NetworkSources configuredSources() {
  if (auto sources = Platform::current()->networkSources()) return *sources;
  return {};
}

// Runs the start-up identity jobs, each on a thread of its own, in place of
// the platform's global queue. A job never outlives what it was handed:
// retiring the shared instance or changing the network sources stops and
// joins the running jobs first (stopAll), and so does the library's exit or
// unload. Stopping cuts a job's 2-second wait short.
class BackgroundJobs {
 public:
  static BackgroundJobs& shared() {
    static BackgroundJobs jobs;
    return jobs;
  }

  void submit(std::function<void()> job) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;  // only while stopAll joins, or at exit
    threads_.emplace_back(std::move(job));
  }

  // Sleeps for `duration` unless the library is being torn down.
  void sleepFor(std::chrono::milliseconds duration) {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait_for(lock, duration, [this] { return stopping_; });
  }

  // Stops and joins every job submitted so far; later jobs run as usual.
  // Called from a thread that is not one of the jobs.
  void stopAll() {
    std::lock_guard<std::mutex> serial(stopMutex_);
    std::vector<std::thread> threads;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
      threads.swap(threads_);
    }
    wake_.notify_all();
    for (auto& t : threads) t.join();
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = false;
  }

  ~BackgroundJobs() {
    stopAll();
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;  // nothing starts during the rest of the exit
  }

 private:
  BackgroundJobs() = default;
  std::mutex stopMutex_;  // one stopAll at a time
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;             // guarded by mutex_
  std::vector<std::thread> threads_;  // guarded by mutex_
};

// One complete run with its own working state; only its records (and, for
// the start-up job, its text) are published to the shared state, together.
std::string computeIdentity(const std::shared_ptr<NetworkIdentityState>& state,
                            NetworkSources sources, bool keepText) {
  sources = withSystemDefaults(std::move(sources));
  auto external = [&state] {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->outIpAddress;
  };
  // One wait, without retry, for a lookup that has not answered yet.
  if (auto outIp = external(); !outIp || outIp->empty()) sources.sleep(kExternalAddressWait);
  NetworkIdentityRun run = buildNetworkIdentity(*sources.services, *sources.interfaces, external());
  std::string text = run.ipStr;
  std::lock_guard<std::mutex> lock(state->mutex);
  state->lastRun = std::move(run);
  if (keepText) state->ipAddress = text;
  return text;
}

}  // namespace

std::shared_ptr<NetworkIdentityState> CVUserDefaults::makeNetworkIdentityState() {
  return std::make_shared<NetworkIdentityState>();
}

void CVUserDefaults::setEchoServiceHost(std::string hostAndPort) {
  std::lock_guard<std::mutex> lock(echoHostMutex);
  echoHost() = std::move(hostAndPort);
}

std::string CVUserDefaults::echoServiceHost() {
  std::lock_guard<std::mutex> lock(echoHostMutex);
  return echoHost();
}

void stopNetworkIdentityJobs() { BackgroundJobs::shared().stopAll(); }

void CVUserDefaults::stopBackgroundJobs() { stopNetworkIdentityJobs(); }

void CVUserDefaults::startExternalAddressLookup() { getOutIpAddress(); }

void CVUserDefaults::startNetworkIdentityJob() {
  NetworkSources sources = configuredSources();
  if (!sources.sleep) {
    sources.sleep = [](std::chrono::milliseconds d) { BackgroundJobs::shared().sleepFor(d); };
  }
  BackgroundJobs::shared().submit([state = network_, sources = std::move(sources)] {
    computeIdentity(state, sources, /*keepText=*/true);
  });
}

void CVUserDefaults::getOutIpAddress() {
  // The echo service answers the caller's public address as plain text. A
  // failed lookup stores nothing, so the text shows "(null)" for it.
  std::weak_ptr<NetworkIdentityState> weak = network_;
  sendHttpRequest("http://" + echoServiceHost() + "/ip", "",
                  [weak](std::optional<std::string> text) {
                    if (!text) return;
                    if (auto state = weak.lock()) {
                      std::lock_guard<std::mutex> lock(state->mutex);
                      state->outIpAddress = std::move(*text);
                    }
                  });
}

std::string CVUserDefaults::getIpAddress() {
  return computeIdentity(network_, configuredSources(), /*keepText=*/false);
}

void CVUserDefaults::refresh() {
  NetworkIdentityRun run =
      CVUserDefaultsInternals::lastNetworkIdentityRun(*this).value_or(NetworkIdentityRun{});
  NetworkSources sources = withSystemDefaults(configuredSources());
  refreshInterfaces(run, *sources.interfaces);
  std::lock_guard<std::mutex> lock(network_->mutex);
  network_->lastRun = std::move(run);
}

std::vector<std::pair<std::string, std::string>> CVUserDefaults::deviceName(
    const std::string& serviceList) {
  return parseServiceList(serviceList);
}

std::string CVUserDefaults::IPAddress() {
  {
    std::lock_guard<std::mutex> lock(network_->mutex);
    if (network_->ipAddress) return *network_->ipAddress;
  }
  std::string text = getIpAddress();
  setIPAddress(text);
  return text;
}

void CVUserDefaults::setIPAddress(const std::string& text) {
  std::lock_guard<std::mutex> lock(network_->mutex);
  network_->ipAddress = text;
}

std::optional<NetworkIdentityRun> CVUserDefaultsInternals::lastNetworkIdentityRun(
    const CVUserDefaults& defaults) {
  std::lock_guard<std::mutex> lock(defaults.network_->mutex);
  return defaults.network_->lastRun;
}

}  // namespace quarvel
