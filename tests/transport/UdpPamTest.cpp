// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/UdpPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Kiv/Kiv.h"
#include "Wirl/value/VrfName.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/NetNs.h"
#include "tests/support/TraceCapture.h"

namespace Wirl {
namespace {

using Mode = UdpPam::Mode;
using testing::Contains;
using testing::ElementsAre;

/// One Pam of a family, and what differs between the families behind one name.
struct End {
  explicit End(bool ipv6, const char* name = "end") : pam(udpPamFactory(name)), v6(ipv6) {
    pam->ipv6EnIs(v6);
  }

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
  /// The next datagram's text, waiting for it; "nothing" after half a second.
  std::string receive(double seconds = 0.5) {
    Pkt::Ptr pkt;
    Kiv::activityLoop().runUntil([&] { return (pkt = pam->rxPkt()) != nullptr; }, seconds);
    return pkt ? std::string(pkt->stringValue()) : "nothing";
  }

  Kiv::Ptr<UdpPam> pam;
  bool v6;
};

int errorOf(const std::function<void()>& action, std::string* text = nullptr) {
  try {
    action();
  } catch (const Kiv::ErrnoException& failure) {
    if (text) *text = failure.message();
    return failure.error();
  }
  return 0;
}

class UdpPamTest : public testing::TestWithParam<bool> {
 protected:
  // The loop's own descriptors are there before any are counted.
  void SetUp() override { Kiv::activityLoop(); }

  const bool v6 = GetParam();
  const std::string loopback = v6 ? "::1" : "127.0.0.1";

  End opened(Mode mode, const char* name = "end") {
    End end(v6, name);
    end.bindTo(loopback);
    end.pam->modeIs(mode);
    return end;
  }
};
INSTANTIATE_TEST_SUITE_P(Families, UdpPamTest, testing::Bool(),
                         [](const auto& param) { return param.param ? "IPv6" : "IPv4"; });

TEST_P(UdpPamTest, MovesDatagramsOfEverySizeAndSaysWhereTheyCameFrom) {
  End server = opened(Mode::server, "server");
  End client = opened(Mode::client, "client");
  server.pam->maxRxPktDataIs(~0u);
  client.sendTo(loopback, server.pam->rxPort());
  const std::size_t longest = v6 ? 65535 - 8 : 65535 - 20 - 8;
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{1490}, std::size_t{9000}, longest}) {
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
    server.send("back");
    EXPECT_EQ(client.receive(), "back");
  }
  EXPECT_EQ(server.pam->rxPkts(), 5u);
  EXPECT_EQ(client.pam->txPkts(), 5u);
  EXPECT_EQ(server.pam->rxPkt(), nullptr);
  EXPECT_EQ(server.pam->rxErrors(), 0u);

  client.send(std::string(longest + 1, 'x'));
  EXPECT_EQ(client.pam->txErrno(), EMSGSIZE);
  EXPECT_EQ(client.pam->txPkts(), 5u);
}

TEST_P(UdpPamTest, ALongDatagramIsDeliveredCutAndTracedAsSuch) {
  End server = opened(Mode::server);
  End sender = opened(Mode::send);
  server.pam->maxRxPktDataIs(4);
  sender.sendTo(loopback, server.pam->rxPort());
  sender.send("12345");
  sender.send("next");
  TraceCapture traces("UdpPam/0-9");
  EXPECT_EQ(server.receive(), "1234");
  EXPECT_THAT(traces.lines(), Contains("UdpPam/0:Datagram truncated to 4"));
  EXPECT_EQ(server.receive(), "next");
}

