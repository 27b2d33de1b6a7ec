// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/IpSocketPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <netinet/in.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Kiv/Kiv.h"
#include "Wirl/access/Ip6SocketPam.h"
#include "tests/access/PamConformance.h"
#include "tests/access/Wire.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/TraceCapture.h"

namespace Wirl {
namespace {

using Options = IpSocketOptions;
using PamPtr = Kiv::Ptr<RawIpPam>;

constexpr IpProtocolNumber kProtocol = ipProtoNetworkBoot;  // one that nobody else speaks

/// Of both families: `GetParam()` is whether IPv6.
class RawIpPamTest : public WireTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    NetNsTest::SetUp();
    if (IsSkipped() || HasFailure()) return;
    wire = &shared();
    addressRed = IpGenAddr(v6 ? wire->veth.ip6A : wire->veth.ipA);
    addressBlue = IpGenAddr(v6 ? wire->veth.ip6B : wire->veth.ipB);
  }

  PamPtr pamIn(const NetNs& ns, IpProtocolNumber protocol = kProtocol) const {
    const NamespaceName name = Wire::nameOf(ns);
    return v6 ? PamPtr(ip6SocketPamFactory("pam", protocol, name))
              : PamPtr(ipSocketPamFactory("pam", protocol, name));
  }
  /// One that is open in red, and one in blue that sends to it.
  PamPtr receiver(U32 options = 0) const {
    const PamPtr pam = pamIn(wire->red);
    pam->optionsIs(options);
    pam->enabledIs(true);
    return pam;
  }
  PamPtr sender() const {
    const PamPtr pam = pamIn(wire->blue);
    pam->txDstIpAddrIs(addressRed);
    pam->enabledIs(true);
    return pam;
  }
  /// What an IPv4 packet has in front of its payload, as the sockets deliver it.
  std::size_t headerBytes() const { return v6 ? 0 : 20; }
  std::string payload(const Pkt::Ptr& pkt) const {
    return pkt ? std::string(pkt->stringValue()).substr(std::min<std::size_t>(headerBytes(), pkt->bytes()))
               : "nothing";
  }
  std::string receive(const PamPtr& pam, double seconds = 2) const {
    Pkt::Ptr pkt;
    Kiv::activityLoop().runUntil([&] { return (pkt = pam->rxPkt()) != nullptr; }, seconds);
    return payload(pkt);
  }
  int optionOf(const PamPtr& pam, int level, int name) const {
    int value = -2;
    socklen_t length = sizeof(value);
    getsockopt(pam->fileDesc()->descriptor(), level, name, &value, &length);
    return value;
  }
  int level() const { return v6 ? IPPROTO_IPV6 : IPPROTO_IP; }

  const bool v6 = GetParam();
  const Wire* wire = nullptr;
  IpGenAddr addressRed, addressBlue;
};
INSTANTIATE_TEST_SUITE_P(Families, RawIpPamTest, testing::Bool(),
                         [](const auto& param) { return param.param ? "IPv6" : "IPv4"; });

