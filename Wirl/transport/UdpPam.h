// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <exception>
#include <ostream>

#include "Kiv/FileDescriptor.h"
#include "Wirl/access/IpTrafficControl.h"
#include "Wirl/access/Pam.h"
#include "Wirl/access/PamFdSm.h"
#include "Wirl/access/detail/SocketDrops.h"
#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/NamespaceName.h"

namespace Wirl {

using Kiv::U64;

namespace detail {
struct RxSide;
}

/// One UDP socket (RFC 768), IPv4 or IPv6, in a named network namespace, driven by its attributes.
///
///     mode       socket   bound to rxIpAddr/rxIp6Addr:rxPortLocal   receives   connects before it sends
///     disabled   no
///     send       yes      no                                        no         no
///     client     yes      yes                                       yes        yes
///     server     yes      yes                                       yes        no
///
/// Every change of `mode`, and of `netNs` in an open mode, closes the socket and, for an open mode, opens a
/// new one. The other attributes that shape the socket (`ipv6En`, the local address and port, `txTTL`,
/// `txPrio`, `enableIpMulticastLoop`) are read when it is opened; `txTos` is also applied at once.
///
/// Opening throws `Kiv::ErrnoException` with the failed call in its text ("setsockopt(IP_PKTINFO)", "bind",
/// ...), closes what it opened and leaves the Pam `disabled`, to be tried again.
///
/// Sending: set the destination and `txPort`, then `txPktIs`. `txSrcIpAddr`, `txSrcIp6Addr` and `txIfIndex`
/// choose the source and the interface of the next datagram only. A failed send sets `txErrno` and drops the
/// packet; an ECONNREFUSED, which is about an earlier datagram, counts as sent. In `client` mode the first
/// send connects the socket to the destination, which is fixed from then on until the socket is closed.
///
/// Receiving: `rxPkt` gives one datagram a packet and sets the `rx...` attributes for it. A datagram longer
/// than `maxRxPktData` is delivered cut to that. `rxDrops` is the kernel's count of datagrams for which the
/// sockets of this Pam had no room.
class KIV_API UdpPam : public Pam {
 public:
  /// What the socket is for.
  class KIV_API Mode {
   public:
    enum Instance : U8 { disabled, send, client, server };

    constexpr Mode(Instance instance = disabled) noexcept : instance_(instance) {}
    constexpr operator Instance() const noexcept { return instance_; }
    /// The mode's name.
    Kiv::String stringValue() const;
    /// The mode of a name; throws `Kiv::RangeException` "Invalid UdpPam::Mode".
    static Mode ModeInstance(std::string_view name);
    friend std::ostream& operator<<(std::ostream& out, Mode value) { return out << value.stringValue(); }

   private:
    Instance instance_;
  };

  KIV_ENTITY(UdpPam, Pam)
  KIV_ATTR(bool, ipv6En, false)
  KIV_ATTR_HOOK(Mode, mode, Mode::disabled, handleMode)
  KIV_ATTR_HOOK(NamespaceName, netNs, NamespaceName("default"), handleNetNs)
  KIV_ATTR_HOOK(U8, txTos, 0, handleTxTos)
  KIV_ATTR(U8, txTTL, 0)
  KIV_ATTR(IpTrafficControl, txPrio, tcPrioBestEffort)
  KIV_ATTR_HOOK(IpAddr, txDstIpAddr, IpAddr(), assertNotConnected)
  KIV_ATTR_HOOK(Ip6Addr, txDstIp6Addr, Ip6Addr(), assertNotConnected)
  KIV_ATTR(IpAddr, txSrcIpAddr)
  KIV_ATTR(Ip6Addr, txSrcIp6Addr)
  KIV_ATTR(U32, txIfIndex, 0)
  KIV_ATTR_HOOK(U16, txPort, 0, assertNotConnected)
  KIV_ATTR_COUNTER(U64, txPkts)
  KIV_ATTR(U32, maxRxPktData, 1490)
  KIV_ATTR(IpAddr, rxIpAddr)
  KIV_ATTR(Ip6Addr, rxIp6Addr)
  KIV_ATTR(U16, rxPortLocal, 0)
  KIV_ATTR(U32, rxIfIndex, 0)
  KIV_ATTR(IpAddr, rxSrcIpAddr)
  KIV_ATTR(IpAddr, rxDstIpAddr)
  KIV_ATTR(Ip6Addr, rxSrcIp6Addr)
  KIV_ATTR(Ip6Addr, rxDstIp6Addr)
  KIV_ATTR(U16, rxSrcPort, 0)
  KIV_ATTR(S32, rxTTL, -1)
  KIV_ATTR(S32, rxTOS, -1)
  KIV_ATTR_COUNTER(U64, rxPkts)
  KIV_ATTR_READ(bool, socketConnected, false)
  KIV_ATTR(bool, enableIpMulticastLoop, true)
  KIV_ATTR_READ(Kiv::Ptr<Kiv::FileDescriptor>, fileDesc)
  KIV_ATTR_READ(Kiv::Ptr<PamFdSm>, fdSm)

