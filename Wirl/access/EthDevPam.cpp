// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/EthDevPam.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/net_tstamp.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/FrameRing.h"
#include "Wirl/access/detail/OffloadHeader.h"
#include "Wirl/access/detail/Receive.h"
#include "Wirl/access/detail/Socket.h"
#include "Wirl/access/detail/attachFilter.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("EthDevPam");

/// Longer than any frame that the kernel delivers, merged (GRO) frames included.
constexpr U32 kMaxFrame = 1 << 18;
constexpr U16 kDot1Q = 0x8100;
constexpr U32 kEthType = 12;  // offset in a frame

// Where the sender's address lies behind the header of a frame in the ring.
constexpr U32 kRingAddress =
    (sizeof(tpacket3_hdr) + TPACKET_ALIGNMENT - 1) / TPACKET_ALIGNMENT * TPACKET_ALIGNMENT;
constexpr U32 kMergedTcp = 1 << 8;  // TP_STATUS_GSO_TCP
constexpr U32 kOffloadHeader = sizeof(detail::OffloadHeader);
constexpr Kiv::Time kRetry = std::chrono::milliseconds(100);

/// What the status bits of a frame say. `pkt` gets the tag that the kernel removed.
void takeStatus(U32 status, U16 tci, U16 tpid, EthRxMetadata& metadata, Pkt& pkt) {
  const auto is = [status](U32 bit) { return (status & bit) != 0; };
  if (is(TP_STATUS_CSUM_VALID)) metadata.checksum = RxChecksum::valid;
  if (is(TP_STATUS_CSUMNOTREADY)) metadata.checksum = RxChecksum::notFilledIn;
  metadata.merged = is(kMergedTcp);
  if (is(TP_STATUS_VLAN_VALID)) pkt.newSeparateVlanTag(tci, is(TP_STATUS_VLAN_TPID_VALID) ? tpid : kDot1Q);
}

/// Reads what the kernel told about a frame.
EthRxMetadata metadataOf(const msghdr& message, const detail::RxSide& side, Pkt& pkt) {
  EthRxMetadata metadata;
  metadata.pktType = side.peerAs<sockaddr_ll>().sll_pkttype;
  detail::eachControl(message, [&](const cmsghdr& each) {
    detail::takeTimes(each, metadata.times);
    if (each.cmsg_level != SOL_PACKET || each.cmsg_type != PACKET_AUXDATA) return;
    const auto data = detail::dataOf<tpacket_auxdata>(each);
    metadata.frameBytes = data.tp_len;
    takeStatus(data.tp_status, data.tp_vlan_tci, data.tp_vlan_tpid, metadata, pkt);
  });
  return metadata;
}

void takeOffload(const U8* octets, EthRxMetadata& metadata) {
  detail::OffloadHeader header;
  std::memcpy(&header, octets, sizeof(header));
  metadata.merged = header.segmentation != 0;
  metadata.segmentBytes = metadata.merged ? header.segmentBytes : U16{0};
  if ((header.flags & detail::OffloadHeader::kChecksumMissing) == 0) return;
  metadata.checksum = RxChecksum::notFilledIn;
  metadata.checksumStart = header.checksumStart;
  metadata.checksumOffset = header.checksumOffset;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, RxChecksum checksum) {
  constexpr const char* kNames[] = {"unknown", "valid", "notFilledIn"};
  return out << kNames[static_cast<U8>(checksum)];
}

EthDevPam::EthDevPam(Kiv::String name, Kiv::String device, const NamespaceName& ns)
    : PacketPam(std::move(name), ns), devName(std::move(device)) {}

EthDevPam::~EthDevPam() = default;

const Kiv::TraceHandle& EthDevPam::traceHandle() const {
  return trace;
}

// Opening and closing
// ----------------------------------------------------------------------------------------

