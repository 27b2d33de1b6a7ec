// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/PamConnector.h"

#include <deque>
#include <optional>

#include "Wirl/access/PamMux.h"
#include "tests/support/Support.h"

namespace Wirl {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr Kiv::Time kTick = 976562ns;
const std::string kTag("\x81\0\x20\x07", 4);

Pkt::Ptr pktOf(std::string_view text) {
  const Pkt::Ptr pkt = globalPktManager()->newPkt();
  pkt->stringValueIs(text);
  return pkt;
}

/// A cable in simulated time.
class PamConnectorTest : public testing::Test {
 protected:
  PamConnectorTest() {
    loop.simulatedTimeIs(true);
    cable->handleInitializedBase();
  }
  ~PamConnectorTest() override { loop.simulatedTimeIs(false); }

  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  Kiv::Ptr<Kiv::Clock> clock = Kiv::makePtr<Kiv::Clock>("cable");
  Kiv::Ptr<PamConnector> cable = PamConnectorIs(clock);
};

/// A cable beside a model of it: two queues, their counts and the time of the tick. A seed draws the actions,
/// also those of reactors at each point at which they run.
class PamConnectorModelTest : public PamConnectorTest, public testing::WithParamInterface<unsigned> {
 protected:
  struct Frame {
    std::string text;
    bool tagged;
    Pkt::Ptr pkt, holder;  // the holder, if any, shares the bytes
  };
  struct End {
    Kiv::Ptr<PamConnectorPam> pam;
    std::deque<Frame> queue;
    U32 pulled = 0, room = 16, maxBuffer = 1024;
    U32 readable = 0, writable = 1, rxDrops = 0, txErrors = 0, peeked = 0;
    S32 txErrno = 0;
    std::vector<Kiv::Reactor> reactors;
  };
  /// A send or tick in progress. The first exception of its reactors leaves it.
  struct Deed {
    End* from = nullptr;
    Frame frame;
    bool open = true, queued = false;  // open: neither queued nor lost yet
    std::optional<int> thrown;
    U32 told[2] = {0, 0}, toTell[2] = {0, 0};
  };

  void SetUp() override {
    Pkt::Manager::cacheLimitIs(0);  // every packet is an allocation, which can fail
    draw.seed(GetParam());
    deeds.reserve(100);
    renew();
  }
  void TearDown() override { Pkt::Manager::cacheLimitIs(256); }

  U32 lot(U32 below) { return static_cast<U32>(draw() % below); }
  bool chance(U32 percent) { return lot(100) < percent; }
  End& other(const End& end) { return ends[&end == &ends[0]]; }

  void renew() {
    cable = PamConnectorIs(clock);
    cable->handleInitializedBase();
    linked = true;
    for (End& end : ends) {
      end = End{};
      end.pam = cable->pam(&end == &ends[0] ? "pam0" : "pam1");
      auto& pam = *end.pam;
      end.reactors.emplace_back(pam.peekPkt, [&] { react(end); });
      end.reactors.emplace_back(pam.peekPktCount, [&] { react(end); });
      end.reactors.emplace_back(pam.writableCount, [&] {
        if (deeds.back()->from == &end) settle(*deeds.back());
        react(end);
      });
      end.reactors.emplace_back(pam.readableCount, [&] {
        Deed& tick = *deeds.back();
        const auto at = static_cast<std::size_t>(&end - ends);
        if (tick.told[at]++ == 0) tick.toTell[at] = static_cast<U32>(end.queue.size());
        ++end.readable;
        react(end);
      });
    }
  }

  /// What a reactor does.
  void react(End& end) {
    if (quiet || deeds.size() > 3 || !chance(20)) return;
    Deed& outer = *deeds.back();
    try {
      switch (lot(6)) {
        case 0:
          return send(end);
        case 1:
          return send(other(end));
        case 2:
          return pull(end);
        case 3:
          return pull(other(end));
        case 4:
          return chance(10) ? remove(chance(50) ? end : other(end)) : maxBufferIs(end);
        default:
          throw ++lastThrown;
      }
    } catch (int name) {
      if (!outer.thrown) outer.thrown = name;
      throw;
    }
  }

  void scheduled() {
    if (!tickAt) tickAt = loop.now() + kTick;
  }
  void scheduledIfQueued() {
    for (const End& end : ends) {
      if (end.pam->pamConnector() && !end.queue.empty()) scheduled();
    }
  }
  void maxBufferIs(End& end) { end.pam->maxBufferIs(end.maxBuffer = lot(40)); }

