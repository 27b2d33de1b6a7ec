// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/UdpPam.h"

#include <net/if.h>
#include <netinet/in.h>

#include <sstream>
#include <tuple>

#include "tests/support/Support.h"

namespace Wirl {
namespace {

using Mode = UdpPam::Mode;
using testing::ElementsAre;

/// A Pam of one family; hides what differs between the families.
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
  bool sourceCleared() const {
    return pam->txSrcIp6Addr() == Ip6Addr() && pam->txSrcIpAddr() == IpAddr() && pam->txIfIndex() == 0;
  }
  void reopen() const {
    const Mode mode = pam->mode();
    pam->modeIs(Mode::disabled);
    pam->modeIs(mode);
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

/// Runs for both families (`GetParam()`: IPv6), in a namespace of its own.
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

/// Whatever way datagrams are sent, they arrive once, in order and with their metadata, whatever way they are
/// received. A fixed seed draws the ways.
TEST_P(UdpPamTest, EveryWayToSendMeetsEveryWayToReceive) {
  const NetNs blue("blue");
  const Veth wire(*red, blue);  // of an MTU of 1500: longer segments are refused
  // The kernel begins to keep times a little after the first socket asked, and goes on while one does.
  End timed = opened(Mode::server);
  timed.pam->rxTimestampsIs(RxTimestamps::kernel);
  timed.sendTo(loopback, timed.pam->rxPort());
  for (int i = 0; i < 1000 && timed.pam->rxTimes().kernel == 0; ++i) {
    timed.sent("x", timed);
    Kiv::activityLoop().runFor(0.005);
  }
  const std::string to = v6 ? wire.ip6A : wire.ipA;
  server.pam->modeIs(Mode::disabled);
  server.bindTo(to);
  server.pam->maxRxPktDataIs(~0u);
  server.pam->rxBufBytesIs(16 << 20);
  server.pam->rxTimestampsIs(RxTimestamps::kernel);
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
      server.reopen();
    }
    End& from = senders[who];
    from.pam->enableGsoIs(lot(2) == 0);
    const S32 ttl = static_cast<S32>(1 + lot(255)), tos = static_cast<S32>(lot(64) << 2);
    from.pam->txHopLimitIs(ttl);
    from.pam->txTosIs(static_cast<U8>(tos));
    const bool tells = lot(2) == 0;
    server.pam->enableRxTTLIs(tells);
    server.pam->enableRxTOSIs(tells);
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
      const IpGenAddr source = lot(2) == 0 ? IpGenAddr(v6 ? wire.ip6B : wire.ipB) : IpGenAddr();
      addressed.push_back({pkt, own ? IpGenAddr(to) : IpGenAddr(), own ? port : U16{0}, source, 0});
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
    const auto take = [&](const Pkt::Ptr& pkt, const UdpRxMetadata& told) {
      ASSERT_LT(got, wanted.size());
      ASSERT_TRUE(pkt->stringValue() == wanted[got]) << "datagram " << got;
      ASSERT_EQ(told.srcIpAddr, IpGenAddr(v6 ? wire.ip6B : wire.ipB));
      ASSERT_EQ(told.dstIpAddr, IpGenAddr(to));
      ASSERT_EQ(told.srcPort, from.pam->rxPort());
      ASSERT_NE(told.ifIndex, 0u);
      ASSERT_EQ(told.ttl, tells ? ttl : -1);
      ASSERT_EQ(told.tos, tells ? tos : -1);
      ASSERT_NE(told.times.kernel, 0u);
      ++got;
      if (lot(8) == 0) held.push_back(pkt);
    };
    const auto drain = [&] {
      if (lot(2) == 0) {
        while (const S32 count = server.pam->rxPktBulk()) {
          for (U16 i = 0; i < count && !HasFatalFailure(); ++i) {
            take(server.pam->savedPacket(i), server.pam->rxMetadata(i));
          }
        }
      }
      for (U32 most = lot(2) == 0 ? 3u : ~0u; most > 0 && !HasFatalFailure(); --most) {
        const Pkt::Ptr pkt = server.pam->rxPkt();
        if (!pkt) break;
        const UdpPam& pam = *server.pam;
        take(pkt, {.srcIpAddr = IpGenAddr(server.source()),
                   .dstIpAddr = IpGenAddr(server.destination()),
                   .srcPort = pam.rxSrcPort(),
                   .ifIndex = pam.rxIfIndex(),
                   .ttl = pam.rxTTL(),
                   .tos = pam.rxTOS(),
                   .times = pam.rxTimes()});
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
  const Pkt::Ptr pkt = globalPktManager()->newPkt(), large = globalPktManager()->newPkt();
  pkt->stringValueIs("bulk");
  large->stringValueIs(std::string(1400, 'x'));
  const std::vector<Pkt::Ptr> all(3, pkt);
  U64 failures = 0;
  const auto send = [&](const auto& pkts, U32 taken, U32 failed, U32 arrives) {
    EXPECT_EQ(sender.pam->txPktBulk(pkts), taken);
    EXPECT_EQ(sender.pam->txFailures(), failures += failed);
    for (; arrives > 0; --arrives) EXPECT_EQ(server.receive(), "bulk");
    EXPECT_EQ(server.receive(0.01), "nothing");
  };
  {
    const Fault full(Call::sendmmsg, 1, EAGAIN);
    send(all, 0, 0, 0);
    EXPECT_EQ(sender.pam->txErrno(), EAGAIN);
  }
  // If the merged datagram is refused, the three go alone. Only EINVAL and EIO let the next ones go alone at
  // once.
  for (const int error : {EHOSTUNREACH, EPERM, ECONNREFUSED, EINVAL, EIO}) {
    if (error == EIO) sender.reopen();
    const Fault refused(Call::sendmmsg, 1, error);
    send(all, 3, 0, 3);
    EXPECT_EQ(refused.calls(), 2u);
  }
  {
    const Fault calls(Call::sendmmsg);
    sender.pam->txPktBulk(all);  // alone, but in one call
    EXPECT_EQ(calls.calls(), 1u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(server.receive(), "bulk");
  }
  sender.reopen();
  {
    // More than one merged datagram can hold, all in one call.
    const Fault calls(Call::sendmmsg);
    EXPECT_EQ(sender.pam->txPktBulk(std::vector<Pkt::Ptr>(60, large)), 60u);
    EXPECT_EQ(calls.calls(), 1u);
    for (int i = 0; i < 60; ++i) EXPECT_EQ(server.receive().size(), 1400u);
  }
  {
    const Fault one(Call::sendmmsg, 2, EPERM);
    const Fault merged(Call::sendmmsg, 1, EIO);
    send(all, 3, 1, 2);
  }
  EXPECT_EQ(sender.pam->txPkts(), 80u);
  const IpGenAddr foreign(v6 ? "2001:db8::9" : "192.0.2.9");
  const IpGenAddr other = v6 ? IpGenAddr("192.0.2.1") : IpGenAddr("2001:db8::1");
  send(std::vector<UdpTxPkt>{{pkt, IpGenAddr(), 0, foreign, 0},
                             {pkt, IpGenAddr(), 0, foreign, 0},
                             {pkt, other, 7, IpGenAddr(), 0},
                             {pkt, IpGenAddr(loopback), 0, IpGenAddr(), 0},
                             {pkt, IpGenAddr(), 0, other, 0},
                             {pkt, IpGenAddr(), 0, IpGenAddr(), 0}},
       6, 5, 1);
  End client = openedTo(Mode::client);
  EXPECT_EQ(client.sent("x", server), "x");
  EXPECT_EQ(client.pam->txPktBulk(std::vector<UdpTxPkt>{{pkt, IpGenAddr(loopback), 9, IpGenAddr(), 0}}), 1u);
  EXPECT_EQ(client.pam->txErrno(), EISCONN);
  // Metadata of a batch stays when the Pam is closed.
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

TEST_P(UdpPamTest, APortIsSharedOnlyByThoseThatAllowIt) {
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
  server.pam->exclusivePortIs(true);
  server.pam->reusePortIs(true);
  server.reopen();
  EXPECT_EQ(second(false, false), taken);
  EXPECT_EQ(second(true, false), taken);
  EXPECT_EQ(second(true, true), "");
  EXPECT_EQ(End(v6).pam->incSockBufSize(1 << 20), -1);
  EXPECT_EQ(server.pam->incSockBufSize(1 << 20), 0);
  EXPECT_EQ(failureOf([&] { server.pam->incSockBufSize(0x7fffffff); }),
            "Error increasing socket buffer size " + std::to_string(ENOBUFS));
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

/// On a connected socket an error, too, ends a batch; edge-triggered, nobody reports what is left behind it.
TEST_P(UdpPamTest, AShortBatchOnAConnectedEdgeTriggeredSocketIsFollowedByAnother) {
  End client = openedTo(Mode::client);
  EXPECT_EQ(client.sent("x", server), "x");
  client.pam->fileDesc()->edgeTriggeredIs(true);
  Kiv::activityLoop().poll();
  server.replyTo();
  for (int i = 0; i < 3; ++i) server.send("reply");
  const Fault cutShort(Call::recvmmsg, 1, ShortCount{1});
  S32 got = 0;
  const Kiv::Reactor onReadable(client.pam->readableCount, [&] {
    while (const S32 count = client.pam->rxPktBulk()) got += count;
  });
  EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return got == 3; }, 2));
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

TEST_P(UdpPamTest, SourceAndInterfaceHoldForOneDatagram) {
  server.bindTo(v6 ? "::" : "0.0.0.0");
  server.reopen();
  // The other family does not reach it.
  End stranger(!v6);
  stranger.pam->netNsIs(NamespaceName(red->name()));
  stranger.pam->modeIs(Mode::send);
  stranger.sendTo(v6 ? "127.0.0.1" : "::1", server.pam->rxPort());
  stranger.send("x");
  EXPECT_EQ(server.receive(0.02), "nothing");
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

TEST_P(UdpPamTest, GroupsAreJoinedAndLeftOnAWire) {
  const NetNs blue("blue");
  const Veth wire(*red, blue);
  const auto indexIn = [](const NetNs& ns) { return runIn(ns, [] { return if_nametoindex("veth1"); }); };
  const U32 atRed = indexIn(*red), atBlue = indexIn(blue);
  const std::string group = v6 ? "ff02::7777" : "239.7.7.7", sourced = v6 ? "ff3e::1234" : "232.1.2.3";
  const std::string source = v6 ? wire.ip6B : wire.ipB, stranger = v6 ? "2001:db8::1" : "192.0.2.1";
  const auto member = [&](const char* device, const std::string& address, bool join) {
    const U32 index = device == std::string("veth1") ? atRed : 0x7fffffff;
    return v6 ? server.pam->handleMcastGroup(Ip6Addr(address), join, index)
              : server.pam->handleV4McastGroup(device, IpAddr(address), join);
  };
  const auto sourceMember = [&](const std::string& address, const std::string& from, bool join) {
    return server.pam->handleSourceGroup(IpGenAddr(address), IpGenAddr(from), join, atRed);
  };
  server.pam->modeIs(Mode::disabled);
  EXPECT_EQ(member("veth1", group, true), ENODEV);
  EXPECT_EQ(sourceMember(sourced, source, true), ENODEV);
  server.bindTo(v6 ? "::" : "0.0.0.0");
  server.pam->rxPortIs(7000);
  server.pam->modeIs(Mode::server);
  EXPECT_EQ(v6 ? server.pam->handleV4McastGroup("lo", IpAddr("239.1.2.3"), true)
               : server.pam->handleMcastGroup(Ip6Addr("ff02::1"), true, 0),
            EINVAL);
  EXPECT_EQ(member("veth1", loopback, true), EINVAL);
  for (const char* none : {"nosuchdevice", "a name longer than any device's"}) {
    EXPECT_EQ(member(none, group, true), ENODEV);
  }
  EXPECT_EQ(member("veth1", group, true), 0);
  EXPECT_EQ(sourceMember(sourced, v6 ? "192.0.2.1" : "2001:db8::1", true), EINVAL);
  EXPECT_EQ(sourceMember(source, source, true), EINVAL);
  EXPECT_EQ(sourceMember(sourced, stranger, true), 0);
  const auto opened = [&](Mode mode) {
    End end(v6);
    end.pam->netNsIs(NamespaceName(blue.name()));
    end.pam->modeIs(mode);
    return end;
  };
  End multicaster = opened(Mode::send), sender = opened(Mode::client);
  multicaster.pam->txMulticastIfIndexIs(atBlue);
  multicaster.sendTo(sourced, 7000);
  multicaster.send("of one who was not asked for");
  EXPECT_EQ(server.receive(0.05), "nothing");
  EXPECT_EQ(sourceMember(sourced, source, true), 0);
  EXPECT_EQ(multicaster.sent("sourced", server), "sourced");
  EXPECT_EQ(sourceMember(sourced, source, false), 0);
  const auto send = [&](const std::string& to, const char* text) {
    sender.sendTo(to, 7000);
    sender.pam->txIfIndexIs(atBlue);
    sender.send(text);
    return server.receive(0.05);
  };
  EXPECT_EQ(send(group, "group"), "group");
  if (v6) {
    // Groups on the link or the machine need the interface, also to be connected to.
    EXPECT_TRUE(sender.pam->socketConnected());
    sender.reopen();
    send("ff01::7777", "group");
    EXPECT_TRUE(sender.pam->socketConnected());
    return;
  }
  EXPECT_FALSE(sender.pam->socketConnected());  // only to one peer
  EXPECT_EQ(server.destination(), group);
  EXPECT_EQ(member("veth1", group, false), 0);
  EXPECT_EQ(send(group, "after"), "nothing");
  EXPECT_EQ(send(wire.ipA, "unicast"), "unicast");
  EXPECT_TRUE(sender.pam->socketConnected());
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

TEST(UdpPam, ModesHaveNamesThePamPrintsItselfAndRangesAreChecked) {
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
  EXPECT_THROW(pam->txHopLimitIs(0), Kiv::RangeException);
  EXPECT_THROW(pam->txMulticastTTLIs(256), Kiv::RangeException);
  EXPECT_THROW(pam->txMulticastLoopIs(2), Kiv::RangeException);
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
