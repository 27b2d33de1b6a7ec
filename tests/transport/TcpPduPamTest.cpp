// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpPduPam.h"

#include <netinet/tcp.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "tests/transport/TcpPdus.h"

namespace Wirl {
namespace {

using testing::ElementsAre;

constexpr int kSmall = 4096;  // octets of a socket's buffer; the kernel makes more of it

class TcpPduPamTest : public testing::TestWithParam<Variation> {
 protected:
  const bool edge = GetParam().backend.edge;
  const bool ahead = GetParam().readAhead;
  const bool foreign = GetParam().backend.pollLoop;
  const U32 queue = GetParam().queue;
};
INSTANTIATE_TEST_SUITE_P(Variations, TcpPduPamTest, testing::ValuesIn(variations()),
                         testing::PrintToStringParamName());

// Receiving ------------------------------------------------------------------------------------------------

TEST_P(TcpPduPamTest, MakesTheSystemCallsItIsMeantTo) {
  for (const U32 budget : {0u, 10u}) {
    PamEnd end(GetParam());
    end.pam->rxBudgetIs(budget);
    std::string stream;
    for (int i = 0; i < 100; ++i) stream += pduOf(64);
    end.peerSends(stream);
    const Fault reads(Call::recv);
    end.open();
    const Fault watches(Call::epoll_ctl);
    ASSERT_TRUE(end.receives(100));
    end.loop.settle();
    // Header, rest, and at the end one that finds nothing; or all at once, and level-triggered no more than
    // that.
    if (!foreign || budget == 0) {
      EXPECT_EQ(reads.calls(), ahead ? edge + 1u : 200u + (edge || budget == 0));
    }
    EXPECT_EQ(watches.calls(), 0u);
    EXPECT_EQ(end.pam->readableCount(), budget == 0 || (foreign && ahead) ? 1u : 10u);
  }
}

TEST_P(TcpPduPamTest, AHeldPduWaitsForItsClientAndOneThatNeverComesIsTraced) {
  TraceCapture traces("TcpPduPam/0");
  PamEnd end(GetParam());
  end.drainIs(false);
  end.open();
  end.peerSends(pduOf(50) + pduOf(60));
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->readableCount() == 1; }));
  const U32 events = end.pam->socketReadableCount();
  for (U32 i = 1; i <= 1010; ++i) {
    if (edge) end.pam->handleSocketReadable();
    EXPECT_EQ(traces.lines().size(), edge && i >= 1000 ? 1u : 0u);
  }
  if (!edge) {
    EXPECT_DEATH(end.pam->handleSocketReadable(), "edgeTriggered\\(\\)");
    Kiv::activityLoop().simulatedTimeIs(true);  // there are no events to count
    Kiv::activityLoop().runFor(30);
    Kiv::activityLoop().simulatedTimeIs(false);
    EXPECT_EQ(traces.lines().size(), 1u);
  }
  end.peerSends(pduOf(70));
  end.loop.settle();
  EXPECT_LE(end.pam->socketReadableCount(), events + (edge ? 1 : 0));
  EXPECT_EQ(end.pam->readableCount(), 1u);
  end.pull();  // outside of any event
  end.drainIs(true);
  EXPECT_TRUE(end.receives(3));
  EXPECT_FALSE(end.pam->readable());
}

// Sending --------------------------------------------------------------------------------------------------

TEST_P(TcpPduPamTest, AFailedSendGivesItsReasonAndTearsDown) {
  for (const bool gathered : {false, true}) {
    PamEnd end(GetParam());
    end.open();
    const auto send = [&] {
      std::string text = pduOf(50);
      const SocketIovec iov = {text.data(), text.size()};
      gathered ? end.pam->txIovIs(&iov, 1) : end.pam->txPktIs(pktOf(text));
      end.pam->txFlush();
    };
    // A reset by the peer: without special care the next write would raise a signal that kills.
    resetAtClose(end.peer());
    end.ends.second = nullptr;
    send();
    if (end.pam->txErrorReason().empty()) send();
    EXPECT_THAT(std::string(end.pam->txErrorReason()),
                testing::AnyOf("Broken pipe", "Connection reset by peer"));
    EXPECT_FALSE(end.pam->writable() || end.pam->initialized() || end.pam->fd());
    EXPECT_EQ(end.pam->txErrors(), 1u);
    EXPECT_NE(end.pam->txErrno(), 0);
    send();  // in the midst of a client's work: counted, not fatal
    EXPECT_EQ(end.pam->txErrors(), 2u);
    end.pam->enableModeIs(tcpEnableModeNone);
    end.pam->enableModeIs(tcpEnableModeReadWrite);
    EXPECT_FALSE(end.pam->writable());
  }
}

