#include "update/RouteMessages.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>

#include "quarvel/Reachability.h"

namespace quarvel::netlink {

namespace {

// Netlink structures sit at 4-byte boundaries in a buffer the kernel fills,
// but a fuzzer's or a test's buffer need not be aligned: copy, never cast.
template <typename T>
T load(std::span<const std::uint8_t> bytes, std::size_t offset = 0) {
  T value{};
  std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

constexpr std::size_t align4(std::size_t n) { return (n + 3) & ~std::size_t{3}; }

// Calls fn(type, payload) for each attribute in `bytes`; false when one ran
// past the end.
template <typename Fn>
bool forEachAttribute(std::span<const std::uint8_t> bytes, Fn fn) {
  std::size_t offset = 0;
  while (offset + sizeof(rtattr) <= bytes.size()) {
    auto attr = load<rtattr>(bytes, offset);
    if (attr.rta_len < sizeof(rtattr) || attr.rta_len > bytes.size() - offset) return false;
    fn(static_cast<unsigned>(attr.rta_type & NLA_TYPE_MASK),
       bytes.subspan(offset + RTA_LENGTH(0), attr.rta_len - RTA_LENGTH(0)));
    offset += align4(attr.rta_len);
  }
  return true;
}

std::uint32_t loadU32(std::span<const std::uint8_t> payload) {
  return payload.size() >= 4 ? load<std::uint32_t>(payload) : 0;
}

bool isOurFamily(std::uint8_t family) { return family == AF_INET || family == AF_INET6; }

bool parseRoute(std::span<const std::uint8_t> payload, RouteEntry& route) {
  if (payload.size() < sizeof(rtmsg)) return false;
  auto header = load<rtmsg>(payload);
  if (!isOurFamily(header.rtm_family)) return true;  // not ours; skip quietly
  route.family = header.rtm_family;
  route.type = header.rtm_type;
  route.dstLen = header.rtm_dst_len;
  route.table = header.rtm_table;
  route.flags = header.rtm_flags;
  bool multipathSeen = false;
  bool ok =
      forEachAttribute(payload.subspan(NLMSG_ALIGN(sizeof(rtmsg))), [&](unsigned type, auto value) {
        switch (type) {
          case RTA_OIF:
            route.oif = loadU32(value);
            break;
          case RTA_TABLE:
            route.table = loadU32(value);
            break;
          case RTA_PRIORITY:
            route.priority = loadU32(value);
            break;
          case RTA_GATEWAY:
          case RTA_VIA:
            route.hasGateway = true;
            break;
          case RTA_MULTIPATH: {
            // Only the first nexthop counts: it stands for the route.
            if (multipathSeen || value.size() < sizeof(rtnexthop)) break;
            multipathSeen = true;
            auto hop = load<rtnexthop>(value);
            if (hop.rtnh_len < sizeof(rtnexthop) || hop.rtnh_len > value.size()) break;
            if (route.oif == 0) route.oif = static_cast<std::uint32_t>(hop.rtnh_ifindex);
            route.flags |= hop.rtnh_flags;
            forEachAttribute(value.subspan(RTNH_LENGTH(0), hop.rtnh_len - RTNH_LENGTH(0)),
                             [&](unsigned hopType, auto) {
                               if (hopType == RTA_GATEWAY || hopType == RTA_VIA)
                                 route.hasGateway = true;
                             });
            break;
          }
          default:
            break;
        }
      });
  return ok;
}

bool parseLink(std::span<const std::uint8_t> payload, LinkEntry& link) {
  if (payload.size() < sizeof(ifinfomsg)) return false;
  auto header = load<ifinfomsg>(payload);
  link.index = static_cast<std::uint32_t>(header.ifi_index);
  link.flags = header.ifi_flags;
  link.type = header.ifi_type;
  return forEachAttribute(payload.subspan(NLMSG_ALIGN(sizeof(ifinfomsg))),
                          [&](unsigned type, auto value) {
                            if (type != IFLA_IFNAME) return;
                            auto end = std::find(value.begin(), value.end(), std::uint8_t{0});
                            link.name.assign(value.begin(), end);
                          });
}

std::vector<std::uint8_t> request(std::uint16_t type, std::uint16_t flags, std::uint32_t seq,
                                  const void* body, std::size_t bodyLen, const void* attr = nullptr,
                                  std::size_t attrLen = 0) {
  std::vector<std::uint8_t> out(NLMSG_SPACE(bodyLen) + (attr ? RTA_SPACE(attrLen) : 0), 0);
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(out.size());
  header.nlmsg_type = type;
  header.nlmsg_flags = flags;
  header.nlmsg_seq = seq;
  std::memcpy(out.data(), &header, sizeof header);
  std::memcpy(out.data() + NLMSG_HDRLEN, body, bodyLen);
  if (attr) {
    rtattr a{};
    a.rta_len = static_cast<unsigned short>(RTA_LENGTH(attrLen));
    a.rta_type = RTA_DST;
    std::size_t at = NLMSG_SPACE(bodyLen);
    std::memcpy(out.data() + at, &a, sizeof a);
    std::memcpy(out.data() + at + RTA_LENGTH(0), attr, attrLen);
  }
  return out;
}

}  // namespace

Batch parseBatch(std::span<const std::uint8_t> bytes) {
  Batch batch;
  std::size_t offset = 0;
  while (offset + sizeof(nlmsghdr) <= bytes.size()) {
    auto header = load<nlmsghdr>(bytes, offset);
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > bytes.size() - offset) {
      batch.malformed = true;
      return batch;
    }
    auto payload =
        bytes.subspan(offset + NLMSG_HDRLEN,
                      header.nlmsg_len - std::min<std::size_t>(header.nlmsg_len, NLMSG_HDRLEN));
    switch (header.nlmsg_type) {
      case NLMSG_DONE:
        batch.done = true;
        break;
      case NLMSG_ERROR:
        if (payload.size() < sizeof(int)) {
          batch.malformed = true;
        } else if (int error = load<int>(payload); error < 0) {
          batch.errors.push_back(error == INT32_MIN ? INT32_MAX : -error);
        }
        break;
      case RTM_NEWROUTE: {
        RouteEntry route;
        if (!parseRoute(payload, route)) batch.malformed = true;
        if (payload.size() >= sizeof(rtmsg) && isOurFamily(load<rtmsg>(payload).rtm_family))
          batch.routes.push_back(route);
        batch.changed = true;
        break;
      }
      case RTM_NEWLINK: {
        LinkEntry link;
        if (!parseLink(payload, link)) batch.malformed = true;
        if (payload.size() >= sizeof(ifinfomsg)) batch.links.push_back(link);
        batch.changed = true;
        break;
      }
      case RTM_DELROUTE:
      case RTM_DELLINK:
      case RTM_NEWADDR:
      case RTM_DELADDR:
        batch.changed = true;
        break;
      default:
        break;
    }
    offset += NLMSG_ALIGN(header.nlmsg_len);
  }
  if (offset < bytes.size() && offset + sizeof(nlmsghdr) > bytes.size()) batch.malformed = true;
  return batch;
}

std::vector<std::uint8_t> routeGetRequest(in_addr address, std::uint32_t seq) {
  rtmsg body{};
  body.rtm_family = AF_INET;
  body.rtm_dst_len = 32;
  return request(RTM_GETROUTE, NLM_F_REQUEST, seq, &body, sizeof body, &address.s_addr, 4);
}

std::vector<std::uint8_t> routeGetRequest(const in6_addr& address, std::uint32_t seq) {
  rtmsg body{};
  body.rtm_family = AF_INET6;
  body.rtm_dst_len = 128;
  return request(RTM_GETROUTE, NLM_F_REQUEST, seq, &body, sizeof body, address.s6_addr,
                 sizeof address.s6_addr);
}

std::vector<std::uint8_t> routeDumpRequest(std::uint32_t seq, std::uint8_t family) {
  rtmsg body{};
  body.rtm_family = family;
  return request(RTM_GETROUTE, NLM_F_REQUEST | NLM_F_DUMP, seq, &body, sizeof body);
}

std::vector<std::uint8_t> linkGetRequest(std::uint32_t index, std::uint32_t seq) {
  ifinfomsg body{};
  body.ifi_family = AF_UNSPEC;
  body.ifi_index = static_cast<int>(index);
  return request(RTM_GETLINK, NLM_F_REQUEST, seq, &body, sizeof body);
}

std::uint32_t flagsForRoute(const RouteEntry& route, const std::optional<LinkTraits>& link) {
  switch (route.type) {
    case RTN_UNICAST:
    case RTN_LOCAL:
    case RTN_BROADCAST:
    case RTN_ANYCAST:
    case RTN_MULTICAST:
      break;
    default:
      return 0;  // unreachable, blackhole, prohibit, throw...
  }
  if (route.flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) return 0;
  if (!link || !link->up) return 0;
  std::uint32_t flags = kReachabilityFlagReachable;
  if (!route.hasGateway) flags |= kReachabilityFlagIsDirect;
  if (route.type == RTN_LOCAL) flags |= kReachabilityFlagIsLocalAddress;
  if (link->pointToPoint) flags |= kReachabilityFlagTransientConnection;
  if (link->wwan) flags |= kReachabilityFlagIsWWAN;
  return flags;
}

std::vector<RouteEntry> defaultRoutes(const std::vector<RouteEntry>& routes) {
  std::vector<RouteEntry> out;
  for (const auto& route : routes)
    if (route.dstLen == 0 && route.type == RTN_UNICAST && route.table != RT_TABLE_LOCAL)
      out.push_back(route);
  std::stable_sort(out.begin(), out.end(), [](const RouteEntry& a, const RouteEntry& b) {
    bool aFirst = a.family == AF_INET, bFirst = b.family == AF_INET;
    if (aFirst != bFirst) return aFirst;
    return a.priority < b.priority;
  });
  return out;
}

}  // namespace quarvel::netlink