TEST_P(RawIpPamTest, MovesPacketsOfEverySizeAndSaysWhereTheyCameFrom) {
  const U32 all = Options::ipPktInfo | Options::ipRecvTOS | Options::ipRecvTTL | Options::ipRecvOrigDstAddr;
  const PamPtr red = receiver(all);
  const PamPtr blue = sender();
  blue->txTOSIs(46);
  blue->txTTLIs(7);
  red->maxRxPktDataIs(~0u);
  for (const std::size_t size : {std::size_t{4}, std::size_t{1400}, std::size_t{9000}}) {
    std::string text(size, 'x');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7);
    blue->txPktIs(pktOf(text));
    EXPECT_TRUE(receive(red) == text) << size;
    EXPECT_EQ(red->rxSrcIpAddr(), addressBlue);
    EXPECT_EQ(red->rxDstIpAddr(), addressRed);
    EXPECT_EQ(red->rxOrigDstIpAddr(), addressRed);
    EXPECT_EQ(red->rxIfIndex(), wire->indexRed);
    EXPECT_EQ(red->rxTOS(), 46 << 2);
    EXPECT_EQ(red->rxTTL(), 7);
    EXPECT_EQ(red->rxFlags() & MSG_TRUNC, 0);
  }
  EXPECT_EQ(blue->txPktCount(), 3u);
  EXPECT_EQ(red->rxPktCount(), 3u);
  const U32 empty = red->rxErrors();
  EXPECT_EQ(red->rxPkt(), nullptr);
  EXPECT_EQ(red->rxErrors(), empty + 1);  // also of a socket that is merely empty

  // Without the options: what the header of an IPv4 packet tells, and nothing from before.
  red->optionsIs(0);
  blue->txPktIs(pktOf("bare"));
  EXPECT_EQ(receive(red), "bare");
  EXPECT_EQ(red->rxSrcIpAddr(), addressBlue);
  EXPECT_EQ(red->rxDstIpAddr(), v6 ? IpGenAddr() : addressRed);
  EXPECT_EQ(red->rxTTL(), v6 ? 0 : 7);
  EXPECT_EQ(red->rxTOS(), v6 ? 0 : 46 << 2);
  EXPECT_EQ(red->rxIfIndex(), 0u);
  EXPECT_EQ(red->rxOrigDstIpAddr(), IpGenAddr());
}

TEST_P(RawIpPamTest, WhatIsTooLongIsCut) {
  const PamPtr red = receiver();
  const PamPtr blue = sender();
  for (const U32 room : {4u, 1500u}) {
    red->maxRxPktDataIs(static_cast<U32>(headerBytes()) + room);
    blue->txPktIs(pktOf("payload"));
    EXPECT_EQ(receive(red), room == 4 ? "payl" : "payload");
    EXPECT_EQ((red->rxFlags() & MSG_TRUNC) != 0, room == 4);
  }
}

TEST_P(RawIpPamTest, EachOptionIsASocketOptionAtOpeningAndWhileOpen) {
  const struct {
    U32 bit;
    int v4, v6;
  } rows[] = {{Options::ipFreeBind, IP_FREEBIND, IPV6_FREEBIND},
              {Options::ipHdrIncl, IP_HDRINCL, IPV6_HDRINCL},
              {Options::ipMulticastLoop, IP_MULTICAST_LOOP, IPV6_MULTICAST_LOOP},
              {Options::ipPktInfo, IP_PKTINFO, IPV6_RECVPKTINFO},
              {Options::ipRecvErr, IP_RECVERR, IPV6_RECVERR},
              {Options::ipRecvOrigDstAddr, IP_RECVORIGDSTADDR, IPV6_RECVORIGDSTADDR},
              {Options::ipRecvTOS, IP_RECVTOS, IPV6_RECVTCLASS},
              {Options::ipRecvTTL, IP_RECVTTL, IPV6_RECVHOPLIMIT},
              {Options::ipTransparent, IP_TRANSPARENT, IPV6_TRANSPARENT}};
  for (const auto& row : rows) {
    SCOPED_TRACE(Options(row.bit));
    const PamPtr pam = receiver();
    const auto value = [&] { return optionOf(pam, level(), v6 ? row.v6 : row.v4); };
    EXPECT_EQ(value(), 0);
    pam->optionsIs(row.bit);
    EXPECT_EQ(value(), 1);
    pam->enabledIs(false);
    pam->enabledIs(true);
    EXPECT_EQ(value(), 1);
    pam->optionsIs(0);
    EXPECT_EQ(value(), 0);
  }
}