TEST_P(UdpPamTest, EachModeOpensBindsReceivesAndConnectsAsItSays) {
  const struct {
    Mode mode;
    bool open, receives, connects;
  } rows[] = {
      {Mode::send, true, false, false}, {Mode::client, true, true, true}, {Mode::server, true, true, false}};
  End peer = opened(Mode::server, "peer");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.mode.stringValue());
    const std::size_t before = openDescriptors();
    End end(v6);
    end.bindTo(loopback);
    end.sendTo(loopback, peer.pam->rxPort());
    U32 changes = 0;
    const Kiv::Reactor onReadable(end.pam->readableCount, [&] { ++changes; });
    const Kiv::Reactor onWritable(end.pam->writableCount, [&] { ++changes; });
    end.pam->modeIs(row.mode);
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_EQ(changes, row.receives ? 2u : 0u);
    EXPECT_EQ(end.pam->readableCount(), row.receives ? 1u : 0u);
    EXPECT_EQ(end.pam->fdSm() != nullptr, row.receives);
    EXPECT_EQ(end.pam->rxPort() != 0, row.receives);
    EXPECT_TRUE(end.pam->fileDesc()->nonBlocking());
    end.send("hello");
    EXPECT_EQ(end.pam->socketConnected(), row.connects);
    EXPECT_EQ(peer.receive(), "hello");
    peer.replyTo();
    peer.send("reply");
    EXPECT_EQ(end.receive(0.05), row.receives ? "reply" : "nothing");
    end.pam->modeIs(Mode::disabled);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(end.pam->fileDesc(), nullptr);
    EXPECT_EQ(end.pam->fdSm(), nullptr);
    EXPECT_FALSE(end.pam->socketConnected());
    EXPECT_EQ(end.pam->rxPkt(), nullptr);
  }
}

TEST_P(UdpPamTest, ARefusalIsCountedAsSent) {
  End client = opened(Mode::client);
  U16 closedPort;
  {
    End gone = opened(Mode::server);
    closedPort = gone.pam->rxPort();
  }
  client.sendTo(loopback, closedPort);
  client.send("a");  // comes back as an ICMP port unreachable
  client.send("b");  // and is reported here
  EXPECT_EQ(client.pam->txErrno(), ECONNREFUSED);
  EXPECT_EQ(client.pam->txPkts(), 2u);
}

TEST_P(UdpPamTest, PublishesHopLimitAndTrafficClassWhereTheKernelTellsThem) {
  End server = opened(Mode::server);
  End sender(v6);
  sender.pam->txTosIs(40);
  sender.pam->modeIs(Mode::send);
  sender.sendTo(loopback, server.pam->rxPort());
  const int on = 1;
  const int fd = server.pam->fileDesc()->descriptor();
  if (v6) {
    setsockopt(fd, IPPROTO_IPV6, IPV6_RECVTCLASS, &on, sizeof(on));
    setsockopt(fd, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, &on, sizeof(on));
  } else {
    setsockopt(fd, IPPROTO_IP, IP_RECVTOS, &on, sizeof(on));
    setsockopt(fd, IPPROTO_IP, IP_RECVTTL, &on, sizeof(on));
  }
  sender.send("x");
  EXPECT_EQ(server.receive(), "x");
  EXPECT_EQ(server.pam->rxTOS(), 40);
  EXPECT_EQ(server.pam->rxTTL(), 64);
}

TEST_P(UdpPamTest, AFailedConnectDropsThePacketUncounted) {
  End server = opened(Mode::server);
  End client = opened(Mode::client);
  client.sendTo(loopback, server.pam->rxPort());
  {
    const Fault fault(Call::connect, 1, ENETUNREACH);
    client.send("lost");
  }
  EXPECT_EQ(client.pam->txPkts() + client.pam->txErrors() + client.pam->txDrops(), 0u);
  EXPECT_FALSE(client.pam->socketConnected());
  client.send("kept");
  EXPECT_EQ(server.receive(), "kept");
}

TEST_P(UdpPamTest, SourceAndInterfaceHoldForOneDatagram) {
  End server(v6);
  server.pam->modeIs(Mode::server);
  End sender = opened(Mode::send);
  sender.sendTo(loopback, server.pam->rxPort());
  const std::string other = v6 ? "::1" : "127.9.9.9";
  sender.sourceIs(other);
  sender.pam->txIfIndexIs(if_nametoindex("lo"));
  sender.send("one");
  EXPECT_EQ(server.receive(), "one");
  EXPECT_EQ(server.source(), other);
  EXPECT_TRUE(sender.sourceCleared());
  sender.send("two");
  EXPECT_EQ(server.receive(), "two");
  EXPECT_EQ(server.source(), loopback);
  // A source that is not ours, an interface that is not there: the send fails, and they are spent.
  sender.sourceIs(v6 ? "2001:db8::1" : "192.0.2.1");
  sender.send("three");
  EXPECT_NE(sender.pam->txErrno(), 0);
  EXPECT_TRUE(sender.sourceCleared());
  sender.pam->txIfIndexIs(0x7fffffff);
  sender.send("four");
  EXPECT_TRUE(sender.sourceCleared());
  EXPECT_EQ(sender.pam->txPkts(), 2u);
  sender.send("five");
  EXPECT_EQ(server.receive(), "five");
}

