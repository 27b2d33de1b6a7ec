// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpPduPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/tcp.h>

#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <numeric>
#include <sstream>

#include "Wirl/transport/TcpClientSm.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/TraceCapture.h"
#include "tests/transport/OwnFraming.h"
#include "tests/transport/TcpPdus.h"

namespace Wirl {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kSmall = 4096;  // octets of a socket's buffer; the kernel makes more of it

class TcpPduPamTest : public testing::TestWithParam<Variation> {
 protected:
  const bool edge = GetParam().backend.edge;
  const bool ahead = GetParam().readAhead;
  const U32 queue = GetParam().queue;
};
INSTANTIATE_TEST_SUITE_P(Variations, TcpPduPamTest, testing::ValuesIn(variations()),
                         testing::PrintToStringParamName());

/// Where the system can refuse to watch a socket.
using TcpPduPamLoopTest = TcpPduPamTest;
INSTANTIATE_TEST_SUITE_P(Variations, TcpPduPamLoopTest, testing::ValuesIn(variationsWhere([](const auto& v) {
                           return !v.backend.pollLoop;
                         })),
                         testing::PrintToStringParamName());

using TcpPduPamQueueTest = TcpPduPamTest;
INSTANTIATE_TEST_SUITE_P(Variations, TcpPduPamQueueTest,
                         testing::ValuesIn(variationsWhere([](const auto& v) { return v.queue > 0; })),
                         testing::PrintToStringParamName());

// Receiving ------------------------------------------------------------------------------------------------

TEST_P(TcpPduPamTest, AnOverlongPduEndsReadingBehindThoseBeforeIt) {
  const struct {
    U16 max;
    std::string stream;
    std::size_t delivered;
  } rows[] = {
      {1000, pduOf(1000) + pduOf(20) + pduOf(1001) + pduOf(20), 2},
      {1000, pduOf(20, 0xffff), 0},
      {65535, pduOf(20, 0xffff), 0},  // the longest there is: waited for
      {19, "x", 0},                   // a header too long, known with the first octet
      {19, pduOf(20, 5), 0},          // whatever its length field says
      {0, "x", 0},
  };
  for (const auto& row : rows) {
    PamEnd end(GetParam());
    end.pam->maxPduLengthIs(row.max);
    end.open();
    std::string reason;
    const Kiv::Reactor onError(end.pam->rxErrorReason, [&] { reason = end.pam->rxErrorReason(); });
    end.peerSends(row.stream);
    if (row.max == 65535) {
      EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->rxRemainingLength() == 65515; }));
      end.peerSends(std::string(65515, 'x'));
      EXPECT_TRUE(end.receives(1));
      EXPECT_EQ(end.received[0].size(), 65535u);
      continue;
    }
    EXPECT_TRUE(end.loop.runUntil([&] { return !reason.empty(); }));
    EXPECT_EQ(reason, "PDU length too big");
    EXPECT_EQ(end.received.size(), row.delivered);
    EXPECT_EQ(end.pam->rxErrors(), 1u);
    const U32 events = end.pam->socketReadableCount();
    end.loop.settle();
    EXPECT_EQ(end.pam->socketReadableCount(), events);  // not looked at any more
  }
}

TEST_P(TcpPduPamTest, TheEndOfTheStreamGivesAReasonAndNoPartialPdu) {
  for (const std::string& stream :
       {pduOf(50) + pduOf(60), pduOf(50) + pduOf(60) + pduOf(70).substr(0, 69), std::string()}) {
    PamEnd end(GetParam());
    end.peerSends(stream);
    shutdown(end.peer(), SHUT_WR);
    end.open();
    EXPECT_TRUE(end.loop.runUntil([&] { return !end.pam->rxErrorReason().empty(); }));
    EXPECT_EQ(end.pam->rxErrorReason(), "Connection closed by peer");
    EXPECT_EQ(end.received.size(), stream.empty() ? 0u : 2u);
    EXPECT_EQ(end.pam->rxErrors(), 0u);
    const U32 events = end.pam->socketReadableCount();
    end.loop.settle();
    EXPECT_EQ(end.pam->socketReadableCount(), events);
    // The other direction still works.
    end.pam->txPktIs(pktOf(pduOf(40)));
    EXPECT_TRUE(end.peerReceives(40) == pduOf(40));
  }
  PamEnd end(GetParam());
  end.open();
  end.peerSends(pduOf(50) + pduOf(70).substr(0, 69));
  ASSERT_TRUE(end.receives(1));
  const linger abort = {1, 0};  // a reset instead of an orderly end
  setsockopt(end.peer(), SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
  end.ends.second = nullptr;
  EXPECT_TRUE(end.loop.runUntil([&] { return !end.pam->rxErrorReason().empty(); }));
  EXPECT_EQ(end.pam->rxErrorReason(), "Recv failed with " + std::to_string(ECONNRESET));
  EXPECT_EQ(end.pam->rxPkt(), nullptr);
}

TEST_P(TcpPduPamTest, AFailedReadGivesItsErrnoAndASignalNone) {
  for (const int error : {ECONNRESET, ENOMEM, EINTR, EAGAIN}) {
    if (error == EAGAIN && edge) continue;  // there it would mean that an event is to come
    PamEnd end(GetParam());
    end.open();
    end.peerSends(pduOf(50));
    const Fault fault(Call::recv, 1, error, 3);
    if (error == EINTR || error == EAGAIN) {
      EXPECT_TRUE(end.receives(1));
      EXPECT_GT(fault.calls(), 3u);
      EXPECT_EQ(end.pam->rxErrors(), 0u);
    } else {
      EXPECT_TRUE(end.loop.runUntil([&] { return !end.pam->rxErrorReason().empty(); }));
      EXPECT_EQ(end.pam->rxErrorReason(), "Recv failed with " + std::to_string(error));
      EXPECT_EQ(end.pam->rxErrors(), 1u);
    }
  }
}

TEST_P(TcpPduPamTest, MakesTheReadsItIsMeantTo) {
  PamEnd end(GetParam());
  std::string stream;
  for (int i = 0; i < 100; ++i) stream += pduOf(64);
  end.peerSends(stream);
  const Fault reads(Call::recv);
  end.open();
  ASSERT_TRUE(end.receives(100));
  end.loop.settle();
  // Header, rest, and at the end one that finds nothing; or all at once, and level-triggered no more than
  // that.
  EXPECT_EQ(reads.calls(), !ahead ? 201u : edge ? 2u : 1u);
}

TEST_P(TcpPduPamTest, OnePduAnEventLeavesTheOthersForTheNext) {
  for (const bool fromTheStart : {true, false}) {
    PamEnd end(GetParam());
    end.pam->readOnePktOnlyIs(fromTheStart);
    end.drainIs(false);
    std::vector<std::string> each;
    const Kiv::Reactor onReadable(end.pam->readableCount, [&] {
      int got = 0;
      for (; const Pkt::Ptr pdu = end.pam->rxPkt(); ++got) {
        if (each.size() == 1) end.pam->readOnePktOnlyIs(true);
        each.push_back(pdu->stringValue());
      }
      EXPECT_LE(got, each.size() <= 3 && !fromTheStart ? 3 : 1);  // the one behind is held already
    });
    for (int i = 0; i < 6; ++i) end.peerSends(pduOf(static_cast<std::size_t>(30 + i)));
    end.open();
    EXPECT_TRUE(end.loop.runUntil([&] { return each.size() == 6; }));
    EXPECT_EQ(end.pam->readableCount(), fromTheStart ? 6u : 4u);
  }
}

TEST_P(TcpPduPamTest, APendingWriteOnlyMayBeTakenBackInItsEvent) {
  for (const auto mode : {tcpEnableModeReadWrite, tcpEnableModeReadOnly}) {
    PamEnd end(GetParam());
    end.drainIs(false);
    const Kiv::Reactor onReadable(end.pam->readableCount, [&] {
      while (const Pkt::Ptr pdu = end.pam->rxPkt()) {
        end.received.push_back(pdu->stringValue());
        if (end.received.size() == 1) end.pam->enableModeIs(mode);
      }
    });
    end.open();
    end.peerSends(pduOf(100).substr(0, 60));
    EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->rxRemainingLength() == 40; }));
    end.pam->enableModeIs(tcpEnableModeWriteOnly);
    end.peerSends(pduOf(100).substr(60) + pduOf(50));
    EXPECT_TRUE(end.receives(2));
  }
}

