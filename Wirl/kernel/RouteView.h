// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Wirl/kernel/KernelView.h"
#include "Wirl/kernel/RouteRule.h"
#include "Wirl/value/IpGenPrefix.h"

namespace Wirl {

/// What tells routes apart in the kernel's eyes, but for those that were appended to others.
struct RouteKey {
  U32 table = 0;       ///< Number of the table.
  IpGenPrefix prefix;  ///< What it routes.
  U32 metric = 0;      ///< Its metric: the lowest wins.

  friend auto operator<=>(const RouteKey&, const RouteKey&) = default;
};

/// A next hop of a route.
struct RouteNextHop {
  U32 ifIndex = 0;
  IpGenAddr gateway;       ///< of the unknown family: none, the destination is on the link
  U16 weight = 1;          ///< Its share of the packets, in comparison with the others.
  U8 flags = 0;            ///< RTNH_F_ONLINK, RTNH_F_LINKDOWN, ...
  U16 encap = 0;           ///< LWTUNNEL_ENCAP_MPLS and others
  U32 realms = 0;          ///< Realms; 0: none.
  std::string encapAttrs;  ///< of the encapsulation, as the kernel has them: netlink attributes

  friend bool operator==(const RouteNextHop&, const RouteNextHop&) = default;
};

/// What many routes have in common: everything but their key. A view stores it once.
struct RouteAttrs {
  U8 type = 0;      ///< RTN_UNICAST, RTN_BLACKHOLE, ...
  U8 scope = 0;     ///< RT_SCOPE_UNIVERSE, ...
  U8 protocol = 0;  ///< who added it, RTPROT_BGP and others
  U8 tos = 0;
  U32 flags = 0;           ///< RTNH_F_... of a single next hop and RTM_F_...
  bool hasMetric = false;  ///< Whether `metric` was given.
  bool multipath = false;  ///< whether the kernel shows the next hops as a list
  S16 preference = -1;     ///< of a router, ICMPV6_ROUTER_PREF_MEDIUM and others; -1: none
  U32 nextHopId = 0;       ///< of a next-hop object or group; 0: none
  S32 error = 0;           ///< The errno that senders get, of an unreachable route.
  /// What the packet's mark and arriving interface must be, in the answer to a look-up.
  U32 mark = 0, inIfIndex = 0;
  std::optional<U8> ttlPropagate;  ///< Whether the TTL goes into the label stack, and back.
  IpGenAddr prefSource;            ///< of the unknown family: none
  IpGenPrefix source;              ///< of a route for sources in this prefix; of the unknown family: for all
  std::vector<RouteNextHop> nextHops;        ///< The next hops; more than one share the packets.
  std::vector<std::pair<U16, U32>> metrics;  ///< RTAX_MTU and others with their values
  std::string congestionControl;             ///< The congestion control of TCP; empty: the system's.

  friend bool operator==(const RouteAttrs&, const RouteAttrs&) = default;
};

/// One route as a look-up gives it. `attrs` is valid until the view changes.
struct Route {
  RouteKey key;
  const RouteAttrs* attrs = nullptr;  ///< What the route says. Lives as long as nothing changes.
  S32 expires = 0;                    ///< in seconds from when the kernel last told of the route; 0: never

  explicit operator bool() const noexcept { return attrs != nullptr; }
};

/// The routes of all tables of a network namespace; see `KernelView`.
///
/// There may be half a million of them, so a route is no entity: it is a record of a few octets in a
/// `PrefixMap` of its table, and what routes have in common is stored once. `changes()` gives keys; the state
/// is asked for with `find`. `watch` makes an entity of a route for who wants to watch it alone.
///
/// What the kernel does without telling is found by a new dump: routes that go, or whose next hops change
/// their flags, with a link, an address or a next-hop object.
///
/// The rules of policy routing belong to it, as look-ups go by them; `ruleChanges` counts the passes in which
/// they changed.
class KIV_API RouteView final : public KernelView {
 public:
  KIV_ENTITY(RouteView, KernelView)
  KIV_ATTR_DERIVED(std::size_t, size)
  KIV_ATTR_DERIVED(std::size_t, memory)
  KIV_ATTR_READ(U64, ruleChanges, 0)

