// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/RawIpPam.h"

#include <linux/errqueue.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <optional>
#include <type_traits>
#include <vector>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/Receive.h"
#include "Wirl/access/detail/attachFilter.h"

namespace Wirl {

namespace {

using detail::dataOf;

Kiv::TraceHandle trace4("IpSocketPam");
Kiv::TraceHandle trace6("Ip6SocketPam");

/// No IP packet is longer (without a jumbo payload).
constexpr U32 kMaxPacket = 65535;
constexpr int kNone = -1;
/// Errors taken off the error queue at a time.
constexpr int kErrorsAtOnce = 64;

/// An option that is on or off, as the families have it.
struct SwitchedOption {
  IpSocketOptions::Option bit;
  struct Name {
    int option;
    const char* text;
    int on = 1, off = 0;
  } v4, v6;
};

#define OPTION(name) \
  { name, "setsockopt(" #name ")" }
constexpr SwitchedOption kSwitched[] = {
    {IpSocketOptions::ipFreeBind, OPTION(IP_FREEBIND), OPTION(IPV6_FREEBIND)},
    {IpSocketOptions::ipHdrIncl, OPTION(IP_HDRINCL), OPTION(IPV6_HDRINCL)},
    {IpSocketOptions::ipMulticastLoop, OPTION(IP_MULTICAST_LOOP), OPTION(IPV6_MULTICAST_LOOP)},
    {IpSocketOptions::ipPktInfo, OPTION(IP_PKTINFO), OPTION(IPV6_RECVPKTINFO)},
    {IpSocketOptions::ipRecvErr, OPTION(IP_RECVERR), OPTION(IPV6_RECVERR)},
    {IpSocketOptions::ipRecvOrigDstAddr, OPTION(IP_RECVORIGDSTADDR), OPTION(IPV6_RECVORIGDSTADDR)},
    {IpSocketOptions::ipRecvTOS, OPTION(IP_RECVTOS), OPTION(IPV6_RECVTCLASS)},
    {IpSocketOptions::ipRecvTTL, OPTION(IP_RECVTTL), OPTION(IPV6_RECVHOPLIMIT)},
    {IpSocketOptions::ipRouterAlert,
     OPTION(IP_ROUTER_ALERT),
     {IPV6_ROUTER_ALERT, "setsockopt(IPV6_ROUTER_ALERT)", 0, -1}},  // the value to be told of
    {IpSocketOptions::ipTransparent, OPTION(IP_TRANSPARENT), OPTION(IPV6_TRANSPARENT)}};
#undef OPTION

/// Where a protocol over IPv6 has its checksum, in octets from its start. Nothing where that is not known, or
/// where the kernel sees to it unasked.
std::optional<int> checksumOffset(IpProtocolNumber protocol) {
  switch (protocol) {
    case ipProtoOspf:
      return 12;
    case ipProtoPim:
    case ipProtoRsvp:
      return 2;
    case ipProtoVrrp:
    case ipProtoUdp:
      return 6;
    case ipProtoTcp:
      return 16;
    default:
      return std::nullopt;
  }
}

IpAddr addressOf(const in_addr& address) {
  return IpAddr::fromNetOrder(address.s_addr);
}
Ip6Addr addressOf(const in6_addr& octets) {
  Ip6Addr address;
  address.copyFromBuffer(octets.s6_addr);
  return address;
}

/// What the header of a received IPv4 packet says.
void takeHeader(const Pkt& pkt, IpRxMetadata& metadata) {
  if (pkt.frontBytes() < 20) return;
  const U8* const header = pkt.front();
  IpAddr destination;
  destination.copyFromBuffer(header + 16);
  metadata.dstIpAddr = destination;
  metadata.tos = header[1];
  metadata.ttl = header[8];
}

/// How a family tells of a packet: its control messages, and the address of a sockaddr and of packet
/// information.
struct Told4 {
  static constexpr int kLevel = IPPROTO_IP;
  static constexpr int kPktInfo = IP_PKTINFO, kOrigDst = IP_ORIGDSTADDR, kTos = IP_TOS, kTtl = IP_TTL;
  using SockAddr = sockaddr_in;
  using PktInfo = in_pktinfo;
  using Tos = U8;
  static IpAddr address(const SockAddr& of) { return addressOf(of.sin_addr); }
  static IpAddr address(const PktInfo& of) { return addressOf(of.ipi_addr); }
  static U32 ifIndex(const PktInfo& of) { return static_cast<U32>(of.ipi_ifindex); }
};
struct Told6 {
  static constexpr int kLevel = IPPROTO_IPV6;
  static constexpr int kPktInfo = IPV6_PKTINFO, kOrigDst = IPV6_ORIGDSTADDR, kTos = IPV6_TCLASS,
                       kTtl = IPV6_HOPLIMIT;
  using SockAddr = sockaddr_in6;
  using PktInfo = in6_pktinfo;
  using Tos = int;
  static Ip6Addr address(const SockAddr& of) { return addressOf(of.sin6_addr); }
  static Ip6Addr address(const PktInfo& of) { return addressOf(of.ipi6_addr); }
  static U32 ifIndex(const PktInfo& of) { return of.ipi6_ifindex; }
};

template <typename Told>
IpRxMetadata metadataOf(msghdr& message, const detail::RxSide& side, const Pkt& pkt) {
  IpRxMetadata metadata;
  metadata.flags = message.msg_flags;
  const auto peer = side.peerAs<typename Told::SockAddr>();
  metadata.srcIpAddr = Told::address(peer);
  if constexpr (std::is_same_v<Told, Told4>) {
    takeHeader(pkt, metadata);
  } else {
    metadata.ifIndex = peer.sin6_scope_id;  // known without packet information where the source is link-local
  }
  for (cmsghdr* each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
    if (each->cmsg_level != Told::kLevel) continue;
    switch (each->cmsg_type) {
      case Told::kPktInfo: {
        const auto info = dataOf<typename Told::PktInfo>(*each);
        metadata.ifIndex = Told::ifIndex(info);
        metadata.dstIpAddr = Told::address(info);
        break;
      }
      case Told::kOrigDst:
        metadata.origDstIpAddr = Told::address(dataOf<typename Told::SockAddr>(*each));
        break;
      case Told::kTos:
        metadata.tos = static_cast<U8>(dataOf<typename Told::Tos>(*each));
        break;
      case Told::kTtl:
        metadata.ttl = static_cast<U8>(dataOf<int>(*each));
        break;
      default:
        break;
    }
  }
  return metadata;
}

/// Destination, source and interface of one send, in the form of the system call.
struct SendSide {
  sockaddr_storage peer{};
  alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(in6_pktinfo))] = {};

