// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/EthDevPam.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "Kiv/Kiv.h"
#include "Wirl/access/PamConnector.h"
#include "Wirl/access/PamMux.h"
#include "Wirl/access/ReqResponseRawTxPam.h"
#include "Wirl/access/TapPam.h"
#include "tests/access/Wire.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/Program.h"
#include "tests/support/TraceCapture.h"

namespace Wirl {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

const std::string kTo = "\x02\x00\x00\x00\x00\x01"s;  // nobody's
const std::string kFrom = "\x02\x00\x00\x00\x00\x02"s;
const std::string kType = "\x88\xb5"s;  // for local experiments (IEEE 802)

/// A frame with `payload`, padded to the least length.
std::string frameOf(const std::string& payload, const std::string& to = kTo,
                    const std::string& type = kType) {
  std::string frame = to + kFrom + type + payload;
  if (frame.size() < 60) frame.resize(60);
  return frame;
}

std::string outputOf(const std::string& command) {
  std::string text;
  FILE* const pipe = popen(command.c_str(), "r");
  for (int c; pipe && (c = fgetc(pipe)) != EOF;) text += static_cast<char>(c);
  if (pipe) pclose(pipe);
  return text;
}

class EthDevPamTest : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    if (!IsSkipped() && !HasFailure()) wire = &shared();
  }

  Kiv::Ptr<EthDevPam> pamIn(const NetNs& ns) {
    auto pam = ethDevPamFactory("pam", "veth1", Wire::nameOf(ns));
    pam->ethTypeIs(0x88b5);
    return pam;
  }
  Kiv::Ptr<EthDevPam> opened(const NetNs& ns) {
    auto pam = pamIn(ns);
    pam->enabledIs(true);
    return pam;
  }
  /// Of all frames, not only those of the tests.
  Kiv::Ptr<EthDevPam> openedToAll(const NetNs& ns) {
    auto pam = pamIn(ns);
    pam->ethTypeIs(EthDevPam::kAllEthTypes);
    pam->enabledIs(true);
    return pam;
  }
  static Pkt::Ptr next(EthDevPam& pam, double seconds = 2) {
    Pkt::Ptr pkt;
    Kiv::activityLoop().runUntil([&] { return (pkt = pam.rxPkt()) != nullptr; }, seconds);
    return pkt;
  }
  static std::string receive(const Kiv::Ptr<EthDevPam>& pam, double seconds = 2) {
    const Pkt::Ptr pkt = next(*pam, seconds);
    return pkt ? std::string(pkt->stringValueMaybeWithVlan()) : "nothing";
  }
  std::string shell(const NetNs& ns, const std::string& command) {
    return outputOf("ip netns exec " + ns.name() + " " + command + " 2>&1");
  }

  const Wire* wire = nullptr;
};

TEST_F(EthDevPamTest, MovesFramesOfEverySizeAndSaysWhomTheyWereFor) {
  const auto red = opened(wire->red);
  const auto blue = opened(wire->blue);
  EXPECT_EQ(red->ifIndex(), wire->indexRed);
  EXPECT_THAT(outputOf("ip -n " + wire->red.name() + " link show veth1"),
              HasSubstr(red->ethAddr().stringValue()));
  const std::string redAddress(reinterpret_cast<const char*>(red->ethAddr().octets().data()), 6);
  const struct {
    std::string to;
    int pktType;
  } rows[] = {{redAddress, PACKET_HOST},
              {"\xff\xff\xff\xff\xff\xff", PACKET_BROADCAST},
              {"\x01\x80\xc2\x00\x00\x0e"s, PACKET_MULTICAST},
              {kTo, PACKET_OTHERHOST}};
  for (const auto& row : rows) {
    for (const std::size_t size : {46u, 300u, 1500u}) {
      std::string payload(size, 'x');
      for (std::size_t i = 0; i < size; ++i) payload[i] = static_cast<char>(i * 7);
      const std::string frame = frameOf(payload, row.to);
      blue->txPktIs(pktOf(frame));
      EXPECT_TRUE(receive(red) == frame);
      EXPECT_EQ(red->rxPktType(), row.pktType);
      EXPECT_EQ(red->rxFrameBytes(), frame.size());
    }
  }
  EXPECT_EQ(blue->txPktCount(), 12u);
  EXPECT_EQ(red->rxPktCount(), 12u);
  EXPECT_EQ(blue->rxPkt(), nullptr);  // not its own
  EXPECT_EQ(red->rxErrors() + blue->txErrors(), 0u);
  red->maxRxPktDataIs(20);
  blue->txPktIs(pktOf(frameOf("cut")));
  EXPECT_EQ(receive(red), frameOf("cut").substr(0, 20));
  EXPECT_EQ(red->rxFrameBytes(), 60u);
  blue->txPktIs(pktOf("too short"));
  EXPECT_EQ(blue->txErrno(), EINVAL);
  EXPECT_EQ(blue->txErrors(), 1u);
}