TEST_P(TcpPduPamTest, WhatAClientQueuesInAnEventGoesOutTogether) {
  PamEnd end(GetParam());
  end.pam->txQueueLimitIs(1000);
  end.onReadable = Kiv::Reactor(end.pam->readableCount, [&] {
    while (const Pkt::Ptr pdu = end.pam->rxPkt()) end.pam->txPktIs(pdu);
  });
  // A client that is told of the end lets go: what it has queued before is out by then.
  const Kiv::Reactor onEnd(end.pam->rxErrorReason, [&] { end.pam->cleanup(); });
  end.open();
  const Fault sends(Call::sendmsg);
  const std::string burst = pduOf(20) + pduOf(30) + pduOf(40) + pduOf(50);
  end.peerSends(burst);
  EXPECT_TRUE(end.peerReceives(burst.size()) == burst);
  EXPECT_EQ(sends.calls(), 1u);
  EXPECT_FALSE(end.pam->fd()->notifyOnWritable());
  std::string all;
  for (std::size_t i = 0; i < 200; ++i) {  // outside of an event: with the next pass, or by 64
    all += pduOf(20 + i);
    end.pam->txPktIs(pktOf(pduOf(20 + i)));
  }
  EXPECT_TRUE(end.peerReceives(all.size()) == all);
  EXPECT_EQ(sends.calls(), 1u + 4u);
  EXPECT_EQ(end.pam->writableCount(), 1u);
  end.peerSends(burst);
  shutdown(end.peer(), SHUT_WR);
  EXPECT_TRUE(end.peerReceives(burst.size()) == burst);
  EXPECT_TRUE(end.loop.runUntil([&] { return !end.pam->initialized(); }));
}

// Modes ----------------------------------------------------------------------------------------------------