TEST_P(TcpPduPamTest, SwitchingModesAroundEachPullTakesNoStack) {
  PamEnd end(GetParam());
  end.drainIs(false);
  std::size_t got = 0;
  std::vector<std::uintptr_t> depths;
  const Kiv::Reactor onReadable(end.pam->readableCount, [&] {
    depths.push_back(reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)));
    end.pam->enableModeIs(tcpEnableModeWriteOnly);
    got += end.pam->rxPkt() != nullptr;
    end.pam->enableModeIs(tcpEnableModeReadWrite);
  });
  std::string stream;
  for (int i = 0; i < 2500; ++i) stream += pduOf(21);
  end.peerSends(stream);
  end.open();
  EXPECT_TRUE(end.loop.runUntil([&] { return got == 2500; }));
  const auto [low, high] = std::minmax_element(depths.begin(), depths.end());
  EXPECT_LT(*high - *low, 4096u);
}

TEST_P(TcpPduPamTest, WithoutMemoryNothingIsReadAheadAndNoPduIsMade) {
  PamEnd other(GetParam());  // has the thread's buffer in use
  other.pam->readAheadIs(true);
  other.drainIs(false);
  other.peerSends(pduOf(50) + pduOf(60));
  other.open();
  EXPECT_TRUE(other.loop.runUntil([&] { return other.pam->readable(); }));
  PamEnd end(GetParam());
  end.open();
  const AllocationRefusal refusal(60000);
  end.peerSends(pduOf(50) + pduOf(60));
  EXPECT_TRUE(end.receives(2));
  EXPECT_EQ(end.received[0] + end.received[1], pduOf(50) + pduOf(60));
  if (!AllocationRefusal::works) return;  // a sanitizer's allocator knows no refusal
  end.pam->maxPduLengthIs(65521);
  end.peerSends(pduOf(50));
  EXPECT_TRUE(end.loop.runUntil([&] { return !end.pam->rxErrorReason().empty(); }));
  EXPECT_EQ(end.pam->rxErrorReason(), "Failed to allocate packet");
  EXPECT_EQ(end.pam->rxPktHolderShadow(), nullptr);
}

TEST_P(TcpPduPamTest, TheLimitMayChangeInMidstreamAndReactorsMayPullInsideAPull) {
  PamEnd end(GetParam());
  end.pam->maxPduLengthIs(100);
  end.drainIs(false);
  const auto pull = [&] { end.pull(); };
  const Kiv::Reactor onReadable(end.pam->readable, pull), onCount(end.pam->readableCount, pull);
  end.open();
  std::vector<std::string> pdus;
  for (std::size_t i = 0; i < 50; ++i) pdus.push_back(pduOf(20 + i));
  end.peerSends(std::accumulate(pdus.begin(), pdus.end(), std::string()) + pduOf(60000).substr(0, 19));
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->rxRemainingLength() == 1; }));
  EXPECT_TRUE(end.received == pdus);
  end.pam->maxPduLengthIs(65535);
  const auto rest = pduOf(60000).substr(19);
  for (std::size_t at = 0; at < rest.size(); at += 6000) {
    end.peerSends(std::string_view(rest).substr(at, 6000));
    end.loop.settle();
  }
  EXPECT_TRUE(end.receives(51));
  EXPECT_TRUE(end.received[50] == pduOf(60000));
  end.peerSends(pduOf(200).substr(0, 150));
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->rxRemainingLength() == 50; }));
  end.pam->maxPduLengthIs(199);
  end.peerSends("x");
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->rxErrorReason() == "PDU length too big"; }));
}

TEST_P(TcpPduPamTest, AHeldPduWaitsForItsClientWithoutFurtherEvents) {
  PamEnd end(GetParam());
  end.drainIs(false);
  end.open();
  end.peerSends(pduOf(50) + pduOf(60));
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->readableCount() == 1; }));
  EXPECT_TRUE(end.pam->readable());
  end.peerSends(pduOf(70));
  const U32 events = end.pam->socketReadableCount();
  end.loop.settle();
  EXPECT_LE(end.pam->socketReadableCount(), events + (edge ? 1 : 0));
  EXPECT_EQ(end.pam->readableCount(), 1u);
  end.pull();  // outside of any event
  EXPECT_GE(end.received.size(), 2u);
  EXPECT_FALSE(end.pam->readable());
  end.drainIs(true);
  EXPECT_TRUE(end.receives(3));
  end.drainIs(false);
  end.peerSends(pduOf(80));
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->readable(); }));
  if (edge) {
    end.pam->handleSocketReadable();
  } else {
    EXPECT_DEATH(end.pam->handleSocketReadable(), "edgeTriggered\\(\\)");
  }
}

