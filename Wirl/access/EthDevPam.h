// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <ostream>
#include <vector>

#include "Kiv/Clock.h"
#include "Kiv/Reactor.h"
#include "Wirl/access/IpFilter.h"
#include "Wirl/access/PacketPam.h"
#include "Wirl/value/EthAddr.h"

namespace Wirl {

/// What the kernel knows about the checksum behind the headers of a received frame.
enum class RxChecksum : U8 {
  unknown,
  /// Verified by the device, or sent by this machine and never damaged.
  valid,
  /// Not filled in yet: the frame was sent by this machine, and the device was to compute the checksum.
  notFilledIn
};
KIV_API std::ostream& operator<<(std::ostream& out, RxChecksum checksum);

namespace detail {
class FrameRing;
}

/// What is known about a received frame beside its octets.
struct EthRxMetadata {
  /// Whom it was for: PACKET_HOST, PACKET_BROADCAST, PACKET_MULTICAST, PACKET_OTHERHOST, PACKET_OUTGOING.
  U8 pktType = 0;
  /// Length before the frame was cut to `maxRxPktData`, without a separate VLAN tag.
  U32 frameBytes = 0;
  RxChecksum checksum = RxChecksum::unknown;  ///< What is known of its checksum.
  /// Whether the frame stands for several: it was merged on receive (GRO), or it was sent by this machine and
  /// the device was to segment it, in which case its checksum is `notFilledIn`, too. Known for TCP; for other
  /// protocols with `enableRxOffload`.
  bool merged = false;
  // With `enableRxOffload`:
  U16 segmentBytes = 0;    ///< Payload of each of the merged frames.
  U16 checksumStart = 0;   ///< Of a checksum that is not filled in: where the sum begins,
  U16 checksumOffset = 0;  ///< and where it belongs, counted from there.
  RxTimes times;
};

/// Receives and sends whole frames of one network device; see `PacketPam`.
///
/// The kernel selects what is received: frames of one EtherType (`ethType`, host order; 3 for all types) that
/// pass a classic BPF program (`rxFilter`; empty: no filter). Frames that this host sends on the device come
/// only with `rxOutgoing`. `promiscuous`, `allMulticast` and `handleMembership` make the device accept frames
/// that it would otherwise ignore. `rxOutgoing` and `rxBuf` (octets; 0: the system's default) apply when the
/// Pam is enabled. The others also apply at once; if the kernel refuses one then, the socket is closed and
/// the setter throws.
///
/// The kernel removes the VLAN tag of a frame; the packet has it as its separate tag.
///
/// Receiving: `rxPkt` gives one frame. `rxPktBulk` gives up to `socketReadLimit` frames with one system call,
/// in the slots of `savedPacket` that `savedPacketRx` marks, the first ones. A client may keep a packet of a
/// batch: its slot gets another one for the next batch. A failed receive counts in `rxErrors`; an empty
/// socket counts in batch receive only. `rxDrops` is the kernel's count of frames for which the socket had no
/// room.
///
/// `rxRingBytes` (at least; 0: none) maps a ring of that size, which the kernel fills and from which a frame
/// is copied without a system call (TPACKET_V3). A frame comes when a block of 128 KB is full, but at most a
/// millisecond late; longer frames are cut. Everything else is as without it. `rxBuf` and `rxBufBytes` do not
/// apply then. `enableRxOffload` asks the kernel how far a frame is finished (`EthRxMetadata`). Both apply
/// when the Pam is enabled.
///
/// `txPktBulk` sends with one system call for many frames.
///
/// When the device goes down, receiving fails once (ENETDOWN) and goes on by itself when the device is up
/// again. When the device disappears, sends fail (ENXIO) and `devPresent` is false. Ten times a second the
/// Pam then looks for a device of the name, and opens its socket again, with all options and the memberships
/// of `handleMembership`; `devPresent` is true again and `ifIndex` may be another.
class KIV_API EthDevPam final : public PacketPam {
 public:
  KIV_ENTITY(EthDevPam, PacketPam)
  KIV_ATTR_READ(Kiv::String, devName)  ///< Name of the device.
  KIV_ATTR_READ(U32, ifIndex, 0)
  KIV_ATTR_READ(EthAddr, ethAddr)  ///< The device's own address, as it was at the opening.
  KIV_ATTR_HOOK(U16, ethType, kAllEthTypes, handleRxFilter)
  KIV_ATTR(bool, rxOutgoing, false)
  KIV_ATTR(U32, rxBuf, 0)
  KIV_ATTR_HOOK(bool, promiscuous, false, handlePromiscuous)
  KIV_ATTR_HOOK(bool, allMulticast, false, handleAllMulticast)
  KIV_ATTR_HOOK(IpFilterProgram, rxFilter, IpFilterProgram(), handleRxFilter)
  KIV_ATTR(U32, maxRxPktData, 1518)  ///< Room for one frame, in octets; longer ones are cut off.
  KIV_ATTR_HOOK(U8, socketReadLimit, maxSocketReadLimit, checkSocketReadLimit)
  KIV_ATTR(U8, rxPktType, 0)  ///< Of the last frame: whom it was for, as in packet(7).
  /// Of the last frame: its length on the wire, in octets, without a tag that stands apart.
  KIV_ATTR(U32, rxFrameBytes, 0)
  KIV_ATTR_COUNTER(U64, rxPktCount)
  /// Of the last frame: what is known of its checksum.
  KIV_ATTR(RxChecksum, rxChecksum, RxChecksum::unknown)
  KIV_ATTR(U32, rxRingBytes, 0)
  KIV_ATTR(bool, enableRxOffload, false)
  KIV_ATTR_READ(bool, rxMerged, false)  ///< Of the last frame: whether the kernel merged it from several.
  KIV_ATTR_READ(bool, devPresent, false)