TEST_P(TcpPduPamTest, EachRequestInEachModeIsAppliedNowOrBehindTheTransferInFlight) {
  constexpr TcpPduPamEnableMode kModes[] = {tcpEnableModeNone, tcpEnableModeReadWrite, tcpEnableModeReadOnly,
                                            tcpEnableModeWriteOnly};
  const auto reads = [](auto mode) {
    return mode == tcpEnableModeReadWrite || mode == tcpEnableModeReadOnly;
  };
  const auto writes = [](auto mode) {
    return mode == tcpEnableModeReadWrite || mode == tcpEnableModeWriteOnly;
  };
  for (int row = 0; row < 4 * 4 * 4 * 2; ++row) {
    const auto from = kModes[row & 3], to = kModes[row >> 2 & 3];
    const bool sending = row & 16, receiving = row & 32, withdrawn = row & 64;
    if (ahead && !queue) continue;  // as without
    SCOPED_TRACE(testing::Message() << from << " -> " << to << (sending ? " sending" : "")
                                    << (receiving ? " receiving" : "") << (withdrawn ? " withdrawn" : ""));
    PamEnd end(GetParam(), kSmall, kSmall);
    end.open();
    const std::string stream = pduOf(100) + pduOf(50);
    if (receiving) end.peerSends(stream.substr(0, 60));
    EXPECT_TRUE(end.loop.runUntil([&] { return !receiving || end.pam->rxRemainingLength() == 40; }));
    const std::string sent = sending ? end.fill() : "";
    end.pam->enableModeIs(tcpEnableModeNone);
    end.pam->enableModeIs(from);
    const bool waits = to == tcpEnableModeReadOnly    ? writes(from) && sending
                       : to == tcpEnableModeWriteOnly ? reads(from) && receiving
                                                      : false;
    if (withdrawn && !waits) continue;
    end.pam->enableModeIs(to);
    EXPECT_EQ(end.pam->enableMode(), waits ? from : to);
    EXPECT_EQ(end.pam->pendingEnableReadOnlyOrWriteOnlyMode(), waits ? to : tcpEnableModeNone);
    EXPECT_EQ(end.pam->enabled(), end.pam->enableMode() != tcpEnableModeNone);
    EXPECT_EQ(end.pam->fd()->notifyOnReadable(), reads(end.pam->enableMode()));
    // A packet in flight is finished in any mode; the queue waits for one that writes.
    EXPECT_EQ(end.pam->fd()->notifyOnWritable(), sending && (!queue || writes(end.pam->enableMode())));
    const bool stops = waits && to == tcpEnableModeReadOnly;
    EXPECT_EQ(end.pam->writable(), writes(end.pam->enableMode()) && !sending && !stops);
    if (withdrawn) end.pam->enableModeIs(from);
    const auto last = withdrawn ? from : to;
    EXPECT_EQ(end.pam->pendingEnableReadOnlyOrWriteOnlyMode(), waits && !withdrawn ? to : tcpEnableModeNone);
    // What is in flight comes to its end where the mode lets it.
    end.peerSends(receiving ? stream.substr(60) : stream);
    std::string arrived;
    const auto peerReads = [&] {
      char octets[65536];
      const ssize_t n = recv(end.peer(), octets, sizeof(octets), 0);
      if (n > 0) arrived.append(octets, static_cast<std::size_t>(n));
      return n > 0;
    };
    const std::size_t pdus = reads(last) ? 2 : waits && !withdrawn && to == tcpEnableModeWriteOnly ? 1 : 0;
    const bool flows = writes(last) || (waits && !withdrawn);
    EXPECT_TRUE(end.loop.runUntil([&] {
      return !peerReads() && end.received.size() >= pdus && (!flows || arrived.size() == sent.size());
    }));
    while (end.loop.settle(), peerReads()) {
    }
    EXPECT_EQ(end.pam->enableMode(), last);
    EXPECT_EQ(end.pam->writable(), writes(last));
    EXPECT_TRUE(sent.starts_with(arrived));
    EXPECT_EQ(end.received.size(), pdus);
    // All of it is there when both directions are on again.
    end.open();
    EXPECT_TRUE(end.receives(2));
    EXPECT_EQ(end.received[0] + end.received[1], stream);
    arrived += end.peerReceives(sent.size() - arrived.size());
    EXPECT_TRUE(arrived == sent);
  }
}

// The end --------------------------------------------------------------------------------------------------

TEST_P(TcpPduPamTest, EndsInOrderWhenAllIsSentAndThePeerHasClosedToo) {
  for (const bool peerFirst : {false, true}) {
    PamEnd end(GetParam(), kSmall, kSmall);
    end.open();
    const std::string sent = end.fill();
    const auto ended = [&] {
      char octet;
      return recv(end.peer(), &octet, 1, 0) == 0;
    };
    const auto hearsTheEnd = [&] {
      shutdown(end.peer(), SHUT_WR);
      EXPECT_TRUE(end.loop.runUntil([&] { return !end.pam->rxErrorReason().empty(); }));
    };
    if (peerFirst) hearsTheEnd();
    int told = 0;
    const Kiv::Reactor onSent(end.pam->allSentCount, [&] { ++told; });
    const Kiv::Reactor onClosed(end.pam->closed, [&] { ++told; });
    end.pam->close();
    end.pam->close();
    EXPECT_TRUE(end.pam->closing() && !end.pam->writable() && !end.pam->closed());
    EXPECT_TRUE(end.peerReceives(sent.size()) == sent);
    EXPECT_TRUE(end.loop.runUntil(ended));
    EXPECT_EQ(end.pam->allSentCount(), 1u);
    EXPECT_EQ(end.pam->closed(), peerFirst);
    if (!peerFirst) {
      end.peerSends(pduOf(40));  // goes on receiving
      EXPECT_TRUE(end.receives(1));
      hearsTheEnd();
    }
    EXPECT_TRUE(end.pam->closed() && !end.pam->closing());
    EXPECT_EQ(end.pam->rxErrorReason(), "Connection closed by peer");
    EXPECT_EQ(told, 2);
  }
}