void EthDevPam::setUp(Change& changes) {
  const U32 formerIndex = ifIndex();
  const EthAddr formerAddress = ethAddr();
  try {
    findDevice();
    applyOptions();
  } catch (...) {
    ifIndex.store(formerIndex);  // reactors know these
    ethAddr.store(formerAddress);
    throw;
  }
  changes.put(devPresent, true);
  if (ifIndex() != formerIndex) changes.changed(ifIndex);
  if (ethAddr() != formerAddress) changes.changed(ethAddr);
}

void EthDevPam::enabledIsImpl(bool on) {
  if (!on && enabled()) {
    memberships_.clear();
    if (retry_) retry_->timeMinIs(Kiv::timeInfinite);
  }
  PacketPam::enabledIsImpl(on);
}

/// Of a device that comes back the next try may have more luck.
void EthDevPam::openFailed(Change& changes) noexcept {
  if (!comingBack_) PacketPam::openFailed(changes);
}

void EthDevPam::forget(Change&) noexcept {
  ring_ = nullptr;
  batchHeld_ = 0;
}

void EthDevPam::findDevice() {
  ifreq device;
  const std::string_view wanted = devName();
  if (!detail::deviceIs(fd(), SIOCGIFINDEX, wanted, device)) fail(errno, "ioctl(SIOCGIFINDEX)");
  ifIndex.store(static_cast<U32>(device.ifr_ifindex));
  if (!detail::deviceIs(fd(), SIOCGIFHWADDR, wanted, device)) fail(errno, "ioctl(SIOCGIFHWADDR)");
  unsigned char octets[6];
  std::memcpy(octets, device.ifr_hwaddr.sa_data, sizeof(octets));
  EthAddr address;
  address.copyFromBuffer(octets);
  ethAddr.store(address);
}

void EthDevPam::applyOptions() {
  applySocketOptions();
  setOption(SOL_PACKET, PACKET_AUXDATA, 1, "setsockopt(PACKET_AUXDATA)");
  if (!rxOutgoing()) setOption(SOL_PACKET, PACKET_IGNORE_OUTGOING, 1, "setsockopt(PACKET_IGNORE_OUTGOING)");
  if (rxBuf() != 0) {
    const int size = static_cast<int>(std::min<U32>(rxBuf(), INT_MAX));
    setOption(SOL_SOCKET, SO_RCVBUFFORCE, size, "setsockopt(SO_RCVBUFFORCE)");
  }
  offloadHeader_ = enableRxOffload();
  if (offloadHeader_) setOption(SOL_PACKET, PACKET_VNET_HDR, 1, "setsockopt(PACKET_VNET_HDR)");
  handleRxFilter();
  if (rxRingBytes() != 0) {
    ring_ = std::make_unique<detail::FrameRing>();
    if (const char* const failed = ring_->open(fd(), rxRingBytes())) closeAndFail(errno, failed);
    if (rxTimestamps() == RxTimestamps::hardware) {
      setOption(SOL_PACKET, PACKET_TIMESTAMP, SOF_TIMESTAMPING_RAW_HARDWARE, "setsockopt(PACKET_TIMESTAMP)");
    }
  }
  if (promiscuous()) handlePromiscuous();
  if (allMulticast()) handleAllMulticast();
  for (const EthAddr& address : memberships_) joinOrLeave(address, true);
  sockaddr_ll local{};
  local.sll_family = AF_PACKET;
  local.sll_protocol = htons(ETH_P_ALL);
  local.sll_ifindex = static_cast<int>(ifIndex());
  if (bind(fd(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) < 0) fail(errno, "bind");
}

// What the device accepts
// ------------------------------------------------------------------------------------

void EthDevPam::membershipIs(U16 type, bool join, const char* text) {
  packet_mreq request{};
  request.mr_ifindex = static_cast<int>(ifIndex());
  request.mr_type = type;
  const int option = join ? PACKET_ADD_MEMBERSHIP : PACKET_DROP_MEMBERSHIP;
  setOption(SOL_PACKET, option, &request, sizeof(request), text);
}

void EthDevPam::handlePromiscuous() {
  if (fd() >= 0) membershipIs(PACKET_MR_PROMISC, promiscuous(), "setsockopt(PACKET_MR_PROMISC)");
}

void EthDevPam::handleAllMulticast() {
  if (fd() >= 0) membershipIs(PACKET_MR_ALLMULTI, allMulticast(), "setsockopt(PACKET_MR_ALLMULTI)");
}

/// Filters the EtherType with BPF instead of the socket's protocol: sockets bound to one protocol get frames
/// with the VLAN tag stripped and not reported.
void EthDevPam::handleRxFilter() {
  if (fd() < 0) return;
  std::vector<sock_filter> program;
  if (ethType() != kAllEthTypes) {
    program = {BPF_STMT(BPF_LD | BPF_H | BPF_ABS, kEthType),
               BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ethType(), 1, 0), BPF_STMT(BPF_RET | BPF_K, 0)};
    if (rxFilter().empty()) program.push_back(BPF_STMT(BPF_RET | BPF_K, kMaxFrame));
  }
  detail::appendFilter(program, rxFilter());
  if (program.empty()) {
    if (detail::detachFilter(fd()) < 0 && errno != ENOENT)
      closeAndFail(errno, "setsockopt(SO_DETACH_FILTER)");
  } else if (detail::attachFilter(fd(), std::move(program)) < 0) {
    closeAndFail(errno, "setsockopt(SO_ATTACH_FILTER)");
  }
}

