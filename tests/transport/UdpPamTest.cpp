// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/UdpPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>

#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Kiv/Kiv.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Failure.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/NetNs.h"
#include "tests/support/TraceCapture.h"

namespace Wirl {
namespace {

using Mode = UdpPam::Mode;
using testing::ElementsAre;

/// One Pam of a family, and what differs between the families behind one name.
struct End {
  explicit End(bool ipv6) : v6(ipv6) { pam->ipv6EnIs(v6); }

  void bindTo(const std::string& address) {
    v6 ? pam->rxIp6AddrIs(Ip6Addr(address)) : pam->rxIpAddrIs(IpAddr(address));
  }
  void sendTo(const std::string& address, U16 port) {
    v6 ? pam->txDstIp6AddrIs(Ip6Addr(address)) : pam->txDstIpAddrIs(IpAddr(address));
    pam->txPortIs(port);
  }
  void sourceIs(const std::string& address) {
    v6 ? pam->txSrcIp6AddrIs(Ip6Addr(address)) : pam->txSrcIpAddrIs(IpAddr(address));
  }
  void replyTo() {
    v6 ? pam->txDstIp6AddrIs(pam->rxSrcIp6Addr()) : pam->txDstIpAddrIs(pam->rxSrcIpAddr());
    pam->txPortIs(pam->rxSrcPort());
  }
  std::string source() const {
    return v6 ? pam->rxSrcIp6Addr().stringValue() : pam->rxSrcIpAddr().stringValue();
  }
  std::string destination() const {
    return v6 ? pam->rxDstIp6Addr().stringValue() : pam->rxDstIpAddr().stringValue();
  }
  int option(int v4Name, int v6Name) const {
    int value = -2;
    socklen_t length = sizeof(value);
    const int level = v6 ? IPPROTO_IPV6 : IPPROTO_IP;
    EXPECT_EQ(getsockopt(pam->fileDesc()->descriptor(), level, v6 ? v6Name : v4Name, &value, &length), 0);
    return value;
  }
  bool sourceCleared() const {
    return pam->txSrcIp6Addr() == Ip6Addr() && pam->txSrcIpAddr() == IpAddr() && pam->txIfIndex() == 0;
  }
  void send(std::string_view text) {
    const Pkt::Ptr pkt = globalPktManager()->newPkt();
    pkt->stringValueIs(text);
    pam->txPktIs(pkt);
  }
  /// The next datagram's text, waiting for it; "nothing" when none came.
  std::string receive(double seconds = 2) {
    Pkt::Ptr pkt;
    Kiv::activityLoop().runUntil([&] { return (pkt = pam->rxPkt()) != nullptr; }, seconds);
    return pkt ? std::string(pkt->stringValue()) : "nothing";
  }

  /// What `peer` receives when this sends `text`.
  std::string sent(const std::string& text, End& peer) {
    send(text);
    return peer.receive();
  }

  Kiv::Ptr<UdpPam> pam = udpPamFactory("end");
  bool v6;
};

/// Of both families, in a namespace of its own: `GetParam()` is whether IPv6.
class UdpPamTest : public NetNsTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    NetNsTest::SetUp();
    if (IsSkipped() || HasFailure()) return;
    red = std::make_unique<NetNs>("red");
    server = opened(Mode::server);
  }
  End opened(Mode mode) const {
    End end(v6);
    end.pam->netNsIs(NamespaceName(red->name()));
    end.bindTo(loopback);
    end.pam->modeIs(mode);
    return end;
  }
  /// An end whose datagrams go to the server.
  End openedTo(Mode mode) const {
    End end = opened(mode);
    end.sendTo(loopback, server.pam->rxPort());
    return end;
  }

  const bool v6 = GetParam();
  const std::string loopback = v6 ? "::1" : "127.0.0.1";
  std::unique_ptr<NetNs> red;
  End server{v6};
};
INSTANTIATE_TEST_SUITE_P(Families, UdpPamTest, testing::Bool(),
                         [](const auto& param) { return param.param ? "IPv6" : "IPv4"; });

