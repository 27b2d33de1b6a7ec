// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/UdpPam.h"

#include <arpa/inet.h>
#include <netinet/udp.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <string_view>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/Receive.h"
#include "Wirl/access/detail/Send.h"
#include "Wirl/access/detail/Socket.h"
#include "Wirl/access/detail/SocketOption.h"

namespace Wirl {

using detail::Printed;
namespace options = detail::options;

namespace {

Kiv::TraceHandle trace("UdpPam");

constexpr std::array<std::string_view, 4> kModeNames = {"disabled", "send", "client", "server"};

constexpr U32 kMaxDatagram = 65535;  // RFC 768
constexpr U32 kMaxSegments = 64;     // that the kernel takes in one datagram, and merges into one
constexpr U16 kMaxMerged = 16;       // merged datagrams in a batch: a megabyte of room

bool isCut(const msghdr& message) noexcept {
  return (message.msg_flags & MSG_TRUNC) != 0;
}

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

UdpPam::UdpPam(Kiv::String name) : InetPam(std::move(name)) {}

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
  applySocketOptions();
  gsoLimit_ = kMaxDatagram;
  if (mode() != Mode::send) doBind();
}

void UdpPam::applySocketOptions() {
  InetPam::applySocketOptions();
  if (reusePort()) setOption(options::reusePort, 1);
  // A socket that may not share is told of others, and keeps them away.
  if (exclusivePort()) setOption(options::reuseAddress, 0);
  if (enableGro()) setOption(options::rxMerged, 1);
  gro_ = enableGro();
}

/// A socket that merges goes on: of what is queued already the kernel would not say any more that it is
/// merged.
void UdpPam::enableGroIs(bool on) {
  if (!on) return enableGro.set(on);
  gro_ = true;
  optionIs(enableGro, on, options::rxMerged, 1);
}

void UdpPam::checkSocketReadLimit() {
  if (socketReadLimit() < 1 || socketReadLimit() > maxSocketReadLimit) {
    throw Kiv::RangeException("UdpPam::socketReadLimit < 1 or > 128 not allowed");
  }
}

Kiv::Ptr<PamFdSm> UdpPam::newFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& opened) {
  return receives() ? PamFdSmIs(opened, this) : nullptr;
}

void UdpPam::forget(Change& changes) noexcept {
  changes.put(socketConnected, false);
  merged_ = nullptr;
  batchHeld_ = 0;
  drained_ = false;
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
  if (ipv6()) setOption(options::hopLimit, txTTL());
  setOption(options::multicastHopLimit, txTTL());
}

void UdpPam::handleRxTTL() {
  setOption(options::rxHopLimit, enableRxTTL());
}

void UdpPam::handleRxTOS() {
  setOption(options::rxTrafficClass, enableRxTOS());
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

UdpPam::Loss UdpPam::lossOf(int error) const {
  return error == ECONNREFUSED ? Loss::sent : Loss::uncounted;
}

bool UdpPam::doConnect(Change& changes) {
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
    changes.put(txFailures, txFailures() + 1);
    return false;
  }
  changes.put(socketConnected, true);
  return true;
}

void UdpPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(mode() != Mode::disabled, "mode() != disabled()", name());
  KIV_ASSERT_AS(pkt, "pkt", name());
  detail::TxMessage message(pkt);
  const auto me = Printed{[this] { return who(); }};
  KIV_TRACE(trace, 8) << me << ": Sending pkt of size " << pkt->bytes();
  Change changes(this);  // told when the packet is sent: a reactor that throws does not cost it
  if (!doConnect(changes)) return changes.tell();
  KIV_ASSERT_AS(txPort() != U16(), "txPort() != U16()", name());

  if (!socketConnected()) message.toIs(detail::SockAddr(txDst(), txPort(), txIfIndex()));
  const IpGenAddr from = ipv6() ? IpGenAddr(txSrcIp6Addr()) : IpGenAddr(txSrcIpAddr());
  if (!from.isUnspecified() || txIfIndex() != 0) {
    KIV_TRACE(trace, 8) << me << ": Sending pkt with src ip " << from;
    KIV_TRACE(trace, 8) << me << ": Sending pkt with txIfIndex " << txIfIndex();
    message.fromIs(from, txIfIndex());
    KIV_TRACE(trace, 8) << me << ": Sending pkt to ifindex " << txIfIndex();
    if (ipv6()) {
      changes.put(txSrcIp6Addr, Ip6Addr());
    } else {
      changes.put(txSrcIpAddr, IpAddr());
    }
    changes.put(txIfIndex, U32{0});
  }
  const int error = send(message, 0, changes);
  if (error == 0 || lossOf(error) == Loss::sent) changes.put(txPkts, txPkts() + 1);
  changes.tell();
}

