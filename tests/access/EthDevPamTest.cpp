// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/EthDevPam.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <netinet/in.h>

#include "Wirl/access/ReqResponseRawTxPam.h"
#include "Wirl/access/TapPam.h"
#include "tests/access/Wire.h"

namespace Wirl {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

const std::string kTo = "\x02\x00\x00\x00\x00\x01"s;  // nobody's
const std::string kFrom = "\x02\x00\x00\x00\x00\x02"s;
const std::string kType = "\x88\xb5"s;  // for local experiments (IEEE 802)
const EthAddr kLldp("01:80:c2:00:00:0e");

/// A frame with `payload`, padded to the minimum length.
std::string frameOf(const std::string& payload, const std::string& to = kTo,
                    const std::string& type = kType) {
  std::string frame = to + kFrom + type + payload;
  if (frame.size() < 60) frame.resize(60);
  return frame;
}

std::string outputOf(const NetNs& ns, const std::string& command) {
  return Shell("ip netns exec " + ns.name() + " " + command).rest();
}

class EthDevPamTest : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    if (!IsSkipped() && !HasFailure()) wire = &shared();
  }
  static Kiv::Ptr<EthDevPam> pamIn(const NetNs& ns, U16 ethType = 0x88b5) {
    auto pam = ethDevPamFactory("pam", "veth1", Wire::nameOf(ns));
    pam->ethTypeIs(ethType);
    return pam;
  }
  static Kiv::Ptr<EthDevPam> opened(const NetNs& ns) {
    auto pam = pamIn(ns);
    pam->enabledIs(true);
    return pam;
  }
  static Pkt::Ptr next(Pam& pam) {
    Pkt::Ptr pkt;
    Kiv::activityLoop().runUntil([&] { return (pkt = pam.rxPkt()) != nullptr; }, 2);
    return pkt;
  }
  static std::string receive(const Kiv::Ptr<EthDevPam>& pam) {
    const Pkt::Ptr pkt = next(*pam);
    return pkt ? std::string(pkt->stringValueMaybeWithVlan()) : "nothing";
  }

  const Wire* wire = nullptr;
};