TEST_P(TcpPduPamTest, EndsInTime) {
  if (foreign) return;  // deadlines are the activity loop's
  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  loop.simulatedTimeIs(true);
  enum Deadline { idle, write, peerSilent, unsent };
  for (const Deadline deadline : {idle, write, peerSilent, unsent}) {
    SCOPED_TRACE(deadline);
    PamEnd end(GetParam(), kSmall, kSmall);
    TcpPduPam& pam = *end.pam;
    if (deadline == write) pam.writeTimeoutIs(std::chrono::seconds(5));
    end.open();
    if (deadline == idle) pam.idleTimeoutIs(std::chrono::seconds(5));
    if (deadline == write) {
      const Fault full(Call::send, 1, EAGAIN), queueFull(Call::sendmsg, 1, EAGAIN);
      pam.txPktIs(pktOf(pduOf(30)));
      pam.txFlush();
      loop.poll();  // takes it
    }
    loop.runFor(4);
    const Fault full(Call::send, 1, deadline == write ? EAGAIN : 0, Fault::kForEver);
    const Fault queueFull(Call::sendmsg, 1, deadline == write ? EAGAIN : 0, Fault::kForEver);
    if (deadline == idle) end.peerSends(pduOf(30));
    loop.poll();
    if (deadline == write || deadline == unsent) end.fill();
    if (deadline >= peerSilent) pam.close();
    const auto over = [&] { return !pam.rxErrorReason().empty() || !pam.txErrorReason().empty(); };
    const Kiv::Time start = loop.now();
    EXPECT_TRUE(loop.runUntil(over, 100));
    EXPECT_EQ(loop.now() - start, std::chrono::seconds(5));
    const bool sending = deadline == write || deadline == unsent;
    EXPECT_EQ(pam.rxErrorReason(), sending ? "" : deadline == idle ? "Idle timeout" : "Close timeout");
    EXPECT_EQ(pam.txErrorReason(), sending ? "Connection timed out" : "");
    EXPECT_EQ(sending ? pam.txErrno() : pam.rxErrno(), ETIMEDOUT);
    EXPECT_EQ(pam.closed(), deadline >= peerSilent);
    EXPECT_THROW(pam.idleTimeoutIs(std::chrono::seconds(-1)), Kiv::RangeException);
  }
  loop.simulatedTimeIs(false);
}

// Variations do not matter to these ------------------------------------------------------------------------

const Variation kPlain = variations()[0];

TEST(TcpPduPam, WhatTheLoopRefusesFailsTheDirectionOrTheSwitch) {
  PamEnd end(kPlain);
  end.drainIs(false);
  end.open();
  end.peerSends(pduOf(50) + pduOf(60));
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->readable(); }));
  std::size_t told = 0;
  const Kiv::Reactor onEnd(end.pam->rxErrorReason, [&] { told = end.received.size(); });
  {
    const Fault fault(Call::epoll_ctl, 1, ENOMEM);
    end.pull();
  }
  end.loop.settle();
  EXPECT_EQ(told, 2u);
  EXPECT_EQ(end.pam->rxErrorReason(), "Readable notification failed with 12");
  PamEnd full(kPlain, kSmall, kSmall);
  full.open();
  const std::string sent = full.fill();
  full.pam->enableModeIs(tcpEnableModeNone);
  {
    const Fault once(Call::epoll_ctl, 1, ENOMEM);
    EXPECT_THROW(full.pam->enableModeIs(tcpEnableModeReadWrite), Kiv::ErrnoException);
    EXPECT_EQ(full.pam->enableMode(), tcpEnableModeNone);
    EXPECT_FALSE(full.pam->fd()->notifyOnReadable());
  }
  full.open();
  const Fault again(Call::epoll_ctl, 1, ENOMEM);
  full.peerReceives(sent.size());
  EXPECT_EQ(full.pam->txErrorReason(), "Cannot allocate memory");
}