  /// Returns whether there is room for a frame that `from` sends. If not, it is lost.
  bool admits(End& from) {
    End& to = other(from);
    const bool full = to.queue.size() > to.maxBuffer;
    const bool noMemory = !full && to.queue.size() >= to.room && refused;
    if (!full && !noMemory) to.room = std::max(to.room, std::bit_ceil(static_cast<U32>(to.queue.size()) + 1));
    to.rxDrops += full;
    from.txErrors += noMemory;
    if (noMemory) from.txErrno = ENOMEM;
    if (full || noMemory) ++from.writable;
    return !full && !noMemory;
  }
  /// The part of a send that follows `peekPkt`.
  void settle(Deed& deed) {
    if (!std::exchange(deed.open, false)) return;
    End& from = *deed.from;
    if (!linked) {
      ++from.txErrors;
      from.txErrno = ENOTCONN;
    } else if (admits(from)) {
      other(from).queue.push_back(deed.frame);
      ++from.writable;
      deed.queued = true;
    }
  }

  void send(End& from) {
    if (!linked) return;
    Deed deed;
    deed.from = &from;
    deed.frame = {"ddddddssssss\x08", chance(30), nullptr, nullptr};
    deed.frame.text += std::to_string(++sent);
    std::string octets = deed.frame.text;
    if (deed.frame.tagged) octets.insert(12, kTag);
    deed.frame.pkt = pktOf(octets);
    if (chance(30)) deed.frame.holder = globalPktManager()->newShallowCopy(deed.frame.pkt);
    deed.open = admits(from);
    from.peeked += deed.open;
    act(deed, [&] {
      std::optional<AllocationRefusal> refusal;
      if (refused) refusal.emplace(1);
      from.pam->txPktIs(deed.frame.pkt);
    });
    settle(deed);
    if (deed.queued && from.pam->pamConnector()) scheduled();
    if (deed.thrown && !deeds.empty()) throw *deed.thrown;
  }
  /// Runs the action; the exception that leaves it must be the first that was thrown.
  template <typename Action>
  void act(Deed& deed, Action action) {
    deeds.push_back(&deed);
    std::optional<int> left;
    try {
      action();
    } catch (int name) {
      left = name;
    }
    deeds.pop_back();
    EXPECT_EQ(left, deed.thrown);
  }

  void pull(End& end) {
    if (end.queue.empty()) {
      EXPECT_EQ(end.pam->rxPkt(), nullptr);
      return;
    }
    const Frame frame = end.queue.front();
    const bool separate = frame.tagged && end.pam->pamConnector() && cable->separateVlanTagHdr();
    if (separate && frame.holder && AllocationRefusal::works && chance(20)) {
      const AllocationRefusal refusal(1);
      EXPECT_EQ(end.pam->rxPkt(), nullptr);
      return scheduled();
    }
    end.queue.pop_front();
    ++end.pulled;
    const Pkt::Ptr pkt = end.pam->rxPkt();
    ASSERT_TRUE(pkt);
    std::string octets = frame.text;
    if (frame.tagged) octets.insert(12, kTag);
    EXPECT_EQ(std::string(pkt->stringValue()), separate ? frame.text : octets);
    EXPECT_EQ(pkt->tciPresent(), separate);
    EXPECT_EQ(pkt->tciField(), separate ? 0x2007 : 0);
    EXPECT_EQ(pkt == frame.pkt, !separate || !frame.holder);
    EXPECT_TRUE(!frame.holder || frame.holder->stringValue() == octets);
  }

  void remove(End& end) {
    cable->pamDel(end.pam->name());
    linked = false;
    scheduledIfQueued();
  }

  void tick() {
    const U32 before = clock->expiredCount();
    const bool was = tickAt.has_value();
    const std::size_t first = ends[0].pam->pamConnector() ? ends[0].queue.size() : 0;
    Deed deed;
    tickAt.reset();
    act(deed, [&] { loop.runUntil([&] { return clock->expiredCount() != before; }, 0.002); });
    EXPECT_EQ(clock->expiredCount() - before, was);
    if (!was) return;
    EXPECT_EQ(deed.told[0] > 0, first > 0);
    for (int i = 0; i < 2; ++i) {
      if (deed.thrown || !ends[i].pam->pamConnector()) continue;
      EXPECT_EQ(deed.told[i], deed.toTell[i]);
    }
    if (deed.thrown) return scheduledIfQueued();
    EXPECT_TRUE(!ends[1].pam->pamConnector() || deed.told[1] > 0 || ends[1].queue.empty());
  }

