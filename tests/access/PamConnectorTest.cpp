// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/PamConnector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kiv/Kiv.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/TraceCapture.h"

namespace Wirl {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

Pkt::Ptr pktOf(std::string_view text) {
  const Pkt::Ptr pkt = globalPktManager()->newPkt();
  pkt->stringValueIs(text);
  return pkt;
}

/// A cable, in simulated time.
class PamConnectorTest : public testing::Test {
 protected:
  PamConnectorTest() {
    loop.simulatedTimeIs(true);
    cable->handleInitializedBase();
    pam0 = cable->pam("pam0");
    pam1 = cable->pam("pam1");
  }
  ~PamConnectorTest() override { loop.simulatedTimeIs(false); }

  void tick() { loop.runFor(0.001); }
  static std::string pulled(const Kiv::Ptr<PamConnectorPam>& pam, int packets) {
    std::string all;
    while (packets-- > 0) all += pulled(pam);
    return all;
  }
  static std::string pulled(const Kiv::Ptr<PamConnectorPam>& pam) {
    const Pkt::Ptr pkt = pam->rxPkt();
    return pkt ? std::string(pkt->stringValue()) : "nothing";
  }

  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  Kiv::Ptr<Kiv::Clock> clock = Kiv::makePtr<Kiv::Clock>("cable");
  Kiv::Ptr<PamConnector> cable = PamConnectorIs(clock);
  Kiv::Ptr<PamConnectorPam> pam0, pam1;
};

TEST_F(PamConnectorTest, StartUpMakesJoinsAndTellsBothEndsOnce) {
  EXPECT_EQ(pam0->name(), "pam0");
  EXPECT_EQ(pam0->otherEnd(), pam1.get());
  EXPECT_EQ(pam1->otherEnd(), pam0.get());
  EXPECT_EQ(pam0->maxBuffer(), 1024u);
  cable->handleInitializedBase();
  EXPECT_EQ(cable->pam("pam0"), pam0);
  EXPECT_EQ(pam0->writableCount() + pam1->writableCount(), 2u);
  EXPECT_EQ(pam0->readableCount() + pam1->readableCount(), 0u);
  EXPECT_EQ(clock->timeMin(), Kiv::timeInfinite);
  EXPECT_EQ(PamConnectorIs(clock)->pam("pam0"), nullptr);  // not started up
}

TEST_F(PamConnectorTest, APacketArrivesATickLaterAndSendsShareThatTick) {
  const Kiv::Time start = loop.now();
  const Pkt::Ptr first = pktOf("0");
  pam0->txPktIs(first);
  EXPECT_EQ(clock->timeMin() - start, 976562ns);
  loop.runFor(0.0005);
  for (int i = 1; i < 10; ++i) pam0->txPktIs(pktOf(std::to_string(i)));
  pam1->txPktIs(pktOf("back"));
  EXPECT_EQ(clock->timeMin() - start, 976562ns);
  EXPECT_EQ(pam1->inputQueueLength(), 10u);
  EXPECT_EQ(pam1->inputQueue(0), first);
  EXPECT_EQ(pam1->inputQueue(10), nullptr);
  EXPECT_EQ(pam1->readableCount(), 0u);

  std::string got;
  const Kiv::Reactor pull(pam1->readableCount, [&] { got += pulled(pam1); });
  EXPECT_TRUE(loop.runUntil([&] { return pam1->readableCount() == 10; }, 1));
  EXPECT_EQ(loop.now() - start, 976562ns);
  EXPECT_EQ(got, "0123456789");
  EXPECT_EQ(pam0->readableCount(), 1u);
  EXPECT_EQ(pulled(pam0), "back");
  EXPECT_EQ(pulled(pam0), "nothing");
  EXPECT_EQ(pam0->writableCount(), 11u);
  EXPECT_EQ(pam0->peekPktCount(), 10u);
  EXPECT_EQ(pam1->inputQueueMetadata(), (InputQueueMetadata{10, 10}));
  tick();
  EXPECT_EQ(pam1->readableCount(), 10u);
}

TEST_F(PamConnectorTest, AQueueTakesOneMoreThanItsBoundAndThenDrops) {
  pam1->maxBufferIs(2);
  for (const char* text : {"a", "b", "c", "d"}) pam0->txPktIs(pktOf(text));
  EXPECT_EQ(pam1->inputQueueLength(), 3u);
  EXPECT_EQ(pam1->rxDrops(), 1u);
  EXPECT_EQ(pam0->rxDrops() + pam0->txDrops() + pam0->txErrors(), 0u);
  EXPECT_EQ(pam0->writableCount(), 5u);
  EXPECT_EQ(pam0->peekPktCount(), 3u);
  tick();
  EXPECT_EQ(pam1->readableCount(), 3u);
  EXPECT_EQ(pulled(pam1), "a");
  pam0->txPktIs(pktOf("e"));
  EXPECT_EQ(pam1->rxDrops(), 1u);
  tick();
  EXPECT_EQ(pam1->readableCount(), 6u);  // once more for each that nobody pulled
  EXPECT_EQ(pulled(pam1, 4), "bcenothing");
}

TEST_F(PamConnectorTest, ManyPacketsKeepTheirOrderWhileTheQueueGrowsAndWraps) {
  int sent = 0;
  int received = 0;
  for (int round = 0; round < 60; ++round) {
    for (int i = 0; i < 17; ++i) pam0->txPktIs(pktOf(std::to_string(sent++)));
    for (int i = 0; i < 10; ++i) EXPECT_EQ(pulled(pam1), std::to_string(received++));
  }
  while (received < sent) EXPECT_EQ(pulled(pam1), std::to_string(received++));
  EXPECT_EQ(pulled(pam1), "nothing");
}

TEST_F(PamConnectorTest, ObserversSeeEveryPacketQueuedAtTheMomentOfSending) {
  std::vector<std::string> seen;
  const Kiv::Reactor peek(pam0->peekPkt, [&] {
    if (const Pkt::PtrConst pkt = pam0->peekPkt()) seen.push_back(pkt->stringValue());
  });
  pam1->maxBufferIs(1);
  for (const char* text : {"a", "b", "dropped"}) pam0->txPktIs(pktOf(text));
  EXPECT_THAT(seen, ElementsAre("a", "b"));
  EXPECT_EQ(pam0->peekPkt(), nullptr);
  Pkt::PtrConst counted;
  const Kiv::Reactor other(pam1->peekPktCount, [&] { counted = pam1->peekPkt(); });
  const Pkt::Ptr sent = pktOf("c");
  pam1->txPktIs(sent);
  EXPECT_EQ(counted, sent);
}

TEST_F(PamConnectorTest, TagsAreTakenOutOfTheBytesWhereThatIsAskedFor) {
  const std::string frame = std::string("ddddddssssss\x81\x00\x20\x07\x08\x00payload", 25);
  const std::string bare = std::string("ddddddssssss\x08\x00payload", 21);
  pam0->txPktIs(pktOf(frame));
  EXPECT_EQ(pulled(pam1), frame);
  cable->separateVlanTagHdrIs(true);
  const Pkt::Ptr itself = pktOf(frame);
  const Pkt::Ptr held = pktOf(frame);
  pam0->txPktIs(itself);
  pam0->txPktIs(globalPktManager()->newShallowCopy(held));
  pam0->txPktIs(pktOf(frame));
  for (int i = 0; i < 3; ++i) {
    const Pkt::Ptr pkt = pam1->rxPkt();
    EXPECT_EQ(pkt == itself, i == 0);  // although the sender has it, too
    EXPECT_EQ(std::string(pkt->stringValue()), bare);
    EXPECT_TRUE(pkt->tciPresent());
    EXPECT_EQ(pkt->vlanTpid(), 0x8100);
    EXPECT_EQ(pkt->tciField(), 0x2007);
  }
  EXPECT_EQ(std::string(held->stringValue()), frame);  // whose bytes were those of the second one
  const Pkt::Ptr untagged = pktOf(bare);
  pam0->txPktIs(untagged);
  EXPECT_EQ(pam1->rxPkt(), untagged);
}

TEST_F(PamConnectorTest, EndsOutliveEachOtherAndTheConnector) {
  pam0->txPktIs(pktOf("last"));
  cable->pamDel("pam0");
  cable->pamDel("pam0");
  EXPECT_EQ(cable->pam("pam0"), nullptr);
  EXPECT_EQ(pam1->otherEnd(), nullptr);
  EXPECT_EQ(pam0->pamConnector(), nullptr);
  pam0 = nullptr;
  tick();
  EXPECT_EQ(pam1->readableCount(), 1u);
  cable = nullptr;
  EXPECT_EQ(pam1->pamConnector(), nullptr);
  EXPECT_EQ(pulled(pam1), "last");
  clock->timeMinIs(loop.now());
  tick();
}

TEST_F(PamConnectorTest, ReactorsMaySendRemoveAndDropAnything) {
  {
    // Answers within the tick wait for the next one.
    const Kiv::Reactor answer(pam1->readableCount, [&] { pam1->txPktIs(pam1->rxPkt()); });
    pam0->txPktIs(pktOf("ping"));
    tick();
    EXPECT_EQ(pam0->readableCount(), 0u);
    tick();
    EXPECT_EQ(pulled(pam0), "ping");
  }
  {
    const Kiv::Reactor cut(pam0->peekPkt, [&] { cable->pamDel("pam1"); });
    pam0->txPktIs(pktOf("cut off"));
    EXPECT_EQ(pam0->txErrno(), ENOTCONN);
    EXPECT_EQ(pam0->txErrors(), 1u);
    EXPECT_EQ(pam1->inputQueueLength(), 0u);
  }
  {
    cable = PamConnectorIs(clock);
    cable->handleInitializedBase();
    const auto left = cable->pam("pam1");
    const auto removed = cable->pam("pam0");
    const Kiv::Reactor remove(removed->writableCount, [&] { cable->pamDel("pam0"); });
    removed->txPktIs(pktOf("told of all the same"));
    tick();
    EXPECT_EQ(left->readableCount(), 1u);
    left->pamConnector()->pamDel("pam1");
    cable->pamIs(left);  // belongs to it again, and is told of what it still has
    tick();
    EXPECT_EQ(left->readableCount(), 2u);
  }
  cable = PamConnectorIs(clock);
  cable->handleInitializedBase();
  for (int i = 0; i < 3; ++i) cable->pam("pam0")->txPktIs(pktOf("x"));
  U32 ran = 0;
  const Kiv::Reactor drop(cable->pam("pam1")->readableCount, [&] {
    ++ran;
    cable = nullptr;
  });
  tick();
  EXPECT_EQ(ran, 3u);  // a tick that has begun is finished
  EXPECT_EQ(clock->expiredCount(), 5u);
}

TEST_F(PamConnectorTest, WhatAReactorThrowsCostsNoPacket) {
  pam0->txPktIs(pktOf("0"));
  pam1->txPktIs(pktOf("1"));
  {
    const Kiv::Reactor failing(pam0->readableCount, [] { throw std::runtime_error("client"); });
    EXPECT_THROW(tick(), std::runtime_error);
  }
  EXPECT_EQ(pam1->readableCount(), 0u);
  tick();
  EXPECT_EQ(pam1->readableCount(), 1u);
  {
    const Kiv::Reactor failing(pam0->writableCount, [] { throw std::runtime_error("client"); });
    EXPECT_THROW(pam0->txPktIs(pktOf("2")), std::runtime_error);
  }
  const U32 before = pam1->readableCount();
  tick();
  EXPECT_EQ(pam1->readableCount(), before + 2);
  EXPECT_EQ(pulled(pam1, 2), "02");
}

TEST_F(PamConnectorTest, WhatWatchersOfASendThrowCostsNoPacketAndTheFirstOfItLeaves) {
  for (U32 who = 1; who < 16; ++who) {
    SCOPED_TRACE(who);
    std::string ran;
    const auto failing = [&](U32 bit, const auto& attr, char name) {
      return Kiv::Reactor(attr, [&, bit, name] {
        ran += name;
        if (who & bit) throw name;
      });
    };
    const Kiv::Reactor seen(pam0->peekPkt, [&] {
      ran += pam0->peekPkt() ? 's' : 'h';
      if (who & (pam0->peekPkt() ? 1 : 4)) throw ran.back();
    });
    const auto counted = failing(2, pam0->peekPktCount, 'c');
    const auto sent = failing(8, pam0->writableCount, 'w');
    const U32 packets = pam0->peekPktCount(), writable = pam0->writableCount();
    char thrown = 0;
    try {
      pam0->txPktIs(pktOf("x"));
    } catch (char name) {
      thrown = name;
    }
    EXPECT_EQ(ran, "schw");
    EXPECT_EQ(thrown, who & 1 ? 's' : who & 2 ? 'c' : who & 4 ? 'h' : 'w');
    EXPECT_EQ(pam0->peekPkt(), nullptr);
    EXPECT_EQ(pam0->peekPktCount(), packets + 1);
    EXPECT_EQ(pam0->writableCount(), writable + 1);
    const U32 readable = pam1->readableCount();
    tick();
    EXPECT_EQ(pam1->readableCount(), readable + 1);
    EXPECT_EQ(pulled(pam1, 2), "xnothing");
  }
}

TEST_F(PamConnectorTest, WatchersThatSendGetNoMoreThanTheBoundIntoAQueue) {
  pam1->maxBufferIs(2);
  int more = 10;
  const auto send = [&] {
    if (more-- > 0) pam0->txPktIs(pktOf("more"));
  };
  {
    const Kiv::Reactor seen(pam0->peekPkt, send);
    pam0->txPktIs(pktOf("seen"));
  }
  EXPECT_EQ(pam1->inputQueueLength(), 3u);
  EXPECT_EQ(pam1->rxDrops(), 8u);
  EXPECT_EQ(pam0->writableCount(), 12u);
  EXPECT_EQ(pulled(pam1, 3), "moremoremore");
  const Kiv::Reactor counted(pam0->peekPktCount, [&] { pam1->maxBufferIs(0); });
  for (int i = 0; i < 2; ++i) pam0->txPktIs(pktOf("x"));
  EXPECT_EQ(pam1->rxDrops(), 9u);
}

TEST_F(PamConnectorTest, WithoutMemoryForALongerQueueAPacketIsCountedAndTheSenderGoesOn) {
  if (!AllocationRefusal::works) return;
  for (const bool watched : {false, true}) {
    Kiv::Reactor watcher;
    if (watched) watcher = Kiv::Reactor(pam0->peekPkt, [] {});
    const U32 room = watched ? 32 : 16, packets = pam0->peekPktCount();
    while (pam1->inputQueueLength() < room) pam0->txPktIs(pktOf("x"));
    const U32 writable = pam0->writableCount(), errors = pam0->txErrors();
    const Pkt::Ptr last = pktOf("y");
    {
      const AllocationRefusal refusal(1);
      pam0->txPktIs(last);
    }
    EXPECT_EQ(pam0->txErrors(), errors + 1);
    EXPECT_EQ(pam0->txErrno(), ENOMEM);
    EXPECT_EQ(pam0->writableCount(), writable + 1);
    EXPECT_EQ(pam0->peekPktCount() - packets, 16u);
    EXPECT_EQ(pam1->inputQueueLength(), room);
  }
  pam0->txPktIs(pktOf("z"));
  EXPECT_EQ(pulled(pam1, 33), std::string(32, 'x') + "z");
  cable = PamConnectorIs(clock);
  {
    const AllocationRefusal refusal(1);
    EXPECT_THROW(cable->handleInitializedBase(), std::bad_alloc);
  }
  EXPECT_FALSE(cable->initialized());
  cable->handleInitializedBase();  // can be tried again
  EXPECT_NE(cable->pam("pam0")->otherEnd(), nullptr);
}

TEST_F(PamConnectorTest, WithoutMemoryForItsCopyAPacketWaitsForTheNextTick) {
  if (!AllocationRefusal::works) return;
  cable->separateVlanTagHdrIs(true);
  const std::string rest = "\x08\x00" + std::string(Pkt::Manager::defaultBufferBytes_, 'x');
  const Pkt::Ptr held = globalPktManager()->newPkt(globalPktManager()->newSharedBuffer(5000));
  held->stringValueIs(std::string("ddddddssssss\x81\x00\x20\x07", 16) + rest);
  pam0->txPktIs(globalPktManager()->newShallowCopy(held));
  tick();
  Pkt::Ptr pkt;
  {
    const AllocationRefusal refusal(1000);
    pkt = pam1->rxPkt();
  }
  EXPECT_EQ(pkt, nullptr);
  EXPECT_EQ(pam1->inputQueueLength(), 1u);
  tick();
  EXPECT_EQ(pam1->readableCount(), 2u);
  EXPECT_TRUE(pulled(pam1) == "ddddddssssss" + rest);
}

TEST_F(PamConnectorTest, TracesItsRoad) {
  TraceCapture traces("PamConnector/0-9");
  const auto other = PamConnectorIs(clock);
  other->handleInitializedBase();
  pam1->maxBufferIs(0);
  pam0->txPktIs(pktOf("a"));
  pam0->txPktIs(pktOf("b"));
  cable->handleClock();
  EXPECT_THAT(
      traces.lines(),
      ElementsAre("PamConnector/2:void Wirl::PamConnector::handleInitializedBase()",
                  "PamConnector/2:PamConnector: enqueue, total packets: 1", "PamConnector/2:Dropping packet",
                  "PamConnector/2:PamConnector: handleClock pam0, total packets: 0",
                  "PamConnector/2:PamConnector: handleClock pam1, total packets: 1",
                  "PamConnector/2:PamConnector: handleClock pam1, remaining packets: 1"));
}

using PamConnectorDeathTest = PamConnectorTest;

TEST_F(PamConnectorDeathTest, ProgrammingErrorsEndTheProcess) {
  EXPECT_DEATH(pam0->txPktIs(nullptr), "pkt != __null");
  EXPECT_DEATH(PamConnectorIs(clock)->pamIs(pam0), "pam->pamConnector\\(\\) == this");
  cable->pamDel("pam1");
  EXPECT_DEATH(pam0->txPktIs(pktOf("x")), "otherEnd\\(\\)");
  EXPECT_DEATH(PamConnectorIs(clock)->doScheduleEvent(), "initialized\\(\\)");
}

}  // namespace
}  // namespace Wirl
