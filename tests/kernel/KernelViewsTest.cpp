// SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>

#include "Kiv/Kiv.h"
#include "Wirl/kernel/KernelChanges.h"
#include "Wirl/kernel/NeighborResolver.h"
#include "Wirl/kernel/detail/Attrs.h"
#include "Wirl/kernel/detail/Messages.h"
#include "Wirl/packet/Ethernet.h"
#include "Wirl/wire/ArpHdr.h"
#include "Wirl/wire/PktBuilder.h"
#include "examples/support/KernelJson.h"
#include "tests/support/NetNs.h"

namespace Wirl {
namespace {

using example::Json;

std::string outputOf(const std::string& command) {
  std::FILE* const output = popen(("{ " + command + "\n} 2>/dev/null").c_str(), "r");
  std::string text;
  for (int c; (c = std::fgetc(output)) != EOF;) text += static_cast<char>(c);
  pclose(output);
  return text;
}

Json ipJson(const NetNs& ns, const std::string& words) {
  const std::string text = outputOf("ip -n " + ns.name() + " -j " + words);
  return text.empty() ? Json::array() : Json::parse(text);
}

/// Members in one order, without what runs with the clock.
std::multiset<std::string> canonical(const Json& members) {
  std::multiset<std::string> rows;
  for (Json member : members) {
    for (const char* const clock : {"expires", "valid_life_time", "preferred_life_time"}) member.erase(clock);
    if (member.contains("encap_dst")) member["dst"] = member["encap_dst"];  // ip(8) shows both by one name
    for (const char* const other : {"encap_dst", "encap_tos"}) member.erase(other);
    rows.insert(nlohmann::json(member).dump());
  }
  return rows;
}

/// Without what the kernel does not tell of.
Json toldOf(const std::string& kind, const Json& members) {
  Json told = Json::array();
  for (Json member : members) {
    for (const char* const field : {"ifalias", "group", "txqlen"}) member.erase(field);
    if (kind != "proxies" && !member.contains("tentative")) told.push_back(member);
  }
  return told;
}

/// The state as ip(8) has it, in the form of the views' document.
Json ipDocument(const NetNs& ns) {
  Json document = {{"links", ipJson(ns, "link")}, {"addresses", Json::array()}};
  for (const Json& link : ipJson(ns, "addr")) {
    for (Json address : link["addr_info"]) {
      address["ifindex"] = link["ifindex"];
      address["ifname"] = link["ifname"];
      document["addresses"].push_back(address);
    }
  }
  document["routes"] = ipJson(ns, "route show table all");
  document["neighbors"] = ipJson(ns, "neigh");
  document["proxies"] = ipJson(ns, "neigh show proxy");
  document["nexthops"] = ipJson(ns, "nexthop");
  document["rules"] = ipJson(ns, "rule");
  for (const Json& each : ipJson(ns, "-6 rule")) document["rules"].push_back(each);
  return document;
}

/// A copy of a view made of nothing but what it tells.
template <typename View>
class Copy {
 public:
  explicit Copy(const View& view) : view_(view), onChange_(view.changeCount, [this] { take(); }) {}
  bool isEqual() const {
    if (told_.size() != view_.all().size()) return false;
    for (const auto& [key, entity] : view_.all()) {
      const auto found = told_.find(key);
      if (found == told_.end() || !(found->second == entity->info()) || !entity->present()) return false;
    }
    return true;
  }

 private:
  void take() {
    for (const auto& change : view_.changes()) {
      const auto key = keyOf(change.entity->info());
      if (change.kind == ChangeKind::added) {
        EXPECT_TRUE(told_.emplace(key, change.entity->info()).second);
      } else if (change.kind == ChangeKind::removed) {
        EXPECT_FALSE(change.entity->present());
        EXPECT_EQ(told_.erase(key), 1u);
      } else {
        EXPECT_TRUE(told_[key] == change.before);
        told_[key] = change.entity->info();
      }
    }
  }
  static U32 keyOf(const LinkInfo& info) { return info.ifIndex; }
  template <typename Info>
  static auto keyOf(const Info& info) {
    return info.key;
  }

