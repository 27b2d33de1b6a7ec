// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/UdpPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>

#include <sstream>
#include <string>
#include <vector>

#include "Kiv/Kiv.h"
#include "Wirl/value/VrfName.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Failure.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/NetNs.h"
#include "tests/support/Program.h"
#include "tests/support/TraceCapture.h"

namespace Wirl {
namespace {

using Mode = UdpPam::Mode;
using testing::Contains;
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

class UdpPamTest : public testing::TestWithParam<bool> {
 protected:
  End opened(Mode mode) const {
    End end(v6);
    end.bindTo(loopback);
    end.pam->modeIs(mode);
    return end;
  }
  /// An end whose datagrams go to `peer`.
  End openedTo(const End& peer, Mode mode) const {
    End end = opened(mode);
    end.sendTo(loopback, peer.pam->rxPort());
    return end;
  }

  const bool v6 = GetParam();
  const std::string loopback = v6 ? "::1" : "127.0.0.1";
  End server = opened(Mode::server);
};
INSTANTIATE_TEST_SUITE_P(Families, UdpPamTest, testing::Bool(),
                         [](const auto& param) { return param.param ? "IPv6" : "IPv4"; });

TEST_P(UdpPamTest, MovesDatagramsOfEverySizeAndSaysWhereTheyCameFrom) {
  End client = openedTo(server, Mode::client);
  server.pam->maxRxPktDataIs(~0u);
  const std::size_t longest = v6 ? 65535 - 8 : 65535 - 20 - 8;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{1490}, longest}) {
    SCOPED_TRACE(size);
    std::string text(size, 'x');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7);
    client.send(text);
    EXPECT_TRUE(server.receive() == text);
    EXPECT_EQ(server.source(), loopback);
    EXPECT_EQ(server.destination(), loopback);
    EXPECT_EQ(server.pam->rxSrcPort(), client.pam->rxPort());
    EXPECT_EQ(server.pam->rxIfIndex(), if_nametoindex("lo"));
    EXPECT_EQ(server.pam->rxTTL(), -1);
    EXPECT_EQ(server.pam->rxTOS(), -1);
    server.replyTo();
    EXPECT_EQ(server.sent("back", client), "back");
  }
  client.send(std::string(longest + 1, 'x'));
  EXPECT_EQ(client.pam->txErrno(), EMSGSIZE);
  EXPECT_EQ(client.pam->txPkts(), 4u);
  EXPECT_EQ(server.pam->rxPkts(), 4u);
}

TEST_P(UdpPamTest, ALongDatagramIsDeliveredCutAndTracedAsSuch) {
  End sender = openedTo(server, Mode::send);
  server.pam->maxRxPktDataIs(4);
  sender.send("12345");
  sender.send("next");
  TraceCapture traces("UdpPam/0-9");
  EXPECT_EQ(server.receive(), "1234");
  EXPECT_THAT(traces.lines(), Contains(testing::EndsWith(": Datagram truncated to 4")));
  EXPECT_EQ(server.receive(), "next");
}

TEST_P(UdpPamTest, EachModeBindsReceivesAndConnectsAsItSays) {
  const std::tuple<Mode, bool, bool> rows[] = {
      {Mode::send, false, false}, {Mode::client, true, true}, {Mode::server, true, false}};
  for (const auto& [mode, receives, connects] : rows) {
    SCOPED_TRACE(mode.stringValue());
    const std::size_t before = openDescriptors();
    End end = openedTo(server, mode);
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_EQ(end.pam->readableCount() + end.pam->writableCount(), receives ? 2u : 0u);
    EXPECT_EQ(end.pam->fdSm() != nullptr, receives);
    EXPECT_EQ(end.pam->rxPort() != 0, receives);
    end.send("hello");
    EXPECT_EQ(end.pam->socketConnected(), connects);
    EXPECT_EQ(server.receive(), "hello");
    server.replyTo();
    server.send("reply");
    EXPECT_EQ(end.receive(0.05), receives ? "reply" : "nothing");
    end.pam->modeIs(Mode::disabled);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_FALSE(end.pam->socketConnected());
  }
}