TEST_P(UdpPamTest, EveryFailedStepOfOpeningThrowsItsText) {
  const struct {
    Call call;
    unsigned nth;
    const char* text;
  } rows4[] = {{Call::socket, 1, "socket"},
               {Call::setsockopt, 1, "setsockopt(IP_PKTINFO)"},
               {Call::setsockopt, 2, "setsockopt(SO_BROADCAST)"},
               {Call::setsockopt, 3, "setsockopt(IP_MULTICAST_LOOP)"},
               {Call::setsockopt, 4, "setsockopt(SO_PRIORITY)"},
               {Call::setsockopt, 5, "setsockopt(IP_TTL)"},
               {Call::setsockopt, 6, "setsockopt(SO_REUSEADDR)"},
               {Call::setsockopt, 7, "setsockopt(IP_TOS)"},
               {Call::fcntl, 1, "fcntl(O_NONBLOCK)"},
               {Call::bind, 1, "bind"},
               {Call::epoll_ctl, 1, "epoll_ctl"}},
    rows6[] = {{Call::socket, 1, "socket"},
               {Call::setsockopt, 1, "setsockopt(SO_REUSEADDR)"},
               {Call::setsockopt, 2, "setsockopt(IPV6_TCLASS)"},
               {Call::bind, 1, "bind"},
               {Call::setsockopt, 3, "setsockopt(IPV6_RECVPKTINFO)"}};
  End end(v6);
  end.bindTo(loopback);
  end.pam->txTosIs(0x20);
  end.pam->txTTLIs(9);
  end.pam->txPrioIs(tcPrioControl);
  end.pam->enableIpMulticastLoopIs(false);
  for (const auto& row : v6 ? std::vector(std::begin(rows6), std::end(rows6))
                            : std::vector(std::begin(rows4), std::end(rows4))) {
    std::string text;
    const Fault fault(row.call, row.nth, ENOMEM);
    EXPECT_EQ(errorOf([&] { end.pam->modeIs(Mode::server); }, &text), ENOMEM);
    EXPECT_EQ(text, row.text);
    EXPECT_EQ(end.pam->mode(), Mode::disabled);
  }
  end.pam->modeIs(Mode::server);
  int fd = end.pam->fileDesc()->descriptor();
  const auto option = [&](int level, int name) {
    int value = 0;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0);
    return value;
  };
  if (v6) {
    EXPECT_EQ(option(IPPROTO_IPV6, IPV6_TCLASS), 0x20);
  } else {
    EXPECT_EQ(option(IPPROTO_IP, IP_TOS), 0x20);
    EXPECT_EQ(option(IPPROTO_IP, IP_TTL), 9);
    EXPECT_EQ(option(IPPROTO_IP, IP_MULTICAST_LOOP), 0);
    // The kernel derives the priority from a traffic class other than 0.
    end.pam->modeIs(Mode::disabled);
    end.pam->txTosIs(0);
    end.pam->modeIs(Mode::server);
    fd = end.pam->fileDesc()->descriptor();
    EXPECT_EQ(option(SOL_SOCKET, SO_PRIORITY), 7);
  }
}