  template <typename T>
  void controlIs(msghdr& message, int level, int type, const T& data) {
    static_assert(CMSG_SPACE(sizeof(T)) <= sizeof(control));
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(sizeof(T));
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = level;
    header->cmsg_type = type;
    header->cmsg_len = CMSG_LEN(sizeof(T));
    std::memcpy(CMSG_DATA(header), &data, sizeof(T));
  }
  template <typename SockAddr>
  void peerIs(msghdr& message, const SockAddr& address) {
    std::memcpy(&peer, &address, sizeof(address));
    message.msg_name = &peer;
    message.msg_namelen = sizeof(address);
  }
};

void address4(msghdr& message, SendSide& side, const IpGenAddr& to, const IpGenAddr& from, U32 ifIndex) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = to.v4Addr().netOrder();
  side.peerIs(message, peer);
  if (ifIndex == 0 && from.isUnspecified()) return;
  in_pktinfo info{};
  info.ipi_ifindex = static_cast<int>(ifIndex);
  info.ipi_spec_dst.s_addr = from.v4Addr().netOrder();
  side.controlIs(message, IPPROTO_IP, IP_PKTINFO, info);
}

void address6(msghdr& message, SendSide& side, const IpGenAddr& to, const IpGenAddr& from, U32 ifIndex) {
  sockaddr_in6 peer{};
  peer.sin6_family = AF_INET6;
  to.v6Addr().copyToBuffer(peer.sin6_addr.s6_addr);
  peer.sin6_scope_id = ifIndex;
  side.peerIs(message, peer);
  if (ifIndex == 0 && from.isUnspecified()) return;
  in6_pktinfo info{};
  info.ipi6_ifindex = ifIndex;
  from.v6Addr().copyToBuffer(info.ipi6_addr.s6_addr);
  side.controlIs(message, IPPROTO_IPV6, IPV6_PKTINFO, info);
}

