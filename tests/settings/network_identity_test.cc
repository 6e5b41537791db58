#include <gtest/gtest.h>

#include <cstdint>

#include "settings/NetworkFakes.h"
#include "settings/NetworkIdentity.h"

namespace quarvel {
namespace {

using testing::FakeInterfaces;
using testing::FakeServices;

TEST(ServiceList, ParsesTheServiceOrderText) {
  struct Case {
    std::string text;
    ServiceList expected;
    const char* why;
  } cases[] = {
      {"An asterisk (*) denotes that a network service is disabled.\n"
       "(1) Wi-Fi\n(Hardware Port: Wi-Fi, Device: en0)\n\n"
       "(2) Thunderbolt Bridge\n(Hardware Port: Thunderbolt Bridge, Device: bridge0)\n\n"
       "(*) USB 10/100/1000 LAN\n(Hardware Port: USB 10/100/1000 LAN, Device: en7)\n",
       {{"en0", "Wi-Fi"}, {"bridge0", "Thunderbolt Bridge"}, {"en7", "USB 10/100/1000 LAN"}},
       "command output: headings skipped, order kept"},
      {" \t(Hardware Port: Wi-Fi, Device: en0) \n(Hardware Port: Ethernet, Device: en1)\t ",
       {{"en0 ", "Wi-Fi"}, {"en1", "Ethernet"}},
       "only the whole text is trimmed, of spaces and tabs"},
      {"(Hardware Port: Wi-Fi Device: en0)\n(5) Port Scanner\n(Hardware Port: X, Device: en2)",
       {{"en2", "X"}},
       "Port lines without a comma are skipped"},
      {"(Hardware Port: iPhone (USB), Device: en9, extra)",
       {{"en9", "iPhone USB"}},
       "every parenthesis goes, parts after the second are ignored"},
      {"(Hardware Port:Wi-Fi,Device:en1)",
       {{"Device:en1", "Hardware Port:Wi-Fi"}},
       "labels are removed only when spelled exactly"},
      {"", {}, "empty text"},
  };
  for (const Case& c : cases) EXPECT_EQ(parseServiceList(c.text), c.expected) << c.why;
}

TEST(NetworkIdentity, TextFollowsServiceOrderFiltersAndPieces) {
  // An IPv6 address is passed over; of two IPv4 addresses the last counts.
  const std::vector<InterfaceAddress> machine = {
      {"en0", "2", "192.168.0.9"},        {"en0", "30", "fe80::1"},
      {"en0", "18", "00:00:00:00:00:01"}, {"en0", "2", "192.168.0.10"},
      {"en1", "18", "00:00:00:00:00:02"}, {"en2", "18", "00:00:00:00:00:03"},
      {"en2", "2", "172.16.0.3"},         {"bridge0", "18", "00:00:00:00:00:04"},
      {"bridge0", "2", "10.1.0.1"},       {"en7", "18", "00:00:00:00:00:07"},
      {"en7", "2", "10.7.0.1"},           {"en8", "2", "10.8.0.1"},
  };
  struct Case {
    const char* why;
    ServiceList services;
    std::optional<std::string> external;
    std::string expected;
  };
  // clang-format off
  const Case cases[] = {
      {"Wi-Fi with addresses, then an Ethernet without IPv4; answer trimmed",
       {{"en0", "Wi-Fi"}, {"en1", "Ethernet"}}, "203.0.113.1\n",
       "내부 IP : 192.168.0.10<br>외부 IP : 203.0.113.1<br>00:00:00:00:00:01<br>00:00:00:00:00:02<br>"},
      {"USB and bridge ports are left out",
       {{"en0", "Wi-Fi"}, {"bridge0", "Thunderbolt Bridge"}, {"en7", "USB 10/100/1000 LAN"}},
       "203.0.113.1", "내부 IP : 192.168.0.10<br>외부 IP : 203.0.113.1<br>00:00:00:00:00:01<br>"},
      {"service order, not interface order", {{"en2", "Thunderbolt 1"}, {"en0", "Wi-Fi"}}, " x\r\n",
       "내부 IP : 172.16.0.3<br>외부 IP : x<br>00:00:00:00:00:03<br>00:00:00:00:00:01<br>"},
      {"no external answer", {{"en0", "Wi-Fi"}}, std::nullopt,
       "내부 IP : 192.168.0.10<br>외부 IP : (null)<br>00:00:00:00:00:01<br>"},
      {"no internal address: the external one is not shown either", {{"en1", "Ethernet"}},
       "203.0.113.1", "00:00:00:00:00:02<br>"},
      {"adapter without a link-level address", {{"en8", "Ethernet"}}, "203.0.113.1",
       "내부 IP : 10.8.0.1<br>외부 IP : 203.0.113.1<br>"},
      {"unknown device and empty port skipped; the filter is case-sensitive",
       {{"en5", "Ethernet"}, {"en0", ""}, {"bridge0", "bridge"}}, "203.0.113.1",
       "내부 IP : 10.1.0.1<br>외부 IP : 203.0.113.1<br>00:00:00:00:00:04<br>"},
  };
  // clang-format on
  for (const Case& c : cases) {
    FakeServices services(c.services);
    FakeInterfaces interfaces(machine);
    EXPECT_EQ(buildNetworkIdentity(services, interfaces, c.external).ipStr, c.expected) << c.why;
  }
  FakeServices services(ServiceList{{"en0", "Wi-Fi"}});
  FakeInterfaces unreadable(std::nullopt);
  EXPECT_EQ(buildNetworkIdentity(services, unreadable, "x").ipStr, "");
  const std::uint8_t bytes[] = {0x00, 0x1c, 0x42, 0x0a, 0x0b, 0x0c};
  EXPECT_EQ(formatLinkAddress(bytes), "00:1C:42:0A:0B:0C");
}

}  // namespace
}  // namespace quarvel