/// What is sent, whatever the way, is received in order, once, and with its metadata, whatever the way. The
/// ways are drawn by lot.
TEST_P(UdpPamTest, EveryWayToSendMeetsEveryWayToReceive) {
  const NetNs blue("blue");
  const Veth wire(*red, blue);  // of an MTU of 1500: longer segments are refused
  const std::string to = v6 ? wire.ip6A : wire.ipA;
  server.pam->modeIs(Mode::disabled);
  server.bindTo(to);
  server.pam->maxRxPktDataIs(~0u);
  server.pam->rxBufBytesIs(16 << 20);
  server.pam->modeIs(Mode::server);
  const U16 port = server.pam->rxPort();
  End senders[2] = {End(v6), End(v6)};
  for (End& each : senders) {
    each.pam->netNsIs(NamespaceName(blue.name()));
    each.sendTo(to, port);
    each.pam->txBufBytesIs(16 << 20);
    each.pam->modeIs(&each == senders ? Mode::server : Mode::client);
  }
  std::mt19937 draw(GetParam());
  const auto lot = [&](U32 below) { return static_cast<U32>(draw() % below); };
  U64 sent[2] = {0, 0}, received = 0;
  std::vector<Pkt::Ptr> held;  // clients may keep what they receive
  for (int round = 0; round < 300 && !HasFailure(); ++round) {
    const U32 who = lot(2);
    server.pam->enableGroIs(lot(2) == 0);
    if (lot(5) == 0) {
      server.pam->rxPortIs(port);
      server.pam->modeIs(Mode::disabled);
      server.pam->modeIs(Mode::server);
    }
    End& from = senders[who];
    from.pam->enableGsoIs(lot(2) == 0);
    const U32 size = lot(4) == 0 ? 1473 + lot(9000) : lot(1473);
    std::vector<Pkt::Ptr> pkts;
    std::vector<UdpTxPkt> addressed;
    std::vector<std::string> wanted;
    for (U32 i = 0, count = 1 + lot(150); i < count; ++i) {
      const U32 bytes = lot(10) == 0 ? lot(size + 1) : size;
      std::string text(bytes, static_cast<char>('a' + draw() % 26));
      const U32 ahead = lot(3) == 0 ? std::min(bytes, 20u) : 0;  // in a second piece, in front
      const Pkt::Ptr pkt = globalPktManager()->newPkt(globalPktManager()->newSharedBuffer(bytes + 1));
      pkt->stringValueIs(std::string_view(text).substr(ahead));
      if (ahead > 0) std::copy_n(text.data(), ahead, pkt->newPrivateHeadData(ahead));
      pkts.push_back(pkt);
      const bool own = lot(2) == 0;  // or the Pam's destination, which is the same
      addressed.push_back({pkt, own ? IpGenAddr(to) : IpGenAddr(), own ? port : U16{0}, IpGenAddr(), 0});
      wanted.push_back(std::move(text));
    }
    switch (lot(3)) {
      case 0:
        for (const Pkt::Ptr& pkt : pkts) from.pam->txPktIs(pkt);
        break;
      case 1:
        EXPECT_EQ(from.pam->txPktBulk(pkts), pkts.size());
        break;
      default:
        EXPECT_EQ(from.pam->txPktBulk(addressed), pkts.size());
    }
    EXPECT_EQ(from.pam->txPkts(), sent[who] += pkts.size());
    server.pam->socketReadLimitIs(static_cast<U8>(1 + lot(128)));
    std::size_t got = 0;
    const auto take = [&](const Pkt::Ptr& pkt, const IpGenAddr& source, U16 sourcePort, U32 ifIndex) {
      ASSERT_LT(got, wanted.size());
      ASSERT_TRUE(pkt->stringValue() == wanted[got]) << "datagram " << got;
      ASSERT_EQ(source, IpGenAddr(v6 ? wire.ip6B : wire.ipB));
      ASSERT_EQ(sourcePort, from.pam->rxPort());
      ASSERT_NE(ifIndex, 0u);
      ++got;
      if (lot(8) == 0) held.push_back(pkt);
    };
    const auto drain = [&] {
      if (lot(2) == 0) {
        while (const S32 count = server.pam->rxPktBulk()) {
          for (U16 i = 0; i < count && !HasFatalFailure(); ++i) {
            const UdpRxMetadata metadata = server.pam->rxMetadata(i);
            take(server.pam->savedPacket(i), metadata.srcIpAddr, metadata.srcPort, metadata.ifIndex);
          }
        }
      }
      for (U32 most = lot(2) == 0 ? 3u : ~0u; most > 0 && !HasFatalFailure(); --most) {
        const Pkt::Ptr pkt = server.pam->rxPkt();
        if (!pkt) break;
        take(pkt, IpGenAddr(server.source()), server.pam->rxSrcPort(), server.pam->rxIfIndex());
      }
    };
    const Kiv::Reactor onReadable(server.pam->readableCount, drain);
    Kiv::activityLoop().runUntil([&] { return got == wanted.size() || HasFailure(); }, 5);
    EXPECT_EQ(got, wanted.size());
    EXPECT_EQ(server.pam->rxPkts(), received += got);
    EXPECT_EQ(server.pam->rxMetadata(0xffff).srcPort, 0);
    if (held.size() > 30) held.clear();
  }
  EXPECT_EQ(senders[0].pam->txFailures() + senders[1].pam->txFailures(), 0u);
  EXPECT_TRUE(senders[1].pam->socketConnected());
}