int join4(int fd, bool join, const IpGenAddr& group, U32 ifIndex) {
  ip_mreqn request{};
  request.imr_multiaddr.s_addr = group.v4Addr().netOrder();
  request.imr_ifindex = static_cast<int>(ifIndex);
  return setsockopt(fd, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &request, sizeof(request));
}

int join6(int fd, bool join, const IpGenAddr& group, U32 ifIndex) {
  ipv6_mreq request{};
  group.v6Addr().copyToBuffer(request.ipv6mr_multiaddr.s6_addr);
  request.ipv6mr_interface = ifIndex;
  return setsockopt(fd, IPPROTO_IPV6, join ? IPV6_ADD_MEMBERSHIP : IPV6_DROP_MEMBERSHIP, &request,
                    sizeof(request));
}

}  // namespace

namespace detail {

/// What differs between the families.
struct RawIpFamily {
  AddressFamily af;
  int domain;
  int level;
  const Kiv::TraceHandle& trace;
  const char* notEnabled;
  SwitchedOption::Name SwitchedOption::*switched;
  int tos, ttl, multicastTtl;
  int multicastAll;  // none for IPv6, whose raw sockets do not heed it
  const char *tosText, *ttlText, *multicastTtlText;
  U32 headerBytes, destinationAt;  // of a header that a packet comes with, and in it
  IpRxMetadata (*metadataOf)(msghdr& message, const RxSide& side, const Pkt& pkt);
  void (*address)(msghdr& message, SendSide& side, const IpGenAddr& to, const IpGenAddr& from, U32 ifIndex);
  int (*join)(int fd, bool join, const IpGenAddr& group, U32 ifIndex);
};

}  // namespace detail

const detail::RawIpFamily RawIpPam::ipv4Family_ = {AddressFamily::ipv4,
                                                   AF_INET,
                                                   IPPROTO_IP,
                                                   trace4,
                                                   "IpSocketPam not enabled. Aborting action",
                                                   &SwitchedOption::v4,
                                                   IP_TOS,
                                                   IP_TTL,
                                                   IP_MULTICAST_TTL,
                                                   IP_MULTICAST_ALL,
                                                   "setsockopt(IP_TOS)",
                                                   "setsockopt(IP_TTL)",
                                                   "setsockopt(IP_MULTICAST_TTL)",
                                                   20,
                                                   16,
                                                   metadataOf<Told4>,
                                                   address4,
                                                   join4};

const detail::RawIpFamily RawIpPam::ipv6Family_ = {AddressFamily::ipv6,
                                                   AF_INET6,
                                                   IPPROTO_IPV6,
                                                   trace6,
                                                   "Ip6SocketPam not enabled. Aborting action",
                                                   &SwitchedOption::v6,
                                                   IPV6_TCLASS,
                                                   IPV6_UNICAST_HOPS,
                                                   IPV6_MULTICAST_HOPS,
                                                   kNone,
                                                   "setsockopt(IPV6_TCLASS)",
                                                   "setsockopt(IPV6_UNICAST_HOPS)",
                                                   "setsockopt(IPV6_MULTICAST_HOPS)",
                                                   40,
                                                   24,
                                                   metadataOf<Told6>,
                                                   address6,
                                                   join6};

RawIpPam::RawIpPam(Kiv::String name, IpProtocolNumber number, const NamespaceName& ns,
                   const detail::RawIpFamily& family)
    : IpPam(std::move(name), number, ns), family_(family) {}

RawIpPam::~RawIpPam() {
  closeSocket();
}

// Opening and closing
// ----------------------------------------------------------------------------------------

void RawIpPam::enabledIsImpl(bool on) {
  const auto open = [this] {
    openSocket(
        family_.domain, protocol(), netNs(), [this] { configure(); },
        [this](const Kiv::Ptr<Kiv::FileDescriptor>& opened) { return PamFdSmIs(opened, this); });
  };
  enabledIsWith(on, [&] {
    spare_ = nullptr;
    batch_ = nullptr;
    reopen(on, open, [this] { notEnabled(); });
  });
}

