// SPDX-License-Identifier: Apache-2.0
#include "tests/access/PamConformance.h"

#include <thread>

#include "Wirl/access/SocketPam.h"
#include "Wirl/access/deferClose.h"
#include "tests/support/FaultSweep.h"

using namespace Wirl;

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(PamConformanceTest);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(SocketPamConformanceTest);

Pkt::Ptr PamBackend::pktOf(const std::string& payload) const {
  const Pkt::Ptr pkt = globalPktManager()->newPkt(globalPktManager()->newSharedBuffer(1600));
  pkt->stringValueIs(payload);
  return pkt;
}

std::size_t settledDescriptors() {
  while (deferCloseStats()->enqueued != deferCloseStats()->closed) usleep(100);
  return openDescriptors();
}

void PamConformanceTest::SetUp() {
  NetNsTest::SetUp();
  if (IsSkipped() || HasFailure()) return;
  ns = std::make_unique<NetNs>("lo");
  renew();
}

void PamConformanceTest::renew() {
  backend = nullptr;
  backend = GetParam().make(NamespaceName(ns->name()));
}

void PamConformanceTest::open() {
  backend->openIs(*backend->to, true);
  backend->openIs(*backend->from, true);
}

std::string PamConformanceTest::receive(double seconds) {
  Pkt::Ptr pkt;
  Kiv::activityLoop().runUntil([&] { return (pkt = backend->pull(*backend->to)) != nullptr; }, seconds);
  return pkt ? backend->payloadOf(*pkt) : "nothing";
}

bool PamConformanceTest::exchanges() {
  for (int i = 0; i < 100; ++i) {
    send("works");
    if (receive(0.1) == "works") return true;
  }
  return false;
}

// What every Pam promises ----------------------------------------------------------------------------------

TEST_P(PamConformanceTest, ClientsPullWhatWasSentWholeInOrderAndOnce) {
  open();
  Pam& to = *backend->to;
  EXPECT_EQ(backend->pull(to), nullptr);
  const U32 before = to.readableCount();
  std::vector<std::string> wanted, got;
  for (const std::size_t size : {30u, 100u, 1400u}) {
    for (U32 ahead : {0u, 1u, 20u}) {  // in a second piece, in front
      if (!backend->gathers()) ahead = 0;
      std::string text(size, 'x');
      for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7 + ahead);
      const Pkt::Ptr whole = backend->pktOf(text);
      const std::string octets = whole->stringValue();
      const Pkt::Ptr pkt = backend->PamBackend::pktOf(octets.substr(ahead));
      if (ahead > 0) pkt->newPrivateHeadData(ahead);
      for (U32 i = 0; i < ahead; ++i) pkt->rawByteIs(i, static_cast<U8>(octets[i]));
      backend->from->txPktIs(pkt);
      EXPECT_EQ(std::string(pkt->stringValue()), octets);  // the client's as before
      wanted.push_back(text);
    }
  }
  // It tells; pulling is up to the client.
  EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return to.readableCount() > before; }, 5));
  const auto drain = [&] {
    while (const Pkt::Ptr pkt = backend->pull(to)) got.push_back(backend->payloadOf(*pkt));
  };
  drain();
  const Kiv::Reactor client(to.readableCount, drain);
  Kiv::activityLoop().runUntil([&] { return got.size() >= wanted.size(); }, 5);
  EXPECT_TRUE(got == wanted);
  // Then the loop is at rest.
  Kiv::activityLoop().runFor(0.01);
  const U32 events = to.readableCount();
  Kiv::activityLoop().runFor(0.01);
  EXPECT_EQ(to.readableCount(), events);
  EXPECT_EQ(got.size(), wanted.size());
}