// Sending --------------------------------------------------------------------------------------------------

TEST_P(TcpPduPamTest, APeerThatDoesNotReadHoldsSendingUpAtTheExactOctet) {
  PamEnd end(GetParam(), kSmall, kSmall);
  end.open();
  EXPECT_TRUE(end.pam->writable());
  EXPECT_EQ(end.pam->writableCount(), 1u);
  std::string sent = end.fill();
  EXPECT_EQ(end.pam->txPktHolderShadow() != nullptr, queue == 0);
  EXPECT_EQ(end.pam->txQueued(), queue);
  end.loop.settle();
  EXPECT_FALSE(end.pam->writable());
  std::string arrived;
  for (U32 i = 2; i < 10; ++i) {
    arrived += end.peerReceives(sent.size() - arrived.size());
    EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->writable(); }));
    EXPECT_EQ(end.pam->writableCount(), i);
    EXPECT_TRUE(arrived == sent);
    sent += end.fill(3000 + i);
  }
  EXPECT_EQ(end.pam->txErrors() + end.pam->txDrops(), 0u);
}

TEST_P(TcpPduPamTest, GatheredPiecesOfAnyNumberAndLengthKeepTheirOrder) {
  PamEnd end(GetParam(), kSmall, kSmall);
  end.open();
  std::string text;
  for (int i = 0; i < 200000; ++i) text += static_cast<char>(i * 7 + i / 251);
  std::vector<SocketIovec> iov(3000);
  std::size_t at = 0;
  for (std::size_t i = 0; i < iov.size(); ++i) {
    const std::size_t length = i + 1 == iov.size() ? text.size() - at : i % 5 == 0 ? 0 : i % 90;
    iov[i] = {text.data() + at, length};
    at += length;
  }
  iov.push_back({nullptr, 0});
  for (int i = 0; i < 3; ++i) {
    // The array itself is the caller's again at once.
    auto passing = iov;
    end.pam->txIovIs(passing.data(), static_cast<U16>(passing.size()));
    std::fill(passing.begin(), passing.end(), SocketIovec{});
    if (queue) {
      end.pam->txFlush();
      EXPECT_EQ(end.pam->txQueued(), 1u);
    } else {
      EXPECT_FALSE(end.pam->writable());
      EXPECT_NE(end.pam->txIovHolderShadow(), nullptr);
      EXPECT_EQ(end.pam->txRemainingLength(), 0xffff);
    }
    EXPECT_TRUE(end.peerReceives(text.size()) == text);
    EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->writable() && end.pam->txQueued() == 0; }));
    EXPECT_EQ(end.pam->txIovHolderShadow(), nullptr);
  }
  for (const std::size_t count : {std::size_t{1}, std::size_t{7}, std::size_t{500}}) {
    const Fault fault(Call::sendmsg, 1, ShortCount{count}, 20);
    end.pam->txIovIs(iov.data(), static_cast<U16>(iov.size()));
    EXPECT_TRUE(end.peerReceives(text.size()) == text);
  }
}

TEST_P(TcpPduPamTest, AReactorToTheWriteLengthMaySend) {
  for (const bool gathered : {false, true}) {
    for (const std::size_t taken : {10u, 100u}) {
      PamEnd end(GetParam());
      end.open();
      std::string sent;
      std::string text = pduOf(50);
      const auto sendOne = [&] {
        sent += text;
        const SocketIovec iov[] = {{text.data(), 7}, {text.data() + 7, text.size() - 7}};
        gathered ? end.pam->txIovIs(iov, 2) : end.pam->txPktIs(pktOf(text));
      };
      int more = 3;
      const Kiv::Reactor reactor(end.pam->writeLength, [&] {
        if (!end.pam->txIovHolderShadow() && !end.pam->txPktHolderShadow()) end.pam->handleSocketWritable();
        if (end.pam->writable() && more > 0) {
          --more;
          text.resize(text.size() + 1);  // what was sent is out, and may move
          sendOne();
        }
      });
      {
        const Fault fault(queue || gathered ? Call::sendmsg : Call::send, 1, ShortCount{taken}, 2);
        sendOne();
        end.pam->txFlush();
      }
      EXPECT_TRUE(
          end.loop.runUntil([&] { return more == 0 && end.pam->writable() && end.pam->txQueued() == 0; }, 2));
      EXPECT_TRUE(end.peerReceives(sent.size()) == sent);
      char octet;
      EXPECT_LT(recv(end.peer(), &octet, 1, 0), 0) << "more than was sent";
    }
  }
}

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
    const linger abort = {1, 0};
    setsockopt(end.peer(), SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
    end.ends.second = nullptr;
    send();
    if (end.pam->txErrorReason().empty()) send();
    EXPECT_THAT(std::string(end.pam->txErrorReason()),
                testing::AnyOf("Broken pipe", "Connection reset by peer"));
    EXPECT_FALSE(end.pam->writable());
    EXPECT_FALSE(end.pam->initialized());
    EXPECT_EQ(end.pam->fd(), nullptr);
    EXPECT_EQ(end.pam->txErrors(), 1u);
    EXPECT_NE(end.pam->txErrno(), 0);
    send();  // in the midst of a client's work: counted, not fatal
    EXPECT_EQ(end.pam->txErrors(), 2u);
    end.pam->enableModeIs(tcpEnableModeNone);
    end.pam->enableModeIs(tcpEnableModeReadWrite);
    EXPECT_FALSE(end.pam->writable());
  }
}

TEST_P(TcpPduPamQueueTest, WhatAClientQueuesInAnEventGoesOutTogether) {
  PamEnd end(GetParam());
  end.pam->txQueueLimitIs(1000);
  end.drainIs(false);
  const Kiv::Reactor echo(end.pam->readableCount, [&] {
    while (const Pkt::Ptr pdu = end.pam->rxPkt()) end.pam->txPktIs(pdu);
  });
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
}

