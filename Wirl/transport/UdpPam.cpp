// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/UdpPam.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "Kiv/ActivityLoop.h"
#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/Receive.h"
#include "Wirl/access/detail/closeDescriptor.h"
#include "Wirl/access/socketAt.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("UdpPam");

using detail::dataOf;

constexpr std::array<std::string_view, 4> kModeNames = {"disabled", "send", "client", "server"};

/// No datagram is longer (RFC 768).
constexpr U32 kMaxDatagram = 65535;

template <typename T>
int setOption(int fd, int level, int option, const T& value) {
  return setsockopt(fd, level, option, &value, sizeof(value));
}

sockaddr_in sockAddrOf(IpAddr address, U16 port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  result.sin_addr.s_addr = address.netOrder();
  return result;
}

sockaddr_in6 sockAddrOf(const Ip6Addr& address, U16 port) {
  sockaddr_in6 result{};
  result.sin6_family = AF_INET6;
  result.sin6_port = htons(port);
  address.copyToBuffer(result.sin6_addr.s6_addr);
  return result;
}

const sockaddr* generic(const void* address) {
  return static_cast<const sockaddr*>(address);
}

Ip6Addr addressOf(const in6_addr& octets) {
  Ip6Addr address;
  address.copyFromBuffer(octets.s6_addr);
  return address;
}

/// Room for one control message of type `T`.
template <typename T>
struct Control {
  alignas(cmsghdr) char octets[CMSG_SPACE(sizeof(T))] = {};

  void attach(msghdr& message, int level, int type, const T& data) {
    message.msg_control = octets;
    message.msg_controllen = sizeof(octets);
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = level;
    header->cmsg_type = type;
    header->cmsg_len = CMSG_LEN(sizeof(T));
    std::memcpy(CMSG_DATA(header), &data, sizeof(T));
  }
};

}  // namespace

Kiv::String UdpPam::Mode::stringValue() const {
  return kModeNames[instance_];
}

UdpPam::Mode UdpPam::Mode::ModeInstance(std::string_view name) {
  const auto found = std::find(kModeNames.begin(), kModeNames.end(), name);
  if (found == kModeNames.end()) throw Kiv::RangeException("Invalid UdpPam::Mode");
  return static_cast<Instance>(found - kModeNames.begin());
}

UdpPam::UdpPam(Kiv::String name) : Pam(std::move(name)) {}

UdpPam::~UdpPam() {
  closeSocket();
}

void UdpPam::assertNotConnected() {
  KIV_ASSERT_AS(!socketConnected(), "!socketConnected()");
}

// Opening and closing
// ----------------------------------------------------------------------------------------

void UdpPam::handleMode() {
  KIV_TRACE(trace, 5) << "mode is: " << mode();
  reopen();
}

void UdpPam::handleNetNs() {
  KIV_TRACE(trace, 5) << "network namespace is: " << netNs();
  if (mode() != Mode::disabled) reopen();
}

/// Closes the socket and, unless the mode is `disabled`, opens one. Where that fails there is none, and the
/// mode says so. Every change that reactors are told of may make them close or open the Pam themselves: theirs
/// is the newer turn then, and this one is over. What they throw when a failure is told of gives way to it.
void UdpPam::reopen() {
  const U32 turn = ++turn_;
  try {
    doDelSocket();
    if (turn == turn_ && mode() != Mode::disabled) doNewSocket(turn);
  } catch (...) {
    if (turn == turn_) {
      const Closed closed = closeSocket();
      detail::doQuietly([&] { mode.set(Mode::disabled); });
      detail::doQuietly([&] { tell(closed); });
    }
    throw;
  }
}