TEST_P(UdpPamTest, ARefusalIsCountedAsSent) {
  End client = openedTo(server, Mode::client);
  server.pam->modeIs(Mode::disabled);
  client.send("a");  // comes back as an ICMP port unreachable
  client.send("b");  // and is reported here
  EXPECT_EQ(client.pam->txErrno(), ECONNREFUSED);
  EXPECT_EQ(client.pam->txPkts(), 2u);
}

TEST_P(UdpPamTest, PublishesHopLimitAndTrafficClassWhereTheKernelTellsThem) {
  End sender = openedTo(server, Mode::send);
  sender.pam->txTosIs(40);
  const int on = 1, level = v6 ? IPPROTO_IPV6 : IPPROTO_IP;
  for (const int option : {v6 ? IPV6_RECVTCLASS : IP_RECVTOS, v6 ? IPV6_RECVHOPLIMIT : IP_RECVTTL}) {
    EXPECT_EQ(setsockopt(server.pam->fileDesc()->descriptor(), level, option, &on, sizeof(on)), 0);
  }
  EXPECT_EQ(sender.sent("x", server), "x");
  EXPECT_EQ(server.pam->rxTOS(), 40);
  EXPECT_EQ(server.pam->rxTTL(), 64);
}

TEST_P(UdpPamTest, AFailedConnectDropsThePacketUncounted) {
  End client = openedTo(server, Mode::client);
  {
    const Fault fault(Call::connect, 1, ENETUNREACH);
    client.send("lost");
  }
  EXPECT_EQ(client.pam->txPkts() + client.pam->txErrors() + client.pam->txDrops(), 0u);
  EXPECT_FALSE(client.pam->socketConnected());
  EXPECT_EQ(client.sent("kept", server), "kept");
}

TEST_P(UdpPamTest, SourceAndInterfaceHoldForOneDatagram) {
  End any(v6);
  any.pam->modeIs(Mode::server);
  End sender = openedTo(any, Mode::send);
  const std::string other = v6 ? "::1" : "127.9.9.9";
  sender.sourceIs(other);
  sender.pam->txIfIndexIs(if_nametoindex("lo"));
  EXPECT_EQ(sender.sent("one", any), "one");
  EXPECT_EQ(any.source(), other);
  EXPECT_TRUE(sender.sourceCleared());
  EXPECT_EQ(sender.sent("two", any), "two");
  EXPECT_EQ(any.source(), loopback);
  // A source that is not ours, an interface that is not there: the send fails, and they are spent.
  sender.sourceIs(v6 ? "2001:db8::1" : "192.0.2.1");
  sender.send("three");
  EXPECT_NE(sender.pam->txErrno(), 0);
  EXPECT_TRUE(sender.sourceCleared());
  sender.pam->txIfIndexIs(0x7fffffff);
  sender.send("four");
  EXPECT_TRUE(sender.sourceCleared());
  EXPECT_EQ(sender.pam->txPkts(), 2u);
  EXPECT_EQ(sender.sent("five", any), "five");
}