/// Whatever way frames are sent, they arrive once, in order, with their tags and metadata, whatever way they
/// are received. A fixed seed draws the ways.
TEST_F(EthDevPamTest, EveryWayToSendMeetsEveryWayToReceive) {
  std::mt19937 draw(1);
  const auto lot = [&](U32 below) { return static_cast<U32>(draw() % below); };
  struct Frame {
    std::string octets;
    U16 tci = 0, tpid = 0;
    U8 pktType = 0;
  };
  Kiv::Ptr<EthDevPam> red, blue;
  U64 sent = 0, received = 0;
  std::vector<std::pair<Pkt::Ptr, std::string>> held;  // clients may keep what they receive
  for (int round = 0; round < 200 && !HasFailure(); ++round) {
    if (round % 20 == 0) {
      for (auto* const end : {&red, &blue}) {
        *end = pamIn(end == &red ? wire->red : wire->blue);
        (*end)->enableRxOffloadIs(lot(2) == 0);
      }
      red->rxRingBytesIs(lot(2));
      red->maxRxPktDataIs(lot(3) == 0 ? 40 : 1518);
      red->enabledIs(true);
      blue->enabledIs(true);
      EXPECT_EQ(red->ifIndex(), wire->indexRed);
      EXPECT_THAT(outputOf(wire->red, "ip link show veth1"), HasSubstr(red->ethAddr().stringValue()));
      sent = received = 0;
    }
    const std::string own(reinterpret_cast<const char*>(red->ethAddr().octets().data()), 6);
    const std::pair<std::string, U8> to[] = {{own, PACKET_HOST},
                                             {"\xff\xff\xff\xff\xff\xff", PACKET_BROADCAST},
                                             {"\x01\x80\xc2\x00\x00\x0e"s, PACKET_MULTICAST},
                                             {kTo, PACKET_OTHERHOST}};
    red->socketReadLimitIs(static_cast<U8>(1 + lot(8)));
    std::vector<Frame> frames(1 + lot(12));
    std::vector<Pkt::Ptr> pkts;
    for (Frame& frame : frames) {
      const auto& [address, pktType] = to[lot(4)];
      frame.octets =
          frameOf(std::string(lot(4) == 0 ? lot(1501) : lot(100), static_cast<char>('a' + lot(26))), address);
      frame.pktType = pktType;
      const U32 inPrivate = lot(2) * lot(20);
      const Pkt::Ptr pkt = pktOf(frame.octets.substr(inPrivate));
      if (inPrivate > 0) std::copy_n(frame.octets.data(), inPrivate, pkt->newPrivateHeadData(inPrivate));
      if (lot(2) == 0) {
        frame.tci = static_cast<U16>(lot(0x10000));
        frame.tpid = lot(2) == 0 ? 0x8100 : 0x88a8;
        pkt->newSeparateVlanTag(frame.tci, frame.tpid);
      }
      pkts.push_back(pkt);
    }
    if (lot(2) == 0) {
      EXPECT_EQ(blue->txPktBulk(pkts), pkts.size());
    } else {
      for (const Pkt::Ptr& pkt : pkts) blue->txPktIs(pkt);
    }
    EXPECT_EQ(blue->txPktCount(), sent += pkts.size());
    std::size_t got = 0;
    const auto take = [&](const Pkt::Ptr& pkt, U8 pktType, U32 frameBytes) {
      ASSERT_LT(got, frames.size());
      const Frame& wanted = frames[got++];
      const std::string octets = wanted.octets.substr(0, red->maxRxPktData());
      ASSERT_EQ(std::string(pkt->stringValue()), octets) << "round " << round;
      ASSERT_EQ(pkt->tciPresent(), wanted.tpid != 0);
      ASSERT_EQ(pkt->tciPresent() ? pkt->tciField() : 0, wanted.tci);
      ASSERT_EQ(pkt->tciPresent() ? pkt->vlanTpid() : 0, wanted.tpid);
      ASSERT_EQ(pktType, wanted.pktType);
      ASSERT_EQ(frameBytes, wanted.octets.size());
      if (lot(8) == 0) held.emplace_back(pkt, octets);
    };
    const Kiv::Reactor onReadable(red->readableCount, [&] {
      if (lot(2) == 0) {
        while (const S32 count = red->rxPktBulk()) {
          for (U16 i = 0; i < count && !HasFatalFailure(); ++i) {
            const EthRxMetadata metadata = red->rxMetadata(i);
            take(red->savedPacket(i), metadata.pktType, metadata.frameBytes);
          }
          EXPECT_EQ(red->rxMetadata(static_cast<U16>(count)).frameBytes, 0u);
        }
      }
      while (const Pkt::Ptr pkt = HasFatalFailure() ? nullptr : red->rxPkt()) {
        take(pkt, red->rxPktType(), red->rxFrameBytes());
      }
    });
    Kiv::activityLoop().runUntil([&] { return got == frames.size() || HasFailure(); }, 5);
    EXPECT_EQ(got, frames.size());
    EXPECT_EQ(red->rxPktCount(), received += got);
    EXPECT_EQ(blue->rxPkt(), nullptr);  // not its own
    for (const auto& [pkt, octets] : held) EXPECT_EQ(std::string(pkt->stringValue()), octets);
    if (held.size() > 30) held.clear();
  }
  EXPECT_EQ(blue->txErrors(), 0u);
}

TEST_F(EthDevPamTest, AnAnalyserSeesTheTagsAndWhatIsTooShortIsRefused) {
  const auto blue = opened(wire->blue);
  Shell tcpdump("timeout 10 ip netns exec " + wire->red.name() +
                " tcpdump -U -l -e -n -i veth1 -c 2 ether src 02:00:00:00:00:02");
  for (std::string line = "-"; !line.empty() && line.find("listening") == line.npos;) line = tcpdump.line();
  const std::pair<U16, U16> tags[] = {{0x8100, 0x2005}, {0x88a8, 0xffff}};
  for (const auto& [tpid, tci] : tags) {
    const Pkt::Ptr pkt = pktOf(frameOf("tagged"));
    pkt->newSeparateVlanTag(tci, tpid);
    blue->txPktIs(pkt);
  }
  EXPECT_THAT(tcpdump.rest(),
              testing::AllOf(HasSubstr("802.1Q (0x8100), length 64: vlan 5, p 1, ethertype Unknown (0x88b5)"),
                             HasSubstr("802.1Q-QinQ (0x88a8), length 64: vlan 4095, p 7")));
  const Pkt::Ptr stub = pktOf("eleven byte");
  stub->newSeparateVlanTag(1, 0x8100);
  for (const Pkt::Ptr& refused : {stub, pktOf("too short")}) {
    blue->txPktIs(refused);
    EXPECT_EQ(blue->txErrno(), EINVAL);
  }
  EXPECT_EQ(blue->txErrors(), 2u);
}