TEST_P(UdpPamTest, ABulkSendLosesWhatIsRefusedAndLeavesWhatThereIsNoRoomFor) {
  End sender = openedTo(Mode::server);
  sender.pam->enableGsoIs(true);
  const auto all = std::vector<Pkt::Ptr>(3, [] {
    const Pkt::Ptr pkt = globalPktManager()->newPkt();
    pkt->stringValueIs("bulk");
    return pkt;
  }());
  const auto arrived = [&] {
    U32 count = 0;
    while (server.receive(0.05) == "bulk") ++count;
    return count;
  };
  {
    const Fault full(Call::sendmmsg, 1, EAGAIN);
    EXPECT_EQ(sender.pam->txPktBulk(all), 0u);
    EXPECT_EQ(sender.pam->txErrno(), EAGAIN);
  }
  EXPECT_EQ(sender.pam->txFailures(), 0u);
  const IpGenAddr foreign(v6 ? "2001:db8::9" : "192.0.2.9");
  const std::vector<UdpTxPkt> fromElsewhere(3, {all[0], IpGenAddr(), 0, foreign, 0});
  EXPECT_EQ(sender.pam->txPktBulk(fromElsewhere), 3u);
  EXPECT_EQ(sender.pam->txFailures(), 3u);
  sender.pam->txFailuresIs(0);
  // Of the merged one: then they go alone, and only the last two kinds say that others had better, too.
  for (const int error : {EHOSTUNREACH, EPERM, ECONNREFUSED, EINVAL, EIO}) {
    if (error == EIO) {
      sender.pam->modeIs(Mode::disabled);
      sender.pam->modeIs(Mode::server);
    }
    const Fault refused(Call::sendmmsg, 1, error);
    EXPECT_EQ(sender.pam->txPktBulk(all), 3u);
    EXPECT_EQ(arrived(), 3u);
  }
  sender.pam->modeIs(Mode::disabled);
  sender.pam->modeIs(Mode::server);
  {
    const Fault one(Call::sendmmsg, 2, EPERM);
    const Fault merged(Call::sendmmsg, 1, EIO);
    EXPECT_EQ(sender.pam->txPktBulk(all), 3u);
    EXPECT_EQ(arrived(), 2u);
  }
  EXPECT_EQ(sender.pam->txFailures(), 1u);
  EXPECT_EQ(sender.pam->txPkts(), 17u);
  const IpGenAddr other = v6 ? IpGenAddr("192.0.2.1") : IpGenAddr("2001:db8::1");
  const UdpTxPkt refused[] = {{all[0], other, 7, IpGenAddr(), 0},
                              {all[0], IpGenAddr(loopback), 0, IpGenAddr(), 0},
                              {all[0], IpGenAddr(), 0, other, 0}};
  EXPECT_EQ(sender.pam->txPktBulk(refused), 3u);
  EXPECT_EQ(sender.pam->txFailures(), 4u);
  End client = openedTo(Mode::client);
  EXPECT_EQ(client.sent("x", server), "x");
  const UdpTxPkt elsewhere[] = {{all[0], IpGenAddr(loopback), 9, IpGenAddr(), 0}};
  EXPECT_EQ(client.pam->txPktBulk(elsewhere), 1u);
  EXPECT_EQ(client.pam->txErrno(), EISCONN);
  // What was told of a batch stays when the Pam is closed.
  for (const U32 most : {3u, 4u}) {
    server.pam->enableGroIs(true);
    server.pam->maxRxPktDataIs(most);
    sender.sendTo(loopback, server.pam->rxPort());
    sender.send("bulk");
    EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return server.pam->rxPktBulk() == 1; }, 2));
    server.pam->modeIs(Mode::disabled);
    EXPECT_EQ(server.pam->rxMetadata(0).truncated, most == 3);
    server.pam->modeIs(Mode::server);
    EXPECT_EQ(server.pam->rxMetadata(0).srcPort, 0);
  }
}

