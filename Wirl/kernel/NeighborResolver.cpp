// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/NeighborResolver.h"

#include <linux/filter.h>
#include <linux/neighbour.h>

#include <algorithm>
#include <chrono>

#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/PktChecks.h"
#include "Wirl/wire/ArpHdr.h"
#include "Wirl/wire/NdHdr.h"
#include "Wirl/wire/PktBuilder.h"
#include "Wirl/wire/WireChecks.h"

namespace Wirl {

using namespace std::chrono_literals;

namespace {

constexpr std::size_t kBatch = 256;  // questions in one pass of the loop
constexpr Kiv::Time kFirstBackOff = 1s;
constexpr Kiv::Time kDefendInterval = 10s;  // RFC 5227 section 1.1
constexpr Kiv::Time kKernelAnswers = 5s;    // after which even a kernel that asks three times has given up

}  // namespace

NextHop::NextHop(const NeighborKey& key)
    : Entity("next hop " + std::string(key.address.stringValue())), key_(key) {}

NextHop::~NextHop() {
  if (resolver_) resolver_->forget(*this);
}

// What both have in common
// -------------------------------------------------------------------------------------------

NeighborResolver::NeighborResolver(Kiv::String name)
    : Entity(std::move(name)), clock_(Kiv::makePtr<Kiv::Clock>("resolver")) {
  onClock_ = Kiv::Reactor(clock_->expiredCount, [this] { tick(); });
}

NeighborResolver::~NeighborResolver() {
  for (const auto& [key, hop] : hops_) hop->resolver_ = nullptr;
}

Kiv::Ptr<NextHop> NeighborResolver::nextHop(const NeighborKey& key) {
  if (NextHop* const known = find(key)) return Kiv::Ptr<NextHop>(known);
  auto made = Kiv::makePtr<NextHop>(key);
  hops_.emplace(key, made.get());
  made->resolver_ = this;
  registered(key);
  return made;
}

NextHop* NeighborResolver::find(const NeighborKey& key) const {
  const auto found = hops_.find(key);
  return found == hops_.end() ? nullptr : found->second;
}

void NeighborResolver::forget(NextHop& hop) noexcept {
  due_.erase({hop.due_, &hop});
  hops_.erase(hop.key_);
  try {
    if (hop.resolved()) resolvedCount.set(resolvedCount() - 1);
    dropped(hop.key_);
  } catch (...) {
    // A destructor has nobody to tell.
  }
}

void NeighborResolver::dueIs(NextHop& hop, Kiv::Time due) {
  due_.erase({hop.due_, &hop});
  hop.due_ = due;
  if (due == Kiv::timeInfinite) return;
  due_.emplace(due, &hop);
  if (due < clock_->timeMin()) clock_->timeMinIs(due);
}

void NeighborResolver::askSoon(const NeighborKey& key) {
  NextHop* const hop = find(key);
  if (!hop) return;
  hop->phase_ = hop->phase_ == Phase::fresh ? Phase::refreshing : Phase::asking;
  hop->asked_ = 0;
  dueIs(*hop, Kiv::activityLoop().now());
}

void NeighborResolver::tick() {
  const auto alive = Kiv::keepAlive(this);
  const Kiv::Time now = Kiv::activityLoop().now();
  // Held: whoever is told of a loss may drop next hops.
  std::vector<Kiv::Ptr<NextHop>> now_due;
  for (auto each = due_.begin(); each != due_.end() && each->first <= now && now_due.size() < kBatch;
       ++each) {
    now_due.emplace_back(each->second);
  }
  std::vector<Question> questions;
  for (const auto& hop : now_due) {
    if (hop->phase_ == Phase::fresh) {
      hop->phase_ = Phase::refreshing;
      hop->asked_ = 0;
    } else if (hop->phase_ == Phase::lost || hop->phase_ == Phase::waiting) {
      hop->phase_ = Phase::asking;
      hop->asked_ = 0;
    } else if (hop->asked_ >= tries()) {
      fail(*hop);
      continue;
    }
    ++hop->asked_;
    dueIs(*hop, now + answerTime());
    const bool alone = hop->resolved() && hop->asked_ < tries() && hop->ethAddr().isUnicast();
    questions.push_back({hop->key_, hop->ethAddr(), alone});
  }
  if (!questions.empty()) {
    ask(questions);
    askedCount.set(askedCount() + questions.size());
  }
  if (!due_.empty()) clock_->timeMinIs(due_.begin()->first);
}

void NeighborResolver::fail(NextHop& hop) {
  hop.phase_ = Phase::lost;
  hop.backOff_ = std::min(std::max(hop.backOff_ * 2, kFirstBackOff), longestBackOff());
  dueIs(hop, Kiv::activityLoop().now() + hop.backOff_);
  resolvedIs(hop, false, hop.ethAddr());
}

void NeighborResolver::failed(const NeighborKey& key) {
  NextHop* const hop = find(key);
  if (hop && hop->phase_ != Phase::lost) fail(*hop);
}

void NeighborResolver::heard(const NeighborKey& key, const EthAddr& mac, bool sure) {
  NextHop* const hop = find(key);
  if (!hop) return;
  const Kiv::Time now = Kiv::activityLoop().now();
  hop->backOff_ = Kiv::Time(0);
  if (sure) {
    hop->phase_ = Phase::fresh;
    hop->asked_ = 0;
    const auto spread = static_cast<Kiv::Time::rep>(std::hash<IpGenAddr>()(key.address) % 256);
    const Kiv::Time until = refreshTime() / 4 * 3 + refreshTime() / 1024 * spread;
    dueIs(*hop, refreshTime() == Kiv::timeInfinite ? Kiv::timeInfinite : now + until);
  } else if (hop->phase_ != Phase::refreshing) {
    hop->phase_ = Phase::refreshing;
    hop->asked_ = 0;
    dueIs(*hop, now);
  }
  resolvedIs(*hop, true, mac);
}

void NeighborResolver::resolvedIs(NextHop& hop, bool resolved, const EthAddr& mac) {
  const Kiv::Ptr<NextHop> held(&hop);
  Change ofHop(&hop);
  Change own(this);
  ofHop.put(hop.ethAddr, mac);
  if (ofHop.put(hop.resolved, resolved)) {
    own.put(resolvedCount, resolvedCount() + (resolved ? 1 : ~0u));
    if (!resolved) {
      ofHop.put(hop.lostCount, hop.lostCount() + 1);
      own.put(lostCount, lostCount() + 1);
    }
  }
  own.run([&] { ofHop.tell(); });
  own.tell();
}

// By the kernel
// ------------------------------------------------------------------------------------------------------

KernelNeighborResolver::KernelNeighborResolver(Kiv::String name, const NamespaceName& ns)
    : NeighborResolver(std::move(name)), changer_(ns), view_(neighborViewFactory("resolver", ns)) {
  answerTimeIs(kKernelAnswers);
  triesIs(1);
  view_->enabledIs(true);
  onChange_ = Kiv::Reactor(view_->changeCount, [this] {
    const auto alive = Kiv::keepAlive(this);
    std::vector<NeighborKey> keys;
    for (const auto& change : view_->changes()) keys.push_back(change.entity->info().key);
    for (const NeighborKey& key : keys) look(key);
  });
  onSync_ = Kiv::Reactor(view_->inSync, [this] {
    const auto alive = Kiv::keepAlive(this);
    if (view_->inSync()) forEachKey([this](const NeighborKey& key) { registered(key); });
  });
}

KernelNeighborResolver::~KernelNeighborResolver() {
  try {
    KernelChanges changes;
    for (const NeighborKey& key : ours_) changes.neighborDel(key);
    changer_.tryApply(changes);
  } catch (...) {
    // A destructor has nobody to tell.
  }
}

void KernelNeighborResolver::registered(const NeighborKey& key) {
  if (!view_->inSync()) return;  // it may be known already
  if (view_->find(key)) return look(key);
  askSoon(key);
}

void KernelNeighborResolver::look(const NeighborKey& key) {
  if (!find(key)) return;
  const auto neighbor = view_->find(key);
  if (!neighbor) {
    ours_.erase(key);
    failed(key);
    return askSoon(key);
  }
  const NeighborInfo& info = neighbor->info();
  if (info.isUsable()) {
    constexpr U16 kSure = NUD_REACHABLE | NUD_PERMANENT | NUD_NOARP;
    heard(key, info.ethAddr(), (info.state & kSure) != 0);
  } else if ((info.state & NUD_FAILED) != 0) {
    failed(key);
  }
}

void KernelNeighborResolver::ask(const std::vector<Question>& questions) {
  KernelChanges changes;
  std::vector<NeighborKey> asked;
  for (const auto& [key, mac, alone] : questions) {
    const auto neighbor = view_->find(key);
    const bool known = neighbor && neighbor->info().isUsable();
    if (known && (neighbor->info().state & (NUD_PERMANENT | NUD_NOARP)) != 0) continue;
    asked.push_back(key);
    if (known) {
      changes.neighborProbe(key, static_cast<U8>(neighbor->info().flags & (NTF_EXT_LEARNED | NTF_ROUTER)));
    } else {
      changes.neighborAsk(key, NTF_EXT_LEARNED);
      if (!neighbor) ours_.insert(key);
    }
  }
  const auto outcomes = changer_.tryApply(changes);
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    if (outcomes[i].error != 0) failed(asked[i]);
  }
}

