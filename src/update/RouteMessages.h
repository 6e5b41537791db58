#pragma once
// rtnetlink messages as bytes: the requests the kernel route source sends,
// the parsing of what the kernel answers or broadcasts, and the derivation
// of reachability flags from a route and its outgoing link. Everything here
// is a pure function over bytes or values, so it can be tested and fuzzed
// without a kernel.

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace quarvel::netlink {

// One IPv4 or IPv6 route as the kernel reports it (RTM_NEWROUTE).
struct RouteEntry {
  std::uint8_t family = AF_INET;  // AF_INET or AF_INET6
  std::uint8_t type = 0;          // RTN_UNICAST, RTN_LOCAL, RTN_UNREACHABLE...
  std::uint8_t dstLen = 0;        // prefix length; 0 for a default route
  std::uint32_t table = 0;        // RTA_TABLE, else rtm_table
  std::uint32_t flags = 0;        // rtm_flags (RTNH_F_LINKDOWN, RTNH_F_DEAD...)
  std::uint32_t oif = 0;          // outgoing interface index, 0 when none given
  std::uint32_t priority = 0;     // RTA_PRIORITY (metric)
  bool hasGateway = false;        // RTA_GATEWAY or RTA_VIA (also in a first nexthop)
};

// One link as the kernel reports it (RTM_NEWLINK).
struct LinkEntry {
  std::uint32_t index = 0;
  std::uint32_t flags = 0;  // IFF_UP, IFF_RUNNING, IFF_POINTOPOINT...
  std::uint16_t type = 0;   // ARPHRD_*
  std::string name;
};

// What one receive buffer held.
struct Batch {
  std::vector<RouteEntry> routes;
  std::vector<LinkEntry> links;
  std::vector<int> errors;  // positive errno of each error answer (acks excluded)
  bool done = false;        // NLMSG_DONE seen: the end of a dump
  bool changed = false;     // a link, address or route was added, changed or removed
  bool malformed = false;   // a message or attribute ran past its bounds (the rest is skipped)
};

// Parses every message in `bytes`. Never reads outside the span.
Batch parseBatch(std::span<const std::uint8_t> bytes);

// RTM_GETROUTE for the route the kernel would use to reach `address`.
std::vector<std::uint8_t> routeGetRequest(in_addr address, std::uint32_t seq);
std::vector<std::uint8_t> routeGetRequest(const in6_addr& address, std::uint32_t seq);
// RTM_GETROUTE dump of every route of `family` (AF_INET or AF_INET6).
std::vector<std::uint8_t> routeDumpRequest(std::uint32_t seq, std::uint8_t family = AF_INET);
// RTM_GETLINK for one interface.
std::vector<std::uint8_t> linkGetRequest(std::uint32_t index, std::uint32_t seq);

// What matters about the outgoing link.
struct LinkTraits {
  bool up = false;            // administratively up and running (carrier)
  bool pointToPoint = false;  // IFF_POINTOPOINT
  bool wwan = false;          // a mobile-broadband device
};

// Flags for a target whose route is `route` through a link with `link`
// (nullopt when the link could not be found).
std::uint32_t flagsForRoute(const RouteEntry& route, const std::optional<LinkTraits>& link);

// The usable default routes of `routes`: the IPv4 ones, best (lowest metric)
// first, then the IPv6 ones likewise. The two families' metrics are not
// compared; each is only an order within its own family.
std::vector<RouteEntry> defaultRoutes(const std::vector<RouteEntry>& routes);

}  // namespace quarvel::netlink
