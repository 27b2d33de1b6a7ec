// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/VlanOffload.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

using namespace Wirl;

/// A packet whose first `inPrivate` octets lie in the private area.
Pkt::Ptr pktOf(const std::string& octets, U32 inPrivate, bool shared = true) {
  const Pkt::Manager& manager = *globalPktManager();
  const Pkt::Ptr pkt = shared ? manager.newPkt() : manager.newPkt(nullptr);
  if (shared) pkt->stringValueIs(octets.substr(inPrivate));
  if (inPrivate > 0) pkt->newPrivateHeadData(inPrivate);
  for (U32 i = 0; i < inPrivate; ++i) pkt->rawByteIs(i, static_cast<U8>(octets[i]));
  return pkt;
}

std::string frameOf(std::size_t size, std::string_view tag) {
  std::string frame(size, '\0');
  for (std::size_t i = 0; i < size; ++i) frame[i] = static_cast<char>('A' + i);
  return frame.replace(12, tag.size(), tag).substr(0, size);
}

TEST(VlanOffload, MovesTheOutermostTagOutAndBackWhereverItLies) {
  using namespace std::string_literals;
  for (const std::string& tag : {"\x81\x00\xa0\x05"s, "\x88\xa8\xff\xff"s, "\x91\x00\x00\x00"s}) {
    for (const std::size_t size : {18u, 22u, 64u}) {
      const std::string frame = frameOf(size, tag + "\x81\x00"s);
      for (U32 inPrivate = 0; inPrivate <= size; ++inPrivate) {
        SCOPED_TRACE(testing::Message() << size << " octets, private " << inPrivate);
        for (const bool shared : {true, false}) {
          if (!shared && inPrivate != size) continue;
          const Pkt::Ptr pkt = pktOf(frame, inPrivate, shared);
          ASSERT_TRUE(maybeOffloadAnyVlanTag(pkt));
          EXPECT_EQ(std::string(pkt->stringValue()), frame.substr(0, 12) + frame.substr(16));
          EXPECT_EQ(std::string(pkt->stringValueMaybeWithVlan()), frame);
          EXPECT_EQ(pkt->frontBytes(), inPrivate > 4 ? inPrivate - 4 : inPrivate > 0 ? inPrivate : size - 4);
          EXPECT_FALSE(maybeOffloadAnyVlanTag(pkt));  // one tag at a time, also where another one follows
          ASSERT_TRUE(maybeRestoreVlanTag(pkt));
          EXPECT_EQ(std::string(pkt->stringValue()), frame);
          EXPECT_FALSE(pkt->tciPresent());
          EXPECT_FALSE(maybeRestoreVlanTag(pkt));
        }
      }
    }
  }
}

TEST(VlanOffload, RestoresATagInFrontOfAnyPieces) {
  for (const std::size_t size : {12u, 13u, 64u}) {
    const std::string frame = frameOf(size, "");
    for (U32 inPrivate = 0; inPrivate <= size; ++inPrivate) {
      const Pkt::Ptr pkt = pktOf(frame, inPrivate);
      pkt->newSeparateVlanTag(0x2064, 0x8100);
      const std::string wire = pkt->stringValueMaybeWithVlan();
      ASSERT_TRUE(maybeRestoreVlanTag(pkt));
      EXPECT_EQ(std::string(pkt->stringValue()), wire) << size << " octets, private " << inPrivate;
    }
  }
  const Pkt::Ptr emptied = pktOf(frameOf(20, ""), 4);
  emptied->delPrivateHeadData(4);  // leaves an empty first piece
  emptied->newSeparateVlanTag(1, 0x8100);
  const std::string wire = emptied->stringValueMaybeWithVlan();
  ASSERT_TRUE(maybeRestoreVlanTag(emptied));
  EXPECT_EQ(std::string(emptied->stringValue()), wire);
}

TEST(VlanOffload, MovesTheTagOfWhatThePacketShowsWhoeverChangedTheBuffer) {
  using namespace std::string_literals;
  const std::string frame = frameOf(40, "\x81\x00\x20\x05\x08\x00"s);
  const std::function<void(Pkt&)> changes[] = {
      [](Pkt&) {},
      [](Pkt& other) { other.newSharedHeadData(20); },
      [](Pkt& other) { other.newSharedTailData(20); },
      [](Pkt& other) { other.delSharedHeadData(other.bytes() - 1); },
      [](Pkt& other) { other.delSharedTailData(other.bytes() - 1); },
      [](Pkt& other) { other.resetSharedData(); },
  };
  const Pkt::Manager& manager = *globalPktManager();
  for (const auto& change : changes) {
    SCOPED_TRACE(&change - changes);
    for (const U32 inPrivate : {0u, 3u, 30u}) {
      const Pkt::Ptr other = pktOf(frame.substr(inPrivate), 0);
      const Pkt::Ptr pkt = manager.newShallowCopy(other);
      if (inPrivate > 0) frame.copy(reinterpret_cast<char*>(pkt->newPrivateHeadData(inPrivate)), inPrivate);
      change(*other);
      const std::string others = other->stringValue();
      ASSERT_TRUE(maybeOffloadAnyVlanTag(pkt));
      EXPECT_EQ(std::string(pkt->stringValue()), frame.substr(0, 12) + frame.substr(16));
      if (other->sharedBuffer() != pkt->sharedBuffer()) {
        EXPECT_EQ(std::string(other->stringValue()), others);
      }
      other->newSharedHeadData(1);
      ASSERT_TRUE(maybeRestoreVlanTag(pkt));
      EXPECT_EQ(std::string(pkt->stringValue()), frame);
    }
  }
}

TEST(VlanOffload, LeavesAloneWhatItCannotMove) {
  using namespace std::string_literals;
  const auto untouched = [](const Pkt::Ptr& pkt, auto function) {
    const std::string before = pkt->stringValueMaybeWithVlan();
    EXPECT_FALSE(function(pkt));
    EXPECT_EQ(std::string(pkt->stringValueMaybeWithVlan()), before);
  };
  untouched(pktOf(frameOf(17, "\x81\x00\x00\x05"s), 0), maybeOffloadAnyVlanTag);
  untouched(pktOf("", 0), maybeOffloadAnyVlanTag);
  untouched(pktOf(frameOf(60, "\x08\x00"s), 0), maybeOffloadAnyVlanTag);
  untouched(pktOf(frameOf(60, "\x92\x00"s), 0), maybeOffloadAnyVlanTag);
  const Pkt::Ptr tagged = pktOf(frameOf(60, "\x81\x00\x00\x05"s), 0);
  tagged->newSeparateVlanTag(7, 0x8100);
  untouched(tagged, maybeOffloadAnyVlanTag);

  untouched(pktOf(frameOf(60, "\x81\x00\x00\x05"s), 0), maybeRestoreVlanTag);
  const Pkt::Ptr stub = pktOf("eleven byte", 0);
  stub->newSeparateVlanTag(7, 0x8100);
  untouched(stub, maybeRestoreVlanTag);
  const Pkt::Ptr full = pktOf(frameOf(61, ""), 61, false);
  full->newSeparateVlanTag(7, 0x8100);
  untouched(full, maybeRestoreVlanTag);
}

}  // namespace
