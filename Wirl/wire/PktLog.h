// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>
#include <span>
#include <vector>

#include "Kiv/Time.h"
#include "Wirl/packet/Pkt.h"
#include "Wirl/wire/WireErrors.h"

namespace Wirl {

/// Remembers packets, each kind once, with how often it came, and when first and last: for bad packets, of
/// which the same ones come again and again.
///
///     log.pktIs(*pkt, checkUdp(pkt, ipHdr, udpHdr), loop.now());
///     std::cout << log;
///
/// Two packets are the same kind where code, length and their first `keyBytes` agree, but for what `blank`
/// takes out of these. The log is bounded: a new kind takes the place of that which has been quiet for the
/// longest time. All memory is taken when the log is made.
class KIV_API PktLog {
 public:
  /// Takes out of a copy of a packet's first bytes what may differ among packets of a kind.
  using Blank = void (*)(std::span<U8> octets);
  /// Prints a packet of `bytes` bytes, the first of which are there, in one line and without its end.
  using Print = void (*)(std::ostream& out, std::span<const U8> octets, U32 bytes);

  /// How much it keeps.
  struct Limits {
    U32 maxEntries = 64;          ///< Different packets that are remembered.
    U32 keyBytes = 96;            ///< Also how many of a packet are kept.
    Blank blank = blankVolatile;  ///< Sets the octets to zero that make no difference.
  };
  /// Packets that are alike.
  struct Entry {
    U64 count = 0;              ///< How often it was seen.
    Kiv::Time first{}, last{};  ///< When it was seen first and last.
    PktCode code;
    U32 bytes = 0;             ///< Of the whole packet.
    std::span<const U8> kept;  ///< The first packet's first bytes; valid until the log changes.
  };

  PktLog() : PktLog(Limits()) {}
  explicit PktLog(const Limits& limits);

  /// Counts the packet, and remembers it where it is the first of its kind; true then.
  bool pktIs(const Pkt& pkt, PktCode code, Kiv::Time now);
  /// Forgets all.
  void clear() noexcept;

  U32 entries() const noexcept { return used_; }     ///< How many different packets it remembers.
  U64 packets() const noexcept { return packets_; }  ///< How many packets it has seen.
  /// Kinds that had to give way to others.
  U64 evicted() const noexcept { return evicted_; }
  /// Calls `each(const Entry&)`, the kind that came last first.
  template <typename Each>
  void forEach(Each each) const {
    for (U32 i = newest_; i != kNone; i = slots_[i].older) each(entryAt(i));
  }
  /// What prints the packets; by default `appendPktLine`, for Ethernet frames.
  void printIs(Print print) noexcept { print_ = print; }
  /// A line a kind: count, seconds of the clock when it came first and last, code, length, packet.
  KIV_API friend std::ostream& operator<<(std::ostream& out, const PktLog& log);

  /// For Ethernet frames with IPv4, tagged or not: identification, time to live and header checksum become 0.
  static void blankVolatile(std::span<U8> octets);
  static void blankNothing(std::span<U8>) {}  ///< Every octet makes a difference.

 private:
  static constexpr U32 kNone = 0xffffffff;
  struct Slot {
    U64 count = 0;
    Kiv::Time first{}, last{};
    PktCode code;
    U32 bytes = 0;
    U32 kept = 0;
    U32 hash = 0;
    U32 inBucket = kNone;
    U32 older = kNone, newer = kNone;
  };

  Entry entryAt(U32 index) const noexcept;
  U8* keptAt(U32 index) noexcept { return &octets_[std::size_t{2} * index * limits_.keyBytes]; }
  U8* keyAt(U32 index) noexcept { return keptAt(index) + limits_.keyBytes; }
  U32& bucketOf(U32 hash) noexcept { return buckets_[hash & (buckets_.size() - 1)]; }
  void unlink(U32 index) noexcept;
  void linkNewest(U32 index) noexcept;

  const Limits limits_;
  const U32 seed_;  ///< Unknown outside, so that nobody can send packets of one bucket.
  Print print_;
  U32 used_ = 0;
  U64 packets_ = 0;
  U64 evicted_ = 0;
  U32 newest_ = kNone, oldest_ = kNone;
  std::vector<Slot> slots_;
  std::vector<U32> buckets_;
  std::vector<U8> octets_;  // of each slot the packet's first, then the same with what is blank
  std::vector<U8> scratch_;
};

}  // namespace Wirl