void UdpPam::doNewSocket(U32 turn) {
  ipv6_ = ipv6En();
  const int family = ipv6_ ? AF_INET6 : AF_INET;
  Kiv::activityLoop();  // made, if it was not, before there is a socket to lose
  const int socket = socketAt(family, SOCK_DGRAM, 0, netNs());
  if (socket < 0) throw Kiv::ErrnoException(errno, "socket");
  setFirstOptions(socket);
  KIV_TRACE(trace, 5) << "Socket fd is " << socket << ", mode is " << mode();
  KIV_ASSERT_AS(!fileDesc(), "!fileDesc()");
  fileDescIs(name());
  const Kiv::Ptr<Kiv::FileDescriptor> opened = fileDesc();
  // Nothing is watched before the socket is set up, so that no event precedes the first count.
  opened->notifyOnReadableIs(false);
  try {
    opened->descriptorIs(socket);
  } catch (...) {
    close(socket);
    throw;
  }
  opened->nonBlockingIs(true);
  KIV_TRACE(trace, 5) << "Done setting file desc " << name();
  handleTxTos();
  if (mode() != Mode::send) {
    doBind();
    opened->notifyOnReadableIs(true);
  }
  fileDesc.notifiees().notify();
  if (turn != turn_ || mode() == Mode::send) return;
  const Kiv::Ptr<PamFdSm> sm = PamFdSmIs(opened, this);
  if (turn == turn_) fdSm.set(sm);
}

void UdpPam::setFirstOptions(int socket) {
  const auto check = [socket](int result, const char* complaint, const char* call) {
    if (result == 0) return;
    const int error = errno;
    close(socket);
    KIV_TRACE(trace, 0) << complaint << ", errno: " << error;
    throw Kiv::ErrnoException(error, call);
  };
  const int on = 1;
  const int off = 0;
  if (!ipv6_) {
    check(setOption(socket, IPPROTO_IP, IP_PKTINFO, on), "Failed to set socket option",
          "setsockopt(IP_PKTINFO)");
    check(setOption(socket, SOL_SOCKET, SO_BROADCAST, on), "Failed to set broadcast flag",
          "setsockopt(SO_BROADCAST)");
    if (!enableIpMulticastLoop()) {
      check(setOption(socket, IPPROTO_IP, IP_MULTICAST_LOOP, off), "Failed to set IP_MULTICAST_LOOP flag",
            "setsockopt(IP_MULTICAST_LOOP)");
    }
    if (txPrio() != 0) {
      KIV_TRACE(trace, 5) << "Prio=" << txPrio();
      const int priority = static_cast<int>(txPrio());
      check(setOption(socket, SOL_SOCKET, SO_PRIORITY, priority), "Failed to set SO_PRIORITY",
            "setsockopt(SO_PRIORITY)");
    }
    if (txTTL() != 0) {
      const U8 ttl = txTTL();  // one octet, as the kernel takes it too
      check(setOption(socket, IPPROTO_IP, IP_TTL, ttl), "Failed to set IP_TTL", "setsockopt(IP_TTL)");
    }
  }
  check(setOption(socket, SOL_SOCKET, SO_REUSEADDR, on), "Failed to set SO_REUSEADDR flag",
        "setsockopt(SO_REUSEADDR)");
}

void UdpPam::doBind() {
  if (!ipv6_) {
    KIV_TRACE(trace, 5) << "Binding socket to " << rxIpAddr() << ":" << rxPortLocal();
    const sockaddr_in local = sockAddrOf(rxIpAddr(), rxPortLocal());
    if (bind(fd(), generic(&local), sizeof(local)) < 0) throw Kiv::ErrnoException(errno, "bind");
    return;
  }
  KIV_TRACE(trace, 5) << "Binding socket to " << rxIp6Addr() << ":" << rxPortLocal();
  sockaddr_in6 local = sockAddrOf(Ip6Addr(), rxPortLocal());
  if (inet_pton(AF_INET6, rxIp6Addr().stringValue().c_str(), &local.sin6_addr) < 0) {
    throw Kiv::ErrnoException(errno, "pton");
  }
  if (bind(fd(), generic(&local), sizeof(local)) < 0) throw Kiv::ErrnoException(errno, "bind");
  if (setOption(fd(), IPPROTO_IPV6, IPV6_RECVPKTINFO, 1) < 0) {
    const int error = errno;
    KIV_TRACE(trace, 0) << "Failed to set IPV6_RECVPKTINFO, errno: " << error;
    throw Kiv::ErrnoException(error, "setsockopt(IPV6_RECVPKTINFO)");
  }
}

