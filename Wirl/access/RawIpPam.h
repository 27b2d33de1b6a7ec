// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "Wirl/access/IpPam.h"

namespace Kiv {
class TraceHandle;
}

namespace Wirl {

namespace detail {
class RxBatch;
struct RxSide;
struct RawIpFamily;
}  // namespace detail

/// What is known of a received packet beside its bytes.
struct IpRxMetadata {
  IpGenAddr srcIpAddr, dstIpAddr, origDstIpAddr;
  U32 ifIndex = 0;
  U8 tos = 0;
  U8 ttl = 0;
  S32 flags = 0;
};

/// A raw IP socket of either family; see `IpSocketPam` and `Ip6SocketPam`.
///
/// `enabledIs(true)` opens a socket for `protocol` in the namespace `netNs`, sets what is configured and then
/// counts `readableCount` and `writableCount` up once. It throws `Kiv::ErrnoException` with the failed call
/// in its text ("socket", "setsockopt(IP_HDRINCL)", ...), with everything closed and the Pam disabled, to be
/// tried again.
///
/// Options that change while the socket is open are applied at once, in the order of their bits. One that the
/// kernel refuses closes the socket and throws; the Pam then has none until it is disabled and enabled again.
/// `ipMulticastLoop` is applied at opening in either state; `txTOS`, `txTTL` (of unicast and multicast) and
/// `priority` are where they are not 0; `ipRcvBuf` switched off leaves the buffer as it is. `ipAttachFilter`
/// holds from the first packet on: what arrived before the program was in place is discarded.
///
/// Sending: `txDstIpAddr` is where to, `txSrcIpAddr` and `txIfIndex` (or `txIfName`, looked up at each send)
/// choose source and interface; they stay until they are changed. With the option `ipHdrIncl` a packet begins
/// with its IP header, and goes to that header's destination unless `txDstIpAddr` says otherwise. A failed
/// send counts in `txErrors`, with `txErrno`; so does, before any system call, one without a destination
/// (EDESTADDRREQ) or with addresses of the other family (EAFNOSUPPORT). Sending while disabled ends the
/// process.
///
/// Receiving: each `rxPkt` makes one receive call. One that fails counts in `rxErrors`, also when there was
/// nothing to receive. A packet longer than `maxRxPktData` is delivered cut to that, with MSG_TRUNC in
/// `rxFlags`. With `ipRecvErr`, a receive that fails also fetches what ICMP reported of earlier sends off the
/// socket's error queue, into `rxErrQueueCount` and traces.
///
/// With `enableBulkRead`, each `rxPkt` receives a batch of up to `socketReadLimit` packets, marked in
/// `savedPacketRx`, and returns the last of them, which is also the one that the `rx...` attributes are
/// about:
///
///     while (pam->rxPkt()) {
///       for (Kiv::U16 i = 0; pam->savedPacketRx(i); ++i) handle(pam->savedPacket(i), pam->rxMetadata(i));
///     }
///
/// A packet of a batch may be kept: its slot gets another one for the next batch.
class KIV_API RawIpPam : public IpPam {
 public:
  KIV_ENTITY(RawIpPam, IpPam)
  KIV_ATTR_COUNTER(U32, rxErrQueueCount)

  ~RawIpPam() override;

  /// Joins or leaves a multicast group on an interface (0: the system's choice). Returns 0 or an errno:
  /// ENODEV without a socket or interface, EINVAL for an address that is no group of the family, EADDRINUSE
  /// for a group joined already, EADDRNOTAVAIL for one not joined. From the first join on an IPv4 socket
  /// receives groups that it joined itself only; to an IPv6 socket the kernel gives those too that others
  /// joined. Memberships go with the socket.
  S32 handleMcastGroup(const IpGenAddr& group, bool join, U32 ifIndex);

  /// Of the packet in slot `index` of the latest batch, as long as it was not changed; all unknown for a slot
  /// without one.
  IpRxMetadata rxMetadata(U16 index) const;

 protected:
  RawIpPam(Kiv::String name, IpProtocolNumber protocol, const NamespaceName& netNs,
           const detail::RawIpFamily& family);

  void handleTxTOS() override;
  void handleTxTTL() override;
  void handlePriority() override;
  void optionsIsImpl(U32 bits) override;
  void enabledIsImpl(bool on) override;
  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  void doGetRxPkt() override;

  static const detail::RawIpFamily ipv4Family_;
  static const detail::RawIpFamily ipv6Family_;

 private:
  void configure();
  void holdBackPackets();
  void applyOptions(U32 changed, U32 bits);
  void applyPriority();
  void refuse(int error);
  IpGenAddr destinationOf(const Pkt& pkt) const;
  bool interfaceIs(U32& ifIndex);
  void receiveOne();
  void receiveBatch();
  void noPkt();
  void receiveFailed(const char* call, int error);
  void drainErrorQueue();
  void publish(const IpRxMetadata& metadata);

  const detail::RawIpFamily& family_;
  Pkt::Ptr spare_;  // for the next receive, if it is nobody else's then
  std::unique_ptr<detail::RxBatch> batch_;
};

}  // namespace Wirl
