// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>
#include <span>

#include "Wirl/access/InetPam.h"
#include "Wirl/access/IpTrafficControl.h"
#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/IpGenAddr.h"

namespace Wirl {

namespace detail {
struct RxSide;
}

/// What is known about a received datagram beside its octets.
struct UdpRxMetadata {
  IpGenAddr srcIpAddr, dstIpAddr;  ///< `ipunknown` if not told.
  U16 srcPort = 0;                 ///< In host order.
  U32 ifIndex = 0;
  S32 ttl = -1, tos = -1;  ///< -1 if not told.
  bool truncated = false;  ///< Whether it was longer than the room for it.
  RxTimes times;
};

/// A datagram for `UdpPam::txPktBulk` and where it goes.
struct UdpTxPkt {
  Pkt::Ptr pkt;
  IpGenAddr dstIpAddr;  ///< `ipunknown`: the Pam's own destination and port.
  U16 port = 0;         ///< In host order; not 0 with a destination.
  IpGenAddr srcIpAddr;  ///< `ipunknown`: the system's choice.
  U32 ifIndex = 0;      ///< 0: the system's choice.
};

/// One UDP socket (RFC 768), IPv4 or IPv6 but never both, in a named network namespace. Its attributes drive
/// it.
///
///     mode       socket   bound to rxIpAddr/rxIp6Addr:rxPortLocal   receives   connects before it sends
///     disabled   no
///     send       yes      no                                        no         no
///     client     yes      yes                                       yes        yes
///     server     yes      yes                                       yes        no
///
/// Every change of `mode`, and of `netNs` in an open mode, closes the socket and, for an open mode, opens a
/// new one. The new socket takes `ipv6En`, the local address and port, `txTTL` (unicast and multicast),
/// `txPrio` and `enableIpMulticastLoop` (IPv4 only). `txTos`, `enableRxTTL` and `enableRxTOS` also apply at
/// once.
///
/// If opening fails it throws `Kiv::ErrnoException` with the failed call in its message
/// ("setsockopt(IP_PKTINFO)", "bind", ...); the Pam is closed and `disabled` then and can be opened again.
///
/// Sending: set the destination and `txPort`, then `txPktIs`. `txSrcIpAddr`, `txSrcIp6Addr` and `txIfIndex`
/// choose source and interface of the next datagram only; a link-local IPv6 destination needs `txIfIndex`. A
/// failed send sets `txErrno` and drops the packet. ECONNREFUSED is about an earlier datagram, so the packet
/// counts as sent. In `client` mode the first send connects the socket to the destination, which is fixed
/// until the socket is closed.
///
/// Receiving: `rxPkt` gives one datagram per packet and sets the `rx...` attributes for it. A datagram longer
/// than `maxRxPktData` is delivered cut. `rxTTL` and `rxTOS` are -1 unless `enableRxTTL` and `enableRxTOS`
/// ask the kernel for them. `rxDrops` is the kernel's count of datagrams for which the sockets of this Pam
/// had no room.
///
/// Ports: UDP sockets share a local port without a word, unless one of them objects. With `exclusivePort` the
/// opening fails ("bind", EADDRINUSE) if another socket has the port, and none can take it later. With
/// `reusePort` sockets of the same user that also have it share the port, and the kernel spreads datagrams
/// over them (SO_REUSEPORT); together with `exclusivePort` nobody else gets in. Both apply at opening.
///
/// Batches. `rxPktBulk` receives up to `socketReadLimit` datagrams with one system call, in the slots of
/// `savedPacket` from 0 on; `rxMetadata(i)` tells about each, the `rx...` attributes about the last. A client
/// may keep a packet: its slot gets another one. `txPktBulk` sends with one system call for many. A batch
/// that is not full says that the socket is empty: the next `rxPktBulk` of the same event returns 0 and asks
/// nobody.
///
///     while (const Kiv::S32 count = pam->rxPktBulk()) {
///       for (Kiv::U16 i = 0; i < count; ++i) handle(pam->savedPacket(i), pam->rxMetadata(i));
///     }
///
/// With `enableGro` the kernel may merge datagrams of one peer on receive (UDP_GRO), and the Pam cuts them up
/// again: packets over one buffer, nothing copied. A batch can hold more than `socketReadLimit` then. Before
/// you change the shared data of such a packet, call its `ownSharedData()`. With `enableGso`, `txPktBulk`
/// hands runs of equally long datagrams to one peer over as one (UDP_SEGMENT). Where the kernel or the device
/// refuses that, they are sent one by one; nothing is lost.
class KIV_API UdpPam : public InetPam {
 public:
  /// What the socket is for.
  class KIV_API Mode {
   public:
    /// What the socket is for.
    enum Instance : U8 { disabled, send, client, server };

