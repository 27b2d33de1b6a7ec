// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <span>
#include <vector>

#include "Kiv/Time.h"
#include "Wirl/packet/Pkt.h"
#include "Wirl/wire/WireErrors.h"

namespace Wirl {

/// Puts fragments of IPv4 and IPv6 datagrams together again (RFC 815, RFC 8200 section 4.5), within bounds of
/// memory and time.
///
///     if (auto datagram = reassembler.rxPkt(pkt, sizeof(EthHdr), loop.now())) use(datagram);
///
/// Overlapping fragments spoil their datagram: it is dropped, with all fragments of it that come later (RFC
/// 5722, RFC 8900). A fragment that says again, octet by octet, what is there already is a duplicate and is
/// left out. Atomic fragments of IPv6 are datagrams of their own (RFC 6946). Fragments of one datagram that
/// differ in congestion control are told by `badFragmentEcn`, a congested one makes the datagram so (RFC
/// 3168).
///
/// Each datagram has one buffer, into which fragments are copied as they come; its holes are listed in the
/// holes themselves. Where a new datagram or more bytes would pass a limit, the oldest datagrams are given
/// up. Buffers that were delivered are used again once nobody else holds them, so that steady traffic
/// allocates nothing.
///
/// Time is what the caller says it is: that of a loop, or of a capture. Datagrams that are late go when a
/// fragment comes or `timeIs` is called; a `Kiv::Clock` set to `timeMin` sees to it in time. One reassembler
/// is for one VRF, and for one thread.
class KIV_API PktReassembler {
 public:
  /// How much it keeps, and for how long.
  struct Limits {
    U32 maxDatagrams = 256;                        ///< Under way at a time.
    U32 maxBytes = 4 << 20;                        ///< Of their buffers, and of those kept for later ones.
    U32 maxHoles = 128;                            ///< In one of them; bounds the time that a fragment takes.
    Kiv::Time timeout = std::chrono::seconds(60);  ///< From the first fragment that comes (RFC 8200).
  };

  PktReassembler() : PktReassembler(Limits()) {}
  explicit PktReassembler(const Limits& limits);
  ~PktReassembler();
  PktReassembler(const PktReassembler&) = delete;
  PktReassembler& operator=(const PktReassembler&) = delete;

  /// Takes a packet with an IP header at `ipOffset`, which has passed its check. A datagram that is no
  /// fragment comes back as it is; the fragment that completes one brings all of it: what is in front of the
  /// IP header as in the first fragment, then the header, without a fragment header, with its lengths and its
  /// checksum, then the data. Null else: `code` says why. The packet is not changed, and not kept.
  Pkt::Ptr rxPkt(const Pkt::Ptr& pkt, U32 ipOffset, Kiv::Time now);
  /// What became of the packet: `noError`; `ipFragment` when it was put by; or why it was refused, alone
  /// (`pktTooShort`, `nonIpHdr`, `badIpHdrLen`, `badIpPayloadLen`, `badIp6PayloadLen`, `badIp6ExtHdr`,
  /// `badFragmentChain`, `badFragmentLen`, `fragmentTooLong`, `fragmentRefused`) or with its datagram
  /// (`fragmentOverlap`, `badFragmentEcn`, `reassemblyLimit`).
  PktCode code() const noexcept { return code_; }
  /// The codes of all packets, and of datagrams that were given up: `reassemblyTimeout`, `reassemblyLimit`.
  const PktErrorCounters& counters() const noexcept { return counters_; }

  /// Told of a datagram whose time is up and whose first fragment has come, as a node is that answers with
  /// "time exceeded" (RFC 792, RFC 4443): what was in front of the IP header, that header without a fragment
  /// header, and the data that follows without a gap. Valid during the call, which must not call back.
  using OnTimeout = void (*)(void* context, std::span<const U8> octets, U32 ipOffset);
  /// Who is told when a datagram has not become whole in time; null: nobody.
  void onTimeoutIs(OnTimeout onTimeout, void* context) noexcept {
    onTimeout_ = onTimeout;
    onTimeoutContext_ = context;
  }

  /// Gives up datagrams whose time is up.
  void timeIs(Kiv::Time now);
  /// When the next one's is; infinite when nothing is under way.
  Kiv::Time timeMin() const noexcept;

  U32 datagrams() const noexcept { return datagrams_; }  ///< Datagrams that wait for fragments.
  /// Of buffers.
  U32 bytes() const noexcept { return bytes_; }

 private:
  struct Fragment;
  struct Datagram;
  using Index = U32;
  static constexpr Index kNone = 0xffffffff;
  static constexpr U32 kMostSpares = 8;

  PktCode read(const Pkt& pkt, U32 ipOffset, Fragment& fragment) const;
  PktCode readIp(const Pkt& pkt, Fragment& fragment) const;
  PktCode readIp6(const Pkt& pkt, Fragment& fragment) const;
  Pkt::Ptr withoutFragmentHdr(const Pkt& pkt, const Fragment& fragment) const;

  PktCode take(const Pkt& pkt, const Fragment& fragment, Kiv::Time now, Pkt::Ptr& whole);
  PktCode add(const Pkt& pkt, const Fragment& fragment, Index index);
  PktCode place(const Pkt& pkt, const Fragment& fragment, Datagram& datagram);
  bool makeRoom(Index index, U32 dataBytes);
  bool hasSame(const Pkt& pkt, const Fragment& fragment, const Datagram& datagram) const;
  Pkt::Ptr finished(Datagram& datagram);
  Pkt::SharedBuffer::Ptr newBuffer(U32 bytes);
  void trimSpares(U32 room);

  Index& bucketOf(const Fragment& fragment);
  Index find(const Fragment& fragment);
  Index begin(const Fragment& fragment, Kiv::Time now);
  void end(Index index);
  void giveUpOldest(PktCode code);
  void refuse(Datagram& datagram);

  const Limits limits_;
  const U32 seed_;
  PktCode code_;
  PktErrorCounters counters_;
  U32 datagrams_ = 0;
  U32 bytes_ = 0;
  std::vector<Datagram> slots_;
  std::vector<Index> buckets_;
  Index free_ = kNone;
  Index oldest_ = kNone;
  Index newest_ = kNone;
  Pkt::SharedBuffer::Ptr spares_[kMostSpares];
  U32 nextSpare_ = 0;
  OnTimeout onTimeout_ = nullptr;
  void* onTimeoutContext_ = nullptr;
};

}  // namespace Wirl
