// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "Wirl/access/EthDevPam.h"
#include "Wirl/packet/VlanOffload.h"
#include "Wirl/transport/UdpPam.h"
#include "Wirl/wire/PktBuilder.h"
#include "Wirl/wire/PktFragmenter.h"
#include "Wirl/wire/PktReassembler.h"
#include "Wirl/wire/WireChecks.h"
#include "tests/support/NetNs.h"

namespace {

using namespace Wirl;
using namespace std::chrono_literals;

constexpr U16 kPort = 7000;

Pkt::Ptr pktOf(std::string_view data) {
  const auto& manager = globalPktManager();
  const auto pkt = manager->newPkt(manager->newSharedBuffer(static_cast<U32>(data.size()) + 200));
  pkt->stringValueIs(data);
  return pkt;
}

/// A kernel's UDP socket in one namespace, and the frames at the other end of the wire.
struct WireKernelTest : NetNsTest {
  struct Ends {
    const NetNs red{"red"}, blue{"blue"};
    const Veth veth{red, blue};
    Kiv::Ptr<UdpPam> socket;
    Kiv::Ptr<EthDevPam> wire;

    void open(bool isIp6) {
      socket = udpPamFactory("socket");
      socket->netNsIs(NamespaceName(red.name()));
      socket->ipv6EnIs(isIp6);
      socket->rxPortLocalIs(kPort);
      socket->maxRxPktDataIs(65000);
      socket->modeIs(UdpPam::Mode::server);
      wire = ethDevPamFactory("wire", veth.intf, NamespaceName(blue.name()));
      wire->ethTypeIs(isIp6 ? ethTypeIp6 : ethTypeIp);
      wire->enabledIs(true);
    }
    void send(const std::string& data, const IpGenAddr& to) const {
      socket->txPortIs(kPort);
      to.af() == AddressFamily::ipv4 ? socket->txDstIpAddrIs(to.v4Addr())
                                     : socket->txDstIp6AddrIs(to.v6Addr());
      socket->txPktIs(pktOf(data));
      EXPECT_EQ(socket->txErrors(), 0u);
    }
    /// The next frame with UDP or a fragment; null when none comes.
    Pkt::Ptr frame() const {
      Pkt::Ptr pkt;
      const auto isOurs = [&] {
        pkt = wire->rxPkt();
        if (!pkt) return false;
        const U8 protocol = pkt->rawByte(wire->ethType() == ethTypeIp6 ? 20 : 23);
        return protocol == ipProtoUdp || protocol == ipProtoIpv6Frag;
      };
      return Kiv::activityLoop().runUntil(isOurs, 3) ? pkt : nullptr;
    }
  };
};

TEST_F(WireKernelTest, TenLinesMakeTheTaggedFrameThatASocketSends) {
  Ends ends;
  runIn(ends.red, [] { std::ofstream("/proc/sys/net/ipv6/auto_flowlabels") << "0\n"; });
  // Not every kernel has VLAN devices: the frame is then sent without the tag, and gets it here.
  std::string device = "tagged";
  try {
    ends.red.ip("link add link veth1 name tagged type vlan id 100\nlink set tagged up");
  } catch (const std::runtime_error&) {
    device = "veth1";
  }
  ends.red.ip("addr add 2001:db8::1/64 dev " + device +
              " nodad\nneigh add 2001:db8::2 lladdr 02:00:00:00:00:02 dev " + device);
  ends.open(true);
  ends.wire->promiscuousIs(true);
  ends.send("hello", Ip6Addr("2001:db8::2"));
  const auto sent = ends.frame();
  ASSERT_TRUE(sent);
  if (device == "veth1") sent->newSeparateVlanTag(100, ethTypeDot1Q);
  ASSERT_TRUE(maybeRestoreVlanTag(sent));
  // The kernel leaves the checksum to a device that this wire does not have.
  auto* const ip6Hdr = reinterpret_cast<Ip6Hdr*>(sent->front() + sizeof(EthHdr) + sizeof(Eth8021QHdr));
  UdpHdr* udpHdr = nullptr;
  EXPECT_EQ(checkUdp(sent, ip6Hdr, udpHdr), partialUdpChecksum);
  setUdpChecksum(*ip6Hdr, {reinterpret_cast<U8*>(ip6Hdr + 1), ip6Hdr->payloadLen()});
  EXPECT_EQ(checkUdp(sent, ip6Hdr, udpHdr), noError);

  const auto pkt = pktOf("hello");
  PktBuilder(pkt)
      .udp(kPort, kPort)
      .ip6(Ip6Addr("2001:db8::1"), Ip6Addr("2001:db8::2"))
      .vlan(100)
      .eth(EthAddr("02:00:00:00:00:02"), reinterpret_cast<const EthHdr*>(sent->front())->src())
      .finish();
  EXPECT_EQ(pkt->stringValue(), sent->stringValue());
}

TEST_F(WireKernelTest, EachSideTakesTheFragmentsOfTheOther) {
  Ends ends;
  const Veth& veth = ends.veth;
  std::mt19937 random(1);
  for (const bool isIp6 : {false, true}) {
    SCOPED_TRACE(isIp6);
    ends.open(isIp6);
    std::string data(20000, ' ');
    for (char& octet : data) octet = static_cast<char>(random());
    ends.send(data, IpGenAddr(std::string_view(isIp6 ? veth.ip6B : veth.ipB)));
    std::vector<Pkt::Ptr> frames;
    for (int i = 0; i < 14; ++i) {
      frames.push_back(ends.frame());
      ASSERT_TRUE(frames.back()) << i;
    }
    std::shuffle(frames.begin(), frames.end(), random);
    PktReassembler reassembler;
    Pkt::Ptr whole;
    for (const auto& frame : frames) {
      ASSERT_FALSE(whole);
      whole = reassembler.rxPkt(frame, sizeof(EthHdr), 0s);
    }
    ASSERT_TRUE(whole) << reassembler.code();
    U8* const ip = whole->front() + sizeof(EthHdr);
    UdpHdr* udpHdr = nullptr;
    EXPECT_EQ(isIp6 ? checkUdp(whole, reinterpret_cast<Ip6Hdr*>(ip), udpHdr)
                    : checkUdp(whole, reinterpret_cast<IpHdr*>(ip), udpHdr),
              noError);
    EXPECT_TRUE(std::string(whole->stringValue()).ends_with(data));
    EXPECT_EQ(udpHdr->len(), data.size() + sizeof(UdpHdr));

    const EthHdr eth = *reinterpret_cast<const EthHdr*>(whole->front());
    std::reverse(data.begin(), data.end());
    const auto answer = pktOf(data);
    PktBuilder builder(answer);
    builder.udp(kPort, kPort);
    isIp6 ? builder.ip6(Ip6Addr(veth.ip6B), Ip6Addr(veth.ip6A))
          : builder.ip(IpAddr(veth.ipB), IpAddr(veth.ipA));
    builder.eth(eth.src(), eth.dst()).finish();
    PktFragmenter fragmenter(answer, sizeof(EthHdr), 1500, 1);
    frames.clear();
    while (const auto fragment = fragmenter.next()) frames.push_back(fragment);
    std::shuffle(frames.begin(), frames.end(), random);
    for (const auto& frame : frames) ends.wire->txPktIs(frame);
    Pkt::Ptr got;
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return (got = ends.socket->rxPkt()) != nullptr; }, 3));
    EXPECT_TRUE(got && std::string(got->stringValue()) == data);
  }
}

}  // namespace