void KernelNeighborResolver::dropped(const NeighborKey& key) {
  if (ours_.erase(key) == 0) return;
  KernelChanges changes;
  changes.neighborDel(key);
  changer_.tryApply(changes);
}

// By this library
// ----------------------------------------------------------------------------------------------------

namespace {

/// Solicitations and advertisements of neighbours.
IpFilterProgram ndFilter() {
  const auto load = [](U32 octet) { return IpFilter(BPF_LD | BPF_B | BPF_ABS, 0, 0, octet); };
  const auto unless = [](U32 value, U8 skipped) {
    return IpFilter(BPF_JMP | BPF_JEQ | BPF_K, 0, skipped, value);
  };
  return {{0, load(sizeof(EthHdr) + 6)},
          {1, unless(58, 4)},
          {2, load(sizeof(EthHdr) + sizeof(Ip6Hdr))},
          {3, IpFilter(BPF_JMP | BPF_JEQ | BPF_K, 1, 0, icmp6TypeNeighborSolicitation)},
          {4, unless(icmp6TypeNeighborAdvertisement, 1)},
          {5, IpFilter(BPF_RET | BPF_K, 0, 0, 0xffff)},
          {6, IpFilter(BPF_RET | BPF_K, 0, 0, 0)}};
}

template <typename Option>
std::optional<EthAddr> linkAddressIn(std::span<const U8> options) {
  const auto found = NdOptions(options).find<Option>();
  if (!found) return std::nullopt;
  return found->addr();
}

Pkt::Ptr newPkt() {
  return globalPktManager()->newPkt();
}

}  // namespace