  explicit UdpPam(Kiv::String name);
  ~UdpPam() override;

  /// Grows the socket's receive buffer, past the system's limit (SO_RCVBUFFORCE), to `size` octets at least.
  /// Returns 0, or -1 without a socket. Throws `Kiv::ErrnoException` "Error increasing socket buffer size"
  /// when the kernel refuses or grants less (ENOBUFS).
  int incSockBufSize(int size);

  /// Joins or leaves an IPv6 multicast group on the interface (0: the system's choice). Returns 0 or an
  /// errno: ENODEV without a socket, EINVAL on an IPv4 socket and for an address that is not multicast.
  int handleMcastGroup(const Ip6Addr& group, bool join, U32 ifindex);
  /// Joins or leaves an IPv4 multicast group on a device of the socket's namespace. Returns 0 or an errno:
  /// ENODEV without a socket or a device of the name, EINVAL on an IPv6 socket and for an address that is not
  /// multicast.
  int handleV4McastGroup(const Kiv::String& devName, IpAddr mcastAddr, bool join);

  U32 rxDrops() const override;
  void rxDropsIs(U32 value) override;

  /// The local port in use: that of the open socket once it has one, else `rxPortLocal`.
  U16 rxPort() const;
  void rxPortIs(U16 port) { rxPortLocalIs(port); }

 protected:
  virtual void handleTxTos();
  virtual void handleMode();
  virtual void handleNetNs();
  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  void doGetRxPkt() override;

 private:
  struct SockAddr {
    sockaddr_storage storage;
    socklen_t length;
  };
  /// What there was to close, and so is to be told of.
  struct Closed {
    bool fileDesc, fdSm, connection;
    std::exception_ptr thrown;  // by a reactor to the descriptor object
  };

  void reopen();
  void doNewSocket(U32 turn);
  void doBind();
  bool doConnect();
  void doDelSocket();
  Closed closeSocket() noexcept;
  void tell(const Closed& closed);
  void collectDrops() const;
  void fileDescIs(Kiv::String name);
  Kiv::Ptr<Kiv::FileDescriptor> fileDescDel();
  void assertNotConnected();

  int fd() const noexcept { return fileDesc() ? fileDesc()->descriptor() : -1; }
  void setFirstOptions(int socket);
  SockAddr destination() const noexcept;
  void recordMetadata(msghdr& message, const detail::RxSide& side);

  bool ipv6_ = false;  // of the open socket, whatever ipv6En has been set to since
  Pkt::Ptr spare_;     // for the next receive, if it is nobody else's then
  mutable detail::SocketDrops drops_;
  U32 turn_ = 0;  // of opening and closing: tells one who notified that somebody else went on
};

/// "UdpPam echo: mode=server 10.0.0.1:7000 TOS=0 Prio=0".
KIV_API std::ostream& operator<<(std::ostream& out, const UdpPam& pam);

/// Makes a Pam with the given name.
KIV_API Kiv::Ptr<UdpPam> udpPamFactory(Kiv::String name);

}  // namespace Wirl
