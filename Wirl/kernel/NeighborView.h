// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Wirl/kernel/KernelView.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/IpGenAddr.h"

namespace Wirl {

/// What tells a neighbour from others.
struct NeighborKey {
  U32 ifIndex = 0;
  IpGenAddr address;
  bool proxy = false;  ///< the kernel answers for it (NTF_PROXY); no neighbour, and beside the one that is

  friend auto operator<=>(const NeighborKey&, const NeighborKey&) = default;
};

/// All that a `NeighborView` knows of a neighbour.
struct KIV_API NeighborInfo {
  NeighborKey key;
  U16 state = 0;               ///< NUD_REACHABLE and others
  U8 flags = 0;                ///< NTF_ROUTER and others
  U32 extendedFlags = 0;       ///< NTF_EXT_MANAGED and others
  std::string linkAddress;     ///< octets, in the length of the link's kind; empty: not known
  std::optional<U8> protocol;  ///< who added it, RTPROT_BGP and others

  /// All zeros unless the link-layer address is known and has six octets.
  EthAddr ethAddr() const noexcept;
  /// Whether frames can be sent to it without asking first.
  bool isUsable() const noexcept;
  friend bool operator==(const NeighborInfo&, const NeighborInfo&) = default;
};

/// A neighbour entry.
class KIV_API Neighbor final : public KernelEntity<NeighborInfo> {
 public:
  KIV_ENTITY(Neighbor, KernelEntity<NeighborInfo>)
  KIV_ATTR_READ(U16, state, 0)     ///< The kernel's state, as in linux/neighbour.h (NUD_).
  KIV_ATTR_READ(EthAddr, ethAddr)  ///< The Ethernet address; zero while it is not known.
  KIV_ATTR_DERIVED(IpGenAddr, address)
  KIV_ATTR_DERIVED(U32, ifIndex)

  using Key = NeighborKey;
  explicit Neighbor(const NeighborInfo& info);  ///< One of what the kernel says.
  ~Neighbor() override;
  const IpGenAddr& address() const noexcept { return info().key.address; }
  U32 ifIndex() const noexcept { return info().key.ifIndex; }

 protected:
  void putAttrs(Telling& telling) override;
};

/// The neighbours of a network namespace, of IPv4 (ARP) and IPv6 (ND), and those for whom the kernel answers
/// (proxies); see `KernelView`. The kernel does not tell when it begins to ask for a neighbour (to
/// NUD_INCOMPLETE) or to doubt one (to NUD_DELAY), only how that ends, nor of proxies; a dump shows these
/// (`refreshTime`).
class KIV_API NeighborView final : public EntityView<Neighbor> {
 public:
  KIV_ENTITY(NeighborView, KernelView)

  NeighborView(Kiv::String name, const NamespaceName& ns);
  ~NeighborView() override;

 protected:
  std::vector<std::string> dumpRequests() const override;
  void take(const nlmsghdr& message, bool inDump) override;
};

KIV_API Kiv::Ptr<NeighborView> neighborViewFactory(Kiv::String name, const NamespaceName& netNs);

}  // namespace Wirl