  /// A change of one route.
  struct Change {
    ChangeKind kind;
    RouteKey key;
  };
  /// A route, or what stands in its place: `present`, and `changeCount` for each pass in which it changed.
  class KIV_API Watched final : public Kiv::Entity {
   public:
    KIV_ENTITY(Watched, Kiv::Entity)
    KIV_ATTR_READ(bool, present, false)
    KIV_ATTR_READ(U64, changeCount, 0)
    explicit Watched(const RouteKey& key);  ///< One of the key.
    ~Watched() override;
    const RouteKey& key() const noexcept { return key_; }

   private:
    friend class RouteView;
    const RouteKey key_;
    RouteView* view_ = nullptr;
  };

  RouteView(Kiv::String name, const NamespaceName& ns);
  ~RouteView() override;

  std::size_t size() const noexcept;
  /// Octets in use, without what the allocator adds.
  std::size_t memory() const noexcept;
  /// What the latest count of `changeCount` stands for; one change a key. Collected only while a reactor
  /// watches `changeCount` or a route is watched.
  const std::vector<Change>& changes() const noexcept { return changes_; }

  /// The first route of the key; nothing if there is none.
  Route find(const RouteKey& key) const;
  /// The rules of a family, in the order in which they are tried.
  const std::vector<RouteRule>& rules(AddressFamily af) const noexcept;
  /// The route by which the kernel would send a packet, as `ip route get` tells: through the tables that the
  /// rules name, by the longest match, then for the type of service or the source, then the lowest metric;
  /// past routes without a live next hop, and past a table that says "throw". A blackhole, or the like, is an
  /// answer; a rule that says so is none, as if there were no route. As long as nobody changed the rules of
  /// IPv4, the tables local and main are as one; so they are here as long as no such change was seen. Of
  /// equally good routes the kernel may take another one. What it does without a route (what leaves by a
  /// given interface is on its link) and by sysctl (`ignore_routes_with_linkdown`) does not count.
  Route lookUp(const RouteQuery& query) const;
  Route lookUp(const IpGenAddr& address, U32 ifIndex = 0) const { return lookUp({address, {}, ifIndex}); }
  /// The same in one table.
  Route lookUpIn(U32 table, const RouteQuery& query) const;
  Route lookUpIn(U32 table, const IpGenAddr& address) const;
  /// Calls `visit(route)` for each route, in the order of tables and prefixes.
  template <typename Visit>
  void forEach(Visit visit) const {
    Cursor at;
    while (const Route route = next(at)) visit(route);
  }
  /// An entity for one route, whether it is there or not. The caller keeps it.
  Kiv::Ptr<Watched> watch(const RouteKey& key);

 protected:
  std::vector<std::string> dumpRequests() const override;
  void dumpBegins() override;
  void dumpLacks(std::size_t part) override;
  void take(const nlmsghdr& message, bool inDump) override;
  void dumpEnds() override;
  void forgetAll() override;
  void showChanges() override;
  void passEnds() override;

 private:
  struct Tables;
  struct Cursor {
    U32 table = 0;
    IpGenPrefix prefix;
    U32 record = 0;  // of those of the prefix
    bool begun = false;
  };
  Route next(Cursor& at) const;
  Route lookUpAmong(U32 table, const RouteQuery& query) const;
  void takeRoute(const nlmsghdr& message, bool inDump);
  void added(const RouteKey& key, U32 attrs, unsigned flags, bool inDump);
  void addedV6(const RouteKey& key, U32 attrs, unsigned flags);
  void removed(const RouteKey& key, U32 attrs);
  void touched(const RouteKey& key, bool wasThere);
  /// Whether anybody wants to know what changed.
  bool isWatched() const noexcept { return !changeCount.notifiees().empty() || !watched_.empty(); }

  const std::unique_ptr<Tables> tables_;
  bool anyChange_ = false;
  std::vector<std::pair<RouteKey, bool>> touched_;  // keys, and whether they were there before
  std::vector<Change> changes_;
  std::map<RouteKey, Watched*> watched_;
  bool nextHopsChanged_ = false;
};

KIV_API Kiv::Ptr<RouteView> routeViewFactory(Kiv::String name, const NamespaceName& netNs);

}  // namespace Wirl
