// SPDX-License-Identifier: Apache-2.0
#include "tests/access/PamConformance.h"

#include "Wirl/transport/UdpPam.h"
#include "tests/transport/OwnFraming.h"
#include "tests/transport/TcpPdus.h"

namespace Wirl {
namespace {

enum class Udp { single, batches, merged };

class UdpBackend final : public SocketPamBackend<UdpPam> {
 public:
  UdpBackend(const NamespaceName& ns, bool v6, Udp way) : v6_(v6), way_(way) {
    U16 port = 7000;
    for (Kiv::Ptr<Pam>* const end : {&from, &to}) {
      const auto pam = udpPamFactory("end");
      pam->netNsIs(ns);
      pam->ipv6EnIs(v6);
      pam->rxPortLocalIs(port++);
      v6 ? pam->txDstIp6AddrIs(Ip6Addr("::1")) : pam->txDstIpAddrIs(IpAddr("127.0.0.1"));
      pam->txPortIs(7001);
      if (v6) pam->maxRxPktDataIs(9000);
      if (way != Udp::single) pam->socketReadLimitIs(4);
      pam->enableGroIs(way == Udp::merged);
      *end = pam;
    }
  }
  bool isV6() const override { return v6_; }
  bool hasBulk() const override { return true; }
  Pkt::Ptr pull(Pam& pam) override {
    return way_ == Udp::batches ? pullFromBatch(pam, [&pam] { return pam.rxPktBulk(); }) : pam.rxPkt();
  }
  Call receiveCall() const override { return way_ == Udp::single ? Call::recvmsg : Call::recvmmsg; }
  void openIs(Pam& pam, bool open) override {
    as(pam).modeIs(open ? UdpPam::Mode::server : UdpPam::Mode::disabled);
  }
  std::vector<Watch> attributes(Pam& pam) const override {
    auto& own = as(pam);
    return both(SocketPamBackend::attributes(pam),
                {on(own.mode), on(own.rxSrcPort), on(own.rxPkts), on(own.rxErrors)});
  }
  /// ECONNREFUSED reports an earlier datagram.
  Loss lossOf(int error) const override { return error == ECONNREFUSED ? Loss::sent : Loss::uncounted; }
  bool countsFailedReceive(int error) const override { return error != EAGAIN; }
  const char* deathOfClosedSend() const override { return "mode\\(\\) != disabled\\(\\)"; }
  bool changeOption(Pam& pam) const override {
    as(pam).txTosIs(4);
    return true;
  }
  std::uint64_t sent(const Pam& pam) const override { return as(pam).txPkts(); }
  std::vector<Step> steps(Pam& pam) const override {
    auto& own = as(pam);
    own.txTosIs(0x20);
    own.txTTLIs(9);
    own.txPrioIs(tcPrioControl);
    own.enableIpMulticastLoopIs(false);
    own.enableRxTTLIs(true);
    own.enableRxTOSIs(true);
    own.enableGroIs(true);
    own.reusePortIs(true);
    own.exclusivePortIs(true);
    own.rxBufBytesIs(1 << 20);
    own.bindDeviceIs("lo");
    own.txMulticastLoopIs(1);
    if (own.ipv6En()) {
      return stepsOf(
          {"SO_REUSEADDR", "IPV6_TCLASS", "IPV6_UNICAST_HOPS", "IPV6_MULTICAST_HOPS", "SO_RCVBUFFORCE",
           "SO_BINDTODEVICE", "IPV6_MULTICAST_LOOP", "SO_REUSEPORT", "SO_REUSEADDR", "UDP_GRO",
           "IPV6_RECVHOPLIMIT", "IPV6_RECVTCLASS", "IPV6_V6ONLY", "IPV6_RECVPKTINFO"},
          true);
    }
    return stepsOf(
        {"IP_PKTINFO", "SO_BROADCAST", "IP_MULTICAST_LOOP", "SO_PRIORITY", "IP_TTL", "SO_REUSEADDR", "IP_TOS",
         "IP_MULTICAST_TTL", "SO_RCVBUFFORCE", "SO_BINDTODEVICE", "IP_MULTICAST_LOOP", "SO_REUSEPORT",
         "SO_REUSEADDR", "UDP_GRO", "IP_RECVTTL", "IP_RECVTOS"},
        true);
  }

 private:
  const bool v6_;
  const Udp way_;
};

/// Both ends of a connection. Opening and closing applies to its directions.
class TcpPduBackend final : public PamBackend {
 public:
  explicit TcpPduBackend(const NamespaceName&) {
    const auto ends = connected(true);
    from = made(ends.first);
    to = made(ends.second);
  }
  void openIs(Pam& pam, bool open) override { dynamic_cast<TcpPduPam&>(pam).enabledIs(open); }
  Pkt::Ptr pktOf(const std::string& payload) const override {
    const std::size_t bytes = 19 + payload.size();
    return PamBackend::pktOf(std::string(16, '\xff') + static_cast<char>(bytes >> 8) +
                             static_cast<char>(bytes) + '\x02' + payload);
  }
  std::string payloadOf(const Pkt& pkt) const override { return std::string(pkt.stringValue()).substr(19); }
  std::vector<Watch> attributes(Pam& pam) const override {
    auto& own = dynamic_cast<TcpPduPam&>(pam);
    return {on(own.readableCount), on(own.readable), on(own.writeLength), on(own.enableMode)};
  }
  bool gathers() const override { return false; }
  bool loses() const override { return false; }
  bool takesNow(const Pam& pam) const override { return dynamic_cast<const TcpPduPam&>(pam).writable(); }

 private:
  static Kiv::Ptr<Pam> made(const TcpFileDescriptor::PtrConst& end) {
    const auto pam = Kiv::makePtr<BgpPam>(end, tcpFileDescriptorEventRegistrationFactoryKivcFactory());
    pam->maxPduLengthIs(1536);
    return pam;
  }
};

const std::vector<PamClass> kUdpPams = {
    pamClass<UdpBackend, false, Udp::single>("UdpPamIPv4"),
    pamClass<UdpBackend, true, Udp::single>("UdpPamIPv6"),
    pamClass<UdpBackend, false, Udp::batches>("UdpPamInBatches"),
    pamClass<UdpBackend, true, Udp::merged>("UdpPamMerged"),
};
INSTANTIATE_TEST_SUITE_P(Transport, SocketPamConformanceTest, testing::ValuesIn(kUdpPams), PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Transport, PamConformanceTest, testing::ValuesIn(kUdpPams), PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Tcp, PamConformanceTest, testing::Values(pamClass<TcpPduBackend>("TcpPduPam")),
                         PamClass::nameOf);

}  // namespace
}  // namespace Wirl
