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
#include <new>
#include <utility>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/Receive.h"
#include "Wirl/access/detail/attachFilter.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("EthDevPam");

/// More than any frame that the kernel delivers, merged ones included.
constexpr U32 kMaxFrame = 1 << 18;
constexpr U16 kDot1Q = 0x8100;
constexpr U32 kEthType = 12;  // where it is in a frame

/// What was told of a frame; the tag that the kernel took out of it goes to `pkt`, unless that is null.
EthRxMetadata metadataOf(msghdr& message, const detail::RxSide& side, Pkt* pkt) {
  EthRxMetadata metadata;
  metadata.pktType = side.peerAs<sockaddr_ll>().sll_pkttype;
  for (cmsghdr* each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
    if (each->cmsg_level != SOL_PACKET || each->cmsg_type != PACKET_AUXDATA) continue;
    const auto data = detail::dataOf<tpacket_auxdata>(*each);
    metadata.frameBytes = data.tp_len;
    if (pkt && (data.tp_status & TP_STATUS_VLAN_VALID) != 0) {
      const bool told = (data.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0;
      pkt->newSeparateVlanTag(data.tp_vlan_tci, told ? data.tp_vlan_tpid : kDot1Q);
    }
  }
  return metadata;
}

}  // namespace

EthDevPam::EthDevPam(Kiv::String name, Kiv::String device, const NamespaceName& ns)
    : PacketPam(std::move(name), ns), devName(std::move(device)) {}

EthDevPam::~EthDevPam() = default;

// Opening and closing
// ----------------------------------------------------------------------------------------

void EthDevPam::configure() {
  const U32 formerIndex = ifIndex();
  const EthAddr formerAddress = ethAddr();
  try {
    setUp();
  } catch (...) {
    ifIndex.store(formerIndex);  // as was last told
    ethAddr.store(formerAddress);
    throw;
  }
  // Told of when the socket is as it should be: from here on reactors may do anything.
  const bool addressChanged = ethAddr() != formerAddress;
  if (ifIndex() != formerIndex) ifIndex.notifiees().notify();
  if (addressChanged) ethAddr.notifiees().notify();
}

/// The socket belongs to no protocol before it is bound, so that it receives nothing that it should not.
void EthDevPam::setUp() {
  ifreq device{};
  if (devName().bytes() >= sizeof(device.ifr_name)) throw Kiv::ErrnoException(ENODEV, "ioctl(SIOCGIFINDEX)");
  std::copy(devName().begin(), devName().end(), device.ifr_name);
  if (ioctl(fd(), SIOCGIFINDEX, &device) < 0) throw Kiv::ErrnoException(errno, "ioctl(SIOCGIFINDEX)");
  ifIndex.store(static_cast<U32>(device.ifr_ifindex));
  if (ioctl(fd(), SIOCGIFHWADDR, &device) < 0) throw Kiv::ErrnoException(errno, "ioctl(SIOCGIFHWADDR)");
  EthAddr address;
  unsigned char octets[6];
  std::memcpy(octets, device.ifr_hwaddr.sa_data, sizeof(octets));
  address.copyFromBuffer(octets);
  ethAddr.store(address);

  setOption(SOL_PACKET, PACKET_AUXDATA, 1, "setsockopt(PACKET_AUXDATA)");
  if (!rxOutgoing()) setOption(SOL_PACKET, PACKET_IGNORE_OUTGOING, 1, "setsockopt(PACKET_IGNORE_OUTGOING)");
  if (rxBuf() != 0) {
    const int size = static_cast<int>(std::min<U32>(rxBuf(), INT_MAX));
    setOption(SOL_SOCKET, SO_RCVBUFFORCE, size, "setsockopt(SO_RCVBUFFORCE)");
  }
  handleRxFilter();
  if (promiscuous()) handlePromiscuous();
  if (allMulticast()) handleAllMulticast();
  bindToDevice();
  fileDesc()->notifyOnReadableIs(true);
}

void EthDevPam::bindToDevice() {
  sockaddr_ll local{};
  local.sll_family = AF_PACKET;
  local.sll_protocol = htons(ETH_P_ALL);
  local.sll_ifindex = static_cast<int>(ifIndex());
  if (bind(fd(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) < 0) {
    throw Kiv::ErrnoException(errno, "bind");
  }
}

// What the device takes in
// -----------------------------------------------------------------------------------

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

/// The type is told apart by a program, too, and not by the socket's protocol: to sockets of one protocol the
/// kernel delivers frames without the tag that it took out of them.
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
      closeAndThrow(errno, "setsockopt(SO_DETACH_FILTER)");
  } else if (detail::attachFilter(fd(), std::move(program)) < 0) {
    closeAndThrow(errno, "setsockopt(SO_ATTACH_FILTER)");
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
  sendFrame(*pkt, nullptr);
}

void EthDevPam::checkSocketReadLimit() {
  if (socketReadLimit() < 1 || socketReadLimit() > maxSocketReadLimit) {
    throw Kiv::RangeException("EthDevPam::socketReadLimit < 1 or > 128 not allowed");
  }
}

void EthDevPam::doGetRxPkt() {
  if (fd() < 0) return;
  msghdr message;
  detail::RxSide side;
  Pkt::Ptr pkt = detail::receivePkt(spare_, fd(), std::min(maxRxPktData(), kMaxFrame), message, side);
  if (!pkt) {
    if (errno != 0 && errno != EAGAIN) receiveFailed("recvmsg", errno);
    return;
  }
  publish(metadataOf(message, side, pkt.get()));
  rxPktCountInc(1);
  rxPktHolderIs(std::move(pkt));
}

S32 EthDevPam::doGetBulkRxPkt() {
  if (fd() < 0) {
    savedPacketRxDelAll();
    return 0;
  }
  if (!batch_) batch_.reset(new (std::nothrow) detail::RxBatch);
  const U16 limit = std::clamp<U16>(socketReadLimit(), 1, maxSocketReadLimit);
  const U32 room = std::min(maxRxPktData(), kMaxFrame);
  const S32 received = batch_ ? batch_->receive(*this, fd(), limit, room) : 0;
  if (received < 0) {
    receiveFailed("recvmmsg", errno);
    return 0;
  }
  if (received == 0) return 0;
  EthRxMetadata last;
  for (U16 index = 0; index < received; ++index) {
    last = metadataOf(batch_->message(index), batch_->side(index), savedPacket(index).get());
  }
  publish(last);
  rxPktCountInc(static_cast<U64>(received));
  return received;
}

EthRxMetadata EthDevPam::rxMetadata(U16 index) const {
  if (!batch_ || index >= batch_->received()) return {};
  return metadataOf(batch_->message(index), batch_->side(index), nullptr);
}

void EthDevPam::receiveFailed(const char* call, int error) {
  if (error != EAGAIN) KIV_TRACE(trace, 0) << call << " failed with " << error;
  rxErrorsInc(1);
}

void EthDevPam::publish(const EthRxMetadata& metadata) {
  rxPktTypeIs(metadata.pktType);
  rxFrameBytesIs(metadata.frameBytes);
  KIV_TRACE(trace, 8) << "Received frame of size " << metadata.frameBytes << " type " << metadata.pktType;
}

Kiv::Ptr<EthDevPam> ethDevPamFactory(Kiv::String name, Kiv::String devName, const NamespaceName& netNs) {
  return Kiv::makePtr<EthDevPam>(std::move(name), std::move(devName), netNs);
}

}  // namespace Wirl
