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

#include "quarvel/Reachability.h"
#include "update/KernelRouteSource.h"
#include "update/RouteMessages.h"

namespace quarvel::netlink {
namespace {

namespace fs = std::filesystem;

// Builds netlink messages the way the kernel lays them out.
class MessageBuilder {
 public:
  MessageBuilder& begin(std::uint16_t type) {
    start_ = bytes_.size();
    nlmsghdr h{};
    h.nlmsg_type = type;
    append(&h, sizeof h);
    return *this;
  }
  template <typename T>
  MessageBuilder& body(const T& value) {
    append(&value, sizeof value);
    pad();
    return *this;
  }
  MessageBuilder& attr(std::uint16_t type, const void* data, std::size_t len) {
    rtattr a{};
    a.rta_type = type;
    a.rta_len = static_cast<unsigned short>(RTA_LENGTH(len));
    append(&a, sizeof a);
    append(data, len);
    pad();
    return *this;
  }
  MessageBuilder& u32(std::uint16_t type, std::uint32_t v) { return attr(type, &v, 4); }
  MessageBuilder& address(std::uint16_t type, const char* dotted) {
    in_addr a{};
    inet_pton(AF_INET, dotted, &a);
    return attr(type, &a, 4);
  }
  MessageBuilder& address6(std::uint16_t type, const char* text) {
    in6_addr a{};
    inet_pton(AF_INET6, text, &a);
    return attr(type, &a, sizeof a);
  }
  MessageBuilder& end() {
    std::uint32_t len = static_cast<std::uint32_t>(bytes_.size() - start_);
    std::memcpy(bytes_.data() + start_, &len, 4);
    return *this;
  }
  std::vector<std::uint8_t>& bytes() { return bytes_; }