S32 EthDevPam::joinOrLeave(const EthAddr& address, bool join) {
  packet_mreq request{};
  request.mr_ifindex = static_cast<int>(ifIndex());
  request.mr_type = address.isUnicast() ? PACKET_MR_UNICAST : PACKET_MR_MULTICAST;
  request.mr_alen = 6;
  address.copyToBuffer(request.mr_address);
  const int option = join ? PACKET_ADD_MEMBERSHIP : PACKET_DROP_MEMBERSHIP;
  return setsockopt(fd(), SOL_PACKET, option, &request, sizeof(request)) < 0 ? errno : 0;
}

S32 EthDevPam::handleMembership(const EthAddr& address, bool join) {
  if (fd() < 0) return ENODEV;
  if (join) memberships_.reserve(memberships_.size() + 1);
  const S32 error = joinOrLeave(address, join);
  if (error != 0) return error;
  if (join) {
    memberships_.push_back(address);  // each time: the kernel counts them, too
  } else if (const auto one = std::find(memberships_.begin(), memberships_.end(), address);
             one != memberships_.end()) {
    memberships_.erase(one);
  }
  return 0;
}

// A device that vanishes
// -------------------------------------------------------------------------------------

void EthDevPam::sendFailed(int error, Change& changes) {
  if (error == ENXIO || error == ENODEV || error == ENETDOWN) lookForDevice(changes);
}

/// After a failure that may be due to the device: it is only down, or gone.
void EthDevPam::lookForDevice(Change& changes) {
  ifreq device;
  const bool any = fd() >= 0 && detail::deviceIs(fd(), SIOCGIFINDEX, devName(), device);
  if (fd() < 0 || (any && static_cast<U32>(device.ifr_ifindex) == ifIndex())) return;
  if (!changes.put(devPresent, false)) return;  // known
  changes.run([this] {
    if (!retry_) {
      retry_ = Kiv::makePtr<Kiv::Clock>(name());
      onRetry_ = Kiv::Reactor(retry_->expiredCount, [this] { comeBack(); });
    }
    retry_->timeMinIs(Kiv::timeAfter(retry_->loop().now(), kRetry));
  });
}

void EthDevPam::comeBack() {
  const auto alive = Kiv::keepAlive(this);
  comingBack_ = true;
  try {
    reopen(enabled(), kind(), netNs());
  } catch (const Kiv::ErrnoException& failure) {
    KIV_TRACE(trace, 5) << name() << ": no device yet: " << failure.what();
  } catch (const std::bad_alloc&) {
    // The next try may have more.
  } catch (...) {
    comingBack_ = false;  // of a reactor, which was told that the device is back
    throw;
  }
  comingBack_ = false;
  if (enabled() && !devPresent()) retry_->timeMinIs(Kiv::timeAfter(retry_->loop().now(), kRetry));
}

