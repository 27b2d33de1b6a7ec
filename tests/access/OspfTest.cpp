// SPDX-License-Identifier: Apache-2.0
// A routing daemon that is not ours sends its OSPF hellos (RFC 2328, RFC 5340) over a wire.
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/if_packet.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Kiv/Kiv.h"
#include "Wirl/access/EthDevPam.h"
#include "Wirl/access/Ip6SocketPam.h"
#include "Wirl/access/IpSocketPam.h"
#include "Wirl/packet/PktChecks.h"
#include "tests/access/Wire.h"
#include "tests/support/Program.h"

namespace Wirl {
namespace {

constexpr const char* kRouter = "10.77.1.2";

/// A file that goes with the object.
struct TemporaryFile {
  explicit TemporaryFile(const std::string& text) { std::ofstream(path) << text; }
  ~TemporaryFile() { std::filesystem::remove(path); }
  const std::string path =
      std::filesystem::temp_directory_path() / ("wirl" + std::to_string(getpid()) + ".conf");
};

/// One family's hellos, as the device has them and as a raw socket gets them.
struct Hellos {
  Hellos(bool isV6, const Wire& wire)
      : v6(isV6),
        frames(ethDevPamFactory("frames", "veth1", Wire::nameOf(wire.red))),
        pam(v6 ? Kiv::Ptr<RawIpPam>(ip6SocketPamFactory("OSPF", ipProtoOspf, Wire::nameOf(wire.red)))
               : Kiv::Ptr<RawIpPam>(ipSocketPamFactory("OSPF", ipProtoOspf, Wire::nameOf(wire.red)))) {
    frames->ethTypeIs(v6 ? 0x86dd : 0x0800);
    frames->rxFilterIs({{U8{0}, IpFilter(BPF_LD | BPF_B | BPF_ABS, 0, 0, v6 ? 14 + 6 : 14 + 9)},
                        {U8{1}, IpFilter(BPF_JMP | BPF_JEQ | BPF_K, 0, 1, ipProtoOspf)},
                        {U8{2}, IpFilter(BPF_RET | BPF_K, 0, 0, 0xffff)},
                        {U8{3}, IpFilter(BPF_RET | BPF_K, 0, 0, 0)}});
    frames->enabledIs(true);
    pam->optionsIs(IpSocketOptions::ipPktInfo | IpSocketOptions::ipRecvTTL | IpSocketOptions::ipRecvTOS |
                   (v6 ? IpSocketOptions::ipv6Checksum : U32{0}));
    pam->enabledIs(true);
  }

  IpGenAddr allRouters() const { return v6 ? IpGenAddr("ff02::5") : IpGenAddr("224.0.0.5"); }