TEST_P(UdpPamTest, ReactorsToTheConnectionMayGoOnFromThere) {
  const std::size_t before = openDescriptors();
  enum class Deed { disable, reopen, fail };
  for (const Deed deed : {Deed::disable, Deed::reopen, Deed::fail}) {
    End end = opened(Mode::client);
    end.sendTo(loopback, end.pam->rxPort());
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
  End end = opened(Mode::server);
  EXPECT_EQ(End(v6).pam->incSockBufSize(1 << 20), -1);
  EXPECT_EQ(end.pam->incSockBufSize(1 << 20), 0);
  std::string text;
  EXPECT_EQ(errorOf([&] { end.pam->incSockBufSize(0x7fffffff); }, &text), ENOBUFS);
  EXPECT_EQ(text, "Error increasing socket buffer size");
  const Fault fault(Call::getsockopt, 1, EPERM);
  EXPECT_EQ(errorOf([&] { end.pam->incSockBufSize(1); }), EPERM);
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
  EXPECT_EQ(pam->maxRxPktData(), 1490u);
  EXPECT_EQ(pam->netNs(), NamespaceName("default"));
}

TEST(UdpPam, TracesItsRoad) {
  End end(false, "pam");
  end.bindTo("127.0.0.1");
  TraceCapture traces("UdpPam/0-9");
  end.pam->netNsIs(NamespaceName("default "));
  end.pam->netNsIs(NamespaceName("default"));
  end.pam->modeIs(Mode::client);
  end.sendTo("127.0.0.1", end.pam->rxPort());
  end.pam->txIfIndexIs(1);
  end.send("abc");
  EXPECT_EQ(end.receive(), "abc");
  const std::string fd = std::to_string(end.pam->fileDesc()->descriptor());
  const std::string port = std::to_string(end.pam->rxPort());
  EXPECT_THAT(traces.lines(),
              ElementsAre("UdpPam/5:network namespace is: default ", "UdpPam/5:network namespace is: default",
                          "UdpPam/5:mode is: client", "UdpPam/5:Socket fd is " + fd + ", mode is client",
                          "UdpPam/5:Done setting file desc pam", "UdpPam/5:txTos is: 0",
                          "UdpPam/5:Binding socket to 127.0.0.1:0", "UdpPam/8:Sending pkt of size 3",
                          "UdpPam/5:Connecting to 127.0.0.1:" + port,
                          "UdpPam/8:Sending pkt with src ip 0.0.0.0", "UdpPam/8:Sending pkt with txIfIndex 1",
                          "UdpPam/8:Sending pkt to ifindex 1", "UdpPam/8:Received packet of size 3",
                          "UdpPam/8:Received from ifindex 1 with src IP 127.0.0.1 and dest IP 127.0.0.1"));
}

// In namespaces joined by a wire ---------------------------------------------------------------------------

class UdpPamNetNsTest : public NetNsTest {
 protected:
  static End inside(const NetNs& ns, bool v6, const std::string& address, Mode mode, U16 port = 7000) {
    End end(v6);
    end.pam->netNsIs(L3::VrfName(ns.vrf()).nsName());
    end.bindTo(address);
    end.pam->rxPortIs(port);
    end.pam->modeIs(mode);
    return end;
  }
  static U32 indexOf(const NetNs& ns, const std::string& intf) {
    return runIn(ns, [&] { return if_nametoindex(intf.c_str()); });
  }
};

TEST_F(UdpPamNetNsTest, TwoAgentsExchangeDatagramsOverAWire) {
  const NetNs red("red");
  const NetNs blue("blue");
  const Veth wire(red, blue);
  for (const bool v6 : {false, true}) {
    End server = inside(red, v6, v6 ? wire.ip6A : wire.ipA, Mode::server);
    End client = inside(blue, v6, v6 ? wire.ip6B : wire.ipB, Mode::client);
    client.sendTo(v6 ? wire.ip6A : wire.ipA, 7000);
    client.send("hello");
    EXPECT_EQ(server.receive(2), "hello");
    EXPECT_EQ(server.source(), v6 ? wire.ip6B : wire.ipB);
    EXPECT_EQ(server.pam->rxIfIndex(), indexOf(red, wire.intf));
    server.replyTo();
    server.send("world");
    EXPECT_EQ(client.receive(2), "world");
    // Elsewhere the address does not exist: opening there fails, and says so.
    EXPECT_EQ(errorOf([&] { server.pam->netNsIs(NamespaceName(blue.name())); }), EADDRNOTAVAIL);
    EXPECT_EQ(server.pam->mode(), Mode::disabled);
    const std::size_t before = openDescriptors();
    server.pam->netNsIs(NamespaceName(red.name()));  // opens nothing while disabled
    EXPECT_EQ(openDescriptors(), before);
    server.pam->modeIs(Mode::server);
    client.send("again");
    EXPECT_EQ(server.receive(2), "again");
  }
}

TEST_F(UdpPamNetNsTest, MulticastReachesMembersOnTheWireOnly) {
  const NetNs red("red");
  const NetNs blue("blue");
  const Veth wire(red, blue);
  for (const bool v6 : {false, true}) {
    End member = inside(red, v6, v6 ? "::" : "0.0.0.0", Mode::server);
    End sender = inside(blue, v6, v6 ? "::" : "0.0.0.0", Mode::server);
    const std::string group = v6 ? "ff02::7777" : "239.7.7.7";
    const auto membership = [&](bool join) {
      return v6 ? member.pam->handleMcastGroup(Ip6Addr(group), join, indexOf(red, wire.intf))
                : member.pam->handleV4McastGroup(wire.intf, IpAddr(group), join);
    };
    const auto send = [&](const char* text) {
      sender.sendTo(group, 7000);
      sender.pam->txIfIndexIs(indexOf(blue, wire.intf));
      sender.send(text);
    };
    EXPECT_EQ(membership(true), 0);
    send("group");
    EXPECT_EQ(member.receive(2), "group");
    EXPECT_EQ(member.destination(), group);
    EXPECT_EQ(membership(false), 0);
    send("after");
    EXPECT_EQ(member.receive(0.05), "nothing");
  }
}

TEST_F(UdpPamNetNsTest, AFullSendBufferDropsAndLosesNothingElse) {
  const NetNs red("red");
  const NetNs blue("blue");
  const Veth wire(red, blue);
  End sender = inside(red, false, wire.ipA, Mode::server);
  const int small = 1;  // the kernel makes it its minimum
  setsockopt(sender.pam->fileDesc()->descriptor(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
  sender.sendTo("10.77.1.99", 9);  // nobody there: datagrams wait for an answer to ARP, in the send buffer
  U64 sent = 0;
  for (int i = 0; i < 50 && sender.pam->txErrno() == 0; ++i) {
    sent = sender.pam->txPkts();
    sender.send(std::string(1000, 'x'));
  }
  EXPECT_EQ(sender.pam->txErrno(), EAGAIN);
  EXPECT_EQ(sender.pam->txPkts(), sent);
  // When the wait for ARP is over there is room again.
  End receiver = inside(blue, false, wire.ipB, Mode::server);
  sender.sendTo(wire.ipB, 7000);
  std::string got;
  for (int i = 0; i < 100 && got.empty(); ++i) {
    sender.send("room");
    if (const std::string text = receiver.receive(0.1); text != "nothing") got = text;
  }
  EXPECT_EQ(got, "room");
}

TEST_F(UdpPamNetNsTest, TalksToAClientAndAServerThatAreNotOurs) {
  const NetNs red("red");
  const NetNs blue("blue");
  const Veth wire(red, blue);
  const auto shell = [&](const std::string& command) {
    return std::async(std::launch::async, [command] {
      std::string output;
      FILE* const pipe = popen(command.c_str(), "r");
      for (int c; pipe && (c = fgetc(pipe)) != EOF;) output += static_cast<char>(c);
      if (pipe) pclose(pipe);
      return output;
    });
  };
  const std::string in = "ip netns exec " + blue.name() + " ";
  for (const bool v6 : {false, true}) {
    const std::string a = v6 ? "UDP6:[" + wire.ip6A + "]" : "UDP4:" + wire.ipA;
    End server = inside(red, v6, v6 ? wire.ip6A : wire.ipA, Mode::server);
    const Kiv::Reactor echo(server.pam->readableCount, [&] {
      while (const Pkt::Ptr pkt = server.pam->rxPkt()) {
        server.replyTo();
        server.pam->txPktIs(pkt);
      }
    });
    auto client = shell("printf ping | " + in + "socat -t 2 - " + a + ":7000");
    Kiv::activityLoop().runUntil([&] { return server.pam->txPkts() == 1; }, 5);
    EXPECT_EQ(client.get(), "ping");

    auto service = shell(in + "timeout 10 socat UDP" + (v6 ? "6" : "4") + "-RECVFROM:8000 EXEC:'tr a-z A-Z'");
    End ours = inside(red, v6, v6 ? wire.ip6A : wire.ipA, Mode::client, 7001);
    ours.sendTo(v6 ? wire.ip6B : wire.ipB, 8000);
    std::string answer = "nothing";
    for (int i = 0; i < 50 && answer == "nothing"; ++i) {
      ours.send("shout");  // until the service is up
      answer = ours.receive(0.1);
    }
    EXPECT_EQ(answer, "SHOUT");
    service.wait();
  }
}

}  // namespace
}  // namespace Wirl
