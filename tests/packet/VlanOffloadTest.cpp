// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/VlanOffload.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "tests/support/AllocationCounter.h"

namespace {

using namespace Wirl;
using namespace std::string_literals;

constexpr U32 kTaken = 30;  // bytes of a header that was taken off, in the headroom

/// Random frames in random pieces, whose buffer others may hold, with random offset ranges.
class VlanOffload : public testing::Test {
 protected:
  U32 upTo(U32 max) { return static_cast<U32>(random_() % (max + 1)); }
  std::string octets(U32 n) {
    std::string made(n, '\0');
    for (char& c : made) c = static_cast<char>(random_());
    return made;
  }

  void make() {
    const std::string types[] = {"\x81\x00"s, "\x88\xa8"s, "\x91\x00"s, "\x08\x00"s, "\x92\x00"s};
    frame_ = octets(upTo(48) + upTo(1) * 18);
    type_ = upTo(4);
    if (frame_.size() >= 14) frame_.replace(12, 2, types[type_]);
    inPrivate_ = upTo(2) == 0 ? 0 : upTo(std::min(64u, static_cast<U32>(frame_.size())));
    const bool shared = inPrivate_ < frame_.size() || upTo(1) == 0;
    const auto& manager = globalPktManager();
    pkt_ = manager->newPkt(shared ? manager->newSharedBuffer(100 + upTo(1) * 1436) : nullptr);
    other_ = nullptr;
    if (shared) {
      pkt_->stringValueIs(octets(kTaken) + frame_.substr(inPrivate_));
      pkt_->delSharedHeadData(kTaken);
      if (upTo(1) == 0) other_ = manager->newShallowCopy(pkt_);
    }
    if (inPrivate_ > 0) {
      frame_.copy(reinterpret_cast<char*>(pkt_->newPrivateHeadData(inPrivate_)), inPrivate_);
    }
    const U32 change = other_ ? upTo(5) : 5;
    if (change == 0) other_->newSharedHeadData(20);
    if (change == 1) other_->newSharedTailData(20);
    if (change == 2) other_->delSharedHeadData(upTo(other_->bytes()));
    if (change == 3) other_->resetSharedData();
    ranged_ = shared && change > 3 && upTo(3) != 0;
    if (ranged_) {
      const int bytes = static_cast<int>(pkt_->bytes() - inPrivate_);
      const int begin = inPrivate_ == 0 && upTo(3) == 0 ? -static_cast<int>(upTo(kTaken))
                                                        : static_cast<int>(upTo(static_cast<U32>(bytes)));
      const U32 end = upTo(static_cast<U32>(bytes - std::max(begin, 0)));
      pkt_->offsetRangeIs(static_cast<S16>(begin), static_cast<U16>(end));
    }
    others_ = other_ ? std::string(other_->stringValue()) : "";
  }

  std::string range() const {
    return ranged_ ? std::string(pkt_->offsetFront(), pkt_->offsetFront() + pkt_->offsetBytes()) : "";
  }
  /// Where in `range()` the byte of the frame at `at` is.
  S64 inRange(S64 at) const {
    const U32 inPrivate = pkt_->numIovecs() == 2 || !pkt_->sharedBuffer() ? pkt_->frontBytes() : 0;
    return at - inPrivate - pkt_->beginOffset();
  }
  bool isWhole() const { return pkt_->beginOffset() == 0 && pkt_->endOffset() == 0; }
  void expectOthersUnchanged() const {
    if (other_) {
      EXPECT_EQ(std::string(other_->stringValue()), others_);
    }
  }

  void offload() {
    const bool moves = frame_.size() >= 18 && type_ < 3;
    std::string expected = range();
    const S64 size = static_cast<S64>(expected.size());
    const auto from = std::clamp<S64>(inRange(12), 0, size), to = std::clamp<S64>(inRange(16), 0, size);
    const bool followed = moves && ranged_ && !isWhole();
    if (followed) expected.erase(static_cast<std::size_t>(from), static_cast<std::size_t>(to - from));
    ASSERT_EQ(hasVlanTagToOffload(*pkt_), moves);
    ASSERT_EQ(maybeOffloadAnyVlanTag(pkt_), moves);
    ASSERT_EQ(pkt_->tciPresent(), moves);
    EXPECT_EQ(std::string(pkt_->stringValue()), moves ? frame_.substr(0, 12) + frame_.substr(16) : frame_);
    EXPECT_EQ(std::string(pkt_->stringValueMaybeWithVlan()), frame_);
    if (followed) {
      EXPECT_EQ(range(), expected);
    }
    expectOthersUnchanged();
  }

  void restore() {
    if (!pkt_->tciPresent() && upTo(1) == 0) pkt_->newSeparateVlanTag(0x2064, 0x8100);
    const std::string wire = pkt_->stringValueMaybeWithVlan();
    const bool moves = pkt_->tciPresent() && pkt_->bytes() >= 12 &&
                       (pkt_->sharedBuffer() || pkt_->bytes() <= Pkt::privateBufferSize_ - 4);
    std::string expected = range();
    const S64 at = inRange(12);
    const bool followed = moves && ranged_ && !isWhole();
    if (followed && at > 0 && at < static_cast<S64>(expected.size())) {
      expected.insert(static_cast<std::size_t>(at), wire.substr(12, 4));
    }
    ASSERT_EQ(maybeRestoreVlanTag(pkt_), moves);
    EXPECT_EQ(std::string(pkt_->stringValue()), moves ? wire : frame_);
    EXPECT_EQ(std::string(pkt_->stringValueMaybeWithVlan()), wire);
    if (followed && !(pkt_->beginOffset() < 0 && inPrivate_ > 0)) {
      // What the private area takes leaves the range, which is one of shared data.
      EXPECT_TRUE(pkt_->numIovecs() == 1 ? range() == expected : expected.ends_with(range()));
    }
    expectOthersUnchanged();
  }

  std::mt19937 random_{1};
  std::string frame_, others_;
  U32 type_ = 0, inPrivate_ = 0;
  bool ranged_ = false;
  Pkt::Ptr pkt_, other_;
};

TEST_F(VlanOffload, MovesTheTagForOneHolderAndTheOffsetRangeFollows) {
  for (int i = 0; i < 30000 && !HasFailure(); ++i) {
    make();
    SCOPED_TRACE(testing::Message() << i << ": " << frame_.size() << " octets, private " << inPrivate_
                                    << ", range " << pkt_->beginOffset() << " " << pkt_->endOffset());
    offload();
    if (!HasFailure()) restore();
    pkt_->checkMagic();
  }
}

TEST_F(VlanOffload, WithoutMemoryNothingChanges) {
  if (!AllocationRefusal::works) return;  // a sanitizer has its own allocator
  for (int moved = 0; moved < 20;) {
    make();
    if (!other_ || inPrivate_ > 0 || pkt_->maxSharedData() == 1536 || !hasVlanTagToOffload(*pkt_) ||
        other_->sharedBuffer() != pkt_->sharedBuffer()) {
      continue;
    }
    ++moved;
    const auto offload = [this] {
      const AllocationRefusal refusal(100);
      maybeOffloadAnyVlanTag(pkt_);
    };
    EXPECT_THROW(offload(), std::bad_alloc);
    EXPECT_FALSE(pkt_->tciPresent());
    EXPECT_TRUE(pkt_->stringValue() == frame_);
  }
}

}  // namespace