  const View& view_;
  std::map<typename View::Key, typename View::Info> told_;
  const Kiv::Reactor onChange_;
};

struct Views {
  explicit Views(const NetNs& ns, U32 rxBuf = 1u << 20) : picture(filter) {
    const NamespaceName name(ns.name());
    picture.links = links = linkViewFactory("links", name);
    picture.addresses = addresses = addressViewFactory("addresses", name);
    picture.routes = routes = routeViewFactory("routes", name);
    picture.neighbors = neighbors = neighborViewFactory("neighbors", name);
    picture.nextHops = nextHops = nextHopViewFactory("nexthops", name);
    picture.showRules = true;
    for (KernelView* const view : all()) view->rxBufIs(rxBuf);
  }
  std::array<KernelView*, 5> all() const {
    return {links.get(), addresses.get(), routes.get(), neighbors.get(), nextHops.get()};
  }
  void open() const {
    for (KernelView* const view : all()) view->enabledIs(true);
  }
  bool inSync() const {
    for (const KernelView* const view : all()) {
      if (!view->inSync()) return false;
    }
    return true;
  }
  bool awaitSync() const {
    return Kiv::activityLoop().runUntil([&] { return inSync(); }, 20);
  }

  mutable example::PictureFilter filter;
  example::Picture picture;
  Kiv::Ptr<LinkView> links;
  Kiv::Ptr<AddressView> addresses;
  Kiv::Ptr<RouteView> routes;
  Kiv::Ptr<NeighborView> neighbors;
  Kiv::Ptr<NextHopView> nextHops;
};

/// Waits until the views hold what ip(8) shows; says where they do not.
void expectSameAsIp(const Views& views, const NetNs& ns) {
  std::string difference;
  for (int tries = 0; tries < 40; ++tries) {
    views.awaitSync();
    Kiv::activityLoop().runFor(tries == 0 ? 0.001 : tries < 9 ? 0.02 : 0.1);
    const Json wanted = ipDocument(ns);
    Json got = views.picture.document();
    views.filter.proxies = true;
    got["proxies"] = views.picture.document()["neighbors"];
    views.filter.proxies = false;
    difference.clear();
    for (const auto& [kind, members] : wanted.items()) {
      const auto a = canonical(members), b = canonical(got[kind]);
      std::string rows;
      for (const auto& row : a) rows += b.count(row) == a.count(row) ? "" : "  ip " + row + "\n";
      for (const auto& row : b) rows += a.count(row) == b.count(row) ? "" : "  we " + row + "\n";
      if (rows.empty()) continue;
      difference += kind + "\n" + rows;
      KernelView* const view = kind == "links"       ? views.all()[0]
                               : kind == "addresses" ? views.all()[1]
                               : kind == "proxies"   ? views.all()[3]
                                                     : nullptr;
      if (view && canonical(toldOf(kind, members)) == canonical(toldOf(kind, got[kind]))) view->resync();
    }
    if (difference.empty() && views.inSync()) return;
  }
  FAIL() << difference << "in sync: " << views.inSync();
}

class KernelViewsTest : public NetNsTest {};

/// What tells routes apart, and how they go on, in one order.
std::string wayOf(Json route) {
  std::set<std::string> hops;
  const auto hopOf = [](const Json& each) { return each.value("dev", "") + " " + each.value("gateway", ""); };
  for (const Json& each : route.contains("nexthops") ? route["nexthops"] : Json::array({route})) {
    hops.insert(hopOf(each));
  }
  std::string way = route.value("type", "");
  if (!route.contains("encap")) way += " " + route.value("dst", "");  // else ip(8) shows that of the tunnel
  for (const char* const name : {"from", "metric", "tos"})
    way += route.contains(name) ? " " + route[name].dump() : "";
  // Of IPv4 the kernel does not say the table here.
  if (way.find(':') != std::string::npos) way += " " + route.value("table", "");
  for (const std::string& hop : hops) way += ", " + hop;
  return way;
}

/// Whether a look-up gives the route that the kernel takes; `words` say the same as `query` to ip(8).
void expectSameLookUp(const Views& views, const NetNs& ns, const RouteQuery& query,
                      const std::string& words) {
  const bool v4 = query.destination.af() == AddressFamily::ipv4;
  const Json answer = ipJson(ns, "route get fibmatch " + words);
  const Route route = views.routes->lookUp(query);
  if (answer.empty()) {
    // Of IPv6 the kernel also refuses for want of a source.
    const bool refused = !route || (route.attrs->type >= RTN_BLACKHOLE && route.attrs->type <= RTN_PROHIBIT);
    EXPECT_TRUE(!v4 || refused) << words << " " << views.picture.of(route).dump();
    return;
  }
  ASSERT_TRUE(route) << words << " " << answer.dump();
  // Several routes may be equally good.
  bool found = false;
  std::string ours;
  views.routes->forEach([&](const Route& each) {
    if (each.key != route.key) return;
    found = found || wayOf(views.picture.of(each)) == wayOf(answer[0]);
    ours += "\n" + wayOf(views.picture.of(each));
  });
  EXPECT_TRUE(found) << words << " " << wayOf(answer[0]) << ours;
}

/// Changes at random: of links, addresses, routes and neighbours, by ip(8) and by `KernelChanges`, of which
/// the kernel refuses many.
class Changes {
 public:
  Changes(const NetNs& own, const NetNs& other, const Views& views, unsigned seed)
      : own_(own), other_(other), views_(views), random_(seed), changer_(NamespaceName(own.name())) {}

