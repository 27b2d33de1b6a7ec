// SPDX-License-Identifier: Apache-2.0 PDUs by the hundred thousand, with everything that a socket may do to
// them, and streams that end in every way.
#include <netinet/tcp.h>

#include <cstring>

#include "tests/transport/OwnFraming.h"
#include "tests/transport/TcpPdus.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__
#endif
#endif

namespace Wirl {
namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr unsigned kPdus = 3000;
#else
constexpr unsigned kPdus = 10000;
#endif

using Random = std::mt19937;

std::size_t upTo(Random& random, std::size_t max) {
  return random() % (max + 1);
}

/// The length of a write or read: mostly a few PDUs, at times some octets or a lot.
std::size_t chunk(Random& random) {
  const std::size_t kind = upTo(random, 15);
  return 1 + upTo(random, kind == 0 ? 3 : kind == 1 ? 60000 : 6000);
}

/// The kernel on a bad day. If `honest`, it never claims to have nothing to read.
Mishap mishap(Random& random, bool honest) {
  switch (upTo(random, 23)) {
    case 0:
      return {EINTR};
    case 1:
      return honest ? Mishap() : Mishap{EAGAIN};
    case 2:
      return {0, 1};
    case 3:
      return {0, 1 + upTo(random, 60)};
    default:
      return {};
  }
}

class TcpPduStreamTest : public testing::TestWithParam<Variation> {};
INSTANTIATE_TEST_SUITE_P(Variations, TcpPduStreamTest, testing::ValuesIn(variations()),
                         testing::PrintToStringParamName());

TEST_P(TcpPduStreamTest, NoPduIsLostDuplicatedReorderedOrSplit) {
  const bool edge = GetParam().backend.edge;
  constexpr unsigned kSeed = 20260;
  SCOPED_TRACE(kSeed);
  Random random(kSeed);

  // The peer sends this, and must receive the same.
  std::string stream;
  std::vector<std::size_t> ends;
  while (ends.size() < kPdus) {
    const std::size_t kind = upTo(random, 99);
    std::size_t size = 20 + upTo(random, kind == 0 ? 3980 : 60);
    const std::size_t field = kind == 1 ? upTo(random, 19) : size;  // below the header: the header alone
    if (kind == 1) size = 20;
    std::string pdu(size, '\0');
    const unsigned serial = static_cast<unsigned>(ends.size());
    for (std::size_t i = 4; i < size; ++i) pdu[i] = static_cast<char>(random());
    std::memcpy(&pdu[4], &serial, sizeof(serial));
    pdu[2] = static_cast<char>(field >> 8);
    pdu[3] = static_cast<char>(field);
    stream += pdu;
    ends.push_back(stream.size());
  }

  PamEnd end(GetParam(), 20000, 20000);
  const int on = 1;
  for (const int fd : {end.fd(), end.peer()}) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  TcpPduPam& pam = *end.pam;
  std::size_t echoed = 0;
  std::size_t wrong = 0;
  std::string inFlight;  // the pieces' memory, until they are sent
  bool pumping = false;
  const auto echo = [&] {
    if (std::exchange(pumping, true)) return;
    const struct Pumped {
      bool& is;
      ~Pumped() { is = false; }
    } pumped{pumping};
    while (pam.writable()) {
      const Pkt::Ptr pdu = pam.rxPkt();
      if (!pdu) break;
      const std::size_t begin = echoed == 0 ? 0 : ends[echoed - 1];
      wrong += echoed >= kPdus ||
               pdu->stringValue() != std::string_view(stream).substr(begin, ends[echoed] - begin);
      ++echoed;
      if (upTo(random, 9) != 0) {
        pam.txPktIs(pdu);
        if (upTo(random, 9) == 0) pdu->newSharedHeadData(4000);  // the sender's own; what is in flight stays
      } else {
        // Adjacent pieces, some of them empty, at times more than one call takes.
        inFlight = pdu->stringValue();
        std::vector<SocketIovec> pieces;
        const std::size_t most = upTo(random, 3) == 0 ? inFlight.size() : 2;
        for (std::size_t at = 0; at < inFlight.size(); at += pieces.back().iov_len) {
          pieces.push_back({&inFlight[at], std::min(upTo(random, most), inFlight.size() - at)});
        }
        pam.txIovIs(pieces.data(), static_cast<U16>(pieces.size()));
      }
      if (upTo(random, 30) == 0) pam.txFlush();
      if (upTo(random, 200) == 0) pam.readOnePktOnlyIs(!pam.readOnePktOnly());
      if (upTo(random, 400) == 0) pam.readAheadIs(!pam.readAhead());
      if (upTo(random, 400) == 0) pam.rxBudgetIs(static_cast<U32>(upTo(random, 5)));
      if (upTo(random, 200) == 0) {
        constexpr TcpPduPamEnableMode kModes[] = {tcpEnableModeNone, tcpEnableModeReadOnly,
                                                  tcpEnableModeWriteOnly};
        pam.enableModeIs(kModes[upTo(random, 2)]);
        pam.enableModeIs(tcpEnableModeReadWrite);
      }
    }
  };
  end.drainIs(false);
  const Kiv::Reactor onReadable(pam.readableCount, echo), onWritable(pam.writableCount, echo);
  struct Thrown {};
  bool thrown = false;
  const Kiv::Reactor throws(pam.readable, [&] {
    if (upTo(random, 300) == 0) throw Thrown();
  });
  const Fault receiving(Call::recv, [&] { return mishap(random, edge); });
  const Fault sending(Call::send, [&] { return mishap(random, false); });
  const Fault gathering(Call::sendmsg, [&] { return mishap(random, false); });

  // The peer goes by read and write, which nothing is done to.
  std::string arrived;
  std::vector<char> octets(60001);
  std::size_t sent = 0;
  const auto done = [&] {
    if (std::exchange(thrown, false) || pam.readable()) echo();  // the pull that a reactor has ended
    if (upTo(random, 3) != 0) {
      const std::size_t count = std::min(chunk(random), stream.size() - sent);
      const ssize_t taken = write(end.peer(), stream.data() + sent, count);
      if (taken > 0) sent += static_cast<std::size_t>(taken);
    }
    if (upTo(random, 3) != 0) {
      const ssize_t got = read(end.peer(), octets.data(), chunk(random));
      if (got > 0) arrived.append(octets.data(), static_cast<std::size_t>(got));
    }
    return arrived.size() >= stream.size() || wrong > 0 || !pam.initialized();
  };
  for (;;) {
    try {
      end.open();  // a reactor may have thrown between two modes
      end.loop.runUntil(done, 60);
      break;
    } catch (const Thrown&) {
      thrown = true;
    }
  }
  EXPECT_TRUE(done());
  EXPECT_EQ(wrong, 0u);
  EXPECT_EQ(echoed, kPdus);
  EXPECT_TRUE(arrived == stream);
  EXPECT_EQ(pam.rxErrorReason(), "");
  EXPECT_EQ(pam.txErrorReason(), "");
  EXPECT_EQ(pam.rxPktHolderShadow(), nullptr);
  EXPECT_EQ(pam.txRemainingLength() + pam.txQueued(), 0u);
}

/// Calls the test in the middle of a read.
class BusyFraming final : public WideLengthPam {
 public:
  using WideLengthPam::WideLengthPam;
  U16 getPduSize() override {
    if (asked) asked();
    return WideLengthPam::getPduSize();
  }
  std::function<void()> asked;
};

TEST_P(TcpPduStreamTest, AllThatArrivedIsHandedOverBeforeTheEndIsTold) {
  Random random(7);
  for (int round = 0; round < 400; ++round) {
    SCOPED_TRACE(round);
    enum Ending : std::size_t { closed, cut, overlong, wide, wraps, reset, cleanedUp };
    const auto ending = static_cast<Ending>(upTo(random, cleanedUp));
    PamEnd end(GetParam());
    const auto pam = end.pamIs<BusyFraming>(GetParam());
    const std::size_t budget = upTo(random, 3);
    pam->rxBudgetIs(static_cast<U32>(budget));
    pam->readOnePktOnlyIs(upTo(random, 4) == 0);
    pam->maxPduLengthIs(ending == wide || ending == wraps ? 65535 : 100);
    // The client pulls until null, or stops early and pulls the rest from elsewhere.
    const bool impatient = upTo(random, 3) == 0;
    std::size_t told = ~std::size_t{0};
    std::string reason, rest;
    const Kiv::Reactor onEnd(pam->rxErrorReason, [&] {
      told = end.received.size();
      reason = end.pam->rxErrorReason();
      if (pam->rxPktHolderShadow()) rest = pam->rxPktHolderShadow()->stringValue();
      end.pam = nullptr;
    });
    U32 event = 0;
    std::size_t ofEvent = 0;
    const auto take = [&](bool all) {
      int taken = 0;
      do {
        const Pkt::Ptr pdu = end.pam->rxPkt();
        if (!pdu) break;
        end.received.push_back(pdu->stringValue());
        if (std::exchange(event, pam->socketReadableCount()) != pam->socketReadableCount()) ofEvent = 0;
        if (pam->readOnePktOnly()) {
          EXPECT_EQ(++taken, 1);
        } else if (budget > 0 && !GetParam().backend.pollLoop) {
          EXPECT_LE(++ofEvent, budget);
        }
      } while (all);
    };
    end.onReadable = Kiv::Reactor(pam->readableCount, [&] { take(!impatient); });
    std::vector<std::string> sent;
    std::string stream;
    for (std::size_t i = upTo(random, 6); i > 0; --i) {
      const std::size_t body = upTo(random, 96);
      sent.push_back(std::string{'\0', '\0', '\0', static_cast<char>(body)} + std::string(body, 'x'));
      stream += sent.back();
    }
    if (sent.empty() && ending == cleanedUp) continue;
    std::size_t questions = sent.empty() ? 0 : upTo(random, sent.size() - 1);
    pam->asked = [&, raw = pam.get()] {
      if (ending == cleanedUp && questions-- == 0) raw->cleanup();
      if (upTo(random, 20) == 0) {
        raw->enableModeIs(tcpEnableModeNone);
        raw->enableModeIs(tcpEnableModeReadWrite);
      }
    };
    if (ending == cut) stream += std::string("\0\0\0\x09half", 8);
    if (ending == overlong) stream += std::string("\0\0\0\x61", 4);
    if (ending == wide) stream += "\xff\xff\xff\xfe";
    if (ending == wraps) stream += std::string("\0\0\xff\xfc", 4);  // 65,536 with its header
    // All at once, before anybody reads; or in pieces.
    const bool atOnce = upTo(random, 1) == 0;
    if (!atOnce) end.open();
    for (std::size_t at = 0; at < stream.size();) {
      const std::size_t count = atOnce ? stream.size() : 1 + upTo(random, 60);
      end.peerSends(std::string_view(stream).substr(at, count));
      at += count;
      if (!atOnce) end.loop.settle();
    }
    if (ending <= cut) shutdown(end.peer(), SHUT_WR);
    if (ending == reset) {
      end.loop.settle();  // a reset takes what waits in the socket
      if (!atOnce) end.loop.runUntil([&] { return impatient || end.received.size() == sent.size(); });
      resetAtClose(end.peer());
      end.ends.second = nullptr;
    }
    if (atOnce) end.open();
    EXPECT_TRUE(end.loop.runUntil([&] {
      if (impatient && end.pam) take(true);
      return !end.pam || !pam->initialized();
    }));
    const bool lossy = ending == reset || ending == cleanedUp;
    sent.resize(lossy ? std::min(sent.size(), end.received.size()) : sent.size());
    EXPECT_EQ(end.received, sent);
    if (ending == cleanedUp) continue;
    EXPECT_EQ(told, sent.size());
    EXPECT_EQ(reason, ending <= cut     ? "Connection closed by peer"
                      : ending == reset ? "Recv failed with " + std::to_string(ECONNRESET)
                                        : "PDU length too big");
    EXPECT_EQ(pam->rxErrors(), ending <= cut ? 0u : 1u);
    EXPECT_EQ(pam->rxErrno(), ending <= cut ? 0 : ending == reset ? ECONNRESET : EMSGSIZE);
    // What is too big for us can be named to the peer.
    EXPECT_EQ(rest, ending <= cut || ending == reset ? "" : stream.substr(stream.size() - 4));
    const U32 events = pam->socketReadableCount();
    end.loop.settle();
    EXPECT_EQ(pam->socketReadableCount(), events);
  }
}

}  // namespace
}  // namespace Wirl