 private:
  void append(const void* p, std::size_t n) {
    auto* b = static_cast<const std::uint8_t*>(p);
    bytes_.insert(bytes_.end(), b, b + n);
  }
  void pad() { bytes_.resize(NLMSG_ALIGN(bytes_.size()), 0); }
  std::vector<std::uint8_t> bytes_;
  std::size_t start_ = 0;
};

rtmsg routeHeader(std::uint8_t type, std::uint8_t dstLen = 32, std::uint8_t family = AF_INET) {
  rtmsg r{};
  r.rtm_family = family;
  r.rtm_type = type;
  r.rtm_dst_len = dstLen;
  r.rtm_table = RT_TABLE_MAIN;
  return r;
}

TEST(RouteMessages, ParsesRoutesLinksErrorsAndChanges) {
  MessageBuilder m;
  m.begin(RTM_NEWROUTE)
      .body(routeHeader(RTN_UNICAST, 0))
      .address(RTA_GATEWAY, "192.0.2.1")
      .u32(RTA_OIF, 4)
      .u32(RTA_PRIORITY, 100)
      .u32(RTA_TABLE, 1000)
      .end();
  m.begin(RTM_NEWROUTE).body(routeHeader(RTN_UNICAST, 64, AF_INET6)).u32(RTA_OIF, 9).end();
  ifinfomsg link{};
  link.ifi_index = 7;
  link.ifi_flags = IFF_UP | IFF_RUNNING | IFF_POINTOPOINT;
  link.ifi_type = ARPHRD_PPP;
  m.begin(RTM_NEWLINK).body(link).attr(IFLA_IFNAME, "ppp0", 5).end();
  int enetunreach = -ENETUNREACH, ack = 0;
  m.begin(NLMSG_ERROR).body(enetunreach).end();
  m.begin(NLMSG_ERROR).body(ack).end();
  m.begin(0x7777).body(std::uint32_t{1}).end();
  m.begin(NLMSG_DONE).body(std::uint32_t{0}).end();

  Batch b = parseBatch(m.bytes());
  EXPECT_FALSE(b.malformed);
  ASSERT_EQ(b.routes.size(), 2u);
  EXPECT_EQ(b.routes[0].family, AF_INET);
  EXPECT_EQ(b.routes[0].type, RTN_UNICAST);
  EXPECT_EQ(b.routes[0].dstLen, 0);
  EXPECT_EQ(b.routes[0].oif, 4u);
  EXPECT_EQ(b.routes[0].priority, 100u);
  EXPECT_EQ(b.routes[0].table, 1000u);
  EXPECT_TRUE(b.routes[0].hasGateway);
  EXPECT_EQ(b.routes[1].family, AF_INET6);
  EXPECT_EQ(b.routes[1].dstLen, 64);
  EXPECT_EQ(b.routes[1].oif, 9u);
  EXPECT_FALSE(b.routes[1].hasGateway);
  ASSERT_EQ(b.links.size(), 1u);
  EXPECT_EQ(b.links[0].index, 7u);
  EXPECT_EQ(b.links[0].name, "ppp0");
  EXPECT_EQ(b.links[0].type, ARPHRD_PPP);
  EXPECT_EQ(b.errors, std::vector<int>{ENETUNREACH});
  EXPECT_TRUE(b.done);
  EXPECT_TRUE(b.changed);
}

TEST(RouteMessages, MultipathRouteTakesItsFirstNexthop) {
  // rtnexthop { len, flags, hops, ifindex } followed by its own attributes.
  std::vector<std::uint8_t> hops;
  auto addHop = [&](int ifindex, const char* gateway) {
    rtnexthop h{};
    h.rtnh_ifindex = ifindex;
    h.rtnh_len = static_cast<unsigned short>(RTNH_LENGTH(RTA_LENGTH(4)));
    std::size_t at = hops.size();
    hops.resize(at + h.rtnh_len, 0);
    std::memcpy(hops.data() + at, &h, sizeof h);
    rtattr a{};
    a.rta_type = RTA_GATEWAY;
    a.rta_len = RTA_LENGTH(4);
    std::memcpy(hops.data() + at + RTNH_LENGTH(0), &a, sizeof a);
    inet_pton(AF_INET, gateway, hops.data() + at + RTNH_LENGTH(0) + RTA_LENGTH(0));
  };
  addHop(5, "198.51.100.1");
  addHop(6, "198.51.100.2");
  MessageBuilder m;
  m.begin(RTM_NEWROUTE)
      .body(routeHeader(RTN_UNICAST, 0))
      .attr(RTA_MULTIPATH, hops.data(), hops.size())
      .end();
  Batch b = parseBatch(m.bytes());
  ASSERT_EQ(b.routes.size(), 1u);
  EXPECT_EQ(b.routes[0].oif, 5u);
  EXPECT_TRUE(b.routes[0].hasGateway);
  EXPECT_FALSE(b.malformed);
}

TEST(RouteMessages, DamagedBytesAreReportedNotOverread) {
  MessageBuilder m;
  m.begin(RTM_NEWROUTE).body(routeHeader(RTN_UNICAST)).u32(RTA_OIF, 3).end();
  const std::vector<std::uint8_t> good = m.bytes();

  // Every truncation: parsing stays inside the span (ASan watches) and a
  // cut message is never taken for a whole one.
  for (std::size_t n = 0; n < good.size(); ++n) {
    SCOPED_TRACE(n);
    std::vector<std::uint8_t> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n));
    Batch b = parseBatch(cut);
    EXPECT_TRUE(b.routes.empty() || b.malformed);
    EXPECT_EQ(b.malformed, n > 0);
  }

  auto longAttr = good;
  longAttr[NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtmsg))] = 0xF0;  // rta_len past the message
  EXPECT_TRUE(parseBatch(longAttr).malformed);
  longAttr[NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtmsg))] = RTA_LENGTH(4) + 1;  // one byte past
  EXPECT_TRUE(parseBatch(longAttr).malformed);

  auto shortHeader = good;
  shortHeader[0] = 8;  // nlmsg_len smaller than a header
  EXPECT_TRUE(parseBatch(shortHeader).malformed);

  MessageBuilder shortError;
  shortError.begin(NLMSG_ERROR).end();
  EXPECT_TRUE(parseBatch(shortError.bytes()).malformed);
}

