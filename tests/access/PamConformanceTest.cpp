// SPDX-License-Identifier: Apache-2.0
#include "tests/access/PamConformance.h"

#include <sys/socket.h>

#include "Kiv/Kiv.h"
#include "Wirl/access/EthDevPam.h"
#include "Wirl/access/Ip6SocketPam.h"
#include "Wirl/access/IpSocketPam.h"
#include "Wirl/access/PamConnector.h"
#include "Wirl/access/ReqResponseRawTxPam.h"

namespace Wirl {
namespace {

using namespace std::string_literals;

/// Raw IP of either family. In batches of one packet where asked for.
template <typename P, bool kBatch>
class RawIpBackend final : public SocketPamBackend<P> {
 public:
  using Base = SocketPamBackend<P>;
  explicit RawIpBackend(const NamespaceName& ns) {
    for (Kiv::Ptr<Pam>* const end : {&this->from, &this->to}) {
      const auto pam = Kiv::makePtr<P>("end", ipProtoNetworkBoot, ns);  // which nobody else speaks
      pam->txDstIpAddrIs(kV6 ? IpGenAddr("::1") : IpGenAddr("127.0.0.1"));
      if (kV6) pam->maxRxPktDataIs(9000);
      if (kBatch) pam->socketReadLimitIs(1);
      if (kBatch) pam->enableBulkReadIs(true);
      *end = pam;
    }
  }
  void openIs(Pam& pam, bool open) override { Base::as(pam).enabledIs(open); }
  std::string payloadOf(const Pkt& pkt) const override {
    return std::string(pkt.stringValue()).substr(kV6 ? 0 : 20);
  }
  std::vector<PamBackend::Watch> attributes(Pam& pam) const override {
    auto& own = Base::as(pam);
    auto all = Base::attributes(pam);
    all.emplace_back([&own](auto action) { return Kiv::Reactor(own.rxSrcIpAddr, action); });
    all.emplace_back([&own](auto action) { return Kiv::Reactor(own.rxPktCount, action); });
    all.emplace_back([&own](auto action) { return Kiv::Reactor(own.rxErrors, action); });
    all.emplace_back([&own](auto action) { return Kiv::Reactor(own.txErrors, action); });
    return all;
  }
  void roomIsSmall() override { receiveBufferIsSmall(Base::as(*this->to).fileDesc()->descriptor()); }
  Call receiveCall() const override { return kBatch ? Call::recvmmsg : Call::recvmsg; }
  const char* deathOfClosedSend() const override { return "enabled\\(\\)"; }
  bool changeOption(Pam& pam) const override {
    return isRefused([&] { Base::as(pam).optionsIs(IpSocketOptions::ipPktInfo); });
  }
  std::uint64_t sent(const Pam& pam) const override { return Base::as(pam).txPktCount(); }

 private:
  static constexpr bool kV6 = std::is_same_v<P, Ip6SocketPam>;
};

/// Frames of a type of their own, to a device that gives them back.
template <typename P>
class PacketBackend : public SocketPamBackend<P> {
 public:
  using Base = SocketPamBackend<P>;
  void openIs(Pam& pam, bool open) override { dynamic_cast<PacketPam&>(pam).enabledIs(open); }
  bool isOpen(const Pam& pam) const override {
    return dynamic_cast<const PacketPam&>(pam).fileDesc() != nullptr;
  }
  Pkt::Ptr pktOf(const std::string& payload) const override { return PamBackend::pktOf(kHeader + payload); }
  std::string payloadOf(const Pkt& pkt) const override {
    return std::string(pkt.stringValue()).substr(kHeader.size());
  }
  void roomIsSmall() override {
    receiveBufferIsSmall(dynamic_cast<EthDevPam&>(*this->to).fileDesc()->descriptor());
  }
  PamBackend::Loss lossOf(int error) const override {
    return error == EAGAIN ? PamBackend::Loss::drop : PamBackend::Loss::error;
  }
  bool countsFailedReceive(int error) const override { return error != EAGAIN; }
  std::uint64_t sent(const Pam& pam) const override {
    return dynamic_cast<const PacketPam&>(pam).txPktCount();
  }

 protected:
  static Kiv::Ptr<Pam> device(const NamespaceName& ns) {
    const auto pam = ethDevPamFactory("device", "lo", ns);
    pam->ethTypeIs(0x88b5);  // for local experiments (IEEE 802)
    return pam;
  }