TEST_P(PamConformanceTest, ReactorsMayCloseReopenDropThePamOrThrowAtAnyPoint) {
  enum class Deed { close, reopen, drop, fail };
  const std::size_t count = watches().size();
  backend = nullptr;
  const std::size_t none = settledDescriptors();
  for (const Deed deed : {Deed::close, Deed::reopen, Deed::drop, Deed::fail}) {
    for (std::size_t watch = 0; watch < count; ++watch) {
      for (const bool opening : {true, false}) {
        SCOPED_TRACE(testing::Message() << "deed " << static_cast<int>(deed) << " attribute " << watch
                                        << " opening " << opening);
        renew();
        backend->openIs(backend->receives() ? *backend->from : *backend->to, true);
        const std::size_t before = settledDescriptors();
        Kiv::Ptr<Pam>& pam = backend->subject();
        if (!opening) {
          backend->openIs(*pam, true);
          backend->askForWritable(*pam);
        }
        bool struck = false;
        Kiv::Reactor reactor = watches()[watch]([&] {
          if (std::exchange(struck, true)) return;
          if (deed == Deed::fail) throw std::runtime_error("client");
          if (deed == Deed::drop) {
            backend->drop(pam);
            return;
          }
          backend->openIs(*pam, false);
          if (deed == Deed::reopen) backend->openIs(*pam, true);
        });
        // Opens, receives, fails to receive, fails to send, closes.
        for (int step = 0; step < 5 && pam && !struck; ++step) {
          try {
            if (step == 0) backend->openIs(*pam, true);
            if (step == 1) {
              const U32 counted = pam->readableCount();
              const auto told = [&] { return struck || pam->readableCount() > counted; };
              send("x");
              if (opening && pam) backend->askForWritable(*pam);
              Kiv::activityLoop().poll();
              if (backend->receives()) Kiv::activityLoop().runUntil(told, 5);
              while (pam && backend->pull(*pam)) {
              }
            }
            const Fault noReceive(backend->receiveCall(), 1, ENOMEM);
            const Fault noSend(backend->sendCall(), 1, ENOBUFS);
            if (step == 2) backend->pull(*pam);
            if (step == 3) pam->txPktIs(backend->pktOf("x"));
            if (step == 4) backend->openIs(*pam, false);
          } catch (const std::runtime_error&) {
            EXPECT_EQ(deed, Deed::fail);
          }
        }
        reactor = {};
        EXPECT_TRUE(struck || !opening);
        EXPECT_EQ(pam == nullptr, struck && deed == Deed::drop);
        if (pam) {
          EXPECT_TRUE(backend->isWhole(*pam));
          backend->openIs(*pam, false);
          EXPECT_EQ(settledDescriptors(), before);
          open();
          EXPECT_TRUE(exchanges());
        }
        backend = nullptr;
        EXPECT_EQ(settledDescriptors(), none);
      }
    }
  }
}

TEST_P(PamConformanceTest, PacketsThatAreQueuedGoWithThePamAndNobodyIsTold) {
  backend = nullptr;
  const std::size_t before = settledDescriptors();
  renew();
  open();
  std::vector<Pkt::Ptr> sent;
  for (int i = 0; i < 10; ++i) {
    sent.push_back(backend->pktOf("waits"));
    backend->from->txPktIs(sent.back());
  }
  std::vector<Kiv::Reactor> reactors;
  for (const auto& watch : backend->attributes(*backend->subject())) {
    reactors.push_back(watch([] { ADD_FAILURE() << "told of its end"; }));
  }
  const std::function<void()> lateEvent = backend->lateEvent(*backend->subject());
  backend->drop(backend->to);
  backend->drop(backend->from);
  for (const Pkt::Ptr& pkt : sent) EXPECT_EQ(pkt->references(), 1u);
  EXPECT_EQ(settledDescriptors(), before);
  lateEvent();
  Kiv::activityLoop().runFor(0.01);
  renew();
  open();
  EXPECT_TRUE(exchanges());
}

TEST_P(PamConformanceTest, AFloodFasterThanTheReaderLosesWhatIsCountedAndNothingElse) {
  open();
  if (!backend->loses()) return;
  backend->roomIsSmall();
  Pam& to = *backend->to;
  U32 sent = 0, got = 0;
  for (; sent < 500; ++sent) send("flood");
  Kiv::activityLoop().runUntil(
      [&] {
        while (backend->pull(to)) ++got;
        return got + to.rxDrops() >= sent;
      },
      5);
  EXPECT_GT(got, 0u);
  EXPECT_LT(got, sent);
  EXPECT_EQ(to.rxDrops() + got, sent);
  EXPECT_EQ(to.rxDrops() + got, sent);  // reading it loses nothing
  // Losses that nobody has read yet are counted when it closes.
  for (int i = 0; i < 200; ++i) send("flood");
  Kiv::activityLoop().runFor(0.02);
  backend->openIs(to, false);
  EXPECT_GT(to.rxDrops() + got, sent);
  backend->openIs(to, true);
  while (backend->pull(to)) {
  }
  to.rxDropsIs(7);
  EXPECT_EQ(to.rxDrops(), 7u);
  EXPECT_EQ(backend->from->txErrors() + backend->from->txDrops(), 0u);
  EXPECT_TRUE(exchanges());
  const Fault unknown(Call::getsockopt, 1, ENOMEM);
  EXPECT_EQ(to.rxDrops(), 7u);
}

