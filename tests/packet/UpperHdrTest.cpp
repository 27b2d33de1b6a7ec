// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstring>
#include <new>

#include "Wirl/packet/AhHdr.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/UdpHdr.h"
#include "tests/packet/Frames.h"

namespace {

using namespace Wirl;
using frames::octets;

/// The image of a header that was made over a pattern at an odd address, where `write` set its fields.
template <typename Hdr, typename Write>
std::string image(Write write) {
  char room[sizeof(Hdr) + 2];
  std::memset(room, 0x5a, sizeof(room));
  write(*new (room + 1) Hdr);
  EXPECT_EQ(room[0], 0x5a);
  EXPECT_EQ(room[sizeof(room) - 1], 0x5a);
  return std::string(room + 1, sizeof(Hdr));
}
constexpr auto kAsMade = [](auto&) {};

const Ip6Addr kTarget("fe80::1");

TEST(UpperHdr, Images) {
  EXPECT_EQ(image<UdpHdr>([](UdpHdr& hdr) {
              hdr.srcPortIs(0x0102);
              hdr.dstPortIs(0x0304);
              hdr.lenIs(0x0506);
              hdr.checksumU16Is(0x0708);
              EXPECT_EQ(hdr.payloadLen(), 0x0506 - 8);
            }),
            octets("0102 0304 0506 0708"));
  EXPECT_EQ(image<AhHdr>([](AhHdr& hdr) {
              hdr.nextHdrNumIs(ipProtoUdp);
              hdr.payloadLenIs(255);
              hdr.reservedIs(0x0102);
              hdr.spiIs(0x03040506);
              hdr.sequenceNumIs(0x0708090a);
              EXPECT_EQ(hdr.headerBytes(), 1028);
            }),
            octets("11ff 0102 03040506 0708090a"));
  EXPECT_EQ(image<Icmp6Hdr>([](Icmp6Hdr& hdr) {
              hdr.typeIs(icmp6TypeEchoRequest);
              hdr.codeIs(1);
              hdr.checksumIs(IpChecksum(U16{0x0203}));
              EXPECT_EQ(hdr.checksumU16(), 0x0203);
            }),
            octets("8001 0203"));
  EXPECT_EQ(image<Icmp6RsHdr>(kAsMade), octets("8500 0000 00000000"));
  EXPECT_EQ(image<Icmp6RaHdr>([](Icmp6RaHdr& hdr) {
              hdr.curHopLimitIs(64);
              hdr.managedIs(true);
              hdr.otherConfigIs(true);
              hdr.managedIs(false);
              hdr.routerLifetimeIs(0x0102);
              hdr.reachableTimeIs(0x03040506);
              hdr.retransTimerIs(0x0708090a);
              EXPECT_TRUE(hdr.otherConfig() && !hdr.managed());
            }),
            octets("8600 0000 40 40 0102 03040506 0708090a"));
  EXPECT_EQ(image<Icmp6NsHdr>([](Icmp6NsHdr& hdr) { hdr.targetIs(kTarget); }),
            octets("8700 0000 00000000 fe80 0000 0000 0000 0000 0000 0000 0001"));
  EXPECT_EQ(image<Icmp6NaHdr>([](Icmp6NaHdr& hdr) {
              hdr.routerIs(true);
              hdr.solicitedIs(true);
              hdr.overrideIs(true);
              hdr.solicitedIs(false);
              hdr.targetIs(kTarget);
              EXPECT_TRUE(hdr.router() && !hdr.solicited() && hdr.override());
              EXPECT_EQ(hdr.target(), kTarget);
            }),
            octets("8800 0000 a0000000 fe80 0000 0000 0000 0000 0000 0000 0001"));
  EXPECT_EQ(image<Icmp6LinkLayerAddrOptionHdr>([](auto& hdr) { hdr.addrIs(EthAddr("00:01:02:03:04:05")); }),
            octets("0101 000102030405"));
  EXPECT_EQ(image<Icmp6PrefixInfoOptionHdr>([](Icmp6PrefixInfoOptionHdr& hdr) {
              hdr.prefixLenIs(64);
              hdr.onLinkIs(true);
              hdr.autonomousIs(true);
              hdr.validLifetimeIs(0x01020304);
              hdr.preferredLifetimeIs(0x05060708);
              hdr.prefixIs(kTarget);
              EXPECT_TRUE(hdr.onLink() && hdr.autonomous());
            }),
            octets("0304 40 c0 01020304 05060708 00000000 fe80 0000 0000 0000 0000 0000 0000 0001"));
  EXPECT_EQ(image<Icmp6MtuOptionHdr>([](Icmp6MtuOptionHdr& hdr) { hdr.mtuIs(1500); }),
            octets("0501 0000 000005dc"));
}

TEST(UpperHdr, LengthsThatAreTooSmall) {
  UdpHdr hdr;
  hdr.lenIs(7);
  EXPECT_EQ(hdr.payloadLen(), 0);
  EXPECT_EQ(AhHdr().headerBytes(), 8);
}

TEST(UpperHdr, NumbersWithoutANameAreNumbers) {
  EXPECT_EQ(testing::PrintToString(icmp6TypeRedirect), "icmp6TypeRedirect");
  EXPECT_EQ(testing::PrintToString(static_cast<Icmp6TypeNumber>(200)), "200");
  EXPECT_EQ(testing::PrintToString(icmp6OptMtu), "icmp6OptMtu");
  EXPECT_EQ(testing::PrintToString(static_cast<Icmp6OptionTypeNumber>(6)), "6");
}

template <typename Factory>
void expectBinding(Factory factory, U32 headerBytes, const char* condition) {
  const auto pkt = frames::packet(std::string(headerBytes + 3, 'x'), 3);
  const auto whole = frames::packet(std::string(headerBytes + 3, 'x'));
  EXPECT_EQ(static_cast<void*>(factory(whole, 3)->header()), whole->front() + 3);
  EXPECT_DEATH(factory(whole, 4), condition);
  EXPECT_DEATH(factory(whole, 0xffffffff), condition);
  EXPECT_DEATH(factory(pkt, 3), condition);
}

TEST(UpperHdr, WrappersBindWhatLiesInTheFirstPiece) {
  const auto condition = [](std::string hdr) {
    return "\\( offset_ \\+ sizeof\\( " + hdr + " \\) \\) <= pkt_->frontBytes\\(\\)";
  };
  expectBinding(udpHdrWrapperFactory, 8, condition("UdpHdr").c_str());
  expectBinding(ahHdrWrapperFactory, 12, condition("AhHdr").c_str());
  expectBinding(icmp6HdrWrapperFactory, 4, condition("Icmp6Hdr").c_str());
  expectBinding(icmp6OptionCommonHdrWrapperFactory, 2, condition("Icmp6OptionCommonHdr").c_str());
}

}  // namespace
