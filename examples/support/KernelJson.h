// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What views of the kernel's state hold, as JSON with the fields of `ip -j`. Header-only, for the example
/// netView and for the test that compares with ip(8).

#include <arpa/inet.h>
#include <net/if.h>  // before the kernel's own
#include <netdb.h>

#include <linux/fib_rules.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/lwtunnel.h>
#include <linux/mpls_iptunnel.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <linux/seg6_iptunnel.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>

#include "Wirl/kernel/AddressView.h"
#include "Wirl/kernel/LinkView.h"
#include "Wirl/kernel/NeighborView.h"
#include "Wirl/kernel/NextHopView.h"
#include "Wirl/kernel/RouteView.h"

namespace example {

using Json = nlohmann::ordered_json;
using Kiv::S32;
using Kiv::U16;
using Kiv::U32;
using Kiv::U8;

// Names of numbers
// --------------------------------------------------------------------------------------------

/// Numbers with names, as the files of iproute2 have them; they differ from machine to machine.
class Names {
 public:
  Names(const char* file, std::map<U32, std::string> known) : names_(std::move(known)) {
    for (const char* const folder : {"/usr/share/iproute2/", "/usr/lib/iproute2/", "/etc/iproute2/"}) {
      std::ifstream in(std::string(folder) + file);
      for (std::string line; std::getline(in, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string number, name;
        if (!(words >> number >> name)) continue;
        try {
          names_[static_cast<U32>(std::stoul(number, nullptr, 0))] = name;
        } catch (const std::exception&) {
          // Not a number: not a name either.
        }
      }
    }
  }
  std::string of(U32 number) const {
    const auto found = names_.find(number);
    return found == names_.end() ? std::to_string(number) : found->second;
  }
  const std::string* find(U32 number) const {
    const auto found = names_.find(number);
    return found == names_.end() ? nullptr : &found->second;
  }
  std::optional<U32> numberOf(const std::string& text) const {
    for (const auto& [number, name] : names_) {
      if (name == text) return number;
    }
    char* end = nullptr;
    const unsigned long number = std::strtoul(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || number > 0xffffffff) return std::nullopt;
    return static_cast<U32>(number);
  }

 private:
  std::map<U32, std::string> names_;
};

inline const Names& tableNames() {
  static const Names names("rt_tables", {{253, "default"}, {254, "main"}, {255, "local"}});
  return names;
}
inline const Names& protocolNames() {
  static const Names names("rt_protos",
                           {{1, "redirect"}, {2, "kernel"}, {3, "boot"}, {4, "static"}, {9, "ra"}});
  return names;
}
inline const Names& scopeNames() {
  static const Names names("rt_scopes",
                           {{0, "global"}, {200, "site"}, {253, "link"}, {254, "host"}, {255, "nowhere"}});
  return names;
}
inline const Names& groupNames() {
  static const Names names("group", {{0, "default"}});
  return names;
}
inline const Names& realmNames() {
  static const Names names("rt_realms", {{0, "unknown"}});
  return names;
}
inline const Names& tosNames() {
  static const Names names("rt_dsfield", {});
  return names;
}

struct Flag {
  U32 bit;
  const char* name;
};

/// The names of the bits that are set; what has no name is taken off `bits` by nobody.
template <std::size_t N>
Json namesOf(U32& bits, const Flag (&flags)[N]) {
  Json names = Json::array();
  for (const Flag& flag : flags) {
    if ((bits & flag.bit) != 0) names.push_back(flag.name);
    bits &= ~flag.bit;
  }
  return names;
}

inline std::string hex(U32 number, int digits = 1) {
  char text[16];
  std::snprintf(text, sizeof(text), "%0*x", digits, number);
  return text;
}

/// As ip(8) writes it, with the C library: "::192.0.2.1" for an address that was compatible with IPv4 once.
inline std::string textOf(const Wirl::IpGenAddr& address) {
  char text[INET6_ADDRSTRLEN] = "";
  const std::string octets = address.bytes();
  inet_ntop(octets.size() == 4 ? AF_INET : AF_INET6, octets.data(), text, sizeof(text));
  return text;
}

/// A host without the length.
inline std::string textOf(const Wirl::IpGenPrefix& prefix) {
  return textOf(prefix.ipGenAddr()) + (prefix.isHost() ? "" : "/" + std::to_string(prefix.len()));
}

// JSON
// --------------------------------------------------------------------------------------------------------

/// What of a namespace is wanted.
struct PictureFilter {
  bool details = false;  ///< also the kind and counters of links, and neighbours that need no resolution
  std::string dev;       ///< only of this link
  bool proxies = false;  ///< of neighbours, those that the kernel answers for, and only those
  std::optional<U32> table;
  std::optional<Wirl::IpGenPrefix> to;
};

/// The views of a namespace and how their members are written. Fields are those of ip -j, in its order.
class Picture {
 public:
  explicit Picture(const PictureFilter& filter) : filter_(filter) {}

