// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktReassembler.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <random>

#include "Kiv/Assert.h"
#include "Kiv/Hash.h"
#include "Kiv/Trace.h"
#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/wire/detail/Ip6Chain.h"
#include "Wirl/wire/detail/PktBytes.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("PktReassembler");

constexpr U32 kUnit = 8;  // of fragment offsets
constexpr U32 kFragmentHdrBytes = 8;
constexpr U32 kLongest = 0xffff;  // of a datagram of IPv4, and of the payload of IPv6
/// In front of the data: of what comes before it in the first fragment.
constexpr U32 kHeadroom = 512;
constexpr U32 kFirstRoom = Pkt::Manager::defaultBufferBytes_ - kHeadroom;

constexpr U8 kEcnMask = 3;
constexpr U8 kNotCapable = 1 << 0;
constexpr U8 kCongested = 1 << 3;

/// A hole among data that came, described in its first octets; in units. There is always room: what is not
/// last in its datagram is a number of units.
struct Hole {
  U16 end;
  U16 next;
};
constexpr U16 kNoHole = 0xffff;

/// Least bytes of the header of an upper layer; 0 for others.
U32 upperHdrBytes(U8 protocol) noexcept {
  switch (protocol) {
    case ipProtoTcp:
      return 20;
    case ipProtoUdp:
    case ipProtoIcmpv6:
      return 8;
    case ipProtoSctp:
      return 12;
    default:
      return 0;
  }
}

}  // namespace

/// What a fragment's headers say.
struct PktReassembler::Fragment {
  // What tells datagrams apart: addresses, identification, version, and over IPv4 the protocol.
  U32 key[10]{};
  U32 ipOffset = 0;
  U32 hdrBytes = 0;  // from the packet's front to the data, without a fragment header
  U32 saidAt = 0;    // IPv6: where the protocol behind the fragment header is said, from the packet's front
  U8 next6 = 0;      // IPv6: that protocol
  bool isIp6 = false;
  bool isPart = false;
  bool more = false;
  U8 ecn = 0;     // one bit of four
  U32 begin = 0;  // of the data in the datagram
  U32 end = 0;
  U32 dataAt = 0;  // from the packet's front

  U32 bytes() const noexcept { return end - begin; }
};

struct PktReassembler::Datagram {
  U32 key[10];
  Kiv::Time deadline;
  Pkt::Ptr pkt;      // its data is room, once the first fragment has come with the headers in front
  U32 room = 0;      // for data
  U32 hdrBytes = 0;  // 0: the first fragment is missing
  U32 ipOffset = 0;
  U32 high = 0;   // behind the last byte that came
  U32 total = 0;  // 0: the last fragment is missing
  U32 holes = 0;
  U16 firstHole = kNoHole;  // in units, ascending
  U8 ecn = 0;
  U8 next6 = 0;
  U32 saidAt = 0;
  bool refused = false;
  Index inBucket = kNone;
  Index older = kNone;
  Index newer = kNone;  // also the next free one

  U8* data() const noexcept { return pkt->front() + hdrBytes; }
  Hole holeAt(U16 unit) const noexcept {
    Hole hole;
    std::memcpy(&hole, data() + unit * kUnit, sizeof(hole));
    return hole;
  }
  void holeIs(U16 unit, Hole hole) const noexcept { std::memcpy(data() + unit * kUnit, &hole, sizeof(hole)); }
  void nextHoleIs(U16 unit, U16 next) noexcept {
    if (unit == kNoHole) {
      firstHole = next;
    } else {
      holeIs(unit, {holeAt(unit).end, next});
    }
  }
  bool complete() const noexcept { return total != 0 && high == total && firstHole == kNoHole; }
};

PktReassembler::PktReassembler(const Limits& limits)
    : limits_(limits), seed_(std::random_device()()), slots_(limits.maxDatagrams) {
  KIV_ASSERT(limits.maxDatagrams > 0);
  buckets_.assign(std::bit_ceil(limits.maxDatagrams), kNone);
  for (Index i = limits.maxDatagrams; i-- > 0; free_ = i) slots_[i].newer = free_;
}

PktReassembler::~PktReassembler() = default;

// Reading.

PktCode PktReassembler::read(const Pkt& pkt, U32 ipOffset, Fragment& fragment) const {
  const U32 frontBytes = pkt.frontBytes();
  if (ipOffset >= frontBytes || frontBytes - ipOffset < sizeof(IpHdr)) return pktTooShort;
  fragment.ipOffset = ipOffset;
  switch (pkt.front()[ipOffset] >> 4) {
    case IpHdr::ipVersion4:
      return readIp(pkt, fragment);
    case Ip6Hdr::ipVersion6:
      return readIp6(pkt, fragment);
    default:
      return nonIpHdr;
  }
}