TEST_P(PamConformanceTest, SteadyStateAllocatesNothing) {
  Pkt::Manager::cacheLimitIs(1024);  // under AddressSanitizer nothing is kept unless asked for
  open();
  struct {
    U32 got = 0, wanted = 0;
  } count;
  const Kiv::Reactor drain(backend->to->readableCount, [&] {
    while (backend->pull(*backend->to)) ++count.got;
  });
  const Pkt::Manager& manager = *globalPktManager();
  const Pkt::Ptr pkt = backend->pktOf("steady");
  const std::string octets = pkt->stringValue();
  const std::function<bool()> done = [&count] { return count.got >= count.wanted; };
  const auto round = [&](U32 packets) {
    count.wanted = count.got + packets;
    while (packets-- > 0) {  // every second one shares its bytes
      const Pkt::Ptr sending = packets % 2 == 0 ? manager.newShallowCopy(pkt) : manager.newPkt();
      if (packets % 2 != 0) sending->stringValueIs(octets);
      backend->from->txPktIs(sending);
    }
    ASSERT_TRUE(Kiv::activityLoop().runUntil(done, 5));
  };
  for (int i = 0; i < 10; ++i) round(7);
  const AllocationCounter allocations;
  for (U32 i = 0; i < 500; ++i) round(1 + i % 7);
  EXPECT_EQ(allocations.allocations(), 0u);
}

/// Opened, used, closed and opened again.
class Use {
 public:
  explicit Use(std::function<std::unique_ptr<PamBackend>()> make) : make_(std::move(make)) {}

  void run() {
    backend_ = make_();
    Pam& pam = *backend_->subject();
    for (int round = 0; round < 2; ++round) {
      backend_->openIs(*backend_->to, true);
      backend_->openIs(*backend_->from, true);
      for (int i = 0; i < 2 && backend_->takesNow(*backend_->from); ++i) {
        backend_->from->txPktIs(backend_->pktOf("packet"));
      }
      backend_->askForWritable(pam);
      for (int i = 0; i < 3; ++i) {
        Kiv::activityLoop().poll();
        if (Kiv::activityLoop().simulatedTime()) Kiv::activityLoop().runFor(0.001);
        pulled();
      }
      if (round == 0) backend_->changeOption(pam);
      backend_->openIs(pam, false);
    }
  }
  bool usable() {
    if (!backend_ || !backend_->loses()) backend_ = make_();  // the end of a stream is the end
    for (const bool open : {false, true}) {
      backend_->openIs(*backend_->to, open);
      backend_->openIs(*backend_->from, open);
    }
    for (int i = 0; i < 3; ++i) {
      backend_->from->txPktIs(backend_->pktOf("works"));
      if (Kiv::activityLoop().runUntil([this] { return pulled() == "works"; }, 1)) return true;
    }
    return false;
  }

 private:
  /// The last packet that there is.
  std::string pulled() {
    std::string last;
    while (const Pkt::Ptr pkt = backend_->pull(*backend_->to)) last = backend_->payloadOf(*pkt);
    return last;
  }

  const std::function<std::unique_ptr<PamBackend>()> make_;
  std::unique_ptr<PamBackend> backend_;
};

TEST_P(PamConformanceTest, SurvivesAFailureAtAnyPoint) {
  backend = nullptr;
  const auto make = [this] { return GetParam().make(NamespaceName(ns->name())); };
  sweep(GetParam().name, [&] { return scenarioOf(std::make_shared<Use>(make)); });
}

