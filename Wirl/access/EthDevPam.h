// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "Wirl/access/IpFilter.h"
#include "Wirl/access/PacketPam.h"
#include "Wirl/value/EthAddr.h"

namespace Wirl {

namespace detail {
class RxBatch;
}

/// What is known of a received frame beside its octets.
struct EthRxMetadata {
  /// Whom it was for: PACKET_HOST, PACKET_BROADCAST, PACKET_MULTICAST, PACKET_OTHERHOST, PACKET_OUTGOING.
  U8 pktType = 0;
  /// Its length before it was cut to `maxRxPktData`, without a tag that is beside the octets.
  U32 frameBytes = 0;
};

/// The frames of one network device, received and sent whole; see `PacketPam`.
///
/// What is received is told apart in the kernel: frames of one EtherType (`ethType`, host order; 3 for all of
/// them), through a classic BPF program (`rxFilter`, empty: no filter), those that this host sends on the
/// device only with `rxOutgoing`. `promiscuous`, `allMulticast` and `handleMembership` have the device take
/// in what it would otherwise ignore. `rxOutgoing` and `rxBuf` (octets; 0: the system's default)
/// are read at opening; the others also apply at once, and one that the kernel refuses then closes the socket
/// and throws.
///
/// A VLAN tag is no longer in the frame by the time that the kernel delivers it: it is the packet's separate
/// tag.
///
/// Receiving: `rxPkt` gives one frame; `rxPktBulk` up to `socketReadLimit` with one system call, in the slots
/// of `savedPacket` that `savedPacketRx` marks, the first ones. A packet of a batch may be kept: its slot
/// gets another one for the next batch. A failed receive counts in `rxErrors`; an empty socket does so in
/// bulk only. `rxDrops` is the kernel's count of frames for which the socket had no room.
///
/// When the device goes down, receiving fails once (ENETDOWN) and goes on by itself when it is up again. When
/// it disappears, sends fail (ENXIO) and nothing is received until the Pam is disabled and enabled again.
class KIV_API EthDevPam final : public PacketPam {
 public:
  KIV_ENTITY(EthDevPam, PacketPam)
  KIV_ATTR_READ(Kiv::String, devName)
  KIV_ATTR_READ(U32, ifIndex, 0)
  KIV_ATTR_READ(EthAddr, ethAddr)
  KIV_ATTR_HOOK(U16, ethType, kAllEthTypes, handleRxFilter)
  KIV_ATTR(bool, rxOutgoing, false)
  KIV_ATTR(U32, rxBuf, 0)
  KIV_ATTR_HOOK(bool, promiscuous, false, handlePromiscuous)
  KIV_ATTR_HOOK(bool, allMulticast, false, handleAllMulticast)
  KIV_ATTR_HOOK(IpFilterProgram, rxFilter, IpFilterProgram(), handleRxFilter)
  KIV_ATTR(U32, maxRxPktData, 1518)
  KIV_ATTR_HOOK(U8, socketReadLimit, maxSocketReadLimit, checkSocketReadLimit)
  KIV_ATTR(U8, rxPktType, 0)
  KIV_ATTR(U32, rxFrameBytes, 0)
  KIV_ATTR_COUNTER(U64, rxPktCount)

  static constexpr U16 kAllEthTypes = 3;
  static constexpr U8 maxSocketReadLimit = 128;

  /// For the device `devName` of a namespace.
  EthDevPam(Kiv::String name, Kiv::String device, const NamespaceName& ns);
  ~EthDevPam() override;

  /// Has the device take in frames for another address of its own, or a group, or no longer. Returns 0 or an
  /// errno: ENODEV without a socket or device. Leaving what was not joined is no error. Goes with the socket.
  S32 handleMembership(const EthAddr& address, bool join);

  /// Of the frame in slot `index` of the latest batch; all 0 for a slot without one.
  EthRxMetadata rxMetadata(U16 index) const;

 protected:
  void sendPkt(const Pkt::Ptr& pkt) override;
  void configure() override;
  void setUp();
  void doGetRxPkt() override;
  S32 doGetBulkRxPkt() override;

 private:
  void handlePromiscuous();
  void handleAllMulticast();
  void handleRxFilter();
  void checkSocketReadLimit();
  void membershipIs(U16 type, bool join, const char* text);
  void bindToDevice();
  void receiveFailed(const char* call, int error);
  void publish(const EthRxMetadata& metadata);

  Pkt::Ptr spare_;  // for the next receive, if it is nobody else's then
  std::unique_ptr<detail::RxBatch> batch_;
};

KIV_API Kiv::Ptr<EthDevPam> ethDevPamFactory(Kiv::String name, Kiv::String devName,
                                             const NamespaceName& netNs);

}  // namespace Wirl
