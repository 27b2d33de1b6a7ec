// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/RawIpPam.h"

#include <linux/errqueue.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <climits>
#include <optional>
#include <vector>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/Receive.h"
#include "Wirl/access/detail/Socket.h"
#include "Wirl/access/detail/SocketOption.h"
#include "Wirl/access/detail/attachFilter.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace4("IpSocketPam");
Kiv::TraceHandle trace6("Ip6SocketPam");

constexpr U32 kMaxPacket = 65535;  // of IP without jumbo payloads
constexpr int kErrorsAtOnce = 64;  // taken off the error queue at a time

/// Options that are on or off.
struct SwitchedOption {
  IpSocketOptions::Option bit;
  const detail::SocketOption& option;
};
const SwitchedOption kSwitched[] = {
    {IpSocketOptions::ipFreeBind, detail::options::freeBind},
    {IpSocketOptions::ipHdrIncl, detail::options::headerIncluded},
    {IpSocketOptions::ipMulticastLoop, detail::options::multicastLoop},
    {IpSocketOptions::ipPktInfo, detail::options::rxPktInfo},
    {IpSocketOptions::ipRecvErr, detail::options::rxErrors},
    {IpSocketOptions::ipRecvOrigDstAddr, detail::options::rxOriginalDestination},
    {IpSocketOptions::ipRecvTOS, detail::options::rxTrafficClass},
    {IpSocketOptions::ipRecvTTL, detail::options::rxHopLimit},
    {IpSocketOptions::ipRouterAlert, detail::options::routerAlert},
    {IpSocketOptions::ipTransparent, detail::options::transparent}};

/// Offset of the checksum in a protocol over IPv6. Nothing if it is not known or the kernel needs no telling.
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

/// Takes what the header of a received IPv4 packet says.
void takeHeader(const Pkt& pkt, IpRxMetadata& metadata) {
  if (pkt.frontBytes() < 20) return;
  const U8* const header = pkt.front();
  IpAddr destination;
  destination.copyFromBuffer(header + 16);
  metadata.dstIpAddr = destination;
  metadata.tos = header[1];
  metadata.ttl = header[8];
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
  int routerAlertOn, routerAlertOff;
  U32 headerBytes, destinationAt;  // length of the IP header, and offset of the destination address in it
};

}  // namespace detail

const detail::RawIpFamily RawIpPam::ipv4Family_ = {AddressFamily::ipv4,
                                                   AF_INET,
                                                   IPPROTO_IP,
                                                   trace4,
                                                   "IpSocketPam not enabled. Aborting action",
                                                   1,
                                                   0,
                                                   20,
                                                   16};

const detail::RawIpFamily RawIpPam::ipv6Family_ = {AddressFamily::ipv6,
                                                   AF_INET6,
                                                   IPPROTO_IPV6,
                                                   trace6,
                                                   "Ip6SocketPam not enabled. Aborting action",
                                                   0,  // the Router Alert value to receive
                                                   -1,
                                                   40,
                                                   24};

RawIpPam::RawIpPam(Kiv::String name, IpProtocolNumber number, const NamespaceName& ns,
                   const detail::RawIpFamily& family)
    : IpPam(std::move(name), number, ns), family_(family) {}

RawIpPam::~RawIpPam() {
  closeSocket();
}

// Opening and closing
// ----------------------------------------------------------------------------------------

void RawIpPam::enabledIsImpl(bool on) {
  enabledIsWith(enabled, on, {family_.domain, SOCK_RAW, protocol()}, netNs());
}

void RawIpPam::setUp(Change&) {
  if (options().has(IpSocketOptions::ipAttachFilter)) holdBackPackets();
  applyOptions(options() | IpSocketOptions::ipMulticastLoop, options());
  if (txTOS() != IpDscp()) handleTxTOS();
  if (txTTL() != IpTtl()) handleTxTTL();
  applyPriority();
  applySocketOptions();
  KIV_TRACE(family_.trace, 5) << "Socket fd is " << fd() << ", options are " << options();
}

const Kiv::TraceHandle& RawIpPam::traceHandle() const {
  return family_.trace;
}

