// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/UdpPam.h"

#include <arpa/inet.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/Receive.h"
#include "Wirl/access/detail/Socket.h"

namespace Wirl {

using detail::Printed;

namespace {

Kiv::TraceHandle trace("UdpPam");

constexpr std::array<std::string_view, 4> kModeNames = {"disabled", "send", "client", "server"};

constexpr U32 kMaxDatagram = 65535;  // RFC 768

/// "192.0.2.1:7000", "[2001:db8::1]:7000".
std::string textOf(const IpGenAddr& address, U16 port) {
  const std::string text = address.stringValue();
  return (address.af() == AddressFamily::ipv6 ? "[" + text + "]" : text) + ":" + std::to_string(port);
}

}  // namespace

Kiv::String UdpPam::Mode::stringValue() const {
  return kModeNames[instance_];
}

UdpPam::Mode UdpPam::Mode::ModeInstance(std::string_view name) {
  const auto found = std::find(kModeNames.begin(), kModeNames.end(), name);
  if (found == kModeNames.end()) throw Kiv::RangeException("Invalid UdpPam::Mode");
  return static_cast<Instance>(found - kModeNames.begin());
}

UdpPam::UdpPam(Kiv::String name) : SocketPam(std::move(name)) {}

UdpPam::~UdpPam() {
  closeSocket();
}

void UdpPam::assertNotConnected() {
  KIV_ASSERT_AS(!socketConnected(), "!socketConnected()", name());
}

const Kiv::TraceHandle& UdpPam::traceHandle() const {
  return trace;
}

bool UdpPam::ipv6() const noexcept {
  return domain() == AF_INET6;
}

IpGenAddr UdpPam::txDst() const {
  return ipv6() ? IpGenAddr(txDstIp6Addr()) : IpGenAddr(txDstIpAddr());
}

IpGenAddr UdpPam::rxSrc() const {
  return ipv6() ? IpGenAddr(rxSrcIp6Addr()) : IpGenAddr(rxSrcIpAddr());
}

Kiv::String UdpPam::who() const {
  const std::string own = name();
  return txPort() == 0 ? own : own + " to " + textOf(txDst(), txPort());
}

Kiv::String UdpPam::place() const {
  return textOf(ipv6() ? IpGenAddr(rxIp6Addr()) : IpGenAddr(rxIpAddr()), rxPortLocal());
}

// Opening and closing
// ----------------------------------------------------------------------------------------

void UdpPam::handleMode() {
  KIV_TRACE(trace, 5) << name() << ": mode is: " << mode();
  doNewSocket();
}

void UdpPam::handleNetNs() {
  KIV_TRACE(trace, 5) << name() << ": network namespace is: " << netNs();
  if (mode() != Mode::disabled) doNewSocket();
}

void UdpPam::doNewSocket() {
  reopen(mode() != Mode::disabled, {ipv6En() ? AF_INET6 : AF_INET, SOCK_DGRAM, 0}, netNs());
}

void UdpPam::setUp(Change&) {
  setFirstOptions();
  KIV_TRACE(trace, 5) << name() << ": Socket fd is " << fd() << ", mode is " << mode();
  KIV_TRACE(trace, 5) << "Done setting file desc " << name();
  handleTxTos();
  setTtl();
  if (mode() != Mode::send) doBind();
}

Kiv::Ptr<PamFdSm> UdpPam::newFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& opened) {
  return receives() ? PamFdSmIs(opened, this) : nullptr;
}

void UdpPam::forget(Change& changes) noexcept {
  changes.put(socketConnected, false);
}

void UdpPam::setFirstOptions() {
  if (!ipv6()) {
    setOption(IPPROTO_IP, IP_PKTINFO, 1, "setsockopt(IP_PKTINFO)", "Failed to set socket option");
    setOption(SOL_SOCKET, SO_BROADCAST, 1, "setsockopt(SO_BROADCAST)", "Failed to set broadcast flag");
    if (!enableIpMulticastLoop()) {
      setOption(IPPROTO_IP, IP_MULTICAST_LOOP, 0, "setsockopt(IP_MULTICAST_LOOP)",
                "Failed to set IP_MULTICAST_LOOP flag");
    }
    if (txPrio() != 0) {
      KIV_TRACE(trace, 5) << name() << ": Prio=" << txPrio();
      setOption(SOL_SOCKET, SO_PRIORITY, static_cast<int>(txPrio()), "setsockopt(SO_PRIORITY)",
                "Failed to set SO_PRIORITY");
    }
    if (txTTL() != 0) {
      const U8 ttl = txTTL();  // the kernel takes one octet, too
      setOption(IPPROTO_IP, IP_TTL, &ttl, sizeof(ttl), "setsockopt(IP_TTL)", "Failed to set IP_TTL");
    }
  }
  setOption(SOL_SOCKET, SO_REUSEADDR, 1, "setsockopt(SO_REUSEADDR)", "Failed to set SO_REUSEADDR flag");
}