TEST(RouteMessages, Ipv6RoutesAreParsedAndJudgedLikeIpv4Ones) {
  // What the kernel sends for `ip -6 route add default via 2001:db8::1 dev
  // eth0 metric 1024`, its deletion, an IPv6 address and a route of a family
  // that is not ours (an IPv4 multicast routing table entry).
  auto defaultRoute = [](std::uint16_t type) {
    MessageBuilder m;
    m.begin(type)
        .body(routeHeader(RTN_UNICAST, 0, AF_INET6))
        .address6(RTA_GATEWAY, "2001:db8::1")
        .u32(RTA_OIF, 3)
        .u32(RTA_PRIORITY, 1024)
        .end();
    return m.bytes();
  };
  ifaddrmsg addr{};
  addr.ifa_family = AF_INET6;
  addr.ifa_prefixlen = 64;
  MessageBuilder newAddress, otherFamily;
  newAddress.begin(RTM_NEWADDR).body(addr).address6(IFA_ADDRESS, "2001:db8::2").end();
  otherFamily.begin(RTM_NEWROUTE)
      .body(routeHeader(RTN_MULTICAST, 32, RTNL_FAMILY_IPMR))
      .u32(RTA_OIF, 2)
      .end();
  struct Case {
    const char* what;
    std::vector<std::uint8_t> bytes;
    std::size_t routes;
  } cases[] = {
      {"new default route", defaultRoute(RTM_NEWROUTE), 1},
      {"deleted default route", defaultRoute(RTM_DELROUTE), 0},
      {"new address", newAddress.bytes(), 0},
      {"other family", otherFamily.bytes(), 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Batch b = parseBatch(c.bytes);
    EXPECT_FALSE(b.malformed);
    EXPECT_TRUE(b.changed) << "every one wakes the watch";
    ASSERT_EQ(b.routes.size(), c.routes);
    if (c.routes == 0) continue;
    const RouteEntry& r = b.routes[0];
    EXPECT_EQ(r.family, AF_INET6);
    EXPECT_EQ(r.dstLen, 0);
    EXPECT_EQ(r.oif, 3u);
    EXPECT_EQ(r.priority, 1024u);
    EXPECT_TRUE(r.hasGateway) << "a 16-byte gateway";
    EXPECT_EQ(defaultRoutes(b.routes).size(), 1u);
    EXPECT_EQ(flagsForRoute(r, LinkTraits{.up = true}), kReachabilityFlagReachable);
  }
}

TEST(RouteMessages, DefaultRoutesOfBothFamilies) {
  auto route = [](std::uint8_t family, std::uint8_t type, std::uint8_t dstLen,
                  std::uint32_t priority, std::uint32_t table = RT_TABLE_MAIN) {
    RouteEntry r;
    r.family = family;
    r.type = type;
    r.dstLen = dstLen;
    r.priority = priority;
    r.table = table;
    r.oif = priority;  // names the route in the expectations below
    return r;
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
      {"IPv6 by metric",
       {route(AF_INET6, RTN_UNICAST, 0, 1024), route(AF_INET6, RTN_UNICAST, 0, 20)},
       {20, 1024}},
      {"not usable as a default",
       {route(AF_INET6, RTN_UNREACHABLE, 0, 7), route(AF_INET6, RTN_UNICAST, 0, 8, RT_TABLE_LOCAL),
        route(AF_INET6, RTN_MULTICAST, 0, 9)},
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::uint32_t> got;
    for (const auto& r : defaultRoutes(c.routes)) got.push_back(r.oif);
    EXPECT_EQ(got, c.expected);
  }
}

TEST(RouteMessages, RequestsOfBothFamilies) {
  in_addr v4{};
  inet_pton(AF_INET, "192.0.2.1", &v4);
  in6_addr v6{};
  inet_pton(AF_INET6, "2001:db8::1", &v6);
  struct Case {
    const char* what;
    std::vector<std::uint8_t> bytes;
    std::uint16_t flags;
    std::uint8_t family, dstLen;
    std::vector<std::uint8_t> dst;  // RTA_DST payload, empty when none
  } cases[] = {
      {"get IPv4", routeGetRequest(v4, 7), NLM_F_REQUEST, AF_INET, 32, {192, 0, 2, 1}},
      {"get IPv6",
       routeGetRequest(v6, 7),
       NLM_F_REQUEST,
       AF_INET6,
       128,
       {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
      {"dump IPv4", routeDumpRequest(7), NLM_F_REQUEST | NLM_F_DUMP, AF_INET, 0, {}},
      {"dump IPv6", routeDumpRequest(7, AF_INET6), NLM_F_REQUEST | NLM_F_DUMP, AF_INET6, 0, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_GE(c.bytes.size(), NLMSG_SPACE(sizeof(rtmsg)));
    nlmsghdr h{};
    std::memcpy(&h, c.bytes.data(), sizeof h);
    EXPECT_EQ(h.nlmsg_len, c.bytes.size());
    EXPECT_EQ(h.nlmsg_type, RTM_GETROUTE);
    EXPECT_EQ(h.nlmsg_flags, c.flags);
    EXPECT_EQ(h.nlmsg_seq, 7u);
    rtmsg r{};
    std::memcpy(&r, c.bytes.data() + NLMSG_HDRLEN, sizeof r);
    EXPECT_EQ(r.rtm_family, c.family);
    EXPECT_EQ(r.rtm_dst_len, c.dstLen);
    std::size_t at = NLMSG_SPACE(sizeof(rtmsg));
    if (c.dst.empty()) {
      EXPECT_EQ(c.bytes.size(), at);
      continue;
    }
    ASSERT_EQ(c.bytes.size(), at + RTA_SPACE(c.dst.size()));
    rtattr a{};
    std::memcpy(&a, c.bytes.data() + at, sizeof a);
    EXPECT_EQ(a.rta_type, RTA_DST);
    EXPECT_EQ(a.rta_len, RTA_LENGTH(c.dst.size()));
    EXPECT_EQ(std::vector<std::uint8_t>(
                  c.bytes.begin() + static_cast<std::ptrdiff_t>(at + RTA_LENGTH(0)),
                  c.bytes.begin() + static_cast<std::ptrdiff_t>(at + RTA_LENGTH(c.dst.size()))),
              c.dst);
  }
}

TEST(RouteMessages, FlagsForRoute) {
  auto route = [](std::uint8_t type, bool gateway, std::uint32_t flags = 0) {
    RouteEntry r;
    r.type = type;
    r.hasGateway = gateway;
    r.flags = flags;
    r.oif = 2;
    return r;
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
      {"on the link", route(RTN_UNICAST, false), up, R | d},
      {"own address", route(RTN_LOCAL, false), up, R | d | l},
      {"point-to-point", route(RTN_UNICAST, false), LinkTraits{.up = true, .pointToPoint = true},
       R | d | t},
      {"mobile broadband", route(RTN_UNICAST, true), LinkTraits{.up = true, .wwan = true}, R | W},
      {"link down", route(RTN_UNICAST, true), LinkTraits{.up = false, .wwan = true}, 0},
      {"link unknown", route(RTN_UNICAST, true), std::nullopt, 0},
      {"route marked linkdown", route(RTN_UNICAST, true, RTNH_F_LINKDOWN), up, 0},
      {"unreachable", route(RTN_UNREACHABLE, false), up, 0},
      {"prohibit", route(RTN_PROHIBIT, false), up, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(flagsForRoute(c.route, c.link), c.flags);
  }
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
  const auto sys = root.string();
  EXPECT_FALSE(KernelRouteSource::isCellularLink(sys, "eth0", ARPHRD_ETHER));
  EXPECT_FALSE(KernelRouteSource::isCellularLink(sys, "wlan0", ARPHRD_ETHER));
  EXPECT_FALSE(KernelRouteSource::isCellularLink(sys, "ppp0", ARPHRD_PPP))
      << "no modem on this machine";
  EXPECT_FALSE(KernelRouteSource::isCellularLink(sys, "missing", ARPHRD_ETHER));
  EXPECT_FALSE(KernelRouteSource::isCellularLink(sys, "../net/eth0", ARPHRD_ETHER));

  device("wwan0", "DEVTYPE=wwan\nINTERFACE=wwan0\n");
  EXPECT_TRUE(KernelRouteSource::isCellularLink(sys, "wwan0", ARPHRD_NONE));
  EXPECT_TRUE(KernelRouteSource::isCellularLink(sys, "ppp0", ARPHRD_PPP)) << "a modem is present";
  EXPECT_FALSE(KernelRouteSource::isCellularLink(sys, "eth0", ARPHRD_ETHER));

  fs::remove_all(root / "class/net/wwan0");
  fs::create_directories(root / "class/wwan/wwan0");
  EXPECT_TRUE(KernelRouteSource::isCellularLink(sys, "ppp0", ARPHRD_PPP)) << "a WWAN-class modem";
  fs::remove_all(root);
}

}  // namespace
}  // namespace quarvel::netlink