DeviceNeighborResolver::DeviceNeighborResolver(Kiv::String name, const Kiv::String& device,
                                               const NamespaceName& ns, IpAddr ownIp, const Ip6Addr& ownIp6)
    : NeighborResolver(std::move(name)),
      ownIpAddr(ownIp),
      ownIp6Addr(ownIp6),
      arp_(ethDevPamFactory("arp", device, ns)),
      nd_(ethDevPamFactory("nd", device, ns)) {
  arp_->ethTypeIs(ethTypeArpIp);
  nd_->ethTypeIs(ethTypeIp6);
  nd_->rxFilterIs(ndFilter());
  arp_->enabledIs(true);
  nd_->enabledIs(true);
  ifIndex.store(arp_->ifIndex());
  ownEthAddr.store(arp_->ethAddr());
  if (!ownIp6.isUnspecified()) {
    nd_->handleMembership(ownIp6.solicitedNodeMulticastAddr().mcastEtherAddress(), true);
  }
  onArp_ = Kiv::Reactor(arp_->readableCount, [this] {
    const auto alive = Kiv::keepAlive(this);
    while (const Pkt::Ptr pkt = arp_->rxPkt()) takeArp(pkt);
  });
  onNd_ = Kiv::Reactor(nd_->readableCount, [this] {
    const auto alive = Kiv::keepAlive(this);
    while (const Pkt::Ptr pkt = nd_->rxPkt()) takeNd(pkt);
  });
}