void UdpPam::handleTxTos() {
  KIV_TRACE(trace, 5) << "txTos is: " << txTos();
  if (fd() < 0) {
    KIV_TRACE(trace, 5) << "socket not initialized";
    return;
  }
  const int failed = ipv6_ ? setOption(fd(), IPPROTO_IPV6, IPV6_TCLASS, int{txTos()})
                           : setOption(fd(), IPPROTO_IP, IP_TOS, U8{txTos()});
  if (failed == 0) return;
  const int error = errno;
  collectDrops();
  drops_.reset();
  detail::closeDescriptor(Kiv::Ptr<Kiv::FileDescriptor>(fileDesc()), close);
  KIV_TRACE(trace, 0) << (ipv6_ ? "Failed to set IPV6_TCLASS, errno: " : "Failed to set IP_TOS, errno: ")
                      << error;
  throw Kiv::ErrnoException(error, ipv6_ ? "setsockopt(IPV6_TCLASS)" : "setsockopt(IP_TOS)");
}

void UdpPam::doDelSocket() {
  tell(closeSocket());
}

/// When all of it is done: whoever hears of one finds the Pam closed.
void UdpPam::tell(const Closed& closed) {
  const auto tellFdSm = [&] {
    if (closed.fdSm) fdSm.notifiees().notify();
  };
  const auto tellFileDesc = [&] {
    if (closed.fileDesc) fileDesc.notifiees().notify();
  };
  detail::doBoth(tellFdSm, [&] {
    detail::doBoth(tellFileDesc, [&] {
      if (closed.connection) socketConnected.notifiees().notify();
    });
  });
  if (closed.thrown) std::rethrow_exception(closed.thrown);
}

/// Closes without a word to the reactors.
UdpPam::Closed UdpPam::closeSocket() noexcept {
  Closed closed = {fileDesc() != nullptr, fdSm() != nullptr, socketConnected(), nullptr};
  collectDrops();  // the kernel's count goes with the socket
  drops_.reset();
  if (fdSm()) fdSm()->fileDescDel();  // whoever else holds it: it counts for this Pam no more
  fdSm.store(nullptr);
  socketConnected.store(false);
  closed.thrown = detail::closeDescriptor(fileDescDel(), close);
  return closed;
}

void UdpPam::collectDrops() const {
  const U32 drops = drops_.sinceLast(fd());
  // What changes is where the sum is kept, not the sum.
  if (drops != 0) const_cast<UdpPam*>(this)->Pam::rxDropsIs(Pam::rxDrops() + drops);
}

U32 UdpPam::rxDrops() const {
  collectDrops();
  return Pam::rxDrops();
}

void UdpPam::rxDropsIs(U32 value) {
  collectDrops();
  Pam::rxDropsIs(value);
}

void UdpPam::fileDescIs(Kiv::String name) {
  fileDesc.store(Kiv::makePtr<Kiv::FileDescriptor>(std::move(name)));
}

Kiv::Ptr<Kiv::FileDescriptor> UdpPam::fileDescDel() {
  Kiv::Ptr<Kiv::FileDescriptor> former = fileDesc();
  fileDesc.store(nullptr);
  return former;
}

// Sending
// ----------------------------------------------------------------------------------------------------

bool UdpPam::doConnect() {
  if (mode() != Mode::client || socketConnected()) return true;
  if (ipv6_) {
    KIV_TRACE(trace, 5) << "Connecting to " << txDstIp6Addr() << ":" << txPort();
  } else if (!txDstIpAddr().isUnicast()) {
    KIV_TRACE(trace, 5) << txDstIpAddr() << " not a unicast address";
    return true;
  } else {
    KIV_TRACE(trace, 5) << "Connecting to " << txDstIpAddr() << ":" << txPort();
  }
  const SockAddr peer = destination();
  if (connect(fd(), generic(&peer.storage), peer.length) < 0) {
    const int error = errno;
    KIV_TRACE(trace, 0) << "connect failed with " << error << " (" << Kiv::errorText(error) << ") ";
    return false;
  }
  socketConnected.set(true);
  return true;
}

UdpPam::SockAddr UdpPam::destination() const noexcept {
  SockAddr result;
  const auto fill = [&result](const auto& address) {
    std::memcpy(&result.storage, &address, sizeof(address));
    result.length = sizeof(address);
  };
  if (ipv6_) {
    fill(sockAddrOf(txDstIp6Addr(), txPort()));
  } else {
    fill(sockAddrOf(txDstIpAddr(), txPort()));
  }
  return result;
}

void UdpPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(mode() != Mode::disabled, "mode() != disabled()");
  KIV_ASSERT_AS(pkt, "pkt");
  // A reactor to what follows may let go of the caller's pointer.
  const Pkt::Ptr sending = pkt;
  KIV_TRACE(trace, 8) << "Sending pkt of size " << sending->bytes();
  if (!doConnect()) return;
  KIV_ASSERT_AS(txPort() != U16(), "txPort() != U16()");

  msghdr message{};
  message.msg_iov = const_cast<iovec*>(sending->iovecs());  // sendmsg() only reads it
  message.msg_iovlen = sending->numIovecs();
  SockAddr peer;
  if (!socketConnected()) {
    peer = destination();
    message.msg_name = &peer.storage;
    message.msg_namelen = peer.length;
  }
  Control<in_pktinfo> control;
  Control<in6_pktinfo> control6;
  if (ipv6_) {
    if (!txSrcIp6Addr().isUnspecified() || txIfIndex() != 0) {
      KIV_TRACE(trace, 8) << "Sending pkt with src ip " << txSrcIp6Addr() << " txIfIndex " << txIfIndex();
      in6_pktinfo info{};
      txSrcIp6Addr().copyToBuffer(info.ipi6_addr.s6_addr);
      info.ipi6_ifindex = txIfIndex();
      control6.attach(message, IPPROTO_IPV6, IPV6_PKTINFO, info);
      txSrcIp6Addr.set(Ip6Addr());
      txIfIndex.set(0);
    }
  } else if (!txSrcIpAddr().isZero() || txIfIndex() != 0) {
    KIV_TRACE(trace, 8) << "Sending pkt with src ip " << txSrcIpAddr();
    KIV_TRACE(trace, 8) << "Sending pkt with txIfIndex " << txIfIndex();
    in_pktinfo info{};
    info.ipi_ifindex = static_cast<int>(txIfIndex());
    info.ipi_spec_dst.s_addr = txSrcIpAddr().netOrder();
    control.attach(message, IPPROTO_IP, IP_PKTINFO, info);
    KIV_TRACE(trace, 8) << "Sending pkt to ifindex " << info.ipi_ifindex;
    txSrcIpAddr.set(IpAddr());
    txIfIndex.set(0);
  }
  if (sendmsg(fd(), &message, 0) < 0) {
    const int error = errno;
    txErrnoIs(error);
    KIV_TRACE(trace, 0) << "sendmsg failed with " << error << " (" << Kiv::errorText(error) << ") ";
    if (error != ECONNREFUSED) return;
  }
  txPktsInc(1);
}

// Receiving
// --------------------------------------------------------------------------------------------------

void UdpPam::doGetRxPkt() {
  if (!fdSm() && mode() == Mode::send) return;
  if (fd() < 0) return;
  msghdr message;
  detail::RxSide side;
  Pkt::Ptr pkt = detail::receivePkt(spare_, fd(), std::min(maxRxPktData(), kMaxDatagram), message, side);
  if (!pkt) {
    const int error = errno;
    if (error == EAGAIN) return;
    if (error == 0) {
      KIV_TRACE(trace, 0) << "Failed to obtain new packet object";
      return;
    }
    KIV_TRACE(trace, 0) << "recvmsg failed with " << error << " (" << Kiv::errorText(error) << ") ";
    rxErrorsInc(1);
    return;
  }
  KIV_TRACE(trace, 8) << "Received packet of size " << pkt->bytes();
  if ((message.msg_flags & MSG_TRUNC) != 0) KIV_TRACE(trace, 0) << "Datagram truncated to " << pkt->bytes();
  recordMetadata(message, side);
  rxPktsInc(1);
  rxPktHolderIs(std::move(pkt));
}

