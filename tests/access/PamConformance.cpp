// SPDX-License-Identifier: Apache-2.0
#include "tests/access/PamConformance.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

#include "Kiv/Kiv.h"
#include "Wirl/access/SocketPam.h"
#include "Wirl/access/deferClose.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/Descriptors.h"
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
        // Opened, told of room, received by, failed to receive by, failed to send by, closed.
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
              if (pam) backend->pull(*pam);
            }
            const Fault noReceive(backend->receiveCall(), 1, ENOMEM);
            const Fault noSend(Call::sendmsg, 1, ENOBUFS);
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
  const auto flood = [&] {
    for (int i = 0; i < 500; ++i, ++sent) send("flood");
    Kiv::activityLoop().runUntil(
        [&] {
          while (backend->pull(to)) ++got;
          return got + to.rxDrops() >= sent;
        },
        5);
  };
  flood();
  EXPECT_GT(got, 0u);
  EXPECT_LT(got, sent);
  EXPECT_EQ(to.rxDrops() + got, sent);
  EXPECT_EQ(to.rxDrops() + got, sent);  // reading it loses nothing
  // What was lost by the time that it is closed is counted then.
  for (int i = 0; i < 200; ++i) send("flood");
  Kiv::activityLoop().runFor(0.02);
  backend->openIs(to, false);
  EXPECT_GT(to.rxDrops() + got, sent);
  backend->openIs(to, true);
  while (backend->pull(to)) {
  }
  to.rxDropsIs(0);
  backend->roomIsSmall();
  sent = got = 0;
  flood();
  EXPECT_EQ(to.rxDrops() + got, sent);
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

TEST_P(SocketPamConformanceTest, EveryFailedCallOfOpeningIsToldAndUndone) {
  Pam& pam = *backend->subject();
  const std::size_t before = settledDescriptors();
  int failures = 0;
  for (const Call call : {Call::socket, Call::setsockopt, Call::bind, Call::ioctl, Call::fcntl,
                          Call::epoll_ctl, Call::open, Call::setns}) {
    unsigned calls = 0;
    {
      const Fault count(call);
      backend->openIs(pam, true);
      calls = call == Call::setns ? 1 : count.calls();  // without the way back there is no going on
    }
    backend->openIs(pam, false);
    const U32 counted = pam.readableCount();
    for (unsigned nth = 1; nth <= calls; ++nth) {
      for (const int error : {ENOMEM, EINVAL}) {
        SCOPED_TRACE(testing::Message()
                     << "call " << static_cast<int>(call) << " nth " << nth << " errno " << error);
        const Fault fault(call, nth, error);
        Kiv::Reactor told;  // of the failure, to which what it throws gives way
        if (const auto* socketPam = dynamic_cast<Wirl::SocketPam*>(&pam)) {
          told = Kiv::Reactor(socketPam->fileDesc, [socketPam] {
            if (!socketPam->fileDesc()) throw std::runtime_error("client");
          });
        }
        try {
          backend->openIs(pam, true);
          ADD_FAILURE() << "opened";
        } catch (const Kiv::ErrnoException& failure) {
          EXPECT_EQ(failure.error(), error);
        }
        EXPECT_FALSE(backend->isOpen(pam));
        EXPECT_EQ(settledDescriptors(), before);
        EXPECT_EQ(pam.readableCount(), counted);
        ++failures;
      }
    }
  }
  EXPECT_GT(failures, 10);
}

