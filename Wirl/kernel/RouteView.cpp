// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/RouteView.h"

#include <linux/if_addr.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <unordered_map>

#include "Wirl/kernel/detail/Attrs.h"
#include "Wirl/kernel/detail/LinkStates.h"
#include "Wirl/kernel/detail/Messages.h"
#include "Wirl/kernel/detail/RouteRules.h"
#include "Wirl/value/PrefixMap.h"

namespace Wirl {

namespace {

/// What the kernel changes by itself, and says or does not say.
constexpr U32 kVolatileFlags = RTNH_F_DEAD | RTNH_F_LINKDOWN | RTNH_F_OFFLOAD | RTNH_F_TRAP |
                               RTNH_F_UNRESOLVED | RTM_F_OFFLOAD | RTM_F_TRAP | RTM_F_OFFLOAD_FAILED;

RouteAttrs steady(RouteAttrs attrs) {
  attrs.flags &= ~kVolatileFlags;
  for (RouteNextHop& hop : attrs.nextHops) hop.flags &= static_cast<U8>(~kVolatileFlags);
  return attrs;
}

bool isSameHop(const RouteNextHop& a, const RouteNextHop& b) {
  return a.ifIndex == b.ifIndex && a.gateway == b.gateway && a.encapAttrs == b.encapAttrs;
}

bool hasSameHops(const RouteAttrs& a, const RouteAttrs& b) {
  return a.source == b.source &&
         std::equal(a.nextHops.begin(), a.nextHops.end(), b.nextHops.begin(), b.nextHops.end(), isSameHop);
}

/// Whether IPv6 makes one route of several with one key.
bool isMergeable(const RouteAttrs& attrs) {
  return attrs.type == RTN_UNICAST && attrs.protocol != RTPROT_RA && attrs.nextHopId == 0 &&
         !attrs.nextHops.empty() &&
         std::all_of(attrs.nextHops.begin(), attrs.nextHops.end(),
                     [](const RouteNextHop& hop) { return hop.gateway.af() != AddressFamily::ipunknown; });
}

bool isReject(const RouteAttrs& attrs) {
  return attrs.type >= RTN_BLACKHOLE && attrs.type <= RTN_THROW;
}

/// Whether every look-up may use it that does not ask for an interface.
bool isUsable(const RouteAttrs& attrs) {
  if (attrs.tos != 0 || attrs.source.af() != AddressFamily::ipunknown) return false;
  return attrs.nextHops.empty() ||
         std::any_of(attrs.nextHops.begin(), attrs.nextHops.end(),
                     [](const RouteNextHop& hop) { return (hop.flags & RTNH_F_DEAD) == 0; });
}

/// How well a look-up may use it, not at all being 0. Of several with one metric the kernel takes the best.
unsigned usability(const RouteAttrs& attrs, const RouteQuery& query) {
  const bool v4 = query.destination.af() == AddressFamily::ipv4;
  // The bits that are compared are those of the type of service before there were code points.
  if (v4 && attrs.tos != 0 && attrs.tos != (query.tos & 0x1c)) return 0;
  if (attrs.source.af() != AddressFamily::ipunknown && !attrs.source.contains(query.source)) return 0;
  // High, medium, low: 3, 2, 1.
  const unsigned preference = attrs.preference < 0 ? 2 : (static_cast<unsigned>(attrs.preference) & 3) ^ 2;
  const unsigned good = preference * 4 + 2;
  if (v4 && (isReject(attrs) || attrs.nextHops.empty())) return good;
  // A packet of IPv6 that has a source only prefers the interface, unless addresses mean something there
  // only.
  const bool strict = v4 || query.source.af() == AddressFamily::ipunknown ||
                      query.destination.isLinkLocal() || query.destination.isMulticast();
  const auto isLive = [](const RouteNextHop& hop) { return (hop.flags & RTNH_F_DEAD) == 0; };
  const auto fits = [&](const RouteNextHop& hop) {
    return isLive(hop) && (query.outIfIndex == 0 || hop.ifIndex == query.outIfIndex);
  };
  const auto& hops = attrs.nextHops;
  if (std::any_of(hops.begin(), hops.end(), fits)) return good;
  if (strict && query.outIfIndex != 0) return 0;
  return hops.empty() || std::any_of(hops.begin(), hops.end(), isLive) ? good - 2 : 0;
}

std::size_t hashOf(const RouteAttrs& attrs) {
  std::size_t hash = attrs.protocol + (std::size_t{attrs.type} << 8) + attrs.nextHopId * 31u;
  for (const RouteNextHop& hop : attrs.nextHops) hash = hash * 31 + hop.gateway.hash() + hop.ifIndex;
  return hash;
}

}  // namespace

/// Where the routes are: by table, by prefix, and then in the order in which the kernel tries them. The first
/// of a prefix lies in the map itself, others are chained behind it.
struct RouteView::Tables {
  struct Record {
    U32 attrs : 31 = 0;
    U32 usable : 1 = 0;  // as of its attributes, for look-ups
    U32 metric = 0;
    U32 next = 0;  // in `chained`; 0: none
    U32 seen = 0;  // the dump that showed it last, or during which it was told
  };
  static_assert(sizeof(Record) == 16);
  using Map = PrefixMap<Record>;