TEST_F(EthDevPamTest, TagsGoOutInTheFrameAndComeInBesideIt) {
  const auto red = openedToAll(wire->red);
  const auto blue = opened(wire->blue);
  Program tcpdump("ip netns exec " + wire->red.name() +
                  " tcpdump -U -l -e -n -i veth1 -c 4 ether src 02:00:00:00:00:02");
  for (int i = 0; i < 500 && tcpdump.output().find("listening") == std::string::npos; ++i) usleep(10000);
  const struct {
    U16 tpid, tci;
    U32 inPrivate;
  } rows[] = {{0x8100, 0x2005, 0}, {0x88a8, 0xffff, 0}, {0x8100, 0x0001, 12}, {0x8100, 0x0007, 9}};
  for (const auto& row : rows) {
    const std::string frame = frameOf("tagged");
    const Pkt::Ptr pkt = pktOf(frame.substr(row.inPrivate));
    if (row.inPrivate > 0) pkt->newPrivateHeadData(row.inPrivate);
    for (U32 i = 0; i < row.inPrivate; ++i) pkt->rawByteIs(i, static_cast<U8>(frame[i]));
    pkt->newSeparateVlanTag(row.tci, row.tpid);
    blue->txPktIs(pkt);
    Pkt::Ptr got;
    while ((got = next(*red)) && !got->tciPresent()) {
    }
    ASSERT_TRUE(got);
    EXPECT_EQ(std::string(got->stringValue()), frame);
    EXPECT_EQ(got->tciField(), row.tci);
    EXPECT_EQ(got->vlanTpid(), row.tpid);
    EXPECT_EQ(red->rxFrameBytes(), frame.size());
  }
  for (int i = 0; i < 500 && !tcpdump.ended(); ++i) usleep(10000);
  EXPECT_THAT(tcpdump.output(),
              HasSubstr("802.1Q (0x8100), length 64: vlan 5, p 1, ethertype Unknown (0x88b5)"));
  EXPECT_THAT(tcpdump.output(), HasSubstr("802.1Q-QinQ (0x88a8), length 64: vlan 4095, p 7"));
  EXPECT_THAT(tcpdump.output(), HasSubstr("vlan 1, p 0"));
  EXPECT_THAT(tcpdump.output(), HasSubstr("vlan 7, p 0"));
  const Pkt::Ptr stub = pktOf("eleven byte");
  stub->newSeparateVlanTag(1, 0x8100);
  blue->txPktIs(stub);
  EXPECT_EQ(blue->txErrno(), EINVAL);
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
  int right = 0;
  int wrong = 0;
  const Kiv::Reactor drain(red->readableCount, [&] {
    while (const Pkt::Ptr pkt = red->rxPkt()) (pkt->rawByte(14) == 'y' ? right : wrong) += 1;
  });
  for (int i = 0; i < 200; ++i) blue->txPktIs(pktOf(frameOf(i % 20 == 0 ? "yes" : "no")));
  blue->txPktIs(pktOf(frameOf("yes", kTo, "\x88\xcc")));  // another type
  Kiv::activityLoop().runUntil([&] { return right == 10; }, 2);
  EXPECT_EQ(right, 10);
  EXPECT_EQ(wrong, 0);
  red->rxFilterIs({});
  blue->txPktIs(pktOf(frameOf("anything")));
  Kiv::activityLoop().runUntil([&] { return wrong == 1; }, 2);
  EXPECT_EQ(wrong, 1);
  red->ethTypeIs(EthDevPam::kAllEthTypes);
  blue->txPktIs(pktOf(frameOf("of a", kTo, "\x88\xcc")));
  Kiv::activityLoop().runUntil([&] { return wrong > 1; }, 2);
  EXPECT_GT(wrong, 1);
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

TEST_F(EthDevPamTest, TheDeviceTakesInWhatItIsAskedTo) {
  const auto red = pamIn(wire->red);
  const auto promiscuity = [&] {
    const std::string text = outputOf("ip -d -n " + wire->red.name() + " link show veth1");
    return text.substr(text.find("promiscuity"), 13);
  };
  const auto groups = [&] { return shell(wire->red, "ip maddr show dev veth1"); };
  red->promiscuousIs(true);
  EXPECT_EQ(promiscuity(), "promiscuity 0");
  red->enabledIs(true);
  EXPECT_EQ(promiscuity(), "promiscuity 1");
  red->promiscuousIs(false);
  EXPECT_EQ(promiscuity(), "promiscuity 0");
  red->allMulticastIs(true);
  const EthAddr lldp("01:80:c2:00:00:0e");
  EXPECT_EQ(red->handleMembership(lldp, true), 0);
  EXPECT_THAT(groups(), HasSubstr("01:80:c2:00:00:0e"));
  EXPECT_EQ(red->handleMembership(lldp, false), 0);
  EXPECT_THAT(groups(), testing::Not(HasSubstr("01:80:c2:00:00:0e")));
  EXPECT_EQ(red->handleMembership(EthAddr("02:00:5e:00:01:07"), true), 0);
  red->enabledIs(false);
  EXPECT_EQ(red->handleMembership(lldp, true), ENODEV);
  EXPECT_EQ(red->promiscuous(), false);
}

TEST_F(EthDevPamTest, ABatchHasItsTagsAndMetadataSlotBySlot) {
  const auto red = opened(wire->red);
  const auto witness = opened(wire->red);
  const auto blue = opened(wire->blue);
  EXPECT_THROW(red->socketReadLimitIs(0), Kiv::RangeException);
  EXPECT_THROW(red->socketReadLimitIs(129), Kiv::RangeException);
  red->socketReadLimitIs(4);
  const auto slots = [&](const std::string& sent) {
    for (const char each : sent) {
      const Pkt::Ptr pkt = pktOf(frameOf({each}));
      if (each == 'T') pkt->newSeparateVlanTag(9, 0x8100);
      blue->txPktIs(pkt);
      EXPECT_TRUE(next(*witness));  // by now it has arrived
    }
    std::string all = std::to_string(red->rxPktBulk()) + ":";
    for (U16 i = 0; i < 5; ++i) {
      const Pkt::Ptr pkt = red->savedPacketRx(i) ? red->savedPacket(i) : nullptr;
      all += pkt ? static_cast<char>(pkt->rawByte(14)) : '.';
      if (pkt && pkt->tciPresent()) all += std::to_string(pkt->tciField());
    }
    return all;
  };
  EXPECT_EQ(slots("abTcd"), "4:abT9c.");
  EXPECT_EQ(red->rxMetadata(3).frameBytes, 60u);
  EXPECT_EQ(red->rxMetadata(3).pktType, PACKET_OTHERHOST);
  EXPECT_EQ(red->rxMetadata(4).frameBytes, 0u);
  EXPECT_EQ(slots(""), "1:d....");
  EXPECT_EQ(slots("Tefg"), "4:T9efg.");  // a tag in one batch is no tag in the next
  EXPECT_EQ(red->rxPktCount(), 9u);
  // Nor in slots that a smaller limit left out meanwhile, with packets that need no more room.
  red->maxRxPktDataIs(40);
  EXPECT_EQ(slots("TTTT"), "4:T9T9T9T9.");
  red->socketReadLimitIs(2);
  EXPECT_EQ(slots("TT"), "2:T9T9...");
  red->socketReadLimitIs(4);
  EXPECT_EQ(slots("abcd"), "4:abcd.");
}

TEST_F(EthDevPamTest, TheDeviceIsFoundOrNamed) {
  const auto pam = pamIn(wire->red);
  int told = 0;
  const Kiv::Reactor onIndex(pam->ifIndex, [&] { ++told; });
  const Kiv::Reactor onAddress(pam->ethAddr, [&] { ++told; });
  {
    const Fault fault(Call::bind, 1, ENOMEM);
    EXPECT_EQ(failureOf([&] { pam->enabledIs(true); }), "bind 12");
  }
  EXPECT_EQ(pam->ifIndex() + static_cast<U32>(told), 0u);
  pam->enabledIs(true);
  EXPECT_EQ(told, 2);
  for (const char* device : {"nosuchdevice", "", "a name longer than any device's"}) {
    const auto other = ethDevPamFactory("pam", device, Wire::nameOf(wire->red));
    EXPECT_EQ(failureOf([&] { other->enabledIs(true); }), "ioctl(SIOCGIFINDEX) 19") << device;
  }
}

TEST_F(EthDevPamTest, TellsThatAChecksumIsNotFilledIn) {
  const auto red = pamIn(wire->red);
  red->ethTypeIs(0x0800);
  red->enabledIs(true);
  const auto raw = opened(wire->blue);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(9);
  inet_pton(AF_INET, wire->veth.ipA.c_str(), &to.sin_addr);
  runIn(wire->blue, [&to] {  // the device is to compute the checksum
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sendto(fd, "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    return close(fd);
  });
  EXPECT_TRUE(next(*red));
  EXPECT_EQ(red->rxChecksum(), RxChecksum::notFilledIn);
  raw->txPktIs(pktOf(frameOf("whole", kTo, "\x08\x00"s)));
  EXPECT_TRUE(next(*red));
  EXPECT_NE(red->rxChecksum(), RxChecksum::notFilledIn);
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
  EXPECT_EQ(raw->txErrors(), 1u);
  raw->enabledIs(true);
  EXPECT_EQ(raw->readableCount() + raw->writableCount(), 2u);
  raw->txPktIs(pktOf(frameOf("nowhere")));
  EXPECT_EQ(raw->txErrors(), 2u);
  EXPECT_EQ(raw->txErrno(), ENXIO);
  raw->txIfIndexIs(0x7fffffff);
  raw->txPktIs(pktOf(frameOf("nowhere")));
  EXPECT_EQ(raw->txErrors(), 3u);
  raw->txIfIndexIs(slow.indexBlue);
  raw->txPktIs(pktOf(frameOf("one")));
  raw->txIfIndexIs(runIn(slow.blue, [] { return if_nametoindex("veth2"); }));
  const Pkt::Ptr tagged = pktOf(frameOf("two"));
  raw->txPktIs(tagged);
  EXPECT_EQ(receive(red1), frameOf("one"));
  EXPECT_EQ(receive(red2), frameOf("two"));
  EXPECT_EQ(raw->txPktCount(), 2u);
  EXPECT_EQ(raw->rxPkt(), nullptr);

  // Through a device that sends 100 kbit a second, the socket is soon full.
  EXPECT_EQ(shell(slow.blue, "tc qdisc add dev veth2 root tbf rate 100kbit burst 2000 limit 1000000"), "");
  const int small = 1;
  setsockopt(raw->fileDesc()->descriptor(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
  for (int i = 0; i < 100 && raw->txDrops() == 0; ++i) raw->txPktIs(pktOf(frameOf(std::string(1000, 'x'))));
  EXPECT_EQ(raw->txDrops(), 1u);
  EXPECT_EQ(raw->txErrno(), EAGAIN);
  EXPECT_EQ(raw->txErrors(), 3u);
  EXPECT_EQ(raw->writableCount(), 1u);
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
  const U64 sent = raw->txPktCount();
  raw->txPktIs(pktOf(frameOf("room")));
  EXPECT_EQ(raw->txPktCount(), sent + 1);
}

TEST_F(EthDevPamTest, TheDeviceMayVanishAndComeBackAndThePamIsThereAgain) {
  const Wire& mine = own();
  for (const U32 ring : {0u, 1u}) {
    const auto red = pamIn(mine.red);
    red->rxRingBytesIs(ring);
    red->enabledIs(true);
    const U32 former = red->ifIndex();
    for (const bool join : {true, true, false}) {  // once is left
      EXPECT_EQ(red->handleMembership(EthAddr("01:80:c2:00:00:0e"), join), 0);
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
    Kiv::activityLoop().runFor(0.15);  // a try that finds nothing
    events = 0;
    Kiv::activityLoop().runFor(0.02);
    EXPECT_EQ(events, 0u);  // the loop has come to rest
    EXPECT_TRUE(red->enabled());
    const Veth again(mine.red, mine.blue);
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return red->devPresent(); }, 2));
    EXPECT_NE(red->ifIndex(), former);
    EXPECT_THAT(shell(mine.red, "ip maddr show dev veth1"), HasSubstr("01:80:c2:00:00:0e"));
    const auto blue = opened(mine.blue);
    const std::vector<Pkt::Ptr> burst(100, pktOf(frameOf("back")));
    EXPECT_EQ(blue->txPktBulk(burst), 100u);
    EXPECT_EQ(blue->txPktCount(), 100u);
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return red->rxPktCount() == 100; }, 2));
    red->enabledIs(false);
    EXPECT_EQ(ethDevPamFactory("pam", "veth1", Wire::nameOf(mine.blue))->txPktBulk(burst), 100u);
  }
}

