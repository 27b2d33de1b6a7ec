// SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "Wirl/packet/VlanOffload.h"
#include "Wirl/wire/PktBuilder.h"
#include "Wirl/wire/PktFragmenter.h"
#include "Wirl/wire/PktReassembler.h"
#include "Wirl/wire/WireChecks.h"
#include "tests/support/NetNs.h"

namespace {

using namespace Wirl;
using namespace std::chrono_literals;

constexpr U16 kPort = 7000;

/// A socket of a namespace; what it waits for comes within seconds or not at all.
class Socket {
 public:
  Socket(const NetNs& ns, int family, int type, int protocol)
      : fd_(runIn(ns, [=] { return socket(family, type | SOCK_CLOEXEC, protocol); })) {
    EXPECT_GE(fd_, 0);
  }
  ~Socket() { close(fd_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  int fd() const { return fd_; }
  void optionIs(int level, int option, int value) const {
    EXPECT_EQ(setsockopt(fd_, level, option, &value, sizeof(value)), 0);
  }
  void sendTo(const std::string& data, const std::string& ip) const {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(kPort);
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(kPort);
    const bool isV4 = inet_pton(AF_INET, ip.c_str(), &v4.sin_addr) == 1;
    if (!isV4) inet_pton(AF_INET6, ip.c_str(), &v6.sin6_addr);
    const auto* const to = isV4 ? reinterpret_cast<sockaddr*>(&v4) : reinterpret_cast<sockaddr*>(&v6);
    const ssize_t sent = sendto(fd_, data.data(), data.size(), 0, to, isV4 ? sizeof(v4) : sizeof(v6));
    EXPECT_EQ(sent, static_cast<ssize_t>(data.size()));
  }
  std::string receive() const {
    pollfd ready{fd_, POLLIN, 0};
    if (poll(&ready, 1, 3000) != 1) return "nothing came";
    std::string data(70000, '\0');
    const ssize_t bytes = recv(fd_, data.data(), data.size(), 0);
    data.resize(bytes < 0 ? 0 : static_cast<std::size_t>(bytes));
    return data;
  }

 private:
  const int fd_;
};

/// A UDP socket at the port.
class UdpEnd : public Socket {
 public:
  UdpEnd(const NetNs& ns, bool isIp6) : Socket(ns, isIp6 ? AF_INET6 : AF_INET, SOCK_DGRAM, 0) {
    sockaddr_in6 at{};  // of both families the port is at the same place
    at.sin6_family = isIp6 ? AF_INET6 : AF_INET;
    at.sin6_port = htons(kPort);
    const socklen_t bytes = isIp6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    EXPECT_EQ(bind(fd(), reinterpret_cast<sockaddr*>(&at), bytes), 0);
    if (!isIp6) optionIs(IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DONT);
  }
};

/// Frames of an interface, tags in place.
class FrameEnd : public Socket {
 public:
  FrameEnd(const NetNs& ns, const std::string& interface) : Socket(ns, AF_PACKET, SOCK_RAW, 0) {
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(ETH_P_ALL);
    at.sll_ifindex = runIn(ns, [&] { return static_cast<int>(if_nametoindex(interface.c_str())); });
    EXPECT_EQ(bind(fd(), reinterpret_cast<sockaddr*>(&at), sizeof(at)), 0);
    optionIs(SOL_PACKET, PACKET_AUXDATA, 1);
  }
  /// The next frame that came in with UDP, or with a fragment, for our port; null when none came.
  Pkt::Ptr receiveUdp(bool isIp6) const {
    for (;;) {
      pollfd ready{fd(), POLLIN, 0};
      if (poll(&ready, 1, 3000) != 1) return nullptr;
      const auto pkt = globalPktManager()->newPkt();
      pkt->newSharedTailData(Pkt::Manager::defaultBufferBytes_);
      alignas(cmsghdr) char control[CMSG_SPACE(sizeof(tpacket_auxdata))];
      sockaddr_ll from{};
      ::iovec piece = pkt->iovec(1);
      msghdr header{&from, sizeof(from), &piece, 1, control, sizeof(control), 0};
      const ssize_t bytes = recvmsg(fd(), &header, 0);
      if (bytes < 0) return nullptr;
      pkt->delSharedTailData(pkt->bytes() - static_cast<U32>(bytes));
      const auto* const aux = reinterpret_cast<const tpacket_auxdata*>(CMSG_DATA(CMSG_FIRSTHDR(&header)));
      if ((aux->tp_status & TP_STATUS_VLAN_VALID) != 0) pkt->newSeparateVlanTag(aux->tp_vlan_tci, 0x8100);
      const U8* const type = pkt->front() + 12;
      const U8 protocol = pkt->front()[isIp6 ? 20 : 23];
      const bool isOurs = (type[0] << 8 | type[1]) == (isIp6 ? ethTypeIp6 : ethTypeIp) &&
                          (protocol == ipProtoUdp || protocol == ipProtoIpv6Frag);
      if (isOurs && from.sll_pkttype != PACKET_OUTGOING) return pkt;
    }
  }
};

struct WireKernelTest : NetNsTest {
  static U8* udpOf(const Pkt::Ptr& pkt, U32 ipAt, bool isIp6) {
    return pkt->front() + ipAt + (isIp6 ? sizeof(Ip6Hdr) : sizeof(IpHdr));
  }
};

TEST_F(WireKernelTest, TenLinesMakeTheTaggedFrameThatASocketSends) {
  const NetNs red("red"), blue("blue");
  const Veth veth(red, blue);
  runIn(red, [] { std::ofstream("/proc/sys/net/ipv6/auto_flowlabels") << "0\n"; });
  // Not every kernel has VLAN devices: the frame is then sent without the tag, and gets it here.
  bool hasVlans = true;
  try {
    red.ip("link add link veth1 name tagged type vlan id 100\nlink set tagged up");
  } catch (const std::runtime_error&) {
    hasVlans = false;
  }
  const std::string device = hasVlans ? "tagged" : "veth1";
  red.ip("addr add 2001:db8::1/64 dev " + device +
         " nodad\nneigh add 2001:db8::2 lladdr 02:00:00:00:00:02 dev " + device);
  const FrameEnd end(blue, veth.intf);
  UdpEnd(red, true).sendTo("hello", "2001:db8::2");
  const auto sent = end.receiveUdp(true);
  ASSERT_TRUE(sent);
  if (!hasVlans) sent->newSeparateVlanTag(100, ethTypeDot1Q);
  EXPECT_EQ(sent->tciVlanId(), 100);
  ASSERT_TRUE(maybeRestoreVlanTag(sent));
  // The kernel leaves the checksum to a device that this wire does not have.
  constexpr U32 kIpAt = sizeof(EthHdr) + sizeof(Eth8021QHdr);
  auto* const ip6Hdr = reinterpret_cast<Ip6Hdr*>(sent->front() + kIpAt);
  UdpHdr* udpHdr = nullptr;
  EXPECT_EQ(checkUdp(sent, ip6Hdr, udpHdr), partialUdpChecksum);
  setUdpChecksum(*ip6Hdr, {udpOf(sent, kIpAt, true), ip6Hdr->payloadLen()});
  EXPECT_EQ(checkUdp(sent, ip6Hdr, udpHdr), noError);

  const EthAddr ourMac = reinterpret_cast<const EthHdr*>(sent->front())->src();
  const auto pkt = globalPktManager()->newPkt();
  pkt->stringValueIs("hello");
  PktBuilder(pkt)
      .udp(kPort, kPort)
      .ip6(Ip6Addr("2001:db8::1"), Ip6Addr("2001:db8::2"))
      .vlan(100)
      .eth(EthAddr("02:00:00:00:00:02"), ourMac)
      .finish();
  EXPECT_EQ(pkt->stringValue(), sent->stringValue());
}

TEST_F(WireKernelTest, EachSideTakesTheFragmentsOfTheOther) {
  const NetNs red("red"), blue("blue");
  const Veth veth(red, blue);
  const FrameEnd end(blue, veth.intf);
  std::mt19937 random(1);
  for (const bool isIp6 : {false, true}) {
    SCOPED_TRACE(isIp6);
    const UdpEnd socket(red, isIp6);
    std::string data(20000, ' ');
    for (char& octet : data) octet = static_cast<char>(random());
    socket.sendTo(data, isIp6 ? veth.ip6B : veth.ipB);
    std::vector<Pkt::Ptr> frames;
    for (int i = 0; i < 14; ++i) {
      frames.push_back(end.receiveUdp(isIp6));
      ASSERT_TRUE(frames.back()) << i;
    }
    std::shuffle(frames.begin(), frames.end(), random);
    PktReassembler reassembler;
    Pkt::Ptr whole;
    for (const auto& frame : frames) {
      ASSERT_FALSE(whole);
      whole = reassembler.rxPkt(frame, sizeof(EthHdr), 0s);
    }
    ASSERT_TRUE(whole) << reassembler.code();
    U8* const ip = whole->front() + sizeof(EthHdr);
    UdpHdr* udpHdr = nullptr;
    EXPECT_EQ(isIp6 ? checkUdp(whole, reinterpret_cast<Ip6Hdr*>(ip), udpHdr)
                    : checkUdp(whole, reinterpret_cast<IpHdr*>(ip), udpHdr),
              noError);
    const auto headers =
        static_cast<std::size_t>(udpOf(whole, sizeof(EthHdr), isIp6) - whole->front()) + sizeof(UdpHdr);
    EXPECT_TRUE(std::string(whole->stringValue()).substr(headers) == data);

    const EthHdr eth = *reinterpret_cast<const EthHdr*>(whole->front());
    const auto answer = globalPktManager()->newPkt();
    std::reverse(data.begin(), data.end());
    answer->stringValueIs(data);
    PktBuilder builder(answer);
    builder.udp(kPort, kPort);
    isIp6 ? builder.ip6(Ip6Addr(veth.ip6B), Ip6Addr(veth.ip6A))
          : builder.ip(IpAddr(veth.ipB), IpAddr(veth.ipA));
    builder.eth(eth.src(), eth.dst()).finish();
    PktFragmenter fragmenter(answer, sizeof(EthHdr), 1500, 1);
    frames.clear();
    while (const auto fragment = fragmenter.next()) frames.push_back(fragment);
    std::shuffle(frames.begin(), frames.end(), random);
    for (const auto& frame : frames) {
      ASSERT_EQ(send(end.fd(), frame->front(), frame->bytes(), 0), static_cast<ssize_t>(frame->bytes()));
    }
    EXPECT_TRUE(socket.receive() == data);
  }
}

}  // namespace
