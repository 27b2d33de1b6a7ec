// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "Kiv/Entity.h"
#include "Wirl/packet/Pkt.h"

namespace Wirl {

using Kiv::S32;

class Pam;

namespace detail {

/// Lists a Pam among those of its thread, for whoever counts what the process does
/// (`Wirl/access/Statistics.h`). Takes no memory.
class KIV_API PamListed {
 public:
  explicit PamListed(const Pam& pam) noexcept;
  ~PamListed();
  PamListed(const PamListed&) = delete;
  PamListed& operator=(const PamListed&) = delete;

  /// The Pam belongs to the calling thread from now on.
  void move() noexcept;

 private:
  friend class PamsOfThread;
  void insert() noexcept;
  void remove() noexcept;

  const Pam& pam_;
  U32 thread_ = 0;
  PamListed* next_ = nullptr;
  PamListed** link_ = nullptr;  // where the list points to this one
};

}  // namespace detail

/// A packet access mechanism: moves packets between a descriptor (or, in process, another Pam) and its
/// clients.
///
///     kernel ──event──> PamFdSm ──> readableCount ──> the client's reactor ──> rxPkt()   until it gives null
///                                └─> writableCount ─> the client's reactor ──> txPktIs(pkt)
///
/// A Pam never calls its clients. It counts `readableCount` up for each readable event and `writableCount`
/// for each writable one. Clients react to these attributes: they pull and push. Opening a descriptor counts
/// both up once, so that clients drain what is already queued and send what they hold.
///
/// `txPktIs` sends the packet or drops it. It queues nothing, retries nothing and throws nothing. The
/// counters (and the traces of the class) show the result: `txDrops` if there was no room, `txErrors` with
/// `txErrno` for other reasons, `rxErrors`, `rxDrops`. Counters wrap at their width.
///
/// `rxBudget` bounds how many packets one readable event gives, 0 for no bound. Then the pull gives null, and
/// the loop offers the rest in its next pass, after other descriptors and clocks that are due.
///
/// A Pam belongs to the thread of its activity loop: the one that made it, or that opened it later. Reactors
/// may disable the Pam, change it or drop it at any point. If a reactor to an `rx...` attribute throws, the
/// exception leaves `rxPkt()` and the next `rxPkt()` returns the packet.
class KIV_API Pam : public Kiv::Entity {
 public:
  KIV_ENTITY(Pam, Kiv::Entity)
  KIV_ATTR_COUNTER_HOOK(U32, readableCount, handleReadableCount)
  KIV_ATTR_COUNTER_HOOK(U32, writableCount, handleWritableCount)
  KIV_ATTR_READ(Pkt::Ptr, txPkt)  ///< What the base class was given to send last.
  KIV_ATTR_COUNTER(U32, txDrops)
  KIV_ATTR_COUNTER(U32, txErrors)
  KIV_ATTR(S32, txErrno, 0)
  KIV_ATTR_COUNTER(U32, rxErrors)
  KIV_ATTR_COUNTER_DERIVED(U32, rxDrops)
  KIV_ATTR_DERIVED(U32, savedPackets)
  KIV_ATTR(U32, rxBudget, 1024)

  explicit Pam(Kiv::String name);
  ~Pam() override;

 protected:
  virtual void handleReadableCount() {}
  virtual void handleWritableCount() {}

 public:
  /// Packets lost on receive. A class may report the kernel's count instead of the stored one.
  virtual U32 rxDrops() const;
  virtual void rxDropsIs(U32 value);

 protected:
  /// Sends one packet. The base class only stores it in `txPkt`.
  virtual void txPktIsImpl(const Pkt::Ptr& pkt);
  /// Receives at most one packet into the slot (`rxPktHolderIs`).
  virtual void doGetRxPkt() = 0;
  /// Receives a batch into `savedPacket`, marks the slots in `savedPacketRx` and returns the number of
  /// packets. The base class ends the process.
  virtual S32 doGetBulkRxPkt();
  /// Sends the packets in their order; see `txPktBulk`. The base class sends one after the other.
  virtual U32 doTxPktBulk(std::span<const Pkt::Ptr> pkts);