TEST_P(UdpPamTest, WhoSharesAPortIsSaidAndWhoMayNotIsToldWhen) {
  const auto second = [&](bool exclusive, bool reuse) {
    End end(v6);
    end.pam->netNsIs(NamespaceName(red->name()));
    end.bindTo(loopback);
    end.pam->rxPortIs(server.pam->rxPort());
    end.pam->exclusivePortIs(exclusive);
    end.pam->reusePortIs(reuse);
    return failureOf([&] { end.pam->modeIs(Mode::server); });
  };
  const std::string taken = "bind " + std::to_string(EADDRINUSE);
  EXPECT_EQ(second(false, false), "");
  EXPECT_EQ(second(true, false), taken);
  server.pam->rxPortIs(server.pam->rxPort());
  server.pam->modeIs(Mode::disabled);
  server.pam->exclusivePortIs(true);
  server.pam->reusePortIs(true);
  server.pam->modeIs(Mode::server);
  EXPECT_EQ(second(false, false), taken);
  EXPECT_EQ(second(true, false), taken);
  EXPECT_EQ(second(true, true), "");
}

TEST_P(UdpPamTest, EachModeBindsReceivesAndConnectsAsItSays) {
  const std::tuple<Mode, bool, bool> rows[] = {
      {Mode::send, false, false}, {Mode::client, true, true}, {Mode::server, true, false}};
  for (const auto& [mode, receives, connects] : rows) {
    SCOPED_TRACE(mode.stringValue());
    const std::size_t before = openDescriptors();
    End end = openedTo(mode);
    EXPECT_EQ(end.pam->readableCount() + end.pam->writableCount(), receives ? 2u : 0u);
    EXPECT_EQ(end.pam->fdSm() != nullptr, receives);
    EXPECT_EQ(end.pam->rxPort() != 0, receives);
    EXPECT_EQ(end.sent("hello", server), "hello");
    EXPECT_EQ(end.pam->socketConnected(), connects);
    server.replyTo();
    server.send("reply");
    EXPECT_EQ(end.receive(0.02), receives ? "reply" : "nothing");
    end.pam->netNsIs(NamespaceName("default"));  // a new socket
    EXPECT_FALSE(end.pam->socketConnected());
    EXPECT_EQ(openDescriptors(), before + 1);
    end.pam->modeIs(Mode::disabled);
    EXPECT_EQ(openDescriptors(), before);
  }
}