  static constexpr U16 kAllEthTypes = 3;  ///< As an EtherType: all of them.
  static constexpr U8 maxSocketReadLimit = 128;

  /// For the device `devName` of a namespace.
  EthDevPam(Kiv::String name, Kiv::String device, const NamespaceName& ns);
  ~EthDevPam() override;

  /// Makes the device accept frames for another unicast address or a group, or stops that. Returns 0 or an
  /// errno: ENODEV without a socket or device. Leaving what was not joined is no error. Ends with the socket.
  S32 handleMembership(const EthAddr& address, bool join);

  /// Of the frame in slot `index` of the latest batch; all 0 for a slot without one.
  EthRxMetadata rxMetadata(U16 index) const;

 protected:
  void sendPkt(const Pkt::Ptr& pkt) override;
  U32 doTxPktBulk(std::span<const Pkt::Ptr> pkts) override { return sendFrames(pkts, nullptr); }
  bool wantsOffloadHeader() const override { return offloadHeader_; }
  void sendFailed(int error, Change& changes) override;
  void enabledIsImpl(bool on) override;
  void openFailed(Change& changes) noexcept override;
  void forget(Change& changes) noexcept override;
  U32 newDrops() const override;
  void setUp(Change& changes) override;
  Kiv::String place() const override { return devName(); }
  const Kiv::TraceHandle& traceHandle() const override;
  void receiveFailed(bool batch, int error) override;
  void doGetRxPkt() override;
  S32 doGetBulkRxPkt() override;

 private:
  void handlePromiscuous();
  void handleAllMulticast();
  void handleRxFilter();
  void checkSocketReadLimit();
  void findDevice();
  void applyOptions();
  void membershipIs(U16 type, bool join, const char* text);
  void publish(const EthRxMetadata& metadata, U32 packets, Change& changes);
  EthRxMetadata takeOffloadHeader(Pkt& pkt, EthRxMetadata metadata) const;
  Pkt::Ptr fromRing(EthRxMetadata& metadata);
  void ringIsEmpty();
  S32 fillFromRing(U16 limit);
  S32 fillFromSocket(U16 limit);
  U32 room() const;
  S32 joinOrLeave(const EthAddr& address, bool join);
  void lookForDevice(Change& changes);
  void comeBack();

  S32 batchHeld_ = 0;  // size of a batch that was not returned, because a reactor threw
  std::unique_ptr<detail::FrameRing> ring_;
  U32 ringEvent_ = 0;  // the event (a readableCount) that gave a frame, or in which an error was looked for
  bool offloadHeader_ = false;  // of the open socket
  bool comingBack_ = false;
  std::vector<EthRxMetadata> metadata_;  // of the batch
  std::vector<EthAddr> memberships_;
  Kiv::Ptr<Kiv::Clock> retry_;
  Kiv::Reactor onRetry_;
};

KIV_API Kiv::Ptr<EthDevPam> ethDevPamFactory(Kiv::String name, Kiv::String devName,
                                             const NamespaceName& netNs);

}  // namespace Wirl