TEST_P(RawIpPamTest, TheOtherOptionsTakeTheirValuesFromTheAttributes) {
  const PamPtr pam = receiver();
  const auto priority = [&] { return optionOf(pam, SOL_SOCKET, SO_PRIORITY); };
  pam->rxBufIs(1 << 22);
  pam->optionsIs(Options::ipRcvBuf);
  EXPECT_EQ(optionOf(pam, SOL_SOCKET, SO_RCVBUF), 2 << 22);
  pam->rxBufIs(~0u);
  pam->optionsIs(0);
  pam->optionsIs(Options::ipRcvBuf);
  EXPECT_GT(optionOf(pam, SOL_SOCKET, SO_RCVBUF), 2 << 22);
  pam->priorityIs(5);
  EXPECT_EQ(priority(), 5);
  pam->txTOSIs(8);
  EXPECT_EQ(priority(), 5);  // not what the kernel makes of the TOS octet
  pam->txTTLIs(9);
  const int tos = v6 ? IPV6_TCLASS : IP_TOS;
  const int ttl = v6 ? IPV6_UNICAST_HOPS : IP_TTL;
  const int multicastTtl = v6 ? IPV6_MULTICAST_HOPS : IP_MULTICAST_TTL;
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(optionOf(pam, level(), tos), 8 << 2);
    EXPECT_EQ(optionOf(pam, level(), ttl), 9);
    EXPECT_EQ(optionOf(pam, level(), multicastTtl), 9);
    EXPECT_EQ(priority(), 5);
    pam->enabledIs(false);
    pam->enabledIs(true);
  }
  pam->txTTLIs(IpTtl());
  EXPECT_EQ(optionOf(pam, level(), ttl), 64);
  EXPECT_EQ(optionOf(pam, level(), multicastTtl), 1);
  pam->priorityIs(0);
  pam->optionsIs(Options::ipPriority);
  pam->txTOSIs(16);
  EXPECT_EQ(priority(), 0);  // 0 is kept, too, where it is asked for
  EXPECT_THROW(pam->priorityIs(16), Kiv::RangeException);
  pam->txTOSIs(17);
  EXPECT_NE(priority(), 16);  // which stays stored
  pam->enabledIs(false);
  pam->enabledIs(true);
  EXPECT_NE(priority(), 16);
  pam->priorityIs(3);
  pam->optionsIs(0);
  EXPECT_EQ(priority(), 0);
}

TEST_P(RawIpPamTest, AFilterOptionThatIsRefusedChangesNothingAndOneThatIsGoneCanBeSwitchedOff) {
  const PamPtr pam = receiver();
  const int pktInfo = v6 ? IPV6_RECVPKTINFO : IP_PKTINFO;
  EXPECT_EQ(failureOf([&] { pam->optionsIs(Options::ipPktInfo | Options::ipAttachFilter); }),
            "SO_ATTACH_FILTER option must be supplied with a valid filter 22");
  EXPECT_EQ(optionOf(pam, level(), pktInfo), 0);
  pam->rxFilterIs(0, IpFilter(BPF_RET | BPF_K, 0, 0, 0xffff));
  pam->optionsIs(Options::ipAttachFilter);
  pam->doDetachBpfFilter();
  EXPECT_EQ(failureOf([&] { pam->optionsIs(Options::ipPktInfo); }), "");
  EXPECT_EQ(optionOf(pam, level(), pktInfo), 1);
  pam->optionsIs(Options::ipAttachFilter);
  const Fault fault(Call::setsockopt, 1, EPERM);
  EXPECT_EQ(failureOf([&] { pam->optionsIs(0); }), "setsockopt(SO_DETACH_FILTER) 1");
  EXPECT_EQ(pam->fileDesc()->descriptor(), -1);
}

