// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/EthDevPam.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
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

/// Reads what the kernel told about a frame. `pkt`, unless null, gets the tag that the kernel removed.
EthRxMetadata metadataOf(const msghdr& message, const detail::RxSide& side, Pkt* pkt) {
  EthRxMetadata metadata;
  metadata.pktType = side.peerAs<sockaddr_ll>().sll_pkttype;
  detail::eachControl(message, [&](const cmsghdr& each) {
    detail::takeTimes(each, metadata.times);
    if (each.cmsg_level != SOL_PACKET || each.cmsg_type != PACKET_AUXDATA) return;
    const auto data = detail::dataOf<tpacket_auxdata>(each);
    const auto is = [&data](U32 bit) { return (data.tp_status & bit) != 0; };
    metadata.frameBytes = data.tp_len;
    if (is(TP_STATUS_CSUM_VALID)) metadata.checksum = RxChecksum::valid;
    if (is(TP_STATUS_CSUMNOTREADY)) metadata.checksum = RxChecksum::notFilledIn;
    if (!pkt || !is(TP_STATUS_VLAN_VALID)) return;
    pkt->newSeparateVlanTag(data.tp_vlan_tci, is(TP_STATUS_VLAN_TPID_VALID) ? data.tp_vlan_tpid : kDot1Q);
  });
  return metadata;
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
  if (ifIndex() != formerIndex) changes.changed(ifIndex);
  if (ethAddr() != formerAddress) changes.changed(ethAddr);
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
  handleRxFilter();
  if (promiscuous()) handlePromiscuous();
  if (allMulticast()) handleAllMulticast();
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

S32 EthDevPam::handleMembership(const EthAddr& address, bool join) {
  if (fd() < 0) return ENODEV;
  packet_mreq request{};
  request.mr_ifindex = static_cast<int>(ifIndex());
  request.mr_type = address.isUnicast() ? PACKET_MR_UNICAST : PACKET_MR_MULTICAST;
  request.mr_alen = 6;
  address.copyToBuffer(request.mr_address);
  const int option = join ? PACKET_ADD_MEMBERSHIP : PACKET_DROP_MEMBERSHIP;
  return setsockopt(fd(), SOL_PACKET, option, &request, sizeof(request)) < 0 ? errno : 0;
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

void EthDevPam::doGetRxPkt() {
  detail::Received got;
  if (!receive(got, std::min(maxRxPktData(), kMaxFrame))) return;
  Change changes(this);
  publish(metadataOf(got.message, got.side, got.pkt.get()), 1, changes);
  deliver(std::move(got.pkt), changes);
}

S32 EthDevPam::doGetBulkRxPkt() {
  if (batchHeld_ > 0) return std::exchange(batchHeld_, 0);
  const U16 limit = std::clamp<U16>(socketReadLimit(), 1, maxSocketReadLimit);
  const S32 received = receiveBatch(limit, std::min(maxRxPktData(), kMaxFrame));
  if (received == 0) return 0;
  EthRxMetadata last;
  for (U16 index = 0; index < received; ++index) {
    const detail::RxBatch& batch = *batchWith(index);
    last = metadataOf(batch.message(index), batch.side(index), savedPacket(index).get());
  }
  Change changes(this);
  publish(last, static_cast<U32>(received), changes);
  batchHeld_ = received;
  changes.tell();
  return std::exchange(batchHeld_, 0);
}

EthRxMetadata EthDevPam::rxMetadata(U16 index) const {
  const detail::RxBatch* const batch = batchWith(index);
  return batch ? metadataOf(batch->message(index), batch->side(index), nullptr) : EthRxMetadata();
}

void EthDevPam::receiveFailed(bool batch, int error) {
  SocketPam::receiveFailed(batch, error);
  if (batch && error == EAGAIN) rxErrorsInc(1);
}

void EthDevPam::publish(const EthRxMetadata& metadata, U32 packets, Change& changes) {
  KIV_TRACE(trace, 8) << "Received frame of size " << metadata.frameBytes << " type " << metadata.pktType;
  changes.put(rxPktType, metadata.pktType);
  changes.put(rxFrameBytes, metadata.frameBytes);
  changes.put(rxChecksum, metadata.checksum);
  changes.put(rxTimes, metadata.times);
  changes.put(rxPktCount, rxPktCount() + packets);
}

Kiv::Ptr<EthDevPam> ethDevPamFactory(Kiv::String name, Kiv::String devName, const NamespaceName& netNs) {
  return Kiv::makePtr<EthDevPam>(std::move(name), std::move(devName), netNs);
}

}  // namespace Wirl