DeviceNeighborResolver::~DeviceNeighborResolver() = default;

void DeviceNeighborResolver::ask(const std::vector<Question>& questions) {
  for (const Question& question : questions) {
    const AddressFamily af = question.key.address.af();
    if (question.key.ifIndex != ifIndex()) continue;
    if (af == AddressFamily::ipv4) askByArp(question);
    if (af == AddressFamily::ipv6 && !ownIp6Addr().isUnspecified()) askByNd(question);
  }
}

void DeviceNeighborResolver::sendArp(U16 operation, const EthAddr& to, const EthAddr& targetMac,
                                     IpAddr targetIp) {
  EthArpHdr arp;
  arp.hardwareTypeIs(ArpHdr::ethernet);
  arp.protocolTypeIs(0x0800);
  arp.hardwareBytesIs(6);
  arp.protocolBytesIs(4);
  arp.operationIs(operation);
  arp.senderMacIs(ownEthAddr());
  arp.senderIpIs(ownIpAddr());
  arp.targetMacIs(targetMac);
  arp.targetIpIs(targetIp);
  const auto pkt = newPkt();
  PktBuilder(pkt).push(arp).eth(to, ownEthAddr()).pad().finish();
  arp_->txPktIs(pkt);
}

/// What is known is asked alone (RFC 1122 section 2.3.2.1), but for the last question: the address may have
/// moved.
void DeviceNeighborResolver::askByArp(const Question& question) {
  sendArp(ArpHdr::request, question.alone ? question.mac : EthAddr(255, 255, 255, 255, 255, 255), EthAddr(),
          question.key.address.v4Addr());
}

void DeviceNeighborResolver::askByNd(const Question& question) {
  const Ip6Addr target = question.key.address.v6Addr();
  const Ip6Addr group = target.solicitedNodeMulticastAddr();
  Icmp6NsHdr solicitation;
  solicitation.targetIs(target);
  Icmp6LinkLayerAddrOptionHdr source;
  source.addrIs(ownEthAddr());
  const auto pkt = newPkt();
  pkt->stringValueIs({reinterpret_cast<const char*>(&source), sizeof(source)});
  PktBuilder(pkt)
      .push(solicitation)
      .ip6(ownIp6Addr(), question.alone ? target : group, 255)
      .eth(question.alone ? question.mac : group.mcastEtherAddress(), ownEthAddr())
      .finish();
  nd_->txPktIs(pkt);
}

void DeviceNeighborResolver::learn(const IpGenAddr& address, const EthAddr& mac, bool sure) {
  const NeighborKey key{ifIndex(), address};
  const NextHop* const hop = find(key);
  if (!hop) return;
  // Who only asks has said where it is, if that is news; that it hears us it has not.
  if (!sure && hop->resolved() && hop->ethAddr() == mac) return;
  heard(key, mac, sure);
}

