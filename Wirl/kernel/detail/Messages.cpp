// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/detail/Messages.h"

#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include "Wirl/kernel/detail/Attrs.h"

namespace Wirl::detail {

namespace {

/// A prefix whose host bits are cleared; of the unknown family if the length is not one of the family.
IpGenPrefix prefixOf(const IpGenAddr& address, unsigned len) {
  if (address.af() == AddressFamily::ipunknown || len > address.bits()) return IpGenPrefix();
  return IpGenPrefix(address.maskedByLength(len), len);
}

IpGenAddr zeroOf(U8 family) {
  return family == AF_INET ? IpGenAddr(AddressFamily::ipv4) : IpGenAddr(AddressFamily::ipv6);
}

bool isOf(const IpGenAddr& address, U8 family) {
  return address.af() == zeroOf(family).af();
}

U16 netOrder(U16 value) {
  return static_cast<U16>(value >> 8 | value << 8);
}

// Links
// ------------------------------------------------------------------------------------------------------

void parseKindData(std::string_view kind, bool port, std::string_view octets, LinkInfo& link) {
  for (const Attr attr : Attrs(octets)) {
    if (kind == "vrf" && attr.type() == (port ? U16{IFLA_VRF_PORT_TABLE} : U16{IFLA_VRF_TABLE})) {
      link.vrfTable = attr.as<U32>();
    }
    if (kind != "vlan" || port) continue;
    if (attr.type() == IFLA_VLAN_ID) link.vlanId = attr.as<U16>();
    if (attr.type() == IFLA_VLAN_PROTOCOL) link.vlanProtocol = netOrder(attr.as<U16>());
  }
}

void parseKind(std::string_view octets, LinkInfo& link) {
  // Kinds come before their data.
  for (const Attr attr : Attrs(octets)) {
    switch (attr.type()) {
      case IFLA_INFO_KIND:
        link.kind = attr.text();
        break;
      case IFLA_INFO_SLAVE_KIND:
        link.portKind = attr.text();
        break;
      case IFLA_INFO_DATA:
        parseKindData(link.kind, false, attr.octets(), link);
        break;
      case IFLA_INFO_SLAVE_DATA:
        parseKindData(link.portKind, true, attr.octets(), link);
        break;
      default:
        break;
    }
  }
}

LinkStats statsOf(const rtnl_link_stats64& from) {
  return {from.rx_packets, from.tx_packets, from.rx_bytes,   from.tx_bytes,  from.rx_errors,
          from.tx_errors,  from.rx_dropped, from.tx_dropped, from.multicast, from.collisions};
}

}  // namespace

bool parse(const nlmsghdr& message, LinkInfo& link, U64& unused) {
  const auto* const fixed = fixedOf<ifinfomsg>(message);
  if (!fixed || fixed->ifi_index <= 0) return false;
  link = LinkInfo();
  link.ifIndex = static_cast<U32>(fixed->ifi_index);
  link.flags = fixed->ifi_flags;
  link.hwType = fixed->ifi_type;
  for (const Attr attr : Attrs(message, sizeof(ifinfomsg))) {
    switch (attr.type()) {
      case IFLA_IFNAME:
        link.name = attr.text();
        break;
      case IFLA_MTU:
        link.mtu = attr.as<U32>();
        break;
      case IFLA_TXQLEN:
        link.txQueueLen = attr.as<U32>();
        break;
      case IFLA_GROUP:
        link.group = attr.as<U32>();
        break;
      case IFLA_OPERSTATE:
        link.operState = static_cast<OperState>(attr.as<U8>());
        break;
      case IFLA_LINKMODE:
        link.linkMode = attr.as<U8>();
        break;
      case IFLA_PROTO_DOWN:
        link.protoDown = attr.as<U8>() != 0;
        break;
      case IFLA_QDISC:
        link.qdisc = attr.text();
        break;
      case IFLA_IFALIAS:
        link.alias = attr.text();
        break;
      case IFLA_ADDRESS:
        link.address = attr.octets();
        break;
      case IFLA_BROADCAST:
        link.broadcast = attr.octets();
        break;
      case IFLA_PERM_ADDRESS:
        link.permanentAddress = attr.octets();
        break;
      case IFLA_MASTER:
        link.master = attr.as<U32>();
        break;
      case IFLA_LINK:
        link.lower = attr.as<U32>();
        break;
      case IFLA_LINK_NETNSID:
        link.lowerNsid = attr.as<S32>();
        break;
      case IFLA_LINKINFO:
        parseKind(attr.octets(), link);
        break;
      case IFLA_STATS64:
        link.stats = statsOf(attr.as<rtnl_link_stats64>());
        break;
      case IFLA_PROP_LIST:
        for (const Attr each : Attrs(attr.octets())) {
          if (each.type() == IFLA_ALT_IFNAME) link.altNames.emplace_back(each.text());
        }
        break;
      default:
        ++unused;
    }
  }
  return !link.name.empty();
}

// Addresses
// --------------------------------------------------------------------------------------------------

bool parse(const nlmsghdr& message, AddressInfo& address, U64& unused) {
  const auto* const fixed = fixedOf<ifaddrmsg>(message);
  if (!fixed || (fixed->ifa_family != AF_INET && fixed->ifa_family != AF_INET6)) return false;
  address = AddressInfo();
  address.key.ifIndex = fixed->ifa_index;
  address.scope = fixed->ifa_scope;
  address.flags = fixed->ifa_flags;
  std::optional<IpGenAddr> local, peer;
  const auto take = [&](const Attr& attr, std::optional<IpGenAddr>& to) {
    const IpGenAddr value = attr.address();
    if (isOf(value, fixed->ifa_family)) to = value;
  };
  for (const Attr attr : Attrs(message, sizeof(ifaddrmsg))) {
    switch (attr.type()) {
      case IFA_LOCAL:
        take(attr, local);
        break;
      case IFA_ADDRESS:
        take(attr, peer);
        break;
      case IFA_BROADCAST:
        take(attr, address.broadcast);
        break;
      case IFA_ANYCAST:
        take(attr, address.anycast);
        break;
      case IFA_LABEL:
        address.label = attr.text();
        break;
      case IFA_FLAGS:
        address.flags = attr.as<U32>();
        break;
      case IFA_RT_PRIORITY:
        address.metric = attr.as<U32>();
        break;
      case IFA_PROTO:
        address.protocol = attr.as<U8>();
        break;
      case IFA_CACHEINFO:
        address.validLifetime = attr.as<ifa_cacheinfo>().ifa_valid;
        address.preferredLifetime = attr.as<ifa_cacheinfo>().ifa_prefered;
        break;
      default:
        ++unused;
    }
  }
  if (!local) local = peer;
  if (!peer) peer = local;
  if (!local || fixed->ifa_prefixlen > local->bits()) return false;
  address.key.local = IpGenAddrWithMask(*local, fixed->ifa_prefixlen);
  address.key.peer = *peer;
  return true;
}

// Neighbours
// -------------------------------------------------------------------------------------------------

bool parse(const nlmsghdr& message, NeighborInfo& neighbor, U64& unused) {
  const auto* const fixed = fixedOf<ndmsg>(message);
  if (!fixed || (fixed->ndm_family != AF_INET && fixed->ndm_family != AF_INET6)) return false;
  neighbor = NeighborInfo();
  neighbor.key.ifIndex = static_cast<U32>(fixed->ndm_ifindex);
  neighbor.state = fixed->ndm_state;
  neighbor.flags = fixed->ndm_flags;
  neighbor.key.proxy = (fixed->ndm_flags & NTF_PROXY) != 0;
  for (const Attr attr : Attrs(message, sizeof(ndmsg))) {
    switch (attr.type()) {
      case NDA_DST:
        neighbor.key.address = attr.address();
        break;
      case NDA_LLADDR:
        neighbor.linkAddress = attr.octets();
        break;
      case NDA_PROTOCOL:
        neighbor.protocol = attr.as<U8>();
        break;
      case NDA_FLAGS_EXT:
        neighbor.extendedFlags = attr.as<U32>();
        break;
      default:
        ++unused;
    }
  }
  return isOf(neighbor.key.address, fixed->ndm_family);
}

// Routes
// -----------------------------------------------------------------------------------------------------

namespace {

const rtmsg* routeOf(const nlmsghdr& message) {
  const auto* const fixed = fixedOf<rtmsg>(message);
  return fixed && (fixed->rtm_family == AF_INET || fixed->rtm_family == AF_INET6) ? fixed : nullptr;
}

/// RTA_VIA: a family and an address.
IpGenAddr viaOf(std::string_view octets) {
  return octets.size() < 2 ? IpGenAddr() : Attr::addressOf(octets.substr(2));
}

void parseMetrics(std::string_view octets, RouteAttrs& attrs) {
  for (const Attr attr : Attrs(octets)) {
    if (attr.type() == RTAX_CC_ALGO) {
      attrs.congestionControl = attr.text();
    } else {
      attrs.metrics.emplace_back(attr.type(), attr.as<U32>());
    }
  }
}

void parseNextHop(const Attr& attr, RouteNextHop& hop) {
  switch (attr.type()) {
    case RTA_GATEWAY:
      hop.gateway = attr.address();
      break;
    case RTA_VIA:
      hop.gateway = viaOf(attr.octets());
      break;
    case RTA_FLOW:
      hop.realms = attr.as<U32>();
      break;
    case RTA_ENCAP_TYPE:
      hop.encap = attr.as<U16>();
      break;
    case RTA_ENCAP:
      hop.encapAttrs = attr.octets();
      break;
    default:
      break;
  }
}

void parseMultipath(std::string_view octets, RouteAttrs& attrs) {
  while (octets.size() >= sizeof(rtnexthop)) {
    rtnexthop fixed;
    std::memcpy(&fixed, octets.data(), sizeof(fixed));
    if (fixed.rtnh_len < sizeof(fixed) || fixed.rtnh_len > octets.size()) return;
    RouteNextHop& hop = attrs.nextHops.emplace_back();
    hop.ifIndex = static_cast<U32>(fixed.rtnh_ifindex);
    hop.weight = static_cast<U16>(fixed.rtnh_hops + 1);
    hop.flags = fixed.rtnh_flags;
    for (const Attr attr : Attrs(octets.substr(sizeof(fixed), fixed.rtnh_len - sizeof(fixed)))) {
      parseNextHop(attr, hop);
    }
    octets.remove_prefix(std::min<std::size_t>(octets.size(), padded(fixed.rtnh_len)));
  }
}

}  // namespace

bool parseKey(const nlmsghdr& message, RouteKey& key, S32& expires, std::string& attrs) {
  const rtmsg* const fixed = routeOf(message);
  if (!fixed) return false;
  key = RouteKey();
  key.table = fixed->rtm_table;
  expires = 0;
  IpGenAddr destination = zeroOf(fixed->rtm_family);
  rtmsg common = *fixed;
  common.rtm_dst_len = common.rtm_table = 0;
  attrs.append(reinterpret_cast<const char*>(&common), sizeof(common));
  for (const Attr attr : Attrs(message, sizeof(rtmsg))) {
    const std::string_view octets = attr.octets();
    switch (attr.type()) {
      case RTA_DST:
        destination = attr.address();
        continue;
      case RTA_TABLE:
        key.table = attr.as<U32>();
        continue;
      case RTA_PRIORITY:
        key.metric = attr.as<U32>();
        attrs += 'p';  // its presence is what routes have in common
        continue;
      case RTA_CACHEINFO: {
        const auto info = attr.as<rta_cacheinfo>();
        expires = info.rta_expires / 100;  // USER_HZ, which is 100 everywhere but on Alpha
        if (info.rta_expires != 0 && expires == 0) expires = 1;
        attrs.append(reinterpret_cast<const char*>(&info.rta_error), sizeof(info.rta_error));
        continue;
      }
      default:
        // With the header, which has the length: no two lists of attributes read alike.
        attrs.append(octets.data() - sizeof(nlattr), octets.size() + sizeof(nlattr));
    }
  }
  key.prefix = prefixOf(destination, fixed->rtm_dst_len);
  return isOf(key.prefix.ipGenAddr(), fixed->rtm_family) && isOf(destination, fixed->rtm_family);
}

bool parse(const nlmsghdr& message, RouteMessage& route, U64& unused) {
  const rtmsg* const fixed = routeOf(message);
  std::string ignored;
  if (!fixed || !parseKey(message, route.key, route.expires, ignored)) return false;
  RouteAttrs& attrs = route.attrs;
  attrs = RouteAttrs();
  attrs.type = fixed->rtm_type;
  attrs.scope = fixed->rtm_scope;
  attrs.protocol = fixed->rtm_protocol;
  attrs.tos = fixed->rtm_tos;
  attrs.flags = fixed->rtm_flags;
  RouteNextHop single;
  single.flags = static_cast<U8>(fixed->rtm_flags);
  bool hasSingle = false;
  for (const Attr attr : Attrs(message, sizeof(rtmsg))) {
    switch (attr.type()) {
      case RTA_DST:
      case RTA_TABLE:
        break;
      case RTA_PRIORITY:
        attrs.hasMetric = true;
        break;
      case RTA_OIF:
        single.ifIndex = attr.as<U32>();
        hasSingle = true;
        break;
      case RTA_GATEWAY:
      case RTA_VIA:
      case RTA_FLOW:
      case RTA_ENCAP_TYPE:
      case RTA_ENCAP:
        parseNextHop(attr, single);
        hasSingle = true;
        break;
      case RTA_MULTIPATH:
        attrs.multipath = true;
        parseMultipath(attr.octets(), attrs);
        break;
      case RTA_SRC:
        attrs.source = prefixOf(attr.address(), fixed->rtm_src_len);
        break;
      case RTA_PREFSRC:
        attrs.prefSource = attr.address();
        break;
      case RTA_METRICS:
        parseMetrics(attr.octets(), attrs);
        break;
      case RTA_PREF:
        attrs.preference = attr.as<U8>();
        break;
      case RTA_NH_ID:
        attrs.nextHopId = attr.as<U32>();
        break;
      case RTA_CACHEINFO:
        attrs.error = static_cast<S32>(attr.as<rta_cacheinfo>().rta_error);
        break;
      case RTA_MARK:
        attrs.mark = attr.as<U32>();
        break;
      case RTA_IIF:
        attrs.inIfIndex = attr.as<U32>();
        break;
      case RTA_TTL_PROPAGATE:
        attrs.ttlPropagate = attr.as<U8>();
        break;
      default:
        ++unused;
    }
  }
  if (hasSingle && !attrs.multipath) attrs.nextHops = {single};
  return true;
}

// Next-hop objects
// -------------------------------------------------------------------------------------------

bool parse(const nlmsghdr& message, NextHopInfo& nextHop, U64& unused) {
  const auto* const fixed = fixedOf<nhmsg>(message);
  if (!fixed) return false;
  nextHop = NextHopInfo();
  nextHop.af = fixed->nh_family == AF_INET    ? AddressFamily::ipv4
               : fixed->nh_family == AF_INET6 ? AddressFamily::ipv6
                                              : AddressFamily::ipunknown;
  nextHop.scope = fixed->nh_scope;
  nextHop.protocol = fixed->nh_protocol;
  nextHop.hop.flags = static_cast<U8>(fixed->nh_flags);
  for (const Attr attr : Attrs(message, sizeof(nhmsg))) {
    const std::string_view octets = attr.octets();
    switch (attr.type()) {
      case NHA_ID:
        nextHop.id = attr.as<U32>();
        break;
      case NHA_GROUP:
        for (std::size_t at = 0; at + sizeof(nexthop_grp) <= octets.size(); at += sizeof(nexthop_grp)) {
          // The id, the weight less one, and that weight's upper octet, which older kernels leave zero.
          const auto octet = [&](std::size_t i) { return U32{static_cast<U8>(octets[at + i])}; };
          NextHopInfo::Member member;
          std::memcpy(&member.id, octets.data() + at, sizeof(member.id));
          member.weight = (octet(5) << 8) + octet(4) + 1;
          nextHop.group.push_back(member);
        }
        break;
      case NHA_GROUP_TYPE:
        nextHop.resilient = attr.as<U16>() == NEXTHOP_GRP_TYPE_RES;
        break;
      case NHA_RES_GROUP:
        for (const Attr each : Attrs(octets)) {
          if (each.type() == NHA_RES_GROUP_BUCKETS) nextHop.buckets = each.as<U16>();
          if (each.type() == NHA_RES_GROUP_IDLE_TIMER) nextHop.idleTime = each.as<U32>();
          if (each.type() == NHA_RES_GROUP_UNBALANCED_TIMER) nextHop.unbalancedTime = each.as<U32>();
        }
        break;
      case NHA_BLACKHOLE:
        nextHop.blackhole = true;
        break;
      case NHA_FDB:
        nextHop.fdb = true;
        break;
      case NHA_OIF:
        nextHop.hop.ifIndex = attr.as<U32>();
        break;
      case NHA_GATEWAY:
        nextHop.hop.gateway = attr.address();
        break;
      case NHA_ENCAP_TYPE:
        nextHop.hop.encap = attr.as<U16>();
        break;
      case NHA_ENCAP:
        nextHop.hop.encapAttrs = octets;
        break;
      default:
        ++unused;
    }
  }
  return nextHop.id != 0;
}

// Rules
// ------------------------------------------------------------------------------------------------------

namespace {

// Newer than some headers.
constexpr U16 kFraSportMask = 28, kFraDportMask = 29;

}  // namespace

bool parse(const nlmsghdr& message, RouteRule& rule, U64& unused) {
  const auto* const fixed = fixedOf<fib_rule_hdr>(message);
  if (!fixed || (fixed->family != AF_INET && fixed->family != AF_INET6)) return false;
  rule = RouteRule();
  rule.af = zeroOf(fixed->family).af();
  rule.invert = (fixed->flags & FIB_RULE_INVERT) != 0;
  rule.tos = fixed->tos;
  rule.action = fixed->action;
  rule.table = fixed->table;
  const auto takePorts = [](const Attr& attr, RouteRule::Ports& ports) {
    const auto range = attr.as<fib_rule_port_range>();
    ports.first = range.start;
    ports.last = range.end;
  };
  for (const Attr attr : Attrs(message, sizeof(fib_rule_hdr))) {
    switch (attr.type()) {
      case FRA_SRC:
        rule.from = prefixOf(attr.address(), fixed->src_len);
        break;
      case FRA_DST:
        rule.to = prefixOf(attr.address(), fixed->dst_len);
        break;
      case FRA_IIFNAME:
        rule.inInterface = attr.text();
        break;
      case FRA_OIFNAME:
        rule.outInterface = attr.text();
        break;
      case FRA_PRIORITY:
        rule.priority = attr.as<U32>();
        break;
      case FRA_FWMARK:
        rule.mark = attr.as<U32>();
        break;
      case FRA_FWMASK:
        rule.markMask = attr.as<U32>();
        break;
      case FRA_GOTO:
        rule.goTo = attr.as<U32>();
        break;
      case FRA_TABLE:
        rule.table = attr.as<U32>();
        break;
      case FRA_SUPPRESS_PREFIXLEN:
        rule.suppressLength = attr.as<S32>();
        break;
      case FRA_SUPPRESS_IFGROUP:
        rule.suppressGroup = attr.as<S32>();
        break;
      case FRA_FLOW:
        rule.realms = attr.as<U32>();
        break;
      case FRA_TUN_ID:
        rule.tunnelId = attr.as<U64>();
        break;
      case FRA_L3MDEV:
        rule.l3Master = attr.as<U8>() != 0;
        break;
      case FRA_UID_RANGE: {
        const auto range = attr.as<fib_rule_uid_range>();
        rule.uids = {range.start, range.end};
        break;
      }
      case FRA_PROTOCOL:
        rule.protocol = attr.as<U8>();
        break;
      case FRA_IP_PROTO:
        rule.ipProtocol = attr.as<U8>();
        break;
      case FRA_SPORT_RANGE:
        takePorts(attr, rule.sourcePorts);
        break;
      case FRA_DPORT_RANGE:
        takePorts(attr, rule.destinationPorts);
        break;
      case kFraSportMask:
        rule.sourcePorts.mask = attr.as<U16>();
        break;
      case kFraDportMask:
        rule.destinationPorts.mask = attr.as<U16>();
        break;
      case FRA_PAD:
        break;
      default:
        // By code points or flow labels, for example.
        rule.other = true;
        ++unused;
    }
  }
  return (fixed->src_len == 0 || rule.from.af() == rule.af) &&
         (fixed->dst_len == 0 || rule.to.af() == rule.af);
}

}  // namespace Wirl::detail