TEST_P(PamConformanceTest, TwoThreadsEachHaveTheirLoop) {
  backend = nullptr;
  const NetNs other("other");
  const std::size_t before = settledDescriptors();
  const auto work = [](const NetNs& where) {
    for (int round = 0; round < 5; ++round) {
      Use use([&] { return GetParam().make(NamespaceName(where.name())); });
      use.run();
      EXPECT_TRUE(use.usable());
    }
  };
  std::thread first(work, std::cref(*ns)), second(work, std::cref(other));
  first.join();
  second.join();
  EXPECT_EQ(settledDescriptors(), before);
}

TEST_P(PamConformanceTest, ProgrammingErrorsEndTheProcess) {
  Pam& pam = *backend->subject();
  if (const char* const text = backend->deathOfClosedSend()) {
    EXPECT_DEATH(pam.txPktIs(backend->pktOf("x")), text);
  }
  open();
  EXPECT_DEATH(pam.txPktIs(nullptr), "pkt");
  if (!backend->hasBulk()) {
    EXPECT_DEATH(pam.rxPktBulk(), "Need to implement doGetBulkRxPkt in a derived class");
  }
}

// What those promise that own a socket ---------------------------------------------------------------------

TEST_P(SocketPamConformanceTest, OpeningCountsBothOnceAndClosingNothing) {
  Pam& pam = *backend->subject();
  const std::size_t before = settledDescriptors();
  std::string log;
  const Kiv::Reactor onReadable(pam.readableCount, [&] { log += backend->isOpen(pam) ? "R" : "r"; });
  const Kiv::Reactor onWritable(pam.writableCount, [&] { log += backend->isOpen(pam) ? "W" : "w"; });
  for (U32 times = 1; times <= 3; ++times) {
    EXPECT_EQ(backend->pull(pam), nullptr);
    if (!backend->deathOfClosedSend()) {
      pam.txPktIs(backend->pktOf("x"));
      EXPECT_EQ(pam.txErrno(), EBADF);
      EXPECT_EQ(pam.txErrors(), times);
    }
    EXPECT_EQ(pam.rxErrors(), 0u);
    backend->openIs(pam, true);
    backend->openIs(pam, true);
    EXPECT_EQ(log, "RW");
    EXPECT_EQ(pam.readableCount(), times);
    EXPECT_EQ(pam.writableCount(), times);
    EXPECT_EQ(settledDescriptors(), before + 1);
    log.clear();
    const Fault fault(Call::close, 1, times == 2 ? EINTR : EIO);  // it is closed all the same
    backend->openIs(pam, false);
    backend->openIs(pam, false);
    EXPECT_EQ(settledDescriptors(), before);
    EXPECT_EQ(log, "");
  }
}

TEST_P(SocketPamConformanceTest, EveryFailedStepOfOpeningThrowsItsTextAndIsUndone) {
  auto& pam = dynamic_cast<SocketPam&>(*backend->subject());
  const auto steps = backend->steps(pam);
  const std::size_t before = settledDescriptors();
  for (const Call call : {Call::socket, Call::setsockopt, Call::bind, Call::ioctl}) {
    const Fault count(call);
    backend->openIs(pam, true);
    backend->openIs(pam, false);
    const auto same = [call](const PamBackend::Step& step) { return step.call == call; };
    EXPECT_EQ(count.calls(), static_cast<unsigned>(std::count_if(steps.begin(), steps.end(), same)));
  }
  const U32 counted = pam.readableCount();
  Call last = Call::close;
  for (unsigned nth = 1; const PamBackend::Step& step : steps) {
    nth = std::exchange(last, step.call) == step.call ? nth + 1 : 1;
    const Fault fault(step.call, nth, ENOMEM);
    const Kiv::Reactor told(pam.fileDesc, [] { throw std::runtime_error("client"); });
    try {
      backend->openIs(pam, true);
      ADD_FAILURE() << "opened, without " << step.text;
    } catch (const Kiv::ErrnoException& failure) {
      EXPECT_EQ(failure.message(), step.text);
      EXPECT_EQ(failure.error(), ENOMEM);
      EXPECT_THAT(failure.what(), testing::EndsWith(" in " + ns->name() + ")"));
    }
    EXPECT_FALSE(backend->isOpen(pam));
    EXPECT_EQ(settledDescriptors(), before);
    EXPECT_EQ(pam.readableCount(), counted);
  }
  open();
}