TEST(TcpPduPam, WithoutMemoryToReadAheadItReadsWithout) {
  std::thread([] {  // which has no buffers yet
    PamEnd end({kBackends[0], true, 0});
    end.open();
    end.peerSends(pduOf(50) + pduOf(60));
    const Pkt::Ptr other = globalPktManager()->newPkt();  // objects of packets have room behind it
    const AllocationRefusal refusal(10000);
    EXPECT_TRUE(end.receives(2));
  })
      .join();
}

TEST(TcpPduPam, CalledOutOfTurnItSaysWhyOrDoesNothing) {
  const PamEnd end(kPlain);
  const auto plain = Kiv::makePtr<TcpPduPam>(connected(false).first, end.pam->fdFactory());
  EXPECT_DEATH(plain->getPduSize(), "0 && \"Need to implement getRemainingLength in a derived class\"");
  const TcpPduPamReadReturn nothing = end.pam->readFromSocket();
  EXPECT_EQ(nothing.reason, "Failed to allocate packet");
  EXPECT_FALSE(nothing);
  EXPECT_DEATH(end.pam->readNextPdu(), "fd\\(\\)->notifyOnReadable\\(\\)");
  // Without a socket, and cleaned up, it is there and does nothing.
  const auto none = simpleTcpPduPamFactory(Kiv::makePtr<TcpFileDescriptor>(-1, false), end.pam->fdFactory());
  for (const Kiv::Ptr<TcpPduPam>& pam : {Kiv::Ptr<TcpPduPam>(none), end.pam}) {
    pam->enabledIs(true);
    if (pam == end.pam) pam->cleanup();
    pam->handleSocketReadable();
    pam->handleSocketWritable();
    EXPECT_EQ(pam->readableCount(), 0u);
    EXPECT_EQ(pam->rxErrorReason() + pam->txErrorReason(), "");
  }
}

TEST(TcpPduPam, ThePageShowsFramingsAsTheyAreTested) {
  const auto read = [](const std::string& path) {
    std::ifstream file(WIRL_SOURCE_DIR "/" + path);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const std::string code = read("tests/transport/OwnFraming.h"), page = read("docs/framing.md");
  const std::size_t bgp = code.find("class BgpPam"), wide = code.find("class WideLengthPam");
  EXPECT_THAT(page, testing::HasSubstr("```cpp\n" + code.substr(bgp, wide - bgp - 1) + "```\n"));
  EXPECT_THAT(page, testing::HasSubstr("```cpp\n" + code.substr(wide) + "```\n"));
}

TEST(TcpPduPamDeathTest, BreachesOfTheCallingOrderEndTheProcess) {
  PamEnd end(kPlain, kSmall, kSmall);
  const Pkt::Ptr small = pktOf(pduOf(20));
  EXPECT_DEATH(end.pam->txPktIs(small), "writable\\(\\)");  // not enabled
  end.open();
  EXPECT_DEATH(end.pam->txPktIs(pktOf(pduOf(4001))),
               "pkt->sharedBuffer\\(\\)->dataBytes\\(\\) <= maxPduLength\\(\\)");
  EXPECT_DEATH(end.pam->txPktIs(nullptr), "dataBytes\\(\\) <= maxPduLength\\(\\)");
  const Pkt::Ptr two = pktOf(pduOf(20));
  two->newPrivateHeadData(4);
  EXPECT_DEATH(end.pam->txPktIs(two), "pkt->numIovecs\\(\\) == 1");
  EXPECT_DEATH(end.pam->enableModeIs(static_cast<TcpPduPamEnableMode>(4)), "0 && \"Unexpected value\"");
  end.peerSends("x");
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->rxRemainingLength() == 19; }));
  end.fill();
  EXPECT_DEATH(end.pam->txPktIs(small), "!txPktHolderShadow\\(\\)");
  end.pam->enableModeIs(tcpEnableModeReadOnly);
  EXPECT_DEATH(end.pam->enableModeIs(tcpEnableModeReadOnly),
               "pendingEnableReadOnlyOrWriteOnlyMode_ != TcpPduPamEnableMode::tcpEnableModeReadOnly_");
  end.pam->enableModeIs(tcpEnableModeWriteOnly);
  EXPECT_DEATH(end.pam->enableModeIs(tcpEnableModeWriteOnly),
               "pendingEnableReadOnlyOrWriteOnlyMode_ != TcpPduPamEnableMode::tcpEnableModeWriteOnly_");
  std::string text(100000, 'x');
  const SocketIovec iov = {text.data(), text.size()};
  EXPECT_DEATH(end.pam->txIovIs(&iov, 1), "writable\\(\\)");
  PamEnd other(kPlain, kSmall, kSmall);
  other.open();
  other.pam->txIovIs(&iov, 0);  // nothing
  other.pam->txIovIs(&iov, 1);
  EXPECT_DEATH(other.pam->txIovIs(&iov, 1), "!txIovHolderShadow\\(\\)");
}