TEST_F(EthDevPamTest, TheKernelTellsApartWhatIsReceived) {
  const auto blue = opened(wire->blue);
  const auto red = pamIn(wire->red);
  // Frames whose payload begins with y.
  red->rxFilterIs({{U8{0}, IpFilter(BPF_LD | BPF_B | BPF_ABS, 0, 0, 14)},
                   {U8{1}, IpFilter(BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 'y')},
                   {U8{2}, IpFilter(BPF_RET | BPF_K, 0, 0, 0xffff)},
                   {U8{3}, IpFilter(BPF_RET | BPF_K, 0, 0, 0)}});
  {
    const Fault during(Call::bind, 1, [&] { blue->txPktIs(pktOf(frameOf("no, early"))); });
    red->enabledIs(true);
  }
  int right = 0, wrong = 0;
  const Kiv::Reactor drain(red->readableCount, [&] {
    while (const Pkt::Ptr pkt = red->rxPkt()) (pkt->rawByte(14) == 'y' ? right : wrong) += 1;
  });
  const auto arrive = [&](int wantedRight, int wantedWrong) {
    Kiv::activityLoop().runUntil([&] { return right >= wantedRight && wrong >= wantedWrong; }, 2);
    EXPECT_EQ(right, wantedRight);
    return wrong;
  };
  for (int i = 0; i < 200; ++i) blue->txPktIs(pktOf(frameOf(i % 20 == 0 ? "yes" : "no")));
  const Pkt::Ptr otherType = pktOf(frameOf("yes", kTo, "\x88\xcc"));
  blue->txPktIs(otherType);
  EXPECT_EQ(arrive(10, 0), 0);
  red->rxFilterIs({});
  blue->txPktIs(pktOf(frameOf("anything")));
  EXPECT_EQ(arrive(10, 1), 1);
  red->ethTypeIs(EthDevPam::kAllEthTypes);
  blue->txPktIs(otherType);
  arrive(11, 1);
  EXPECT_EQ(failureOf([&] {
              red->rxFilterIs({{U8{0}, IpFilter(0xffff, 0, 0, 0)}});
            }),
            "setsockopt(SO_ATTACH_FILTER) 22");
  EXPECT_EQ(red->fileDesc()->descriptor(), -1);
  EXPECT_EQ(red->rxPktBulk(), 0);
  const auto tap = pamIn(wire->blue);
  tap->rxOutgoingIs(true);
  tap->enabledIs(true);
  blue->txPktIs(pktOf(frameOf("out")));
  EXPECT_EQ(receive(tap), frameOf("out"));
  EXPECT_EQ(tap->rxPktType(), PACKET_OUTGOING);
}

TEST_F(EthDevPamTest, TheDeviceIsFoundOrNamedAndTakesInWhatItIsAskedTo) {
  for (const char* device : {"nosuchdevice", "", "a name longer than any device's"}) {
    const auto other = ethDevPamFactory("pam", device, Wire::nameOf(wire->red));
    EXPECT_EQ(failureOf([&] { other->enabledIs(true); }), "ioctl(SIOCGIFINDEX) 19") << device;
  }
  const auto red = pamIn(wire->red);
  int told = 0;
  const Kiv::Reactor onIndex(red->ifIndex, [&] { ++told; });
  const Kiv::Reactor onAddress(red->ethAddr, [&] { ++told; });
  {
    const Fault fault(Call::bind, 1, ENOMEM);
    EXPECT_EQ(failureOf([&] { red->enabledIs(true); }), "bind 12");
  }
  EXPECT_EQ(red->ifIndex() + static_cast<U32>(told), 0u);
  const auto promiscuityIs = [&](const char* count) {
    EXPECT_THAT(outputOf(wire->red, "ip -d link show veth1"), HasSubstr("promiscuity "s + count + " "));
  };
  const auto groups = [&] { return outputOf(wire->red, "ip maddr show dev veth1"); };
  red->promiscuousIs(true);
  promiscuityIs("0");
  red->enabledIs(true);
  EXPECT_EQ(told, 2);
  promiscuityIs("1");
  red->promiscuousIs(false);
  promiscuityIs("0");
  red->allMulticastIs(true);
  EXPECT_EQ(red->handleMembership(kLldp, true), 0);
  EXPECT_THAT(groups(), HasSubstr("01:80:c2:00:00:0e"));
  EXPECT_EQ(red->handleMembership(kLldp, false), 0);
  EXPECT_THAT(groups(), testing::Not(HasSubstr("01:80:c2:00:00:0e")));
  EXPECT_EQ(red->handleMembership(EthAddr("02:00:5e:00:01:07"), true), 0);
  red->enabledIs(false);
  EXPECT_EQ(red->handleMembership(kLldp, true), ENODEV);
}