// What the loop refuses -------------------------------------------------------------------------------------

TEST_P(TcpPduPamLoopTest, ARefusedNotificationFailsTheDirectionAndThrowsNothing) {
  {
    PamEnd end(GetParam());
    end.drainIs(false);
    end.pam->readOnePktOnlyIs(true);
    end.open();
    end.peerSends(pduOf(50) + pduOf(60));
    EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->readable(); }));
    const Fault fault(Call::epoll_ctl, 1, ENOMEM);
    end.pull();
    EXPECT_THAT(end.received, ElementsAre(pduOf(50)));
    EXPECT_EQ(end.pam->rxErrorReason(), "Readable notification failed with 12");
    EXPECT_FALSE(end.pam->fd()->notifyOnReadable());
  }
  PamEnd end(GetParam(), kSmall, kSmall);
  end.open();
  end.fill();
  const Fault fault(Call::epoll_ctl, 1, ENOMEM);
  EXPECT_TRUE(end.loop.runUntil([&] {
    char octets[4096];
    while (recv(end.peer(), octets, sizeof(octets), 0) > 0) {
    }
    return !end.pam->txErrorReason().empty();
  }));
  EXPECT_EQ(end.pam->txErrorReason(), "Cannot allocate memory");
}

TEST_P(TcpPduPamLoopTest, ARefusedModeLeavesAllAsItWas) {
  for (unsigned nth = 1; nth <= 2; ++nth) {
    PamEnd end(GetParam(), kSmall, kSmall);
    end.open();
    end.fill();
    end.pam->enableModeIs(tcpEnableModeNone);
    end.peerSends(pduOf(40));
    const bool writable = end.pam->fd()->notifyOnWritable();
    {
      const Fault fault(Call::epoll_ctl, nth, ENOMEM);
      if (nth > (queue ? 2 : 1)) break;  // the packet in flight is watched already
      EXPECT_THROW(end.pam->enableModeIs(tcpEnableModeReadWrite), Kiv::ErrnoException);
    }
    EXPECT_EQ(end.pam->enableMode(), tcpEnableModeNone);
    EXPECT_FALSE(end.pam->fd()->notifyOnReadable());
    EXPECT_EQ(end.pam->fd()->notifyOnWritable(), writable);
  }
  PamEnd end(GetParam(), kSmall, kSmall);
  end.pam->enableModeIs(tcpEnableModeWriteOnly);
  end.fill();
  end.pam->enableModeIs(tcpEnableModeReadOnly);
  {
    const Fault fault(Call::epoll_ctl, 1, ENOMEM);
    EXPECT_THROW(end.pam->enableModeIs(tcpEnableModeReadWrite), Kiv::ErrnoException);
  }
  EXPECT_EQ(end.pam->enableMode(), tcpEnableModeWriteOnly);
  EXPECT_EQ(end.pam->pendingEnableReadOnlyOrWriteOnlyMode(), tcpEnableModeReadOnly);
}

TEST_P(TcpPduPamQueueTest, WhatIsQueuedOnceThereIsRoomGoesOutToo) {
  PamEnd end(GetParam());
  end.pam->txQueueLimitIs(2);
  end.open();
  const Fault fault(Call::sendmsg, 1, EAGAIN);
  std::string sent = end.fill(40);
  EXPECT_EQ(end.pam->txQueued(), 2u);
  const Kiv::Reactor onWritable(end.pam->writableCount, [&] {
    sent += pduOf(30);
    end.pam->txPktIs(pktOf(pduOf(30)));
  });
  EXPECT_TRUE(end.peerReceives(sent.size() + 30) == sent);
}

// Modes ----------------------------------------------------------------------------------------------------

TEST_P(TcpPduPamTest, EachModeReadsAndWritesAsItSays) {
  PamEnd end(GetParam());
  const struct {
    TcpPduPamEnableMode mode;
    bool read, write;
  } rows[] = {{tcpEnableModeNone, false, false},     {tcpEnableModeReadOnly, true, false},
              {tcpEnableModeWriteOnly, false, true}, {tcpEnableModeReadWrite, true, true},
              {tcpEnableModeWriteOnly, false, true}, {tcpEnableModeNone, false, false},
              {tcpEnableModeReadOnly, true, false}};
  std::size_t sent = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.mode);
    end.pam->enableModeIs(row.mode);
    EXPECT_EQ(end.pam->enableMode(), row.mode);
    EXPECT_EQ(end.pam->enabled(), row.read || row.write);
    EXPECT_EQ(end.pam->fd()->notifyOnReadable(), row.read);
    EXPECT_EQ(end.pam->writable(), row.write);
    end.peerSends(pduOf(40));
    ++sent;
    if (row.read) {
      EXPECT_TRUE(end.receives(sent));
    } else {
      const std::size_t before = end.received.size();
      end.loop.settle();
      EXPECT_EQ(end.received.size(), before);
    }
  }
  end.pam->enabledIs(true);  // is so already
  EXPECT_EQ(end.pam->enableMode(), tcpEnableModeReadOnly);
  end.pam->enabledIs(false);
  end.pam->enabledIs(true);
  EXPECT_EQ(end.pam->enableMode(), tcpEnableModeReadWrite);
}

TEST_P(TcpPduPamTest, ReadOnlyWaitsForThePacketInFlight) {
  PamEnd end(GetParam(), kSmall, kSmall);
  end.open();
  const std::string sent = end.fill();
  TraceCapture traces("TcpPduPam/5");
  end.pam->enableModeIs(tcpEnableModeReadOnly);
  EXPECT_EQ(end.pam->enableMode(), tcpEnableModeReadWrite);
  EXPECT_EQ(end.pam->pendingEnableReadOnlyOrWriteOnlyMode(), tcpEnableModeReadOnly);
  EXPECT_DEATH(end.pam->enableModeIs(tcpEnableModeReadOnly),
               "pendingEnableReadOnlyOrWriteOnlyMode_ != TcpPduPamEnableMode::tcpEnableModeReadOnly_");
  EXPECT_TRUE(end.peerReceives(sent.size()) == sent);
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->enableMode() == tcpEnableModeReadOnly; }));
  EXPECT_EQ(end.pam->pendingEnableReadOnlyOrWriteOnlyMode(), tcpEnableModeNone);
  EXPECT_FALSE(end.pam->writable());
  EXPECT_FALSE(end.pam->fd()->notifyOnWritable());
  std::vector<std::string> expected = {
      "TcpPduPam/5:Waiting for txPkt before setting enabled to tcpEnableModeReadOnly",
      "TcpPduPam/5:pending txPkt complete, setting enabledMode to readOnly",
      "TcpPduPam/5:Setting enabled to tcpEnableModeReadOnly"};
  if (edge) expected.emplace_back("TcpPduPam/5:Additional edgeTriggered notification");
  EXPECT_EQ(traces.lines(), expected);
}