PktCode PktReassembler::readIp(const Pkt& pkt, Fragment& fragment) const {
  const auto& ip = *reinterpret_cast<const IpHdr*>(pkt.front() + fragment.ipOffset);
  const U32 hdrBytes = ip.headerBytes();
  const U32 bytes = ip.totalLenU16();
  fragment.more = ip.moreFrag();
  fragment.begin = U32{ip.fragmentOffset()} * kUnit;
  fragment.isPart = fragment.more || fragment.begin != 0;
  if (!fragment.isPart) return noError;
  if (hdrBytes < sizeof(IpHdr) || hdrBytes > bytes) return badIpHdrLen;
  if (bytes > pkt.bytes() - fragment.ipOffset) return badIpPayloadLen;
  if (hdrBytes > pkt.frontBytes() - fragment.ipOffset) return pktTooShort;
  std::memcpy(fragment.key, reinterpret_cast<const U8*>(&ip) + 12, 8);
  fragment.key[2] = ip.idU16();
  fragment.key[3] = ip.protocol();
  fragment.key[9] = IpHdr::ipVersion4;
  fragment.ecn = static_cast<U8>(1 << (ip.tos() & kEcnMask));
  fragment.hdrBytes = fragment.dataAt = fragment.ipOffset + hdrBytes;
  fragment.end = fragment.begin + bytes - hdrBytes;
  return fragment.end + sizeof(IpHdr) > kLongest ? PktCode(fragmentTooLong) : PktCode();
}

PktCode PktReassembler::readIp6(const Pkt& pkt, Fragment& fragment) const {
  const U32 inFront = pkt.frontBytes() - fragment.ipOffset;
  if (inFront < sizeof(Ip6Hdr)) return pktTooShort;
  const U8* const octets = pkt.front() + fragment.ipOffset;
  const auto& ip6 = *reinterpret_cast<const Ip6Hdr*>(octets);
  const U32 bytes = U32{sizeof(Ip6Hdr)} + ip6.payloadLen();
  if (bytes > pkt.bytes() - fragment.ipOffset) return badIp6PayloadLen;
  const auto truncated = [&] { return bytes <= inFront ? PktCode(badIp6ExtHdr) : PktCode(pktTooShort); };
  detail::Ip6Chain chain({octets, std::min(bytes, inFront)});
  while (chain.next() != ipProtoIpv6Frag) {
    if (!chain.atExtension()) return noError;
    if (!chain.step()) return truncated();
  }
  const detail::Ip6Chain atFragment = chain;
  if (!chain.step()) return truncated();
  fragment.isIp6 = true;
  fragment.isPart = true;
  const U8* const hdr = octets + atFragment.at();
  NetU32 word;
  std::memcpy(&word, hdr, sizeof(word));
  fragment.more = (word & 1) != 0;
  fragment.begin = word & 0xfff8;
  fragment.next6 = hdr[0];
  std::memcpy(fragment.key, octets + 8, 32);
  std::memcpy(&fragment.key[8], hdr + 4, 4);
  fragment.key[9] = Ip6Hdr::ipVersion6;
  fragment.ecn = static_cast<U8>(1 << (ip6.trafficClass() & kEcnMask));
  fragment.hdrBytes = fragment.ipOffset + atFragment.at();
  fragment.saidAt = fragment.ipOffset + atFragment.saidAt();
  fragment.dataAt = fragment.hdrBytes + kFragmentHdrBytes;
  fragment.end = fragment.begin + bytes - atFragment.at() - kFragmentHdrBytes;
  if (fragment.end + (atFragment.at() - sizeof(Ip6Hdr)) > kLongest) return fragmentTooLong;
  if (fragment.begin == 0) {  // all headers have to be in the first one (RFC 7112)
    while (chain.atExtension()) {
      if (!chain.step()) return truncated();
    }
    if (fragment.more && bytes < chain.at() + upperHdrBytes(chain.next())) return badFragmentChain;
  }
  return noError;
}

// Packets.