// Sending and receiving
// --------------------------------------------------------------------------------------

void EthDevPam::sendPkt(const Pkt::Ptr& pkt) {
  sendFrame(pkt, nullptr);
}

void EthDevPam::checkSocketReadLimit() {
  if (socketReadLimit() < 1 || socketReadLimit() > maxSocketReadLimit) {
    throw Kiv::RangeException("EthDevPam::socketReadLimit < 1 or > 128 not allowed");
  }
}

/// Takes the kernel's header off the front of a frame.
EthRxMetadata EthDevPam::takeOffloadHeader(Pkt& pkt, EthRxMetadata metadata) const {
  if (!offloadHeader_ || pkt.frontBytes() < kOffloadHeader) return metadata;
  takeOffload(pkt.front(), metadata);
  pkt.delSharedHeadData(kOffloadHeader);
  return metadata;
}

void EthDevPam::doGetRxPkt() {
  if (rxPktHeld()) return;
  EthRxMetadata metadata;
  Pkt::Ptr pkt;
  if (ring_) {
    pkt = fromRing(metadata);
  } else if (detail::Received got; receive(got, room())) {
    metadata = takeOffloadHeader(*got.pkt, metadataOf(got.message, got.side, *got.pkt));
    pkt = std::move(got.pkt);
  }
  if (!pkt) return;
  Change changes(this);
  publish(metadata, 1, changes);
  deliver(std::move(pkt), changes);
}

/// The next frame of the ring, in a packet of its own; null if there is none, the event's budget is spent or
/// there is no memory.
Pkt::Ptr EthDevPam::fromRing(EthRxMetadata& metadata) {
  if (fd() < 0) return nullptr;
  if (rxAllowance(1) == 0) {
    offerRest();
    return nullptr;
  }
  const tpacket3_hdr* const frame = ring_->front();
  if (!frame) {
    rxPulled(0);
    ringIsEmpty();
    return nullptr;
  }
  const U32 bytes = std::min({frame->tp_snaplen, maxRxPktData(), kMaxFrame});
  const Pkt::Ptr pkt = detail::newRxPkt(bytes);
  if (!pkt) {
    rxPulled(0);
    offerRest();
    receiveFailed(false, 0);
    return nullptr;
  }
  const U8* const header = reinterpret_cast<const U8*>(frame);
  const U8* const octets = header + frame->tp_mac;
  std::memcpy(pkt->front(), octets, bytes);
  sockaddr_ll from;
  std::memcpy(&from, header + kRingAddress, sizeof(from));
  metadata = {};
  metadata.pktType = from.sll_pkttype;
  metadata.frameBytes = frame->tp_len;
  const U16 tci = static_cast<U16>(frame->hv1.tp_vlan_tci);
  takeStatus(frame->tp_status, tci, frame->hv1.tp_vlan_tpid, metadata, *pkt);
  if (offloadHeader_) takeOffload(octets - kOffloadHeader, metadata);
  if (rxTimestamps() != RxTimestamps::off) {
    const U64 time = U64{frame->tp_sec} * 1'000'000'000 + frame->tp_nsec;
    ((frame->tp_status & TP_STATUS_TS_RAW_HARDWARE) != 0 ? metadata.times.hardware : metadata.times.kernel) =
        time;
  }
  ring_->pop();
  rxPulled(1);
  ringEvent_ = readableCount();
  return pkt;
}

