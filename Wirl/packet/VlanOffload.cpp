// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/VlanOffload.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace Wirl {

namespace {

constexpr U32 kAddresses = 12;  // octets in front of the tag
constexpr U32 kTag = 4;

U16 word(const Pkt& pkt, U32 at) {
  return static_cast<U16>(pkt.rawByte(at) << 8 | pkt.rawByte(at + 1));
}

void wordIs(Pkt& pkt, U32 at, U16 value) {
  pkt.rawByteIs(at, static_cast<U8>(value >> 8));
  pkt.rawByteIs(at + 1, static_cast<U8>(value));
}

/// Octets in the private area, which come first.
U32 privateBytes(const Pkt& pkt) {
  return pkt.numIovecs() == Pkt::maxIovecs_ || !pkt.sharedBuffer() ? pkt.frontBytes() : 0;
}

/// The offset range of a packet, as positions in the frame, while a tag moves out of the frame or into it. A
/// range over all shared data stays one.
class RangeInFrame {
 public:
  explicit RangeInFrame(const Pkt& pkt)
      : whole_(pkt.beginOffset() == 0 && pkt.endOffset() == 0),
        inHeadroom_(
            std::min(static_cast<U32>(std::max(0, -pkt.beginOffset())), pkt.sharedBuffer()->headroom())),
        begin_(S64{privateBytes(pkt)} + std::max<S64>(0, pkt.beginOffset())),
        end_(S64{pkt.bytes()} - pkt.endOffset()) {}

  /// Bytes of the range in front of the shared data: headers that were taken off.
  U32 inHeadroom() const noexcept { return inHeadroom_; }
  void inHeadroomIs(U32 bytes) noexcept { inHeadroom_ = bytes; }

  void tagGoes() noexcept {
    for (S64* const at : {&begin_, &end_}) {
      if (*at > kAddresses) *at = std::max(*at - S64{kTag}, S64{kAddresses});
    }
  }
  void tagComes() noexcept {
    if (begin_ >= kAddresses) begin_ += kTag;
    if (end_ > kAddresses) end_ += kTag;
  }
  void applyTo(Pkt& pkt) const {
    if (whole_) return;
    const S64 inFront = privateBytes(pkt);
    const S64 bytes = pkt.bytes();
    S64 begin = std::clamp(begin_ - inFront, S64{0}, std::min(bytes - inFront, kMaxBegin));
    const S64 end = std::clamp(bytes - std::max(end_, begin + inFront), S64{0}, kMaxEnd);
    if (inHeadroom_ > 0) begin = -S64{inHeadroom_};
    pkt.offsetRangeIs(static_cast<S16>(begin), static_cast<U16>(end));
  }

 private:
  static constexpr S64 kMaxBegin = std::numeric_limits<S16>::max();
  static constexpr S64 kMaxEnd = std::numeric_limits<U16>::max();

  bool whole_;
  U32 inHeadroom_;
  S64 begin_;
  S64 end_;
};

/// Takes the tag out of the frame, which begins with `inPrivate` private bytes.
void takeTagOut(Pkt& pkt, U32 inPrivate) {
  // Private data must not become empty: it could not be begun again.
  const bool outOfPrivate = inPrivate > kTag;
  const U32 staying = outOfPrivate ? 0 : inPrivate;
  if (pkt.frontBytes() >= kAddresses + kTag) {
    std::memmove(pkt.front() + kTag, pkt.front(), kAddresses);
  } else {
    for (U32 i = kAddresses; i-- > staying;) pkt.rawByteIs(i + kTag, pkt.rawByte(i));
  }
  if (outOfPrivate) {
    pkt.delPrivateHeadData(kTag);
  } else {
    pkt.delSharedHeadData(kTag);
  }
}

/// Moves the `bytes` that lay in front of the shared data after it, when its start has moved by -`by` bytes.
void moveHeadroom(Pkt& pkt, U32 bytes, int by) {
  U8* const data = pkt.sharedBuffer()->data();
  std::memmove(data - bytes, data - bytes + by, bytes);
}

}  // namespace

bool hasVlanTagToOffload(const Pkt& pkt) {
  if (pkt.tciPresent() || pkt.bytes() < kAddresses + kTag + 2) return false;
  const U16 tpid = word(pkt, kAddresses);
  return tpid == 0x8100 || tpid == 0x88a8 || tpid == 0x9100;
}

bool maybeOffloadAnyVlanTag(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  if (!hasVlanTagToOffload(*pkt)) return false;
  const U32 inPrivate = privateBytes(*pkt);
  const bool sharedChanges = inPrivate < kAddresses + kTag;
  if (sharedChanges) pkt->ownSharedData();
  pkt->newSeparateVlanTag(word(*pkt, kAddresses + 2), word(*pkt, kAddresses));
  if (!sharedChanges) {
    takeTagOut(*pkt, inPrivate);
    return true;
  }
  RangeInFrame range(*pkt);
  range.tagGoes();
  takeTagOut(*pkt, inPrivate);
  if (inPrivate <= kTag) moveHeadroom(*pkt, range.inHeadroom(), -int{kTag});
  range.applyTo(*pkt);
  return true;
}

bool maybeRestoreVlanTag(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  if (!pkt->tciPresent() || pkt->bytes() < kAddresses) return false;
  const U32 inPrivate = privateBytes(*pkt);
  const bool toPrivate = inPrivate > 0 && inPrivate <= Pkt::privateBufferSize_ - kTag;
  const bool sharedChanges = !toPrivate || inPrivate < kAddresses;
  if (sharedChanges) {
    if (!pkt->sharedBuffer()) return false;
    pkt->ownSharedData();
    RangeInFrame range(*pkt);
    range.tagComes();
    if (toPrivate) {
      pkt->newPrivateHeadData(kTag);
    } else {
      const bool fits = range.inHeadroom() + kTag <= pkt->sharedBuffer()->headroom();
      pkt->newSharedHeadData(kTag);
      if (!fits) range.inHeadroomIs(0);
      moveHeadroom(*pkt, range.inHeadroom(), kTag);
    }
    range.applyTo(*pkt);
  } else {
    pkt->newPrivateHeadData(kTag);
  }
  // The new bytes are a gap at the front of the frame or of its shared data. Move it to the tag's place.
  U32 gap = toPrivate ? 0 : inPrivate;
  for (; gap < kAddresses; ++gap) pkt->rawByteIs(gap, pkt->rawByte(gap + kTag));
  for (; gap > kAddresses; --gap) pkt->rawByteIs(gap - 1 + kTag, pkt->rawByte(gap - 1));
  wordIs(*pkt, kAddresses, pkt->vlanTpid());
  wordIs(*pkt, kAddresses + 2, pkt->tciField());
  pkt->delSeparateVlanTag();
  return true;
}

}  // namespace Wirl