/// What the first options leave out.
void UdpPam::setTtl() {
  if (txTTL() == 0) return;
  if (ipv6()) {
    setOption(IPPROTO_IPV6, IPV6_UNICAST_HOPS, txTTL(), "setsockopt(IPV6_UNICAST_HOPS)");
    setOption(IPPROTO_IPV6, IPV6_MULTICAST_HOPS, txTTL(), "setsockopt(IPV6_MULTICAST_HOPS)");
  } else {
    setOption(IPPROTO_IP, IP_MULTICAST_TTL, txTTL(), "setsockopt(IP_MULTICAST_TTL)");
  }
}

void UdpPam::handleRxTTL() {
  if (fd() < 0) return;
  if (ipv6()) {
    setOption(IPPROTO_IPV6, IPV6_RECVHOPLIMIT, enableRxTTL(), "setsockopt(IPV6_RECVHOPLIMIT)");
  } else {
    setOption(IPPROTO_IP, IP_RECVTTL, enableRxTTL(), "setsockopt(IP_RECVTTL)");
  }
}

void UdpPam::handleRxTOS() {
  if (fd() < 0) return;
  if (ipv6()) {
    setOption(IPPROTO_IPV6, IPV6_RECVTCLASS, enableRxTOS(), "setsockopt(IPV6_RECVTCLASS)");
  } else {
    setOption(IPPROTO_IP, IP_RECVTOS, enableRxTOS(), "setsockopt(IP_RECVTOS)");
  }
}

void UdpPam::doBind() {
  if (enableRxTTL()) handleRxTTL();
  if (enableRxTOS()) handleRxTOS();
  IpGenAddr local = rxIpAddr();
  if (ipv6()) {
    setOption(IPPROTO_IPV6, IPV6_V6ONLY, 1, "setsockopt(IPV6_V6ONLY)");
    in6_addr parsed{};
    if (inet_pton(AF_INET6, rxIp6Addr().stringValue().c_str(), &parsed) < 0) fail(errno, "pton");
    local = detail::addressOf(parsed);
  }
  KIV_TRACE(trace, 5) << name() << ": Binding socket to " << local << ":" << rxPortLocal();
  const detail::SockAddr address(local, rxPortLocal(), 0);
  if (bind(fd(), address.get(), address.length()) < 0) fail(errno, "bind");
  if (ipv6()) {
    setOption(IPPROTO_IPV6, IPV6_RECVPKTINFO, 1, "setsockopt(IPV6_RECVPKTINFO)",
              "Failed to set IPV6_RECVPKTINFO");
  }
}

void UdpPam::handleTxTos() {
  KIV_TRACE(trace, 5) << name() << ": txTos is: " << txTos();
  if (fd() < 0) {
    KIV_TRACE(trace, 5) << name() << ": socket not initialized";
    return;
  }
  if (ipv6()) {
    setOption(IPPROTO_IPV6, IPV6_TCLASS, txTos(), "setsockopt(IPV6_TCLASS)", "Failed to set IPV6_TCLASS");
  } else {
    const U8 tos = txTos();
    setOption(IPPROTO_IP, IP_TOS, &tos, sizeof(tos), "setsockopt(IP_TOS)", "Failed to set IP_TOS");
  }
}

// Sending
// ----------------------------------------------------------------------------------------------------

bool UdpPam::doConnect() {
  if (mode() != Mode::client || socketConnected()) return true;
  if (!ipv6() && !txDstIpAddr().isUnicast()) {
    KIV_TRACE(trace, 5) << name() << ": " << txDstIpAddr() << " not a unicast address";
    return true;
  }
  KIV_TRACE(trace, 5) << name() << ": Connecting to " << txDst() << ":" << txPort();
  const detail::SockAddr peer(txDst(), txPort(), txIfIndex());
  if (connect(fd(), peer.get(), peer.length()) < 0) {
    const int error = errno;
    KIV_TRACE(trace, 0) << Printed{[this] { return who(); }} << ": connect failed with " << error << " ("
                        << detail::errorPrinted(error) << ") ";
    return false;
  }
  socketConnected.set(true);
  return true;
}

void UdpPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(mode() != Mode::disabled, "mode() != disabled()", name());
  KIV_ASSERT_AS(pkt, "pkt", name());
  detail::TxMessage message(pkt);
  const auto me = Printed{[this] { return who(); }};
  KIV_TRACE(trace, 8) << me << ": Sending pkt of size " << pkt->bytes();
  if (!doConnect()) return;
  KIV_ASSERT_AS(txPort() != U16(), "txPort() != U16()", name());

  if (!socketConnected()) message.toIs(detail::SockAddr(txDst(), txPort(), txIfIndex()));
  const IpGenAddr from = ipv6() ? IpGenAddr(txSrcIp6Addr()) : IpGenAddr(txSrcIpAddr());
  if (!from.isUnspecified() || txIfIndex() != 0) {
    KIV_TRACE(trace, 8) << me << ": Sending pkt with src ip " << from;
    KIV_TRACE(trace, 8) << me << ": Sending pkt with txIfIndex " << txIfIndex();
    message.fromIs(from, txIfIndex());
    KIV_TRACE(trace, 8) << me << ": Sending pkt to ifindex " << txIfIndex();
    Change spent(this);
    if (ipv6()) {
      spent.put(txSrcIp6Addr, Ip6Addr());
    } else {
      spent.put(txSrcIpAddr, IpAddr());
    }
    spent.put(txIfIndex, U32{0});
    spent.tell();
  }
  const int error = send(message);
  if (error == 0 || error == ECONNREFUSED) txPktsInc(1);
}