TEST_P(UdpPamTest, ARefusalIsCountedAsSentAndAFailedConnectDropsThePacketUncounted) {
  End client = openedTo(Mode::client);
  {
    const Fault fault(Call::connect, 1, ENETUNREACH);
    client.send("lost");
  }
  EXPECT_EQ(client.pam->txPkts() + client.pam->txErrors() + client.pam->txDrops(), 0u);
  EXPECT_EQ(client.pam->txFailures(), 1u);
  {
    const Fault fault(Call::connect, 1, ENETUNREACH);
    EXPECT_EQ(client.pam->txPktBulk(std::vector<Pkt::Ptr>(2, globalPktManager()->newPkt())), 2u);
  }
  EXPECT_EQ(client.pam->txFailures(), 3u);
  EXPECT_FALSE(client.pam->socketConnected());
  server.pam->modeIs(Mode::disabled);
  client.send("a");  // comes back as an ICMP port unreachable
  client.send("b");  // and is reported here
  EXPECT_EQ(client.pam->txErrno(), ECONNREFUSED);
  EXPECT_EQ(client.pam->txPkts(), 2u);
}

TEST_P(UdpPamTest, HopLimitAndTrafficClassAreSetAndToldOnRequest) {
  End sender = openedTo(Mode::send);
  sender.pam->txTTLIs(9);
  sender.pam->modeIs(Mode::server);
  sender.pam->txTosIs(40);
  for (const bool on : {false, true, false}) {
    server.pam->enableRxTTLIs(on);
    server.pam->enableRxTOSIs(on);
    EXPECT_EQ(sender.sent("x", server), "x");
    EXPECT_EQ(server.pam->rxTTL(), on ? 9 : -1);
    EXPECT_EQ(server.pam->rxTOS(), on ? 40 : -1);
  }
  EXPECT_EQ(sender.option(IP_MULTICAST_TTL, IPV6_MULTICAST_HOPS), 9);
  sender.pam->txHopLimitIs(7);
  EXPECT_THROW(sender.pam->txHopLimitIs(0), Kiv::RangeException);
  EXPECT_THROW(sender.pam->txMulticastTTLIs(256), Kiv::RangeException);
  EXPECT_THROW(sender.pam->txMulticastLoopIs(2), Kiv::RangeException);
  server.pam->enableRxTTLIs(true);
  EXPECT_EQ(sender.sent("x", server), "x");
  EXPECT_EQ(server.pam->rxTTL(), 7);
}

TEST_P(UdpPamTest, SourceAndInterfaceHoldForOneDatagram) {
  server.pam->modeIs(Mode::disabled);
  server.bindTo(v6 ? "::" : "0.0.0.0");
  server.pam->modeIs(Mode::server);
  End sender = openedTo(Mode::send);
  const std::string other = v6 ? "::1" : "127.9.9.9";
  sender.sourceIs(other);
  sender.pam->txIfIndexIs(1);
  EXPECT_EQ(sender.sent("one", server), "one");
  EXPECT_EQ(server.source(), other);
  EXPECT_TRUE(sender.sourceCleared());
  EXPECT_EQ(sender.sent("two", server), "two");
  EXPECT_EQ(server.source(), loopback);
  // A source that is not ours, an interface that does not exist: the send fails, and they are spent.
  sender.sourceIs(v6 ? "2001:db8::1" : "192.0.2.1");
  sender.send("three");
  EXPECT_NE(sender.pam->txErrno(), 0);
  EXPECT_TRUE(sender.sourceCleared());
  sender.pam->txIfIndexIs(0x7fffffff);
  sender.send("four");
  EXPECT_TRUE(sender.sourceCleared());
  EXPECT_EQ(sender.pam->txPkts(), 2u);
}

TEST_P(UdpPamTest, TheReceiveBufferGrowsOrSaysThatItDoesNot) {
  EXPECT_EQ(End(v6).pam->incSockBufSize(1 << 20), -1);
  EXPECT_EQ(server.pam->incSockBufSize(1 << 20), 0);
  const std::string text = "Error increasing socket buffer size ";
  EXPECT_EQ(failureOf([&] { server.pam->incSockBufSize(0x7fffffff); }), text + std::to_string(ENOBUFS));
}