void UdpPam::recordMetadata(msghdr& message, const detail::RxSide& side) {
  if (ipv6_) {
    const auto from = side.peerAs<sockaddr_in6>();
    rxSrcIp6AddrIs(addressOf(from.sin6_addr));
    rxSrcPortIs(ntohs(from.sin6_port));
  } else {
    const auto from = side.peerAs<sockaddr_in>();
    rxSrcIpAddrIs(IpAddr::fromNetOrder(from.sin_addr.s_addr));
    rxSrcPortIs(ntohs(from.sin_port));
  }
  bool interfaceKnown = false;
  S32 ttl = -1;
  S32 tos = -1;
  for (cmsghdr* each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
    const auto is = [each](int level, int type) {
      return each->cmsg_level == level && each->cmsg_type == type;
    };
    if (is(IPPROTO_IP, IP_PKTINFO)) {
      const auto info = dataOf<in_pktinfo>(*each);
      interfaceKnown = true;
      rxIfIndexIs(static_cast<U32>(info.ipi_ifindex));
      rxDstIpAddrIs(IpAddr::fromNetOrder(info.ipi_addr.s_addr));
      KIV_TRACE(trace, 8) << "Received from ifindex " << rxIfIndex() << " with src IP " << rxSrcIpAddr()
                          << " and dest IP " << rxDstIpAddr();
    } else if (is(IPPROTO_IPV6, IPV6_PKTINFO)) {
      const auto info = dataOf<in6_pktinfo>(*each);
      interfaceKnown = true;
      rxIfIndexIs(info.ipi6_ifindex);
      rxDstIp6AddrIs(addressOf(info.ipi6_addr));
      KIV_TRACE(trace, 8) << "Received from ifindex " << rxIfIndex() << " with src IP " << rxSrcIp6Addr()
                          << " and dest IP " << rxDstIp6Addr();
    } else if (is(IPPROTO_IP, IP_TTL) || is(IPPROTO_IPV6, IPV6_HOPLIMIT)) {
      ttl = dataOf<int>(*each);
    } else if (is(IPPROTO_IP, IP_TOS)) {
      tos = dataOf<U8>(*each);
    } else if (is(IPPROTO_IPV6, IPV6_TCLASS)) {
      tos = dataOf<int>(*each);
    }
  }
  if (!interfaceKnown) KIV_TRACE(trace, 1) << "recvmsg failed to retrieve ifindex";
  rxTTLIs(ttl);
  rxTOSIs(tos);
}

// The rest
// ---------------------------------------------------------------------------------------------------

int UdpPam::incSockBufSize(int size) {
  if (fd() < 0) return -1;
  constexpr const char* kFailed = "Error increasing socket buffer size";
  int granted = 0;
  socklen_t length = sizeof(granted);
  if (setOption(fd(), SOL_SOCKET, SO_RCVBUFFORCE, size) < 0 ||
      getsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &granted, &length) < 0) {
    throw Kiv::ErrnoException(errno, kFailed);
  }
  if (granted < size) throw Kiv::ErrnoException(ENOBUFS, kFailed);
  return 0;
}

int UdpPam::handleMcastGroup(const Ip6Addr& group, bool join, U32 ifindex) {
  if (fd() < 0) return ENODEV;
  if (!ipv6_ || !group.isMulticast()) return EINVAL;
  ipv6_mreq request{};
  group.copyToBuffer(request.ipv6mr_multiaddr.s6_addr);
  request.ipv6mr_interface = ifindex;
  const int option = join ? IPV6_ADD_MEMBERSHIP : IPV6_DROP_MEMBERSHIP;
  return setOption(fd(), IPPROTO_IPV6, option, request) < 0 ? errno : 0;
}

int UdpPam::handleV4McastGroup(const Kiv::String& devName, IpAddr mcastAddr, bool join) {
  if (fd() < 0) return ENODEV;
  if (ipv6_ || !mcastAddr.isMulticast()) return EINVAL;
  ifreq device{};
  if (devName.bytes() >= sizeof(device.ifr_name)) return ENODEV;
  std::copy(devName.begin(), devName.end(), device.ifr_name);
  // Asked through the socket, which knows the devices of its own namespace.
  if (ioctl(fd(), SIOCGIFINDEX, &device) < 0) return errno;
  ip_mreqn request{};
  request.imr_multiaddr.s_addr = mcastAddr.netOrder();
  request.imr_ifindex = device.ifr_ifindex;
  const int option = join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP;
  return setOption(fd(), IPPROTO_IP, option, request) < 0 ? errno : 0;
}

U16 UdpPam::rxPort() const {
  sockaddr_storage local{};
  socklen_t length = sizeof(local);
  if (fd() < 0 || getsockname(fd(), reinterpret_cast<sockaddr*>(&local), &length) < 0) return rxPortLocal();
  // The port stands at the same place in both families.
  return ntohs(reinterpret_cast<const sockaddr_in&>(local).sin_port);
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