// Receiving
// --------------------------------------------------------------------------------------------------

void UdpPam::doGetRxPkt() {
  if (mode() == Mode::send && !rxPktHeld()) return;
  detail::Received got;
  if (!receive(got, std::min(maxRxPktData(), kMaxDatagram))) return;
  Change changes(this);
  record(got, changes);
  changes.put(rxPkts, rxPkts() + 1);
  deliver(std::move(got.pkt), changes);
}

void UdpPam::record(const detail::Received& got, Change& changes) {
  if (ipv6()) {
    const auto from = got.side.peerAs<sockaddr_in6>();
    changes.put(rxSrcIp6Addr, detail::addressOf(from.sin6_addr));
    changes.put(rxSrcPort, ntohs(from.sin6_port));
  } else {
    const auto from = got.side.peerAs<sockaddr_in>();
    changes.put(rxSrcIpAddr, detail::addressOf(from.sin_addr));
    changes.put(rxSrcPort, ntohs(from.sin_port));
  }
  const auto from = Printed{[this] { return std::string(name()) + " from " + textOf(rxSrc(), rxSrcPort()); }};
  KIV_TRACE(trace, 8) << from << ": Received packet of size " << got.pkt->bytes();
  if ((got.message.msg_flags & MSG_TRUNC) != 0) {
    KIV_TRACE(trace, 0) << from << ": Datagram truncated to " << got.pkt->bytes();
  }
  const detail::IpControl told = detail::ipControlOf(got.message);
  if (told.pktInfo) {
    KIV_TRACE(trace, 8) << from << ": Received from ifindex " << told.ifIndex << " with src IP " << rxSrc()
                        << " and dest IP " << told.dstIpAddr;
    changes.put(rxIfIndex, told.ifIndex);
    if (ipv6()) {
      changes.put(rxDstIp6Addr, told.dstIpAddr.v6Addr());
    } else {
      changes.put(rxDstIpAddr, told.dstIpAddr.v4Addr());
    }
  } else {
    KIV_TRACE(trace, 1) << from << ": recvmsg failed to retrieve ifindex";
  }
  changes.put(rxTTL, told.ttl);
  changes.put(rxTOS, told.tos);
}

// The rest
// ---------------------------------------------------------------------------------------------------

int UdpPam::incSockBufSize(int size) {
  if (fd() < 0) return -1;
  constexpr const char* kFailed = "Error increasing socket buffer size";
  int granted = 0;
  socklen_t length = sizeof(granted);
  if (setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) < 0 ||
      getsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &granted, &length) < 0) {
    fail(errno, kFailed);
  }
  if (granted < size) fail(ENOBUFS, kFailed);
  return 0;
}

int UdpPam::handleMcastGroup(const Ip6Addr& group, bool join, U32 ifindex) {
  if (fd() < 0) return ENODEV;
  if (!ipv6() || !group.isMulticast()) return EINVAL;
  return detail::membershipIs(fd(), group, join, ifindex);
}

int UdpPam::handleV4McastGroup(const Kiv::String& devName, IpAddr mcastAddr, bool join) {
  if (fd() < 0) return ENODEV;
  if (ipv6() || !mcastAddr.isMulticast()) return EINVAL;
  ifreq device;
  if (!detail::deviceIs(fd(), SIOCGIFINDEX, devName, device)) return errno;
  return detail::membershipIs(fd(), mcastAddr, join, static_cast<U32>(device.ifr_ifindex));
}

U16 UdpPam::rxPort() const {
  detail::SockAddr local;
  return fd() >= 0 && getsockname(fd(), local.get(), &local.length()) == 0 ? local.port() : rxPortLocal();
}

std::ostream& operator<<(std::ostream& out, const UdpPam& pam) {
  out << "UdpPam " << pam.name() << ": mode=" << pam.mode() << " ";
  if (pam.ipv6En()) {
    out << "[" << pam.rxIp6Addr() << "]";
  } else {
    out << pam.rxIpAddr();
  }
  return out << ":" << pam.rxPort() << " TOS=" << unsigned{pam.txTos()} << " Prio=" << pam.txPrio();
}

Kiv::Ptr<UdpPam> udpPamFactory(Kiv::String name) {
  return Kiv::makePtr<UdpPam>(std::move(name));
}

}  // namespace Wirl
