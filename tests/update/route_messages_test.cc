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
#include <sstream>

#include "quarvel/Reachability.h"
#include "support/FileText.h"
#include "support/ScratchDir.h"
#include "update/KernelRouteSource.h"
#include "update/RouteMessages.h"

// The kernel's structures are built with designated initializers, the rest zero.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

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
  // Writes the length of what came since begin() (or `at`) into its first
  // four (or `width`) bytes.
  MessageBuilder& end() { return endAt(start, 4); }
  MessageBuilder& endAt(std::size_t at, std::size_t width) {
    const auto len = static_cast<std::uint32_t>(bytes.size() - at);
    std::memcpy(bytes.data() + at, &len, width);
    return *this;
  }
  std::vector<std::uint8_t> bytes;
  std::size_t start = 0;
};

rtmsg routeHeader(std::uint8_t type, std::uint8_t dstLen = 32, std::uint8_t family = AF_INET) {
  return {
      .rtm_family = family, .rtm_dst_len = dstLen, .rtm_table = RT_TABLE_MAIN, .rtm_type = type};
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
    return MessageBuilder().begin(type).body(body);
  };
  const ifinfomsg link{
      .ifi_type = ARPHRD_PPP, .ifi_index = 7, .ifi_flags = IFF_UP | IFF_RUNNING | IFF_POINTOPOINT};
  MessageBuilder dump;
  dump.begin(RTM_NEWROUTE).body(routeHeader(RTN_UNICAST, 0)).address(RTA_GATEWAY, "192.0.2.1");
  dump.u32(RTA_OIF, 4).u32(RTA_PRIORITY, 100).u32(RTA_TABLE, 1000).end();
  dump.begin(RTM_NEWROUTE).body(routeHeader(RTN_UNICAST, 64, AF_INET6)).u32(RTA_OIF, 9).end();
  dump.begin(RTM_NEWLINK).body(link).attr(IFLA_IFNAME, "ppp0", 5).end();
  dump.begin(NLMSG_ERROR).body(-ENETUNREACH).end();
  dump.begin(NLMSG_ERROR).body(0).end();
  dump.begin(0x7777).body(std::uint32_t{1}).end();
  dump.begin(NLMSG_DONE).body(std::uint32_t{0}).end();

  // A multipath route: rtnexthop { len, flags, hops, ifindex } and its own
  // attributes, per hop; the first hop counts.
  MessageBuilder hops;
  for (auto [ifindex, gateway] : {std::pair{5, "198.51.100.1"}, {6, "198.51.100.2"}}) {
    const std::size_t at = hops.bytes.size();
    hops.body(rtnexthop{.rtnh_ifindex = ifindex}).address(RTA_GATEWAY, gateway).endAt(at, 2);
  }
  MessageBuilder multipath;
  multipath.begin(RTM_NEWROUTE).body(routeHeader(RTN_UNICAST, 0));
  multipath.attr(RTA_MULTIPATH, hops.bytes.data(), hops.bytes.size()).end();
  const ifaddrmsg addr{.ifa_family = AF_INET6, .ifa_prefixlen = 64};
  const rtmsg ipmr = routeHeader(RTN_MULTICAST, 32, RTNL_FAMILY_IPMR);
  const auto v4Host = message(RTM_NEWROUTE, routeHeader(RTN_UNICAST)).u32(RTA_OIF, 3).end().bytes;
  const std::size_t attrAt = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtmsg));
  auto damaged = [&](std::size_t at, std::uint8_t value) {
    auto bytes = v4Host;
    bytes[at] = value;
    return bytes;
  };
  // (what, the bytes, the batch they parse to)
  const std::tuple<const char*, std::vector<std::uint8_t>, const char*> cases[] = {
      {"a dump", dump.bytes,
       "route 2/1/0 4 100 1000 via; route 10/1/64 9 0 254; link 7 ppp0 512; error 101; "
       "done changed "},
      {"multipath", multipath.bytes, "route 2/1/0 5 0 254 via; changed "},
      {"deleted route", message(RTM_DELROUTE, routeHeader(RTN_UNICAST, 0, AF_INET6)).end().bytes,
       "changed "},
      {"new address", message(RTM_NEWADDR, addr).address(IFA_ADDRESS, "2001:db8::2").end().bytes,
       "changed "},
      {"other family", message(RTM_NEWROUTE, ipmr).u32(RTA_OIF, 2).end().bytes, "changed "},
      // An attribute one byte past its message is as damaged as one far past it.
      {"far past", damaged(attrAt, 0xF0), "route 2/1/32 0 0 254; changed malformed"},
      {"one past", damaged(attrAt, RTA_LENGTH(4) + 1), "route 2/1/32 0 0 254; changed malformed"},
      {"length smaller than a header", damaged(0, 8), "malformed"},
      {"error without its code", MessageBuilder().begin(NLMSG_ERROR).end().bytes, "malformed"},
  };
  for (const auto& [what, bytes, batch] : cases) EXPECT_EQ(show(parseBatch(bytes)), batch) << what;

  // Every truncation: parsing stays inside the span (ASan watches) and a
  // cut message is never taken for a whole one.
  for (std::size_t n = 0; n < v4Host.size(); ++n) {
    Batch b = parseBatch(std::span(v4Host).first(n));
    EXPECT_TRUE(b.routes.empty() || b.malformed) << n;
    EXPECT_EQ(b.malformed, n > 0) << n;
  }
}

