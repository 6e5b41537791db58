// The network identity as the settings object offers it: the external-address
// lookup, the one wait for it, the cached text and the start-up job.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "quarvel/CVUserDefaults.h"
#include "settings/NetworkFakes.h"
#include "settings/NetworkIdentity.h"
#include "support/LoopbackHttpServer.h"
#include "support/SettingsSandbox.h"
#include "support/TestPlatform.h"

namespace quarvel {
namespace {

using namespace std::chrono_literals;
using testing::FakeInterfaces;
using testing::FakeServices;
using testing::HttpReceived;
using testing::HttpReply;
using testing::LoopbackHttpServer;

const std::vector<InterfaceAddress> kMachine = {
    {"eth0", "18", "52:54:00:12:34:56"},
    {"eth0", "2", "10.0.2.15"},
    {"wlan0", "18", "F8:FF:C2:00:00:02"},
};
// Its identity text while the external address is unknown.
const std::string kWithoutExternal =
    "내부 IP : 10.0.2.15<br>외부 IP : (null)<br>52:54:00:12:34:56<br>F8:FF:C2:00:00:02<br>";

class NetworkDefaultsTest : public ::testing::Test {
 protected:
  NetworkDefaultsTest() {
    useSources({std::make_shared<FakeInterfaces>(kMachine), services_,
                [this](std::chrono::milliseconds wait) {
                  std::lock_guard lock(mutex_);
                  waits_.push_back(wait);
                }});
  }
  ~NetworkDefaultsTest() override { discardSharedSettingsForTesting(); }

  // Identity runs started from now on take `sources`; a running start-up
  // job still holds the ones it was handed, so it is stopped first.
  void useSources(NetworkSources sources) {
    stopNetworkIdentityJobs();
    platform_->network = std::make_shared<const NetworkSources>(std::move(sources));
  }

  // The waits asked for since the last call, recorded instead of slept.
  std::vector<std::chrono::milliseconds> taken() {
    std::lock_guard lock(mutex_);
    return std::exchange(waits_, {});
  }

  quarvel::testing::SettingsSandbox sandbox_;
  quarvel::testing::TestPlatform platform_;
  std::mutex mutex_;
  std::vector<std::chrono::milliseconds> waits_;  // guarded by mutex_
  std::shared_ptr<FakeServices> services_ =
      std::make_shared<FakeServices>(ServiceList{{"eth0", "Ethernet"}, {"wlan0", "Wi-Fi"}});
};

// A bare instance (no lookup, no start-up job) waits while the external
// address is missing; IPAddress then computes the text once and keeps it.
TEST_F(NetworkDefaultsTest, WaitsTwoSecondsOnlyWhileTheExternalAddressIsMissing) {
  CVUserDefaults::resetStandardUserDefaults();
  CVUserDefaults* defaults = CVUserDefaults::standardUserDefaults();
  EXPECT_EQ(defaults->getIpAddress(), kWithoutExternal);
  EXPECT_EQ(taken(), std::vector<std::chrono::milliseconds>{2000ms});

  LoopbackHttpServer echo([](const HttpReceived&) { return HttpReply::text("198.51.100.7\r\n"); });
  CVUserDefaults::setEchoServiceHost(echo.hostAndPort());
  defaults->getOutIpAddress();
  std::string text;
  bool waited = true;  // until the answer is in, a call waits
  for (auto until = std::chrono::steady_clock::now() + 10s;
       waited && std::chrono::steady_clock::now() < until; std::this_thread::sleep_for(20ms)) {
    text = defaults->getIpAddress();
    waited = !taken().empty();
  }
  EXPECT_FALSE(waited);
  EXPECT_EQ(text,
            "내부 IP : 10.0.2.15<br>외부 IP : 198.51.100.7<br>52:54:00:12:34:56<br>"
            "F8:FF:C2:00:00:02<br>");
  ASSERT_EQ(echo.requests().size(), 1u);
  EXPECT_EQ(echo.requests()[0].method + " " + echo.requests()[0].target, "GET /ip");

  const int calls = services_->calls;
  EXPECT_EQ(defaults->IPAddress(), text);
  EXPECT_EQ(defaults->IPAddress(), text);
  EXPECT_EQ(services_->calls, calls + 1);
  auto run = CVUserDefaultsInternals::lastNetworkIdentityRun(*defaults);
  ASSERT_TRUE(run && run->addressArray.size() == 2);
  EXPECT_EQ(run->addressArray[1].adapter, "Wi-Fi");
}

// The start-up job is handed the test's sources; retiring the instance must
// wait for it, or it would call them after they are gone. The text the job
// made is kept: IPAddress does not compute it again.
TEST_F(NetworkDefaultsTest, RetiringTheInstanceJoinsItsStartUpJob) {
  std::atomic<bool> jobEnded{false};
  useSources({std::make_shared<FakeInterfaces>(kMachine), services_,
              [&jobEnded](std::chrono::milliseconds) {
                std::this_thread::sleep_for(100ms);
                jobEnded = true;
              }});
  CVUserDefaults::standardUserDefaults();
  discardSharedSettingsForTesting();
  EXPECT_TRUE(jobEnded);
  EXPECT_EQ(services_->calls, 1);  // the job ran to its end, not cut off

  jobEnded = false;
  CVUserDefaults* defaults = CVUserDefaults::standardUserDefaults();
  CVUserDefaults::resetStandardUserDefaults();
  EXPECT_TRUE(jobEnded);
  EXPECT_EQ(services_->calls, 2);
  EXPECT_EQ(defaults->IPAddress(), kWithoutExternal);
  EXPECT_EQ(services_->calls, 2);
}

}  // namespace
}  // namespace quarvel