  // Attributes, each once.

  struct Slot {
    RouteAttrs attrs;
    U32 refs = 0;
    bool usable = false;
  };

  /// Of the message whose octets, less the key, stand in `octets`.
  U32 attrsOf(const nlmsghdr& message, U64& unused) {
    const auto found = byOctets.find(octets);
    if (found != byOctets.end()) return found->second;
    detail::RouteMessage route;
    detail::parse(message, route, unused);
    const U32 id = attrsOf(std::move(route.attrs));
    // Details that are not kept, of encapsulations for example, may make many messages of the same
    // attributes.
    if (byOctets.size() >= 1024 + 4 * slots.size()) byOctets.clear();
    byOctets.emplace(octets, id);
    return id;
  }
  U32 attrsOf(RouteAttrs attrs) {
    const std::size_t hash = hashOf(attrs);
    for (auto [each, end] = byContent.equal_range(hash); each != end; ++each) {
      if (slots[each->second]->attrs == attrs) return each->second;
    }
    U32 id;
    if (freeSlots.empty()) {
      id = static_cast<U32>(slots.size());
      slots.push_back(std::make_unique<Slot>());
    } else {
      id = freeSlots.back();
      freeSlots.pop_back();
    }
    slots[id]->usable = isUsable(attrs);
    slots[id]->attrs = std::move(attrs);
    byContent.emplace(hash, id);
    ++unreferenced;
    return id;
  }
  const RouteAttrs& attrs(U32 id) const { return slots[id]->attrs; }
  /// Forgets attributes that no route has, once they are many. No id without a route may be kept then.
  void tidy() {
    if (unreferenced < 1024 || unreferenced < (slots.size() - freeSlots.size()) / 2) return;
    std::erase_if(byOctets, [&](const auto& each) { return slots[each.second]->refs == 0; });
    std::erase_if(byContent, [&](const auto& each) {
      if (slots[each.second]->refs != 0) return false;
      slots[each.second]->attrs = RouteAttrs();
      freeSlots.push_back(each.second);
      return true;
    });
    unreferenced = 0;
  }
  void refer(U32 id, int by) {
    U32& refs = slots[id]->refs;
    if (refs == 0) --unreferenced;
    refs += static_cast<U32>(by);
    if (refs == 0) ++unreferenced;
  }
  template <typename Is>
  bool any(Is is) const {
    return std::any_of(slots.begin(), slots.end(),
                       [&](const auto& slot) { return slot->refs != 0 && is(slot->attrs); });
  }

  // The routes of one prefix.

  Map* mapOf(U32 table) const {
    if (table == RT_TABLE_MAIN) return main;
    const auto found = tables.find(table);
    return found == tables.end() ? nullptr : found->second.get();
  }