TEST_P(RawIpPamTest, WhatCannotBeSentIsRefusedAndCounted) {
  const PamPtr blue = sender();
  const IpGenAddr other = v6 ? IpGenAddr(IpAddr("10.0.0.1")) : IpGenAddr(Ip6Addr("2001:db8::1"));
  const struct {
    IpGenAddr to, from;
    const char* device;
    int error;
  } rows[] = {{IpGenAddr(), IpGenAddr(), "", EDESTADDRREQ},
              {v6 ? IpGenAddr("::") : IpGenAddr("0.0.0.0"), IpGenAddr(), "", EDESTADDRREQ},
              {other, IpGenAddr(), "", EAFNOSUPPORT},
              {addressRed, other, "", EAFNOSUPPORT},
              {addressRed, IpGenAddr(), "nosuchdevice", ENODEV},
              {addressRed, IpGenAddr(), "a name longer than any device's", ENODEV},
              {addressRed, IpGenAddr(), "veth1", ENOMEM}};
  U32 refused = 0;
  const Fault calls(Call::sendmsg);
  const Fault lookUp(Call::ioctl, 2, ENOMEM);
  for (const auto& row : rows) {
    blue->txDstIpAddrIs(row.to);
    blue->txSrcIpAddrIs(row.from);
    blue->txIfNameIs(row.device);
    blue->txPktIs(pktOf("x"));
    EXPECT_EQ(blue->txErrno(), row.error);
    EXPECT_EQ(blue->txErrors(), ++refused);
  }
  EXPECT_EQ(calls.calls(), 0u);
}

TEST_P(RawIpPamTest, SourceAndInterfaceAreChosenAndStay) {
  const std::string second = v6 ? "fd77:1::99" : "10.77.1.99";
  wire->blue.ip("addr add " + second + (v6 ? "/64 dev veth1 nodad" : "/24 dev veth1"));
  const PamPtr red = receiver();
  const PamPtr blue = sender();
  blue->txSrcIpAddrIs(IpGenAddr(second));
  for (int i = 0; i < 2; ++i) {
    blue->txPktIs(pktOf("x"));
    EXPECT_EQ(receive(red), "x");
    EXPECT_EQ(red->rxSrcIpAddr(), IpGenAddr(second));
  }
  wire->blue.ip("addr del " + second + (v6 ? "/64 dev veth1" : "/24 dev veth1"));
  blue->txPktIs(pktOf("x"));
  EXPECT_NE(blue->txErrno(), 0);
  EXPECT_EQ(blue->txErrors(), 1u);
  blue->txSrcIpAddrIs(IpGenAddr());
  // A group says nothing of where it is; by index, then by name.
  const PamPtr member = receiver();
  const IpGenAddr group(v6 ? "ff02::4d4d" : "224.0.0.77");
  EXPECT_EQ(member->handleMcastGroup(group, true, wire->indexRed), 0);
  blue->txDstIpAddrIs(group);
  blue->txIfIndexIs(wire->indexBlue);
  blue->txPktIs(pktOf("by index"));
  EXPECT_EQ(receive(member), "by index");
  blue->txIfIndexIs(0);
  blue->txIfNameIs("veth1");
  blue->txPktIs(pktOf("by name"));
  EXPECT_EQ(receive(member), "by name");
  blue->txIfNameIs("lo");
  blue->txPktIs(pktOf("elsewhere"));
  EXPECT_EQ(receive(member, 0.05), "nothing");
}

TEST_P(RawIpPamTest, MembershipsAreThoseOfTheSocketItself) {
  const PamPtr red = receiver(Options::ipPktInfo);
  const PamPtr other = receiver();
  const PamPtr blue = sender();
  const IpGenAddr group(v6 ? "ff02::4d4e" : "224.0.0.78");
  const IpGenAddr second(v6 ? "ff02::4d4f" : "224.0.0.79");
  blue->txDstIpAddrIs(group);
  blue->txIfIndexIs(wire->indexBlue);
  EXPECT_EQ(red->handleMcastGroup(addressRed, true, 0), EINVAL);
  EXPECT_EQ(red->handleMcastGroup(v6 ? IpGenAddr("224.0.0.5") : IpGenAddr("ff02::5"), true, 0), EINVAL);
  EXPECT_EQ(red->handleMcastGroup(group, true, 0x7fffffff), ENODEV);
  EXPECT_EQ(red->handleMcastGroup(group, false, wire->indexRed), EADDRNOTAVAIL);
  EXPECT_EQ(pamIn(wire->red)->handleMcastGroup(group, true, 0), ENODEV);
  EXPECT_EQ(red->handleMcastGroup(group, true, wire->indexRed), 0);
  EXPECT_EQ(red->handleMcastGroup(group, true, wire->indexRed), EADDRINUSE);
  EXPECT_EQ(other->handleMcastGroup(second, true, wire->indexRed), 0);
  blue->txPktIs(pktOf("group"));
  EXPECT_EQ(receive(red), "group");
  EXPECT_EQ(red->rxDstIpAddr(), group);
  EXPECT_EQ(receive(other, 0.02), v6 ? "group" : "nothing");
  blue->txDstIpAddrIs(second);
  blue->txPktIs(pktOf("second"));
  EXPECT_EQ(receive(other), "second");
  // What another socket joined is not ours, except that the kernel gives every group to a raw IPv6 socket.
  EXPECT_EQ(receive(red, 0.02), v6 ? "second" : "nothing");
  EXPECT_EQ(red->handleMcastGroup(group, false, wire->indexRed), 0);
  blue->txDstIpAddrIs(group);
  blue->txPktIs(pktOf("after"));
  EXPECT_EQ(receive(red, 0.02), "nothing");
}