 public:
  /// Sends one packet, or drops it; see the counters.
  void txPktIs(const Pkt::Ptr& pkt) {
    const auto alive = Kiv::keepAlive(this);
    txPktIsImpl(pkt);
  }
  /// Sends the packets in their order, with as few system calls as the class can. Returns how many it took,
  /// each of them sent, or dropped and counted as by `txPktIs`. It takes all, unless the descriptor has no
  /// room: the rest is not touched, and may be offered again.
  U32 txPktBulk(std::span<const Pkt::Ptr> pkts) {
    const auto alive = Kiv::keepAlive(this);
    return doTxPktBulk(pkts);
  }
  /// The next received packet, or null. Call it until it gives null.
  Pkt::Ptr rxPkt() const {
    const auto alive = Kiv::keepAlive(this);
    unpulled_ = 0;
    // const_cast: the interface fixes rxPkt() as const, although it updates the slot and the counters.
    const_cast<Pam*>(this)->doGetRxPkt();
    return std::move(rxPktHolder_);
  }
  /// Receives a batch and returns the number of packets: slot i of `savedPacket` holds one if
  /// `savedPacketRx(i)`.
  S32 rxPktBulk() const {
    const auto alive = Kiv::keepAlive(this);
    unpulled_ = 0;
    return const_cast<Pam*>(this)->doGetBulkRxPkt();
  }

  /// The buffers of batch receive, one per slot. Setting a slot beyond the end grows the array; reading there
  /// gives null (or false).
  U32 savedPackets() const noexcept { return saved_ ? static_cast<U32>(saved_->packets.size()) : 0; }
  /// What is in the slot; null for none.
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
  /// Puts a packet into the slot that `rxPkt()` empties.
  void rxPktHolderIs(Pkt::Ptr pkt) noexcept { rxPktHolder_ = std::move(pkt); }
  /// Whether the slot still holds a packet, because a reactor threw when it was told of it.
  bool rxPktHeld() const noexcept { return rxPktHolder_ != nullptr; }

  /// How many of `wanted` packets the present event may still give. 0 ends its pull, and the next pull begins
  /// a new budget; the caller sees to it that an event comes.
  U32 rxAllowance(U32 wanted) noexcept;
  /// Takes packets from the budget; 0 if there was nothing to receive, which ends the pull.
  void rxPulled(U32 packets) noexcept { pulled_ = packets == 0 ? 0 : pulled_ + packets; }
  /// Counts one readable event. Traces once that nobody pulls, after 1,000 events without a pull.
  void readableEvent();
  /// The tracing alone, for callers of `countReadable`.
  void noteUnpulled() {
    if (unpulled_ < kUnpulledEvents && ++unpulled_ == kUnpulledEvents) traceUnpulled();
  }

  /// Makes room for a batch of `count` packets; false without memory. For these two.
  bool saveableIs(U32 count) noexcept;
  /// The packets of the slots, for a batch to receive into.
  std::vector<Pkt::Ptr>& savedSlots() noexcept { return saved_->packets; }
  /// Marks the first `count` slots, which exist, and no other.
  void savedReceived(U16 count) noexcept { saved_->received.assign(count, true); }

  /// Like `readableCountInc(1)`, for callers that already hold the Pam and know its final type (lets the hook
  /// call be devirtualised).
  template <std::derived_from<Pam> P>
  static void countReadable(P& pam) {
    pam.readableCount.store(pam.readableCount() + 1);
    pam.handleReadableCount();
    pam.readableCount.notifiees().notify();
  }
  /// As `countReadable`, of `writableCount`.
  template <std::derived_from<Pam> P>
  static void countWritable(P& pam) {
    pam.writableCount.store(pam.writableCount() + 1);
    pam.handleWritableCount();
    pam.writableCount.notifiees().notify();
  }

 private:
  friend class PamFdSm;

  /// For Pams that receive in batches.
  struct Saved {
    std::vector<Pkt::Ptr> packets;
    std::vector<bool> received;
  };
  Saved& saved();
  [[gnu::cold]] void traceUnpulled() const;

  static constexpr U32 kUnpulledEvents = 1000;

  mutable Pkt::Ptr rxPktHolder_;
  U32 rxDropsHolder_ = 0;
  detail::PamListed listed_{*this};
  U32 pulled_ = 0;  // packets that the event `pulledEvent_` (a readableCount) gave
  U32 pulledEvent_ = 0;
  mutable U32 unpulled_ = 0;  // readable events since the last pull
  std::unique_ptr<Saved> saved_;
};

}  // namespace Wirl