  void make(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      const std::string line = one();
      log += line + "\n";
      if (line[0] != '#') batch_ += line + "\n";
      if (line[0] == '#' || pick(3) == 0) flush();
    }
    flush();
  }
  /// Compares a look-up at random.
  void lookUp() {
    const bool is6 = pick(2) == 0;
    std::string words = is6 ? "2001:db8:f" + number(4) + "::" + number(3) : "198.51.100." + number(256);
    RouteQuery query{IpGenAddr(words)};
    const auto with = [&](const std::string& word, auto& to, unsigned value) {
      if (pick(4) != 0) return;
      to = static_cast<std::remove_reference_t<decltype(to)>>(value);
      words += " " + word + " " + std::to_string(value);
    };
    with("mark", query.mark, pick(3));
    with("tos", query.tos, pick(3) * 8);
    with("ipproto", query.ipProtocol, 17);
    if (query.ipProtocol != 0) with("dport", query.destinationPort, 7 + pick(2));
    if (is6 && pick(3) == 0) {
      query.source = IpGenAddr(v6());
      words += " from " + std::string(query.source.stringValue());
    } else if (is6 && pick(3) == 0) {
      // Of IPv4 the kernel goes on without a route then.
      const auto link = views_.links->findByName(dev());
      if (link) words += " oif " + link->info().name;
      if (link) query.outIfIndex = link->ifIndex();
    }
    expectSameLookUp(views_, own_, query, words);
  }
  std::string log;

 private:
  unsigned pick(unsigned n) { return static_cast<unsigned>(random_() % n); }
  template <std::size_t N>
  std::string any(const char* const (&texts)[N]) {
    return texts[pick(N)];
  }
  std::string number(unsigned n) { return std::to_string(pick(n)); }

  void flush() {
    if (batch_.empty()) return;
    outputOf("ip -n " + own_.name() + " -force -batch - <<'END'\n" + batch_ + "END");
    batch_.clear();
  }

  std::string dev() { return any({"a0", "b0", "a1", "b1", "a2", "b2", "br", "lo"}); }
  std::string v4() { return "192.0.2." + number(8); }
  std::string v6() { return "2001:db8:" + number(3) + "::" + number(8); }
  std::string target(bool is6) {
    if (pick(12) == 0) return is6 ? "::/0" : "0.0.0.0/0";
    return is6 ? "2001:db8:f" + number(4) + "::/" + any({"48", "64", "127"})
               : "198.51.100." + std::to_string(pick(4) * 64) + "/" + any({"26", "27", "32"});
  }
  std::string hop(bool is6) {
    switch (pick(4)) {
      case 0:
        return "dev " + dev();
      case 1:
        return "via " + (is6 ? v6() : v4()) + " dev " + dev() + (pick(3) == 0 ? " onlink" : "");
      default:
        return "via " + (is6 ? v6() : v4());
    }
  }
  std::string route() {
    const bool is6 = pick(2) == 0;
    const std::string verb = any({"add", "add", "append", "replace", "prepend", "del"});
    std::string line = "route " + verb + " ";
    if (pick(8) == 0)
      return line + any({"blackhole ", "unreachable ", "throw ", "prohibit ", "local dev lo "}) + target(is6);
    line += target(is6);
    if (pick(3) == 0) {
      line += " nexthop " + hop(is6) + " weight " + std::to_string(1 + pick(3)) + " nexthop " + hop(is6);
    } else if (pick(5) == 0) {
      line += " nhid " + number(6);
    } else {
      line += " " + hop(is6);
    }
    if (pick(3) == 0) line += " metric " + number(3);
    if (pick(4) == 0) line += " table " + any({"77", "1000", "default"});
    if (pick(6) == 0) line += " mtu 1300 proto static";
    if (pick(9) == 0) line += is6 ? " pref high" : " tos 8";
    if (pick(9) == 0) line += is6 ? " from 2001:db8:" + number(3) + "::/64" : " encap ip id 5 dst 192.0.2.9";
    return line;
  }
  std::string rule() {
    const bool is6 = pick(2) == 0;
    std::string line = std::string(is6 ? "-6 " : "") + "rule " + any({"add", "add", "del"});
    if (pick(2) == 0) line += " pref " + std::to_string(1000 * pick(5));
    if (pick(3) == 0) line += " not";
    if (pick(2) == 0) line += is6 ? " from 2001:db8:" + number(3) + "::/64" : " to " + target(false);
    line += any({"", " fwmark 1", " fwmark 2/3", " tos 8", " ipproto udp dport 7", " iif lo", " oif a0",
                 " uidrange 0-9"});
    return line + any({" table main", " table 77", " table 1000", " table 1000",
                       " table main suppress_prefixlength 26", " goto 4000", " blackhole", " nop"});
  }