TEST_P(UdpPamTest, EveryFailedStepOfOpeningThrowsItsText) {
  const std::vector<std::string> options4 = {"IP_PKTINFO",  "SO_BROADCAST",    "IP_MULTICAST_LOOP",
                                             "SO_PRIORITY", "IP_TTL",          "SO_REUSEADDR",
                                             "IP_TOS",      "IP_MULTICAST_TTL"};
  const std::vector<std::string> options6 = {"SO_REUSEADDR",        "IPV6_TCLASS", "IPV6_UNICAST_HOPS",
                                             "IPV6_MULTICAST_HOPS", "IPV6_V6ONLY", "IPV6_RECVPKTINFO"};
  const std::pair<Call, std::string> calls[] = {{Call::socket, "socket"},
                                                {Call::fcntl, "fcntl(O_NONBLOCK)"},
                                                {Call::bind, "bind"},
                                                {Call::epoll_ctl, "epoll_ctl"}};
  End end(v6);
  end.bindTo(loopback);
  end.pam->txTosIs(0x20);
  end.pam->txTTLIs(9);
  end.pam->txPrioIs(tcPrioControl);
  end.pam->enableIpMulticastLoopIs(false);
  int told = 0;
  const auto expectFailure = [&](Call call, unsigned nth, const std::string& text) {
    const Fault fault(call, nth, ENOMEM);
    // What is thrown by those who are told of a failure gives way to it.
    const Kiv::Reactor closed(end.pam->fileDesc, [&] { throw ++told; });
    const Kiv::Reactor disabled(end.pam->mode, [&] { throw ++told; });
    EXPECT_EQ(failureOf([&] { end.pam->modeIs(Mode::server); }), text + " " + std::to_string(ENOMEM));
    EXPECT_EQ(end.pam->mode(), Mode::disabled);
  };
  for (const auto& [call, text] : calls) expectFailure(call, 1, text);
  unsigned nth = 0;
  for (const auto& name : v6 ? options6 : options4) {
    expectFailure(Call::setsockopt, ++nth, "setsockopt(" + name + ")");
  }
  EXPECT_EQ(told, v6 ? 10 : 12);
  const auto option = [&](int level, int name) {
    int value = 0;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(end.pam->fileDesc()->descriptor(), level, name, &value, &length), 0);
    return value;
  };
  end.pam->modeIs(Mode::server);
  EXPECT_EQ(v6 ? option(IPPROTO_IPV6, IPV6_TCLASS) : option(IPPROTO_IP, IP_TOS), 0x20);
  if (v6) return;
  EXPECT_EQ(option(IPPROTO_IP, IP_TTL), 9);
  EXPECT_EQ(option(IPPROTO_IP, IP_MULTICAST_LOOP), 0);
  // The kernel derives the priority from a traffic class other than 0.
  end.pam->modeIs(Mode::disabled);
  end.pam->txTosIs(0);
  end.pam->modeIs(Mode::server);
  EXPECT_EQ(option(SOL_SOCKET, SO_PRIORITY), 7);
}

TEST_P(UdpPamTest, ReactorsToTheConnectionMayGoOnFromThere) {
  const std::size_t before = openDescriptors();
  enum class Deed { disable, reopen, fail };
  for (const Deed deed : {Deed::disable, Deed::reopen, Deed::fail}) {
    End end = openedTo(server, Mode::client);
    end.send("x");
    bool done = false;
    const Kiv::Reactor reactor(end.pam->socketConnected, [&] {
      if (std::exchange(done, true)) return;
      if (deed == Deed::fail) throw std::runtime_error("client");
      end.pam->modeIs(deed == Deed::disable ? Mode(Mode::disabled) : Mode(Mode::send));
    });
    if (deed == Deed::fail) {
      EXPECT_THROW(end.pam->modeIs(Mode::disabled), std::runtime_error);
    } else {
      end.pam->modeIs(Mode::server);
    }
    EXPECT_TRUE(done);
    EXPECT_EQ(end.pam->mode(), deed == Deed::reopen ? Mode::send : Mode::disabled);
    EXPECT_EQ(openDescriptors(), before + (deed == Deed::reopen ? 1 : 0));
  }
}

TEST_P(UdpPamTest, TheReceiveBufferGrowsOrSaysThatItDoesNot) {
  EXPECT_EQ(End(v6).pam->incSockBufSize(1 << 20), -1);
  EXPECT_EQ(server.pam->incSockBufSize(1 << 20), 0);
  const std::string text = "Error increasing socket buffer size ";
  EXPECT_EQ(failureOf([&] { server.pam->incSockBufSize(0x7fffffff); }), text + std::to_string(ENOBUFS));
  const Fault fault(Call::getsockopt, 1, EPERM);
  EXPECT_EQ(failureOf([&] { server.pam->incSockBufSize(1); }), text + std::to_string(EPERM));
}

TEST(UdpPam, ANonUnicastDestinationStaysUnconnected) {
  End client(false);
  client.pam->modeIs(Mode::client);
  client.sendTo("224.0.0.251", 9);
  client.pam->txIfIndexIs(if_nametoindex("lo"));
  client.send("x");
  EXPECT_FALSE(client.pam->socketConnected());
  EXPECT_EQ(client.pam->txErrno(), 0);
  client.sendTo("127.0.0.1", 9);  // may still change
  client.send("x");
  EXPECT_TRUE(client.pam->socketConnected());
}