    /// The mode of that value.
    constexpr Mode(Instance instance = disabled) noexcept : instance_(instance) {}
    constexpr operator Instance() const noexcept { return instance_; }  ///< The value.
    /// The mode's name.
    Kiv::String stringValue() const;
    /// The mode of a name; throws `Kiv::RangeException` "Invalid UdpPam::Mode".
    static Mode ModeInstance(std::string_view name);
    friend std::ostream& operator<<(std::ostream& out, Mode value) { return out << value.stringValue(); }

   private:
    Instance instance_;
  };

  KIV_ENTITY(UdpPam, InetPam)
  KIV_ATTR(bool, ipv6En, false)
  KIV_ATTR_HOOK(Mode, mode, Mode::disabled, handleMode)
  KIV_ATTR_HOOK(NamespaceName, netNs, NamespaceName("default"), handleNetNs)
  KIV_ATTR_HOOK(U8, txTos, 0, handleTxTos)
  KIV_ATTR(U8, txTTL, 0)
  KIV_ATTR(IpTrafficControl, txPrio, tcPrioBestEffort)
  /// Destination to send to, IPv4. Fixed while connected.
  KIV_ATTR_HOOK(IpAddr, txDstIpAddr, IpAddr(), assertNotConnected)
  /// Destination to send to, IPv6. Fixed while connected.
  KIV_ATTR_HOOK(Ip6Addr, txDstIp6Addr, Ip6Addr(), assertNotConnected)
  KIV_ATTR(IpAddr, txSrcIpAddr)
  KIV_ATTR(Ip6Addr, txSrcIp6Addr)
  KIV_ATTR(U32, txIfIndex, 0)
  KIV_ATTR_HOOK(U16, txPort, 0, assertNotConnected)
  KIV_ATTR_COUNTER(U64, txPkts)
  KIV_ATTR(U32, maxRxPktData, 1490)
  KIV_ATTR(IpAddr, rxIpAddr)       ///< Local IPv4 address; zero: all of them.
  KIV_ATTR(Ip6Addr, rxIp6Addr)     ///< Local IPv6 address; zero: all of them.
  KIV_ATTR(U16, rxPortLocal, 0)    ///< Local port, host order; 0: the system's choice.
  KIV_ATTR(U32, rxIfIndex, 0)      ///< Of the last datagram: the interface it came by.
  KIV_ATTR(IpAddr, rxSrcIpAddr)    ///< Of the last datagram: its source, IPv4.
  KIV_ATTR(IpAddr, rxDstIpAddr)    ///< Of the last datagram: its destination, IPv4.
  KIV_ATTR(Ip6Addr, rxSrcIp6Addr)  ///< Of the last datagram: its source, IPv6.
  KIV_ATTR(Ip6Addr, rxDstIp6Addr)  ///< Of the last datagram: its destination, IPv6.
  KIV_ATTR(U16, rxSrcPort, 0)      ///< Of the last datagram: its source port, host order.
  KIV_ATTR(S32, rxTTL, -1)
  KIV_ATTR(S32, rxTOS, -1)
  KIV_ATTR_COUNTER(U64, rxPkts)
  KIV_ATTR_READ(bool, socketConnected, false)  ///< Whether the socket is connected to one peer.
  KIV_ATTR(bool, enableIpMulticastLoop, true)
  KIV_ATTR_DERIVED(Kiv::Ptr<Kiv::FileDescriptor>, fileDesc)
  KIV_ATTR_DERIVED(Kiv::Ptr<PamFdSm>, fdSm)
  KIV_ATTR_HOOK(bool, enableRxTTL, false, handleRxTTL)
  KIV_ATTR_HOOK(bool, enableRxTOS, false, handleRxTOS)
  KIV_ATTR(bool, reusePort, false)
  KIV_ATTR(bool, exclusivePort, false)
  KIV_ATTR_HOOK(U8, socketReadLimit, 64, checkSocketReadLimit)
  KIV_ATTR_READ(bool, enableGro, false)
  KIV_ATTR(bool, enableGso, false)

  static constexpr U8 maxSocketReadLimit = 128;

  explicit UdpPam(Kiv::String name);
  ~UdpPam() override;

  /// On applies at once, too; if the kernel refuses, throws `Kiv::ErrnoException` "setsockopt(UDP_GRO)" and
  /// changes nothing. Off applies at the next opening.
  void enableGroIs(bool on);

