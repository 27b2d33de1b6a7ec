// SPDX-License-Identifier: Apache-2.0
// An analyser reads from a tap's captures exactly what went through it.

#include "Wirl/access/PamTap.h"

#include <deque>
#include <fstream>
#include <sstream>

#include "tests/support/Support.h"

namespace {

using Wirl::Pkt;

/// Refuses every 7th packet, drops every 5th, and changes every packet that it is given, as an owner may.
class Fickle final : public Wirl::Pam {
 public:
  using Pam::Pam;
  std::deque<Pkt::Ptr> waiting;

 private:
  void txPktIsImpl(const Pkt::Ptr& pkt) override {
    if (pkt->bytes() > 0) pkt->delSharedHeadData(1);
    ++sent_;
    if (sent_ % 7 == 0) {
      txErrnoIs(ENOBUFS);
      txErrorsInc(1);
    } else if (sent_ % 5 == 0) {
      txDropsInc(1);
    }
  }
  void doGetRxPkt() override {
    if (waiting.empty()) return;
    rxPktHolderIs(std::move(waiting.front()));
    waiting.pop_front();
  }
  unsigned sent_ = 0;
};

/// What tshark says of a capture, a line a packet.
std::string read(const std::string& capture) {
  std::string name = testing::TempDir() + "wirlTapXXXXXX";
  close(mkstemp(name.data()));
  std::ofstream(name, std::ios::binary) << capture;
  Shell tshark("tshark -n -r " + name +
               " -T fields -E separator=';' -e frame.interface_name -e frame.packet_flags_direction"
               " -e frame.len -e frame.cap_len -e vlan.id -e frame.drop_count -e frame.comment 2>/dev/null");
  std::string text = tshark.rest();
  EXPECT_EQ(tshark.status(), 0) << text;
  EXPECT_EQ(Shell("tcpdump -n -r " + name).status(), 0);  // reads the same file
  unlink(name.c_str());
  return text;
}

TEST(PamTapTest, AnAnalyserReadsWhatWentThrough) {
  std::mt19937 random(17);
  const auto pam = Kiv::makePtr<Fickle>("port 1");
  const auto tap = Kiv::makePtr<Wirl::PamTap>("tap", pam);
  std::ostringstream capture;
  tap->snapLengthIs(200);
  tap->outIs(capture);
  tap->ringIs(10);
  const Wirl::PamTap::Chooses notFull = [](const void*, const Pkt& pkt) { return pkt.bytes() != 1000; };
  tap->choosesIs(notFull);
  std::deque<std::string> expected;
  Kiv::U32 readable = 0, passed = 0, lost = 0;
  const Kiv::Reactor onReadable(tap->readableCount, [&] { ++readable; });
  for (unsigned i = 1, sent = 0; i <= 200; ++i) {
    const auto pkt = Wirl::globalPktManager()->newPkt();
    const Kiv::U32 bytes = i % 9 == 0 ? 1000 : 60 + static_cast<Kiv::U32>(random() % 300);
    std::string frame(bytes, '\0');
    frame[12] = '\x88';  // a type for experiments
    frame[13] = '\xb5';
    pkt->stringValueIs(frame);
    const bool tagged = random() % 2 == 0, sends = random() % 3 != 0;
    if (tagged) pkt->newSeparateVlanTag(static_cast<Kiv::U16>(i), 0x8100);
    if (i % 11 == 0) {  // the next one that is shown tells of it
      pam->rxDropsIs(pam->rxDrops() + i);
      lost += i;
    }
    std::string comment;
    if (sends) {
      ++sent;
      comment = sent % 7 == 0 ? "error: No buffer space available" : sent % 5 == 0 ? "dropped: no room" : "";
      tap->txPktIs(pkt);
    } else {
      pam->waiting.push_back(pkt);
      pam->readableCountInc(1);
      EXPECT_EQ(tap->rxPkt(), pkt);
      EXPECT_FALSE(tap->rxPkt());
    }
    if (bytes == 1000) {
      ++passed;
      continue;
    }
    const Kiv::U32 whole = bytes + (tagged ? 4 : 0);
    expected.push_back("port 1;0x0000000" + std::string(sends ? "2;" : "1;") + std::to_string(whole) + ";" +
                       std::to_string(std::min(whole, 200u)) + ";" + (tagged ? std::to_string(i) : "") + ";" +
                       (lost > 0 ? std::to_string(lost) : "") + ";" + comment + "\n");
    lost = 0;
  }
  tap->outDel();
  const auto joined = [&](std::size_t last) {
    std::string all;
    for (std::size_t i = expected.size() - last; i < expected.size(); ++i) all += expected[i];
    return all;
  };
  EXPECT_EQ(read(capture.str()), joined(expected.size()));
  EXPECT_EQ(tap->shown(), expected.size());
  EXPECT_EQ(tap->passedBy(), passed);
  EXPECT_EQ(tap->troubles(), pam->txErrors() + pam->txDrops());
  EXPECT_EQ(readable, pam->readableCount());
  std::ostringstream ring;
  tap->ringWrite(ring);
  EXPECT_EQ(read(ring.str()), joined(10));
}

}  // namespace