  std::string one() {
    switch (pick(20)) {
      case 0:
        return "link add a" + number(3) + " type veth peer name b" + number(3) +
               (pick(4) == 0 ? " netns " + other_.name() : "");
      case 1:
        return pick(2) == 0 ? "link del " + dev() : "link add br type bridge";
      case 2:
      case 3:
        return "link set " + dev() + " " + any({"up", "up", "up", "down"});
      case 4:
        return "link set " + dev() + " " +
               any({"mtu 1400", "mtu 1280", "mtu 9000", "alias x", "txqueuelen 7", "group 9", "promisc on",
                    "address 02:00:00:00:00:07", "nomaster", "master br", "multicast off", "arp off"});
      case 5:
        if (pick(2) == 0) return "link set " + dev() + " name " + dev();
        if (pick(2) == 0) return "link set " + dev() + " netns " + other_.name();
        flush();
        outputOf("ip -n " + other_.name() + " link set " + dev() + " netns " + own_.name());
        return "# a link from the other namespace";
      case 6:
      case 7:
        return "addr " + any({"add", "add", "replace", "del"}) + " " + v4() + "/" + any({"24", "28", "32"}) +
               " dev " + dev() + (pick(3) == 0 ? " broadcast +" : "");
      case 8:
        return "addr " + any({"add", "add", "replace", "del"}) + " " + v6() + "/64 dev " + dev() + " " +
               any({"", "nodad", "nodad noprefixroute", "preferred_lft 0"});
      case 9:
        return "nexthop " + any({"add", "replace", "del"}) + " id " + number(4) + " via " + v4() + " dev " +
               dev();
      case 10:
        return "nexthop " + any({"add", "replace", "del"}) + " id " + std::to_string(4 + pick(2)) +
               " group " + number(4) + "/" + number(4);
      case 11:
        if (pick(4) == 0)
          return "neigh " + any({"add", "del"}) + " proxy " + (pick(2) == 0 ? v4() : v6()) + " dev " + dev();
        return "neigh " + any({"add", "replace", "del", "change"}) + " " + (pick(2) == 0 ? v4() : v6()) +
               " lladdr 02:00:00:00:00:0" + number(9) + " dev " + dev() + " nud " +
               any({"permanent", "reachable", "stale", "noarp"}) + any({"", " router", " extern_learn"});
      case 12:
        if (pick(2) == 0) return rule();
        [[fallthrough]];
      case 13:
      case 14:
        return byUs();
      default:
        return route();
    }
  }

  U32 index() {
    const auto link = views_.links->findByName(dev());
    return link ? link->ifIndex() : pick(9);
  }

  /// The same without ip(8).
  std::string byUs() {
    flush();
    KernelChanges changes;
    for (unsigned i = 0; i <= pick(3); ++i) {
      switch (pick(10)) {
        case 0:
          changes.vethAdd("a" + number(3), "b" + number(3), {.mtu = 1400 + pick(9)}, {.up = true});
          break;
        case 1:
          changes.linkChange(dev(), {.up = pick(3) != 0, .mtu = 1300 + pick(400), .alias = "y" + number(9)});
          break;
        case 2:
          pick(4) == 0 ? changes.linkChange(dev(), {.netNs = NamespaceName(other_.name())})
                       : changes.linkChange(dev(), {.name = dev()});
          break;
        case 3: {
          AddressInfo address;
          address.key.ifIndex = index();
          address.key.local = IpGenAddrWithMask(pick(2) == 0 ? v4() + "/24" : v6() + "/64");
          address.flags = IFA_F_NODAD;
          pick(3) == 0 ? changes.addressDel(address.key) : changes.addressAdd(address);
          break;
        }
        case 4: {
          NeighborInfo neighbor;
          neighbor.key = {index(), IpGenAddr(pick(2) == 0 ? v4() : v6())};
          neighbor.state = pick(2) == 0 ? NUD_PERMANENT : NUD_STALE;
          neighbor.linkAddress = "\2\1\1\1\1\1";
          pick(4) == 0 ? changes.neighborDel(neighbor.key) : changes.neighborReplace(neighbor);
          break;
        }
        case 5: {
          NextHopInfo hop;
          hop.id = 1 + pick(6);
          if (hop.id > 3) hop.group = {{pick(4), 1 + pick(256)}, {pick(4), 1}};
          if (hop.id <= 3) hop.hop.gateway = IpGenAddr(pick(2) == 0 ? v4() : v6());
          if (hop.id <= 3) hop.hop.ifIndex = index();
          pick(4) == 0 ? changes.nextHopDel(hop.id) : changes.nextHopReplace(hop);
          break;
        }
        case 6: {
          const auto& all = views_.routes->rules(pick(2) == 0 ? AddressFamily::ipv4 : AddressFamily::ipv6);
          if (all.empty()) break;
          RouteRule again = all[pick(static_cast<unsigned>(all.size()))];
          changes.ruleDel(again);
          if (pick(2) == 0) again.priority += 10;
          changes.ruleAdd(again);
          break;
        }
        default:
          addRoute(changes);
      }
    }
    std::string line = "# we:";
    for (const auto& outcome : changer_.tryApply(changes)) {
      line += " " + outcome.what + (outcome.error == 0 ? "," : " (" + std::to_string(outcome.error) + "),");
    }
    return line;
  }