void DeviceNeighborResolver::takeArp(const Pkt::Ptr& pkt) {
  EthHdr* ethHdr = nullptr;
  EthArpHdr* arp = nullptr;
  if (checkArp(pkt, ethHdr, arp) != noError) return badPkts.set(badPkts() + 1);
  const IpAddr sender = arp->senderIp();
  const EthAddr mac = arp->senderMac();
  if (mac == ownEthAddr()) return;
  const bool hasOwn = !ownIpAddr().isAny();
  if (hasOwn && sender == ownIpAddr()) {
    const Kiv::Time now = Kiv::activityLoop().now();
    if (!defended_ || now - *defended_ >= kDefendInterval) {
      defended_ = now;
      sendArp(ArpHdr::request, EthAddr(255, 255, 255, 255, 255, 255), EthAddr(), ownIpAddr());
    }
    return conflicts.set(conflicts() + 1);
  }
  const bool isRequest = arp->operation() == ArpHdr::request;
  if (isRequest && hasOwn && arp->targetIp() == ownIpAddr()) sendArp(ArpHdr::reply, mac, mac, sender);
  if (!sender.isAny()) learn(sender, mac, !isRequest);
}

void DeviceNeighborResolver::takeNd(const Pkt::Ptr& pkt) {
  EthHdr* ethHdr = nullptr;
  Ip6Hdr* ip6Hdr = nullptr;
  Icmp6Hdr* icmp6Hdr = nullptr;
  if (checkEthIp6Hdr(pkt, ethHdr, ip6Hdr) != noError || checkNd(pkt, ip6Hdr, icmp6Hdr) != noError) {
    return badPkts.set(badPkts() + 1);
  }
  const std::size_t at = sizeof(EthHdr) + sizeof(Ip6Hdr);
  if (icmp6Hdr->type() == icmp6TypeNeighborAdvertisement) {
    const auto advertisement = viewAt<Icmp6NaHdr>(pkt, at);
    if (!advertisement) return;
    if (advertisement->target() == ownIp6Addr() && !ownIp6Addr().isUnspecified()) {
      return conflicts.set(conflicts() + 1);
    }
    // A solicited answer may leave its address out; it comes from where it was asked.
    const auto option = linkAddressIn<NdTgtLinkLayerAddrOption>(advertisement.payload());
    if (!option && !advertisement->solicited()) return;
    const EthAddr mac = option.value_or(ethHdr->src());
    const NextHop* const hop = find({ifIndex(), IpGenAddr(advertisement->target())});
    if (hop && hop->resolved() && hop->ethAddr() != mac && !advertisement->override()) {
      // What is known stays, but is in doubt (RFC 4861 section 7.2.5).
      return heard(hop->key(), hop->ethAddr(), false);
    }
    return learn(advertisement->target(), mac, advertisement->solicited());
  }
  const auto solicitation = viewAt<Icmp6NsHdr>(pkt, at);
  if (!solicitation) return;
  // Who has no address yet asks whether it may take this one, and hears the answer as all do.
  const bool isProbe = ip6Hdr->src().isUnspecified();
  const auto mac = linkAddressIn<NdSrcLinkLayerAddrOption>(solicitation.payload());
  if (solicitation->target() == ownIp6Addr() && !ownIp6Addr().isUnspecified()) {
    const Ip6Addr to = isProbe ? Ip6Addr("ff02::1") : ip6Hdr->src();
    Icmp6NaHdr answer;
    answer.solicitedIs(!isProbe);
    answer.overrideIs(true);
    answer.targetIs(ownIp6Addr());
    Icmp6LinkLayerAddrOptionHdr own(icmp6OptTgtLinkLayerAddr);
    own.addrIs(ownEthAddr());
    const auto reply = newPkt();
    reply->stringValueIs({reinterpret_cast<const char*>(&own), sizeof(own)});
    PktBuilder(reply)
        .push(answer)
        .ip6(ownIp6Addr(), to, 255)
        .eth(isProbe ? to.mcastEtherAddress() : mac.value_or(ethHdr->src()), ownEthAddr())
        .finish();
    nd_->txPktIs(reply);
  }
  if (mac && !isProbe) learn(ip6Hdr->src(), *mac, false);
}

}  // namespace Wirl
