// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/IpSocketPam.h"

#include <linux/filter.h>
#include <netinet/in.h>

#include "Wirl/access/Ip6SocketPam.h"
#include "tests/access/PamConformance.h"
#include "tests/access/Wire.h"

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
  /// Open in red; open in blue, sending to red.
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
  /// Length of the header in front of the payload of a received packet.
  U32 headerBytes() const { return v6 ? 0 : 20; }
  std::string payload(const Pkt::Ptr& pkt) const {
    return pkt ? std::string(pkt->stringValue()).substr(std::min(headerBytes(), pkt->bytes())) : "nothing";
  }
  /// The header of a packet of less than 256 octets from blue to red.
  std::string headerOf(U8 ttl, U8 tos, std::size_t payloadBytes) const {
    std::string header(v6 ? 40 : 20, '\0');
    header[0] = v6 ? static_cast<char>(0x60 | tos >> 4) : 0x45;
    header[1] = static_cast<char>(v6 ? tos << 4 : tos);
    if (v6) header[5] = static_cast<char>(payloadBytes);  // the kernel writes it for IPv4 only
    header[v6 ? 6 : 9] = static_cast<char>(kProtocol);
    header[v6 ? 7 : 8] = static_cast<char>(ttl);
    IpGenAddr(addressBlue).copyToBuffer(reinterpret_cast<unsigned char*>(&header[v6 ? 8 : 12]));
    IpGenAddr(addressRed).copyToBuffer(reinterpret_cast<unsigned char*>(&header[v6 ? 24 : 16]));
    return header;
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

/// Whatever way packets are sent, they arrive once, in order, whole or cut, with the metadata that the
/// options ask for, whatever way they are received. A fixed seed draws the ways.
TEST_P(RawIpPamTest, EveryWayToSendMeetsEveryWayToReceive) {
  std::mt19937 draw(v6);
  const auto lot = [&](U32 below) { return static_cast<U32>(draw() % below); };
  const PamPtr red = receiver(), blue = sender(), headed = pamIn(wire->blue);
  headed->optionsIs(Options::ipHdrIncl);
  headed->enabledIs(true);
  struct Sent {
    std::string text;
    U8 ttl, tos;
  };
  U64 received = 0;
  std::vector<std::pair<Pkt::Ptr, std::string>> held;  // clients may keep what they receive
  for (int round = 0; round < 300 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    red->optionsIs((lot(2) * Options::ipPktInfo) | (lot(2) * Options::ipRecvTOS) |
                   (lot(2) * Options::ipRecvTTL) | (lot(2) * Options::ipRecvOrigDstAddr));
    red->enableBulkReadIs(lot(2) == 0);
    red->socketReadLimitIs(static_cast<U8>(1 + lot(8)));
    const U32 room = lot(4) == 0 ? 4 : 10000;
    red->maxRxPktDataIs(headerBytes() + room);
    std::vector<Sent> sent(1 + lot(12));
    for (Sent& each : sent) {
      const bool own = lot(3) == 0;  // the client writes the IP header
      each.text = std::string(4 + lot(own || lot(8) > 0 ? 100 : 9000), static_cast<char>('a' + lot(26)));
      each.ttl = static_cast<U8>(1 + lot(255));
      each.tos = static_cast<U8>(lot(64) << 2);
      const std::string octets = (own ? headerOf(each.ttl, each.tos, each.text.size()) : "") + each.text;
      const U32 inPrivate = lot(2) * lot(std::min(static_cast<U32>(octets.size()), 50u));
      const Pkt::Ptr pkt = pktOf(octets.substr(inPrivate));
      if (inPrivate > 0) std::copy_n(octets.data(), inPrivate, pkt->newPrivateHeadData(inPrivate));
      blue->txTTLIs(each.ttl);
      blue->txTOSIs(IpDscp::ofTos(each.tos));
      (own ? headed : blue)->txPktIs(pkt);
    }
    // What clients do to the packets of slots does not last.
    if (red->enableBulkRead() && lot(3) == 0) {
      if (red->savedPacket(0)) red->savedPacket(0)->newPrivateHeadData(2);
      if (red->savedPacket(1)) red->savedPacket(1)->newSeparateVlanTag(1, 2);
      red->savedPacketDel(2);
    }
    std::size_t got = 0;
    const auto has = [&](Options::Option option) { return red->options().has(option); };
    const auto take = [&](const Pkt::Ptr& pkt, const IpRxMetadata& told) {
      ASSERT_LT(got, sent.size());
      const Sent& wanted = sent[got++];
      const std::string text = wanted.text.substr(0, room);
      ASSERT_TRUE(payload(pkt) == text);
      ASSERT_EQ((told.flags & MSG_TRUNC) != 0, wanted.text.size() > room);
      ASSERT_EQ(told.srcIpAddr, addressBlue);
      ASSERT_EQ(told.dstIpAddr, !v6 || has(Options::ipPktInfo) ? addressRed : IpGenAddr());
      ASSERT_EQ(told.origDstIpAddr, has(Options::ipRecvOrigDstAddr) ? addressRed : IpGenAddr());
      ASSERT_EQ(told.ifIndex, has(Options::ipPktInfo) ? wire->indexRed : 0);
      ASSERT_EQ(told.ttl, !v6 || has(Options::ipRecvTTL) ? wanted.ttl : 0);
      ASSERT_EQ(told.tos, !v6 || has(Options::ipRecvTOS) ? wanted.tos : 0);
      if (lot(8) == 0) held.emplace_back(pkt, text);
    };
    const Kiv::Reactor onReadable(red->readableCount, [&] {
      while (const Pkt::Ptr pkt = HasFatalFailure() ? nullptr : red->rxPkt()) {
        U16 last = 0;  // in a batch the attributes are about the last packet
        for (; red->savedPacketRx(last + 1); ++last) take(red->savedPacket(last), red->rxMetadata(last));
        EXPECT_TRUE(!red->enableBulkRead() || red->savedPacket(last) == pkt);
        EXPECT_EQ(red->rxMetadata(last + 1).ttl, 0);
        take(pkt, {red->rxSrcIpAddr(), red->rxDstIpAddr(), red->rxOrigDstIpAddr(), red->rxIfIndex(),
                   red->rxTOS(), red->rxTTL(), red->rxFlags(), red->rxTimes()});
      }
    });
    Kiv::activityLoop().runUntil([&] { return got == sent.size() || HasFailure(); }, 5);
    EXPECT_EQ(got, sent.size());
    EXPECT_EQ(red->rxPktCount(), received += got);
    for (const auto& [pkt, text] : held) EXPECT_TRUE(payload(pkt) == text);
    if (held.size() > 30) held.clear();
  }
  EXPECT_EQ(blue->txPktCount() + headed->txPktCount(), received);
  red->enableBulkReadIs(false);
  const U32 empty = red->rxErrors();
  EXPECT_EQ(red->rxPkt(), nullptr);
  EXPECT_EQ(red->rxErrors(), empty + 1);  // counted although the socket is merely empty
  headed->txPktIs(pktOf("short"));
  EXPECT_EQ(headed->txErrno(), EDESTADDRREQ);
}

TEST_P(RawIpPamTest, AttributesAreSocketOptionsWhileOpenAndWhenReopened) {
  using Set = std::function<void(RawIpPam&, bool)>;
  const auto bit = [](U32 bits) { return [bits](RawIpPam& pam, bool on) { pam.optionsIs(on ? bits : 0); }; };
  const Set ttl = [](RawIpPam& pam, bool on) { pam.txTTLIs(on ? IpTtl(9) : IpTtl()); };
  const struct {
    Set set;
    int v4, v6, on, off;
  } rows[] = {{bit(Options::ipFreeBind), IP_FREEBIND, IPV6_FREEBIND, 1, 0},
              {bit(Options::ipHdrIncl), IP_HDRINCL, IPV6_HDRINCL, 1, 0},
              {bit(Options::ipMulticastLoop), IP_MULTICAST_LOOP, IPV6_MULTICAST_LOOP, 1, 0},
              {bit(Options::ipRecvErr), IP_RECVERR, IPV6_RECVERR, 1, 0},
              {bit(Options::ipTransparent), IP_TRANSPARENT, IPV6_TRANSPARENT, 1, 0},
              {[](RawIpPam& pam, bool on) { pam.txTOSIs(on ? 8 : 0); }, IP_TOS, IPV6_TCLASS, 32, 0},
              {ttl, IP_TTL, IPV6_UNICAST_HOPS, 9, 64},
              {ttl, IP_MULTICAST_TTL, IPV6_MULTICAST_HOPS, 9, 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    const PamPtr pam = receiver();
    const auto value = [&] { return optionOf(pam, level(), v6 ? row.v6 : row.v4); };
    EXPECT_EQ(value(), row.off);
    row.set(*pam, true);
    EXPECT_EQ(value(), row.on);
    pam->enabledIs(false);
    pam->enabledIs(true);
    EXPECT_EQ(value(), row.on);
    row.set(*pam, false);
    EXPECT_EQ(value(), row.off);
  }
  const PamPtr pam = pamIn(wire->red);
  pam->bindDeviceIs("veth1");
  pam->enabledIs(true);
  pam->rxBufIs(~0u);
  pam->optionsIs(Options::ipRcvBuf);
  EXPECT_GT(optionOf(pam, SOL_SOCKET, SO_RCVBUF), 2 << 22);
  const auto priorityIs = [&](int value) { EXPECT_EQ(optionOf(pam, SOL_SOCKET, SO_PRIORITY), value); };
  pam->priorityIs(5);
  pam->txTOSIs(8);
  priorityIs(5);  // not what the kernel makes of the TOS octet
  pam->enabledIs(false);
  pam->enabledIs(true);
  priorityIs(5);
  pam->priorityIs(0);
  pam->optionsIs(Options::ipPriority);
  pam->txTOSIs(16);
  priorityIs(0);  // this option keeps even 0
  EXPECT_THROW(pam->priorityIs(16), Kiv::RangeException);
  pam->txTOSIs(17);
  EXPECT_NE(optionOf(pam, SOL_SOCKET, SO_PRIORITY), 16);  // although 16 stays stored
  pam->priorityIs(3);
  pam->optionsIs(0);
  priorityIs(0);
  if (!v6) return;
  const PamPtr ospf = pamIn(wire->red, ipProtoOspf);
  for (const PamPtr& each : {ospf, pam}) {
    each->enabledIs(true);
    EXPECT_EQ(failureOf([&] { each->optionsIs(Options::ipv6Checksum); }),
              each == pam ? "setsockopt(IPV6_CHECKSUM) 22" : "");
  }
  EXPECT_EQ(optionOf(ospf, level(), IPV6_CHECKSUM), 12);
}

TEST_P(RawIpPamTest, AFilterLetsThroughExactlyWhatItShouldUnderAFlood) {
  const PamPtr blue = sender(), witness = receiver(), red = pamIn(wire->red);
  blue->txPktIs(pktOf("neighbours"));
  EXPECT_EQ(receive(witness), "neighbours");  // they have resolved each other now
  EXPECT_EQ(failureOf([&] { witness->optionsIs(Options::ipPktInfo | Options::ipAttachFilter); }),
            "SO_ATTACH_FILTER option must be supplied with a valid filter 22");
  const int pktInfo = v6 ? IPV6_RECVPKTINFO : IP_PKTINFO;
  EXPECT_EQ(optionOf(witness, level(), pktInfo), 0);
  // Packets whose payload begins with y.
  red->rxFilterIs(0, IpFilter(BPF_LD | BPF_B | BPF_ABS, 0, 0, headerBytes()));
  red->rxFilterIs(1, IpFilter(BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 'y'));
  red->rxFilterIs(2, IpFilter(BPF_RET | BPF_K, 0, 0, 0xffff));
  red->rxFilterIs(3, IpFilter(BPF_RET | BPF_K, 0, 0, 0));
  red->optionsIs(Options::ipAttachFilter);
  // Also what arrives while the socket is being opened.
  Fault during(Call::epoll_ctl, 1, [&] {
    for (int i = 0; i < 20; ++i) blue->txPktIs(pktOf("no early"));
  });
  red->enabledIs(true);
  EXPECT_GE(during.calls(), 1u);
  int right = 0, wrong = 0;
  const Kiv::Reactor drain(red->readableCount, [&] {
    while (const Pkt::Ptr pkt = red->rxPkt()) (payload(pkt)[0] == 'y' ? right : wrong) += 1;
  });
  for (int i = 0; i < 200; ++i) blue->txPktIs(pktOf(i % 20 == 0 ? "yes" : "no"));
  Kiv::activityLoop().runUntil([&] { return right == 10; }, 2);
  EXPECT_EQ(right, 10);
  EXPECT_EQ(wrong, 0);
  red->doDetachBpfFilter();
  EXPECT_EQ(failureOf([&] { red->optionsIs(Options::ipPktInfo); }), "");  // switches off the one that is gone
  EXPECT_EQ(optionOf(red, level(), pktInfo), 1);
  red->optionsIs(Options::ipAttachFilter);
  const Fault fault(Call::setsockopt, 1, EPERM);
  EXPECT_EQ(failureOf([&] { red->optionsIs(0); }), "setsockopt(SO_DETACH_FILTER) 1");
  EXPECT_EQ(red->fileDesc()->descriptor(), -1);
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
  const PamPtr red = receiver(Options::ipPktInfo), other = receiver(), blue = sender();
  const IpGenAddr group(v6 ? "ff02::4d4e" : "224.0.0.78"), second(v6 ? "ff02::4d4f" : "224.0.0.79");
  const U32 index = wire->indexRed;
  EXPECT_EQ(red->handleMcastGroup(addressRed, true, 0), EINVAL);
  EXPECT_EQ(red->handleMcastGroup(v6 ? IpGenAddr("224.0.0.5") : IpGenAddr("ff02::5"), true, 0), EINVAL);
  EXPECT_EQ(red->handleMcastGroup(group, true, 0x7fffffff), ENODEV);
  EXPECT_EQ(red->handleMcastGroup(group, false, index), EADDRNOTAVAIL);
  EXPECT_EQ(pamIn(wire->red)->handleMcastGroup(group, true, 0), ENODEV);
  EXPECT_EQ(red->handleMcastGroup(group, true, index), 0);
  EXPECT_EQ(red->handleMcastGroup(group, true, index), EADDRINUSE);
  EXPECT_EQ(other->handleMcastGroup(second, true, index), 0);
  blue->txIfIndexIs(wire->indexBlue);
  const auto arrives = [&](const IpGenAddr& to, const PamPtr& at) {
    blue->txDstIpAddrIs(to);
    blue->txPktIs(pktOf("group"));
    return receive(at, 0.05) == "group";
  };
  EXPECT_TRUE(arrives(group, red));
  EXPECT_EQ(red->rxDstIpAddr(), group);
  EXPECT_EQ(receive(other, 0.02), v6 ? "group" : "nothing");
  EXPECT_TRUE(arrives(second, other));
  // A raw IPv6 socket gets every group that any socket has joined.
  EXPECT_EQ(receive(red, 0.02), v6 ? "group" : "nothing");
  EXPECT_EQ(red->handleMcastGroup(group, false, index), 0);
  EXPECT_FALSE(arrives(group, red));
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