TEST_P(UdpPamTest, GroupsAreJoinedAndLeftOnAWire) {
  const NetNs blue("blue");
  const Veth wire(*red, blue);
  const std::string group = v6 ? "ff02::7777" : "239.7.7.7";
  const auto member = [&](const char* device, const std::string& address, bool join) {
    const U32 index = runIn(*red, [&] { return if_nametoindex(device); });
    return v6 ? server.pam->handleMcastGroup(Ip6Addr(address), join, index ? index : 0x7fffffff)
              : server.pam->handleV4McastGroup(device, IpAddr(address), join);
  };
  server.pam->modeIs(Mode::disabled);
  EXPECT_EQ(member("veth1", group, true), ENODEV);
  server.bindTo(v6 ? "::" : "0.0.0.0");
  server.pam->rxPortIs(7000);
  server.pam->modeIs(Mode::server);
  EXPECT_EQ(v6 ? server.pam->handleV4McastGroup("lo", IpAddr("239.1.2.3"), true)
               : server.pam->handleMcastGroup(Ip6Addr("ff02::1"), true, 0),
            EINVAL);
  EXPECT_EQ(member("veth1", loopback, true), EINVAL);
  EXPECT_EQ(member("nosuchdevice", group, true), ENODEV);
  EXPECT_EQ(member("a name longer than any device's", group, true), ENODEV);
  EXPECT_EQ(member("veth1", group, true), 0);
  // Of another group only what one source sends.
  const std::string sourced = v6 ? "ff3e::1234" : "232.1.2.3";
  const std::string source = v6 ? wire.ip6B : wire.ipB;
  const U32 at = runIn(*red, [] { return if_nametoindex("veth1"); });
  const auto join = [&](const std::string& from, bool on) {
    return server.pam->handleSourceGroup(IpGenAddr(sourced), IpGenAddr(from), on, at);
  };
  EXPECT_EQ(End(v6).pam->handleSourceGroup(IpGenAddr(sourced), IpGenAddr(source), true, 1), ENODEV);
  EXPECT_EQ(join(v6 ? "192.0.2.1" : "2001:db8::1", true), EINVAL);
  EXPECT_EQ(server.pam->handleSourceGroup(IpGenAddr(source), IpGenAddr(source), true, at), EINVAL);
  EXPECT_EQ(join(v6 ? "2001:db8::1" : "192.0.2.1", true), 0);
  {
    End multicaster(v6);
    multicaster.pam->netNsIs(NamespaceName(blue.name()));
    multicaster.pam->txMulticastIfIndexIs(runIn(blue, [] { return if_nametoindex("veth1"); }));
    multicaster.pam->modeIs(Mode::send);
    multicaster.sendTo(sourced, 7000);
    multicaster.send("no");
    EXPECT_EQ(server.receive(0.05), "nothing");
    EXPECT_EQ(join(source, true), 0);
    EXPECT_EQ(multicaster.sent("sourced", server), "sourced");
    EXPECT_EQ(join(source, false), 0);
  }
  End sender(v6);
  sender.pam->netNsIs(NamespaceName(blue.name()));
  sender.pam->modeIs(Mode::client);
  const U32 index = runIn(blue, [] { return if_nametoindex("veth1"); });
  const auto send = [&](const std::string& to, const char* text) {
    sender.sendTo(to, 7000);
    sender.pam->txIfIndexIs(index);
    return sender.sent(text, server);
  };
  if (v6) {
    // A link-local group needs the interface, also to be connected to.
    EXPECT_EQ(send(group, "group"), "group");
    EXPECT_TRUE(sender.pam->socketConnected());
    sender.pam->modeIs(Mode::disabled);
    sender.pam->modeIs(Mode::client);
    sender.sendTo("ff01::7777", 7000);  // so does a group on its own machine
    sender.pam->txIfIndexIs(index);
    sender.send("group");
    EXPECT_TRUE(sender.pam->socketConnected());
    return;
  }
  EXPECT_EQ(send(group, "group"), "group");
  EXPECT_FALSE(sender.pam->socketConnected());  // not unicast, so it may still change
  EXPECT_EQ(server.destination(), group);
  EXPECT_EQ(member("veth1", group, false), 0);
  sender.pam->txIfIndexIs(index);
  sender.send("after");
  EXPECT_EQ(server.receive(0.05), "nothing");
  EXPECT_EQ(send(wire.ipA, "unicast"), "unicast");
  EXPECT_TRUE(sender.pam->socketConnected());
}

