// SPDX-License-Identifier: Apache-2.0
#include "tests/access/PamConformance.h"

#include <linux/filter.h>

#include <cstring>

#include "Wirl/access/EthDevPam.h"
#include "Wirl/access/Ip6SocketPam.h"
#include "Wirl/access/IpSocketPam.h"
#include "Wirl/access/PamConnector.h"
#include "Wirl/access/PamMux.h"
#include "Wirl/access/ReqResponseRawTxPam.h"
#include "Wirl/access/TapPam.h"

namespace Wirl {
namespace {

using namespace std::string_literals;

/// Raw IP of either family, with or without batches.
class RawIpBackend final : public SocketPamBackend<RawIpPam> {
 public:
  RawIpBackend(const NamespaceName& ns, bool v6, bool batches) : v6_(v6), batches_(batches) {
    constexpr auto kProtocol = ipProtoNetworkBoot;  // nobody else speaks it
    for (Kiv::Ptr<Pam>* const end : {&from, &to}) {
      const auto pam = v6 ? Kiv::Ptr<RawIpPam>(ip6SocketPamFactory("end", kProtocol, ns))
                          : Kiv::Ptr<RawIpPam>(ipSocketPamFactory("end", kProtocol, ns));
      pam->txDstIpAddrIs(IpGenAddr(v6 ? "::1" : "127.0.0.1"));
      if (v6) pam->maxRxPktDataIs(9000);
      if (batches) pam->socketReadLimitIs(4);
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
    return both(SocketPamBackend::attributes(pam), {on(own.enabled), on(own.rxSrcIpAddr), on(own.rxPktCount),
                                                    on(own.rxErrors), on(own.txErrors)});
  }
  Pkt::Ptr pull(Pam& pam) override {
    if (!batches_) return pam.rxPkt();
    return pullFromBatch(pam, [&pam] {
      int received = 0;
      for (bool any = pam.rxPkt() != nullptr; any && pam.savedPacketRx(static_cast<U16>(received));)
        ++received;
      return received;
    });
  }
  Call receiveCall() const override { return batches_ ? Call::recvmmsg : Call::recvmsg; }
  const char* deathOfClosedSend() const override { return "enabled\\(\\)"; }
  bool isV6() const override { return v6_; }
  bool changeOption(Pam& pam) const override {
    as(pam).optionsIs(IpSocketOptions::ipPktInfo);
    return true;
  }
  std::uint64_t sent(const Pam& pam) const override { return as(pam).txPktCount(); }
  std::vector<Step> steps(Pam& pam) const override {
    auto& own = as(pam);
    own.rxFilterIs(0, IpFilter(BPF_RET | BPF_K, 0, 0, 0xffff));
    // IPV6_ROUTER_ALERT is for sockets of IPPROTO_RAW only.
    own.optionsIs(v6_ ? 0x0fff & ~U32{IpSocketOptions::ipRouterAlert} : U32{0x0fff});
    own.priorityIs(1);
    own.txTOSIs(1);
    own.txTTLIs(1);
    if (v6_) {
      return stepsOf(
          {"SO_ATTACH_FILTER", "IPV6_FREEBIND", "IPV6_HDRINCL", "IPV6_MULTICAST_LOOP", "IPV6_RECVPKTINFO",
           "IPV6_RECVERR", "IPV6_RECVORIGDSTADDR", "IPV6_RECVTCLASS", "IPV6_RECVHOPLIMIT", "IPV6_TRANSPARENT",
           "SO_ATTACH_FILTER", "SO_RCVBUFFORCE", "IPV6_TCLASS", "SO_PRIORITY", "IPV6_UNICAST_HOPS",
           "IPV6_MULTICAST_HOPS", "SO_PRIORITY"},
          false);
    }
    return stepsOf({"SO_ATTACH_FILTER", "IP_FREEBIND", "IP_HDRINCL", "IP_MULTICAST_LOOP", "IP_PKTINFO",
                    "IP_RECVERR", "IP_RECVORIGDSTADDR", "IP_RECVTOS", "IP_RECVTTL", "IP_ROUTER_ALERT",
                    "IP_TRANSPARENT", "SO_ATTACH_FILTER", "SO_RCVBUFFORCE", "IP_TOS", "SO_PRIORITY", "IP_TTL",
                    "IP_MULTICAST_TTL", "SO_PRIORITY"},
                   false);
  }

 private:
  const bool v6_, batches_;
};

/// Frames of an EtherType of their own, sent through the loopback device.
class PacketBackend : public SocketPamBackend<PacketPam> {
 public:
  void openIs(Pam& pam, bool open) override { as(pam).enabledIs(open); }
  Pkt::Ptr pktOf(const std::string& payload) const override { return PamBackend::pktOf(header_ + payload); }
  std::string payloadOf(const Pkt& pkt) const override {
    return std::string(pkt.stringValue()).substr(header_.size());
  }
  std::vector<Watch> attributes(Pam& pam) const override {
    return both(SocketPamBackend::attributes(pam), {on(as(pam).enabled)});
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

enum class Way { single, batches, ring };

class EthDevBackend final : public PacketBackend {
 public:
  EthDevBackend(const NamespaceName& ns, Way way) : way_(way) {
    from = device(ns);
    const auto pam = device(ns);
    pam->enableRxOffloadIs(way != Way::batches);
    // Slow senders fill a block with one packet each: its time is up.
    if (way == Way::ring) pam->rxRingBytesIs(12 << 17);
    if (way != Way::single) pam->socketReadLimitIs(4);
    if (way == Way::batches) pam->maxRxPktDataIs(9018);
    to = pam;
  }
  /// From a ring alternately alone and in batches: each opening of a ring takes the kernel milliseconds, so
  /// that one class must do for both.
  Pkt::Ptr pull(Pam& pam) override {
    const bool alone = way_ == Way::ring ? ++pulls_ % 2 == 0 : way_ == Way::single;
    return alone && batchIsEmpty() ? pam.rxPkt() : pullFromBatch(pam, [&pam] { return pam.rxPktBulk(); });
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
  /// A ring has room for more packets than the suite sends.
  bool loses() const override { return callsToReceive(); }
  bool callsToReceive() const override { return way_ != Way::ring; }
  Call receiveCall() const override {
    constexpr Call kCalls[] = {Call::recvmsg, Call::recvmmsg, Call::getsockopt};
    return kCalls[static_cast<int>(way_)];
  }
  bool countsFailedReceive(int error) const override {
    return way_ == Way::batches || (way_ == Way::single && error != EAGAIN);
  }
  std::vector<Step> steps(Pam& pam) const override {
    auto& own = dynamic_cast<EthDevPam&>(pam);
    own.rxBufIs(100000);
    own.promiscuousIs(true);
    own.allMulticastIs(true);
    own.enableRxOffloadIs(true);
    std::vector<std::string> options = {"PACKET_AUXDATA", "PACKET_IGNORE_OUTGOING", "SO_RCVBUFFORCE",
                                        "PACKET_VNET_HDR", "SO_ATTACH_FILTER"};
    const bool ring = way_ == Way::ring;
    if (ring) options.insert(options.end(), {"PACKET_VERSION", "PACKET_RX_RING"});
    options.insert(options.end(), {"PACKET_MR_PROMISC", "PACKET_MR_ALLMULTI"});
    std::vector<Step> all = stepsOf(options, true);
    all.push_back({Call::ioctl, "ioctl(SIOCGIFINDEX)"});
    all.push_back({Call::ioctl, "ioctl(SIOCGIFHWADDR)"});
    if (ring) all.push_back({Call::mmap, "mmap"});
    return all;
  }

 private:
  const Way way_;
  unsigned pulls_ = 0;
};

/// Pams that only send. An `EthDevPam` receives.
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
  std::vector<Watch> descriptorAttributes(Pam& pam) const override {
    auto all = PacketBackend::descriptorAttributes(pam);
    if (std::is_same_v<P, ReqResponseRawTxPam>) {
      all.push_back(ofFileDesc(as(pam), &Kiv::FileDescriptor::notifyOnWritable));
    }
    return all;
  }
  void askForWritable(Pam& pam) override {
    if (auto* const asking = dynamic_cast<ReqResponseRawTxPam*>(&pam)) asking->requestWritable();
  }
};

/// A tap device of its own. A packet socket plays the system that sends on it.
class TapBackend final : public SocketPamBackend<VirtualDevPam> {
 public:
  TapBackend(const NamespaceName& ns, bool frames)
      : frames_(frames),
        header_(frames ? "\x02\0\0\0\0\x01\x02\0\0\0\0\x02\x88\xb5"s : "\x45"s + std::string(19, '\x7f')) {
    to = frames ? Kiv::Ptr<Pam>(tapPamFactory("tap", "wirl0", ns))
                : Kiv::Ptr<Pam>(tunPamFactory("tun", "wirl0", ns));
    from = ethDevPamFactory("device", "wirl0", ns);
  }
  void openIs(Pam& pam, bool open) override {
    if (&pam == to.get()) return as(pam).enabledIs(open);
    dynamic_cast<EthDevPam&>(pam).enabledIs(open && isOpen(*to));
  }
  bool isOpen(const Pam& pam) const override { return &pam != to.get() || as(pam).fileDesc() != nullptr; }
  bool isWhole(const Pam& pam) const override { return &pam != to.get() || SocketPamBackend::isWhole(pam); }
  Pkt::Ptr pktOf(const std::string& payload) const override { return PamBackend::pktOf(header_ + payload); }
  std::string payloadOf(const Pkt& pkt) const override {
    return std::string(pkt.stringValue()).substr(header_.size());
  }
  Pkt::Ptr pull(Pam& pam) override {  // skips what the system itself sends, without memory
    const auto isOurs = [this](const Pkt& pkt) {
      return pkt.bytes() >= header_.size() && std::memcmp(pkt.front(), header_.data(), header_.size()) == 0;
    };
    Pkt::Ptr pkt;
    while ((pkt = pam.rxPkt()) && !isOurs(*pkt)) {
    }
    return pkt;
  }
  std::vector<Watch> attributes(Pam& pam) const override {
    auto& own = as(pam);
    return both(SocketPamBackend::attributes(pam), {on(own.enabled), on(own.ifIndex), on(own.rxPktCount)});
  }
  std::vector<Option> options(Pam&) const override { return {}; }
  bool loses() const override { return false; }
  Call receiveCall() const override { return Call::read; }
  Loss lossOf(int error) const override { return error == EAGAIN ? Loss::drop : Loss::error; }
  bool countsFailedReceive(int error) const override { return error != EAGAIN; }
  std::uint64_t sent(const Pam& pam) const override {
    return dynamic_cast<const EthDevPam&>(pam).txPktCount();
  }
  std::vector<Step> steps(Pam&) const override {
    std::vector<Step> all = {{Call::socket, "socket"},
                             {Call::ioctl, "ioctl(TUNSETIFF)"},
                             {Call::ioctl, "ioctl(SIOCGIFINDEX)"},
                             {Call::ioctl, "ioctl(SIOCGIFFLAGS)"},
                             {Call::ioctl, "ioctl(SIOCSIFFLAGS)"}};
    if (frames_) all.push_back({Call::ioctl, "ioctl(SIOCGIFHWADDR)"});
    return all;
  }

 private:
  const bool frames_;
  const std::string header_;
};

/// Clients that share the ends of a cable. The receiver takes one EtherType.
class DemuxBackend final : public PamBackend {
 public:
  explicit DemuxBackend(const NamespaceName&) {
    Kiv::activityLoop().simulatedTimeIs(true);
    cable_->handleInitializedBase();
    from = pamMuxFactory("mux", cable_->pam("pam0"))->clientIs("sender");
    demux_ = pamDemuxFactory("demux", cable_->pam("pam1"), PamDemux::Layer::frame);
    other_ = demux_->clientIs("other", {.ethType = 0x88b6});
    to = demux_->clientIs("client", {.ethType = 0x88b5});
  }
  ~DemuxBackend() override { Kiv::activityLoop().simulatedTimeIs(false); }
  void drop(Kiv::Ptr<Pam>& end) override {
    end = nullptr;
    if (from || to) return;
    demux_ = nullptr;
    other_ = nullptr;
    cable_ = nullptr;
  }
  Pkt::Ptr pktOf(const std::string& payload) const override { return PamBackend::pktOf(header_ + payload); }
  std::string payloadOf(const Pkt& pkt) const override {
    return std::string(pkt.stringValue()).substr(header_.size());
  }
  void roomIsSmall() override { dynamic_cast<PamMuxPam&>(*to).maxBufferIs(2); }
  bool gathers() const override { return false; }

 private:
  const std::string header_ = "ddddddssssss\x88\xb5"s;
  Kiv::Ptr<PamConnector> cable_ = PamConnectorIs(Kiv::makePtr<Kiv::Clock>("cable"));
  Kiv::Ptr<PamDemux> demux_;
  Kiv::Ptr<PamMuxPam> other_;
};

/// A cable. With `tags`, frames carry a VLAN tag that the cable separates.
class ConnectorBackend final : public PamBackend {
 public:
  ConnectorBackend(const NamespaceName&, bool tags)
      : header_(tags ? "ddddddssssss\x81\0\x20\x07\x08\0"s : "") {
    Kiv::activityLoop().simulatedTimeIs(true);
    cable_->handleInitializedBase();
    cable_->separateVlanTagHdrIs(tags);
    from = cable_->pam("pam0");
    to = cable_->pam("pam1");
  }
  ~ConnectorBackend() override { Kiv::activityLoop().simulatedTimeIs(false); }
  void drop(Kiv::Ptr<Pam>& end) override {
    cable_->pamDel(end->name());
    end = nullptr;
  }
  Pkt::Ptr pktOf(const std::string& payload) const override { return PamBackend::pktOf(header_ + payload); }
  std::string payloadOf(const Pkt& pkt) const override {
    EXPECT_EQ(pkt.tciPresent() ? pkt.tciField() : 0, header_.empty() ? 0 : 0x2007);
    return std::string(pkt.stringValue()).substr(header_.empty() ? 0 : header_.size() - 4);
  }
  std::vector<Watch> attributes(Pam&) const override {
    std::vector<Watch> all;
    for (const Kiv::Ptr<Pam>& end : {to, from}) {
      auto& own = dynamic_cast<PamConnectorPam&>(*end);
      const Watch ofEnd[] = {on(own.readableCount), on(own.writableCount), on(own.peekPkt),
                             on(own.peekPktCount)};
      all.insert(all.end(), end == from ? ofEnd + 1 : ofEnd, std::end(ofEnd));
    }
    return all;
  }
  void roomIsSmall() override { dynamic_cast<PamConnectorPam&>(*to).maxBufferIs(2); }

 private:
  const std::string header_;
  const Kiv::Ptr<PamConnector> cable_ = PamConnectorIs(Kiv::makePtr<Kiv::Clock>("cable"));
};

const std::vector<PamClass> kSocketPams = {
    pamClass<RawIpBackend, false, false>("IpSocketPam"),
    pamClass<RawIpBackend, false, true>("IpSocketPamInBatches"),
    pamClass<RawIpBackend, true, false>("Ip6SocketPam"),
    pamClass<RawIpBackend, true, true>("Ip6SocketPamInBatches"),
    pamClass<EthDevBackend, Way::single>("EthDevPam"),
    pamClass<EthDevBackend, Way::batches>("EthDevPamInBatches"),
    pamClass<EthDevBackend, Way::ring>("EthDevPamRing"),
    pamClass<RawTxBackend<RawTxPam>>("RawTxPam"),
    pamClass<RawTxBackend<ReqResponseRawTxPam>>("ReqResponseRawTxPam")};
INSTANTIATE_TEST_SUITE_P(Access, SocketPamConformanceTest, testing::ValuesIn(kSocketPams), PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Access, PamConformanceTest, testing::ValuesIn(kSocketPams), PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Tap, SocketPamConformanceTest,
                         testing::Values(pamClass<TapBackend, true>("TapPam"),
                                         pamClass<TapBackend, false>("TunPam")),
                         PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Demux, PamConformanceTest, testing::Values(pamClass<DemuxBackend>("PamDemux")),
                         PamClass::nameOf);
INSTANTIATE_TEST_SUITE_P(Cable, PamConformanceTest,
                         testing::Values(pamClass<ConnectorBackend, false>("PamConnector"),
                                         pamClass<ConnectorBackend, true>("PamConnectorOfTags")),
                         PamClass::nameOf);

}  // namespace
}  // namespace Wirl