TEST_P(RawIpPamTest, PacketsWithAHeaderGoWhereTheHeaderSays) {
  const PamPtr red = receiver(Options::ipRecvTTL);
  const PamPtr blue = pamIn(wire->blue);
  blue->optionsIs(Options::ipHdrIncl);
  blue->enabledIs(true);
  std::string header(v6 ? 40 : 20, '\0');
  header[0] = v6 ? 0x60 : 0x45;
  if (v6) header[5] = 4;
  header[v6 ? 6 : 9] = static_cast<char>(kProtocol);
  header[v6 ? 7 : 8] = 33;
  IpGenAddr(addressBlue).copyToBuffer(reinterpret_cast<unsigned char*>(&header[v6 ? 8 : 12]));
  IpGenAddr(addressRed).copyToBuffer(reinterpret_cast<unsigned char*>(&header[v6 ? 24 : 16]));
  for (const U32 inPrivate : {0u, 7u, v6 ? 40u : 20u}) {
    const Pkt::Ptr pkt = pktOf(header.substr(inPrivate) + "data");
    if (inPrivate > 0) pkt->newPrivateHeadData(inPrivate);
    for (U32 i = 0; i < inPrivate; ++i) pkt->rawByteIs(i, static_cast<U8>(header[i]));
    blue->txPktIs(pkt);
    EXPECT_EQ(blue->txErrno(), 0);
    EXPECT_EQ(receive(red), "data");
    EXPECT_EQ(red->rxTTL(), 33);
    EXPECT_EQ(red->rxSrcIpAddr(), addressBlue);
  }
  blue->txPktIs(pktOf("short"));
  EXPECT_EQ(blue->txErrno(), EDESTADDRREQ);
}

