// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/KernelChanges.h"

#include <linux/fib_rules.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <span>
#include <utility>

#include "Kiv/Exception.h"
#include "Nimbo/Nimbo.h"
#include "Wirl/kernel/detail/Attrs.h"
#include "Wirl/kernel/detail/Exchange.h"

namespace Wirl {

using detail::Request;

namespace {

constexpr U16 kAdd = NLM_F_CREATE | NLM_F_EXCL;
constexpr U16 kReplace = NLM_F_CREATE | NLM_F_REPLACE;
constexpr U16 kAppend = NLM_F_CREATE | NLM_F_APPEND;

std::string_view octetsOf(const EthAddr& mac, unsigned char (&octets)[6]) {
  mac.copyToBuffer(octets);
  return {reinterpret_cast<const char*>(octets), sizeof(octets)};
}

template <typename Fixed>
std::string_view rawOf(const Fixed& fixed) {
  return {reinterpret_cast<const char*>(&fixed), sizeof(fixed)};
}

/// A name that is too long is cut; the kernel would refuse the one as well as the other.
std::string_view nameOf(const std::string& name) {
  return std::string_view(name).substr(0, 255);
}

U8 familyOf(AddressFamily af) {
  return af == AddressFamily::ipv4 ? U8{AF_INET} : U8{AF_INET6};
}

template <typename Value>
std::string textOf(const Value& value) {
  return std::string(value.stringValue());
}

std::string linkText(U32 ifIndex) {
  return " of link " + std::to_string(ifIndex);
}

}  // namespace

KernelChanges::KernelChanges() = default;

KernelChanges::~KernelChanges() {
  for (const int descriptor : descriptors_) close(descriptor);
}

KernelChanges::KernelChanges(KernelChanges&& other) noexcept
    : messages_(std::move(other.messages_)),
      whats_(std::move(other.whats_)),
      descriptors_(std::exchange(other.descriptors_, {})),
      renamed_(std::move(other.renamed_)) {}

KernelChanges& KernelChanges::operator=(KernelChanges&& other) noexcept {
  messages_.swap(other.messages_);
  whats_.swap(other.whats_);
  descriptors_.swap(other.descriptors_);
  renamed_.swap(other.renamed_);
  return *this;
}

void KernelChanges::add(std::string what, std::string message) {
  whats_.push_back(std::move(what));
  try {
    messages_.push_back(std::move(message));
  } catch (...) {
    whats_.pop_back();
    throw;
  }
}

// Links
// ------------------------------------------------------------------------------------------------------

int KernelChanges::descriptorOf(const NamespaceName& ns, const std::string& what) {
  descriptors_.reserve(descriptors_.size() + 1);
  const int descriptor = Nimbo::netnsOpen(textOf(ns).c_str());
  if (descriptor < 0) throw Kiv::ErrnoException(errno, what, Nimbo::netnsGetTracebuffer());
  descriptors_.push_back(descriptor);
  return descriptor;
}

template <typename Message>
void KernelChanges::putLink(Message& request, const LinkChange& change, const std::string& what) {
  unsigned char octets[6];
  if (change.mtu) request.put(IFLA_MTU, *change.mtu);
  if (change.ethAddr) request.put(IFLA_ADDRESS, octetsOf(*change.ethAddr, octets));
  if (change.master) request.put(IFLA_MASTER, *change.master);
  if (change.alias) request.putText(IFLA_IFALIAS, nameOf(*change.alias));
  if (change.txQueueLen) request.put(IFLA_TXQLEN, *change.txQueueLen);
  if (change.group) request.put(IFLA_GROUP, *change.group);
  if (change.lower) request.put(IFLA_LINK, *change.lower);
  if (change.netNs) request.put(IFLA_NET_NS_FD, descriptorOf(*change.netNs, what));
}

namespace {

ifinfomsg linkOf(const LinkChange& change) {
  ifinfomsg fixed{};
  fixed.ifi_index = static_cast<int>(change.ifIndex.value_or(0));
  if (change.up) {
    fixed.ifi_change = IFF_UP;
    fixed.ifi_flags = *change.up ? IFF_UP : 0;
  }
  return fixed;
}

}  // namespace

KernelChanges& KernelChanges::linkAdd(const std::string& name, const std::string& kind,
                                      const LinkChange& with) {
  const std::string what = "add link " + name;
  Request request(RTM_NEWLINK, kAdd, linkOf(with));
  request.putText(IFLA_IFNAME, nameOf(name));
  putLink(request, with, what);
  request.nest(IFLA_LINKINFO, [&] {
    request.putText(IFLA_INFO_KIND, nameOf(kind));
    if (kind != "vlan" && kind != "vrf") return;
    request.nest(IFLA_INFO_DATA, [&] {
      if (kind == "vlan") request.put(IFLA_VLAN_ID, with.vlanId);
      if (kind == "vrf") request.put(IFLA_VRF_TABLE, with.vrfTable);
    });
  });
  add(what, request.text());
  return *this;
}

KernelChanges& KernelChanges::vethAdd(const std::string& name, const std::string& peer,
                                      const LinkChange& with, const LinkChange& ofPeer) {
  const std::string what = "add link " + name;
  Request request(RTM_NEWLINK, kAdd, linkOf(with));
  request.putText(IFLA_IFNAME, nameOf(name));
  putLink(request, with, what);
  request.nest(IFLA_LINKINFO, [&] {
    request.putText(IFLA_INFO_KIND, "veth");
    request.nest(IFLA_INFO_DATA, [&] {
      request.nest(VETH_INFO_PEER, [&] {
        request.putRaw(rawOf(linkOf(ofPeer)));
        request.putText(IFLA_IFNAME, nameOf(peer));
        putLink(request, ofPeer, what);
      });
    });
  });
  add(what, request.text());
  return *this;
}

KernelChanges& KernelChanges::linkChange(const std::string& name, const LinkChange& change) {
  const std::string what = "change link " + name;
  LinkChange of = change;
  of.ifIndex.reset();
  Request request(RTM_NEWLINK, 0, linkOf(of));
  // With a new name in the message the kernel finds the link by nothing but its index.
  request.putText(IFLA_IFNAME, nameOf(change.name.value_or(name)));
  putLink(request, of, what);
  if (!change.name) {
    add(what, request.text());
    return *this;
  }
  const auto renamed = renamed_.emplace(messages_.size(), name).first;
  try {
    add(what, request.text());
  } catch (...) {
    renamed_.erase(renamed);
    throw;
  }
  return *this;
}

KernelChanges& KernelChanges::linkDel(const std::string& name) {
  Request request(RTM_DELLINK, 0, ifinfomsg{});
  request.putText(IFLA_IFNAME, nameOf(name));
  add("delete link " + name, request.text());
  return *this;
}

// Addresses
// --------------------------------------------------------------------------------------------------

void KernelChanges::addressMessage(const char* verb, U16 type, U16 flags, const AddressInfo& address) {
  const AddressKey& key = address.key;
  ifaddrmsg fixed{};
  fixed.ifa_family = familyOf(key.local.af());
  fixed.ifa_prefixlen = static_cast<U8>(key.local.len());
  fixed.ifa_scope = address.scope;
  fixed.ifa_index = key.ifIndex;
  const IpGenAddr local = key.local.ipGenAddr();
  const bool hasPeer = key.peer.af() != AddressFamily::ipunknown && key.peer != local;
  Request request(type, flags, fixed);
  request.put(IFA_LOCAL, local);
  request.put(IFA_ADDRESS, hasPeer ? key.peer : local);
  if (type == RTM_NEWADDR) {
    if (address.broadcast) request.put(IFA_BROADCAST, *address.broadcast);
    if (address.anycast) request.put(IFA_ANYCAST, *address.anycast);
    if (!address.label.empty()) request.putText(IFA_LABEL, nameOf(address.label));
    if (address.flags != 0) request.put(IFA_FLAGS, address.flags);
    if (address.metric) request.put(IFA_RT_PRIORITY, *address.metric);
    if (address.protocol != 0) request.put(IFA_PROTO, address.protocol);
    if (address.validLifetime != AddressInfo::kForever ||
        address.preferredLifetime != AddressInfo::kForever) {
      ifa_cacheinfo lifetimes{};
      lifetimes.ifa_valid = address.validLifetime;
      lifetimes.ifa_prefered = address.preferredLifetime;
      request.put(IFA_CACHEINFO, rawOf(lifetimes));
    }
  }
  add(verb + (" address " + textOf(key.local)) + linkText(key.ifIndex), request.text());
}

KernelChanges& KernelChanges::addressAdd(const AddressInfo& address) {
  addressMessage("add", RTM_NEWADDR, kAdd, address);
  return *this;
}
KernelChanges& KernelChanges::addressReplace(const AddressInfo& address) {
  addressMessage("replace", RTM_NEWADDR, kReplace, address);
  return *this;
}
KernelChanges& KernelChanges::addressDel(const AddressKey& key) {
  AddressInfo address;
  address.key = key;
  addressMessage("delete", RTM_DELADDR, 0, address);
  return *this;
}

// Routes
// -----------------------------------------------------------------------------------------------------

namespace {

void putEncap(Request& request, const RouteNextHop& hop, U16 type, U16 attrs) {
  if (hop.encap == 0) return;
  request.put(type, hop.encap);
  request.put(attrs | NLA_F_NESTED, hop.encapAttrs);
}

void checkEncaps(const std::vector<RouteNextHop>& hops) {
  std::size_t octets = 0;
  for (const RouteNextHop& hop : hops) octets += std::min<std::size_t>(hop.encapAttrs.size(), 65536);
  if (octets > 4096) throw Kiv::RangeException("Wirl::RouteNextHop::encapAttrs > 4096 octets not allowed");
}

void putGateway(Request& request, const RouteNextHop& hop, AddressFamily af) {
  if (hop.gateway.af() == af) {
    request.put(RTA_GATEWAY, hop.gateway);
  } else if (hop.gateway.af() != AddressFamily::ipunknown) {
    const U16 family = familyOf(hop.gateway.af());
    request.put(RTA_VIA, std::string(rawOf(family)) + std::string(hop.gateway.bytes()));
  }
  if (hop.realms != 0) request.put(RTA_FLOW, hop.realms);
  putEncap(request, hop, RTA_ENCAP_TYPE, RTA_ENCAP);
}

}  // namespace

void KernelChanges::routeMessage(const char* verb, U16 type, U16 flags, const RouteKey& key,
                                 const RouteAttrs& attrs) {
  const AddressFamily af = key.prefix.af();
  const bool deletes = type == RTM_DELROUTE;
  checkEncaps(attrs.nextHops);
  const bool single = attrs.nextHopId == 0 && attrs.nextHops.size() == 1 && !attrs.multipath;
  rtmsg fixed{};
  fixed.rtm_family = familyOf(af);
  fixed.rtm_dst_len = static_cast<U8>(key.prefix.len());
  fixed.rtm_tos = attrs.tos;
  fixed.rtm_table = key.table < 256 ? static_cast<U8>(key.table) : U8{RT_TABLE_UNSPEC};
  fixed.rtm_protocol = attrs.protocol;
  fixed.rtm_type = attrs.type;
  fixed.rtm_scope = attrs.scope;
  if (deletes) {
    fixed.rtm_scope = RT_SCOPE_NOWHERE;  // any
  } else {
    if (attrs.type == RTN_UNSPEC) fixed.rtm_type = RTN_UNICAST;
    const bool onLink = single && attrs.nextHops[0].gateway.af() == AddressFamily::ipunknown;
    if (af == AddressFamily::ipv4 && fixed.rtm_type == RTN_UNICAST && onLink && attrs.scope == 0) {
      fixed.rtm_scope = RT_SCOPE_LINK;
    }
  }
  if (single) fixed.rtm_flags = attrs.nextHops[0].flags & RTNH_F_ONLINK;
  const bool hasSource = attrs.source.af() == af;
  if (hasSource) fixed.rtm_src_len = static_cast<U8>(attrs.source.len());

  Request request(type, flags, fixed);
  if (key.prefix.len() != 0) request.put(RTA_DST, key.prefix.ipGenAddr());
  if (hasSource) request.put(RTA_SRC, attrs.source.ipGenAddr());
  if (key.table >= 256) request.put(RTA_TABLE, key.table);
  if (key.metric != 0 || attrs.hasMetric) request.put(RTA_PRIORITY, key.metric);
  if (attrs.nextHopId != 0) {
    request.put(RTA_NH_ID, attrs.nextHopId);
  } else if (single) {
    putGateway(request, attrs.nextHops[0], af);
    if (attrs.nextHops[0].ifIndex != 0) request.put(RTA_OIF, attrs.nextHops[0].ifIndex);
  } else if (!attrs.nextHops.empty()) {
    request.nest(RTA_MULTIPATH, [&] {
      // Of more than the kernel ever takes there is no room in a message.
      for (std::size_t i = 0; i < std::min<std::size_t>(attrs.nextHops.size(), 128); ++i) {
        const RouteNextHop& hop = attrs.nextHops[i];
        rtnexthop each{};
        each.rtnh_ifindex = static_cast<int>(hop.ifIndex);
        each.rtnh_hops = static_cast<U8>(std::clamp<U16>(hop.weight, 1, 256) - 1);
        each.rtnh_flags = hop.flags & RTNH_F_ONLINK;
        const std::size_t place = request.putRaw(rawOf(each));
        putGateway(request, hop, af);
        request.rawLengthIs(place);
      }
    });
  }
  if (!deletes) {
    if (attrs.prefSource.af() == af) request.put(RTA_PREFSRC, attrs.prefSource);
    if (attrs.preference >= 0) request.put(RTA_PREF, static_cast<U8>(attrs.preference));
    if (attrs.ttlPropagate) request.put(RTA_TTL_PROPAGATE, *attrs.ttlPropagate);
    if (!attrs.metrics.empty() || !attrs.congestionControl.empty()) {
      request.nest(RTA_METRICS, [&] {
        for (std::size_t i = 0; i < std::min<std::size_t>(attrs.metrics.size(), 32); ++i) {
          request.put(attrs.metrics[i].first, attrs.metrics[i].second);
        }
        if (!attrs.congestionControl.empty()) request.putText(RTAX_CC_ALGO, nameOf(attrs.congestionControl));
      });
    }
  }
  add(verb + (" route " + textOf(key.prefix)) + " table " + std::to_string(key.table) +
          (key.metric == 0 ? "" : " metric " + std::to_string(key.metric)),
      request.text());
}

KernelChanges& KernelChanges::routeAdd(const RouteKey& key, const RouteAttrs& attrs) {
  routeMessage("add", RTM_NEWROUTE, kAdd, key, attrs);
  return *this;
}
KernelChanges& KernelChanges::routeReplace(const RouteKey& key, const RouteAttrs& attrs) {
  routeMessage("replace", RTM_NEWROUTE, kReplace, key, attrs);
  return *this;
}
KernelChanges& KernelChanges::routeAppend(const RouteKey& key, const RouteAttrs& attrs) {
  routeMessage("append", RTM_NEWROUTE, kAppend, key, attrs);
  return *this;
}
KernelChanges& KernelChanges::routeDel(const RouteKey& key, const RouteAttrs& attrs) {
  routeMessage("delete", RTM_DELROUTE, 0, key, attrs);
  return *this;
}

// Next-hop objects
// -------------------------------------------------------------------------------------------

namespace {
constexpr std::size_t kMostMembers = 512;  // for which there is room in a message
}  // namespace

void KernelChanges::nextHopMessage(const char* verb, U16 flags, const NextHopInfo& nextHop) {
  const RouteNextHop& hop = nextHop.hop;
  checkEncaps({hop});
  if (nextHop.group.size() > kMostMembers) {
    throw Kiv::RangeException("Wirl::NextHopInfo::group > 512 members not allowed");
  }
  for (const auto& [id, weight] : nextHop.group) {
    if (weight == 0 || weight > 65536) {
      throw Kiv::RangeException("Wirl::NextHopInfo::Member::weight 0 or > 65536 not allowed");
    }
  }
  const bool isGroup = !nextHop.group.empty();
  nhmsg fixed{};
  const bool hasGateway = hop.gateway.af() != AddressFamily::ipunknown;
  if (!isGroup) fixed.nh_family = familyOf(hasGateway ? hop.gateway.af() : nextHop.af);
  fixed.nh_protocol = nextHop.protocol;
  fixed.nh_flags = hop.flags & RTNH_F_ONLINK;
  Request request(RTM_NEWNEXTHOP, flags, fixed);
  request.put(NHA_ID, nextHop.id);
  if (isGroup) {
    std::string members;
    for (const auto& [id, weight] : nextHop.group) {
      members += rawOf(id);
      members += {static_cast<char>(weight - 1), static_cast<char>((weight - 1) >> 8), 0, 0};
    }
    request.put(NHA_GROUP, members);
  }
  if (nextHop.resilient) {
    request.put(NHA_GROUP_TYPE, U16{NEXTHOP_GRP_TYPE_RES});
    request.nest(NHA_RES_GROUP, [&] {
      if (nextHop.buckets != 0) request.put(NHA_RES_GROUP_BUCKETS, nextHop.buckets);
      request.put(NHA_RES_GROUP_IDLE_TIMER, nextHop.idleTime);
      request.put(NHA_RES_GROUP_UNBALANCED_TIMER, nextHop.unbalancedTime);
    });
  }
  if (nextHop.blackhole) request.put(NHA_BLACKHOLE, std::string_view());
  if (nextHop.fdb) request.put(NHA_FDB, std::string_view());
  if (hop.ifIndex != 0) request.put(NHA_OIF, hop.ifIndex);
  if (hasGateway) request.put(NHA_GATEWAY, hop.gateway);
  putEncap(request, hop, NHA_ENCAP_TYPE, NHA_ENCAP);
  add(verb + (" next hop " + std::to_string(nextHop.id)), request.text());
}

KernelChanges& KernelChanges::nextHopAdd(const NextHopInfo& nextHop) {
  nextHopMessage("add", kAdd, nextHop);
  return *this;
}
KernelChanges& KernelChanges::nextHopReplace(const NextHopInfo& nextHop) {
  nextHopMessage("replace", kReplace, nextHop);
  return *this;
}
KernelChanges& KernelChanges::nextHopDel(U32 id) {
  Request request(RTM_DELNEXTHOP, 0, nhmsg{});
  request.put(NHA_ID, id);
  add("delete next hop " + std::to_string(id), request.text());
  return *this;
}

// Rules
// ------------------------------------------------------------------------------------------------------

void KernelChanges::ruleMessage(const char* verb, U16 type, U16 flags, const RouteRule& rule) {
  fib_rule_hdr fixed{};
  fixed.family = familyOf(rule.af);
  fixed.tos = rule.tos;
  fixed.action = rule.action;
  fixed.table = rule.table < 256 ? static_cast<U8>(rule.table) : U8{RT_TABLE_COMPAT};
  if (rule.invert) fixed.flags = FIB_RULE_INVERT;
  const bool hasFrom = rule.from.af() == rule.af, hasTo = rule.to.af() == rule.af;
  if (hasFrom) fixed.src_len = static_cast<U8>(rule.from.len());
  if (hasTo) fixed.dst_len = static_cast<U8>(rule.to.len());
  Request request(type, flags, fixed);
  if (hasFrom && fixed.src_len != 0) request.put(FRA_SRC, rule.from.ipGenAddr());
  if (hasTo && fixed.dst_len != 0) request.put(FRA_DST, rule.to.ipGenAddr());
  request.put(FRA_PRIORITY, rule.priority);
  if (!rule.inInterface.empty()) request.putText(FRA_IIFNAME, nameOf(rule.inInterface));
  if (!rule.outInterface.empty()) request.putText(FRA_OIFNAME, nameOf(rule.outInterface));
  if (rule.mark != 0 || rule.markMask != 0) {
    request.put(FRA_FWMARK, rule.mark);
    request.put(FRA_FWMASK, rule.markMask);
  }
  if (rule.ipProtocol != 0) request.put(FRA_IP_PROTO, rule.ipProtocol);
  const auto putPorts = [&](U16 attr, const RouteRule::Ports& ports) {
    if (!ports.isAny()) request.put(attr, rawOf(fib_rule_port_range{ports.first, ports.last}));
  };
  putPorts(FRA_SPORT_RANGE, rule.sourcePorts);
  putPorts(FRA_DPORT_RANGE, rule.destinationPorts);
  if (rule.uids) request.put(FRA_UID_RANGE, rawOf(fib_rule_uid_range{rule.uids->first, rule.uids->second}));
  if (rule.tunnelId != 0) request.put(FRA_TUN_ID, rule.tunnelId);
  if (rule.l3Master) request.put(FRA_L3MDEV, U8{1});
  if (rule.table != 0) request.put(FRA_TABLE, rule.table);
  if (rule.action == FR_ACT_GOTO) request.put(FRA_GOTO, rule.goTo);
  if (rule.suppressLength >= 0) request.put(FRA_SUPPRESS_PREFIXLEN, rule.suppressLength);
  if (rule.suppressGroup >= 0) request.put(FRA_SUPPRESS_IFGROUP, rule.suppressGroup);
  if (rule.realms != 0) request.put(FRA_FLOW, rule.realms);
  request.put(FRA_PROTOCOL, rule.protocol);
  add(verb + (" rule " + std::to_string(rule.priority)) +
          (rule.af == AddressFamily::ipv6 ? " of IPv6" : " of IPv4"),
      request.text());
}

KernelChanges& KernelChanges::ruleAdd(const RouteRule& rule) {
  ruleMessage("add", RTM_NEWRULE, kAdd, rule);
  return *this;
}
KernelChanges& KernelChanges::ruleDel(const RouteRule& rule) {
  ruleMessage("delete", RTM_DELRULE, 0, rule);
  return *this;
}

// Neighbours
// -------------------------------------------------------------------------------------------------

void KernelChanges::neighborMessage(const char* verb, U16 type, U16 flags, const NeighborInfo& neighbor) {
  ndmsg fixed{};
  fixed.ndm_family = familyOf(neighbor.key.address.af());
  fixed.ndm_ifindex = static_cast<int>(neighbor.key.ifIndex);
  fixed.ndm_state = neighbor.state;
  fixed.ndm_flags = static_cast<U8>(neighbor.flags | (neighbor.key.proxy ? NTF_PROXY : 0));
  Request request(type, flags, fixed);
  request.put(NDA_DST, neighbor.key.address);
  if (!neighbor.linkAddress.empty()) request.put(NDA_LLADDR, nameOf(neighbor.linkAddress));
  if (neighbor.protocol) request.put(NDA_PROTOCOL, *neighbor.protocol);
  if (neighbor.extendedFlags != 0) request.put(NDA_FLAGS_EXT, neighbor.extendedFlags);
  add(verb + (" neighbor " + textOf(neighbor.key.address)) + linkText(neighbor.key.ifIndex), request.text());
}

KernelChanges& KernelChanges::neighborAdd(const NeighborInfo& neighbor) {
  neighborMessage("add", RTM_NEWNEIGH, kAdd, neighbor);
  return *this;
}
KernelChanges& KernelChanges::neighborReplace(const NeighborInfo& neighbor) {
  neighborMessage("replace", RTM_NEWNEIGH, kReplace, neighbor);
  return *this;
}
KernelChanges& KernelChanges::neighborDel(const NeighborKey& key) {
  NeighborInfo neighbor;
  neighbor.key = key;
  neighborMessage("delete", RTM_DELNEIGH, 0, neighbor);
  return *this;
}
KernelChanges& KernelChanges::neighborAsk(const NeighborKey& key, U8 flags) {
  NeighborInfo neighbor;
  neighbor.key = key;
  neighbor.flags = static_cast<U8>(flags | NTF_USE);
  neighborMessage("ask for", RTM_NEWNEIGH, NLM_F_CREATE, neighbor);
  return *this;
}
KernelChanges& KernelChanges::neighborProbe(const NeighborKey& key, U8 flags) {
  NeighborInfo neighbor;
  neighbor.key = key;
  neighbor.state = NUD_PROBE;
  neighbor.flags = flags;
  neighborMessage("probe", RTM_NEWNEIGH, 0, neighbor);
  return *this;
}

// Making them
// -------------------------------------------------------------------------------------------------

KernelChanger::KernelChanger(const NamespaceName& ns)
    : pam_(netlinkPamFactory("changes", NETLINK_ROUTE, ns)) {
  pam_->extendedIs(true);
  pam_->rxBufIs(1u << 20);
  pam_->rxBudgetIs(0);
  pam_->enabledIs(true);
}

std::vector<KernelChanger::Outcome> KernelChanger::tryApply(const KernelChanges& changes) {
  const std::span<const std::string> messages(changes.messages_);
  std::vector<Outcome> outcomes;
  const auto make = [&](std::span<const std::string> some) {
    for (detail::Outcome& each : detail::exchange(*pam_, sequence_, some)) {
      outcomes.push_back({changes.whats_[outcomes.size()], each.error, std::move(each.text)});
    }
  };
  for (const auto& [place, name] : changes.renamed_) {
    make(messages.subspan(outcomes.size(), place - outcomes.size()));
    const auto [index, error] = findLink(name);
    if (index == 0) {
      outcomes.push_back({changes.whats_[place], error, {}});
      continue;
    }
    std::string message = messages[place];
    const auto octets = static_cast<int>(index);
    std::memcpy(message.data() + NLMSG_HDRLEN + offsetof(ifinfomsg, ifi_index), &octets, sizeof(octets));
    make({&message, 1});
  }
  make(messages.subspan(outcomes.size()));
  return outcomes;
}

void KernelChanger::apply(const KernelChanges& changes) {
  for (const Outcome& outcome : tryApply(changes)) {
    if (outcome.error == 0) continue;
    std::string context = outcome.text;
    context += (context.empty() ? "in " : ", in ") + textOf(pam_->netNs());
    throw Kiv::ErrnoException(outcome.error, outcome.what, context);
  }
}

std::pair<U32, int> KernelChanger::findLink(const std::string& name) {
  Request request(RTM_GETLINK, 0, ifinfomsg{});
  request.putText(IFLA_IFNAME, nameOf(name));
  const std::string message = request.text();
  U32 index = 0;
  const auto outcomes = detail::exchange(*pam_, sequence_, {&message, 1}, [&](const nlmsghdr& answer) {
    const auto* const fixed = detail::fixedOf<ifinfomsg>(answer);
    if (fixed && answer.nlmsg_type == RTM_NEWLINK) index = static_cast<U32>(fixed->ifi_index);
  });
  return {index, outcomes[0].error != 0 ? outcomes[0].error : ENODEV};
}

U32 KernelChanger::ifIndexOf(const std::string& name) {
  const auto [index, error] = findLink(name);
  if (index == 0) throw Kiv::ErrnoException(error, "link " + name, "in " + textOf(pam_->netNs()));
  return index;
}

}  // namespace Wirl