TEST(UdpPamDeathTest, ProgrammingErrorsEndTheProcess) {
  End client(false);
  client.pam->modeIs(Mode::server);
  EXPECT_DEATH(client.send("x"), "txPort\\(\\) != U16\\(\\)");
  client.pam->modeIs(Mode::client);
  client.sendTo("127.0.0.1", 9);
  client.send("x");
  client.pam->txPortIs(9);  // no change
  EXPECT_DEATH(client.pam->txPortIs(10), "!socketConnected\\(\\)");
  EXPECT_DEATH(client.pam->txDstIpAddrIs(IpAddr()), "!socketConnected\\(\\)");
  EXPECT_DEATH(client.pam->txDstIp6AddrIs(Ip6Addr(1, 1)), "!socketConnected\\(\\)");
}

TEST(UdpPam, GroupRequestsAnswerWithAnErrno) {
  End v4(false);
  End v6(true);
  const Ip6Addr group6("ff02::1234");
  const IpAddr group4("239.1.2.3");
  EXPECT_EQ(v6.pam->handleMcastGroup(group6, true, 0), ENODEV);
  EXPECT_EQ(v4.pam->handleV4McastGroup("lo", group4, true), ENODEV);
  v4.pam->modeIs(Mode::server);
  v6.pam->modeIs(Mode::server);
  EXPECT_EQ(v4.pam->handleMcastGroup(group6, true, 0), EINVAL);
  EXPECT_EQ(v6.pam->handleMcastGroup(Ip6Addr("2001:db8::1"), true, 0), EINVAL);
  EXPECT_EQ(v6.pam->handleMcastGroup(group6, true, 0x7fffffff), ENODEV);
  EXPECT_EQ(v6.pam->handleMcastGroup(group6, false, if_nametoindex("lo")), EADDRNOTAVAIL);
  EXPECT_EQ(v6.pam->handleV4McastGroup("lo", group4, true), EINVAL);
  EXPECT_EQ(v4.pam->handleV4McastGroup("lo", IpAddr("10.0.0.1"), true), EINVAL);
  EXPECT_EQ(v4.pam->handleV4McastGroup("nosuchdevice", group4, true), ENODEV);
  EXPECT_EQ(v4.pam->handleV4McastGroup("a name longer than any device's", group4, true), ENODEV);
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
  EXPECT_EQ(end.sent("abc", end), "abc");
  const std::string fd = std::to_string(end.pam->fileDesc()->descriptor());
  const std::string peer = "127.0.0.1:" + std::to_string(end.pam->rxPort());
  const std::string to = "UdpPam/8:end to " + peer + ": ", from = "UdpPam/8:end from " + peer + ": ";
  EXPECT_THAT(traces.lines(),
              ElementsAre("UdpPam/5:end: network namespace is: default ",
                          "UdpPam/5:end: network namespace is: default", "UdpPam/5:end: mode is: client",
                          "UdpPam/5:end: Socket fd is " + fd + ", mode is client",
                          "UdpPam/5:Done setting file desc end", "UdpPam/5:end: txTos is: 0",
                          "UdpPam/5:end: Binding socket to 127.0.0.1:0", to + "Sending pkt of size 3",
                          "UdpPam/5:end: Connecting to " + peer, to + "Sending pkt with src ip 0.0.0.0",
                          to + "Sending pkt with txIfIndex 1", to + "Sending pkt to ifindex 1",
                          from + "Received packet of size 3",
                          from + "Received from ifindex 1 with src IP 127.0.0.1 and dest IP 127.0.0.1"));
}

// In namespaces joined by a wire ---------------------------------------------------------------------------