void RawIpPam::holdBackPackets() {
  if (detail::attachFilter(fd(), std::vector<sock_filter>{BPF_STMT(BPF_RET | BPF_K, 0)}) < 0) {
    closeAndFail(errno, "setsockopt(SO_ATTACH_FILTER)");
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
  // Refuse what needs no kernel to refuse before anything changes.
  if (differs(IpSocketOptions::ipAttachFilter) && on(IpSocketOptions::ipAttachFilter)) checkRxFilter();
  for (const SwitchedOption& each : kSwitched) {
    if (!differs(each.bit)) continue;
    const bool alert = each.bit == IpSocketOptions::ipRouterAlert;
    const int value = on(each.bit) ? (alert ? family_.routerAlertOn : 1) : alert ? family_.routerAlertOff : 0;
    setOption(each.option, value);
  }
  if (differs(IpSocketOptions::ipAttachFilter)) {
    if (on(IpSocketOptions::ipAttachFilter)) {
      doAttachBpfFilter();
    } else if (detail::detachFilter(fd()) < 0 && errno != ENOENT) {  // ENOENT: the client detached it
      closeAndFail(errno, "setsockopt(SO_DETACH_FILTER)");
    }
  }
  if (differs(IpSocketOptions::ipRcvBuf) && on(IpSocketOptions::ipRcvBuf)) {
    const int size = static_cast<int>(std::min<U32>(rxBuf(), INT_MAX));
    setOption(SOL_SOCKET, SO_RCVBUFFORCE, size, "setsockopt(SO_RCVBUFFORCE)");
  }
  if (differs(IpSocketOptions::ipPriority)) {
    const U32 wanted = on(IpSocketOptions::ipPriority) ? priority() : 0;
    if (wanted <= maxPriority) setOption(detail::options::priority, static_cast<int>(wanted));
  }
  if (differs(IpSocketOptions::ipv6Checksum) && family_.af == AddressFamily::ipv6 &&
      protocol() != ipProtoIcmpv6) {
    const int offset = on(IpSocketOptions::ipv6Checksum) ? checksumOffset(protocol()).value_or(1) : -1;
    setOption(IPPROTO_IPV6, IPV6_CHECKSUM, offset, "setsockopt(IPV6_CHECKSUM)");  // an odd offset is refused
  }
}

void RawIpPam::handleTxTOS() {
  if (fd() < 0) return;
  setOption(detail::options::trafficClass, txTOS().tos());
  applyPriority();  // the kernel derives a priority from the TOS octet
}

void RawIpPam::handleTxTTL() {
  if (fd() < 0) return;
  const int value = txTTL() == IpTtl() ? -1 : txTTL().value();  // -1: the system's own
  setOption(detail::options::hopLimit, value);
  setOption(detail::options::multicastHopLimit, value);
  applyHopLimits();  // more exact, if set
}

void RawIpPam::handlePriority() {
  if (fd() < 0) return;
  setOption(detail::options::priority, static_cast<int>(priority()));
}

void RawIpPam::applyPriority() {
  // An out-of-range value stays stored (see checkPriority) but must not reach the kernel.
  if (priority() > maxPriority) return;
  if (priority() != 0 || options().has(IpSocketOptions::ipPriority)) handlePriority();
}

S32 RawIpPam::handleMcastGroup(const IpGenAddr& group, bool join, U32 ifIndex) {
  if (fd() < 0) return ENODEV;
  if (group.af() != family_.af || !group.isMulticast()) return EINVAL;
  const int off = 0;
  // Raw IPv6 sockets ignore it.
  if (join && family_.af == AddressFamily::ipv4 &&
      setsockopt(fd(), IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof(off)) < 0) {
    return errno;
  }
  return detail::membershipIs(fd(), group, join, ifIndex);
}

// Sending
// ----------------------------------------------------------------------------------------------------

RawIpPam::Loss RawIpPam::lossOf(int) const {
  return Loss::error;
}

/// The destination of `pkt`; unspecified if neither the client nor a header gives one.
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

/// The interface to send on, 0 for the system's choice. False, with errno, if there is none of the name.
bool RawIpPam::interfaceIs(U32& ifIndex) {
  ifIndex = txIfIndex();
  if (ifIndex != 0 || txIfName().empty()) return true;
  ifreq device;
  if (!detail::deviceIs(fd(), SIOCGIFINDEX, txIfName(), device)) return false;
  ifIndex = static_cast<U32>(device.ifr_ifindex);
  return true;
}

void RawIpPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(enabled(), "enabled()", name());
  KIV_ASSERT_AS(pkt, "pkt", name());
  detail::TxMessage message(pkt);
  const IpGenAddr to = destinationOf(*pkt);
  const IpGenAddr from = txSrcIpAddr().isUnspecified() ? IpGenAddr(family_.af) : txSrcIpAddr();
  if (to.isUnspecified()) return refuse(EDESTADDRREQ);
  if (to.af() != family_.af || from.af() != family_.af) return refuse(EAFNOSUPPORT);
  U32 ifIndex = 0;
  if (!interfaceIs(ifIndex)) return refuse(errno);
  message.toIs(detail::SockAddr(to, 0, ifIndex));
  if (ifIndex != 0 || !from.isUnspecified()) message.fromIs(from, ifIndex);
  KIV_TRACE(family_.trace, 8) << "Sending pkt of size " << pkt->bytes() << " to " << to << " from " << from
                              << " on ifindex " << ifIndex;
  if (send(message, txFlags()) == 0) txPktCountInc(1);
}

// Receiving
// --------------------------------------------------------------------------------------------------