 private:
  const std::string kHeader = "\x02\0\0\0\0\x01\x02\0\0\0\0\x02\x88\xb5"s;
};

template <bool kBatch>
class EthDevBackend final : public PacketBackend<EthDevPam> {
 public:
  explicit EthDevBackend(const NamespaceName& ns) {
    from = device(ns);
    to = device(ns);
    if (!kBatch) return;
    as(*to).socketReadLimitIs(1);
    as(*to).maxRxPktDataIs(9018);
  }
  Pkt::Ptr pull(Pam& pam) const override {
    if (!kBatch) return pam.rxPkt();
    const bool received = pam.rxPktBulk() > 0;
    return received && (&pam == to.get() || &pam == from.get()) ? pam.savedPacket(0) : nullptr;
  }
  std::vector<Watch> attributes(Pam& pam) const override {
    auto& own = as(pam);
    auto all = PacketBackend::attributes(pam);
    all.emplace_back([&own](auto action) { return Kiv::Reactor(own.ifIndex, action); });
    all.emplace_back([&own](auto action) { return Kiv::Reactor(own.rxFrameBytes, action); });
    all.emplace_back([&own](auto action) { return Kiv::Reactor(own.rxPktCount, action); });
    return all;
  }
  bool hasBulk() const override { return true; }
  bool changeOption(Pam& pam) const override {
    return isRefused([&] { as(pam).promiscuousIs(!as(pam).promiscuous()); });
  }
  Call receiveCall() const override { return kBatch ? Call::recvmmsg : Call::recvmsg; }
  bool countsFailedReceive(int error) const override { return kBatch || error != EAGAIN; }
};

/// What it sends is received by a Pam of another class.
template <typename P>
class RawTxBackend final : public PacketBackend<P> {
 public:
  explicit RawTxBackend(const NamespaceName& ns) {
    const auto pam = Kiv::makePtr<P>("raw", ns);
    pam->txIfIndexIs(1);  // lo
    this->from = pam;
    this->to = this->device(ns);
  }
  bool receives() const override { return false; }
};

class ConnectorBackend final : public PamBackend {
 public:
  ConnectorBackend() {
    Kiv::activityLoop().simulatedTimeIs(true);
    cable_->handleInitializedBase();
    from = cable_->pam("pam0");
    to = cable_->pam("pam1");
    cable_->handleInitializedBase();
  }
  ~ConnectorBackend() override { Kiv::activityLoop().simulatedTimeIs(false); }
  void drop(Kiv::Ptr<Pam>& end) override {
    cable_->pamDel(end->name());
    end = nullptr;
  }
  void roomIsSmall() override { dynamic_cast<PamConnectorPam&>(*to).maxBufferIs(2); }

 private:
  const Kiv::Ptr<PamConnector> cable_ = PamConnectorIs(Kiv::makePtr<Kiv::Clock>("cable"));
};

template <typename Backend>
PamClass pamClass(const char* name) {
  return {name, [](const NamespaceName& ns) -> std::unique_ptr<PamBackend> {
            if constexpr (std::is_default_constructible_v<Backend>) {
              static_cast<void>(ns);
              return std::make_unique<Backend>();
            } else {
              return std::make_unique<Backend>(ns);
            }
          }};
}

const std::vector<PamClass> kSocketPams = {
    pamClass<RawIpBackend<IpSocketPam, false>>("IpSocketPam"),
    pamClass<RawIpBackend<IpSocketPam, true>>("IpSocketPamInBatches"),
    pamClass<RawIpBackend<Ip6SocketPam, false>>("Ip6SocketPam"),
    pamClass<EthDevBackend<false>>("EthDevPam"),
    pamClass<EthDevBackend<true>>("EthDevPamInBatches"),
    pamClass<RawTxBackend<RawTxPam>>("RawTxPam"),
    pamClass<RawTxBackend<ReqResponseRawTxPam>>("ReqResponseRawTxPam")};
INSTANTIATE_TEST_SUITE_P(Access, SocketPamConformanceTest, testing::ValuesIn(kSocketPams), PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Access, PamConformanceTest, testing::ValuesIn(kSocketPams), PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Cable, PamConformanceTest,
                         testing::Values(pamClass<ConnectorBackend>("PamConnector")), PamClass::nameOf);

}  // namespace
}  // namespace Wirl
