// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/Pkt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "tests/support/AllocationCounter.h"
#include "tests/support/Failure.h"

namespace {

using namespace Wirl;

const Pkt::Manager& manager() {
  return *globalPktManager();
}
U32 headroom(const Pkt::Ptr& pkt) {
  return pkt->sharedBuffer()->headroom();
}
std::string text(const Pkt::Ptr& pkt) {
  return pkt->stringValue();
}

Pkt::Ptr pktOf(std::string_view bytes) {
  Pkt::Ptr pkt = manager().newPkt();
  pkt->stringValueIs(bytes);
  return pkt;
}

TEST(Pkt, BeginsEmptyAndAllHeadroom) {
  EXPECT_EQ(manager().name(), "Pkt::Manager");
  const U32 references = manager().references();
  const Pkt::Manager::Ptr copy = globalPktManager();
  EXPECT_EQ(manager().references(), references);  // a count that nobody changes
  for (const auto& [pkt, size] : {std::pair(manager().newPkt(), 1536u), {pktFactory(), 10000u}}) {
    EXPECT_TRUE(pkt->empty() && !pkt->tciPresent());
    EXPECT_EQ(pkt->maxSharedData(), size);
    EXPECT_EQ(headroom(pkt), size);
  }
  const Pkt::Ptr bare = manager().newPkt(nullptr);
  EXPECT_EQ(bare->maxSharedData() + bare->numIovecs() + bare->iovec(0).iov_len + bare->iovec(1).iov_len, 0u);
  EXPECT_EQ(failureOf([&] { bare->iovec(2); }), "no such iovec");
  bare->sharedBufferIs(nullptr);
  EXPECT_EQ(bare->numIovecs(), 0u);
  bare->sharedBufferIs(pktOf("data")->sharedBuffer());
  EXPECT_EQ(text(bare), "data");
  bare->newPrivateHeadData(1);
  EXPECT_EQ(failureOf([&] { manager().newShallowCopy(bare); }),
            "shallow copy of packet with non-shared data");
}

TEST(Pkt, AValueMayBeItsOwn) {
  for (const bool toTail : {false, true}) {
    SCOPED_TRACE(toTail);
    const Pkt::Ptr pkt = pktOf(std::string(1000, 'x') + "own");
    pkt->stringValueIs({reinterpret_cast<const char*>(pkt->front()) + 999, 4}, toTail);
    pkt->stringValueIs({reinterpret_cast<const char*>(pkt->front()), 1007}, toTail);  // does not fit
    const std::string once =
        toTail ? std::string(1000, 'x') + "ownxown" : "xown" + std::string(1000, 'x') + "own";
    EXPECT_EQ(text(pkt), once + once);
  }
}

/// A packet of ten octets of data, behind so many private ones.
Pkt::Ptr behind(U32 privateBytes) {
  const Pkt::Ptr pkt = pktOf("0123456789");
  if (privateBytes > 0) pkt->newPrivateHeadData(privateBytes);
  return pkt;
}

TEST(PktDeathTest, MisuseEndsTheProcessWithTheViolatedCondition) {
  const Pkt::Ptr bare = manager().newPkt(nullptr), ten = behind(0), one = behind(1), five = behind(5);
  const char* const dataInRegion = "ptrWithinRegion( data_, buffer_, size_ )";
  const char* const dataEndInRegion = "ptrWithinRegion( data_ + dataBytes_, buffer_, size_ )";
  const char* const privateInRegion =
      "ptrWithinRegion( privateBufferData_, privateBuffer_, privateBufferSize_ )";
  constexpr U32 kMax = 0xffffffff;
  const std::pair<std::string, std::function<void()>> rows[] = {
      {"sharedBuffer_ != 0", [&] { bare->newSharedHeadData(1); }},
      {"sharedBuffer_ != 0", [&] { bare->newSharedTailData(0); }},
      {"sharedBuffer_ != 0", [&] { bare->delSharedHeadData(0); }},
      {"sharedBuffer_ != 0", [&] { bare->delSharedTailData(0); }},
      {"sharedBuffer_ != 0", [&] { bare->beginOffsetIs(0); }},
      {dataInRegion, [&] { ten->delSharedHeadData(11); }},
      {dataInRegion, [&] { ten->delSharedHeadData(kMax); }},
      {dataEndInRegion, [&] { ten->delSharedTailData(4), ten->delSharedHeadData(7); }},
      {dataEndInRegion, [&] { ten->delSharedTailData(11); }},
      {dataEndInRegion, [&] { ten->delSharedTailData(kMax - 1000); }},
      {"n <= maxBufferBytes_ - size_", [&] { ten->newSharedHeadData(kMax); }},
      {"n <= maxBufferBytes_ - size_", [&] { ten->newSharedTailData(kMax - 64 - 1536 + 1); }},
      {"size <= maxBufferBytes_", [&] { manager().newSharedBuffer(kMax - 63); }},
      {privateInRegion, [&] { bare->newPrivateHeadData(65); }},
      {privateInRegion, [&] { one->newPrivateHeadData(kMax); }},
      {privateInRegion, [&] { five->delPrivateHeadData(6); }},
      {privateInRegion, [&] { five->delPrivateHeadData(kMax - 58); }},
      {"(firstIoVec_ == 0) || (sharedBuffer_ == 0)", [&] { ten->delPrivateHeadData(0); }},
      {"firstIoVec_ != 0", [&] { five->delPrivateHeadData(5), five->newPrivateHeadData(1); }},
      {"firstIoVec_ == maxIovecs_", [&] { ten->sharedBufferIs(manager().newSharedBuffer()); }},
      {"checkOffsetBounds()", [&] { ten->beginOffsetIs(11); }},
      {"checkOffsetBounds()", [&] { ten->endOffsetIs(65535); }},
      {"checkOffsetBounds()", [&] { ten->endOffsetIs(5), ten->beginOffsetIs(6); }},
      {"checkOffsetBounds()", [&] { ten->beginOffsetIs(10), ten->delSharedTailData(1), ten->offsetFront(); }},
      {"ptrWithinRegion( data_ + beginOffset, buffer_, size_ )", [&] { ten->beginOffsetIs(-1527); }},
      {"i < bytes()", [&] { ten->rawByte(10); }},
      {"i < bytes()", [&] { one->rawByteIs(11, 0); }},
      {"rawByteDel is not supported", [&] { ten->rawByteDel(0); }},
      {"priority <= 7", [&] { ten->tciPriorityIs(8); }},
      {"vlanId <= 0xfff", [&] { ten->tciVlanIdIs(0x1000); }},
      {"pkt != 0", [&] { manager().newShallowCopy(nullptr); }},
      // Found when the packet is released.
      {"magicBarrier0_ == magic_", [&] { std::memset(behind(64)->front() - 1, 0, 1); }},
      {"magicBarrier1_ == magic_", [&] { std::memset(Pkt::Ptr(behind(1))->front() + 1, 0, 1); }},
  };
  for (const auto& [condition, misuse] : rows) {
    EXPECT_DEATH(misuse(), testing::HasSubstr("assertion failed: " + condition + "\n"));
  }
}

struct PktRecycling : testing::Test {
  PktRecycling() { Pkt::Manager::cacheLimitIs(100); }
  ~PktRecycling() override { Pkt::Manager::cacheLimitIs(0); }
};

TEST_F(PktRecycling, TheSteadyStateAllocatesNothing) {
  const auto oneRound = [] {
    const Pkt::Ptr pkt = manager().newPkt();
    for (const U32 header : {1000u, 14u, 20u, 8u}) pkt->newSharedHeadData(header);
    const Pkt::Ptr copy = manager().newShallowCopy(pkt);
    copy->newSharedTailData(1);  // to another buffer of default size
    pkt->newPrivateHeadData(14);
    return manager().newShallowCopy(copy);
  };
  for (int i = 0; i < 3; ++i) oneRound();
  const AllocationCounter counter;
  for (int i = 0; i < 1000; ++i) oneRound();
  EXPECT_EQ(counter.allocations(), 0u);
}

// Allocations of rounds that take `packets` and let go of them, by `release`, after a first round.
template <typename Release>
std::uint64_t allocationsOf(U32 packets, Release release) {
  std::uint64_t made = 0;
  for (int round = 0; round < 4; ++round) {
    std::vector<Pkt::Ptr> inFlight;
    inFlight.reserve(packets);
    const AllocationCounter counter;
    for (U32 i = 0; i < packets; ++i) inFlight.push_back(manager().newPkt());
    if (round > 0) made += counter.allocations();
    release(inFlight);
  }
  return made;
}

TEST_F(PktRecycling, ManyPacketsInFlightAllocateNothingAndABurstGoesBack) {
  Pkt::Manager::cacheLimitIs(1024);
  EXPECT_EQ(allocationsOf(16384, [](auto& inFlight) { inFlight.clear(); }), 0u);
  allocationsOf(100000, [](auto& inFlight) {
    std::vector<Pkt::Ptr> copies;
    for (const auto& pkt : inFlight) copies.push_back(manager().newShallowCopy(pkt));
    inFlight.clear();
  });
  EXPECT_LE(Pkt::Manager::cachedPkts() + Pkt::Manager::cachedBuffers(), 4 * 1024u);
  EXPECT_LE(Pkt::Manager::depotObjects(), 3 * 16384u);
  // What lies unused while other batches are exchanged is freed.
  const U32 afterBurst = Pkt::Manager::depotObjects();
  for (int i = 0; i < 300; ++i) allocationsOf(2048, [](auto& inFlight) { inFlight.clear(); });
  EXPECT_LT(Pkt::Manager::depotObjects(), afterBurst);
  Pkt::Manager::depotDel();
  EXPECT_EQ(Pkt::Manager::depotObjects(), 0u);
  pktOf("still there");
}

TEST_F(PktRecycling, PacketsReleasedInAnotherThreadFindTheirWayBack) {
  Kiv::ptrThreadSafeIs(true);
  Pkt::Manager::cacheLimitIs(256);
  const Pkt::Ptr source = pktOf("from the first thread");
  const auto inOther = [&](auto& inFlight) {
    for (U32 i = 0; i < inFlight.size(); i += 100) inFlight[i] = manager().newShallowCopy(source);
    std::thread other([&] {
      Pkt::Manager::cacheLimitIs(256);
      for (const auto& pkt : inFlight) EXPECT_TRUE(pkt->empty() || pkt->rawByte(2) == 'o');
      inFlight.clear();
      EXPECT_LE(Pkt::Manager::cachedBuffers(), 256u);
      EXPECT_EQ(text(pktOf("reused")), "reused");
    });
    for (int i = 0; i < 200; ++i) manager().newShallowCopy(source)->newPrivateHeadData(1);
    other.join();
  };
  EXPECT_LE(allocationsOf(4000, inOther), 3 * 2 * 3 * 128u) << "but for less than a batch of each kind";
  EXPECT_EQ(source->sharedBuffer()->references(), 1u);
  Kiv::ptrThreadSafeIs(false);
  Pkt::Manager::depotDel();
}

// Made before the thread's store and destroyed after it, which was not empty.
struct LateOfThread {
  Pkt::Ptr pkt;
  ~LateOfThread() {
    EXPECT_EQ(text(manager().newShallowCopy(pkt)), "late");
    pkt = pktOf("later still");
    EXPECT_EQ(Pkt::Manager::cachedPkts() + Pkt::Manager::cachedBuffers(), 0u);
  }
};

TEST(PktLate, AThreadsLastPacketsFindItsStoreClosed) {
  std::thread([] {
    static thread_local LateOfThread late;
    late.pkt = nullptr;
    Pkt::Manager::cacheLimitIs(4);
    std::vector<Pkt::Ptr> kept;
    for (int i = 0; i < 4; ++i) kept.push_back(pktOf("kept"));
    late.pkt = pktOf("late");
    kept.clear();
    EXPECT_EQ(Pkt::Manager::cachedPkts(), 4u);
  }).join();
}

// Released behind the end of main, when the thread's store is closed.
struct Late {
  Pkt::Ptr pkt = pktOf("late");
  ~Late() { manager().newShallowCopy(pkt)->newSharedTailData(1); }
} late;

}  // namespace