void RawIpPam::doGetRxPkt() {
  if (rxPktHeld()) return;
  if (fd() < 0) {
    KIV_TRACE(family_.trace, 3) << family_.notEnabled;
    return;
  }
  const U32 room = std::min(maxRxPktData(), kMaxPacket);
  if (!enableBulkRead()) {
    detail::Received got;
    if (receive(got, room)) hand(got.pkt, metadataOf(got.message, got.side, *got.pkt), 1);
    return;
  }
  const U16 limit = std::clamp<U16>(socketReadLimit(), 1, maxSocketReadLimit);
  const S32 received = receiveBatch(limit, room);
  if (received == 0) return;
  const auto last = static_cast<U16>(received - 1);
  hand(savedPacket(last), rxMetadata(last), static_cast<U32>(received));
}

void RawIpPam::hand(Pkt::Ptr pkt, const IpRxMetadata& metadata, U32 packets) {
  KIV_TRACE(family_.trace, 8) << "Received packet from " << metadata.srcIpAddr << " to " << metadata.dstIpAddr
                              << " on ifindex " << metadata.ifIndex;
  if ((metadata.flags & MSG_TRUNC) != 0) KIV_TRACE(family_.trace, 1) << "Packet truncated";
  Change changes(this);
  changes.put(rxSrcIpAddr, metadata.srcIpAddr);
  changes.put(rxDstIpAddr, metadata.dstIpAddr);
  changes.put(rxOrigDstIpAddr, metadata.origDstIpAddr);
  changes.put(rxIfIndex, metadata.ifIndex);
  changes.put(rxTOS, metadata.tos);
  changes.put(rxTTL, metadata.ttl);
  changes.put(rxFlags, metadata.flags);
  changes.put(rxTimes, metadata.times);
  changes.put(rxPktCount, rxPktCount() + packets);
  deliver(std::move(pkt), changes);
}

IpRxMetadata RawIpPam::metadataOf(const msghdr& message, const detail::RxSide& side, const Pkt& pkt) const {
  IpRxMetadata metadata;
  metadata.flags = message.msg_flags;
  if (family_.af == AddressFamily::ipv4) {
    metadata.srcIpAddr = detail::addressOf(side.peerAs<sockaddr_in>().sin_addr);
    takeHeader(pkt, metadata);
  } else {
    const auto peer = side.peerAs<sockaddr_in6>();
    metadata.srcIpAddr = detail::addressOf(peer.sin6_addr);
    // For link-local sources the kernel gives the interface even without IPV6_RECVPKTINFO.
    metadata.ifIndex = peer.sin6_scope_id;
  }
  const detail::IpControl told = detail::ipControlOf(message);
  if (told.pktInfo) {
    metadata.ifIndex = told.ifIndex;
    metadata.dstIpAddr = told.dstIpAddr;
  }
  metadata.origDstIpAddr = told.origDstIpAddr;
  metadata.times = told.times;
  if (told.tos >= 0) metadata.tos = static_cast<U8>(told.tos);
  if (told.ttl >= 0) metadata.ttl = static_cast<U8>(told.ttl);
  return metadata;
}

IpRxMetadata RawIpPam::rxMetadata(U16 index) const {
  const detail::RxBatch* const batch = batchWith(index);
  const Pkt::Ptr pkt = savedPacket(index);
  return batch && pkt ? metadataOf(batch->message(index), batch->side(index), *pkt) : IpRxMetadata();
}

void RawIpPam::receiveFailed(bool batch, int error) {
  if (error == 0) {
    KIV_TRACE(family_.trace, 0) << "Failed to obtain new packet object";
    return;
  }
  if (error != EAGAIN) {
    KIV_TRACE(family_.trace, 0) << (batch ? "recvmmsg" : "recvmsg") << " failed with " << error;
  }
  if (options().has(IpSocketOptions::ipRecvErr)) drainErrorQueue();
  rxErrorsInc(1);
}

/// A filled error queue makes the socket readable, so it must be drained.
void RawIpPam::drainErrorQueue() {
  int drained = 0;
  for (; drained < kErrorsAtOnce; ++drained) {
    detail::RxSide side;
    iovec none{};
    msghdr message;
    side.prepare(message, none);
    if (recvmsg(fd(), &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) break;
    detail::eachControl(message, [this](const cmsghdr& each) {
      if (each.cmsg_level != family_.level) return;
      if (each.cmsg_type != IP_RECVERR && each.cmsg_type != IPV6_RECVERR) return;
      const auto what = detail::dataOf<sock_extended_err>(each);
      KIV_TRACE(family_.trace, 3) << "error queue: " << what.ee_errno << " ("
                                  << detail::errorPrinted(int(what.ee_errno)) << ") origin " << what.ee_origin
                                  << " type " << what.ee_type << " code " << what.ee_code;
    });
  }
  if (drained > 0) rxErrQueueCountInc(static_cast<U32>(drained));
}

}  // namespace Wirl