TEST(TcpPduPam, OptionsAreAppliedAndTheirFailuresAreCounted) {
  PamEnd end(kPlain);
  const auto optionIs = [&](int level, int name, int wanted) {
    int value = -1;
    socklen_t length = sizeof(value);
    getsockopt(end.fd(), level, name, &value, &length);
    EXPECT_EQ(value, wanted) << name;
  };
  const TcpKeepaliveOptions options(true, 7, 3, 5);
  optionIs(IPPROTO_TCP, TCP_NODELAY, 1);
  end.pam->noDelayIs(false);
  optionIs(IPPROTO_TCP, TCP_NODELAY, 0);
  end.pam->keepaliveOptsIs(options);
  optionIs(SOL_SOCKET, SO_KEEPALIVE, 1);
  optionIs(IPPROTO_TCP, TCP_KEEPIDLE, 7);
  optionIs(IPPROTO_TCP, TCP_KEEPINTVL, 3);
  optionIs(IPPROTO_TCP, TCP_KEEPCNT, 5);
  end.pam->keepaliveOptsIs(keepaliveDisabled);
  optionIs(SOL_SOCKET, SO_KEEPALIVE, 0);
  EXPECT_EQ(end.pam->tcpOptErrors(), 0u);
  const char* const names[] = {"SO_KEEPALIVE", "TCP_KEEPIDLE", "TCP_KEEPINTVL", "TCP_KEEPCNT",
                               "SO_KEEPALIVE"};
  int told = 0;
  const Kiv::Reactor onReason(end.pam->tcpOptErrorReason, [&] { ++told; });
  for (unsigned i = 0; i < 5; ++i) {
    const Fault fault(Call::setsockopt, i % 4 + 1, EPERM);
    end.pam->keepaliveOptsIs(i == 4 ? keepaliveDisabled : TcpKeepaliveOptions(true, 8 + i, 3, 5));
    EXPECT_EQ(end.pam->tcpOptErrorReason(),
              std::string("setsockopt() error while setting ") + names[i] + ": Operation not permitted");
    EXPECT_EQ(end.pam->tcpOptErrors(), i + 1);
    EXPECT_EQ(fault.calls(), i % 4 + 1);  // the others are not tried
  }
  EXPECT_EQ(told, 5);
  EXPECT_EQ(options.stringValue(),
            "Value('Wirl::TcpKeepaliveOptions', ** {'idleTime': 7, 'probeInterval': 3, 'probeCount': 5})");
  EXPECT_EQ(TcpKeepaliveOptions(options.stringValue()), options);
  EXPECT_EQ(TcpKeepaliveOptions(keepaliveDisabled.stringValue()), keepaliveDisabled);
}