TEST_P(RawIpPamTest, ABatchFillsTheSlotsAndLeavesAloneWhatClientsHold) {
  const PamPtr red = receiver(Options::ipPktInfo | Options::ipRecvTTL);
  const PamPtr witness = receiver();
  const PamPtr blue = sender();
  red->socketReadLimitIs(4);
  red->enableBulkReadIs(true);
  const Pkt::Ptr made = red->savedPacket(0);
  const auto send = [&](std::initializer_list<const char*> texts) {
    for (const char* text : texts) {
      blue->txTTLIs(static_cast<U8>(text[0]));
      blue->txPktIs(pktOf(text));
    }
    for (const char* text : texts) EXPECT_EQ(receive(witness), text);  // by now they have arrived
  };
  const auto slots = [&] {
    std::string all;
    for (U16 i = 0; i < 6; ++i) all += red->savedPacketRx(i) ? payload(red->savedPacket(i)) : ".";
    return all;
  };
  send({"a", "b", "c", "d", "e"});
  EXPECT_EQ(payload(red->rxPkt()), "d");  // the last of the batch, which the attributes are about
  EXPECT_EQ(slots(), "abcd..");
  EXPECT_EQ(red->rxTTL(), 'd');
  EXPECT_NE(red->savedPacket(0), made);  // we hold it
  for (U16 i = 0; i < 4; ++i) {
    EXPECT_EQ(red->rxMetadata(i).ttl, 'a' + i);
    EXPECT_EQ(red->rxMetadata(i).srcIpAddr, addressBlue);
    EXPECT_EQ(red->rxMetadata(i).ifIndex, wire->indexRed);
  }
  EXPECT_EQ(red->rxPktCount(), 4u);
  // Held: a packet, and the buffer of another; free: the rest.
  const Pkt::Ptr held = red->savedPacket(0);
  const Pkt::Ptr copy = globalPktManager()->newShallowCopy(red->savedPacket(1));
  const Pkt* const reused = red->savedPacket(2).get();
  EXPECT_EQ(payload(red->rxPkt()), "e");
  EXPECT_EQ(slots(), "e.....");
  EXPECT_EQ(red->rxMetadata(1).ttl, 0);
  send({"f", "g", "h", "i"});
  EXPECT_NE(red->rxPkt(), nullptr);
  EXPECT_EQ(slots(), "fghi..");
  EXPECT_EQ(payload(held), "a");
  EXPECT_EQ(payload(copy), "b");
  EXPECT_EQ(red->savedPacket(2).get(), reused);
  EXPECT_EQ(red->rxPkt(), nullptr);
  EXPECT_EQ(slots(), "......");

  // What clients do to a slot's packet does not last.
  red->savedPacket(0)->newPrivateHeadData(2);
  red->savedPacket(1)->newSeparateVlanTag(1, 2);
  red->savedPacketDel(2);
  red->maxRxPktDataIs(4000);
  send({"j", "k", "l"});
  EXPECT_NE(red->rxPkt(), nullptr);
  EXPECT_EQ(slots(), "jkl...");
  // Nor does what was told in slots that a smaller limit left out meanwhile.
  red->maxRxPktDataIs(static_cast<U32>(headerBytes()) + 1);
  red->optionsIs(0);
  send({"a", "b", "c", "d"});
  EXPECT_NE(red->rxPkt(), nullptr);
  red->socketReadLimitIs(2);
  send({"e", "f"});
  EXPECT_NE(red->rxPkt(), nullptr);
  red->socketReadLimitIs(4);
  red->optionsIs(Options::ipPktInfo);
  send({"g", "h", "i", "j"});
  EXPECT_NE(red->rxPkt(), nullptr);
  EXPECT_EQ(slots(), "ghij..");
  for (U16 i = 0; i < 4; ++i) EXPECT_EQ(red->rxMetadata(i).ifIndex, wire->indexRed) << i;
  red->maxRxPktDataIs(4000);
  red->enableBulkReadIs(false);
  EXPECT_EQ(slots(), "......");
  send({"single"});
  EXPECT_EQ(receive(red), "single");
}

/// Lets through packets whose payload begins with the letter.
void filterIs(RawIpPam& pam, std::size_t headerBytes, char letter) {
  pam.rxFilterIs(0, IpFilter(BPF_LD | BPF_B | BPF_ABS, 0, 0, static_cast<U32>(headerBytes)));
  pam.rxFilterIs(1, IpFilter(BPF_JMP | BPF_JEQ | BPF_K, 0, 1, static_cast<U32>(letter)));
  pam.rxFilterIs(2, IpFilter(BPF_RET | BPF_K, 0, 0, 0xffff));
  pam.rxFilterIs(3, IpFilter(BPF_RET | BPF_K, 0, 0, 0));
}

