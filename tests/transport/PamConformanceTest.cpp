// SPDX-License-Identifier: Apache-2.0
#include "tests/access/PamConformance.h"

#include "Kiv/Kiv.h"
#include "Wirl/transport/UdpPam.h"
#include "tests/transport/TcpPdus.h"

namespace Wirl {
namespace {

template <bool kV6>
class UdpBackend final : public SocketPamBackend<UdpPam> {
 public:
  explicit UdpBackend(const NamespaceName& ns) {
    U16 port = 7000;
    for (Kiv::Ptr<Pam>* const end : {&from, &to}) {
      const auto pam = udpPamFactory("end");
      pam->netNsIs(ns);
      pam->ipv6EnIs(kV6);
      pam->rxPortLocalIs(port++);
      kV6 ? pam->txDstIp6AddrIs(Ip6Addr("::1")) : pam->txDstIpAddrIs(IpAddr("127.0.0.1"));
      pam->txPortIs(7001);
      if (kV6) pam->maxRxPktDataIs(9000);
      *end = pam;
    }
  }
  void openIs(Pam& pam, bool open) override {
    as(pam).modeIs(open ? UdpPam::Mode(UdpPam::Mode::server) : UdpPam::Mode(UdpPam::Mode::disabled));
  }
  std::vector<Watch> attributes(Pam& pam) const override {
    auto& own = as(pam);
    auto all = SocketPamBackend::attributes(pam);
    all.emplace_back([&own](auto action) { return Kiv::Reactor(own.rxSrcPort, action); });
    all.emplace_back([&own](auto action) { return Kiv::Reactor(own.rxPkts, action); });
    all.emplace_back([&own](auto action) { return Kiv::Reactor(own.rxErrors, action); });
    return all;
  }
  void roomIsSmall() override { receiveBufferIsSmall(as(*to).fileDesc()->descriptor()); }
  Loss lossOf(int) const override { return Loss::uncounted; }
  bool countsFailedReceive(int error) const override { return error != EAGAIN; }
  const char* deathOfClosedSend() const override { return "mode\\(\\) != disabled\\(\\)"; }
  bool changeOption(Pam& pam) const override {
    return isRefused([&] { as(pam).txTosIs(4); });
  }
  std::uint64_t sent(const Pam& pam) const override { return as(pam).txPkts(); }
};

template <bool kV6>
std::unique_ptr<PamBackend> udp(const NamespaceName& ns) {
  return std::make_unique<UdpBackend<kV6>>(ns);
}

/// Both ends of a connection. What is opened and closed are its directions.
class TcpPduBackend final : public PamBackend {
 public:
  TcpPduBackend() {
    const auto ends = connected(true);
    from = made(ends.first);
    to = made(ends.second);
  }
  void openIs(Pam& pam, bool open) override { dynamic_cast<TcpPduPam&>(pam).enabledIs(open); }
  Pkt::Ptr pktOf(const std::string& payload) const override {
    std::string header(20, 'h');
    header[2] = static_cast<char>((payload.size() + 20) >> 8);
    header[3] = static_cast<char>(payload.size() + 20);
    return PamBackend::pktOf(header + payload);
  }
  std::string payloadOf(const Pkt& pkt) const override { return std::string(pkt.stringValue()).substr(20); }
  std::vector<Watch> attributes(Pam& pam) const override {
    auto& own = dynamic_cast<TcpPduPam&>(pam);
    return {[&own](auto action) { return Kiv::Reactor(own.readableCount, action); },
            [&own](auto action) { return Kiv::Reactor(own.readable, action); },
            [&own](auto action) { return Kiv::Reactor(own.writeLength, action); },
            [&own](auto action) { return Kiv::Reactor(own.enableMode, action); }};
  }
  bool gathers() const override { return false; }
  bool loses() const override { return false; }

 private:
  static Kiv::Ptr<Pam> made(const TcpFileDescriptor::PtrConst& end) {
    const auto pam = simpleTcpPduPamFactory(end, tcpFileDescriptorEventRegistrationFactoryKivcFactory());
    pam->maxPduLengthIs(1536);
    return pam;
  }
};
INSTANTIATE_TEST_SUITE_P(Tcp, PamConformanceTest,
                         testing::Values(PamClass{"TcpPduPam",
                                                  [](const NamespaceName&) -> std::unique_ptr<PamBackend> {
                                                    return std::make_unique<TcpPduBackend>();
                                                  }}),
                         PamClass::nameOf);

const std::vector<PamClass> kUdpPams = {{"UdpPamIPv4", udp<false>}, {"UdpPamIPv6", udp<true>}};
INSTANTIATE_TEST_SUITE_P(Transport, SocketPamConformanceTest, testing::ValuesIn(kUdpPams), PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Transport, PamConformanceTest, testing::ValuesIn(kUdpPams), PamClass::nameOf);

}  // namespace
}  // namespace Wirl