TEST_F(EthDevPamTest, MergedAndUnfinishedFramesSaySo) {
  for (const U32 ring : {0u, 1u}) {
    const auto red = pamIn(wire->red);
    red->ethTypeIs(0x0800);
    red->rxRingBytesIs(ring);
    red->enableRxOffloadIs(true);
    red->maxRxPktDataIs(70000);
    red->enabledIs(true);
    const auto to = wire->veth.ipA;
    runIn(wire->blue, [&to] {  // as one, which the device is to cut and to finish
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
    });
    S32 count = 0;
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return (count = red->rxPktBulk()) > 0; }, 2));
    const EthRxMetadata metadata = red->rxMetadata(0);
    EXPECT_TRUE(metadata.merged);
    EXPECT_EQ(metadata.segmentBytes, 100);
    EXPECT_EQ(metadata.checksum, RxChecksum::notFilledIn);
    EXPECT_EQ(metadata.checksumStart, 34);
    EXPECT_EQ(metadata.checksumOffset, 6);
    EXPECT_EQ(red->savedPacket(0)->bytes(), 292u);
    const auto blue = pamIn(wire->blue);
    blue->enableRxOffloadIs(true);  // then what is sent has the kernel's header as well
    blue->enabledIs(true);
    blue->txPktIs(pktOf(frameOf("whole", kTo, "\x08\x00"s)));
    const Pkt::Ptr whole = next(*red);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->stringValue(), frameOf("whole", kTo, "\x08\x00"s));
    EXPECT_FALSE(red->rxMerged());
  }
}

TEST_F(EthDevPamTest, ATapIsACableToTheSystem) {
  const NamespaceName ns = Wire::nameOf(wire->red);
  const auto tap = tapPamFactory("tap", "wtap%d", ns);
  tap->mtuIs(1400);
  tap->enabledIs(true);
  EXPECT_EQ(tap->ifName(), "wtap0");
  EXPECT_THAT(
      shell(wire->red, "ip link show wtap0"),
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

/// Keys by lot, against a walk over all clients.
TEST(PamDemux, TheFirstClientWhoseKeyOrFunctionMatchesGetsThePacket) {
  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  loop.simulatedTimeIs(true);
  const auto cable = PamConnectorIs(Kiv::makePtr<Kiv::Clock>("cable"));
  cable->handleInitializedBase();
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
    const std::string tag = lot(2) == 0 ? "\x81\0\0\x05"s : "";
    const std::string frame = "ddddddssssss" + tag + (v6 ? "\x86\xdd"s : "\x08\0"s) + header + "\0\x63\0"s +
                              static_cast<char>(port) + std::string(8, letter);
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
  loop.simulatedTimeIs(false);
}

}  // namespace
}  // namespace Wirl