  const bool v6;
  const Kiv::Ptr<EthDevPam> frames;
  const Kiv::Ptr<RawIpPam> pam;
  std::vector<Pkt::Ptr> framesGot, got;
  static void drain(Pam& pam, std::vector<Pkt::Ptr>& into) {
    while (const Pkt::Ptr pkt = pam.rxPkt()) into.push_back(pkt);
  }
  const Kiv::Reactor onFrame{frames->readableCount, [this] { drain(*frames, framesGot); }};
  const Kiv::Reactor onHello{pam->readableCount, [this] { drain(*pam, got); }};
};

/// Checks a frame by the checks of its family, and takes everything in front of the OSPF packet off.
void checkFrame(const Hellos& hellos, const Pkt::Ptr& frame) {
  EthHdr* ethHdr = nullptr;
  U32 sum = 0;
  U16 bytes = 0;
  if (hellos.v6) {
    Ip6Hdr* ipHdr = nullptr;
    ASSERT_EQ(checkEthIp6Hdr(frame, ethHdr, ipHdr), noError);
    EXPECT_EQ(ethHdr->dst(), EthAddr("33:33:00:00:00:05"));
    EXPECT_TRUE(ipHdr->src().isLinkLocal());
    EXPECT_EQ(IpGenAddr(ipHdr->dst()), hellos.allRouters());
    bytes = ipHdr->payloadLen();
    sum = ipHdr->pseudoHdrSum(bytes, ipProtoOspf);
    frame->delSharedHeadData(14 + 40);
  } else {
    IpHdr* ipHdr = nullptr;
    ASSERT_EQ(checkEthIpHdr(frame, ethHdr, ipHdr), noError);
    EXPECT_EQ(ethHdr->dst(), EthAddr("01:00:5e:00:00:05"));
    EXPECT_EQ(ipHdr->src(), IpAddr(kRouter));
    EXPECT_EQ(IpGenAddr(ipHdr->dst()), hellos.allRouters());
    EXPECT_EQ(ipHdr->ttl(), IpTtl(1));
    bytes = ipHdr->payloadLen();
    frame->delSharedHeadData(U32{14} + ipHdr->headerBytes());
  }
  ASSERT_GE(bytes, 36);
  EXPECT_EQ(ipChecksumCalc(reinterpret_cast<const char*>(frame->front()), bytes, sum).value(), 0);
  frame->delSharedTailData(frame->bytes() - bytes);
}

TEST_F(WireTest, HellosOfARoutingDaemonArriveByMulticastMembership) {
  if (std::system("PATH=$PATH:/usr/sbin command -v bird >/dev/null") != 0) {
    if (std::getenv("CI")) FAIL() << "bird2 is not installed";
    GTEST_SKIP() << "bird2 is not installed";
  }
  const Wire& wire = shared();
  const TemporaryFile configuration(
      "router id " + std::string(kRouter) +
      "; protocol device {}\n"
      "protocol ospf v2 { area 0 { interface \"veth1\" { hello 1; dead 4; }; }; }\n"
      "protocol ospf v3 { area 0 { interface \"veth1\" { hello 1; dead 4; }; }; }\n");
  Hellos hellos[] = {{false, wire}, {true, wire}};
  Program bird("PATH=$PATH:/usr/sbin; exec ip netns exec " + wire.blue.name() + " bird -f -c " +
               configuration.path + " -s " + configuration.path + ".ctl");
  const auto waitForFrames = [&] {
    for (Hellos& each : hellos) each.framesGot.clear();
    return Kiv::activityLoop().runUntil(
        [&] { return !hellos[0].framesGot.empty() && !hellos[1].framesGot.empty(); }, 8);
  };
  ASSERT_TRUE(waitForFrames()) << bird.output();
  for (Hellos& each : hellos) {
    EXPECT_TRUE(each.got.empty());
    EXPECT_EQ(each.pam->handleMcastGroup(each.allRouters(), true, wire.indexRed), 0);
  }
  ASSERT_TRUE(waitForFrames());
  for (Hellos& each : hellos) {
    SCOPED_TRACE(each.v6 ? "OSPFv3" : "OSPFv2");
    ASSERT_TRUE(Kiv::activityLoop().runUntil([&] { return !each.got.empty(); }, 8));
    const Pkt& frame = *each.framesGot.back();
    ASSERT_NO_FATAL_FAILURE(checkFrame(each, each.framesGot.back()));
    Pkt& hello = *each.got.back();
    if (!each.v6) hello.delSharedHeadData(4u * (hello.rawByte(0) & 0xf));
    EXPECT_EQ(hello.stringValue(), frame.stringValue());
    EXPECT_EQ(each.pam->rxDstIpAddr(), each.allRouters());
    EXPECT_EQ(each.pam->rxIfIndex(), wire.indexRed);
    EXPECT_EQ(each.pam->rxTTL(), 1);
    EXPECT_EQ(each.pam->rxTOS(), 0xc0);            // Internetwork Control
    EXPECT_EQ(hello.rawByte(0), each.v6 ? 3 : 2);  // the version
    EXPECT_EQ(each.pam->handleMcastGroup(each.allRouters(), false, wire.indexRed), 0);
    each.got.clear();
  }
  ASSERT_TRUE(waitForFrames());
  for (const Hellos& each : hellos) EXPECT_TRUE(each.got.empty());
}

}  // namespace
}  // namespace Wirl
