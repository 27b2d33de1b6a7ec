// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/Pam.h"

#include <gtest/gtest.h>

#include <deque>
#include <new>
#include <string>

#include "Kiv/ActivityLoop.h"
#include "Wirl/access/PamFdSm.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/SocketPair.h"

namespace Wirl {
namespace {

/// Receives what the test put into `waiting`; logs what it is told.
class FakePam final : public Pam {
 public:
  FakePam() : Pam("fake") {}
  std::deque<Pkt::Ptr> waiting;
  std::string log;

 private:
  void handleReadableCount() override { log += "r" + std::to_string(readableCount()); }
  void handleWritableCount() override { log += "w" + std::to_string(writableCount()); }
  void doGetRxPkt() override {
    if (waiting.empty()) return;
    rxPktHolderIs(waiting.front());
    waiting.pop_front();
  }
};

TEST(Pam, CountersRunTheHookThenTheReactorsAndOnlyOnAChange) {
  const auto pam = Kiv::makePtr<FakePam>();
  const Kiv::Reactor onReadable(pam->readableCount, [&] { pam->log += "R"; });
  pam->readableCountIs(0);
  EXPECT_EQ(pam->log, "");
  EXPECT_EQ(pam->readableCountInc(2), 2u);
  EXPECT_EQ(pam->writableCountInc(1), 1u);
  pam->readableCountIs(2);
  EXPECT_EQ(pam->log, "r2Rw1");
  EXPECT_EQ(pam->txErrorsInc(~0u), ~0u);
  EXPECT_EQ(pam->txErrorsInc(2), 1u);
  pam->rxDropsIs(5);
  EXPECT_EQ(pam->rxDrops(), 5u);
}

TEST(Pam, TheReceiveSlotIsEmptiedByTakingFromIt) {
  const auto pam = Kiv::makePtr<FakePam>();
  const Pkt::Ptr pkt = globalPktManager()->newPkt();
  pam->waiting = {pkt};
  EXPECT_EQ(pam->rxPkt(), pkt);
  EXPECT_EQ(pkt->references(), 1u);
  EXPECT_EQ(pam->rxPkt(), nullptr);
  pam->txPktIs(pkt);
  EXPECT_EQ(pam->txPkt(), pkt);  // the base keeps and sends nothing
}

TEST(Pam, TheBulkArraysGrowOnDemandAndEmptySlotBySlot) {
  const auto pam = Kiv::makePtr<FakePam>();
  const Pkt::Ptr pkt = globalPktManager()->newPkt();
  pam->savedPacketIs(3, pkt);
  pam->savedPacketRxIs(65535, true);
  EXPECT_EQ(pam->savedPackets(), 4u);
  for (const U16 slot : {U16{0}, U16{3}, U16{65535}}) {
    EXPECT_EQ(pam->savedPacket(slot), slot == 3 ? pkt : nullptr);
    EXPECT_EQ(pam->savedPacketRx(slot), slot == 65535);
  }
  pam->savedPacketDel(3);
  pam->savedPacketDel(1000);
  pam->savedPacketRxDel(65535);
  EXPECT_EQ(pam->savedPacket(3), nullptr);
  EXPECT_FALSE(pam->savedPacketRx(65535));
  EXPECT_EQ(pam->savedPackets(), 4u);
  pam->savedPacketDelAll();
  pam->savedPacketRxDelAll();
  EXPECT_EQ(pam->savedPackets(), 0u);
}

TEST(PamFdSm, CountsOnceOnBeingMadeAndThenEveryEvent) {
  const SocketPair sockets;
  const auto pam = Kiv::makePtr<FakePam>();
  const auto logged = [&] {
    Kiv::activityLoop().poll();
    return std::exchange(pam->log, "");
  };
  const auto fd = Kiv::makePtr<Kiv::FileDescriptor>("fd");
  fd->descriptorIs(sockets.ends[0]);
  auto sm = PamFdSmIs(fd, pam.get());
  EXPECT_EQ(logged(), "r1w1");
  sockets.write();
  EXPECT_EQ(logged(), "r2");
  fd->notifyOnWritableIs(true);
  EXPECT_EQ(logged(), "r3w2");
  sm->hasNotificationActiveIs(false);
  EXPECT_EQ(logged(), "");
  if (AllocationRefusal::works) {
    const AllocationRefusal refusal(1);
    EXPECT_THROW(sm->hasNotificationActiveIs(true), std::bad_alloc);
  }
  EXPECT_FALSE(sm->hasNotificationActive());
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(logged(), "r4w3");
  EXPECT_EQ(sm->fileDescDel(), fd);
  EXPECT_EQ(sm->fileDescDel(), nullptr);
  EXPECT_EQ(logged(), "");
  EXPECT_EQ(PamFdSmIs(nullptr, pam.get())->fileDescDel(), nullptr);
  EXPECT_EQ(logged(), "r5w4");
}

TEST(PamDeathTest, AReqResponsePamFdSmIsForItsClassOnly) {
  const auto pam = Kiv::makePtr<FakePam>();
  EXPECT_DEATH(ReqResponsePamFdSmIs(nullptr, pam.get()), "dynamic_cast<ReqResponseRawTxPam\\*>\\(pam\\)");
}

}  // namespace
}  // namespace Wirl