void RawIpPam::configure() {
  if (options().has(IpSocketOptions::ipAttachFilter)) holdBackPackets();
  applyOptions(options() | IpSocketOptions::ipMulticastLoop, options());
  if (txTOS() != IpDscp()) handleTxTOS();
  if (txTTL() != IpTtl()) handleTxTTL();
  applyPriority();
  KIV_TRACE(family_.trace, 5) << "Socket fd is " << fd() << ", options are " << options();
  fileDesc()->notifyOnReadableIs(true);
}

/// The socket receives from the moment that it is there, with no filter yet. This keeps everything away until
/// the program is in place, and discards what came before.
void RawIpPam::holdBackPackets() {
  if (detail::attachFilter(fd(), std::vector<sock_filter>{BPF_STMT(BPF_RET | BPF_K, 0)}) < 0) {
    closeAndThrow(errno, "setsockopt(SO_ATTACH_FILTER)");
  }
  char none;
  while (recv(fd(), &none, sizeof(none), MSG_DONTWAIT | MSG_TRUNC) >= 0) {
  }
}

// Options
// ----------------------------------------------------------------------------------------------------

void RawIpPam::optionsIsImpl(U32 bits) {
  if (fd() >= 0) applyOptions(options() ^ bits, bits);
  IpPam::optionsIsImpl(bits);
}

void RawIpPam::applyOptions(U32 changed, U32 bits) {
  const auto differs = [changed](IpSocketOptions::Option option) { return (changed & option) != 0; };
  const auto on = [bits](IpSocketOptions::Option option) { return (bits & option) != 0; };
  // What can be refused without asking the kernel is, before anything has changed.
  if (differs(IpSocketOptions::ipAttachFilter) && on(IpSocketOptions::ipAttachFilter)) checkRxFilter();
  for (const SwitchedOption& each : kSwitched) {
    const SwitchedOption::Name& name = each.*family_.switched;
    if (differs(each.bit)) {
      setOption(family_.level, name.option, on(each.bit) ? name.on : name.off, name.text);
    }
  }
  if (differs(IpSocketOptions::ipAttachFilter)) {
    if (on(IpSocketOptions::ipAttachFilter)) {
      doAttachBpfFilter();
    } else if (detail::detachFilter(fd()) < 0 && errno != ENOENT) {  // the client may have detached it
      closeAndThrow(errno, "setsockopt(SO_DETACH_FILTER)");
    }
  }
  if (differs(IpSocketOptions::ipRcvBuf) && on(IpSocketOptions::ipRcvBuf)) {
    const int size = static_cast<int>(std::min<U32>(rxBuf(), INT_MAX));
    setOption(SOL_SOCKET, SO_RCVBUFFORCE, size, "setsockopt(SO_RCVBUFFORCE)");
  }
  if (differs(IpSocketOptions::ipPriority)) {
    const U32 wanted = on(IpSocketOptions::ipPriority) ? priority() : 0;
    const int value = static_cast<int>(wanted);
    if (wanted <= maxPriority) setOption(SOL_SOCKET, SO_PRIORITY, value, "setsockopt(SO_PRIORITY)");
  }
  if (differs(IpSocketOptions::ipv6Checksum) && family_.af == AddressFamily::ipv6 &&
      protocol() != ipProtoIcmpv6) {
    const int offset = on(IpSocketOptions::ipv6Checksum) ? checksumOffset(protocol()).value_or(1) : -1;
    setOption(IPPROTO_IPV6, IPV6_CHECKSUM, offset, "setsockopt(IPV6_CHECKSUM)");  // an odd offset is refused
  }
}

void RawIpPam::handleTxTOS() {
  if (fd() < 0) return;
  setOption(family_.level, family_.tos, txTOS().tos(), family_.tosText);
  applyPriority();  // the kernel derives it from a new TOS octet
}

void RawIpPam::handleTxTTL() {
  if (fd() < 0) return;
  const int value = txTTL() == IpTtl() ? -1 : txTTL().value();  // -1: the system's own
  setOption(family_.level, family_.ttl, value, family_.ttlText);
  setOption(family_.level, family_.multicastTtl, value, family_.multicastTtlText);
}

