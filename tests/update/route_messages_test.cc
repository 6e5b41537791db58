// Parsing what the kernel sends, and the flags derived from a route and its
// link, from messages built byte by byte.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "quarvel/Reachability.h"
#include "update/KernelRouteSource.h"
#include "update/RouteMessages.h"

namespace quarvel::netlink {
namespace {

namespace fs = std::filesystem;

// Builds netlink messages the way the kernel lays them out, each piece
// padded to four bytes.
struct MessageBuilder {
  MessageBuilder& begin(std::uint16_t type) {
    start = bytes.size();
    nlmsghdr header{};
    header.nlmsg_type = type;
    return body(header);
  }
  MessageBuilder& append(const void* data, std::size_t len) {
    const auto* b = static_cast<const std::uint8_t*>(data);
    bytes.insert(bytes.end(), b, b + len);
    bytes.resize(NLMSG_ALIGN(bytes.size()), 0);
    return *this;
  }
  template <typename T>
  MessageBuilder& body(const T& value) {
    return append(&value, sizeof value);
  }
  MessageBuilder& attr(std::uint16_t type, const void* data, std::size_t len) {
    return body(rtattr{static_cast<unsigned short>(RTA_LENGTH(len)), type}).append(data, len);
  }
  MessageBuilder& u32(std::uint16_t type, std::uint32_t v) { return attr(type, &v, 4); }
  // An IPv4 or IPv6 address, by the text's form.
  MessageBuilder& address(std::uint16_t type, const char* text) {
    std::uint8_t a[16] = {};
    const bool v6 = std::strchr(text, ':') != nullptr;
    inet_pton(v6 ? AF_INET6 : AF_INET, text, a);
    return attr(type, a, v6 ? 16 : 4);
  }
  // Writes the length of what came since begin() (or `at`) into its first `width` bytes.
  MessageBuilder& end(std::size_t width = 4) { return endAt(start, width); }
  MessageBuilder& endAt(std::size_t at, std::size_t width) {
    const auto len = static_cast<std::uint32_t>(bytes.size() - at);
    std::memcpy(bytes.data() + at, &len, width);
    return *this;
  }
  std::vector<std::uint8_t> bytes;
  std::size_t start = 0;
};

rtmsg routeHeader(std::uint8_t type, std::uint8_t dstLen = 32, std::uint8_t family = AF_INET) {
  rtmsg r{};
  r.rtm_family = family;
  r.rtm_type = type;
  r.rtm_dst_len = dstLen;
  r.rtm_table = RT_TABLE_MAIN;
  return r;
}

// A batch as text: each route as "route FAMILY/TYPE/DSTLEN oif metric table"
// with " via" for a gateway, each link, each error, then the batch's marks.
std::string show(const Batch& b) {
  std::ostringstream out;
  for (const auto& r : b.routes)
    out << "route " << int(r.family) << "/" << int(r.type) << "/" << int(r.dstLen) << " " << r.oif
        << " " << r.priority << " " << r.table << (r.hasGateway ? " via" : "") << "; ";
  for (const auto& l : b.links) out << "link " << l.index << " " << l.name << " " << l.type << "; ";
  for (int e : b.errors) out << "error " << e << "; ";
  out << (b.done ? "done " : "") << (b.changed ? "changed " : "")
      << (b.malformed ? "malformed" : "");
  return out.str();
}

TEST(RouteMessages, ParsedBatches) {
  auto message = [](std::uint16_t type, auto body) {
    MessageBuilder m;
    m.begin(type).body(body);
    return m;
  };
  ifinfomsg link{};
  link.ifi_index = 7;
  link.ifi_flags = IFF_UP | IFF_RUNNING | IFF_POINTOPOINT;
  link.ifi_type = ARPHRD_PPP;
  int enetunreach = -ENETUNREACH, ack = 0;
  MessageBuilder dump;
  dump.begin(RTM_NEWROUTE)
      .body(routeHeader(RTN_UNICAST, 0))
      .address(RTA_GATEWAY, "192.0.2.1")
      .u32(RTA_OIF, 4)
      .u32(RTA_PRIORITY, 100)
      .u32(RTA_TABLE, 1000)
      .end();
  dump.begin(RTM_NEWROUTE).body(routeHeader(RTN_UNICAST, 64, AF_INET6)).u32(RTA_OIF, 9).end();
  dump.begin(RTM_NEWLINK).body(link).attr(IFLA_IFNAME, "ppp0", 5).end();
  dump.begin(NLMSG_ERROR).body(enetunreach).end();
  dump.begin(NLMSG_ERROR).body(ack).end();
  dump.begin(0x7777).body(std::uint32_t{1}).end();
  dump.begin(NLMSG_DONE).body(std::uint32_t{0}).end();

  // A multipath route: rtnexthop { len, flags, hops, ifindex } and its own
  // attributes, per hop; the first hop counts.
  MessageBuilder hops;
  for (auto [ifindex, gateway] : {std::pair{5, "198.51.100.1"}, {6, "198.51.100.2"}}) {
    rtnexthop hop{};
    hop.rtnh_ifindex = ifindex;
    const std::size_t at = hops.bytes.size();
    hops.body(hop).address(RTA_GATEWAY, gateway).endAt(at, 2);
  }
  ifaddrmsg addr{};
  addr.ifa_family = AF_INET6;
  addr.ifa_prefixlen = 64;
  MessageBuilder v4Host;
  v4Host.begin(RTM_NEWROUTE).body(routeHeader(RTN_UNICAST)).u32(RTA_OIF, 3).end();
  auto damaged = [&](std::size_t at, std::uint8_t value) {
    auto bytes = v4Host.bytes;
    bytes[at] = value;
    return bytes;
  };
  struct Case {
    const char* what;
    std::vector<std::uint8_t> bytes;
    const char* batch;
  } const cases[] = {
      {"a dump", dump.bytes,
       "route 2/1/0 4 100 1000 via; route 10/1/64 9 0 254; link 7 ppp0 512; error 101; "
       "done changed "},
      {"multipath",
       message(RTM_NEWROUTE, routeHeader(RTN_UNICAST, 0))
           .attr(RTA_MULTIPATH, hops.bytes.data(), hops.bytes.size())
           .end()
           .bytes,
       "route 2/1/0 5 0 254 via; changed "},
      {"deleted route", message(RTM_DELROUTE, routeHeader(RTN_UNICAST, 0, AF_INET6)).end().bytes,
       "changed "},
      {"new address", message(RTM_NEWADDR, addr).address(IFA_ADDRESS, "2001:db8::2").end().bytes,
       "changed "},
      {"other family",
       message(RTM_NEWROUTE, routeHeader(RTN_MULTICAST, 32, RTNL_FAMILY_IPMR))
           .u32(RTA_OIF, 2)
           .end()
           .bytes,
       "changed "},
      {"attribute past the message", damaged(NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtmsg)), 0xF0),
       "route 2/1/32 0 0 254; changed malformed"},
      {"length smaller than a header", damaged(0, 8), "malformed"},
      {"error without its code", MessageBuilder().begin(NLMSG_ERROR).end().bytes, "malformed"},
  };
  for (const auto& c : cases) EXPECT_EQ(show(parseBatch(c.bytes)), c.batch) << c.what;
  // An attribute one byte longer than what is left is as damaged as one far past it.
  EXPECT_TRUE(
      parseBatch(damaged(NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtmsg)), RTA_LENGTH(4) + 1)).malformed);

  // Every truncation: parsing stays inside the span (ASan watches) and a
  // cut message is never taken for a whole one.
  const auto& good = v4Host.bytes;
  for (std::size_t n = 0; n < good.size(); ++n) {
    Batch b = parseBatch(std::span(good).first(n));
    EXPECT_TRUE(b.routes.empty() || b.malformed) << n;
    EXPECT_EQ(b.malformed, n > 0) << n;
  }
}