class UdpPamNetNsTest : public NetNsTest {
 protected:
  void SetUp() override {
    NetNsTest::SetUp();
    if (IsSkipped() || HasFailure()) return;
    red = std::make_unique<NetNs>("red");
    blue = std::make_unique<NetNs>("blue");
    wire = std::make_unique<Veth>(*red, *blue);
  }
  static End inside(const NetNs& ns, bool v6, const std::string& address, Mode mode, U16 port = 7000) {
    End end(v6);
    end.pam->netNsIs(L3::VrfName(ns.vrf()).nsName());
    end.bindTo(address);
    end.pam->rxPortIs(port);
    end.pam->modeIs(mode);
    return end;
  }
  U32 indexOf(const NetNs& ns) const {
    return runIn(ns, [&] { return if_nametoindex(wire->intf.c_str()); });
  }
  std::unique_ptr<NetNs> red, blue;
  std::unique_ptr<Veth> wire;
};

TEST_F(UdpPamNetNsTest, MulticastReachesMembersOnTheWireOnly) {
  for (const bool v6 : {false, true}) {
    End member = inside(*red, v6, v6 ? "::" : "0.0.0.0", Mode::server);
    End sender = inside(*blue, v6, v6 ? "::" : "0.0.0.0", Mode::server);
    const std::string group = v6 ? "ff02::7777" : "239.7.7.7";
    const auto membership = [&](bool join) {
      return v6 ? member.pam->handleMcastGroup(Ip6Addr(group), join, indexOf(*red))
                : member.pam->handleV4McastGroup(wire->intf, IpAddr(group), join);
    };
    const auto send = [&](const char* text) {
      sender.sendTo(group, 7000);
      sender.pam->txIfIndexIs(indexOf(*blue));
      sender.send(text);
    };
    EXPECT_EQ(membership(true), 0);
    send("group");
    EXPECT_EQ(member.receive(), "group");
    EXPECT_EQ(member.destination(), group);
    EXPECT_EQ(membership(false), 0);
    send("after");
    EXPECT_EQ(member.receive(0.05), "nothing");
  }
}

TEST_F(UdpPamNetNsTest, TalksToAClientAndServerThatAreNotOurs) {
  const std::string in = "exec ip netns exec " + blue->name() + " ";
  for (const bool v6 : {false, true}) {
    const std::string a = v6 ? wire->ip6A : wire->ipA, b = v6 ? wire->ip6B : wire->ipB;
    End server = inside(*red, v6, a, Mode::server);
    const Kiv::Reactor echo(server.pam->readableCount, [&] {
      while (const Pkt::Ptr pkt = server.pam->rxPkt()) {
        server.replyTo();
        server.pam->txPktIs(pkt);
      }
    });
    Program client("printf ping | " + in + "socat -t 2 - " + (v6 ? "UDP6:[" + a + "]" : "UDP4:" + a) +
                   ":7000");
    for (int i = 0; i < 500 && client.output() != "ping"; ++i) Kiv::activityLoop().runFor(0.01);
    EXPECT_EQ(client.output(), "ping");
    EXPECT_EQ(server.source(), b);
    EXPECT_EQ(server.pam->rxIfIndex(), indexOf(*red));
    // Elsewhere the address does not exist: opening there fails, and says so.
    const std::size_t before = openDescriptors();
    EXPECT_EQ(failureOf([&] { server.pam->netNsIs(NamespaceName(blue->name())); }),
              "bind " + std::to_string(EADDRNOTAVAIL));
    EXPECT_EQ(server.pam->mode(), Mode::disabled);
    server.pam->netNsIs(NamespaceName(red->name()));  // opens nothing while disabled
    EXPECT_EQ(openDescriptors(), before - 1);

    const Program service(in + "socat UDP" + (v6 ? "6" : "4") + "-RECVFROM:8000 EXEC:'tr a-z A-Z'");
    End ours = inside(*red, v6, a, Mode::client, 7001);
    ours.sendTo(b, 8000);
    std::string answer = "nothing";
    for (int i = 0; i < 50 && answer == "nothing"; ++i) {
      ours.send("shout");  // until the service is up
      answer = ours.receive(0.1);
    }
    EXPECT_EQ(answer, "SHOUT");
  }
}

}  // namespace
}  // namespace Wirl