Pkt::Ptr PktReassembler::rxPkt(const Pkt::Ptr& pkt, U32 ipOffset, Kiv::Time now) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  timeIs(now);
  Fragment fragment;
  Pkt::Ptr whole;
  code_ = read(*pkt, ipOffset, fragment);
  if (code_ == noError) {
    if (!fragment.isPart) {
      whole = pkt;
    } else if (fragment.begin == 0 && !fragment.more) {
      whole = withoutFragmentHdr(*pkt, fragment);
    } else {
      code_ = take(*pkt, fragment, now, whole);
    }
  }
  counters_.count(code_);
  if (!whole) KIV_TRACE(trace, code_ == ipFragment ? 8 : 3) << "no datagram: " << code_;
  return whole;
}

Pkt::Ptr PktReassembler::withoutFragmentHdr(const Pkt& pkt, const Fragment& fragment) const {
  const Pkt::Ptr made = detail::newPktOf(fragment.hdrBytes + fragment.bytes());
  U8* const front = made->front();
  detail::copyBytes(pkt, 0, fragment.hdrBytes, front);
  detail::copyBytes(pkt, fragment.dataAt, fragment.bytes(), front + fragment.hdrBytes);
  if (pkt.tciPresent()) made->newSeparateVlanTag(pkt.tciField(), pkt.vlanTpid());
  front[fragment.saidAt] = fragment.next6;
  auto& ip6 = *reinterpret_cast<Ip6Hdr*>(front + fragment.ipOffset);
  ip6.payloadLenIs(static_cast<U16>(ip6.payloadLen() - kFragmentHdrBytes));
  return made;
}

PktCode PktReassembler::take(const Pkt& pkt, const Fragment& fragment, Kiv::Time now, Pkt::Ptr& whole) {
  if (fragment.bytes() == 0 || (fragment.more && fragment.bytes() % kUnit != 0)) return badFragmentLen;
  if (fragment.hdrBytes > kHeadroom) return badIp6ExtHdr;
  Index index = find(fragment);
  if (index == kNone) index = begin(fragment, now);
  Datagram& datagram = slots_[index];
  if (datagram.refused) return fragmentRefused;
  PktCode code = add(pkt, fragment, index);
  if (code == ipFragment && datagram.complete()) {
    const bool mixed = (datagram.ecn & kCongested) != 0 && (datagram.ecn & kNotCapable) != 0;
    const U32 ipPayload = datagram.hdrBytes - datagram.ipOffset + datagram.total;
    const bool tooLong = ipPayload > kLongest + (fragment.isIp6 ? sizeof(Ip6Hdr) : 0);
    code = mixed ? PktCode(badFragmentEcn) : tooLong ? PktCode(fragmentTooLong) : PktCode();
    if (code == noError) {
      whole = finished(datagram);
      end(index);
    }
  }
  if (code != noError && code != ipFragment) refuse(datagram);
  return code;
}

PktCode PktReassembler::add(const Pkt& pkt, const Fragment& fragment, Index index) {
  Datagram& datagram = slots_[index];
  // What is not last has something behind it.
  if (fragment.more) {
    if (datagram.total != 0 && fragment.end >= datagram.total) return fragmentOverlap;
  } else {
    if (datagram.total != 0 ? fragment.end != datagram.total : fragment.end <= datagram.high) {
      return fragmentOverlap;
    }
  }
  // Nobody says how long a datagram will be before its last fragment: twice as much as is known of is a
  // guess.
  const U32 wanted = std::min(fragment.more ? 2 * fragment.end : fragment.end, kLongest);
  if (datagram.room < fragment.end && !makeRoom(index, wanted)) return reassemblyLimit;
  if (const PktCode code = place(pkt, fragment, datagram); code != noError) return code;
  if (!fragment.more) datagram.total = fragment.end;
  datagram.ecn |= fragment.ecn;
  if (fragment.begin == 0 && datagram.hdrBytes == 0) {
    datagram.pkt->newSharedHeadData(fragment.hdrBytes);
    datagram.hdrBytes = fragment.hdrBytes;
    datagram.ipOffset = fragment.ipOffset;
    datagram.saidAt = fragment.saidAt;
    datagram.next6 = fragment.next6;
    detail::copyBytes(pkt, 0, fragment.hdrBytes, datagram.pkt->front());
    if (pkt.tciPresent()) datagram.pkt->newSeparateVlanTag(pkt.tciField(), pkt.vlanTpid());
  }
  return ipFragment;
}