TEST(RouteMessages, DefaultRoutesOfBothFamilies) {
  // The metric names the route (as its oif) in the expectations below.
  auto route = [](std::uint8_t f, std::uint8_t t, std::uint8_t len, std::uint32_t metric,
                  std::uint32_t table = RT_TABLE_MAIN) {
    return RouteEntry{
        .family = f, .type = t, .dstLen = len, .table = table, .oif = metric, .priority = metric};
  };
  struct Case {
    const char* what;
    std::vector<RouteEntry> routes;
    std::vector<std::uint32_t> expected;  // oif of each default route, in order
  } cases[] = {
      {"IPv6 only",
       {route(AF_INET6, RTN_UNICAST, 64, 256), route(AF_INET6, RTN_UNICAST, 0, 1024)},
       {1024}},
      {"IPv4 before IPv6 whatever the metrics",
       {route(AF_INET6, RTN_UNICAST, 0, 5), route(AF_INET, RTN_UNICAST, 0, 600),
        route(AF_INET, RTN_UNICAST, 0, 100)},
       {100, 600, 5}},
      {"not usable as a default",
       {route(AF_INET6, RTN_UNREACHABLE, 0, 7), route(AF_INET6, RTN_UNICAST, 0, 8, RT_TABLE_LOCAL),
        route(AF_INET6, RTN_MULTICAST, 0, 9)},
       {}},
  };
  for (const auto& c : cases) {
    std::vector<std::uint32_t> got;
    for (const auto& r : defaultRoutes(c.routes)) got.push_back(r.oif);
    EXPECT_EQ(got, c.expected) << c.what;
  }
}

