// SPDX-License-Identifier: Apache-2.0
// PDUs by the hundred thousand, with everything that a socket may do to them.
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "tests/support/FaultInjection.h"
#include "tests/transport/TcpPdus.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__
#endif
#endif

namespace Wirl {
namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr unsigned kPdus = 7000;
#else
constexpr unsigned kPdus = 84000;  // a million in the twelve variations
#endif

using Random = std::mt19937;

std::size_t upTo(Random& random, std::size_t max) {
  return random() % (max + 1);
}

/// A stretch of the stream: mostly a few PDUs, at times some octets or a lot.
std::size_t chunk(Random& random) {
  const std::size_t kind = upTo(random, 15);
  return 1 + upTo(random, kind == 0 ? 3 : kind == 1 ? 60000 : 6000);
}

/// The kernel on a bad day, which never says that there is nothing to read while there is (`honest`).
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
  SimpleTcpPduPam& pam = *end.pam;
  std::size_t echoed = 0;
  std::size_t wrong = 0;
  std::vector<std::string> inFlight;  // the pieces' memory, until they are sent
  bool pumping = false;
  const auto echo = [&] {
    if (std::exchange(pumping, true)) return;
    while (pam.writable()) {
      const Pkt::Ptr pdu = pam.rxPkt();
      if (!pdu) break;
      const std::size_t begin = echoed == 0 ? 0 : ends[echoed - 1];
      wrong += echoed >= kPdus ||
               pdu->stringValue() != std::string_view(stream).substr(begin, ends[echoed] - begin);
      ++echoed;
      if (upTo(random, 9) != 0) {
        pam.txPktIs(pdu);
      } else {
        inFlight = {pdu->stringValue(), "", ""};
        inFlight[1] = inFlight[0].substr(7);
        const SocketIovec pieces[] = {
            {inFlight[0].data(), 7}, {inFlight[2].data(), 0}, {inFlight[1].data(), inFlight[1].size()}};
        pam.txIovIs(pieces, 3);
      }
      if (upTo(random, 30) == 0) pam.txFlush();
      if (upTo(random, 200) == 0) pam.readOnePktOnlyIs(!pam.readOnePktOnly());
      if (upTo(random, 400) == 0) pam.readAheadIs(!pam.readAhead());
      if (upTo(random, 200) == 0) {
        constexpr TcpPduPamEnableMode kModes[] = {tcpEnableModeNone, tcpEnableModeReadOnly,
                                                  tcpEnableModeWriteOnly};
        pam.enableModeIs(kModes[upTo(random, 2)]);
        pam.enableModeIs(tcpEnableModeReadWrite);
      }
    }
    pumping = false;
  };
  end.drainIs(false);
  const Kiv::Reactor onReadable(pam.readableCount, echo), onWritable(pam.writableCount, echo);
  const Fault receiving(Call::recv, [&] { return mishap(random, edge); });
  const Fault sending(Call::send, [&] { return mishap(random, false); });
  const Fault gathering(Call::sendmsg, [&] { return mishap(random, false); });
  end.open();

  // The peer goes by read and write, which nothing is done to.
  std::string arrived;
  std::vector<char> octets(60001);
  std::size_t sent = 0;
  const bool done = end.loop.runUntil(
      [&] {
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
      },
      60);
  EXPECT_TRUE(done);
  EXPECT_EQ(wrong, 0u);
  EXPECT_EQ(echoed, kPdus);
  EXPECT_TRUE(arrived == stream);
  EXPECT_EQ(pam.rxErrorReason(), "");
  EXPECT_EQ(pam.txErrorReason(), "");
  EXPECT_EQ(pam.rxPktHolderShadow(), nullptr);
  EXPECT_EQ(pam.txRemainingLength() + pam.txQueued(), 0u);
}

}  // namespace
}  // namespace Wirl
