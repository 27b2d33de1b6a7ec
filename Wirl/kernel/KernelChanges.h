// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Wirl/kernel/AddressView.h"
#include "Wirl/kernel/LinkView.h"
#include "Wirl/kernel/NeighborView.h"
#include "Wirl/kernel/NextHopView.h"
#include "Wirl/kernel/RouteView.h"

namespace Wirl {

/// What is to change of a link, or of a new one: what is not set stays.
struct LinkChange {
  std::optional<std::string> name = {};     ///< the new name
  std::optional<bool> up = {};              ///< Administratively up or down.
  std::optional<U32> mtu = {};              ///< The longest packet, in octets.
  std::optional<EthAddr> ethAddr = {};      ///< The Ethernet address.
  std::optional<U32> master = {};           ///< interface index; 0: none
  std::optional<std::string> alias = {};    ///< A text for people.
  std::optional<U32> txQueueLen = {};       ///< Length of the send queue, in packets.
  std::optional<U32> group = {};            ///< The group of links that it belongs to.
  std::optional<NamespaceName> netNs = {};  ///< moves it there
  std::optional<U32> ifIndex = {};          ///< of a new link
  std::optional<U32> lower = {};            ///< of a new link: the one below
  U16 vlanId = 0;                           ///< of a new link of the kind "vlan"
  U32 vrfTable = 0;                         ///< of a new link of the kind "vrf"
};

/// Changes of the kernel's state, to be made together: one message to the kernel, which makes them one by one
/// in their order. (A link's new name needs its index, which is asked for then, between two messages.) What
/// the views show is what is to be given here.
///
///     Wirl::KernelChanger changer(L3::VrfName("red").nsName());
///     Wirl::KernelChanges changes;
///     changes.vethAdd("a0", "b0").linkChange("a0", {.up = true});
///     changer.apply(changes);
///
/// A link that is to be named is so by its name; addresses, routes and neighbours say the index of theirs.
class KIV_API KernelChanges {
 public:
  KernelChanges();
  ~KernelChanges();
  KernelChanges(KernelChanges&&) noexcept;
  KernelChanges& operator=(KernelChanges&&) noexcept;

  /// Throw `Kiv::ErrnoException` if a namespace that is named cannot be opened.
  KernelChanges& linkAdd(const std::string& name, const std::string& kind, const LinkChange& with = {});
  /// A veth pair; `ofPeer` may put the peer into another namespace.
  KernelChanges& vethAdd(const std::string& name, const std::string& peer, const LinkChange& with = {},
                         const LinkChange& ofPeer = {});
  /// Changes what is set in `change`.
  KernelChanges& linkChange(const std::string& name, const LinkChange& change);
  KernelChanges& linkDel(const std::string& name);  ///< Deletes a link.

  KernelChanges& addressAdd(const AddressInfo& address);  ///< Adds an address.
  /// Adds, or changes lifetimes and flags.
  KernelChanges& addressReplace(const AddressInfo& address);
  KernelChanges& addressDel(const AddressKey& key);  ///< Deletes an address.

  /// Throw `Kiv::RangeException` for encapsulations of more than 4,096 octets in all.
  /// Of `attrs` the type 0 counts as unicast, and without a gateway the scope 0 of IPv4 as the link's.
  KernelChanges& routeAdd(const RouteKey& key, const RouteAttrs& attrs);
  /// Adds a route, or takes the place of one with the same key.
  KernelChanges& routeReplace(const RouteKey& key, const RouteAttrs& attrs);
  /// Another route of the same key; of IPv6 another next hop.
  KernelChanges& routeAppend(const RouteKey& key, const RouteAttrs& attrs);
  /// `attrs` may say which one, by type, protocol and next hops.
  KernelChanges& routeDel(const RouteKey& key, const RouteAttrs& attrs = {});

  /// Adds a next-hop object. These two throw `Kiv::RangeException` for a group of more than 512 members, and
  /// for a weight of 0 or above 65,536.
  KernelChanges& nextHopAdd(const NextHopInfo& nextHop);
  /// Adds a next-hop object, or takes the place of the one with its number.
  KernelChanges& nextHopReplace(const NextHopInfo& nextHop);
  /// The routes and groups that use it go or shrink with it.
  KernelChanges& nextHopDel(U32 id);

  KernelChanges& ruleAdd(const RouteRule& rule);  ///< Adds a rule.
  /// The first rule that has all that is given.
  KernelChanges& ruleDel(const RouteRule& rule);

  KernelChanges& neighborAdd(const NeighborInfo& neighbor);  ///< Adds an entry.
  /// Adds an entry, or takes the place of the one with its key.
  KernelChanges& neighborReplace(const NeighborInfo& neighbor);
  KernelChanges& neighborDel(const NeighborKey& key);  ///< Deletes an entry.
  /// Has the kernel ask for a neighbour, which it adds if need be (NTF_USE) with the `flags` given besides.
  KernelChanges& neighborAsk(const NeighborKey& key, U8 flags = 0);
  /// Has the kernel ask a neighbour whose address it knows whether it is still there (NUD_PROBE).
  KernelChanges& neighborProbe(const NeighborKey& key, U8 flags = 0);

  std::size_t size() const noexcept { return messages_.size(); }
  bool empty() const noexcept { return messages_.empty(); }

 private:
  friend class KernelChanger;

  void add(std::string what, std::string message);
  void addressMessage(const char* verb, U16 type, U16 flags, const AddressInfo& address);
  void routeMessage(const char* verb, U16 type, U16 flags, const RouteKey& key, const RouteAttrs& attrs);
  void nextHopMessage(const char* verb, U16 flags, const NextHopInfo& nextHop);
  void ruleMessage(const char* verb, U16 type, U16 flags, const RouteRule& rule);
  void neighborMessage(const char* verb, U16 type, U16 flags, const NeighborInfo& neighbor);
  int descriptorOf(const NamespaceName& ns, const std::string& what);
  template <typename Request>
  void putLink(Request& request, const LinkChange& change, const std::string& what);

  std::vector<std::string> messages_;
  std::vector<std::string> whats_;              // each change in words
  std::vector<int> descriptors_;                // of namespaces, for as long as the messages name them
  std::map<std::size_t, std::string> renamed_;  // by place in messages_: the link's name until then
};

/// Makes changes in a network namespace. Every call returns when the kernel has done its work; nothing waits
/// for the loop.
class KIV_API KernelChanger {
 public:
  /// What became of a change.
  struct Outcome {
    std::string what;  ///< the change in words: "add route 192.0.2.0/24 table 254"
    int error = 0;     ///< 0, or an errno
    std::string text;  ///< the kernel's own words, if it had any
  };

  /// Throws `Kiv::ErrnoException` if the socket cannot be opened.
  explicit KernelChanger(const NamespaceName& ns);

  /// Makes the changes, all of them, also behind one that fails. Then throws `Kiv::ErrnoException` for the
  /// first that failed: its message names the change, `what()` also has the error, the kernel's text and the
  /// namespace.
  void apply(const KernelChanges& changes);
  /// The same without exceptions: the outcome of each.
  std::vector<Outcome> tryApply(const KernelChanges& changes);
  /// Throws `Kiv::ErrnoException` if there is no link of the name.
  U32 ifIndexOf(const std::string& name);

 private:
  /// 0 if there is none; the error is an errno then.
  std::pair<U32, int> findLink(const std::string& name);

  Kiv::Ptr<NetlinkPam> pam_;
  U32 sequence_ = 0;
};

}  // namespace Wirl