TEST_P(TcpPduPamTest, WriteOnlyWaitsForThePduInReception) {
  PamEnd end(GetParam());
  end.open();
  const std::string stream = pduOf(100) + pduOf(50);
  end.peerSends(stream.substr(0, 60));
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->rxRemainingLength() == 40; }));
  TraceCapture traces("TcpPduPam/5");
  end.pam->enableModeIs(tcpEnableModeWriteOnly);
  EXPECT_EQ(end.pam->pendingEnableReadOnlyOrWriteOnlyMode(), tcpEnableModeWriteOnly);
  EXPECT_DEATH(end.pam->enableModeIs(tcpEnableModeWriteOnly),
               "pendingEnableReadOnlyOrWriteOnlyMode_ != TcpPduPamEnableMode::tcpEnableModeWriteOnly_");
  end.peerSends(stream.substr(60));
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->enableMode() == tcpEnableModeWriteOnly; }));
  end.loop.settle();
  EXPECT_THAT(end.received, ElementsAre(pduOf(100)));  // and not the one behind it
  EXPECT_THAT(traces.lines(),
              ElementsAre("TcpPduPam/5:Waiting for rxPkt before setting enabled to tcpEnableModeWriteOnly",
                          "TcpPduPam/5:pending rxPkt complete, setting enabledMode to writeOnly",
                          "TcpPduPam/5:Setting enabled to tcpEnableModeWriteOnly"));
  end.open();
  EXPECT_TRUE(end.receives(2));
  EXPECT_EQ(end.received[1], pduOf(50));
}

TEST_P(TcpPduPamTest, APendingModeCanBeWithdrawnAndNoneOnlyPauses) {
  PamEnd end(GetParam(), kSmall, kSmall);
  end.open();
  const std::string stream = pduOf(100) + pduOf(50);
  end.peerSends(stream.substr(0, 60));
  EXPECT_TRUE(end.loop.runUntil([&] { return end.pam->rxRemainingLength() == 40; }));
  const std::string sent = end.fill();
  end.pam->enableModeIs(tcpEnableModeReadOnly);
  end.pam->enableModeIs(tcpEnableModeWriteOnly);  // takes its place
  EXPECT_EQ(end.pam->pendingEnableReadOnlyOrWriteOnlyMode(), tcpEnableModeWriteOnly);
  end.open();
  EXPECT_EQ(end.pam->pendingEnableReadOnlyOrWriteOnlyMode(), tcpEnableModeNone);
  end.pam->enableModeIs(tcpEnableModeNone);
  end.peerSends(stream.substr(60));
  end.loop.settle();
  EXPECT_THAT(end.received, IsEmpty());
  std::string arrived;
  char octets[4096];
  for (ssize_t n; (n = recv(end.peer(), octets, sizeof(octets), 0)) > 0; end.loop.settle()) {
    arrived.append(octets, static_cast<std::size_t>(n));
  }
  EXPECT_LT(arrived.size(), sent.size());
  end.open();
  arrived += end.peerReceives(sent.size() - arrived.size());
  EXPECT_TRUE(arrived == sent);
  EXPECT_TRUE(end.receives(2));
  EXPECT_EQ(end.received[0] + end.received[1], stream);
}

// Clients that do what they like ---------------------------------------------------------------------------