TEST_P(SocketPamConformanceTest, FailedSendsAndReceivesAreCountedAndNothingElse) {
  open();
  Pam& from = *backend->from;
  Pam& to = *backend->to;
  U32 drops = 0, errors = 0, failures = 0;
  for (const int error : {EAGAIN, ECONNREFUSED, ENOBUFS}) {
    SCOPED_TRACE(error);
    const std::uint64_t counted = backend->sent(from);
    const Pkt::Ptr pkt = backend->pktOf("lost");
    {
      const Fault fault(Call::sendmsg, 1, error);
      from.txPktIs(pkt);
    }
    const auto loss = backend->lossOf(error);
    EXPECT_EQ(from.txErrno(), error);
    EXPECT_EQ(from.txDrops(), drops += loss == PamBackend::Loss::drop);
    EXPECT_EQ(from.txErrors(), errors += loss == PamBackend::Loss::error);
    EXPECT_EQ(dynamic_cast<SocketPam&>(from).txFailures(), ++failures);
    EXPECT_EQ(backend->sent(from), counted + (loss == PamBackend::Loss::sent));
    EXPECT_EQ(pkt->references(), 1u);  // neither queued nor retried
    send("kept");
    Kiv::activityLoop().poll();
    const U32 failed = to.rxErrors();
    Pkt::Ptr kept;
    {
      const Fault fault(backend->receiveCall(), 1, error);
      kept = backend->pull(to);
    }
    EXPECT_TRUE((!kept && !to.savedPacketRx(0)) || !backend->callsToReceive());
    EXPECT_EQ(to.rxErrors(), failed + (backend->countsFailedReceive(error) ? 1 : 0));
    EXPECT_EQ(kept ? backend->payloadOf(*kept) : receive(), "kept");  // a failure loses nothing
  }
}

TEST_P(SocketPamConformanceTest, NeitherAReactorThatThrowsNorALackOfMemoryCostsAPacket) {
  if (!backend->receives()) return;
  open();
  Pam& pam = *backend->to;
  unsigned thrown = 0;
  for (const auto& watch : backend->attributes(pam)) {
    send("kept");
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return pam.readableCount() > 0; }, 5));
    const unsigned before = thrown;
    std::string got;
    for (int i = 0; i < 100 && got.empty(); ++i) {
      const Kiv::Reactor failing = watch([&] {
        ++thrown;
        throw std::runtime_error("client");
      });
      try {
        if (const Pkt::Ptr pkt = backend->pull(pam)) got = backend->payloadOf(*pkt);
        if (thrown == before) Kiv::activityLoop().runFor(0.0005);
      } catch (const std::runtime_error&) {
      }
    }
    EXPECT_EQ(got, "kept");
    EXPECT_EQ(receive(0), "nothing");
  }
  EXPECT_GT(thrown, 0u);
  const TraceCapture traces("*/0-9");  // traces take memory, too
  for (std::uint64_t nth = 1, refused = 1; refused > 0; ++nth) {
    send("kept");
    Pkt::Ptr pkt;
    Kiv::activityLoop().poll();
    {
      const AllocationRefusal refusal(nth, 1, true);
      pkt = backend->pull(pam);
      refused = AllocationRefusal::refused();
    }
    EXPECT_EQ(pkt ? backend->payloadOf(*pkt) : receive(), "kept");
  }
}

TEST_P(SocketPamConformanceTest, AnEventHasABudgetAndTheNextPassOffersTheRest) {
  if (!backend->receives()) return;
  for (const bool edge : {false, true}) {
    renew();
    open();
    auto& to = dynamic_cast<SocketPam&>(*backend->to);
    to.fileDesc()->edgeTriggeredIs(edge);
    to.rxBudgetIs(4);
    Kiv::activityLoop().poll();
    for (int i = 0; i < 12; ++i) send("x");
    const Fault calls(backend->receiveCall());
    const Fault failing(backend->receiveCall(), 1, ENOBUFS);  // ends a pull, too
    unsigned got = 0, events = 0, passes = 0;
    const Kiv::Reactor pull(to.readableCount, [&] {
      ++events;
      for (unsigned most = got + 4; backend->pull(to);) EXPECT_LE(++got, most);
    });
    const Kiv::Ptr<Kiv::Clock> clock = Kiv::makePtr<Kiv::Clock>("other");
    const Kiv::Reactor tick(clock->expiredCount, [&] { passes = events; });
    clock->timeMinIs(Kiv::activityLoop().now());
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return got == 12; }, 5));
    EXPECT_LE(passes, 1u);  // the clock was not held up by more than one event
    EXPECT_GE(events, 3u);
    EXPECT_LT(calls.calls(), got + events);  // a spent budget asks the kernel nothing
    to.rxBudgetIs(0);
    EXPECT_TRUE(exchanges());
  }
}