  Kiv::Ptr<Wirl::LinkView> links = nullptr;  // always there, for the names of links
  bool showLinks = true, showRoutes = true;
  Kiv::Ptr<Wirl::AddressView> addresses = nullptr;
  Kiv::Ptr<Wirl::RouteView> routes = nullptr;
  Kiv::Ptr<Wirl::NeighborView> neighbors = nullptr;
  Kiv::Ptr<Wirl::NextHopView> nextHops = nullptr;
  bool showRules = false;  // of `routes`

  std::string nameOf(U32 ifIndex) const {
    const auto link = links->find(ifIndex);
    return link ? link->info().name : "if" + std::to_string(ifIndex);
  }
  bool isWanted(U32 ifIndex) const { return filter_.dev.empty() || nameOf(ifIndex) == filter_.dev; }
  bool isWanted(const Wirl::IpGenAddr& address) const { return !filter_.to || filter_.to->contains(address); }

  bool isWanted(const Wirl::LinkInfo& link) const { return filter_.dev.empty() || link.name == filter_.dev; }
  bool isWanted(const Wirl::AddressInfo& address) const {
    return isWanted(address.key.ifIndex) && isWanted(address.key.local.ipGenAddr());
  }
  bool isWanted(const Wirl::Route& route) const {
    const auto& hops = route.attrs->nextHops;
    return (!filter_.table || route.key.table == *filter_.table) &&
           (!filter_.to || filter_.to->contains(route.key.prefix)) &&
           (filter_.dev.empty() ||
            std::any_of(hops.begin(), hops.end(), [&](const auto& hop) { return isWanted(hop.ifIndex); }));
  }
  bool isWanted(const Wirl::NeighborInfo& neighbor) const {
    // As ip neigh: not those that need no resolution, and proxies apart.
    if (neighbor.key.proxy != filter_.proxies) return false;
    const bool shown = filter_.details || filter_.proxies || (neighbor.state & ~NUD_NOARP) != 0 ||
                       (neighbor.flags & NTF_EXT_LEARNED) != 0;
    return shown && isWanted(neighbor.key.ifIndex) && isWanted(neighbor.key.address);
  }
  bool isWanted(const Wirl::NextHopInfo& nextHop) const {
    return filter_.dev.empty() || isWanted(nextHop.hop.ifIndex);
  }

  /// Everything that there is a view for, in one object.
  Json document() const;
  Json rules() const;
  Json of(const Wirl::LinkInfo& link) const;
  Json of(const Wirl::AddressInfo& address) const;
  Json of(const Wirl::Route& route) const;
  Json of(const Wirl::NeighborInfo& neighbor) const;
  Json of(const Wirl::NextHopInfo& nextHop) const;
  Json of(const Wirl::RouteRule& rule) const;

 private:
  template <typename View>
  Json membersOf(const View& view) const {
    Json members = Json::array();
    for (const auto& [key, entity] : view.all()) {
      if (isWanted(entity->info())) members.push_back(of(entity->info()));
    }
    return members;
  }
  std::string linkAddress(const std::string& octets, U16 hwType) const;
  static Json routeFlags(U32 flags);
  static void putRealms(Json& json, U32 realms);
  static void putEncap(Json& json, const Wirl::RouteNextHop& hop);
  void putGateway(Json& json, const Wirl::RouteNextHop& hop, Wirl::AddressFamily af) const;
  void putMetrics(Json& json, const Wirl::RouteAttrs& attrs) const;