  void check() {
    for (End& end : ends) {
      const PamConnectorPam& pam = *end.pam;
      EXPECT_EQ(pam.otherEnd(), linked ? other(end).pam.get() : nullptr);
      ASSERT_EQ(pam.inputQueueLength(), end.queue.size());
      const U32 next = end.pulled + static_cast<U32>(end.queue.size());
      EXPECT_EQ(pam.inputQueueMetadata(), (InputQueueMetadata{end.pulled, next}));
      for (U32 i = 0; i < end.queue.size(); ++i) EXPECT_EQ(pam.inputQueue(end.pulled + i), end.queue[i].pkt);
      EXPECT_EQ(pam.inputQueue(next), nullptr);
      EXPECT_EQ(pam.inputQueue(end.pulled - 1), nullptr);
      EXPECT_EQ(pam.peekPkt(), nullptr);
      EXPECT_THAT((std::vector<U32>{pam.readableCount(), pam.writableCount(), pam.rxDrops(), pam.txErrors(),
                                    pam.peekPktCount(), pam.txDrops()}),
                  ElementsAre(end.readable, end.writable, end.rxDrops, end.txErrors, end.peeked, 0u));
      EXPECT_EQ(pam.txErrno(), end.txErrno);
    }
    EXPECT_EQ(clock->timeMin(), tickAt.value_or(Kiv::timeInfinite));
  }