TEST_P(SocketPamConformanceTest, FailedSendsAndReceivesAreCountedAndNothingElse) {
  open();
  Pam& from = *backend->from;
  Pam& to = *backend->to;
  std::uint64_t counted = backend->sent(from);
  U32 drops = 0, errors = 0, sent = 0, got = 0;
  const auto arrived = [&] {
    while (backend->pull(to)) ++got;
    return got == sent;
  };
  // The calls in front of the one that fails do their work.
  for (const unsigned nth : {1u, 2u, 5u}) {
    for (const int error :
         {EACCES,       EADDRNOTAVAIL, EAFNOSUPPORT, EAGAIN,       EALREADY, EBADF,  ECONNREFUSED, ECONNRESET,
          EDESTADDRREQ, EFAULT,        EHOSTDOWN,    EHOSTUNREACH, EINTR,    EINVAL, EIO,          EISCONN,
          EMSGSIZE,     ENETDOWN,      ENETUNREACH,  ENOBUFS,      ENODEV,   ENOMEM, ENOPROTOOPT,  ENOTCONN,
          ENOTSOCK,     ENXIO,         EOPNOTSUPP,   EPERM,        EPIPE,    EPROTO, ETIMEDOUT}) {
      SCOPED_TRACE(testing::Message() << "send " << nth << " errno " << error);
      const Pkt::Ptr pkt = backend->pktOf("lost");
      const Fault fault(Call::sendmsg, nth, error);
      for (unsigned call = 1; call < nth; ++call, ++sent, ++counted) send("kept");
      from.txPktIs(pkt);
      drops += backend->lossOf(error) == PamBackend::Loss::drop;
      errors += backend->lossOf(error) == PamBackend::Loss::error;
      counted += backend->lossOf(error) == PamBackend::Loss::sent;
      EXPECT_EQ(from.txErrno(), error);
      EXPECT_EQ(from.txDrops(), drops);
      EXPECT_EQ(from.txErrors(), errors);
      EXPECT_EQ(backend->sent(from), counted);
      EXPECT_EQ(pkt->references(), 1u);  // neither queued nor tried again
      EXPECT_TRUE(Kiv::activityLoop().runUntil(arrived, 5));
    }
    for (const int error : {EAGAIN,   EBADF,    ECONNREFUSED, ECONNRESET, EFAULT,      EHOSTUNREACH, EINTR,
                            EINVAL,   EIO,      EMSGSIZE,     ENETDOWN,   ENETUNREACH, ENOBUFS,      ENOMEM,
                            ENOTCONN, ENOTSOCK, EOPNOTSUPP,   EPERM,      EPROTO,      ETIMEDOUT}) {
      SCOPED_TRACE(testing::Message() << "receive " << nth << " errno " << error);
      const Fault fault(backend->receiveCall(), nth, error);
      while (fault.calls() < nth) {
        send("kept");
        ++sent;
        ++counted;
        const U32 failures = to.rxErrors();
        const bool pulled = backend->pull(to) != nullptr;
        got += pulled;
        if (fault.calls() < nth) continue;
        EXPECT_FALSE(pulled || to.savedPacketRx(0));
        EXPECT_EQ(to.rxErrors(), failures + (backend->countsFailedReceive(error) ? 1 : 0));
      }
      EXPECT_TRUE(Kiv::activityLoop().runUntil(arrived, 5));  // a failure loses nothing
    }
  }
  EXPECT_TRUE(backend->isOpen(from) && backend->isOpen(to));
}

TEST_P(SocketPamConformanceTest, AnOptionThatIsRefusedWhileOpenCostsTheSocketAndNothingElse) {
  open();
  Pam& pam = *backend->subject();
  const std::size_t before = settledDescriptors();
  backend->roomIsSmall();
  for (int i = 0; i < 200; ++i) send("flood");
  EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return backend->to->rxDrops() > 100; }, 5));
  const U32 drops = backend->to->rxDrops();
  for (int i = 0; i < 200; ++i) send("flood");
  Kiv::activityLoop().runFor(0.05);
  try {
    const Fault fault(Call::setsockopt, 1, ENOMEM);
    if (!backend->changeOption(pam)) return;  // has none
    ADD_FAILURE() << "no failure";
  } catch (const Kiv::ErrnoException& failure) {
    EXPECT_EQ(failure.error(), ENOMEM);
  }
  EXPECT_EQ(settledDescriptors(), before - 1);
  EXPECT_GT(pam.rxDrops(), drops);
  EXPECT_EQ(backend->pull(pam), nullptr);
  pam.txPktIs(backend->pktOf("x"));
  EXPECT_EQ(pam.txErrno(), EBADF);
  backend->openIs(pam, false);
  open();
  EXPECT_TRUE(exchanges());
}

TEST_P(SocketPamConformanceTest, InterfaceAndNamespaceMayGoAndComeBack) {
  open();
  EXPECT_TRUE(exchanges());
  ns->ip("link set lo down");
  send("into the void");
  EXPECT_EQ(receive(0.02), "nothing");
  ns->ip("link set lo up");
  EXPECT_TRUE(exchanges());

  ns->del();  // its name; what is open stays
  EXPECT_TRUE(exchanges());
  Pam& pam = *backend->subject();
  backend->openIs(pam, false);
  try {
    backend->openIs(pam, true);
    ADD_FAILURE() << "opened";
  } catch (const Kiv::ErrnoException& failure) {
    EXPECT_EQ(failure.error(), ENOENT);
  }
  EXPECT_FALSE(backend->isOpen(pam));
  backend->openIs(*backend->from, false);
  backend->openIs(*backend->to, false);
  ns = nullptr;
  ns = std::make_unique<NetNs>("lo");
  open();
  EXPECT_TRUE(exchanges());
}