/// The datagrams of a bulk send: packets for the Pam's destination, or each with its own.
class UdpPam::BulkSource final : public detail::TxSource {
 public:
  BulkSource(UdpPam& pam, std::span<const Pkt::Ptr> pkts, std::span<const UdpTxPkt> addressed)
      : pam_(pam), pkts_(pkts), addressed_(addressed), maxBytes_(kMaxDatagram - (pam.ipv6() ? 8 : 28)) {}

  U32 count() const noexcept { return static_cast<U32>(pkts_.size() + addressed_.size()); }

  S32 put(detail::TxBatch& batch, U32 at, bool alone) override {
    const Pkt& first = pktAt(at);
    const U32 run = alone || !pam_.enableGso() ? 1 : runFrom(at);
    if (!batch.hasRoomFor(run * Pkt::maxIovecs_)) return 0;
    const UdpTxPkt* const own = addressed_.empty() ? nullptr : &addressed_[at];
    const bool given = own && own->dstIpAddr.af() != AddressFamily::ipunknown;
    if (given && pam_.socketConnected() && !(own->dstIpAddr == pam_.txDst() && own->port == pam_.txPort())) {
      return -EISCONN;
    }
    const IpGenAddr to = given ? own->dstIpAddr : pam_.txDst();
    const U16 port = given ? own->port : pam_.txPort();
    const U32 ifIndex = own ? own->ifIndex : 0;
    if (to.af() != pam_.txDst().af()) return -EAFNOSUPPORT;
    if (port == 0) return -EDESTADDRREQ;
    const bool fromGiven = own && own->srcIpAddr.af() != AddressFamily::ipunknown;
    if (fromGiven && own->srcIpAddr.af() != to.af()) return -EAFNOSUPPORT;
    batch.begin(run);
    if (batch.messages() == 1) firstBytes_ = first.bytes();
    for (U32 i = 0; i < run; ++i) {
      const Pkt& pkt = pktAt(at + i);
      batch.add(pkt.iovecs(), pkt.numIovecs());
    }
    if (!pam_.socketConnected()) batch.toIs(detail::SockAddr(to, port, ifIndex));
    if (fromGiven || ifIndex != 0) batch.fromIs(fromGiven ? own->srcIpAddr : IpGenAddr(to.af()), ifIndex);
    if (run > 1) batch.control(SOL_UDP, UDP_SEGMENT, static_cast<U16>(first.bytes()));
    return static_cast<S32>(run);
  }
  void refused(int error) override {
    // Too long for the device, in most cases. EIO: the device or the route takes none. Others come and go.
    if (error == EINVAL || error == EMSGSIZE) pam_.gsoLimit_ = firstBytes_ - 1;
    if (error == EIO) pam_.gsoLimit_ = 0;
  }

