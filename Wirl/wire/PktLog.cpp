// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktLog.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <random>

#include "Kiv/Assert.h"
#include "Kiv/Hash.h"
#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/wire/Layers.h"
#include "Wirl/wire/PktText.h"
#include "Wirl/wire/detail/PktBytes.h"

namespace Wirl {

namespace {

void printLine(std::ostream& out, std::span<const U8> octets, U32 bytes) {
  std::string line;
  LayerOptions options;
  options.wireBytes = bytes;
  appendPktLine(line, layers(octets, options));
  out << line;
}

void printSeconds(std::ostream& out, Kiv::Time time) {
  char text[32];
  const auto seconds = static_cast<double>(time.count()) * 1e-9;
  std::snprintf(text, sizeof(text), "%14.6f", seconds);
  out << text;
}

}  // namespace

PktLog::PktLog(const Limits& limits)
    : limits_(limits), seed_(std::random_device()()), print_(printLine), slots_(limits.maxEntries) {
  KIV_ASSERT(limits.maxEntries > 0 && limits.keyBytes > 0 && limits.blank);
  buckets_.assign(std::bit_ceil(limits.maxEntries), kNone);
  octets_.resize(std::size_t{2} * limits.maxEntries * limits.keyBytes);
  scratch_.resize(std::size_t{2} * limits.keyBytes);
}

void PktLog::blankVolatile(std::span<U8> octets) {
  std::size_t at = sizeof(EthHdr);
  const auto typeBefore = [&octets](std::size_t end) { return octets[end - 2] << 8 | octets[end - 1]; };
  while (at <= octets.size()) {
    const int type = typeBefore(at);
    if (type != ethTypeDot1Q && type != ethTypeDot1ad && type != ethTypeQinQ) break;
    at += sizeof(Eth8021QHdr);
  }
  if (at > octets.size() || octets.size() - at < sizeof(IpHdr) || typeBefore(at) != ethTypeIp) return;
  auto& ip = *reinterpret_cast<IpHdr*>(&octets[at]);
  ip.idU16Is(0);
  ip.ttlIs(IpTtl(0));
  ip.checksumU16Is(0);
}

bool PktLog::pktIs(const Pkt& pkt, PktCode code, Kiv::Time now) {
  const U32 kept = std::min(pkt.bytes(), limits_.keyBytes);
  U8* const original = scratch_.data();
  U8* const key = original + limits_.keyBytes;
  detail::copyBytes(pkt, 0, kept, original);
  std::memcpy(key, original, kept);
  limits_.blank({key, kept});
  Kiv::SeededHash hasher(seed_);
  hasher.add(pkt.bytes()).add(static_cast<U32>(code.value()));
  for (U32 at = 0; at < kept; at += sizeof(U32)) {
    U32 word = 0;
    std::memcpy(&word, key + at, std::min<std::size_t>(sizeof(word), kept - at));
    hasher.add(word);
  }
  const U32 hash = hasher.value();
  ++packets_;
  U32 index = bucketOf(hash);
  for (; index != kNone; index = slots_[index].inBucket) {
    const Slot& slot = slots_[index];
    if (slot.hash == hash && slot.bytes == pkt.bytes() && slot.code == code &&
        std::memcmp(keyAt(index), key, kept) == 0) {
      break;
    }
  }
  const bool isNew = index == kNone;
  if (isNew) {
    const bool isFull = used_ == slots_.size();
    index = isFull ? oldest_ : used_++;
    if (isFull) {
      ++evicted_;
      U32* link = &bucketOf(slots_[index].hash);
      while (*link != index) link = &slots_[*link].inBucket;
      *link = slots_[index].inBucket;
      unlink(index);
    }
    U32& bucket = bucketOf(hash);
    slots_[index] = {0, now, now, code, pkt.bytes(), kept, hash, bucket, kNone, kNone};
    bucket = index;
    std::memcpy(keptAt(index), original, kept);
    std::memcpy(keyAt(index), key, kept);
  } else {
    unlink(index);
  }
  linkNewest(index);
  ++slots_[index].count;
  slots_[index].last = now;
  return isNew;
}

void PktLog::unlink(U32 index) noexcept {
  const Slot& slot = slots_[index];
  (slot.older == kNone ? oldest_ : slots_[slot.older].newer) = slot.newer;
  (slot.newer == kNone ? newest_ : slots_[slot.newer].older) = slot.older;
}

void PktLog::linkNewest(U32 index) noexcept {
  Slot& slot = slots_[index];
  slot.older = newest_;
  slot.newer = kNone;
  (newest_ == kNone ? oldest_ : slots_[newest_].newer) = index;
  newest_ = index;
}

void PktLog::clear() noexcept {
  std::fill(buckets_.begin(), buckets_.end(), kNone);
  used_ = 0;
  packets_ = evicted_ = 0;
  newest_ = oldest_ = kNone;
}

PktLog::Entry PktLog::entryAt(U32 index) const noexcept {
  const Slot& slot = slots_[index];
  const std::span<const U8> kept(&octets_[std::size_t{2} * index * limits_.keyBytes], slot.kept);
  return {slot.count, slot.first, slot.last, slot.code, slot.bytes, kept};
}

std::ostream& operator<<(std::ostream& out, const PktLog& log) {
  log.forEach([&](const PktLog::Entry& entry) {
    out << std::setw(8) << entry.count << ' ';
    printSeconds(out, entry.first);
    printSeconds(out, entry.last);
    out << "  " << entry.code << ' ' << entry.bytes << " bytes: ";
    log.print_(out, entry.kept, entry.bytes);
    out << '\n';
  });
  return out;
}

}  // namespace Wirl