TEST_P(RawIpPamTest, AFilterLetsThroughExactlyWhatItShouldUnderAFlood) {
  const PamPtr blue = sender();
  const PamPtr witness = receiver();
  blue->txPktIs(pktOf("neighbours"));
  EXPECT_EQ(receive(witness), "neighbours");  // known to each other now
  const PamPtr red = pamIn(wire->red);
  filterIs(*red, headerBytes(), 'y');
  red->optionsIs(Options::ipAttachFilter);
  // Also what arrives while the socket is being opened.
  Fault during(Call::epoll_ctl, 1, [&] {
    for (int i = 0; i < 20; ++i) blue->txPktIs(pktOf("no early"));
  });
  red->enabledIs(true);
  EXPECT_GE(during.calls(), 1u);
  int right = 0;
  int wrong = 0;
  const Kiv::Reactor drain(red->readableCount, [&] {
    while (const Pkt::Ptr pkt = red->rxPkt()) (payload(pkt)[0] == 'y' ? right : wrong) += 1;
  });
  for (int i = 0; i < 200; ++i) blue->txPktIs(pktOf(i % 20 == 0 ? "yes" : "no"));
  Kiv::activityLoop().runUntil([&] { return right == 10; }, 2);
  EXPECT_EQ(right, 10);
  EXPECT_EQ(wrong, 0);
}

TEST_P(RawIpPamTest, WhatIcmpReportsIsTakenOffTheErrorQueueAndTheLoopComesToRest) {
  wire = &own();
  const PamPtr blue = sender();
  blue->optionsIs(Options::ipRecvErr);
  Kiv::Reactor drain(blue->readableCount, [&] {
    while (blue->rxPkt()) {
    }
  });
  wire->red.ip(v6 ? "route add unreachable fd66::/64" : "route add unreachable 10.66.0.0/16");
  wire->blue.ip(v6 ? "route add fd66::/64 via " + wire->veth.ip6A
                   : "route add 10.66.0.0/16 via " + wire->veth.ipA);
  switchOn(wire->red, v6 ? "ipv6/conf/all/forwarding" : "ipv4/ip_forward");
  blue->txDstIpAddrIs(IpGenAddr(v6 ? "fd66::1" : "10.66.0.1"));
  for (int i = 0; i < 300 && blue->rxErrQueueCount() == 0; ++i) {  // the system limits how often it tells
    blue->txPktIs(pktOf("into the void"));
    Kiv::activityLoop().runFor(0.01);
  }
  EXPECT_GT(blue->rxErrQueueCount(), 0u);
  Kiv::activityLoop().runFor(0.01);
  const U32 events = blue->readableCount();
  Kiv::activityLoop().runFor(0.02);
  EXPECT_EQ(blue->readableCount(), events);
}

TEST_P(RawIpPamTest, TracesWhyNothingWasReceived) {
  const PamPtr pam = pamIn(wire->red);
  const std::string handle = v6 ? "Ip6SocketPam" : "IpSocketPam";
  TraceCapture traces(handle + "/0-3");
  EXPECT_EQ(pam->rxPkt(), nullptr);
  pam->enabledIs(true);
  traces.clear();
  for (const int error : {EAGAIN, ENOMEM}) {
    const Fault fault(Call::recvmsg, 1, error);
    EXPECT_EQ(pam->rxPkt(), nullptr);
  }
  pam->maxRxPktDataIs(60000);
  for (const bool batches : {false, true}) {
    pam->enableBulkReadIs(batches);
    const U32 errors = pam->rxErrors();
    for (const std::size_t refused : {4000u, 60000u}) {  // what the batch needs, what the packets need
      const AllocationRefusal none(refused);
      EXPECT_EQ(AllocationRefusal::works ? pam->rxPkt() : nullptr, nullptr);
    }
    EXPECT_EQ(pam->rxErrors(), errors);
  }
  pam->enabledIs(false);
  EXPECT_EQ(pam->rxPkt(), nullptr);
  const std::string noPkt = handle + "/0:Failed to obtain new packet object";
  std::vector<std::string> lines = traces.lines();
  EXPECT_EQ(std::erase(lines, noPkt), AllocationRefusal::works ? 4u : 0u);
  EXPECT_THAT(lines, testing::ElementsAre(handle + "/0:recvmsg failed with 12",
                                          handle + "/3:" + handle + " not enabled. Aborting action"));
}

}  // namespace
}  // namespace Wirl