void RawIpPam::handlePriority() {
  if (fd() < 0) return;
  setOption(SOL_SOCKET, SO_PRIORITY, static_cast<int>(priority()), "setsockopt(SO_PRIORITY)");
}

void RawIpPam::applyPriority() {
  if (priority() > maxPriority) return;  // was refused, and is but stored
  if (priority() != 0 || options().has(IpSocketOptions::ipPriority)) handlePriority();
}

S32 RawIpPam::handleMcastGroup(const IpGenAddr& group, bool join, U32 ifIndex) {
  if (fd() < 0) return ENODEV;
  if (group.af() != family_.af || !group.isMulticast()) return EINVAL;
  const int off = 0;
  if (join && family_.multicastAll != kNone &&
      setsockopt(fd(), family_.level, family_.multicastAll, &off, sizeof(off)) < 0) {
    return errno;
  }
  return family_.join(fd(), join, group, ifIndex) < 0 ? errno : 0;
}

// Sending
// ----------------------------------------------------------------------------------------------------

void RawIpPam::refuse(int error) {
  txErrnoIs(error);
  KIV_TRACE(family_.trace, 3) << "packet refused with " << error << " (" << Kiv::errorText(error) << ") ";
  txErrorsInc(1);
}

/// Where to send `pkt`; unspecified where nothing says so.
IpGenAddr RawIpPam::destinationOf(const Pkt& pkt) const {
  const bool hasHeader = options().has(IpSocketOptions::ipHdrIncl) || protocol() == U8{IPPROTO_RAW};
  if (!txDstIpAddr().isUnspecified() || !hasHeader || pkt.bytes() < family_.headerBytes) return txDstIpAddr();
  U8 octets[16];
  for (U32 i = 0; i < sizeof(octets) && family_.destinationAt + i < pkt.bytes(); ++i) {
    octets[i] = pkt.rawByte(family_.destinationAt + i);
  }
  if (family_.af == AddressFamily::ipv4) return IpAddr(octets[0], octets[1], octets[2], octets[3]);
  Ip6Addr address;
  address.copyFromBuffer(octets);
  return address;
}

/// The interface to send on, 0 for the system's choice; false, with errno, where there is none of the name.
bool RawIpPam::interfaceIs(U32& ifIndex) {
  ifIndex = txIfIndex();
  if (ifIndex != 0 || txIfName().empty()) return true;
  ifreq device{};
  if (txIfName().bytes() >= sizeof(device.ifr_name)) {
    errno = ENODEV;
    return false;
  }
  std::copy(txIfName().begin(), txIfName().end(), device.ifr_name);
  // Asked through the socket, which knows the devices of its own namespace.
  if (ioctl(fd(), SIOCGIFINDEX, &device) < 0) return false;
  ifIndex = static_cast<U32>(device.ifr_ifindex);
  return true;
}

void RawIpPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(enabled(), "enabled()");
  KIV_ASSERT_AS(pkt, "pkt");
  // A reactor to what follows may let go of the caller's pointer.
  const Pkt::Ptr sending = pkt;
  const IpGenAddr to = destinationOf(*sending);
  const IpGenAddr from = txSrcIpAddr();
  if (to.isUnspecified()) return refuse(EDESTADDRREQ);
  if (to.af() != family_.af || (!from.isUnspecified() && from.af() != family_.af)) {
    return refuse(EAFNOSUPPORT);
  }
  U32 ifIndex = 0;
  if (!interfaceIs(ifIndex)) return refuse(errno);

  msghdr message{};
  message.msg_iov = const_cast<iovec*>(sending->iovecs());  // sendmsg() only reads it
  message.msg_iovlen = sending->numIovecs();
  SendSide side;
  family_.address(message, side, to, from, ifIndex);
  KIV_TRACE(family_.trace, 8) << "Sending pkt of size " << sending->bytes() << " to " << to << " from "
                              << from << " on ifindex " << ifIndex;
  if (sendmsg(fd(), &message, txFlags()) < 0) {
    const int error = errno;
    txErrnoIs(error);
    KIV_TRACE(family_.trace, 0) << "sendmsg failed with " << error << " (" << Kiv::errorText(error) << ") ";
    txErrorsInc(1);
    return;
  }
  txPktCountInc(1);
}