 private:
  const Pkt& pktAt(U32 at) const { return addressed_.empty() ? *pkts_[at] : *addressed_[at].pkt; }
  /// How many datagrams from `at` on can be handed over as one.
  U32 runFrom(U32 at) {
    const U32 bytes = pktAt(at).bytes();
    if (bytes == 0 || bytes > pam_.gsoLimit_) return 1;
    U32 run = 1;
    for (U32 all = bytes; run < kMaxSegments && at + run < count(); ++run) {
      const U32 next = pktAt(at + run).bytes();
      if (next == 0 || next > bytes || all + next > maxBytes_ || !sameWay(at, at + run)) break;
      all += next;
      if (next < bytes) return run + 1;
    }
    return run;
  }
  bool sameWay(U32 one, U32 other) const {
    if (addressed_.empty()) return true;
    const UdpTxPkt &a = addressed_[one], &b = addressed_[other];
    return a.dstIpAddr == b.dstIpAddr && a.port == b.port && a.srcIpAddr == b.srcIpAddr &&
           a.ifIndex == b.ifIndex;
  }

  UdpPam& pam_;
  const std::span<const Pkt::Ptr> pkts_;
  const std::span<const UdpTxPkt> addressed_;
  const U32 maxBytes_;
  U32 firstBytes_ = 0;
};

U32 UdpPam::txPktBulk(std::span<const UdpTxPkt> pkts) {
  return txBulk({}, pkts);
}

U32 UdpPam::doTxPktBulk(std::span<const Pkt::Ptr> pkts) {
  return txBulk(pkts, {});
}

U32 UdpPam::txBulk(std::span<const Pkt::Ptr> pkts, std::span<const UdpTxPkt> addressed) {
  KIV_ASSERT_AS(mode() != Mode::disabled, "mode() != disabled()", name());
  for (const Pkt::Ptr& pkt : pkts) KIV_ASSERT_AS(pkt, "pkt", name());
  for (const UdpTxPkt& each : addressed) KIV_ASSERT_AS(each.pkt, "pkt", name());
  Change changes(this);
  BulkSource source(*this, pkts, addressed);
  U64 sent = 0;
  U32 taken = 0;
  if (source.count() > 0) {
    const bool own = addressed.empty();
    if (own) KIV_ASSERT_AS(txPort() != U16(), "txPort() != U16()", name());
    // Without a peer of its own the Pam is not connected, and every packet needs a destination.
    if (txPort() == 0 || doConnect(changes)) {
      taken = sendBatch(source, source.count(), 0, sent, changes);
    } else {
      taken = source.count();  // dropped, as a single packet would be: the first is counted already
      changes.put(txFailures, txFailures() + (taken - 1));
    }
  }
  if (sent > 0) changes.put(txPkts, txPkts() + sent);
  changes.tell();
  return taken;
}

// Receiving
// --------------------------------------------------------------------------------------------------

UdpRxMetadata UdpPam::metadataOf(const msghdr& message, const detail::RxSide& side) const {
  UdpRxMetadata metadata;
  if (ipv6()) {
    const auto from = side.peerAs<sockaddr_in6>();
    metadata.srcIpAddr = detail::addressOf(from.sin6_addr);
    metadata.srcPort = ntohs(from.sin6_port);
  } else {
    const auto from = side.peerAs<sockaddr_in>();
    metadata.srcIpAddr = detail::addressOf(from.sin_addr);
    metadata.srcPort = ntohs(from.sin_port);
  }
  const detail::IpControl told = detail::ipControlOf(message);
  metadata.dstIpAddr = told.dstIpAddr;
  metadata.ifIndex = told.ifIndex;
  metadata.ttl = told.ttl;
  metadata.tos = told.tos;
  metadata.times = told.times;
  metadata.truncated = isCut(message);
  return metadata;
}