/// An event without a frame is about an error, which no receive call fetches.
void EthDevPam::ringIsEmpty() {
  if (std::exchange(ringEvent_, readableCount()) == readableCount()) return;
  int error = 0;
  socklen_t length = sizeof(error);
  if (getsockopt(fd(), SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error != 0) receiveFailed(false, error);
}

S32 EthDevPam::doGetBulkRxPkt() {
  if (batchHeld_ > 0) return std::exchange(batchHeld_, 0);
  const U16 limit = std::clamp<U16>(socketReadLimit(), 1, maxSocketReadLimit);
  savedPacketRxDelAll();
  try {
    metadata_.resize(maxSocketReadLimit);
  } catch (const std::bad_alloc&) {
    receiveFailed(true, 0);
    return 0;
  }
  const S32 received = ring_ ? fillFromRing(limit) : fillFromSocket(limit);
  if (received == 0) return 0;
  Change changes(this);
  publish(metadata_[static_cast<U32>(received - 1)], static_cast<U32>(received), changes);
  batchHeld_ = received;
  changes.tell();
  return std::exchange(batchHeld_, 0);
}

S32 EthDevPam::fillFromSocket(U16 limit) {
  const S32 received = receiveBatch(limit, room());
  for (U16 index = 0; index < received; ++index) {
    Pkt& pkt = *savedPacket(index);
    metadata_[index] = takeOffloadHeader(pkt, metadataOf(batch()->message(index), batch()->side(index), pkt));
  }
  return received;
}

S32 EthDevPam::fillFromRing(U16 limit) {
  // Once for the batch: a spent budget must end the pull, not a batch that has packets.
  const U32 allowed = rxAllowance(limit);
  if (allowed == 0) {
    if (fd() >= 0) offerRest();
    return 0;
  }
  if (!saveableIs(limit)) {
    receiveFailed(true, 0);
    return 0;
  }
  std::vector<Pkt::Ptr>& slots = savedSlots();
  slots.clear();
  while (slots.size() < allowed && ring_) {
    Pkt::Ptr pkt = fromRing(metadata_[slots.size()]);
    if (!pkt) break;
    slots.push_back(std::move(pkt));
  }
  savedReceived(static_cast<U16>(slots.size()));
  return static_cast<S32>(slots.size());
}

U32 EthDevPam::room() const {
  return std::min(maxRxPktData(), kMaxFrame) + (offloadHeader_ ? kOffloadHeader : 0);
}

U32 EthDevPam::newDrops() const {
  if (!ring_ || fd() < 0) return PacketPam::newDrops();
  tpacket_stats_v3 counts{};  // since they were asked for last
  socklen_t length = sizeof(counts);
  return getsockopt(fd(), SOL_PACKET, PACKET_STATISTICS, &counts, &length) < 0 ? 0 : counts.tp_drops;
}

EthRxMetadata EthDevPam::rxMetadata(U16 index) const {
  return savedPacketRx(index) && index < metadata_.size() ? metadata_[index] : EthRxMetadata();
}

void EthDevPam::receiveFailed(bool batch, int error) {
  SocketPam::receiveFailed(batch, error);
  if (batch && error == EAGAIN) rxErrorsInc(1);
  if (error != ENETDOWN && error != ENXIO && error != ENODEV) return;
  Change changes(this);
  lookForDevice(changes);
  changes.tell();
}

void EthDevPam::publish(const EthRxMetadata& metadata, U32 packets, Change& changes) {
  KIV_TRACE(trace, 8) << "Received frame of size " << metadata.frameBytes << " type " << metadata.pktType;
  changes.put(rxPktType, metadata.pktType);
  changes.put(rxFrameBytes, metadata.frameBytes);
  changes.put(rxChecksum, metadata.checksum);
  changes.put(rxTimes, metadata.times);
  changes.put(rxMerged, metadata.merged);
  changes.put(rxPktCount, rxPktCount() + packets);
}

Kiv::Ptr<EthDevPam> ethDevPamFactory(Kiv::String name, Kiv::String devName, const NamespaceName& netNs) {
  return Kiv::makePtr<EthDevPam>(std::move(name), std::move(devName), netNs);
}

}  // namespace Wirl