  const PictureFilter& filter_;
};

inline std::string Picture::linkAddress(const std::string& octets, U16 hwType) const {
  const bool isIp =
      octets.size() == 4 && (hwType == ARPHRD_TUNNEL || hwType == ARPHRD_SIT || hwType == ARPHRD_IPGRE);
  if (isIp) {
    const auto octet = [&](std::size_t i) { return static_cast<U8>(octets[i]); };
    return textOf(Wirl::IpGenAddr(Wirl::IpAddr(octet(0), octet(1), octet(2), octet(3))));
  }
  if (octets.size() == 16 && (hwType == ARPHRD_TUNNEL6 || hwType == ARPHRD_IP6GRE)) {
    Wirl::Ip6Addr address;
    address.copyFromBuffer(reinterpret_cast<const unsigned char*>(octets.data()));
    return textOf(Wirl::IpGenAddr(address));
  }
  std::string text;
  for (const char octet : octets) {
    text += (text.empty() ? "" : ":") + hex(static_cast<U8>(octet), 2);
  }
  return text;
}

inline std::string hwTypeName(U16 type) {
  static const std::map<U16, const char*> kNames = {
      {ARPHRD_ETHER, "ether"},       {ARPHRD_LOOPBACK, "loopback"}, {ARPHRD_PPP, "ppp"},
      {ARPHRD_TUNNEL, "ipip"},       {ARPHRD_TUNNEL6, "tunnel6"},   {ARPHRD_SIT, "sit"},
      {ARPHRD_IPGRE, "gre"},         {ARPHRD_IP6GRE, "gre6"},       {ARPHRD_INFINIBAND, "infiniband"},
      {ARPHRD_NONE, "none"},         {ARPHRD_VOID, "void"},         {ARPHRD_NETLINK, "netlink"},
      {ARPHRD_CAN, "can"},           {ARPHRD_RAWIP, "rawip"},       {ARPHRD_IEEE80211, "ieee802.11"},
      {ARPHRD_VSOCKMON, "vsockmon"}, {ARPHRD_IEEE1394, "ieee1394"}, {ARPHRD_SLIP, "slip"}};
  const auto found = kNames.find(type);
  return found == kNames.end() ? "[" + std::to_string(type) + "]" : found->second;
}

inline Json Picture::of(const Wirl::LinkInfo& link) const {
  static constexpr Flag kFlags[] = {
      {IFF_LOOPBACK, "LOOPBACK"},   {IFF_BROADCAST, "BROADCAST"},   {IFF_POINTOPOINT, "POINTOPOINT"},
      {IFF_MULTICAST, "MULTICAST"}, {IFF_NOARP, "NOARP"},           {IFF_ALLMULTI, "ALLMULTI"},
      {IFF_PROMISC, "PROMISC"},     {IFF_MASTER, "MASTER"},         {IFF_SLAVE, "SLAVE"},
      {IFF_DEBUG, "DEBUG"},         {IFF_DYNAMIC, "DYNAMIC"},       {IFF_AUTOMEDIA, "AUTOMEDIA"},
      {IFF_PORTSEL, "PORTSEL"},     {IFF_NOTRAILERS, "NOTRAILERS"}, {IFF_UP, "UP"},
      {IFF_LOWER_UP, "LOWER_UP"},   {IFF_DORMANT, "DORMANT"},       {IFF_ECHO, "ECHO"}};
  static constexpr const char* kOperStates[] = {"UNKNOWN", "NOTPRESENT", "DOWN", "LOWERLAYERDOWN",
                                                "TESTING", "DORMANT",    "UP"};
  Json json;
  json["ifindex"] = link.ifIndex;
  bool lowerIsDown = false;
  if (link.lower) {
    if (*link.lower == 0) {
      json["link"] = nullptr;
    } else if (link.lowerNsid) {
      json["link_index"] = *link.lower;
    } else {
      json["link"] = nameOf(*link.lower);
      const auto lower = links->find(*link.lower);
      lowerIsDown = lower && (lower->info().flags & IFF_UP) == 0;
    }
  }
  json["ifname"] = link.name;
  Json flags = Json::array();
  if ((link.flags & IFF_UP) != 0 && (link.flags & IFF_RUNNING) == 0) flags.push_back("NO-CARRIER");
  U32 bits = link.flags & ~static_cast<U32>(IFF_RUNNING);
  for (const auto& name : namesOf(bits, kFlags)) flags.push_back(name);
  if (bits != 0) flags.push_back(hex(bits));
  if (lowerIsDown) flags.push_back("M-DOWN");
  json["flags"] = flags;
  json["mtu"] = link.mtu;
  if (!link.qdisc.empty()) json["qdisc"] = link.qdisc;
  if (link.master != 0) json["master"] = nameOf(link.master);
  const auto state = static_cast<std::size_t>(link.operState);
  if (state < std::size(kOperStates)) {
    json["operstate"] = kOperStates[state];
  } else {
    json["operstate_index"] = state;
  }
  json["linkmode"] = link.linkMode == 0 ? "DEFAULT" : link.linkMode == 1 ? "DORMANT" : "TESTING";
  json["group"] = groupNames().of(link.group);
  if (link.txQueueLen != 0) json["txqlen"] = link.txQueueLen;
  json["link_type"] = hwTypeName(link.hwType);
  if (!link.address.empty()) json["address"] = linkAddress(link.address, link.hwType);
  if (!link.broadcast.empty()) {
    if ((link.flags & IFF_POINTOPOINT) != 0) json["link_pointtopoint"] = true;
    json["broadcast"] = linkAddress(link.broadcast, link.hwType);
  }
  if (!link.permanentAddress.empty() && link.permanentAddress != link.address) {
    json["permaddr"] = linkAddress(link.permanentAddress, link.hwType);
  }
  if (link.lowerNsid) json["link_netnsid"] = *link.lowerNsid;
  if (link.protoDown) json["proto_down"] = true;
  if (!link.alias.empty()) json["ifalias"] = link.alias;
  if (!link.altNames.empty()) json["altnames"] = link.altNames;
  if (!filter_.details) return json;
  if (!link.kind.empty()) json["linkinfo"]["info_kind"] = link.kind;
  if (!link.portKind.empty()) json["linkinfo"]["info_slave_kind"] = link.portKind;
  if (link.kind == "vlan") json["linkinfo"]["info_data"]["id"] = link.vlanId;
  if (link.kind == "vrf") json["linkinfo"]["info_data"]["table"] = link.vrfTable;
  if (link.portKind == "vrf") json["linkinfo"]["info_slave_data"]["table"] = link.vrfTable;
  if (const auto& stats = link.stats) {
    json["stats64"]["rx"] = {{"bytes", stats->rxBytes},
                             {"packets", stats->rxPkts},
                             {"errors", stats->rxErrors},
                             {"dropped", stats->rxDrops},
                             {"multicast", stats->multicast}};
    json["stats64"]["tx"] = {{"bytes", stats->txBytes},
                             {"packets", stats->txPkts},
                             {"errors", stats->txErrors},
                             {"dropped", stats->txDrops},
                             {"collisions", stats->collisions}};
  }
  return json;
}

inline Json Picture::of(const Wirl::AddressInfo& address) const {
  static constexpr Flag kFlags[] = {{IFA_F_NODAD, "nodad"},
                                    {IFA_F_OPTIMISTIC, "optimistic"},
                                    {IFA_F_DADFAILED, "dadfailed"},
                                    {IFA_F_HOMEADDRESS, "home"},
                                    {IFA_F_DEPRECATED, "deprecated"},
                                    {IFA_F_TENTATIVE, "tentative"},
                                    {IFA_F_PERMANENT, "dynamic"},
                                    {IFA_F_MANAGETEMPADDR, "mngtmpaddr"},
                                    {IFA_F_NOPREFIXROUTE, "noprefixroute"},
                                    {IFA_F_MCAUTOJOIN, "autojoin"},
                                    {IFA_F_STABLE_PRIVACY, "stable-privacy"}};
  const bool v6 = address.key.local.af() == Wirl::AddressFamily::ipv6;
  Json json;
  json["ifindex"] = address.key.ifIndex;
  json["ifname"] = nameOf(address.key.ifIndex);
  json["family"] = v6 ? "inet6" : "inet";
  json["local"] = textOf(address.key.local.ipGenAddr());
  if (address.key.peer != address.key.local.ipGenAddr()) json["address"] = textOf(address.key.peer);
  json["prefixlen"] = address.key.local.len();
  if (address.metric) json["metric"] = *address.metric;
  if (address.broadcast) json["broadcast"] = textOf(*address.broadcast);
  if (address.anycast) json["anycast"] = textOf(*address.anycast);
  json["scope"] = scopeNames().of(address.scope);
  U32 bits = address.flags;
  if ((bits & IFA_F_SECONDARY) != 0) json[v6 ? "temporary" : "secondary"] = true;
  bits &= ~static_cast<U32>(IFA_F_SECONDARY);
  bits ^= IFA_F_PERMANENT;
  for (const auto& name : namesOf(bits, kFlags)) json[name.get<std::string>()] = true;
  if (bits != 0) json["ifa_flags"] = hex(bits, 2);
  if (!address.label.empty()) json["label"] = address.label;
  json["valid_life_time"] = address.validLifetime;
  json["preferred_life_time"] = address.preferredLifetime;
  return json;
}

inline Json Picture::routeFlags(U32 flags) {
  static constexpr Flag kFlags[] = {{RTNH_F_DEAD, "dead"},
                                    {RTNH_F_ONLINK, "onlink"},
                                    {RTNH_F_PERVASIVE, "pervasive"},
                                    {RTNH_F_OFFLOAD, "offload"},
                                    {RTNH_F_TRAP, "trap"},
                                    {RTM_F_NOTIFY, "notify"},
                                    {RTNH_F_LINKDOWN, "linkdown"},
                                    {RTNH_F_UNRESOLVED, "unresolved"},
                                    {RTM_F_OFFLOAD, "rt_offload"},
                                    {RTM_F_TRAP, "rt_trap"},
                                    {RTM_F_OFFLOAD_FAILED, "rt_offload_failed"}};
  return namesOf(flags, kFlags);
}

inline void Picture::putRealms(Json& json, U32 realms) {
  if (realms == 0) return;
  Json flow;
  if (realms >> 16 != 0) flow["from"] = realmNames().of(realms >> 16);
  flow["to"] = realmNames().of(realms & 0xffff);
  json["flow"] = flow;
}

/// An encapsulation with what is common to it and ip -j. Its "dst" and "tos" are "encap_dst" and "encap_tos"
/// where the route has such itself; ip(8) gives these names twice.
inline void Picture::putEncap(Json& json, const Wirl::RouteNextHop& hop) {
  static constexpr const char* kEncaps[] = {"none", "mpls", "ip",        "ila", "ip6",
                                            "seg6", "bpf",  "seg6local", "rpl", "ioam6"};
  if (hop.encap == 0) return;
  json["encap"] = hop.encap < std::size(kEncaps) ? kEncaps[hop.encap] : "unknown";
  std::map<U16, std::string> attrs;
  for (std::string_view left = hop.encapAttrs; left.size() >= sizeof(nlattr);) {
    nlattr header;
    std::memcpy(&header, left.data(), sizeof(header));
    if (header.nla_len < sizeof(header) || header.nla_len > left.size()) break;
    attrs[header.nla_type & 0x3fff] = left.substr(sizeof(header), header.nla_len - sizeof(header));
    left.remove_prefix(std::min<std::size_t>(left.size(), NLA_ALIGN(header.nla_len)));
  }
  const auto number = [&](U16 type) {
    Kiv::U64 value = 0;
    for (const char octet : attrs[type]) value = value << 8 | static_cast<U8>(octet);
    return value;
  };
  const auto address = [&](U16 type) {
    char text[INET6_ADDRSTRLEN] = "";
    const std::string& octets = attrs[type];
    if (octets.size() == 4 || octets.size() == 16) {
      inet_ntop(octets.size() == 4 ? AF_INET : AF_INET6, octets.data(), text, sizeof(text));
    }
    return std::string(text);
  };
  const auto free = [&](const std::string& name) { return json.contains(name) ? "encap_" + name : name; };
  const std::string dst = free("dst");
  switch (hop.encap) {
    case LWTUNNEL_ENCAP_IP:
    case LWTUNNEL_ENCAP_IP6: {
      const bool v4 = hop.encap == LWTUNNEL_ENCAP_IP;  // both have the same numbers
      json["id"] = number(LWTUNNEL_IP_ID);
      json["src"] = address(LWTUNNEL_IP_SRC);
      json[dst] = address(LWTUNNEL_IP_DST);
      json[v4 ? "ttl" : "hoplimit"] = number(LWTUNNEL_IP_TTL);
      json[v4 ? free("tos") : "tc"] = number(LWTUNNEL_IP_TOS);
      break;
    }
    case LWTUNNEL_ENCAP_MPLS: {
      std::string labels;
      const std::string& stack = attrs[MPLS_IPTUNNEL_DST];
      for (std::size_t at = 0; at + 4 <= stack.size(); at += 4) {
        U32 entry;
        std::memcpy(&entry, stack.data() + at, 4);
        labels += (labels.empty() ? "" : "/") + std::to_string(ntohl(entry) >> 12);
      }
      json[dst] = labels;
      if (attrs.count(MPLS_IPTUNNEL_TTL) != 0) json["ttl"] = number(MPLS_IPTUNNEL_TTL);
      break;
    }
    case LWTUNNEL_ENCAP_SEG6: {
      static constexpr const char* kModes[] = {"inline", "encap", "l2encap", "encap.red", "l2encap.red"};
      const std::string& octets = attrs[SEG6_IPTUNNEL_SRH];
      constexpr std::size_t kFixed = sizeof(int) + sizeof(ipv6_sr_hdr);
      if (octets.size() < kFixed) break;
      U32 mode;
      std::memcpy(&mode, octets.data(), sizeof(mode));
      json["mode"] = mode < std::size(kModes) ? kModes[mode] : "<unknown>";
      Json segments = Json::array();
      for (std::size_t i = static_cast<U8>(octets[sizeof(int) + 4]) + std::size_t{1}; i-- > 0;) {
        char text[INET6_ADDRSTRLEN] = "";
        if (octets.size() < kFixed + i * 16 + 16) continue;
        segments.push_back(inet_ntop(AF_INET6, octets.data() + kFixed + i * 16, text, sizeof(text)));
      }
      json["segs"] = segments;
      break;
    }
    default:
      break;
  }
}

inline void Picture::putGateway(Json& json, const Wirl::RouteNextHop& hop, Wirl::AddressFamily af) const {
  putEncap(json, hop);
  if (hop.gateway.af() == Wirl::AddressFamily::ipunknown) return;
  if (hop.gateway.af() == af) {
    json["gateway"] = textOf(hop.gateway);
  } else {
    json["via"] = {{"family", hop.gateway.af() == Wirl::AddressFamily::ipv6 ? "inet6" : "inet"},
                   {"host", textOf(hop.gateway)}};
  }
}

inline void Picture::putMetrics(Json& json, const Wirl::RouteAttrs& attrs) const {
  static constexpr const char* kNames[] = {
      nullptr,    nullptr,   "mtu",      "window",     "rtt",      "rttvar",
      "ssthresh", "cwnd",    "advmss",   "reordering", "hoplimit", "initcwnd",
      "features", "rto_min", "initrwnd", "quickack",   "congctl",  "fastopen_no_cookie"};
  Json metrics;
  const auto putCongestion = [&] {
    if (!attrs.congestionControl.empty()) metrics["congestion"] = attrs.congestionControl;
  };
  for (const auto& [type, value] : attrs.metrics) {
    if (type == RTAX_FEATURES) {
      if ((value & RTAX_FEATURE_ECN) != 0) metrics["ecn"] = nullptr;
      constexpr U32 kEcn = RTAX_FEATURE_ECN;
      if ((value & ~kEcn) != 0) metrics["features"] = "0x" + hex(value & ~kEcn);
      continue;
    }
    if (type > RTAX_CC_ALGO) putCongestion();
    if (type >= std::size(kNames) || !kNames[type]) continue;
    if (type == RTAX_HOPLIMIT && value == 0xffffffff) continue;
    metrics[kNames[type]] = type == RTAX_RTT ? value / 8 : type == RTAX_RTTVAR ? value / 4 : value;
  }
  putCongestion();
  if (!attrs.metrics.empty() || !metrics.empty())
    json["metrics"] = Json::array({metrics.empty() ? Json::object() : metrics});
}

inline Json Picture::of(const Wirl::Route& route) const {
  static constexpr const char* kTypes[] = {"none",     "unicast",   "local",     "broadcast",
                                           "anycast",  "multicast", "blackhole", "unreachable",
                                           "prohibit", "throw",     "nat",       "xresolve"};
  const Wirl::RouteAttrs& attrs = *route.attrs;
  Json json;
  if (attrs.type != RTN_UNICAST) {
    json["type"] = attrs.type < std::size(kTypes) ? kTypes[attrs.type] : std::to_string(attrs.type);
  }
  json["dst"] = route.key.prefix.len() == 0 ? "default" : textOf(route.key.prefix);
  if (attrs.source.af() != Wirl::AddressFamily::ipunknown) json["from"] = textOf(attrs.source);
  if (attrs.tos != 0) {
    const std::string* const name = tosNames().find(attrs.tos);
    json["tos"] = name ? *name : "0x" + hex(attrs.tos, 2);
  }
  if (attrs.nextHopId != 0) json["nhid"] = attrs.nextHopId;
  const Wirl::RouteNextHop* const single =
      !attrs.multipath && !attrs.nextHops.empty() ? &attrs.nextHops[0] : nullptr;
  if (single) {
    putGateway(json, *single, route.key.prefix.af());
    if (single->ifIndex != 0) json["dev"] = nameOf(single->ifIndex);
  }
  if (route.key.table != RT_TABLE_MAIN) json["table"] = tableNames().of(route.key.table);
  if (attrs.protocol != RTPROT_BOOT) json["protocol"] = protocolNames().of(attrs.protocol);
  if (attrs.scope != RT_SCOPE_UNIVERSE) json["scope"] = scopeNames().of(attrs.scope);
  if (attrs.prefSource.af() != Wirl::AddressFamily::ipunknown) json["prefsrc"] = textOf(attrs.prefSource);
  if (attrs.hasMetric) json["metric"] = route.key.metric;
  json["flags"] = routeFlags(attrs.flags);
  if (attrs.mark != 0) json["mark"] = attrs.mark;
  if (single) putRealms(json, single->realms);
  putMetrics(json, attrs);
  if (route.expires != 0) json["expires"] = route.expires;
  if (attrs.error != 0) json["error"] = attrs.error;
  if (attrs.inIfIndex != 0) json["iif"] = nameOf(attrs.inIfIndex);
  if (attrs.preference >= 0) {
    json["pref"] = attrs.preference == 0   ? "medium"
                   : attrs.preference == 1 ? "high"
                   : attrs.preference == 3 ? "low"
                                           : hex(static_cast<U32>(attrs.preference));
  }
  if (attrs.ttlPropagate) json["ttl-propogate"] = *attrs.ttlPropagate != 0;
  if (!attrs.multipath) return json;
  Json hops = Json::array();
  for (const Wirl::RouteNextHop& hop : attrs.nextHops) {
    Json each;
    putGateway(each, hop, route.key.prefix.af());
    putRealms(each, hop.realms);
    each["dev"] = nameOf(hop.ifIndex);
    each["weight"] = hop.weight;
    each["flags"] = routeFlags(hop.flags);
    hops.push_back(each);
  }
  json["nexthops"] = hops;
  return json;
}

inline Json Picture::of(const Wirl::NeighborInfo& neighbor) const {
  static constexpr Flag kStates[] = {{NUD_INCOMPLETE, "INCOMPLETE"}, {NUD_REACHABLE, "REACHABLE"},
                                     {NUD_STALE, "STALE"},           {NUD_DELAY, "DELAY"},
                                     {NUD_PROBE, "PROBE"},           {NUD_FAILED, "FAILED"},
                                     {NUD_NOARP, "NOARP"},           {NUD_PERMANENT, "PERMANENT"}};
  Json json;
  json["dst"] = textOf(neighbor.key.address);
  json["dev"] = nameOf(neighbor.key.ifIndex);
  const auto link = links->find(neighbor.key.ifIndex);
  if (!neighbor.linkAddress.empty()) {
    json["lladdr"] = linkAddress(neighbor.linkAddress, link ? link->info().hwType : U16{0});
  }
  if ((neighbor.flags & NTF_ROUTER) != 0) json["router"] = nullptr;
  if ((neighbor.flags & NTF_PROXY) != 0) json["proxy"] = nullptr;
  if ((neighbor.flags & NTF_EXT_LEARNED) != 0) json["extern_learn"] = nullptr;
  if ((neighbor.flags & NTF_OFFLOADED) != 0) json["offload"] = nullptr;
  if ((neighbor.extendedFlags & NTF_EXT_MANAGED) != 0) json["managed"] = nullptr;
  U32 bits = neighbor.state;
  if (bits != 0) json["state"] = namesOf(bits, kStates);
  if (neighbor.protocol && *neighbor.protocol != 0) json["protocol"] = protocolNames().of(*neighbor.protocol);
  return json;
}

inline Json Picture::of(const Wirl::NextHopInfo& nextHop) const {
  Json json;
  json["id"] = nextHop.id;
  for (const auto& [id, weight] : nextHop.group) {
    Json& member = json["group"].emplace_back(Json({{"id", id}}));
    if (weight != 1) member["weight"] = weight;
  }
  if (nextHop.resilient) {
    json["type"] = "resilient";
    json["resilient_args"] = {{"buckets", nextHop.buckets},
                              {"idle_timer", nextHop.idleTime / 100},
                              {"unbalanced_timer", nextHop.unbalancedTime / 100}};
  }
  putGateway(json, nextHop.hop, nextHop.hop.gateway.af());
  if (nextHop.hop.ifIndex != 0) json["dev"] = nameOf(nextHop.hop.ifIndex);
  if (nextHop.scope != RT_SCOPE_UNIVERSE) json["scope"] = scopeNames().of(nextHop.scope);
  if (nextHop.blackhole) json["blackhole"] = nullptr;
  if (nextHop.protocol != RTPROT_UNSPEC) json["protocol"] = protocolNames().of(nextHop.protocol);
  json["flags"] = routeFlags(nextHop.hop.flags);
  if (nextHop.fdb) json["fdb"] = nullptr;
  return json;
}

inline Json Picture::of(const Wirl::RouteRule& rule) const {
  Json json;
  json["priority"] = rule.priority;
  if (rule.invert) json["not"] = nullptr;
  const auto putPrefix = [&](const char* name, const char* len, const Wirl::IpGenPrefix& prefix) {
    json[name] = textOf(prefix.ipGenAddr());
    if (!prefix.isHost()) json[len] = prefix.len();
  };
  const bool hasFrom = rule.from.af() == rule.af;
  hasFrom ? putPrefix("src", "srclen", rule.from) : static_cast<void>(json["src"] = "all");
  if (rule.to.af() == rule.af) putPrefix("dst", "dstlen", rule.to);
  if (rule.tos != 0) {
    const std::string* const name = tosNames().find(rule.tos);
    json["tos"] = name ? *name : "0x" + hex(rule.tos, 2);
  }
  if (rule.mark != 0 || rule.markMask != 0) {
    json["fwmark"] = "0x" + hex(rule.mark);
    if (rule.markMask != 0xffffffff) json["fwmask"] = "0x" + hex(rule.markMask);
  }
  const auto putInterface = [&](const std::string& name, const std::string& interface) {
    if (interface.empty()) return;
    json[name] = interface;
    const auto link = links->findByName(interface);
    if (!link || link->info().name != interface) json[name + "_detached"] = nullptr;
  };
  putInterface("iif", rule.inInterface);
  putInterface("oif", rule.outInterface);
  if (rule.l3Master) json["l3mdev"] = nullptr;
  if (rule.uids) {
    json["uid_start"] = rule.uids->first;
    json["uid_end"] = rule.uids->second;
  }
  if (rule.ipProtocol != 0) {
    const protoent* const known = getprotobynumber(rule.ipProtocol);
    json["ipproto"] = known ? known->p_name : "ipproto-" + std::to_string(rule.ipProtocol);
  }
  const auto putPorts = [&](const std::string& name, const Wirl::RouteRule::Ports& ports) {
    if (ports.isAny()) return;
    if (ports.first == ports.last) {
      json[name] = ports.first;
    } else {
      json[name + "_start"] = ports.first;
      json[name + "_end"] = ports.last;
    }
  };
  putPorts("sport", rule.sourcePorts);
  putPorts("dport", rule.destinationPorts);
  if (rule.tunnelId != 0) {
    Kiv::U64 id = 0;
    const auto* const octets = reinterpret_cast<const unsigned char*>(&rule.tunnelId);
    for (std::size_t i = 0; i < sizeof(rule.tunnelId); ++i) id = id << 8 | octets[i];
    json["tun_id"] = id;
  }
  if (rule.table != 0) {
    json["table"] = tableNames().of(rule.table);
    if (rule.suppressLength != -1) json["suppress_prefixlen"] = rule.suppressLength;
    if (rule.suppressGroup != -1)
      json["suppress_ifgroup"] = groupNames().of(static_cast<U32>(rule.suppressGroup));
  }
  if (rule.realms != 0) {
    if (rule.realms >> 16 != 0) json["flow_from"] = realmNames().of(rule.realms >> 16);
    json["flow_to"] = realmNames().of(rule.realms & 0xffff);
  }
  static constexpr const char* kActions[] = {"blackhole", "unreachable", "prohibit"};
  if (rule.action == FR_ACT_GOTO) {
    const auto& rules = routes->rules(rule.af);
    const auto isTarget = [&](const Wirl::RouteRule& each) { return each.priority == rule.goTo; };
    json["goto"] = rule.goTo;
    if (std::none_of(rules.begin(), rules.end(), isTarget)) json["unresolved"] = nullptr;
  }
  if (rule.action == FR_ACT_NOP) json["nop"] = nullptr;
  if (rule.action >= FR_ACT_BLACKHOLE && rule.action <= FR_ACT_PROHIBIT) {
    json["action"] = kActions[rule.action - FR_ACT_BLACKHOLE];
  }
  if (rule.protocol != RTPROT_UNSPEC && rule.protocol != RTPROT_KERNEL) {
    json["protocol"] = protocolNames().of(rule.protocol);
  }
  return json;
}

inline Json Picture::rules() const {
  Json all = Json::array();
  for (const auto af : {Wirl::AddressFamily::ipv4, Wirl::AddressFamily::ipv6}) {
    for (const Wirl::RouteRule& rule : routes->rules(af)) all.push_back(of(rule));
  }
  return all;
}

inline Json Picture::document() const {
  Json document = Json::object();
  if (showLinks) document["links"] = membersOf(*links);
  if (addresses) document["addresses"] = membersOf(*addresses);
  if (routes && showRoutes) {
    Json& all = document["routes"] = Json::array();
    routes->forEach([&](const Wirl::Route& route) {
      if (isWanted(route)) all.push_back(of(route));
    });
  }
  if (neighbors) document["neighbors"] = membersOf(*neighbors);
  if (nextHops) document["nexthops"] = membersOf(*nextHops);
  if (showRules) document["rules"] = rules();
  return document;
}

}  // namespace example
