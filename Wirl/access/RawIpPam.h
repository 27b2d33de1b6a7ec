// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/IpPam.h"

namespace Wirl {

namespace detail {
struct RxSide;
struct RawIpFamily;
}  // namespace detail

/// What is known about a received packet beside its bytes.
struct IpRxMetadata {
  /// Addresses of the header, and the destination before the kernel changed it.
  IpGenAddr srcIpAddr, dstIpAddr, origDstIpAddr;
  U32 ifIndex = 0;
  U8 tos = 0;
  U8 ttl = 0;
  S32 flags = 0;
  RxTimes times;
};

/// A raw IP socket of either family; see `IpSocketPam` and `Ip6SocketPam`.
///
/// `enabledIs(true)` opens a socket for `protocol` in the namespace `netNs`, applies the configuration and
/// then counts `readableCount` and `writableCount` up once. If that fails it throws `Kiv::ErrnoException`
/// with the failed call in its message ("socket", "setsockopt(IP_HDRINCL)", ...); the Pam is closed and
/// disabled then and can be enabled again.
///
/// Options that change while the socket is open apply at once, in the order of their bits. If the kernel
/// refuses one, the socket is closed and the setter throws; disable and enable the Pam to get a new socket.
/// Opening applies `ipMulticastLoop` in either state, and `txTOS`, `txTTL` (unicast and multicast) and
/// `priority` if they are not 0. Switching `ipRcvBuf` off leaves the buffer as it is. `ipAttachFilter` holds
/// from the first packet on: packets that arrive before the program is attached are discarded.
///
/// Sending: `txDstIpAddr` is the destination; `txSrcIpAddr` and `txIfIndex` (or `txIfName`, looked up at each
/// send) choose source and interface. They stay until they are changed. With the option `ipHdrIncl` a packet
/// begins with its IP header and goes to that header's destination, unless `txDstIpAddr` is set. A failed
/// send counts in `txErrors` and sets `txErrno`. So does, before any system call, a send without a
/// destination (EDESTADDRREQ) or with addresses of the other family (EAFNOSUPPORT). Sending while disabled
/// ends the process.
///
/// Receiving: each `rxPkt` makes one receive call. A failed one counts in `rxErrors`, even if the socket was
/// only empty. A packet longer than `maxRxPktData` is delivered cut, with MSG_TRUNC in `rxFlags`. With
/// `ipRecvErr`, a failed receive also drains the socket's error queue (what ICMP reported about earlier
/// sends) into `rxErrQueueCount` and traces.
///
/// With `enableBulkRead`, each `rxPkt` receives a batch of up to `socketReadLimit` packets and marks them in
/// `savedPacketRx`. It returns the last one, which the `rx...` attributes describe:
///
///     while (pam->rxPkt()) {
///       for (Kiv::U16 i = 0; pam->savedPacketRx(i); ++i) handle(pam->savedPacket(i), pam->rxMetadata(i));
///     }
///
/// A client may keep a packet of a batch: its slot gets another one for the next batch.
class KIV_API RawIpPam : public IpPam {
 public:
  KIV_ENTITY(RawIpPam, IpPam)
  KIV_ATTR_COUNTER(U32, rxErrQueueCount)

  ~RawIpPam() override;

  /// Joins or leaves a multicast group on an interface (0: the system's choice). Returns 0 or an errno:
  /// ENODEV without a socket or interface, EINVAL for an address that is no group of the family, EADDRINUSE
  /// for a group already joined, EADDRNOTAVAIL for one not joined. From the first join on, an IPv4 socket
  /// receives only groups that it joined itself; the kernel gives an IPv6 socket the groups that others
  /// joined, too. Memberships end with the socket.
  S32 handleMcastGroup(const IpGenAddr& group, bool join, U32 ifIndex);

  /// Of the packet in slot `index` of the latest batch, while nobody changes that packet; all unknown for a
  /// slot without one.
  IpRxMetadata rxMetadata(U16 index) const;

 protected:
  /// One of that name and IP protocol, of the namespace.
  RawIpPam(Kiv::String name, IpProtocolNumber protocol, const NamespaceName& netNs,
           const detail::RawIpFamily& family);

  void handleTxTOS() override;
  void handleTxTTL() override;
  void handlePriority() override;
  void optionsIsImpl(U32 bits) override;
  void enabledIsImpl(bool on) override;
  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  void doGetRxPkt() override;
  void setUp(Change& changes) override;
  Loss lossOf(int error) const override;
  void receiveFailed(bool batch, int error) override;
  const Kiv::TraceHandle& traceHandle() const override;

  static const detail::RawIpFamily ipv4Family_;  ///< What IPv4 sockets need.
  static const detail::RawIpFamily ipv6Family_;  ///< What IPv6 sockets need.

 private:
  void holdBackPackets();
  void applyOptions(U32 changed, U32 bits);
  void applyPriority();
  IpGenAddr destinationOf(const Pkt& pkt) const;
  bool interfaceIs(U32& ifIndex);
  IpRxMetadata metadataOf(const msghdr& message, const detail::RxSide& side, const Pkt& pkt) const;
  void drainErrorQueue();
  void hand(Pkt::Ptr pkt, const IpRxMetadata& metadata, U32 packets);

  const detail::RawIpFamily& family_;
};

}  // namespace Wirl