TEST_P(TcpPduPamTest, ReactorsMayDoWhatTheyLikeAtAnyPoint) {
  struct Thrown {};
  using Reacting = std::function<Kiv::Reactor(SimpleTcpPduPam&, std::function<void()>)>;
  const auto on = [](auto attribute) -> Reacting {
    return [=](SimpleTcpPduPam& pam, auto action) { return Kiv::Reactor(pam.*attribute, action); };
  };
  using P = SimpleTcpPduPam;
  const Reacting points[] = {
      on(&P::readableCount),       on(&P::readable),   on(&P::rxErrors),    on(&P::rxErrorReason),
      on(&P::writableCount),       on(&P::writable),   on(&P::writeLength), on(&P::socketReadableCount),
      on(&P::socketWritableCount), on(&P::enableMode), on(&P::enabled),     on(&P::txErrors),
      on(&P::txErrorReason)};
  constexpr std::size_t kSurePoints = 11;  // the others need a failure, which may have been taken away
  const auto modeIs = [](PamEnd& end, TcpPduPamEnableMode mode) {
    if (end.pam->pendingEnableReadOnlyOrWriteOnlyMode() != mode) end.pam->enableModeIs(mode);
  };
  const auto pullOne = [](PamEnd& end) {
    if (const Pkt::Ptr pdu = end.pam->rxPkt()) end.received.push_back(pdu->stringValue());
  };
  std::string sent;
  const auto sendOne = [&sent](PamEnd& end, std::size_t size) {
    sent += pduOf(size);
    end.pam->txPktIs(pktOf(pduOf(size)));
  };
  const std::function<void(PamEnd&)> actions[] = {
      [&](PamEnd& end) { modeIs(end, tcpEnableModeNone); },
      [&](PamEnd& end) { modeIs(end, tcpEnableModeReadOnly); },
      [&](PamEnd& end) { modeIs(end, tcpEnableModeWriteOnly); },
      [&](PamEnd& end) { pullOne(end); },
      [&](PamEnd& end) { modeIs(end, tcpEnableModeNone), pullOne(end), end.open(); },
      [&](PamEnd& end) {
        modeIs(end, tcpEnableModeWriteOnly);
        modeIs(end, tcpEnableModeReadOnly);
        end.open();
      },
      [&](PamEnd& end) { end.pam->writable() ? sendOne(end, 77) : void(); },
      [](PamEnd&) { throw Thrown(); },
      [](PamEnd& end) { end.pam->cleanup(); },
      [](PamEnd& end) { end.pam = nullptr; }};
  const auto step = [](const auto& work) {
    try {
      work();
    } catch (const Thrown&) {
    }
  };
  const std::size_t before = openDescriptors();
  for (std::size_t point = 0; point < std::size(points); ++point) {
    for (std::size_t action = 0; action < std::size(actions); ++action) {
      SCOPED_TRACE(testing::Message() << "point " << point << " action " << action);
      PamEnd end(GetParam(), kSmall, kSmall);
      int ran = 0;
      sent.clear();
      const auto pullAll = [&] {
        for (Pkt::Ptr pdu; end.pam && (pdu = end.pam->rxPkt());) end.received.push_back(pdu->stringValue());
      };
      const auto settle = [&] { step([&] { end.loop.settle(); }); };
      // A client goes on where its reactor had left it.
      const auto resume = [&] {
        if (!end.pam || !end.pam->initialized()) return;
        for (int i = 0; i < 2; ++i) step([&] { end.open(); });
        for (int i = 0; i < 2; ++i) step(pullAll);
      };
      end.onReadable = Kiv::Reactor(end.pam->readableCount, pullAll);
      const Kiv::Reactor acting = points[point](*end.pam, [&] {
        if (++ran == 1 && end.pam) actions[action](end);
      });
      end.peerSends(pduOf(30) + pduOf(40));
      step([&] { end.open(); });
      settle();
      resume();
      end.peerSends(pduOf(50, 0xffff));
      step([&] {
        while (end.pam && end.pam->writable()) sendOne(end, 4000);
      });
      settle();
      resume();
      std::string arrived;
      const auto peerReads = [&] {
        char octets[65536];
        for (ssize_t n; (n = recv(end.peer(), octets, sizeof(octets), 0)) > 0; settle())
          arrived.append(octets, static_cast<std::size_t>(n));
      };
      for (int i = 0; i < 3; ++i, settle()) {
        peerReads();
        resume();
      }
      const std::string pulled = std::accumulate(end.received.begin(), end.received.end(), std::string());
      if (end.pam && end.pam->initialized()) {
        EXPECT_TRUE(pulled == pduOf(30) + pduOf(40));
        EXPECT_TRUE(end.loop.runUntil([&] {
          peerReads();
          return arrived.size() >= sent.size();
        }));
        EXPECT_TRUE(arrived == sent);
      } else {
        EXPECT_TRUE((pduOf(30) + pduOf(40)).starts_with(pulled));
        EXPECT_TRUE(sent.starts_with(arrived));
      }
      end.ends.second = nullptr;
      for (int i = 0; i < 3 && end.pam && end.pam->writable(); ++i) step([&] { sendOne(end, 21); });
      for (int i = 0; i < 3; ++i) settle();
      if (point < kSurePoints) {
        EXPECT_GT(ran, 0);
      }
    }
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_P(TcpPduPamTest, AReactorThatThrowsInsideAPullLosesNothing) {
  PamEnd end(GetParam());
  end.peerSends(pduOf(30) + pduOf(40) + pduOf(50));
  bool thrown = false;
  const Kiv::Reactor onReadable(end.pam->readable, [&] {
    if (!end.pam->readable() && !std::exchange(thrown, true)) throw std::exchange(thrown, true);
  });
  EXPECT_THROW(end.open(); end.loop.settle(), bool);
  end.pull();
  EXPECT_THAT(end.received, ElementsAre(pduOf(30), pduOf(40), pduOf(50)));
}

// Variations do not matter to these ------------------------------------------------------------------------

const Variation kPlain = variations()[0];

TEST(TcpPduPam, CalledOutOfTurnItSaysWhyOrDoesNothing) {
  const PamEnd end(kPlain);
  const auto plain = Kiv::makePtr<TcpPduPam>(connected(false).first, end.pam->fdFactory());
  EXPECT_DEATH(plain->getPduSize(), "0 && \"Need to implement getRemainingLength in a derived class\"");
  EXPECT_EQ(end.pam->getPduSize(), 20);
  const TcpPduPamReadReturn nothing = end.pam->readFromSocket();
  EXPECT_EQ(nothing.reason, "Failed to allocate packet");
  EXPECT_FALSE(nothing);
  EXPECT_DEATH(end.pam->readNextPdu(), "fd\\(\\)->notifyOnReadable\\(\\)");
  // Without a socket it is there and does nothing.
  const auto none = simpleTcpPduPamFactory(Kiv::makePtr<TcpFileDescriptor>(-1, false), end.pam->fdFactory());
  none->enableModeIs(tcpEnableModeReadWrite);
  none->handleSocketReadable();
  none->handleSocketWritable();
  EXPECT_EQ(none->readableCount(), 0u);
  end.pam->enableModeIs(tcpEnableModeReadWrite);
  end.pam->cleanup();
  end.pam->handleSocketReadable();
  end.pam->handleSocketWritable();
  EXPECT_EQ(end.pam->rxErrorReason() + end.pam->txErrorReason(), "");
}

TEST(TcpPduPam, FramingOfOnesOwnTakesTenLines) {
  const auto read = [](const std::string& path) {
    std::ifstream file(WIRL_SOURCE_DIR "/" + path);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const std::string code = read("tests/transport/OwnFraming.h");
  const std::string shown = code.substr(code.find("class BgpPam"));
  EXPECT_THAT(read("docs/framing.md"), testing::HasSubstr("```cpp\n" + shown + "```\n"));
  EXPECT_LE(std::count(shown.begin(), shown.end(), '\n'), 10);

  for (const auto& variation : variations()) {
    SCOPED_TRACE(variation);
    const Backend& backend = variation.backend;
    Loop loop(backend);
    const auto ends = connected(backend.edge);
    const auto pam = Kiv::makePtr<BgpPam>(ends.first, loop.factory());
    pam->maxPduLengthIs(4096);
    pam->readAheadIs(variation.readAhead);
    std::vector<std::string> received;
    const Kiv::Reactor onReadable(pam->readableCount, [&] {
      while (const Pkt::Ptr pdu = pam->rxPkt()) received.push_back(pdu->stringValue());
    });
    pam->enableModeIs(tcpEnableModeReadWrite);
    std::vector<std::string> sent;
    for (const std::size_t size : {19u, 23u, 4096u, 29u}) {
      std::string pdu(size, '\xff');
      pdu[16] = static_cast<char>(size >> 8);
      pdu[17] = static_cast<char>(size);
      sent.push_back(pdu);
    }
    sent.push_back(std::string(16, '\xff') + std::string("\0\5\4", 3));  // a length that is too small
    const std::string stream = std::accumulate(sent.begin(), sent.end(), std::string());
    for (std::size_t at = 0; at < stream.size(); at += 18) {
      sendAll(ends.second, std::string_view(stream).substr(at, 18));
      if (at % 5 == 0) loop.settle();
    }
    EXPECT_TRUE(loop.runUntil([&] { return received.size() >= sent.size(); }));
    EXPECT_EQ(received, sent);
    sendAll(ends.second, std::string(19, '\xff'));  // 65535
    EXPECT_TRUE(loop.runUntil([&] { return pam->rxErrorReason() == "PDU length too big"; }));
  }
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
  std::string text(100000, 'x');
  const SocketIovec iov = {text.data(), text.size()};
  end.pam->txIovIs(&iov, 0);  // nothing
  end.pam->txIovIs(&iov, 1);
  EXPECT_DEATH(end.pam->txIovIs(&iov, 1), "!txIovHolderShadow\\(\\)");
  EXPECT_DEATH(end.pam->txPktIs(small), "writable\\(\\)");
  end.peerReceives(text.size());
  end.loop.runUntil([&] { return end.pam->writable(); });
  end.fill();
  EXPECT_DEATH(end.pam->txPktIs(small), "!txPktHolderShadow\\(\\)");
  EXPECT_DEATH(end.pam->txIovIs(&iov, 1), "writable\\(\\)");
}

TEST(TcpPduPam, APacketInFlightIsSentAsItWasWhateverItsHoldersDo) {
  PamEnd end(kPlain);
  end.open();
  const Pkt::Ptr pkt = pktOf(pduOf(100));
  {
    const Fault fault(Call::send, 1, ShortCount{30});
    end.pam->txPktIs(pkt);
  }
  EXPECT_EQ(end.pam->txRemainingLength(), 70);
  pkt->newSharedHeadData(4000);  // moves to another buffer
  EXPECT_TRUE(end.peerReceives(100) == pduOf(100));
}

TEST(TcpPduPam, KeepaliveIsAppliedAndItsFailuresAreCounted) {
  PamEnd end(kPlain);
  const auto option = [&](int level, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    getsockopt(end.fd(), level, name, &value, &length);
    return value;
  };
  TraceCapture traces("TcpPduPam/0-5");
  end.pam->keepaliveOptsIs(TcpKeepaliveOptions(true, 7, 3, 5));
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 7);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL), 3);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPCNT), 5);
  end.pam->keepaliveOptsIs(keepaliveDisabled);
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 0);
  EXPECT_EQ(end.pam->tcpOptErrors(), 0u);
  EXPECT_THAT(
      traces.lines(),
      ElementsAre(
          "TcpPduPam/5:Setsockopt(): TCP Keepalive enabled ( idletime: 7, probeinterval: 3, probetime: 5",
          "TcpPduPam/5:Setsockopt(): TCP Keepalive disabled"));
  const char* const names[] = {"SO_KEEPALIVE", "TCP_KEEPIDLE", "TCP_KEEPINTVL", "TCP_KEEPCNT"};
  for (unsigned i = 0; i < 5; ++i) {
    const bool disabling = i == 4;
    const Fault fault(Call::setsockopt, disabling ? 1 : i + 1, EPERM);
    end.pam->keepaliveOptsIs(disabling ? keepaliveDisabled : TcpKeepaliveOptions(true, 8 + i, 3, 5));
    EXPECT_EQ(end.pam->tcpOptErrorReason(), std::string("setsockopt() error while setting ") +
                                                names[disabling ? 0 : i] + ": Operation not permitted");
    EXPECT_EQ(end.pam->tcpOptErrors(), i + 1);
    EXPECT_EQ(fault.calls(), disabling ? 1 : i + 1);  // the others are not tried
  }
  EXPECT_THAT(traces.lines(), Contains("TcpPduPam/0:Setsockopt failed with 1"));
  int told = 0;
  const Kiv::Reactor onReason(end.pam->tcpOptErrorReason, [&] { ++told; });
  end.pam->keepaliveOptsIs(TcpKeepaliveOptions(true, 0xfffffffe, 1, 1));
  end.pam->keepaliveOptsIs(TcpKeepaliveOptions(true, 0xffffffff, 1, 1));
  EXPECT_EQ(told, 1);
  EXPECT_EQ(end.pam->tcpOptErrorReason(), "setsockopt() error while setting TCP_KEEPIDLE: Invalid argument");
}