TEST(RouteMessages, DefaultRoutesOfBothFamilies) {
  // A unicast route in the main table unless said otherwise; the metric
  // names the route (as its oif) in the expectations below.
  auto route = [](std::uint8_t f, std::uint8_t len, std::uint32_t m, std::uint8_t t = RTN_UNICAST,
                  std::uint32_t table = RT_TABLE_MAIN) {
    return RouteEntry{
        .family = f, .type = t, .dstLen = len, .table = table, .oif = m, .priority = m};
  };
  constexpr std::uint8_t v4 = AF_INET, v6 = AF_INET6;
  // (what, the routes, the oif of each default route in order)
  const std::tuple<const char*, std::vector<RouteEntry>, std::vector<std::uint32_t>> cases[] = {
      {"IPv6 only", {route(v6, 64, 256), route(v6, 0, 1024)}, {1024}},
      {"IPv4 first", {route(v6, 0, 5), route(v4, 0, 600), route(v4, 0, 100)}, {100, 600, 5}},
      {"not usable as a default",
       {route(v6, 0, 7, RTN_UNREACHABLE), route(v6, 0, 8, RTN_UNICAST, RT_TABLE_LOCAL),
        route(v6, 0, 9, RTN_MULTICAST)},
       {}},
  };
  for (const auto& [what, routes, expected] : cases) {
    std::vector<std::uint32_t> got;
    for (const auto& r : defaultRoutes(routes)) got.push_back(r.oif);
    EXPECT_EQ(got, expected) << what;
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
  // (what, the route, its link, the flags)
  const std::tuple<const char*, RouteEntry, std::optional<LinkTraits>, std::uint32_t> cases[] = {
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
  for (const auto& [what, entry, link, flags] : cases)
    EXPECT_EQ(flagsForRoute(entry, link), flags) << what;
}

// Cellular: a wwan device, or a PPP link while a modem (wwan device or class) is present.
TEST(KernelRouteSource, CellularLinkFromSysfs) {
  testing::ScratchDir sys;
  auto device = [&](const std::string& at, const std::string& uevent = "") {
    fs::create_directories(sys / at);
    if (!uevent.empty()) testing::writeBytes(sys / at + "/uevent", uevent);
  };
  auto cellular = [&](const char* name, unsigned short type) {
    return KernelRouteSource::isCellularLink(sys.path(), name, type);
  };
  device("class/net/eth0", "INTERFACE=eth0\nIFINDEX=2\n");
  device("class/net/wlan0", "DEVTYPE=wlan\nINTERFACE=wlan0\n");
  device("class/net/ppp0", "INTERFACE=ppp0\n");
  for (const char* name : {"eth0", "wlan0", "missing", "../net/eth0"})
    EXPECT_FALSE(cellular(name, ARPHRD_ETHER)) << name;
  EXPECT_FALSE(cellular("ppp0", ARPHRD_PPP));
  device("class/net/wwan0", "DEVTYPE=wwan\nINTERFACE=wwan0\n");
  EXPECT_TRUE(cellular("wwan0", ARPHRD_NONE));
  EXPECT_TRUE(cellular("ppp0", ARPHRD_PPP));
  fs::remove_all(sys / "class/net/wwan0");
  device("class/wwan/wwan0");
  EXPECT_TRUE(cellular("ppp0", ARPHRD_PPP));
}

}  // namespace
}  // namespace quarvel::netlink
