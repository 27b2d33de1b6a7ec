// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/VlanOffload.h"

#include <cstring>

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

}  // namespace

bool hasVlanTagToOffload(const Pkt& pkt) {
  if (pkt.tciPresent() || pkt.bytes() < kAddresses + kTag + 2) return false;
  const U16 tpid = word(pkt, kAddresses);
  return tpid == 0x8100 || tpid == 0x88a8 || tpid == 0x9100;
}

bool maybeOffloadAnyVlanTag(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  if (!hasVlanTagToOffload(*pkt)) return false;
  // Private data must not become empty: it could not be begun again.
  const U32 inPrivate = privateBytes(*pkt);
  const bool outOfPrivate = inPrivate > kTag;
  const U32 staying = outOfPrivate ? 0 : inPrivate;
  if (!outOfPrivate) pkt->keepShownData();
  pkt->newSeparateVlanTag(word(*pkt, kAddresses + 2), word(*pkt, kAddresses));
  if (pkt->frontBytes() >= kAddresses + kTag) {
    std::memmove(pkt->front() + kTag, pkt->front(), kAddresses);
  } else {
    for (U32 i = kAddresses; i-- > staying;) pkt->rawByteIs(i + kTag, pkt->rawByte(i));
  }
  if (outOfPrivate) {
    pkt->delPrivateHeadData(kTag);
  } else {
    pkt->delSharedHeadData(kTag);
  }
  return true;
}

bool maybeRestoreVlanTag(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  if (!pkt->tciPresent() || pkt->bytes() < kAddresses) return false;
  // Where the new octets are, and the gap that is to be made of them.
  U32 gap = 0;
  const U32 inPrivate = privateBytes(*pkt);
  if (inPrivate > 0 && inPrivate <= Pkt::privateBufferSize_ - kTag) {
    pkt->newPrivateHeadData(kTag);
  } else if (pkt->sharedBuffer()) {
    pkt->keepShownData();
    pkt->newSharedHeadData(kTag);
    gap = inPrivate;
  } else {
    return false;
  }
  for (; gap < kAddresses; ++gap) pkt->rawByteIs(gap, pkt->rawByte(gap + kTag));
  for (; gap > kAddresses; --gap) pkt->rawByteIs(gap - 1 + kTag, pkt->rawByte(gap - 1));
  wordIs(*pkt, kAddresses, pkt->vlanTpid());
  wordIs(*pkt, kAddresses + 2, pkt->tciField());
  pkt->delSeparateVlanTag();
  return true;
}

}  // namespace Wirl