TEST_P(SocketPamConformanceTest, APamThatNobodyPullsIsTracedOnce) {
  if (!backend->receives()) return;
  TraceCapture traces("Pam/0");
  for (const std::size_t stalls : {1u, 2u}) {
    open();
    send("waits");
    backend->openIs(*backend->from, false);  // it may receive, too
    const U32 before = backend->to->readableCount();
    Kiv::activityLoop().runUntil([&] { return backend->to->readableCount() > before + 2000; }, 5);
    EXPECT_EQ(traces.lines().size(), stalls);
    EXPECT_EQ(receive(), "waits");
  }
}

TEST_P(SocketPamConformanceTest, AnOptionThatIsRefusedWhileOpenCostsTheSocketAndNothingElse) {
  open();
  Pam& pam = *backend->subject();
  if (!backend->loses()) return;
  const std::size_t before = settledDescriptors();
  backend->roomIsSmall();
  for (int i = 0; i < 200; ++i) send("flood");
  Kiv::activityLoop().runFor(0.02);
  try {
    const Fault fault(Call::setsockopt, 1, ENOMEM);
    if (!backend->changeOption(pam)) return;  // has none
    ADD_FAILURE() << "no failure";
  } catch (const Kiv::ErrnoException& failure) {
    EXPECT_EQ(failure.error(), ENOMEM);
  }
  EXPECT_EQ(settledDescriptors(), before - 1);
  EXPECT_GT(pam.rxDrops(), 0u);
  EXPECT_EQ(backend->pull(pam), nullptr);
  pam.txPktIs(backend->pktOf("x"));
  EXPECT_EQ(pam.txErrno(), EBADF);
  backend->openIs(pam, false);
  open();
  EXPECT_TRUE(exchanges());
}

TEST_P(SocketPamConformanceTest, OptionsSurviveAReopeningAndARefusalChangesNothing) {
  auto& pam = dynamic_cast<SocketPam&>(*backend->subject());
  const auto valueOf = [&](const PamBackend::Option& option) {
    int value = 0;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(pam.fileDesc()->descriptor(), option.level, option.name, &value, &length), 0);
    return value;
  };
  const auto all = backend->options(pam);
  if (all.empty()) return;  // no socket
  backend->openIs(pam, true);
  const std::size_t before = settledDescriptors();
  for (const PamBackend::Option& option : all) {
    SCOPED_TRACE(option.name);
    const int former = valueOf(option);
    {
      const Fault fault(Call::setsockopt, 1, ENOMEM);
      EXPECT_THROW(option.set(), Kiv::ErrnoException);
    }
    EXPECT_EQ(settledDescriptors(), before);
    EXPECT_EQ(valueOf(option), former);
    option.set();
    EXPECT_EQ(valueOf(option), option.value);
    option.set();  // no change
  }
  for (int round = 0; round < 2; ++round) {
    backend->openIs(pam, false);
    backend->openIs(pam, true);
    for (const PamBackend::Option& option : all) EXPECT_EQ(valueOf(option), option.value) << option.name;
  }
  open();
  if (!backend->receives()) return;
  // The kernel begins to keep times a little later.
  for (int i = 0; i < 500 && pam.rxTimes().kernel == 0; ++i) {
    EXPECT_TRUE(exchanges());
    Kiv::activityLoop().runFor(0.01);
  }
  const U64 year = 365ull * 86400 * 1000000000;
  EXPECT_GT(pam.rxTimes().kernel, 50 * year);
  EXPECT_EQ(pam.rxTimes().hardware, 0u);
}