/// Copies the data to where nothing is yet.
PktCode PktReassembler::place(const Pkt& pkt, const Fragment& fragment, Datagram& datagram) {
  const auto begin = static_cast<U16>(fragment.begin / kUnit);
  const auto end = static_cast<U16>((fragment.end + kUnit - 1) / kUnit);
  U16 before = kNoHole;
  U16 unit = datagram.firstHole;
  if (fragment.begin >= datagram.high) {
    if (fragment.begin > datagram.high) {
      if (datagram.holes == limits_.maxHoles) return reassemblyLimit;
      for (; unit != kNoHole; unit = datagram.holeAt(unit).next) before = unit;
      const auto hole = static_cast<U16>(datagram.high / kUnit);
      datagram.holeIs(hole, {begin, kNoHole});
      datagram.nextHoleIs(before, hole);
      ++datagram.holes;
    }
    datagram.high = fragment.end;
  } else {
    Hole hole{};
    for (; unit != kNoHole; before = unit, unit = hole.next) {
      hole = datagram.holeAt(unit);
      if (hole.end > begin) break;
    }
    const bool isThere = fragment.end <= datagram.high && (unit == kNoHole || end <= unit);
    if (isThere) return hasSame(pkt, fragment, datagram) ? PktCode() : PktCode(fragmentOverlap);
    if (unit == kNoHole || begin < unit || end > hole.end) return fragmentOverlap;
    const bool splits = begin > unit && end < hole.end;
    if (splits && datagram.holes == limits_.maxHoles) return reassemblyLimit;
    if (begin == unit && end == hole.end) --datagram.holes;
    if (splits) ++datagram.holes;
    U16 next = hole.next;
    if (end < hole.end) {
      datagram.holeIs(end, {hole.end, next});
      next = end;
    }
    if (begin > unit) {
      datagram.holeIs(unit, {begin, next});
    } else {
      datagram.nextHoleIs(before, next);
    }
  }
  detail::copyBytes(pkt, fragment.dataAt, fragment.bytes(), datagram.data() + fragment.begin);
  return noError;
}

bool PktReassembler::hasSame(const Pkt& pkt, const Fragment& fragment, const Datagram& datagram) const {
  U8 piece[256];
  for (U32 at = 0; at < fragment.bytes(); at += sizeof(piece)) {
    const U32 bytes = std::min(fragment.bytes() - at, U32{sizeof(piece)});
    detail::copyBytes(pkt, fragment.dataAt + at, bytes, piece);
    if (std::memcmp(piece, datagram.data() + fragment.begin + at, bytes) != 0) return false;
  }
  return true;
}

/// Room for so much data; false where the limit forbids it.
bool PktReassembler::makeRoom(Index index, U32 dataBytes) {
  // A few sizes, so that buffers can be used again.
  U32 room = kFirstRoom;
  while (room < dataBytes) room = room * 4;
  room = std::min(room, kLongest + 1);
  const U32 bytes = kHeadroom + room;
  while (bytes > limits_.maxBytes - bytes_ && oldest_ != index) giveUpOldest(reassemblyLimit);
  if (bytes > limits_.maxBytes - bytes_) return false;
  Datagram& datagram = slots_[index];
  const auto buffer = newBuffer(bytes);
  trimSpares(limits_.maxBytes - bytes_ - bytes);
  const Pkt::Ptr made = globalPktManager()->newPkt(buffer);
  made->resetSharedData();
  made->newSharedHeadData(room);
  if (datagram.pkt) {
    if (datagram.hdrBytes != 0) made->newSharedHeadData(datagram.hdrBytes);
    std::memcpy(made->front(), datagram.pkt->front(), datagram.hdrBytes + datagram.high);
    if (datagram.pkt->tciPresent()) {
      made->newSeparateVlanTag(datagram.pkt->tciField(), datagram.pkt->vlanTpid());
    }
    bytes_ -= kHeadroom + datagram.room;
  }
  datagram.pkt = made;
  datagram.room = room;
  bytes_ += bytes;
  return true;
}

Pkt::SharedBuffer::Ptr PktReassembler::newBuffer(U32 bytes) {
  if (bytes == Pkt::Manager::defaultBufferBytes_) return globalPktManager()->newSharedBuffer();
  for (const auto& spare : spares_) {
    if (spare && spare->references() == 1 && spare->size() == bytes) return spare;
  }
  auto& replaced = spares_[nextSpare_++ % kMostSpares];
  replaced = globalPktManager()->newSharedBuffer(bytes);
  return replaced;
}

/// Lets go of buffers that nobody uses and that are more than `room` bytes.
void PktReassembler::trimSpares(U32 room) {
  for (auto& spare : spares_) {
    if (!spare || spare->references() > 1) continue;
    if (spare->size() <= room) {
      room -= spare->size();
    } else {
      spare = nullptr;
    }
  }
}

