// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktBuilder.h"

#include <gtest/gtest.h>

#include "Kiv/Exception.h"
#include "Wirl/wire/Crc32.h"
#include "Wirl/wire/Layers.h"
#include "Wirl/wire/WireChecks.h"

namespace {

using namespace Wirl;

const EthAddr kMac(2, 0, 0, 0, 0, 1);
const IpAddr kIp(192, 0, 2, 1);
const Ip6Addr kIp6("2001:db8::1");

PktBuilder builderOf(U32 bytes) {
  const auto& manager = globalPktManager();
  const auto pkt = manager->newPkt(manager->newSharedBuffer(bytes + 1000));
  pkt->stringValueIs(std::string(bytes, 'x'));
  return PktBuilder(pkt);
}

/// The layers that a walk over the frame finds, with what is wrong with them.
std::string found(const Pkt::Ptr& pkt) {
  std::string all;
  for (const Layer& layer : layers(pkt)) {
    all += std::string(layerKindText(layer.kind)) + ' ';
    if (layer.error != noError) all += std::string(layer.error.text()) + ' ';
  }
  return all;
}

// Stacks of the usual layers are up to the fuzz target builderFuzz.
TEST(PktBuilder, ALayerWithoutAFunctionOfItsOwnIsPushed) {
  EXPECT_EQ(found(builderOf(4).push(SctpHdr()).ip6(kIp6, kIp6).ip(kIp, kIp).eth(kMac, kMac).finish()),
            "eth ip ip6 sctp badSctpLen ");  // the payload is no chunk
  PimHdr pim;
  pim.versionIs(2);
  EXPECT_EQ(found(builderOf(0).push(pim).ip6(kIp6, kIp6).gre().ip(kIp, kIp).eth(kMac, kMac).finish()),
            "eth ip gre ip6 pim ");
}

/// Checksums behind routing headers and a home address, of GRE, and of a first fragment.
TEST(PktBuilder, ChecksumsThatDependOnMoreThanOneHeader) {
  const Ip6Addr route[] = {Ip6Addr("2001:db8::7"), Ip6Addr("2001:db8::8")};
  const U8 home[] = {0xc9, 16, 0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};
  for (const U8 type : {Ip6RoutingHdr::sourceRoute, Ip6RoutingHdr::segments}) {
    const Ip6Addr& last = route[type == Ip6RoutingHdr::segments ? 0 : 1];
    PktBuilder routed = builderOf(5);
    routed.udp(40000, 40001).ip6Options(ipProtoIpv6Opts, home).ip6Routing(type, route, 1).ip6(kIp6, kIp6);
    const auto pkt = routed.eth(kMac, kMac).finish();
    EXPECT_EQ(found(pkt), "eth ip6 ip6routing ip6opts udp ");
    UdpHdr* udp = nullptr;
    EXPECT_EQ(checkUdp(pkt, reinterpret_cast<Ip6Hdr*>(pkt->front() + sizeof(EthHdr)), udp), noError);
    pkt->rawByteIs(sizeof(EthHdr) + 6,
                   ipProtoIpv6Frag);  // the same octets as a fragment that is not the first
    EXPECT_EQ(checkUdp(pkt, reinterpret_cast<Ip6Hdr*>(pkt->front() + sizeof(EthHdr)), udp), ipFragment);
    Ip6Hdr ends;
    ends.srcIs(Ip6Addr("2001:db8::9"));
    ends.dstIs(last);
    EXPECT_EQ(checkUdp(ends, std::span<const U8>(pkt->front() + pkt->bytes() - 13, 13)), noError);
  }
  GreHdr gre;
  gre.checksumPresentIs(true);
  gre.seqPresentIs(true);
  EXPECT_EQ(found(builderOf(5).udp(1, 2).ip(kIp, kIp).gre(gre, 0, 7).ip(kIp, kIp).eth(kMac, kMac).finish()),
            "eth ip gre ip udp ");
  UdpHdr udp;
  udp.lenIs(3000);
  udp.checksumU16Is(0x1234);
  IpHdr ip;
  ip.moreFragIs(true);
  const auto fragment = builderOf(16).push(udp).ip(ip).finish();
  const auto kept = viewAt<UdpHdr>(fragment, sizeof(IpHdr));
  EXPECT_TRUE(kept->len() == 3000 && kept->checksumU16() == 0x1234);
}

TEST(PktBuilder, LengthsPaddingAndFrameCheckSequence) {
  const auto pkt = builderOf(3).llc(0x42, 0x42).eth(kMac, kMac).pad().fcs().finish();
  ASSERT_EQ(pkt->bytes(), 64u);
  EXPECT_EQ(reinterpret_cast<const EthHdr*>(pkt->front())->typeOrLen(), 6);
  EXPECT_EQ(crc32({pkt->front(), pkt->bytes()}), 0x2144df1cu);  // of any frame with its check behind it
  EXPECT_EQ(builderOf(65507).udp(1, 2).ip(kIp, kIp).finish()->bytes(), 65535u);
  EXPECT_THROW(builderOf(1533).llc(0x42, 0x42).eth(kMac, kMac).finish(), Kiv::RangeException);
  EXPECT_THROW(builderOf(65508).udp(1, 2).ip(kIp, kIp).finish(), Kiv::RangeException);
  EXPECT_DEATH(builderOf(0).push({}, builderLayer<UdpHdr>), "the layer has a header");
}

}  // namespace