  void addRoute(KernelChanges& changes) {
    const bool is6 = pick(2) == 0;
    RouteKey key;
    key.table = pick(4) == 0 ? 1000 : 254;
    key.prefix = IpGenPrefix(target(is6));
    key.metric = pick(3);
    RouteAttrs attrs;
    for (unsigned i = 0; i <= pick(3); ++i) {
      RouteNextHop hop;
      if (pick(4) != 0) hop.gateway = IpGenAddr(is6 ? v6() : v4());
      if (hop.gateway.af() == AddressFamily::ipunknown || pick(2) == 0) hop.ifIndex = index();
      attrs.nextHops.push_back(hop);
    }
    attrs.protocol = static_cast<U8>(pick(2) * 186);
    if (pick(4) == 0) attrs.metrics = {{RTAX_MTU, 1290}};
    switch (pick(4)) {
      case 0:
        changes.routeAppend(key, attrs);
        break;
      case 1:
        changes.routeReplace(key, attrs);
        break;
      case 2:
        changes.routeDel(key);
        break;
      default:
        changes.routeAdd(key, attrs);
    }
  }

  const NetNs& own_;
  const NetNs& other_;
  const Views& views_;
  std::mt19937 random_;
  KernelChanger changer_;
  std::string batch_;
};

// WIRL_KERNEL_STEPS: how many times some changes are made and compared; WIRL_KERNEL_SEED: the first.
TEST_F(KernelViewsTest, HoldWhatIpShowsAfterAnyChanges) {
  const char* const wanted = std::getenv("WIRL_KERNEL_STEPS");
  const char* const seed = std::getenv("WIRL_KERNEL_SEED");
  const unsigned steps = wanted ? static_cast<unsigned>(std::atoi(wanted)) : 40;
  const unsigned perSeed = 40;
  for (unsigned step = 0, n = seed ? static_cast<unsigned>(std::atoi(seed)) : 1; step < steps; ++n) {
    const NetNs own("own"), other("other");
    const Views views(own);
    const Copy links(*views.links);
    const Copy addresses(*views.addresses);
    const Copy neighbors(*views.neighbors);
    std::set<RouteKey> routes;
    const Kiv::Reactor onRoutes(views.routes->changeCount, [&] {
      for (const auto& change : views.routes->changes()) {
        if (change.kind == ChangeKind::changed) continue;
        EXPECT_TRUE(change.kind == ChangeKind::added ? routes.insert(change.key).second
                                                     : routes.erase(change.key) == 1);
      }
    });
    views.open();
    Changes changes(own, other, views, n);
    // So that many routes have a way to their gateways from the start.
    own.ip(
        "link add a0 type veth peer name b0\nlink set a0 up\nlink set b0 up\n"
        "addr add 192.0.2.1/24 dev a0\naddr add 2001:db8:1::1/64 dev a0 nodad");
    for (unsigned i = 0; i < perSeed && step < steps; ++i, ++step) {
      changes.make(8);
      expectSameAsIp(views, own);
      for (unsigned look = 0; look < 6; ++look) changes.lookUp();
      EXPECT_TRUE(links.isEqual() && addresses.isEqual() && neighbors.isEqual());
      std::set<RouteKey> now;
      views.routes->forEach([&](const Route& route) { now.insert(route.key); });
      EXPECT_TRUE(routes == now);
      EXPECT_EQ(views.links->badMessages() + views.routes->badMessages(), 0u);
      ASSERT_FALSE(HasFailure()) << "seed " << n << " step " << i << "\n" << changes.log;
      changes.log.clear();
    }
  }
}

/// Until it is so; false after a while.
bool await(const std::function<bool()>& done) {
  return Kiv::activityLoop().runUntil(done, 20);
}

// Kinds that the kernel at hand may lack; and no message that is cut is read past its end.
TEST(KernelMessagesTest, KindsOfLinksAndCutMessages) {
  const auto linkOf = [](const char* kind, const std::function<void(detail::Request&)>& data) {
    ifinfomsg fixed{};
    fixed.ifi_index = 7;
    detail::Request message(RTM_NEWLINK, 0, fixed);
    message.putText(IFLA_IFNAME, "x");
    message.nest(IFLA_LINKINFO, [&] {
      message.putText(IFLA_INFO_KIND, kind);
      data(message);
    });
    return message.text();
  };
  const std::string messages[] = {
      linkOf("dummy", [](auto&) {}),
      linkOf("vlan",
             [](auto& message) {
               message.nest(IFLA_INFO_DATA, [&] {
                 message.put(IFLA_VLAN_ID, U16{100});
                 message.put(IFLA_VLAN_PROTOCOL, htons(0x88a8));
               });
             }),
      linkOf(
          "vrf",
          [](auto& message) { message.nest(IFLA_INFO_DATA, [&] { message.put(IFLA_VRF_TABLE, 1001u); }); }),
      linkOf("dummy", [](auto& message) {
        message.putText(IFLA_INFO_SLAVE_KIND, "vrf");
        message.nest(IFLA_INFO_SLAVE_DATA, [&] { message.put(IFLA_VRF_PORT_TABLE, 1002u); });
      })};
  std::string seen;
  U64 unused = 0;
  for (const std::string& octets : messages) {
    // On the heap, where a sanitizer sees the end.
    for (std::size_t size = sizeof(nlmsghdr); size <= octets.size(); ++size) {
      const std::unique_ptr<char[]> cut(new char[size]);
      std::memcpy(cut.get(), octets.data(), size);
      auto& message = *static_cast<nlmsghdr*>(static_cast<void*>(cut.get()));
      message.nlmsg_len = static_cast<U32>(size);
      LinkInfo link;
      if (!detail::parse(message, link, unused) || size < octets.size()) continue;
      seen += link.kind + " " + link.portKind + " " + std::to_string(link.vlanId) + " " +
              std::to_string(link.vlanProtocol) + " " + std::to_string(link.vrfTable) + "\n";
    }
  }
  EXPECT_EQ(seen, "dummy  0 0 0\nvlan  100 34984 0\nvrf  0 0 1001\ndummy vrf 0 0 1002\n");
}

// WIRL_KERNEL_STORM: how many routes come and go while the views' sockets hold next to nothing.
TEST_F(KernelViewsTest, AreInSyncAgainAfterAStormAndSayWhenNot) {
  const char* const wanted = std::getenv("WIRL_KERNEL_STORM");
  const U32 storm = wanted ? static_cast<U32>(std::atoi(wanted)) : 3000;
  const NetNs ns("storm");
  ns.ip(
      "link add name v0 type veth peer name v1\nlink set v0 up\nlink set v1 up\naddr add 192.0.2.1/24 dev "
      "v0");
  const Views views(ns, 2048);
  views.open();
  ASSERT_TRUE(views.awaitSync());
  int lost = 0, told = 0;
  const Kiv::Reactor onSync(views.routes->inSync, [&] { lost += !views.routes->inSync(); });
  const Kiv::Reactor onChange(views.routes->changeCount, [&] { ++told; });
  const RouteKey watchedKey{254, IpGenPrefix("198.51.100.0/32"), 0};
  const auto watched = views.routes->watch(watchedKey);
  KernelChanger changer{NamespaceName(ns.name())};
  RouteAttrs attrs;
  attrs.nextHops.resize(1);
  attrs.nextHops[0].gateway = IpGenAddr("192.0.2.9");
  for (U32 made = 0; made < storm;) {
    KernelChanges changes;
    for (U32 i = 0; i < 1000 && made < storm; ++i, ++made) {
      const U32 n = made % 4096;
      const RouteKey key{254 + made / 4096 % 2, IpGenPrefix(IpAddr::fromHostOrder(0xc6336400u + n), 32),
                         made / 8192};
      changes.routeAdd(key, attrs);
      if (made % 5 == 1) changes.routeDel(key);
    }
    changer.apply(changes);
    Kiv::activityLoop().poll();
  }
  EXPECT_TRUE(await([&] { return views.inSync() && views.routes->size() > storm - storm / 5 - 2; }));
  EXPECT_GT(lost, 0);
  EXPECT_GT(views.routes->rxOverruns(), 0u);
  EXPECT_TRUE(watched->present());
  EXPECT_LT(told, static_cast<int>(storm));
  if (!wanted) expectSameAsIp(views, ns);
}

TEST_F(KernelViewsTest, FollowTheNameOfTheirNamespace) {
  const std::string vrf = std::to_string(getpid()) + "-late";
  const NamespaceName name("ns-t" + vrf);
  const auto namespaces = NamespaceView::ofLoop();
  const auto links = linkViewFactory("links", name);
  links->enabledIs(true);
  EXPECT_FALSE(links->present() || links->inSync());
  for (int i = 0; i < 2; ++i) {
    NetNs ns("late");
    EXPECT_TRUE(await([&] { return links->inSync(); }));
    ASSERT_TRUE(namespaces->find(ns.name()));
    EXPECT_EQ(namespaces->find(ns.name())->vrfName(), L3::VrfName("t" + vrf));
    const auto loopback = links->findByName("lo");
    ASSERT_TRUE(loopback);
    EXPECT_TRUE(loopback->up());
    ns.del();
    EXPECT_TRUE(await([&] { return !links->present(); }));
    EXPECT_FALSE(links->inSync() || loopback->present());
    EXPECT_TRUE(links->all().empty());
    EXPECT_FALSE(namespaces->find(ns.name()));
  }
}

TEST_F(KernelViewsTest, ChangesThatFailNameTheObjectInTheKernelsWords) {
  const NetNs ns("fail");
  KernelChanger changer{NamespaceName(ns.name())};
  const auto failureOf = [&](const KernelChanges& changes) -> std::string {
    try {
      changer.apply(changes);
    } catch (const Kiv::ErrnoException& failure) {
      return failure.what();
    }
    return "";
  };
  const std::string in = "in " + ns.name() + ")";
  RouteAttrs attrs;
  attrs.nextHops.resize(1);
  attrs.nextHops[0].gateway = IpGenAddr("192.0.2.9");
  KernelChanges changes;
  changes.vethAdd("a", "b").routeAdd({254, IpGenPrefix("198.51.100.0/24"), 5}, attrs).linkDel("none");
  EXPECT_EQ(failureOf(changes),
            "add route 198.51.100.0/24 table 254 metric 5: Network is unreachable (Nexthop has "
            "invalid gateway, " +
                in);
  const U32 index = changer.ifIndexOf("a");  // the others were made
  KernelChanges names;
  names.linkChange("a", {.name = "c", .mtu = 1400}).linkChange("c", {.name = "d"});
  names.linkChange("b", {.name = "d"}).linkChange("none", {.name = "e"});
  EXPECT_EQ(failureOf(names), "change link b: File exists (" + in);
  EXPECT_EQ(changer.ifIndexOf("d"), index);
  EXPECT_EQ(changer.tryApply(names).back().error, ENODEV);
  KernelChanges again;
  again.vethAdd("d", "b");
  EXPECT_EQ(failureOf(again), "add link d: File exists (" + in);
  EXPECT_THROW(changer.ifIndexOf("none"), Kiv::ErrnoException);
  EXPECT_THROW(KernelChanges().linkChange("a", {.netNs = NamespaceName("ns-none")}), Kiv::ErrnoException);
}

// Next hops in another namespace, whose kernel answers; the kernel here resolves them, or this library does.
TEST_F(KernelViewsTest, ResolversKnowNextHopsAndTellOfLoss) {
  const NetNs ns("near"), far("far");
  const Veth veth(ns, far);
  for (const char* const family : {"ipv4", "ipv6"}) {  // the kernel's patience, 1 s
    outputOf("ip netns exec " + ns.name() + " sysctl -qw net." + family + ".neigh." + veth.intf +
             ".retrans_time_ms=50");
  }
  KernelChanger changer{NamespaceName(ns.name())};
  const U32 ifIndex = changer.ifIndexOf(veth.intf);
  const auto run = [&](NeighborResolver& resolver) {
    resolver.refreshTimeIs(std::chrono::milliseconds(400));
    resolver.longestBackOffIs(std::chrono::milliseconds(300));
    const auto v4 = resolver.nextHop({ifIndex, IpGenAddr(veth.ipB)});
    const auto v6 = resolver.nextHop({ifIndex, IpGenAddr(veth.ip6B)});
    const auto none = resolver.nextHop({ifIndex, IpGenAddr("10.77.1.99")});
    EXPECT_TRUE(await([&] { return v4->resolved() && v6->resolved(); }));
    const std::string mac = ipJson(far, "link show " + veth.intf)[0]["address"];
    EXPECT_EQ(v4->ethAddr().stringValue(), mac);
    EXPECT_EQ(v6->ethAddr(), v4->ethAddr());
    const U64 asked = resolver.askedCount();
    EXPECT_TRUE(await([&] { return resolver.askedCount() > asked + 4; }));  // refreshed
    EXPECT_FALSE(none->resolved());
    // Another station takes the address.
    far.ip("link set " + veth.intf + " address 02:00:00:00:00:55");
    EXPECT_TRUE(await([&] { return v4->ethAddr() == EthAddr("02:00:00:00:00:55"); }));
    far.ip("addr del " + veth.ipB + "/24 dev " + veth.intf);
    EXPECT_TRUE(await([&] { return !v4->resolved(); }));
    EXPECT_GE(v4->lostCount(), 1u);
    EXPECT_TRUE(await([&] { return v6->resolved(); }));
    far.ip("addr add " + veth.ipB + "/24 dev " + veth.intf);
    EXPECT_TRUE(await([&] { return v4->resolved(); }));
    EXPECT_TRUE(await([&] { return resolver.resolvedCount() == 2; }));
    EXPECT_EQ(resolver.nextHops(), 3u);
  };
  {
    const auto kernel = Kiv::makePtr<KernelNeighborResolver>("kernel", NamespaceName(ns.name()));
    kernel->answerTimeIs(std::chrono::milliseconds(400));
    run(*kernel);
  }
  ns.ip("link set " + veth.intf + " arp off");
  const auto device = Kiv::makePtr<DeviceNeighborResolver>("device", veth.intf, NamespaceName(ns.name()),
                                                           IpAddr(veth.ipA), Ip6Addr(veth.ip6A));
  device->answerTimeIs(std::chrono::milliseconds(100));
  run(*device);
  // It defends its addresses against who would take them: that of IPv4 once in a while.
  const auto rival = ethDevPamFactory("rival", veth.intf, NamespaceName(far.name()));
  rival->ethTypeIs(ethTypeArpIp);
  rival->enabledIs(true);
  EthArpHdr claim;
  claim.hardwareTypeIs(ArpHdr::ethernet);
  claim.protocolTypeIs(0x0800);
  claim.hardwareBytesIs(6);
  claim.protocolBytesIs(4);
  claim.operationIs(ArpHdr::reply);
  claim.senderMacIs(rival->ethAddr());
  claim.senderIpIs(IpAddr(veth.ipA));
  for (int i = 0; i < 3; ++i) {
    const auto pkt = globalPktManager()->newPkt();
    PktBuilder(pkt).push(claim).eth(device->ownEthAddr(), rival->ethAddr()).pad().finish();
    rival->txPktIs(pkt);
  }
  EXPECT_TRUE(await([&] { return device->conflicts() == 3; }));
  Kiv::activityLoop().runFor(0.01);
  int defences = 0;
  while (const auto pkt = rival->rxPkt()) {
    const auto arp = viewAt<EthArpHdr>(pkt, sizeof(EthHdr));
    defences += arp && arp->senderIp() == claim.senderIp() && arp->targetIp() == claim.senderIp();
  }
  EXPECT_EQ(defences, 1);
  outputOf("ip netns exec " + far.name() + " sysctl -qw net.ipv6.conf." + veth.intf + ".accept_dad=1");
  ns.ip("addr del " + veth.ip6A + "/64 dev " + veth.intf);
  far.ip("addr add " + veth.ip6A + "/64 dev " + veth.intf);
  const auto isRefused = [&] {
    return outputOf("ip -n " + far.name() + " -o addr show dadfailed").find(veth.ip6A) != std::string::npos;
  };
  EXPECT_TRUE(await(isRefused));
}

// WIRL_KERNEL_HOPS: how many next hops are kept resolved, more than the kernel's table takes of others.
TEST_F(KernelViewsTest, AResolverKeepsManyNextHops) {
  const char* const wanted = std::getenv("WIRL_KERNEL_HOPS");
  const U32 count = wanted ? static_cast<U32>(std::atoi(wanted)) : 1500;
  const NetNs ns("near"), far("far");
  const Veth veth(ns, far);
  ns.ip("addr add 10.78.0.1/16 dev " + veth.intf);
  far.ip("route add local 10.78.128.0/17 dev lo");  // answers for all of them
  const U32 ifIndex = KernelChanger(NamespaceName(ns.name())).ifIndexOf(veth.intf);
  const auto resolver = Kiv::makePtr<KernelNeighborResolver>("many", NamespaceName(ns.name()));
  std::vector<Kiv::Ptr<NextHop>> hops;
  for (U32 i = 0; i < count; ++i) {
    hops.push_back(resolver->nextHop({ifIndex, IpAddr::fromHostOrder(0x0a4e8001u + i)}));
  }
  EXPECT_TRUE(await([&] { return resolver->resolvedCount() == count; })) << resolver->resolvedCount();
  hops.clear();
  EXPECT_EQ(resolver->resolvedCount(), 0u);
  EXPECT_EQ(ipJson(ns, "neigh show nud all to 10.78.128.0/17").size(), 0u);
}

}  // namespace
}  // namespace Wirl
