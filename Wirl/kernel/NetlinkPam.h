// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/SocketPam.h"

namespace Wirl {

using Kiv::U64;

/// A netlink socket (netlink(7)) in a network namespace. A packet is one datagram: whole netlink messages,
/// one after the other, each with its header, in host byte order.
///
/// `enabledIs(true)` opens the socket for `protocol` (NETLINK_ROUTE, ...) and joins the multicast groups of
/// the bit set `groups` (bit n - 1 for group n). If that fails it throws `Kiv::ErrnoException` ("socket",
/// "bind"); the Pam is closed and disabled then and can be enabled again. `portId` is the address that the
/// kernel chose. `extended` asks for the kernel's texts in acknowledgements (NETLINK_EXT_ACK), without a copy
/// of the request (NETLINK_CAP_ACK), and for strict checks of dump requests (NETLINK_GET_STRICT_CHK), as far
/// as the kernel has them. `rxBuf` is the room for datagrams in octets (0: the system's default). These
/// attributes apply when the Pam is enabled.
///
///     auto pam = Wirl::netlinkPamFactory("links", NETLINK_ROUTE, L3::VrfName("red").nsName());
///     pam->groupsIs(RTMGRP_LINK);
///     Kiv::Reactor onReadable(pam->readableCount, [&] {
///       while (auto pkt = pam->rxPkt()) changed(*pkt);
///     });
///     pam->enabledIs(true);
///
/// Sending: to the kernel. Sends that fail count as those of `PacketPam` do.
///
/// Receiving: a datagram longer than `maxRxPktData` is delivered cut, and `rxTruncated` is true for it. When
/// the kernel had no room for a datagram (ENOBUFS), the next pull gives null and counts in `rxOverruns`: the
/// client has missed something and asks for a new dump. Only the kernel can send to this socket (`rxPortId`
/// is 0) unless another process has CAP_NET_ADMIN.
class KIV_API NetlinkPam final : public SocketPam {
 public:
  KIV_ENTITY(NetlinkPam, SocketPam)
  KIV_ATTR_READ(S32, protocol, 0)
  KIV_ATTR_READ(NamespaceName, netNs)
  KIV_ATTR(U32, groups, 0)
  KIV_ATTR(bool, extended, false)
  KIV_ATTR(U32, rxBuf, 0)
  KIV_ATTR_READ(bool, enabled, false)
  KIV_ATTR_READ(U32, portId, 0)
  KIV_ATTR(U32, maxRxPktData, 32768)
  KIV_ATTR_READ(U32, rxPortId, 0)
  KIV_ATTR_READ(bool, rxTruncated, false)
  KIV_ATTR_COUNTER(U64, txPktCount)
  KIV_ATTR_COUNTER(U64, rxPktCount)
  KIV_ATTR_COUNTER(U32, rxOverruns)
  KIV_ATTR_DERIVED(Kiv::Ptr<Kiv::FileDescriptor>, fileDesc)
  KIV_ATTR_DERIVED(Kiv::Ptr<PamFdSm>, fdSm)

  /// One of that name and netlink protocol, of the namespace.
  NetlinkPam(Kiv::String name, S32 protocol, const NamespaceName& netNs);
  ~NetlinkPam() override;

  void enabledIs(bool on);

 protected:
  void setUp(Change& changes) override;
  void openFailed(Change& changes) noexcept override;
  Kiv::String place() const override;
  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  void doGetRxPkt() override;
  void receiveFailed(bool batch, int error) override;
};

KIV_API Kiv::Ptr<NetlinkPam> netlinkPamFactory(Kiv::String name, S32 protocol, const NamespaceName& netNs);

}  // namespace Wirl
