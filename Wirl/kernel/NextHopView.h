// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Wirl/kernel/KernelView.h"
#include "Wirl/kernel/RouteView.h"

namespace Wirl {

namespace detail {
class LinkStates;
}

/// All that a `NextHopView` knows of a next-hop object or group.
struct NextHopInfo {
  /// A next-hop object in a group.
  struct Member {
    U32 id = 0;      ///< Number of the object.
    U32 weight = 1;  ///< Its share of the packets, in comparison with the others.

    friend bool operator==(const Member&, const Member&) = default;
  };

  U32 id = 0;                              ///< Number of the object; not 0.
  AddressFamily af = AddressFamily::ipv4;  ///< of routes that may use it; of a group: none
  U8 scope = 0;                            ///< How far away it is (RT_SCOPE_).
  U8 protocol = 0;                         ///< who added it, RTPROT_BGP and others
  bool blackhole = false;                  ///< Whether packets are dropped without a word.
  bool fdb = false;                        ///< of a bridge's or VXLAN device's table, no route's
  RouteNextHop hop;                        ///< of an object; its weight does not count
  std::vector<Member> group;               ///< The members, if it is a group.
  bool resilient = false;                  ///< a group whose flows stay where they are
  U16 buckets = 0;                         ///< of a resilient group
  /// Of a resilient group, in hundredths of a second: for how long a bucket has to be idle before its flows
  /// move, and for how long the group may be unbalanced before they move all the same (0: for ever).
  U32 idleTime = 0, unbalancedTime = 0;

  friend bool operator==(const NextHopInfo&, const NextHopInfo&) = default;
};

/// A next-hop object of a namespace.
class KIV_API NextHopObject final : public KernelEntity<NextHopInfo> {
 public:
  KIV_ENTITY(NextHopObject, KernelEntity<NextHopInfo>)
  KIV_ATTR_DERIVED(U32, id)

  using Key = U32;                                  ///< the object's id
  explicit NextHopObject(const NextHopInfo& info);  ///< One of what the kernel says.
  ~NextHopObject() override;
  U32 id() const noexcept { return info().id; }  ///< Number of the object.

 protected:
  void putAttrs(Telling&) override {}
};

/// The next-hop objects and groups of a network namespace (ip-nexthop(8)); see `KernelView`. The kernel does
/// not tell of objects that go with their link, so a change of the link has the view load them anew.
class KIV_API NextHopView final : public EntityView<NextHopObject> {
 public:
  KIV_ENTITY(NextHopView, KernelView)

  NextHopView(Kiv::String name, const NamespaceName& ns);
  ~NextHopView() override;

 protected:
  std::vector<std::string> dumpRequests() const override;
  void dumpBegins() override;
  void take(const nlmsghdr& message, bool inDump) override;
  void dumpEnds() override;
  void forgetAll() override;
  void passEnds() override;

 private:
  const std::unique_ptr<detail::LinkStates> links_;
};

KIV_API Kiv::Ptr<NextHopView> nextHopViewFactory(Kiv::String name, const NamespaceName& netNs);

}  // namespace Wirl