/// Straight from what the kernel told: for one datagram at a time a `UdpRxMetadata` in between costs.
void UdpPam::record(const msghdr& message, const detail::RxSide& side, bool cut, U32 octets, U32 packets,
                    Change& changes) {
  // Own attributes: `Change::put` would look each time whose they are.
  const auto put = [&changes](auto& attr, const auto& value) {
    if (attr.store(value)) changes.changed(attr);
  };
  if (ipv6()) {
    const auto from = side.peerAs<sockaddr_in6>();
    put(rxSrcIp6Addr, detail::addressOf(from.sin6_addr));
    put(rxSrcPort, ntohs(from.sin6_port));
  } else {
    const auto from = side.peerAs<sockaddr_in>();
    put(rxSrcIpAddr, detail::addressOf(from.sin_addr));
    put(rxSrcPort, ntohs(from.sin_port));
  }
  const auto from = Printed{[this] { return std::string(name()) + " from " + textOf(rxSrc(), rxSrcPort()); }};
  KIV_TRACE(trace, 8) << from << ": Received packet of size " << octets;
  if (cut) KIV_TRACE(trace, 0) << from << ": Datagram truncated to " << octets;
  const detail::IpControl told = detail::ipControlOf(message);
  if (told.pktInfo) {
    KIV_TRACE(trace, 8) << from << ": Received from ifindex " << told.ifIndex << " with src IP " << rxSrc()
                        << " and dest IP " << told.dstIpAddr;
    put(rxIfIndex, told.ifIndex);
    if (ipv6()) {
      put(rxDstIp6Addr, told.dstIpAddr.v6Addr());
    } else {
      put(rxDstIpAddr, told.dstIpAddr.v4Addr());
    }
  } else {
    KIV_TRACE(trace, 1) << from << ": recvmsg failed to retrieve ifindex";
  }
  put(rxTTL, told.ttl);
  put(rxTOS, told.tos);
  changes.put(rxTimes, told.times);
  put(rxPkts, rxPkts() + packets);
}

void UdpPam::doGetRxPkt() {
  if (rxPktHeld() || fd() < 0 || mode() == Mode::send) return;
  if (gro_) return pullSlice();
  detail::Received got;
  if (!receive(got, std::min(maxRxPktData(), kMaxDatagram))) return;
  Change changes(this);
  record(got.message, got.side, isCut(got.message), got.pkt->bytes(), 1, changes);
  deliver(std::move(got.pkt), changes);
}

S32 UdpPam::doGetBulkRxPkt() {
  if (batchHeld_ > 0) return std::exchange(batchHeld_, 0);
  savedPacketRxDelAll();
  if (fd() < 0 || mode() == Mode::send) return 0;
  const U16 limit = std::clamp<U16>(socketReadLimit(), 1, maxSocketReadLimit);
  sliceOf_.clear();
  S32 received = 0;
  if (gro_) {
    received = sliceBatch();
  } else if (!isDrained()) {
    received = receiveBatch(limit, std::min(maxRxPktData(), kMaxDatagram));
    noteBatch(received);
  }
  if (received == 0) {
    rxPulled(0);  // ends the pull
    return 0;
  }
  const auto last = static_cast<U16>(received - 1);
  const Pkt& pkt = *savedSlots()[last];
  const U16 slot = sliceOf_.empty() ? last : sliceOf_[last];
  const bool cut = sliceOf_.empty() ? isCut(batch()->message(slot)) : isCutSlice(slot, pkt);
  Change changes(this);
  record(batch()->message(slot), batch()->side(slot), cut, pkt.bytes(), static_cast<U32>(received), changes);
  batchHeld_ = received;
  changes.tell();
  return std::exchange(batchHeld_, 0);
}

UdpRxMetadata UdpPam::rxMetadata(U16 index) const {
  if (sliceOf_.empty()) {
    const detail::RxBatch* const told = batchWith(index);
    return told ? metadataOf(told->message(index), told->side(index)) : UdpRxMetadata();
  }
  // The Pam may have been closed, or have begun another batch, since.
  if (!savedPacketRx(index) || index >= sliceOf_.size() || !savedPacket(index)) return {};
  const U16 slot = sliceOf_[index];
  if (!batch() || slot >= batch()->received()) return {};
  UdpRxMetadata metadata = metadataOf(batch()->message(slot), batch()->side(slot));
  metadata.truncated = isCutSlice(slot, *savedPacket(index));
  return metadata;
}

// Merged datagrams
// -----------------------------------------------------------------------------------------------

/// A batch of datagrams that the kernel may have merged, and how far it was cut up.
struct UdpPam::Merged {
  std::vector<Pkt::Ptr> slots;
  U16 count = 0, at = 0;  // received; begun
  detail::Slices slices;  // of the one begun last
};