  /// Of the datagram in slot `index` of the latest batch; all unknown for a slot without one.
  UdpRxMetadata rxMetadata(U16 index) const;

  using Pam::txPktBulk;
  /// Sends datagrams, each to its own destination; see `Pam::txPktBulk`. In `client` mode, once connected,
  /// those to another destination than the Pam's are lost (EISCONN). `txSrcIpAddr` and its like do not apply.
  U32 txPktBulk(std::span<const UdpTxPkt> pkts);

  /// Grows the socket's receive buffer, past the system's limit (SO_RCVBUFFORCE), to at least `size` octets.
  /// Returns 0, or -1 without a socket. Throws `Kiv::ErrnoException` "Error increasing socket buffer size" if
  /// the kernel refuses or grants less (ENOBUFS).
  int incSockBufSize(int size);

  /// Joins or leaves an IPv6 multicast group on the interface (0: the system's choice). Returns 0 or an
  /// errno: ENODEV without a socket, EINVAL on an IPv4 socket and for an address that is not multicast.
  int handleMcastGroup(const Ip6Addr& group, bool join, U32 ifindex);
  /// Joins or leaves an IPv4 multicast group on a device of the socket's namespace. Returns 0 or an errno:
  /// ENODEV without a socket or a device of the name, EINVAL on an IPv6 socket and for an address that is not
  /// multicast.
  int handleV4McastGroup(const Kiv::String& devName, IpAddr mcastAddr, bool join);

  /// The local port: of the open socket if it has one, else `rxPortLocal`.
  U16 rxPort() const;
  void rxPortIs(U16 port) { rxPortLocalIs(port); }

 protected:
  virtual void handleTxTos();
  virtual void handleMode();
  virtual void handleNetNs();
  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  U32 doTxPktBulk(std::span<const Pkt::Ptr> pkts) override;
  void doGetRxPkt() override;
  S32 doGetBulkRxPkt() override;
  void applySocketOptions() override;
  void setUp(Change& changes) override;
  bool receives() const override { return mode() != Mode::send; }
  Kiv::Ptr<PamFdSm> newFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& fd) override;
  void forget(Change& changes) noexcept override;
  void openFailed(Change& changes) noexcept override { changes.put(mode, Mode(Mode::disabled)); }
  Loss lossOf(int error) const override;
  Kiv::String place() const override;
  const Kiv::TraceHandle& traceHandle() const override;
  Kiv::String who() const override;

 private:
  class BulkSource;
  struct Merged;

  void doNewSocket();
  void doBind();
  bool doConnect(Change& changes);
  void assertNotConnected();
  void checkSocketReadLimit();
  void handleRxTTL();
  void handleRxTOS();

  void setFirstOptions();
  void setTtl();
  /// Of the open socket.
  bool ipv6() const noexcept;
  IpGenAddr txDst() const;
  IpGenAddr rxSrc() const;
  U32 txBulk(std::span<const Pkt::Ptr> pkts, std::span<const UdpTxPkt> addressed);
  UdpRxMetadata metadataOf(const msghdr& message, const detail::RxSide& side) const;
  void record(const msghdr& message, const detail::RxSide& side, bool cut, U32 octets, U32 packets,
              Change& changes);
  bool isDrained() noexcept;
  void noteBatch(S32 received) noexcept;
  bool mergedLeft() const noexcept;
  bool receiveMerged();
  Pkt::Ptr nextSlice();
  U32 segmentBytes(U16 slot) const;
  bool isCutSlice(U16 slot, const Pkt& slice) const;
  void pullSlice();
  S32 sliceBatch();

  std::unique_ptr<Merged> merged_;
  std::vector<U16> sliceOf_;  // the merged datagram of each slot of a batch; empty: not merged
  S32 batchHeld_ = 0;         // size of a batch that was not returned, because a reactor threw
  bool gro_ = false;          // whether the socket merges
  bool drained_ = false;      // by the latest batch, in the event `drainedEvent_` (a readableCount)
  U32 drainedEvent_ = 0;
  U32 gsoLimit_ = 0;  // longest datagrams that the socket takes in one, 0 for none
};

/// "UdpPam echo: mode=server 10.0.0.1:7000 TOS=0 Prio=0".
KIV_API std::ostream& operator<<(std::ostream& out, const UdpPam& pam);

/// Makes a Pam with the given name.
KIV_API Kiv::Ptr<UdpPam> udpPamFactory(Kiv::String name);

}  // namespace Wirl