  End ends[2];
  bool linked = false, quiet = false, refused = false;
  std::optional<Kiv::Time> tickAt;
  std::vector<Deed*> deeds;
  std::mt19937 draw;
  int lastThrown = 0, sent = 0;
};

TEST_P(PamConnectorModelTest, DoesWhatTheModelDoes) {
  for (int step = 0; step < 3000 && !HasFailure(); ++step) {
    SCOPED_TRACE(testing::Message() << "step " << step);
    End& end = ends[lot(2)];
    quiet = chance(50);
    const auto what = lot(100);
    if (!linked && chance(10)) {
      renew();
    } else if (!linked && chance(20)) {
      cable->pamIs(end.pam);
      scheduledIfQueued();
    } else if (what < 5) {
      maxBufferIs(end);
    } else if (what < 10) {
      cable->separateVlanTagHdrIs(chance(50));
    } else if (what < 15) {
      if (!tickAt || *tickAt > loop.now() + 100us) loop.runFor(0.0001);
    } else if (what < 25) {
      tick();
    } else if (what < 45) {
      pull(end);
    } else {
      const End& to = other(end);
      refused = quiet && to.queue.size() >= to.room && AllocationRefusal::works && chance(50);
      send(end);
      refused = false;
    }
    check();
  }
}
INSTANTIATE_TEST_SUITE_P(Seeds, PamConnectorModelTest, testing::Range(1u, 9u));

TEST_F(PamConnectorTest, StartUpIsDoneOnceAndEndsOutliveTheConnectorWhoseTickIsFinished) {
  const auto pam0 = cable->pam("pam0");
  EXPECT_EQ(pam0->name(), "pam0");
  EXPECT_EQ(pam0->maxBuffer(), 1024u);
  cable->handleInitializedBase();
  EXPECT_EQ(cable->pam("pam0"), pam0);
  EXPECT_EQ(pam0->writableCount(), 1u);
  // A tick finishes although the connector is dropped, but tells an end nothing more that is removed.
  for (const bool removed : {true, false}) {
    cable = PamConnectorIs(clock);
    cable->handleInitializedBase();
    const auto end = cable->pam("pam1");
    for (int i = 0; i < 3; ++i) cable->pam("pam0")->txPktIs(pktOf("x"));
    const Kiv::Reactor drop(end->readableCount, [&] {
      if (removed) cable->pamDel("pam1");
      cable = nullptr;
    });
    loop.runFor(0.001);
    EXPECT_EQ(end->readableCount(), removed ? 1u : 3u);
    EXPECT_EQ(end->pamConnector(), nullptr);
    EXPECT_EQ(end->otherEnd(), nullptr);
  }
}

TEST_F(PamConnectorTest, BeforeStartUpNothingIsToldOrScheduled) {
  const auto pam0 = cable->pam("pam0"), pam1 = cable->pam("pam1");
  for (int i = 0; i < 3; ++i) pam0->txPktIs(pktOf("x"));
  cable->pamDel("pam1");
  const auto fresh = PamConnectorIs(clock);
  fresh->pamIs(pam1);
  pam1->rxBudgetIs(1);
  EXPECT_EQ(pam1->rxPkt()->stringValue(), "x");
  EXPECT_EQ(pam1->rxPkt(), nullptr);
  clock->timeMinIs(loop.now());
  loop.runFor(0.001);
  EXPECT_EQ(pam1->readableCount(), 0u);
  EXPECT_EQ(clock->timeMin(), Kiv::timeInfinite);
  fresh->pamIs(Kiv::makePtr<PamConnectorPam>("pam1", nullptr));  // replaces it
  EXPECT_EQ(pam1->pamConnector(), nullptr);
}

TEST_F(PamConnectorTest, APullThatHasSpentItsBudgetGoesOnAtTheNextTick) {
  const auto pam0 = cable->pam("pam0"), pam1 = cable->pam("pam1");
  for (U32 i = 0; i <= pam1->maxBuffer(); ++i) pam0->txPktIs(pktOf("x"));
  while (pam1->rxPkt()) {
  }
  EXPECT_EQ(pam1->inputQueueLength(), 0u);  // as it is at first, it suffices for a full queue
  loop.runFor(0.001);
  pam1->rxBudgetIs(2);
  int got = 0;
  const Kiv::Reactor answer(pam1->readableCount, [&] {  // each packet pulled is followed by another one
    for (; pam1->rxPkt(); ++got) pam0->txPktIs(pktOf("x"));
  });
  pam0->txPktIs(pktOf("x"));
  for (int tick = 1; tick < 5; ++tick) {
    loop.runFor(0.001);
    EXPECT_EQ(got, 2 * tick);
  }
  // A pull that finds the queue empty ends, too: the next one has the whole budget.
  const auto fresh = PamConnectorIs(clock);
  fresh->handleInitializedBase();
  const auto end = fresh->pam("pam1");
  end->rxBudgetIs(2);
  for (const int packets : {1, 2}) {
    for (int i = 0; i < packets; ++i) fresh->pam("pam0")->txPktIs(pktOf("x"));
    for (int i = 0; i < packets; ++i) EXPECT_NE(end->rxPkt(), nullptr);
    EXPECT_EQ(end->rxPkt(), nullptr);
  }
}

TEST_F(PamConnectorTest, TracesItsRoad) {
  TraceCapture traces("PamConnector/0-9");
  const auto other = PamConnectorIs(clock);
  other->handleInitializedBase();
  cable->pam("pam1")->maxBufferIs(0);
  for (const char* text : {"a", "b"}) cable->pam("pam0")->txPktIs(pktOf(text));
  cable->handleClock();
  EXPECT_THAT(
      traces.lines(),
      ElementsAre("PamConnector/2:void Wirl::PamConnector::handleInitializedBase()",
                  "PamConnector/2:PamConnector: enqueue, total packets: 1", "PamConnector/2:Dropping packet",
                  "PamConnector/2:PamConnector: handleClock pam0, total packets: 0",
                  "PamConnector/2:PamConnector: handleClock pam1, total packets: 1",
                  "PamConnector/2:PamConnector: handleClock pam1, remaining packets: 1"));
}

/// Random keys and packets, against a search through all clients.
TEST_F(PamConnectorTest, ADemuxGivesAPacketToTheFirstClientWhoseKeyOrFunctionMatches) {
  const auto demux = pamDemuxFactory("demux", cable->pam("pam1"), PamDemux::Layer::frame);
  std::mt19937 draw(1);
  const auto lot = [&](U32 below) { return static_cast<U32>(draw() % below); };
  struct Client {
    PamKey key;
    int letter;  // of the payload, or -1: by key
    Kiv::Ptr<PamMuxPam> pam;
  };
  std::vector<Client> clients;
  const auto address = [&](bool v6) {
    return v6 ? IpGenAddr(Ip6Addr(0xff02ull << 48, lot(3)))
              : IpGenAddr(IpAddr(224, 0, 0, static_cast<U8>(lot(3))));
  };
  U64 unmatched = 0, matched = 0;
  for (int step = 0; step < 3000; ++step) {
    if (clients.size() < 200 && lot(3) == 0) {
      Client client{{}, lot(8) == 0 ? static_cast<int>('a' + lot(4)) : -1, nullptr};
      if (client.letter >= 0) {
        const auto letter = static_cast<U8>(client.letter);
        client.pam = demux->clientIs(
            "client", [letter](const Pkt::Ptr& pkt) { return pkt->rawByte(pkt->bytes() - 1) == letter; });
      } else {
        if (lot(2) == 0) client.key.ethType = lot(2) == 0 ? 0x0800 : 0x86dd;
        if (lot(2) == 0) client.key.protocol = lot(2) == 0 ? U8{17} : static_cast<U8>(89 + lot(8));
        if (lot(2) == 0) client.key.port = static_cast<U16>(lot(5));
        if (lot(2) == 0 || client.key == PamKey()) client.key.group = address(lot(2) == 0);
        client.pam = demux->clientIs("client", client.key);
      }
      clients.push_back(client);
    } else if (clients.size() > 20 && lot(2) == 0) {
      clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(lot(static_cast<U32>(clients.size()))));
    }
    const bool v6 = lot(2) == 0;
    const IpGenAddr group = address(v6);
    const U8 protocol = lot(2) == 0 ? U8{17} : static_cast<U8>(89 + lot(8));
    const bool fragment = lot(8) == 0, extended = v6 && lot(2) == 0;
    const U16 port = static_cast<U16>(lot(5));
    const char letter = static_cast<char>('a' + lot(26));
    std::string header(v6 ? 40 : 20, '\0');
    header[0] = v6 ? 0x60 : 0x45;
    header[v6 ? 6 : 9] = static_cast<char>(protocol);
    group.copyToBuffer(reinterpret_cast<unsigned char*>(&header[v6 ? 24 : 16]));
    if (fragment && !v6) header[7] = 1;
    if (extended) header[6] = 0, header += std::string{static_cast<char>(protocol), 0, 1, 4, 0, 0, 0, 0};
    if (fragment && v6) {
      header[extended ? 40 : 6] = 44;
      header += std::string{static_cast<char>(protocol), 0, 0, 8, 0, 0, 0, 0};
    }
    const std::string tag = lot(2) == 0 ? std::string("\x81\0\0\x05", 4) : "";
    const std::string frame = "ddddddssssss" + tag + std::string(v6 ? "\x86\xdd" : "\x08\0", 2) + header +
                              std::string("\0\x63\0", 3) + static_cast<char>(port) + std::string(8, letter);
    PamKey key{v6 ? U16{0x86dd} : U16{0x0800}, protocol, std::nullopt, group};
    if (protocol == 17 && !fragment) key.port = port;
    ASSERT_EQ(PamDemux::keyOf(*pktOf(frame), PamDemux::Layer::frame), key);
    const auto wanted = std::find_if(clients.begin(), clients.end(), [&](const Client& each) {
      const auto fits = [](const auto& asked, const auto& has) { return !asked || asked == has; };
      if (each.letter >= 0) return each.letter == letter;
      return fits(each.key.ethType, key.ethType) && fits(each.key.protocol, key.protocol) &&
             fits(each.key.port, key.port) && fits(each.key.group, key.group);
    });
    cable->pam("pam0")->txPktIs(pktOf(frame));
    loop.runFor(0.002);
    wanted == clients.end() ? ++unmatched : ++matched;
    ASSERT_EQ(demux->rxUnmatched(), unmatched);
    for (const Client& each : clients) {
      const Pkt::Ptr got = each.pam->rxPkt();
      ASSERT_EQ(got != nullptr, wanted != clients.end() && &each == &*wanted);
    }
  }
  EXPECT_GT(matched, 500u);
  EXPECT_GT(unmatched, 100u);
  // Whoever sends while all are told that they may is told again.
  const auto eager = demux->clientIs("eager");
  U32 told = 0;
  const Kiv::Reactor onWritable(eager->writableCount, [&] {
    if (++told < 4) eager->txPktIs(pktOf("more"));
  });
  cable->pam("pam1")->writableCountInc(1);
  EXPECT_EQ(told, 4u);
  EXPECT_EQ(PamDemux::keyOf(*pktOf("short"), PamDemux::Layer::frame), PamKey());
  EXPECT_EQ(PamDemux::keyOf(*pktOf("\x45"), PamDemux::Layer::ip), PamKey());
}

TEST_F(PamConnectorTest, ProgrammingErrorsEndTheProcess) {
  const auto pam0 = cable->pam("pam0");
  EXPECT_DEATH(pam0->txPktIs(nullptr), "pkt != __null");
  EXPECT_DEATH(cable->pamIs(nullptr), "pam");
  EXPECT_DEATH(PamConnectorIs(clock)->pamIs(pam0), "pam->pamConnector\\(\\) == this");
  EXPECT_DEATH(PamConnectorIs(nullptr), "clock != 0");
  cable->pamDel("pam1");
  cable->pamDel("pam1");
  EXPECT_DEATH(pam0->txPktIs(pktOf("x")), "otherEnd\\(\\)");
  EXPECT_DEATH(PamConnectorIs(clock)->doScheduleEvent(), "initialized\\(\\)");
}

}  // namespace
}  // namespace Wirl