TEST_F(EthDevPamTest, RawTxPamsSendByInterfaceIndexAndTellOnceWhenThereIsRoom) {
  const Wire& slow = own();
  const Veth second(slow.red, slow.blue, 2);
  const auto red1 = opened(slow.red);
  const auto red2 = ethDevPamFactory("pam", "veth2", Wire::nameOf(slow.red));
  red2->ethTypeIs(0x88b5);
  red2->enabledIs(true);
  const auto raw = reqResponseRawTxPamFactory("raw", Wire::nameOf(slow.blue));
  raw->requestWritable();
  raw->txPktIs(pktOf(frameOf("disabled")));
  raw->enabledIs(true);
  for (const U32 nowhere : {0u, 0x7fffffffu}) {
    raw->txIfIndexIs(nowhere);
    raw->txPktIs(pktOf(frameOf("nowhere")));
    EXPECT_EQ(raw->txErrno(), ENXIO);
  }
  EXPECT_EQ(raw->txErrors(), 3u);
  raw->txIfIndexIs(slow.indexBlue);
  raw->txPktIs(pktOf(frameOf("one")));
  raw->txIfIndexIs(runIn(slow.blue, [] { return if_nametoindex("veth2"); }));
  raw->txPktIs(pktOf(frameOf("two")));
  EXPECT_EQ(receive(red1), frameOf("one"));
  EXPECT_EQ(receive(red2), frameOf("two"));
  EXPECT_EQ(raw->txPktCount(), 2u);
  EXPECT_EQ(raw->rxPkt(), nullptr);

  // Through a device that sends 100 kbit a second, the socket is soon full.
  EXPECT_EQ(outputOf(slow.blue, "tc qdisc add dev veth2 root tbf rate 100kbit burst 2000 limit 1000000"), "");
  const int small = 1;
  setsockopt(raw->fileDesc()->descriptor(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
  for (int i = 0; i < 100 && raw->txDrops() == 0; ++i) raw->txPktIs(pktOf(frameOf(std::string(1000, 'x'))));
  EXPECT_EQ(raw->txErrno(), EAGAIN);
  TraceCapture traces("ReqResponsePamFdSm/0");
  for (U32 armings = 1; armings <= 2; ++armings) {
    raw->requestWritable();
    raw->requestWritable();
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return raw->writableCount() == 1 + armings; }, 3));
    Kiv::activityLoop().runFor(0.01);
    EXPECT_EQ(raw->writableCount(), 1 + armings);
  }
  EXPECT_EQ(traces.lines(),
            std::vector<std::string>(2, "ReqResponsePamFdSm/0:ReqResponsePamFdSm::handleWritable"));
}

TEST_F(EthDevPamTest, TheDeviceMayVanishAndComeBackAndThePamIsThereAgain) {
  const Wire& mine = own();
  for (const U32 ring : {0u, 1u}) {
    const auto red = pamIn(mine.red);
    red->rxRingBytesIs(ring);
    red->enabledIs(true);
    const U32 former = red->ifIndex();
    for (const bool join : {true, true, false}) {  // one of the two stays
      EXPECT_EQ(red->handleMembership(kLldp, join), 0);
    }
    U32 events = 0;
    const Kiv::Reactor drain(red->readableCount, [&] {
      ++events;
      while (red->rxPkt()) {
      }
    });
    mine.red.ip("link set veth1 down");
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return red->rxErrors() == 1; }, 2));
    EXPECT_TRUE(red->devPresent());
    mine.red.ip("link set veth1 up");
    mine.red.ip("link del veth1");
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return !red->devPresent(); }, 2));
    red->txPktIs(pktOf(frameOf("gone")));
    EXPECT_EQ(red->txErrno(), ENXIO);
    Kiv::activityLoop().runFor(0.15);  // the Pam looks for the device in vain
    events = 0;
    Kiv::activityLoop().runFor(0.02);
    EXPECT_EQ(events, 0u);  // the loop has come to rest
    EXPECT_TRUE(red->enabled());
    const Veth again(mine.red, mine.blue);
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return red->devPresent(); }, 2));
    EXPECT_NE(red->ifIndex(), former);
    EXPECT_THAT(outputOf(mine.red, "ip maddr show dev veth1"), HasSubstr("01:80:c2:00:00:0e"));
    const auto blue = opened(mine.blue);
    const std::vector<Pkt::Ptr> burst(100, pktOf(frameOf("back")));
    EXPECT_EQ(blue->txPktBulk(burst), 100u);
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return red->rxPktCount() == 100; }, 2));
    EXPECT_EQ(pamIn(mine.blue)->txPktBulk(burst), 100u);  // closed
  }
}