  /// Copies the routes of the prefix into `group`.
  void load(const RouteKey& key) {
    map = mapOf(key.table);
    head = map ? map->find(key.prefix) : nullptr;
    group.clear();
    if (!head) return;
    group.push_back(*head);
    for (U32 at = head->next; at != 0; at = chained[at].next) group.push_back(chained[at]);
  }
  /// Puts `group` in the place of what `load` found.
  void store(const RouteKey& key) {
    for (U32 at = head ? head->next : 0; at != 0;) {
      const U32 next = chained[at].next;
      chained[at].next = freeChained;
      freeChained = at;
      --chainedCount;
      at = next;
    }
    if (group.empty()) {
      if (head) map->erase(key.prefix);
      return;
    }
    U32 next = 0;
    for (std::size_t i = group.size() - 1; i > 0; --i) {
      U32 at = freeChained;
      if (at == 0) {
        at = static_cast<U32>(chained.size());
        chained.emplace_back();
      } else {
        freeChained = chained[at].next;
      }
      chained[at] = group[i];
      chained[at].next = next;
      next = at;
      ++chainedCount;
    }
    group[0].next = next;
    if (head) {
      *head = group[0];
      return;
    }
    if (!map) {
      auto& made = tables[key.table];
      made = std::make_unique<Map>();
      map = made.get();
      if (key.table == RT_TABLE_MAIN) main = map;
    }
    map->insert(key.prefix, group[0]);
  }
  /// The part of `group` that has the key's metric and the type of service: the kernel's "same route".
  std::pair<std::size_t, std::size_t> sameKey(U32 metric, U8 tos) const {
    std::size_t begin = 0;
    while (begin < group.size() && isBefore(group[begin], metric, tos)) ++begin;
    std::size_t end = begin;
    while (end < group.size() && group[end].metric == metric && attrs(group[end].attrs).tos == tos) ++end;
    return {begin, end};
  }
  bool isBefore(const Record& record, U32 metric, U8 tos) const {
    const U8 own = attrs(record.attrs).tos;
    return own != tos ? own > tos : record.metric < metric;
  }
  bool isThere(U32 metric) const {
    return std::any_of(group.begin(), group.end(), [&](const Record& each) { return each.metric == metric; });
  }
  void insert(std::size_t at, U32 id, U32 metric) {
    group.insert(group.begin() + static_cast<std::ptrdiff_t>(at),
                 Record{id & 0x7fffffff, slots[id]->usable, metric, 0, dump});
    refer(id, 1);
    ++routes;
  }
  void erase(const RouteKey& key, std::size_t at) {
    if (dumping) buried.emplace(key, U32{group[at].attrs});
    refer(group[at].attrs, -1);
    group.erase(group.begin() + static_cast<std::ptrdiff_t>(at));
    --routes;
  }
  void replace(const RouteKey& key, std::size_t at, U32 id) {
    if (dumping && group[at].attrs != id) buried.emplace(key, U32{group[at].attrs});
    refer(id, 1);
    refer(group[at].attrs, -1);
    group[at].attrs = id & 0x7fffffff;
    group[at].usable = slots[id]->usable;
    group[at].seen = dump;
  }

  Route routeOf(const RouteKey& key, U32 id) const {
    Route route{key, &attrs(id), 0};
    if (!expiring.empty()) [[unlikely]] {
      const auto found = expiring.find(key);
      if (found != expiring.end()) route.expires = found->second;
    }
    return route;
  }

  std::map<U32, std::unique_ptr<Map>> tables;
  Map* main = nullptr;  // one of them
  std::vector<Record> chained = std::vector<Record>(1);
  U32 freeChained = 0;
  std::size_t chainedCount = 0;
  std::vector<std::unique_ptr<Slot>> slots;
  std::vector<U32> freeSlots;
  std::unordered_map<std::string, U32> byOctets;
  std::unordered_multimap<std::size_t, U32> byContent;
  std::size_t unreferenced = 0;
  std::map<RouteKey, S32> expiring;
  std::size_t routes = 0;
  // An IPv6 route got a next hop whose other attributes differ, which only the kernel knows.
  bool mixed = false;
  detail::LinkStates links;
  detail::RouteRules rules;

  U32 dump = 0;
  bool dumping = false;
  std::set<std::pair<RouteKey, U32>> buried;  // what was told to be gone while a dump goes on