TEST(TcpPduPam, ValuesPrintAndParse) {
  const TcpKeepaliveOptions options(true, 7, 3, 5);
  const char* const text =
      "Value('Wirl::TcpKeepaliveOptions', ** {'idleTime': 7, 'probeInterval': 3, 'probeCount': 5})";
  EXPECT_EQ(options.stringValue(), text);
  EXPECT_EQ(TcpKeepaliveOptions(text), options);
  EXPECT_EQ(TcpKeepaliveOptions(keepaliveDisabled.stringValue()), keepaliveDisabled);
  EXPECT_THROW(TcpKeepaliveOptions("Value('Wirl::TcpKeepaliveOptions', ** {'idleTime': 7})"),
               Kiv::RangeException);
  std::ostringstream out;
  out << TcpPduPamReadReturn{TcpPduPamReadReturn::waitForMoreData, {}} << "; "
      << TcpPduPamReadReturn{TcpPduPamReadReturn::error, "why"} << "; " << tcpEnableModeWriteOnly;
  EXPECT_EQ(out.str(), "result=waitForMoreData reason=; result=error reason=why; tcpEnableModeWriteOnly");
  std::ostringstream dump;
  const PamEnd end(kPlain);
  end.pam->dumpState(dump);
  EXPECT_THAT(dump.str(), testing::StartsWith("TcpPduPam\nname"));
  EXPECT_THAT(dump.str(), testing::ContainsRegex("maxPduLength +U16 +4000\n"));
  EXPECT_THAT(dump.str(), testing::HasSubstr("enabled=1;read=0;write=0"));
}