TEST_F(EthDevPamTest, MergedAndUnfinishedFramesSaySo) {
  // Hands the kernel a datagram of three segments; the device is to cut it and to compute its checksum.
  const auto send = [to = wire->veth.ipA] {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int segment = 100;
    setsockopt(fd, IPPROTO_UDP, 103 /* UDP_SEGMENT */, &segment, sizeof(segment));
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(9);
    inet_pton(AF_INET, to.c_str(), &peer.sin_addr);
    const std::string data(250, 'x');
    sendto(fd, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&peer), sizeof(peer));
    return close(fd);
  };
  for (const U32 ring : {0u, 1u}) {
    for (const bool offload : {false, true}) {
      const auto red = pamIn(wire->red, 0x0800), blue = pamIn(wire->blue, 0x0800);
      red->rxRingBytesIs(ring);
      red->maxRxPktDataIs(70000);
      for (const auto& end : {red, blue}) end->enableRxOffloadIs(offload);  // concerns sent frames, too
      red->enabledIs(true);
      blue->enabledIs(true);
      runIn(wire->blue, send);
      S32 count = 0;
      EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return (count = red->rxPktBulk()) > 0; }, 2));
      const EthRxMetadata metadata = red->rxMetadata(0);
      EXPECT_EQ(metadata.checksum, RxChecksum::notFilledIn);
      EXPECT_EQ(red->savedPacket(0)->bytes(), 292u);
      EXPECT_EQ(metadata.merged, offload);
      EXPECT_EQ(metadata.segmentBytes, offload ? 100 : 0);
      EXPECT_EQ(metadata.checksumStart, offload ? 34 : 0);
      EXPECT_EQ(metadata.checksumOffset, offload ? 6 : 0);
      blue->txPktIs(pktOf(frameOf("whole", kTo, "\x08\x00"s)));
      EXPECT_EQ(receive(red), frameOf("whole", kTo, "\x08\x00"s));
      EXPECT_FALSE(red->rxMerged());
      EXPECT_NE(red->rxChecksum(), RxChecksum::notFilledIn);
    }
  }
}

TEST_F(EthDevPamTest, ATapIsACableToTheSystem) {
  const NamespaceName ns = Wire::nameOf(wire->red);
  const auto tap = tapPamFactory("tap", "wtap%d", ns);
  tap->mtuIs(1400);
  tap->enabledIs(true);
  EXPECT_EQ(tap->ifName(), "wtap0");
  EXPECT_THAT(
      outputOf(wire->red, "ip link show wtap0"),
      testing::AllOf(HasSubstr("mtu 1400"), HasSubstr(tap->ethAddr().stringValue()), HasSubstr("UP")));
  const auto system = ethDevPamFactory("system", "wtap0", ns);
  system->ethTypeIs(0x88b5);
  system->enabledIs(true);
  const Pkt::Ptr tagged = pktOf(frameOf("tagged"));
  tagged->newSeparateVlanTag(0x2005, 0x8100);
  tap->txPktIs(tagged);
  const Pkt::Ptr got = next(*system);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->stringValue(), frameOf("tagged"));
  EXPECT_EQ(got->tciField(), 0x2005);
  EXPECT_EQ(tap->txPktCount(), 1u);
  EXPECT_EQ(failureOf([&] { tapPamFactory("tap", "a name longer than any device's", ns)->enabledIs(true); }),
            "ioctl(TUNSETIFF) 22");
  wire->red.ip("link del wtap0");
  EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return tap->rxPkt() == nullptr && !tap->enabled(); }, 2));
  tap->enabledIs(true);
  EXPECT_EQ(tap->ifName(), "wtap0");
}

}  // namespace
}  // namespace Wirl