bool UdpPam::mergedLeft() const noexcept {
  return merged_ && (merged_->at < merged_->count || !merged_->slices.empty());
}

U32 UdpPam::segmentBytes(U16 slot) const {
  const U32 told = detail::ipControlOf(batch()->message(slot)).segmentBytes;
  return told != 0 ? told : batch()->bytes(slot);
}

bool UdpPam::isCutSlice(U16 slot, const Pkt& slice) const {
  return isCut(batch()->message(slot)) ||
         (slice.bytes() == maxRxPktData() && segmentBytes(slot) > maxRxPktData());
}

/// Whether the socket is known to be empty: the latest batch of the present event was not full. Says so once,
/// for a client that polls without a loop.
bool UdpPam::isDrained() noexcept {
  return std::exchange(drained_, false) && drainedEvent_ == readableCount();
}

void UdpPam::noteBatch(S32 received) noexcept {
  // On a connected socket an error ends a batch as well, and edge-triggered nobody reports what is behind it.
  const bool mayHideMore = socketConnected() && fileDesc()->edgeTriggered();
  drained_ = received > 0 && received < batch()->asked() && !mayHideMore;
  drainedEvent_ = readableCount();
}

/// False if there is none.
bool UdpPam::receiveMerged() {
  if (isDrained()) return false;
  if (!merged_) merged_.reset(new (std::nothrow) Merged);
  if (!merged_) {
    receiveFailed(true, 0);
    return false;
  }
  merged_->at = merged_->count = 0;
  const U16 limit = std::clamp<U16>(socketReadLimit(), 1, kMaxMerged);
  const S32 count = receiveInto(merged_->slots, limit, kMaxDatagram);
  noteBatch(count);
  if (count == 0) return false;  // a reactor to the failure may have closed the Pam
  merged_->count = static_cast<U16>(count);
  return true;
}

/// Null, with nothing lost, if there is none, or no memory.
Pkt::Ptr UdpPam::nextSlice() {
  Merged& merged = *merged_;
  if (merged.slices.empty()) {
    if (merged.at == merged.count) return nullptr;
    const U16 slot = merged.at++;
    merged.slices.start(merged.slots[slot], segmentBytes(slot));
  }
  const Pkt::Ptr slice = merged.slices.next(maxRxPktData());
  if (!slice) receiveFailed(true, 0);
  return slice;
}

void UdpPam::pullSlice() {
  if (rxAllowance(1) == 0) return offerRest();
  const bool any = mergedLeft() || receiveMerged();
  Pkt::Ptr slice = any ? nextSlice() : nullptr;
  rxPulled(slice != nullptr);
  if (mergedLeft()) fileDesc()->readableAgain();  // the kernel does not know of them
  if (!slice) return;
  const auto slot = static_cast<U16>(merged_->at - 1);
  Change changes(this);
  record(batch()->message(slot), batch()->side(slot), isCutSlice(slot, *slice), slice->bytes(), 1, changes);
  deliver(std::move(slice), changes);
}

S32 UdpPam::sliceBatch() {
  constexpr U32 kMost = kMaxMerged * kMaxSegments;
  if (rxAllowance(1) == 0) {
    offerRest();
    return 0;
  }
  try {
    sliceOf_.reserve(kMost);
  } catch (const std::bad_alloc&) {
    receiveFailed(true, 0);
    return 0;
  }
  if (!saveableIs(kMost)) {
    receiveFailed(true, 0);
    return 0;
  }
  std::vector<Pkt::Ptr>& slots = savedSlots();
  slots.clear();  // lets go of the merged buffers, which are received into again
  if (mergedLeft() || receiveMerged()) {
    while (slots.size() < kMost) {
      Pkt::Ptr slice = nextSlice();
      if (!slice) break;
      slots.push_back(std::move(slice));
      sliceOf_.push_back(merged_->at - 1);
    }
  }
  const auto count = static_cast<U16>(slots.size());
  rxPulled(count);
  savedReceived(count);
  if (mergedLeft()) fileDesc()->readableAgain();
  return count;
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