TEST_P(UdpPamTest, NeverMovesBothFamilies) {
  server.pam->modeIs(Mode::disabled);
  server.bindTo(v6 ? "::" : "0.0.0.0");
  server.pam->modeIs(Mode::server);
  End other(!v6);
  other.pam->netNsIs(NamespaceName(red->name()));
  other.pam->modeIs(Mode::send);
  other.sendTo(v6 ? "127.0.0.1" : "::1", server.pam->rxPort());
  other.send("x");
  EXPECT_EQ(server.receive(0.02), "nothing");
}

TEST(UdpPamDeathTest, ProgrammingErrorsEndTheProcess) {
  End client(false);
  client.pam->modeIs(Mode::server);
  EXPECT_DEATH(client.send("x"), "txPort\\(\\) != U16\\(\\) \\(end\\)");
  client.pam->modeIs(Mode::client);
  client.sendTo("127.0.0.1", 9);
  client.send("x");
  client.pam->txPortIs(9);  // no change
  EXPECT_DEATH(client.pam->txPortIs(10), "!socketConnected\\(\\)");
  EXPECT_DEATH(client.pam->txDstIpAddrIs(IpAddr()), "!socketConnected\\(\\)");
  EXPECT_DEATH(client.pam->txDstIp6AddrIs(Ip6Addr(1, 1)), "!socketConnected\\(\\)");
}

TEST(UdpPam, ModesHaveNamesAndThePamPrintsItself) {
  for (const Mode mode : {Mode::disabled, Mode::send, Mode::client, Mode::server}) {
    EXPECT_EQ(Mode::ModeInstance(mode.stringValue()), mode);
  }
  EXPECT_THROW(Mode::ModeInstance("open"), Kiv::RangeException);
  const auto pam = udpPamFactory("echo");
  pam->rxIpAddrIs(IpAddr("10.0.0.1"));
  pam->rxPortIs(7000);
  pam->txTosIs(16);
  std::ostringstream out;
  out << *pam;
  EXPECT_EQ(out.str(), "UdpPam echo: mode=disabled 10.0.0.1:7000 TOS=16 Prio=0");
}

TEST(UdpPam, TracesItsRoad) {
  End end(false);
  end.bindTo("127.0.0.1");
  TraceCapture traces("UdpPam/0-9");
  end.pam->netNsIs(NamespaceName("default "));
  end.pam->netNsIs(NamespaceName("default"));
  end.pam->modeIs(Mode::client);
  end.sendTo("127.0.0.1", end.pam->rxPort());
  end.pam->txIfIndexIs(1);
  end.pam->maxRxPktDataIs(3);
  EXPECT_EQ(end.sent("abcd", end), "abc");
  const std::string fd = std::to_string(end.pam->fileDesc()->descriptor());
  const std::string peer = "127.0.0.1:" + std::to_string(end.pam->rxPort());
  const std::string to = "UdpPam/8:end to " + peer + ": ", from = "UdpPam/8:end from " + peer + ": ";
  EXPECT_THAT(traces.lines(),
              ElementsAre("UdpPam/5:end: network namespace is: default ",
                          "UdpPam/5:end: network namespace is: default", "UdpPam/5:end: mode is: client",
                          "UdpPam/5:end: Socket fd is " + fd + ", mode is client",
                          "UdpPam/5:Done setting file desc end", "UdpPam/5:end: txTos is: 0",
                          "UdpPam/5:end: Binding socket to 127.0.0.1:0", to + "Sending pkt of size 4",
                          "UdpPam/5:end: Connecting to " + peer, to + "Sending pkt with src ip 0.0.0.0",
                          to + "Sending pkt with txIfIndex 1", to + "Sending pkt to ifindex 1",
                          from + "Received packet of size 3",
                          "UdpPam/0:end from " + peer + ": Datagram truncated to 3",
                          from + "Received from ifindex 1 with src IP 127.0.0.1 and dest IP 127.0.0.1"));
}

}  // namespace
}  // namespace Wirl
