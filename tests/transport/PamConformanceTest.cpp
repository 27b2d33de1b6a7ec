// SPDX-License-Identifier: Apache-2.0
#include "tests/access/PamConformance.h"

#include "Kiv/Kiv.h"
#include "Wirl/transport/UdpPam.h"

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

const std::vector<PamClass> kUdpPams = {{"UdpPamIPv4", udp<false>}, {"UdpPamIPv6", udp<true>}};
INSTANTIATE_TEST_SUITE_P(Transport, SocketPamConformanceTest, testing::ValuesIn(kUdpPams), PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Transport, PamConformanceTest, testing::ValuesIn(kUdpPams), PamClass::nameOf);

}  // namespace
}  // namespace Wirl
