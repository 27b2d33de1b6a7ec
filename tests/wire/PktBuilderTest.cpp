// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktBuilder.h"

#include <gtest/gtest.h>

#include "Kiv/Exception.h"
#include "Wirl/wire/Crc32.h"
#include "Wirl/wire/Layers.h"

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

TEST(PktBuilder, ALayerIsAnnouncedByThatInFront) {
  PktBuilder tunnels = builderOf(5);
  tunnels.tcp(TcpHdr(), {reinterpret_cast<const U8*>("\2\4\5\xb4\1"), 5}).ip(kIp, kIp).mpls(17).mpls(18);
  tunnels.gre(7).ip6Options(ipProtoIpv6Opts, {}).ip6Fragment(9).ip6(kIp6, kIp6).vlan(1).eth(kMac, kMac);
  tunnels.vxlan(0x123456)
      .udpWithoutChecksum(40000, VxlanHdr::udpPort)
      .ip(kIp, kIp)
      .vlan(2)
      .vlan(3, 0, ethTypeDot1ad);
  EXPECT_EQ(found(tunnels.eth(kMac, kMac).finish()),
            "eth vlan vlan ip udp vxlan eth vlan ip6 ip6frag ip6opts gre mpls mpls ip tcp ");

  EXPECT_EQ(
      found(builderOf(4).push(SctpHdr()).ip6(kIp6, kIp6).ip(kIp, kIp).snap().eth(kMac, kMac).pad().finish()),
      "eth llc snap ip ip6 sctp badSctpLen ");  // the payload is no chunk
  PimHdr pim;
  pim.versionIs(2);
  EXPECT_EQ(found(builderOf(0).push(pim).ip6(kIp6, kIp6).gre().ip(kIp, kIp).eth(kMac, kMac).finish()),
            "eth ip gre ip6 pim ");
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