TEST(TcpPduPam, TracesItsRoad) {
  PamEnd end(kPlain);
  TraceCapture traces("TcpPduPam/0-9");
  end.open();
  end.peerSends(pduOf(22));
  ASSERT_TRUE(end.receives(1));
  end.pam->txPktIs(pktOf(pduOf(20)));
  {
    const Fault fault(Call::send, 1, ShortCount{5});
    end.pam->txPktIs(pktOf(pduOf(20)));
  }
  end.peerReceives(40);
  end.loop.runUntil([&] { return end.pam->writable(); });
  std::string text = "abcdef";
  const SocketIovec iov[] = {{text.data(), 2}, {text.data(), 0}, {text.data() + 2, 4}};
  end.pam->txIovIs(iov, 2);
  end.pam->txIovIs(iov + 1, 1);
  {
    const Fault fault(Call::sendmsg, 1, ShortCount{3});
    end.pam->txIovIs(iov, 3);
  }
  end.pam->cleanup();
  std::ostringstream hex;
  for (const char c : pduOf(22)) hex << std::hex << (c >> 4 & 0xf) << (c & 0xf);
  std::vector<std::string> expected = {"5:Setting enabled to tcpEnableModeReadWrite",
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
                                       "8:Sent 15 bytes",
                                       "8:iovLen: 2",
                                       "8:Sent 2 bytes",
                                       "8:iovLen: 1",
                                       "8:Nothing to send",
                                       "8:iovLen: 3",
                                       "8:Partial send 3 bytes. Curr iovec: 2"};
  for (auto& line : expected) line = "TcpPduPam/" + line;
  EXPECT_EQ(traces.lines(), expected);
}

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__)
TEST(TcpPduPam, AnIdleConnectionCostsLessThanTwoKibibytes) {
  constexpr std::size_t kConnections = 240;
  const auto heap = [] {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
  };
  Pkt::Manager::cacheLimitIs(0);
  auto tried = variations();
  std::erase_if(tried, [](const auto& variation) { return variation.backend.pollLoop; });
  tried.insert(tried.begin(), tried[0]);  // once for the tables of the loop, which grow in steps
  for (std::size_t row = 0; row < tried.size(); ++row) {
    const Variation& variation = tried[row];
    SCOPED_TRACE(variation);
    struct Connection {
      TcpFileDescriptor::PtrConst peer;
      Kiv::Ptr<TcpClientSm> sm;
      Kiv::Ptr<SimpleTcpPduPam> pam;
      Kiv::Reactor onConnection, drain;
    };
    Loop loop(variation.backend);
    const auto server = listening();
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(server->descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
    std::vector<Connection> all(kConnections);
    std::size_t before = 0;
    for (std::size_t i = 0; i < kConnections; ++i) {
      if (i == kConnections / 2) before = heap();  // what all share is there by then
      Connection& own = all[i];
      own.sm = tcpClientSmFactory("client");
      own.sm->remoteAddrIs(IpGenAddr("127.0.0.1"));
      own.sm->remotePortIs(ntohs(address.sin_port));
      own.sm->edgeTriggeredIs(loop.edge());
      own.onConnection = Kiv::Reactor(own.sm->connection, [&] {
        own.pam = simpleTcpPduPamFactory(own.sm->connection(), loop.factory());
        own.pam->maxPduLengthIs(4000);
        own.pam->readAheadIs(variation.readAhead);
        own.pam->txQueueLimitIs(variation.queue);
        own.drain = Kiv::Reactor(own.pam->readableCount, [end = own.pam.get()] {
          while (const Pkt::Ptr pdu = end->rxPkt()) end->txPktIs(pdu);
        });
        own.pam->enableModeIs(tcpEnableModeReadWrite);
      });
      own.sm->enabledIs(true);
      ASSERT_TRUE(loop.runUntil([&] { return own.pam != nullptr; }));
      own.peer = TcpFileDescriptor::socketAccept(server, AddressFamily::ipv4, NamespaceName(), false);
      ASSERT_TRUE(own.peer);
      for (int rounds = 0; rounds < 2; ++rounds) {
        sendAll(own.peer, pduOf(3000));
        char octets[3000];
        std::size_t echoed = 0;
        ASSERT_TRUE(loop.runUntil([&] {
          const ssize_t n = recv(own.peer->descriptor(), octets, sizeof(octets), 0);
          return (echoed += n > 0 ? static_cast<std::size_t>(n) : 0) == sizeof(octets);
        }));
      }
    }
    const std::size_t each = (heap() - before) / (kConnections / 2);
    if (row > 0 && sizeof(void*) == 8) {
      EXPECT_LT(each, 2048u);
    }
    RecordProperty("octetsOf" + testing::PrintToString(variation), std::to_string(each));
  }
  Pkt::Manager::cacheLimitIs(1024);
}
#endif

TEST(TcpPduPam, SteadyStateAllocatesNothing) {
  Pkt::Manager::cacheLimitIs(1024);  // under AddressSanitizer nothing is kept unless asked for
  for (const auto& variation : variations()) {
    if (variation.backend.pollLoop) continue;  // that loop is a test's
    SCOPED_TRACE(variation);
    PamEnd end(variation);
    const int on = 1;  // or each round waits for a delayed acknowledgement
    for (const int socket : {end.fd(), end.peer()})
      setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
#ifdef __SANITIZE_ADDRESS__  // larger buffers are not recycled there
    end.pam->maxPduLengthIs(1500);
#else
    end.pam->maxPduLengthIs(variation.readAhead ? 65535 : 1500);
#endif
    end.drainIs(false);
    const Kiv::Reactor echo(end.pam->readableCount, [&] {
      while (const Pkt::Ptr pdu = end.pam->rxPkt()) end.pam->txPktIs(pdu);
    });
    end.open();
    const std::string burst = pduOf(20) + pduOf(1500);
    char octets[1520];
    const auto round = [&] {
      send(end.peer(), burst.data(), burst.size(), 0);
      for (std::size_t got = 0; got < burst.size(); Kiv::activityLoop().poll()) {
        const ssize_t n = recv(end.peer(), octets, sizeof(octets), 0);
        if (n > 0) got += static_cast<std::size_t>(n);
      }
    };
    for (int i = 0; i < 10; ++i) round();
    const AllocationCounter allocations;
    for (int i = 0; i < 1000; ++i) round();
    EXPECT_EQ(allocations.allocations(), 0u);
  }
}

}  // namespace
}  // namespace Wirl