  // Of the prefix at work.
  Map* map = nullptr;
  Record* head = nullptr;
  std::vector<Record> group;
  std::string octets;
};

RouteView::Watched::Watched(const RouteKey& key)
    : Entity("route " + std::string(key.prefix.stringValue())), key_(key) {}

RouteView::Watched::~Watched() {
  if (view_) view_->watched_.erase(key_);
}

RouteView::RouteView(Kiv::String name, const NamespaceName& ns)
    : KernelView(std::move(name), ns,
                 1u << (RTNLGRP_IPV4_ROUTE - 1) | 1u << (RTNLGRP_IPV6_ROUTE - 1) | 1u << (RTNLGRP_LINK - 1) |
                     1u << (RTNLGRP_IPV4_IFADDR - 1) | 1u << (RTNLGRP_NEXTHOP - 1) |
                     1u << (RTNLGRP_IPV4_RULE - 1) | 1u << (RTNLGRP_IPV6_RULE - 1)),
      tables_(std::make_unique<Tables>()) {}

RouteView::~RouteView() {
  for (const auto& [key, watched] : watched_) watched->view_ = nullptr;
}

std::size_t RouteView::size() const noexcept {
  return tables_->routes;
}

std::size_t RouteView::memory() const noexcept {
  const Tables& t = *tables_;
  std::size_t octets = t.chained.capacity() * sizeof(Tables::Record);
  for (const auto& [table, map] : t.tables) octets += map->memory();
  // By and large, for what is there once.
  octets += t.slots.size() * (sizeof(Tables::Slot) + sizeof(RouteNextHop) + 64);
  for (const auto& [text, id] : t.byOctets) octets += text.capacity() + 64;
  return octets + t.expiring.size() * (sizeof(RouteKey) + 48);
}

// Following
// ---------------------------------------------------------------------------------------------------

std::vector<std::string> RouteView::dumpRequests() const {
  std::vector<std::string> requests = detail::RouteRules::dumpRequests();
  requests.push_back(detail::LinkStates::dumpRequest());
  for (const int family : {AF_INET, AF_INET6}) {
    rtmsg which{};
    which.rtm_family = static_cast<U8>(family);
    requests.push_back(detail::Request(RTM_GETROUTE, NLM_F_DUMP, which).text());
  }
  return requests;
}

void RouteView::dumpBegins() {
  Tables& t = *tables_;
  t.dumping = true;
  t.buried.clear();
  t.tidy();
  t.links.dumpBegins();
  t.rules.dumpBegins();
  ++t.dump;
}

void RouteView::dumpLacks(std::size_t part) {
  if (part < 2) tables_->rules.keep(part);
}

void RouteView::take(const nlmsghdr& message, bool inDump) {
  switch (message.nlmsg_type) {
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      return takeRoute(message, inDump);
    case RTM_NEWRULE:
    case RTM_DELRULE: {
      RouteRule rule;
      // Rules of multicast routing are of other families.
      if (!detail::parse(message, rule, unused_)) return;
      return tables_->rules.take(message.nlmsg_type == RTM_NEWRULE, std::move(rule), inDump);
    }
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return tables_->links.take(message, inDump);
    case RTM_NEWADDR:
    case RTM_DELADDR:
      if (const auto* const fixed = detail::fixedOf<ifaddrmsg>(message)) {
        tables_->links.suspects.insert(fixed->ifa_index);
      }
      return;
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP:
      nextHopsChanged_ = true;
      return;
    default:
      return;
  }
}

void RouteView::takeRoute(const nlmsghdr& message, bool inDump) {
  Tables& t = *tables_;
  RouteKey key;
  S32 expires = 0;
  t.octets.clear();
  if (!detail::parseKey(message, key, expires, t.octets)) {
    ++bad_;
    return;
  }
  // What the kernel only remembers of its own look-ups is no route.
  if ((detail::fixedOf<rtmsg>(message)->rtm_flags & RTM_F_CLONED) != 0) return;
  const U32 attrs = t.attrsOf(message, unused_);
  t.load(key);
  const bool wasThere = t.isThere(key.metric);
  const std::size_t routes = t.routes;
  const U32 first = t.group.empty() ? ~0u : t.group[0].attrs;
  const std::size_t size = t.group.size();
  if (message.nlmsg_type == RTM_NEWROUTE) {
    added(key, attrs, message.nlmsg_flags, inDump);
  } else {
    removed(key, attrs);
  }
  if (expires != 0 || !t.expiring.empty()) {
    if (expires != 0 && message.nlmsg_type == RTM_NEWROUTE) {
      t.expiring[key] = expires;
    } else {
      t.expiring.erase(key);
    }
  }
  const bool same = routes == t.routes && size == t.group.size() && !t.group.empty() && size == 1 &&
                    t.group[0].attrs == first;
  t.store(key);
  if (!same) touched(key, wasThere);
}

void RouteView::added(const RouteKey& key, U32 attrs, unsigned flags, bool inDump) {
  Tables& t = *tables_;
  const RouteAttrs& news = t.attrs(attrs);
  const auto [begin, end] = t.sameKey(key.metric, news.tos);
  for (std::size_t i = begin; i < end; ++i) {
    if (t.group[i].attrs != attrs) continue;
    t.group[i].seen = t.dump;
    // The dump shows the order.
    if (inDump)
      std::rotate(t.group.begin() + static_cast<std::ptrdiff_t>(i),
                  t.group.begin() + static_cast<std::ptrdiff_t>(i + 1),
                  t.group.begin() + static_cast<std::ptrdiff_t>(end));
    return;
  }
  if (inDump) {
    if (t.buried.empty() || t.buried.count({key, attrs}) == 0) t.insert(end, attrs, key.metric);
    return;
  }
  if (key.prefix.af() == AddressFamily::ipv6) return addedV6(key, attrs, flags);
  const RouteAttrs core = begin == end ? RouteAttrs() : steady(news);
  for (std::size_t i = begin; i < end; ++i) {
    if (steady(t.attrs(t.group[i].attrs)) == core) return t.replace(key, i, attrs);
  }
  if ((flags & NLM_F_REPLACE) != 0 && begin < end) return t.replace(key, begin, attrs);
  t.insert((flags & NLM_F_APPEND) != 0 ? end : begin, attrs, key.metric);
}

/// IPv6 tells of a route with all the next hops that it has by now.
void RouteView::addedV6(const RouteKey& key, U32 attrs, unsigned flags) {
  Tables& t = *tables_;
  const RouteAttrs& news = t.attrs(attrs);
  const auto [begin, end] = t.sameKey(key.metric, news.tos);
  const bool merges = isMergeable(news);
  std::size_t merged = end;
  for (std::size_t i = begin; i < end; ++i) {
    const RouteAttrs& each = t.attrs(t.group[i].attrs);
    if (hasSameHops(each, news)) return t.replace(key, i, attrs);
    if (merges && isMergeable(each) && each.source == news.source) merged = i;
  }
  if (merged != end) {
    const RouteAttrs& before = t.attrs(t.group[merged].attrs);
    const auto& hops = news.nextHops;
    if (hops.size() != before.nextHops.size() + 1 ||
        !std::equal(before.nextHops.begin(), before.nextHops.end(), hops.begin() + 1, isSameHop)) {
      return t.replace(key, merged, attrs);
    }
    // The message shows the route from the new next hop on. It is the last one, and what next hops have in
    // common is that of the first.
    RouteAttrs grown = before;
    grown.multipath = true;
    grown.flags = news.flags;
    grown.nextHops.assign(hops.begin() + 1, hops.end());
    grown.nextHops.push_back(hops[0]);
    RouteAttrs others = news;
    others.nextHops = grown.nextHops;
    t.mixed = t.mixed || others != grown;
    return t.replace(key, merged, t.attrsOf(std::move(grown)));
  }
  if ((flags & NLM_F_REPLACE) == 0 || begin == end) return t.insert(end, attrs, key.metric);
  t.replace(key, begin, attrs);
  if (end - begin > 1) outOfSync();
}

void RouteView::removed(const RouteKey& key, U32 attrs) {
  Tables& t = *tables_;
  const RouteAttrs& gone = t.attrs(attrs);
  const auto [begin, end] = t.sameKey(key.metric, gone.tos);
  if (begin == end) {
    if (t.dumping) t.buried.insert({key, attrs});
    return;
  }
  for (std::size_t i = begin; i < end; ++i) {
    if (t.group[i].attrs == attrs) return t.erase(key, i);
  }
  const bool v6 = key.prefix.af() == AddressFamily::ipv6;
  const RouteAttrs core = steady(gone);
  for (std::size_t i = begin; i < end; ++i) {
    const RouteAttrs& each = t.attrs(t.group[i].attrs);
    if (v6 ? hasSameHops(each, gone) : steady(each) == core) return t.erase(key, i);
  }
  for (std::size_t i = begin; v6 && i < end; ++i) {
    RouteAttrs rest = t.attrs(t.group[i].attrs);
    if (!isMergeable(rest) || rest.source != gone.source) continue;
    const std::size_t before = rest.nextHops.size();
    const RouteNextHop first = rest.nextHops[0];
    std::erase_if(rest.nextHops, [&](const RouteNextHop& hop) {
      return std::any_of(gone.nextHops.begin(), gone.nextHops.end(),
                         [&](const RouteNextHop& each) { return isSameHop(hop, each); });
    });
    if (rest.nextHops.size() == before || rest.nextHops.empty()) continue;
    const bool isUnsure = t.mixed && !isSameHop(first, rest.nextHops[0]);
    if (rest.nextHops.size() == 1) {
      rest.multipath = false;
      rest.nextHops[0].weight = 1;
      rest.flags = (rest.flags & ~kVolatileFlags) | rest.nextHops[0].flags;
    }
    t.replace(key, i, t.attrsOf(std::move(rest)));
    if (isUnsure) outOfSync();
    return;
  }
  if (end - begin == 1) return t.erase(key, begin);
  outOfSync();
}

void RouteView::dumpEnds() {
  Tables& t = *tables_;
  t.dumping = false;
  t.buried.clear();
  t.links.dumpEnds();
  t.rules.dumpEnds();
  std::vector<RouteKey> unseen;
  for (const auto& [table, map] : t.tables) {
    for (const auto& entry : *map) {
      bool all = true;
      for (const Tables::Record* each = &entry.value;; each = &t.chained[each->next]) {
        all = all && each->seen == t.dump;
        if (each->next == 0) break;
      }
      if (!all) unseen.push_back({table, entry.key, 0});
    }
  }
  for (RouteKey& key : unseen) {
    t.load(key);
    const auto before = t.group;
    for (std::size_t i = t.group.size(); i-- > 0;) {
      if (t.group[i].seen == t.dump) continue;
      key.metric = t.group[i].metric;
      t.erase(key, i);
    }
    t.store(key);
    for (const auto& each : before) {
      key.metric = each.metric;
      if (each.seen == t.dump) continue;
      touched(key, true);
      t.expiring.erase(key);
    }
  }
}

void RouteView::forgetAll() {
  Tables& t = *tables_;
  if (isWatched()) {
    forEach([this](const Route& route) { touched_.emplace_back(route.key, true); });
  }
  anyChange_ = anyChange_ || t.routes != 0;
  const U32 dump = t.dump;
  const bool hadRules = t.rules.isCustom(AddressFamily::ipv4) || t.rules.isCustom(AddressFamily::ipv6);
  *tables_ = Tables();
  t.dump = dump;
  if (hadRules) t.rules.touch();
  nextHopsChanged_ = false;
}

void RouteView::touched(const RouteKey& key, bool wasThere) {
  anyChange_ = true;
  if (isWatched()) touched_.emplace_back(key, wasThere);
}

void RouteView::passEnds() {
  Tables& t = *tables_;
  const auto uses = [&t](const RouteAttrs& attrs) {
    return std::any_of(attrs.nextHops.begin(), attrs.nextHops.end(),
                       [&t](const RouteNextHop& hop) { return t.links.suspects.count(hop.ifIndex) != 0; });
  };
  const bool suspicious = (!t.links.suspects.empty() && t.any(uses)) ||
                          (nextHopsChanged_ && t.any([](const RouteAttrs& a) { return a.nextHopId != 0; }));
  t.links.suspects.clear();
  nextHopsChanged_ = false;
  if (suspicious) outOfSync();
  if (!t.dumping) t.tidy();
}

void RouteView::showChanges() {
  if (tables_->rules.changed()) ruleChanges.set(ruleChanges() + 1);
  if (!std::exchange(anyChange_, false)) return;
  auto touchedNow = std::exchange(touched_, {});
  // The first time that a key was touched tells whether it was there before.
  std::stable_sort(touchedNow.begin(), touchedNow.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<Change> changes;
  for (std::size_t i = 0; i < touchedNow.size(); ++i) {
    const auto& [key, wasThere] = touchedNow[i];
    if (i > 0 && touchedNow[i - 1].first == key) continue;
    const bool isThere = static_cast<bool>(find(key));
    if (!wasThere && !isThere) continue;
    changes.push_back({!wasThere ? ChangeKind::added
                       : isThere ? ChangeKind::changed
                                 : ChangeKind::removed,
                       key});
  }
  changes_ = std::move(changes);
  countChange();
  std::vector<Kiv::Ptr<Watched>> watched;
  for (const Change& change : changes_) {
    const auto found = watched_.find(change.key);
    if (found != watched_.end()) watched.emplace_back(found->second);
  }
  const auto alive = Kiv::keepAlive(this);
  for (const auto& each : watched) {
    const bool changed = each->storeAttr(each->present, static_cast<bool>(find(each->key())));
    each->storeAttr(each->changeCount, each->changeCount() + 1);
    if (changed) each->present.notifiees().notify();
    each->changeCount.notifiees().notify();
  }
  changeCount.notifiees().notify();
}

Kiv::Ptr<RouteView::Watched> RouteView::watch(const RouteKey& key) {
  const auto found = watched_.find(key);
  if (found != watched_.end()) return Kiv::Ptr<Watched>(found->second);
  auto made = Kiv::makePtr<Watched>(key);
  made->storeAttr(made->present, static_cast<bool>(find(key)));
  made->view_ = this;
  watched_.emplace(key, made.get());
  return made;
}

// Looking up
// --------------------------------------------------------------------------------------------------

Route RouteView::find(const RouteKey& key) const {
  const Tables& t = *tables_;
  const Tables::Map* const map = t.mapOf(key.table);
  const Tables::Record* at = map ? map->find(key.prefix) : nullptr;
  while (at && at->metric != key.metric) at = at->next == 0 ? nullptr : &t.chained[at->next];
  return at ? t.routeOf(key, at->attrs) : Route();
}

const std::vector<RouteRule>& RouteView::rules(AddressFamily af) const noexcept {
  return tables_->rules.of(af);
}

// Flat: the prefix goes from the map to the caller without a stop in memory.
[[gnu::flatten]] Route RouteView::lookUpIn(U32 table, const IpGenAddr& address) const {
  const Tables& t = *tables_;
  const Tables::Map* const map = t.mapOf(table);
  if (!map) return {};
  const auto found = map->longestMatch(address);
  if (!found) return {};
  const bool isFirst = found->next == 0 || found.key.af() == AddressFamily::ipv4;
  if (found->usable != 0 && isFirst) [[likely]] {
    if (!t.expiring.empty()) return t.routeOf({table, found.key, found->metric}, found->attrs);
    return {{table, found.key, found->metric}, &t.attrs(found->attrs), 0};
  }
  return lookUpAmong(table, RouteQuery{address});
}

Route RouteView::lookUpIn(U32 table, const RouteQuery& query) const {
  const bool isPlain =
      query.outIfIndex == 0 && query.tos == 0 && query.source.af() == AddressFamily::ipunknown;
  return isPlain ? lookUpIn(table, query.destination) : lookUpAmong(table, query);
}

/// Rare: the route of the longest match cannot be used, so one behind it may be, or a shorter one.
Route RouteView::lookUpAmong(U32 table, const RouteQuery& query) const {
  const Tables& t = *tables_;
  const Tables::Map* const map = t.mapOf(table);
  if (!map) return {};
  std::array<std::pair<U32, const Tables::Record*>, 129> heads;  // by length
  std::size_t count = 0;
  map->covering(IpGenPrefix(query.destination, query.destination.bits()),
                [&](const IpGenPrefix& prefix, const Tables::Record& head) {
                  heads[count++] = {prefix.len(), &head};
                });
  bool begun = false;
  while (count-- > 0) {
    const auto [len, head] = heads[count];
    const Tables::Record* best = nullptr;
    unsigned bestUsability = 0;
    bool hasSources = false, hasOurs = false;
    for (const Tables::Record* at = head;; at = &t.chained[at->next]) {
      const RouteAttrs& attrs = t.attrs(at->attrs);
      const bool isOfSource = attrs.source.af() != AddressFamily::ipunknown;
      hasSources = hasSources || isOfSource;
      hasOurs = hasOurs || (isOfSource && attrs.source.contains(query.source));
      const unsigned usable = usability(attrs, query);
      const auto length = [&](const Tables::Record* of) { return t.attrs(of->attrs).source.len(); };
      if (usable != 0 &&
          (!best || length(at) > length(best) ||
           (length(at) == length(best) && at->metric == best->metric && usable > bestUsability))) {
        best = at;
        bestUsability = usable;
      }
      if (at->next == 0) break;
    }
    // Where there are routes for sources, the kernel does not begin with those for all, but for the default.
    if (!begun && hasSources && !hasOurs && len != 0) continue;
    begun = true;
    if (!best) continue;
    const IpGenPrefix prefix(query.destination.maskedByLength(len), len);
    return t.routeOf({table, prefix, best->metric}, best->attrs);
  }
  return {};
}

Route RouteView::lookUp(const RouteQuery& query) const {
  const auto isAnswer = [](const Route& route) { return route && route.attrs->type != RTN_THROW; };
  const Tables& t = *tables_;
  const AddressFamily af = query.destination.af();
  if (af == AddressFamily::ipv4 && !t.rules.isCustom(af)) {
    const Route local = lookUpIn(RT_TABLE_LOCAL, query);
    const Route main = lookUpIn(RT_TABLE_MAIN, query);
    const Route& best = !local || (main && main.key.prefix.len() > local.key.prefix.len()) ? main : local;
    if (isAnswer(best)) return best;
    const Route last = lookUpIn(RT_TABLE_DEFAULT, query);
    return isAnswer(last) ? last : Route();
  }
  Route answer;
  t.rules.visit(query, t.links, [&](const RouteRule& rule) {
    if (rule.action != FR_ACT_TO_TBL) return true;
    const U32 vrfBy = query.outIfIndex != 0 ? query.outIfIndex : query.inIfIndex;
    const Route route = lookUpIn(rule.l3Master ? t.links.vrfTableOf(vrfBy) : rule.table, query);
    if (!isAnswer(route)) return false;
    if (!isReject(*route.attrs)) {
      const auto isInGroup = [&](const RouteNextHop& hop) {
        const auto* const link = t.links.find(hop.ifIndex);
        return link && link->group == static_cast<U32>(rule.suppressGroup);
      };
      const auto& hops = route.attrs->nextHops;
      if (static_cast<S32>(route.key.prefix.len()) <= rule.suppressLength) return false;
      if (rule.suppressGroup != -1 && !hops.empty() && isInGroup(hops[0])) return false;
    }
    answer = route;
    return true;
  });
  return answer;
}

Route RouteView::next(Cursor& at) const {
  const Tables& t = *tables_;
  for (auto table = t.tables.lower_bound(at.table); table != t.tables.end(); ++table) {
    Tables::Map& map = *table->second;
    if (table->first != at.table) at = Cursor{table->first, IpGenPrefix(), 0, false};
    if (at.begun && at.record != 0) {
      const Tables::Record& record = t.chained[at.record];
      at.record = record.next;
      return t.routeOf({at.table, at.prefix, record.metric}, record.attrs);
    }
    auto entry = at.begun ? map.upperBound(at.prefix) : map.begin();
    if (entry == map.end()) continue;
    at = Cursor{table->first, (*entry).key, (*entry).value.next, true};
    return t.routeOf({at.table, at.prefix, (*entry).value.metric}, (*entry).value.attrs);
  }
  return {};
}

Kiv::Ptr<RouteView> routeViewFactory(Kiv::String name, const NamespaceName& netNs) {
  return Kiv::makePtr<RouteView>(std::move(name), netNs);
}

}  // namespace Wirl
