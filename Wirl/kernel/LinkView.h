// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Wirl/kernel/KernelView.h"
#include "Wirl/value/EthAddr.h"

namespace Wirl {

/// Operational state of a link (RFC 2863), in the kernel's numbers.
enum class OperState : U8 { unknown, notPresent, down, lowerLayerDown, testing, dormant, up };
KIV_API std::ostream& operator<<(std::ostream& out, OperState state);

/// Counters of a link, since it was made. They move all the time, so that they moved is no news: all are
/// equal.
struct LinkStats {
  /// Packets, octets, packets with errors and packets dropped, of both ways.
  U64 rxPkts = 0, txPkts = 0, rxBytes = 0, txBytes = 0, rxErrors = 0, txErrors = 0, rxDrops = 0, txDrops = 0;
  U64 multicast = 0, collisions = 0;  ///< Group packets received, and collisions.

  friend bool operator==(const LinkStats&, const LinkStats&) noexcept { return true; }
};

/// All that a `LinkView` knows of a link (netdevice).
struct KIV_API LinkInfo {
  U32 ifIndex = 0;
  std::string name;
  std::vector<std::string> altNames;         ///< Further names.
  std::string alias;                         ///< A text for people.
  U32 flags = 0;                             ///< IFF_UP and others
  U16 hwType = 0;                            ///< ARPHRD_ETHER and others
  U32 mtu = 0;                               ///< The longest packet, in octets.
  U32 txQueueLen = 0;                        ///< Length of the send queue, in packets.
  U32 group = 0;                             ///< The group of links that it belongs to.
  OperState operState = OperState::unknown;  ///< Whether it can move packets (RFC 2863).
  U8 linkMode = 0;                           ///< Whether user space decides when it is up (IF_LINK_MODE_).
  bool protoDown = false;                    ///< Whether a protocol keeps it down.
  std::string qdisc;                         ///< The queueing discipline.
  std::string kind;                          ///< "veth", "vlan", "vrf"; empty for devices of hardware
  std::string portKind;                      ///< as what its master has it: "bridge", "vrf"
  /// Octets of link-layer addresses, in the length of the link's kind.
  std::string address, broadcast, permanentAddress;
  U32 master = 0;                  ///< index of the link that has this one as a port; 0: none
  std::optional<U32> lower;        ///< index of the link below, or the peer of a veth; 0: none
  std::optional<S32> lowerNsid;    ///< the namespace of `lower`, if it is another one
  U32 vrfTable = 0;                ///< of a VRF and of its ports: the table of the VRF's routes
  U16 vlanId = 0;                  ///< of a VLAN device
  U16 vlanProtocol = 0;            ///< of a VLAN device: its EtherType
  std::optional<LinkStats> stats;  ///< Counters, where they were asked for.

  /// All zeros unless the link-layer address has six octets.
  EthAddr ethAddr() const noexcept;
  friend bool operator==(const LinkInfo&, const LinkInfo&) = default;
};

/// A link of a namespace.
class KIV_API Link final : public KernelEntity<LinkInfo> {
 public:
  KIV_ENTITY(Link, KernelEntity<LinkInfo>)
  KIV_ATTR_READ(Kiv::String, ifName)
  KIV_ATTR_READ(bool, up, false)                           ///< Whether it is administratively up.
  KIV_ATTR_READ(OperState, operState, OperState::unknown)  ///< Whether it can move packets.
  KIV_ATTR_READ(U32, mtu, 0)                               ///< The longest packet, in octets.
  KIV_ATTR_READ(EthAddr, ethAddr)  ///< The Ethernet address; zero for links that have none.
  KIV_ATTR_READ(U32, master, 0)    ///< Number of the link that it belongs to, as of a bridge; 0: none.
  KIV_ATTR_DERIVED(U32, ifIndex)

  using Key = U32;                      ///< the interface index
  explicit Link(const LinkInfo& info);  ///< One of what the kernel says.
  ~Link() override;
  U32 ifIndex() const noexcept { return info().ifIndex; }

 protected:
  void putAttrs(Telling& telling) override;
};

/// The links of a network namespace; see `KernelView`. Statistics are those of the latest dump or change. The
/// kernel does not tell of a new alias, group or queue length of a link that is down. `refreshTime` bounds
/// how old all of these are.
///
///     auto links = Wirl::linkViewFactory("links", L3::VrfName("red").nsName());
///     links->enabledIs(true);
///     Kiv::Reactor onSync(links->inSync, [&] { ... links->findByName("eth0")->mtu() ... });
class KIV_API LinkView final : public EntityView<Link> {
 public:
  KIV_ENTITY(LinkView, KernelView)

  LinkView(Kiv::String name, const NamespaceName& ns);
  ~LinkView() override;
  /// By name or alternative name; null if there is none.
  Kiv::Ptr<Link> findByName(std::string_view name) const;
  /// The VRF that the link is a port of; null if there is none.
  Kiv::Ptr<Link> vrfOf(const Link& link) const;

 protected:
  std::vector<std::string> dumpRequests() const override;
  void take(const nlmsghdr& message, bool inDump) override;
  void passEnds() override;

 private:
  void refreshPeers(U32 ifIndex, std::optional<U32> lower);
  std::set<U32> refresh_;
};

KIV_API Kiv::Ptr<LinkView> linkViewFactory(Kiv::String name, const NamespaceName& netNs);

}  // namespace Wirl
