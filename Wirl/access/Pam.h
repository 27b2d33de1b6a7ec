// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <memory>
#include <utility>
#include <vector>

#include "Kiv/Entity.h"
#include "Wirl/packet/Pkt.h"

namespace Wirl {

namespace detail {
class RxBatch;
}

using Kiv::S32;

/// A packet access mechanism: moves packets between a descriptor (or, in process, another Pam) and its
/// clients.
///
///     kernel ──event──> PamFdSm ──> readableCount ──> the client's reactor ──> rxPkt()   until it gives null
///                                └─> writableCount ─> the client's reactor ──> txPktIs(pkt)
///
/// A Pam never calls its clients. It counts `readableCount` up for each readable event and `writableCount`
/// for each writable one, and the clients, reactors to these attributes, pull and push. Opening a descriptor
/// counts both up once, so that clients drain what is queued already and send what they hold.
///
/// `txPktIs` sends or drops: nothing is queued or tried again, nothing throws. What became of packets shows
/// in the counters (and the traces of the class): `txDrops` for want of room, `txErrors` with `txErrno` for
/// other reasons, `rxErrors`, `rxDrops`. Counters wrap at their width.
///
/// A Pam belongs to the thread of its activity loop. Reactors may disable it, change it or let go of it at
/// any point.
class KIV_API Pam : public Kiv::Entity {
 public:
  KIV_ENTITY(Pam, Kiv::Entity)
  KIV_ATTR_HOOK(U32, readableCount, 0, handleReadableCount)
  KIV_ATTR_INC(U32, readableCount)
  KIV_ATTR_HOOK(U32, writableCount, 0, handleWritableCount)
  KIV_ATTR_INC(U32, writableCount)
  KIV_ATTR_READ(Pkt::Ptr, txPkt)
  KIV_ATTR_COUNTER(U32, txDrops)
  KIV_ATTR_COUNTER(U32, txErrors)
  KIV_ATTR(S32, txErrno, 0)
  KIV_ATTR_COUNTER(U32, rxErrors)
  KIV_ATTR_DERIVED(U32, rxDrops)
  KIV_ATTR_DERIVED(U32, savedPackets)

  explicit Pam(Kiv::String name);
  ~Pam() override;

 protected:
  virtual void handleReadableCount() {}
  virtual void handleWritableCount() {}

 public:
  /// Packets lost on receive; a class may report its kernel's count instead of the stored one.
  virtual U32 rxDrops() const;
  virtual void rxDropsIs(U32 value);

 protected:
  /// Sends one packet. The base only keeps it in `txPkt`.
  virtual void txPktIsImpl(const Pkt::Ptr& pkt);
  /// Receives at most one packet, into the slot (`rxPktHolderIs`).
  virtual void doGetRxPkt() = 0;
  /// Receives a batch into `savedPacket` and marks in `savedPacketRx`; returns how many packets. The base
  /// ends the process.
  virtual S32 doGetBulkRxPkt();

 public:
  /// Sends one packet, or drops it; see the counters.
  void txPktIs(const Pkt::Ptr& pkt) {
    const Kiv::Ptr<const Pam> guard = alive();
    txPktIsImpl(pkt);
  }
  /// The next packet received, null when nothing is waiting. Call it until it gives null.
  Pkt::Ptr rxPkt() const {
    const Kiv::Ptr<const Pam> guard = alive();
    // Receiving changes the slot and the counters and nothing that a holder of a const Pam can rely on.
    const_cast<Pam*>(this)->doGetRxPkt();
    return std::move(rxPktHolder_);
  }
  /// Receives a batch; the packets stand in slot i of `savedPacket` wherever `savedPacketRx(i)` is true.
  S32 rxPktBulk() const {
    const Kiv::Ptr<const Pam> guard = alive();
    return const_cast<Pam*>(this)->doGetBulkRxPkt();
  }

  /// The buffers of bulk receiving, one a slot. Setting a slot beyond the end grows the array; reading there
  /// gives null (false).
  U32 savedPackets() const noexcept { return saved_ ? static_cast<U32>(saved_->packets.size()) : 0; }
  Pkt::Ptr savedPacket(U16 index) const { return index < savedPackets() ? saved_->packets[index] : nullptr; }
  void savedPacketIs(U16 index, const Pkt::Ptr& pkt);
  void savedPacketDel(U16 index);
  void savedPacketDelAll();
  /// Whether the slot holds a packet of the latest batch.
  bool savedPacketRx(U16 index) const {
    return saved_ && index < saved_->received.size() && saved_->received[index];
  }
  void savedPacketRxIs(U16 index, bool received);
  void savedPacketRxDel(U16 index);
  void savedPacketRxDelAll();

 protected:
  void rxPktHolderIs(Pkt::Ptr pkt) noexcept { rxPktHolder_ = std::move(pkt); }
  /// The counts' `Inc(1)` for a caller who keeps the Pam alive meanwhile, and knows its class: the hook of a
  /// final one is called directly.
  template <std::derived_from<Pam> P>
  static void countReadable(P& pam) {
    pam.readableCount.store(pam.readableCount() + 1);
    pam.handleReadableCount();
    pam.readableCount.notifiees().notify();
  }
  template <std::derived_from<Pam> P>
  static void countWritable(P& pam) {
    pam.writableCount.store(pam.writableCount() + 1);
    pam.handleWritableCount();
    pam.writableCount.notifiees().notify();
  }

 private:
  friend class detail::RxBatch;

  /// Of those that receive in batches.
  struct Saved {
    std::vector<Pkt::Ptr> packets;
    std::vector<bool> received;
  };
  Saved& saved();

  /// Keeps the Pam while it sends or receives: reactors to its counters may let go of it. None for one that
  /// no pointer holds.
  Kiv::Ptr<const Pam> alive() const { return Kiv::Ptr<const Pam>(references() > 0 ? this : nullptr); }

  mutable Pkt::Ptr rxPktHolder_;
  U32 rxDropsHolder_ = 0;
  std::unique_ptr<Saved> saved_;
};

}  // namespace Wirl