// Receiving
// --------------------------------------------------------------------------------------------------

void RawIpPam::doGetRxPkt() {
  if (fd() < 0) {
    KIV_TRACE(family_.trace, 3) << family_.notEnabled;
  } else if (enableBulkRead()) {
    receiveBatch();
  } else {
    receiveOne();
  }
}

void RawIpPam::receiveOne() {
  msghdr message;
  detail::RxSide side;
  Pkt::Ptr pkt = detail::receivePkt(spare_, fd(), std::min(maxRxPktData(), kMaxPacket), message, side);
  if (!pkt) return errno == 0 ? noPkt() : receiveFailed("recvmsg", errno);
  publish(family_.metadataOf(message, side, *pkt));
  rxPktCountInc(1);
  rxPktHolderIs(std::move(pkt));
}

void RawIpPam::receiveBatch() {
  if (!batch_) batch_.reset(new (std::nothrow) detail::RxBatch);
  const U16 limit = std::clamp<U16>(socketReadLimit(), 1, maxSocketReadLimit);
  const U32 room = std::min(maxRxPktData(), kMaxPacket);
  const S32 received = batch_ ? batch_->receive(*this, fd(), limit, room) : 0;
  if (received < 0) {
    receiveFailed("recvmmsg", errno);
    return;
  }
  if (received == 0) return noPkt();
  const auto last = static_cast<U16>(received - 1);
  Pkt::Ptr pkt = savedPacket(last);
  publish(rxMetadata(last));
  rxPktCountInc(static_cast<U64>(received));
  rxPktHolderIs(std::move(pkt));
}

IpRxMetadata RawIpPam::rxMetadata(U16 index) const {
  const Pkt::Ptr pkt = savedPacket(index);
  if (!batch_ || index >= batch_->received() || !pkt) return {};
  return family_.metadataOf(batch_->message(index), batch_->side(index), *pkt);
}

void RawIpPam::noPkt() {
  KIV_TRACE(family_.trace, 0) << "Failed to obtain new packet object";
}

void RawIpPam::receiveFailed(const char* call, int error) {
  if (error != EAGAIN) KIV_TRACE(family_.trace, 0) << call << " failed with " << error;
  if (options().has(IpSocketOptions::ipRecvErr)) drainErrorQueue();
  rxErrorsInc(1);
}

/// An error queue that holds something makes the socket readable for as long as it does.
void RawIpPam::drainErrorQueue() {
  int drained = 0;
  for (; drained < kErrorsAtOnce; ++drained) {
    detail::RxSide side;
    iovec none{};
    msghdr message;
    side.prepare(message, none);
    if (recvmsg(fd(), &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) break;
    for (cmsghdr* each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
      if (each->cmsg_level != family_.level) continue;
      if (each->cmsg_type != IP_RECVERR && each->cmsg_type != IPV6_RECVERR) continue;
      const auto what = dataOf<sock_extended_err>(*each);
      KIV_TRACE(family_.trace, 3) << "error queue: " << what.ee_errno << " ("
                                  << Kiv::errorText(int(what.ee_errno)) << ") origin " << what.ee_origin
                                  << " type " << what.ee_type << " code " << what.ee_code;
    }
  }
  if (drained > 0) rxErrQueueCountInc(static_cast<U32>(drained));
}

void RawIpPam::publish(const IpRxMetadata& metadata) {
  rxSrcIpAddrIs(metadata.srcIpAddr);
  rxDstIpAddrIs(metadata.dstIpAddr);
  rxOrigDstIpAddrIs(metadata.origDstIpAddr);
  rxIfIndexIs(metadata.ifIndex);
  rxTOSIs(metadata.tos);
  rxTTLIs(metadata.ttl);
  rxFlagsIs(metadata.flags);
  KIV_TRACE(family_.trace, 8) << "Received packet from " << metadata.srcIpAddr << " to " << metadata.dstIpAddr
                              << " on ifindex " << metadata.ifIndex;
  if ((metadata.flags & MSG_TRUNC) != 0) KIV_TRACE(family_.trace, 1) << "Packet truncated";
}

}  // namespace Wirl
