// SPDX-License-Identifier: Apache-2.0
#include "tests/access/PamConformance.h"

#include "Kiv/Kiv.h"
#include "Wirl/access/EthDevPam.h"
#include "Wirl/access/Ip6SocketPam.h"
#include "Wirl/access/IpSocketPam.h"
#include "Wirl/access/PamConnector.h"
#include "Wirl/access/ReqResponseRawTxPam.h"

namespace Wirl {
namespace {

using namespace std::string_literals;

/// Raw IP of either family, in batches (of one packet) or not.
class RawIpBackend final : public SocketPamBackend<RawIpPam> {
 public:
  RawIpBackend(const NamespaceName& ns, bool v6, bool batches) : v6_(v6), batches_(batches) {
    constexpr auto kProtocol = ipProtoNetworkBoot;  // which nobody else speaks
    for (Kiv::Ptr<Pam>* const end : {&from, &to}) {
      const auto pam = v6 ? Kiv::Ptr<RawIpPam>(ip6SocketPamFactory("end", kProtocol, ns))
                          : Kiv::Ptr<RawIpPam>(ipSocketPamFactory("end", kProtocol, ns));
      pam->txDstIpAddrIs(IpGenAddr(v6 ? "::1" : "127.0.0.1"));
      if (v6) pam->maxRxPktDataIs(9000);
      if (batches) pam->socketReadLimitIs(1);
      pam->enableBulkReadIs(batches);
      *end = pam;
    }
  }
  void openIs(Pam& pam, bool open) override { as(pam).enabledIs(open); }
  std::string payloadOf(const Pkt& pkt) const override {
    return std::string(pkt.stringValue()).substr(v6_ ? 0 : 20);
  }
  std::vector<Watch> attributes(Pam& pam) const override {
    auto& own = as(pam);
    return both(SocketPamBackend::attributes(pam),
                {on(own.rxSrcIpAddr), on(own.rxPktCount), on(own.rxErrors), on(own.txErrors)});
  }
  Call receiveCall() const override { return batches_ ? Call::recvmmsg : Call::recvmsg; }
  const char* deathOfClosedSend() const override { return "enabled\\(\\)"; }
  bool changeOption(Pam& pam) const override {
    as(pam).optionsIs(IpSocketOptions::ipPktInfo);
    return true;
  }
  std::uint64_t sent(const Pam& pam) const override { return as(pam).txPktCount(); }

 private:
  const bool v6_, batches_;
};

/// Frames of a type of their own, to a device that gives them back.
class PacketBackend : public SocketPamBackend<PacketPam> {
 public:
  void openIs(Pam& pam, bool open) override { as(pam).enabledIs(open); }
  Pkt::Ptr pktOf(const std::string& payload) const override { return PamBackend::pktOf(header_ + payload); }
  std::string payloadOf(const Pkt& pkt) const override {
    return std::string(pkt.stringValue()).substr(header_.size());
  }
  Loss lossOf(int error) const override { return error == EAGAIN ? Loss::drop : Loss::error; }
  bool countsFailedReceive(int error) const override { return error != EAGAIN; }
  std::uint64_t sent(const Pam& pam) const override { return as(pam).txPktCount(); }

 protected:
  static Kiv::Ptr<EthDevPam> device(const NamespaceName& ns) {
    auto pam = ethDevPamFactory("device", "lo", ns);
    pam->ethTypeIs(0x88b5);  // for local experiments (IEEE 802)
    return pam;
  }

 private:
  const std::string header_ = "\x02\0\0\0\0\x01\x02\0\0\0\0\x02\x88\xb5"s;
};

class EthDevBackend final : public PacketBackend {
 public:
  EthDevBackend(const NamespaceName& ns, bool batches) : batches_(batches) {
    from = device(ns);
    const auto pam = device(ns);
    if (batches) pam->socketReadLimitIs(1);
    if (batches) pam->maxRxPktDataIs(9018);
    to = pam;
  }
  Pkt::Ptr pull(Pam& pam) const override {
    if (!batches_) return pam.rxPkt();
    const bool received = pam.rxPktBulk() > 0;
    return received && (&pam == to.get() || &pam == from.get()) ? pam.savedPacket(0) : nullptr;
  }
  std::vector<Watch> attributes(Pam& pam) const override {
    auto& own = dynamic_cast<EthDevPam&>(pam);
    return both(PacketBackend::attributes(pam), {on(own.ifIndex), on(own.rxFrameBytes), on(own.rxPktCount)});
  }
  bool hasBulk() const override { return true; }
  bool changeOption(Pam& pam) const override {
    dynamic_cast<EthDevPam&>(pam).promiscuousIs(true);
    return true;
  }
  Call receiveCall() const override { return batches_ ? Call::recvmmsg : Call::recvmsg; }
  bool countsFailedReceive(int error) const override { return batches_ || error != EAGAIN; }

 private:
  const bool batches_;
};

/// What it sends is received by a Pam of another class.
template <typename P>
class RawTxBackend final : public PacketBackend {
 public:
  explicit RawTxBackend(const NamespaceName& ns) {
    const auto pam = Kiv::makePtr<P>("raw", ns);
    pam->txIfIndexIs(1);  // lo
    from = pam;
    to = device(ns);
  }
  bool receives() const override { return false; }
};

class ConnectorBackend final : public PamBackend {
 public:
  explicit ConnectorBackend(const NamespaceName&) {
    Kiv::activityLoop().simulatedTimeIs(true);
    cable_->handleInitializedBase();
    from = cable_->pam("pam0");
    to = cable_->pam("pam1");
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

const std::vector<PamClass> kSocketPams = {
    pamClass<RawIpBackend, false, false>("IpSocketPam"),
    pamClass<RawIpBackend, false, true>("IpSocketPamInBatches"),
    pamClass<RawIpBackend, true, false>("Ip6SocketPam"),
    pamClass<EthDevBackend, false>("EthDevPam"),
    pamClass<EthDevBackend, true>("EthDevPamInBatches"),
    pamClass<RawTxBackend<RawTxPam>>("RawTxPam"),
    pamClass<RawTxBackend<ReqResponseRawTxPam>>("ReqResponseRawTxPam")};
INSTANTIATE_TEST_SUITE_P(Access, SocketPamConformanceTest, testing::ValuesIn(kSocketPams), PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Access, PamConformanceTest, testing::ValuesIn(kSocketPams), PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Cable, PamConformanceTest,
                         testing::Values(pamClass<ConnectorBackend>("PamConnector")), PamClass::nameOf);

}  // namespace
}  // namespace Wirl