TEST(TcpPduPam, TracesAndDumpsNameThePamAndItsPeer) {
  PamEnd end({kBackends[1], false, 0});
  end.pam = nullptr;
  const auto pam = Kiv::makePtr<SimpleTcpPduPam>(end.ends.first, end.loop.factory(), "toCollector");
  end.pam = pam;
  pam->maxPduLengthIs(4000);
  end.drainIs(true);
  TraceCapture traces("TcpPduPam/0-9");
  end.open();
  end.peerSends(pduOf(22));
  ASSERT_TRUE(end.receives(1));
  const auto send = [&](Call call, std::size_t taken, const SocketIovec* iov, U16 count) {
    const Fault fault(call, 1, ShortCount{taken});
    iov ? pam->txIovIs(iov, count) : pam->txPktIs(pktOf(pduOf(20)));
  };
  send(Call::send, 20, nullptr, 0);
  send(Call::send, 5, nullptr, 0);
  pam->enableModeIs(tcpEnableModeReadOnly);
  end.loop.runUntil([&] { return pam->enableMode() == tcpEnableModeReadOnly; });
  end.open();
  std::string text = "abcdef";
  const SocketIovec iov[] = {{text.data(), 2}, {text.data(), 0}, {text.data() + 2, 4}};
  send(Call::sendmsg, 2, iov, 2);
  send(Call::sendmsg, 0, iov + 1, 1);
  send(Call::sendmsg, 3, iov, 3);
  end.loop.settle();
  pam->txQueueLimitIs(9);
  pam->txPktIs(pktOf(pduOf(20)));
  pam->txPktIs(pktOf(pduOf(30)));
  {
    const Fault fault(Call::sendmsg, 1, ShortCount{21});
    pam->txFlush();
  }
  pam->cleanup();
  pam->keepaliveOptsIs(TcpKeepaliveOptions(true, 7, 3, 5));
  pam->keepaliveOptsIs(keepaliveDisabled);
  pam->keepaliveOptsIs(TcpKeepaliveOptions(true, 0xffffffff, 1, 1));
  std::ostringstream hex;
  for (const char c : pduOf(22)) hex << std::hex << (c >> 4 & 0xf) << (c & 0xf);
  std::vector<std::string> expected = {
      "5:Setting enabled to tcpEnableModeReadWrite",
      "5:Additional edgeTriggered notification",
      "8:result=waitForMoreData reason=",
      "8:pduTotalLength 22 ,dataRead 20 rxRemainingLength=0",
      "8:PDU size: 22 Remaining: 2",
      "8:result=readMoreData reason=",
      "8:pduTotalLength 22 ,dataRead 2 rxRemainingLength=0",
      "8:PDU size: 22 Remaining: 0",
      "8:result=fullPduRead reason=",
      "9:PktData: 0x" + hex.str(),
      "8:result=waitForMoreData reason=",
      "8:Sent 20 bytes",
      "8:Partial send 5 bytes. Remaining to send 15",
      "5:Waiting for txPkt before setting enabled to tcpEnableModeReadOnly",
      "8:Sent 15 bytes",
      "5:pending txPkt complete, setting enabledMode to readOnly",
      "5:Setting enabled to tcpEnableModeReadOnly",
      "5:Additional edgeTriggered notification",
      "8:result=waitForMoreData reason=",
      "5:Setting enabled to tcpEnableModeReadWrite",
      "5:Additional edgeTriggered notification",
      "8:result=waitForMoreData reason=",
      "8:iovLen: 2",
      "8:Sent 2 bytes",
      "8:iovLen: 1",
      "8:Nothing to send",
      "8:iovLen: 3",
      "8:Partial send 3 bytes. Curr iovec: 2",
      "8:Sent 3 bytes",
      "8:Partial send 21 bytes. Queued packets: 1",
      "5:Setsockopt(): TCP Keepalive enabled ( idletime: 7, probeinterval: 3, probetime: 5",
      "5:Setsockopt(): TCP Keepalive disabled",
      "0:Setsockopt failed with 22"};
  const std::string peer = std::to_string(ntohs(addressOf(end.ends.second).sin_port));
  for (auto& line : expected) {
    line.insert(0, "TcpPduPam/");
    line += " [toCollector, peer 127.0.0.1 port " + peer + "]";
  }
  EXPECT_EQ(traces.lines(), expected);
  std::ostringstream dump;
  end.pamIs<SimpleTcpPduPam>(kPlain)->dumpState(dump);
  EXPECT_THAT(dump.str(), testing::StartsWith("TcpPduPam\nname"));
  EXPECT_THAT(dump.str(), testing::ContainsRegex("maxPduLength +U16 +4000\n"));
  EXPECT_THAT(dump.str(), testing::HasSubstr("enabled=1;read=0;write=0"));
}

}  // namespace
}  // namespace Wirl