TEST(RouteMessages, FlagsForRoute) {
  auto route = [](std::uint8_t type, bool gateway, std::uint32_t flags = 0) {
    return RouteEntry{.type = type, .flags = flags, .oif = 2, .hasGateway = gateway};
  };
  const LinkTraits up{.up = true};
  constexpr std::uint32_t R = kReachabilityFlagReachable, d = kReachabilityFlagIsDirect,
                          l = kReachabilityFlagIsLocalAddress,
                          t = kReachabilityFlagTransientConnection, W = kReachabilityFlagIsWWAN;
  struct Case {
    const char* what;
    RouteEntry route;
    std::optional<LinkTraits> link;
    std::uint32_t flags;
  } cases[] = {
      {"through a gateway", route(RTN_UNICAST, true), up, R},
      {"own address", route(RTN_LOCAL, false), up, R | d | l},
      {"point-to-point", route(RTN_UNICAST, false), LinkTraits{.up = true, .pointToPoint = true},
       R | d | t},
      {"mobile broadband", route(RTN_UNICAST, true), LinkTraits{.up = true, .wwan = true}, R | W},
      {"link down", route(RTN_UNICAST, true), LinkTraits{.up = false, .wwan = true}, 0},
      {"link unknown", route(RTN_UNICAST, true), std::nullopt, 0},
      {"route marked linkdown", route(RTN_UNICAST, true, RTNH_F_LINKDOWN), up, 0},
      {"unreachable", route(RTN_UNREACHABLE, false), up, 0},
  };
  for (const auto& c : cases) EXPECT_EQ(flagsForRoute(c.route, c.link), c.flags) << c.what;
}

TEST(KernelRouteSource, CellularLinkFromSysfs) {
  fs::path root = fs::path(::testing::TempDir()) / ("sysfs-" + std::to_string(getpid()));
  fs::remove_all(root);
  auto device = [&](const std::string& name, const std::string& uevent) {
    fs::create_directories(root / "class/net" / name);
    std::ofstream(root / "class/net" / name / "uevent") << uevent;
  };
  device("eth0", "INTERFACE=eth0\nIFINDEX=2\n");
  device("wlan0", "DEVTYPE=wlan\nINTERFACE=wlan0\n");
  device("ppp0", "INTERFACE=ppp0\n");
  auto cellular = [sys = root.string()](const char* name, unsigned short type) {
    return KernelRouteSource::isCellularLink(sys, name, type);
  };
  for (const char* name : {"eth0", "wlan0", "missing", "../net/eth0"})
    EXPECT_FALSE(cellular(name, ARPHRD_ETHER)) << name;
  EXPECT_FALSE(cellular("ppp0", ARPHRD_PPP)) << "no modem on this machine";

  device("wwan0", "DEVTYPE=wwan\nINTERFACE=wwan0\n");
  EXPECT_TRUE(cellular("wwan0", ARPHRD_NONE));
  EXPECT_TRUE(cellular("ppp0", ARPHRD_PPP)) << "a modem is present";

  fs::remove_all(root / "class/net/wwan0");
  fs::create_directories(root / "class/wwan/wwan0");
  EXPECT_TRUE(cellular("ppp0", ARPHRD_PPP)) << "a WWAN-class modem";
  fs::remove_all(root);
}

}  // namespace
}  // namespace quarvel::netlink