Pkt::Ptr PktReassembler::finished(Datagram& datagram) {
  const Pkt::Ptr pkt = datagram.pkt;
  pkt->delSharedTailData(datagram.room - datagram.total);
  U8* const front = pkt->front();
  U8* const ip = front + datagram.ipOffset;
  const U32 bytes = pkt->bytes() - datagram.ipOffset;
  const bool congested = (datagram.ecn & kCongested) != 0;
  if (datagram.key[9] == Ip6Hdr::ipVersion6) {
    auto& hdr = *reinterpret_cast<Ip6Hdr*>(ip);
    front[datagram.saidAt] = datagram.next6;
    hdr.payloadLenIs(static_cast<U16>(bytes - sizeof(Ip6Hdr)));
    if (congested) hdr.trafficClassIs(static_cast<U8>(hdr.trafficClass() | kEcnMask));
  } else {
    auto& hdr = *reinterpret_cast<IpHdr*>(ip);
    hdr.totalLenIs(static_cast<U16>(bytes));
    hdr.moreFragIs(false);
    if (congested) hdr.ecnIs(kEcnMask);
    hdr.checksumU16Is(0);
    hdr.checksumIs(hdr.computedChecksum());
  }
  return pkt;
}

// Datagrams under way.

PktReassembler::Index& PktReassembler::bucketOf(const Fragment& fragment) {
  Kiv::SeededHash hash(seed_);
  for (const U32 word : fragment.key) hash.add(word);
  return buckets_[hash.value() & (buckets_.size() - 1)];
}

PktReassembler::Index PktReassembler::find(const Fragment& fragment) {
  Index index = bucketOf(fragment);
  while (index != kNone && std::memcmp(slots_[index].key, fragment.key, sizeof(fragment.key)) != 0) {
    index = slots_[index].inBucket;
  }
  return index;
}

PktReassembler::Index PktReassembler::begin(const Fragment& fragment, Kiv::Time now) {
  if (free_ == kNone) giveUpOldest(reassemblyLimit);
  const Index index = free_;
  Datagram& datagram = slots_[index];
  free_ = datagram.newer;
  datagram = {};
  std::memcpy(datagram.key, fragment.key, sizeof(fragment.key));
  datagram.deadline = Kiv::timeAfter(now, limits_.timeout);
  Index& bucket = bucketOf(fragment);
  datagram.inBucket = bucket;
  bucket = index;
  datagram.older = newest_;
  (newest_ == kNone ? oldest_ : slots_[newest_].newer) = index;
  newest_ = index;
  ++datagrams_;
  return index;
}

void PktReassembler::end(Index index) {
  Datagram& datagram = slots_[index];
  refuse(datagram);
  Fragment fragment;
  std::memcpy(fragment.key, datagram.key, sizeof(fragment.key));
  Index* link = &bucketOf(fragment);
  while (*link != index) link = &slots_[*link].inBucket;
  *link = datagram.inBucket;
  (datagram.older == kNone ? oldest_ : slots_[datagram.older].newer) = datagram.newer;
  (datagram.newer == kNone ? newest_ : slots_[datagram.newer].older) = datagram.older;
  datagram.newer = free_;
  free_ = index;
  --datagrams_;
}

/// Its place is kept until its time is up, so that fragments that come later are known for what they are.
void PktReassembler::refuse(Datagram& datagram) {
  if (datagram.pkt) bytes_ -= kHeadroom + datagram.room;
  datagram.pkt = nullptr;
  datagram.refused = true;
}

void PktReassembler::giveUpOldest(PktCode code) {
  const Datagram& datagram = slots_[oldest_];
  if (!datagram.refused) {
    counters_.count(code);
    KIV_TRACE(trace, 3) << "datagram given up: " << code;
    if (code == reassemblyTimeout && onTimeout_ && datagram.hdrBytes != 0) {
      const U32 there = datagram.firstHole == kNoHole ? datagram.high : datagram.firstHole * kUnit;
      onTimeout_(onTimeoutContext_, {datagram.pkt->front(), datagram.hdrBytes + there}, datagram.ipOffset);
    }
  }
  end(oldest_);
}

void PktReassembler::timeIs(Kiv::Time now) {
  while (oldest_ != kNone && slots_[oldest_].deadline <= now) giveUpOldest(reassemblyTimeout);
}

Kiv::Time PktReassembler::timeMin() const noexcept {
  return oldest_ == kNone ? Kiv::timeInfinite : slots_[oldest_].deadline;
}

}  // namespace Wirl
