// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "Kiv/Clock.h"
#include "Wirl/access/EthDevPam.h"
#include "Wirl/kernel/KernelChanges.h"
#include "Wirl/kernel/NeighborView.h"

namespace Wirl {

class NeighborResolver;

/// A next hop whose MAC address a resolver keeps known, for as long as somebody holds this object.
class KIV_API NextHop final : public Kiv::Entity {
 public:
  KIV_ENTITY(NextHop, Kiv::Entity)
  /// Whether it answered, and did not fail to since.
  KIV_ATTR_READ(bool, resolved, false)
  /// The last one known; stays when the next hop is lost.
  KIV_ATTR_READ(EthAddr, ethAddr)
  KIV_ATTR_READ(U32, lostCount, 0)  ///< How often it was known and then lost.

  explicit NextHop(const NeighborKey& key);  ///< One of the interface and address.
  ~NextHop() override;
  const NeighborKey& key() const noexcept { return key_; }

 private:
  friend class NeighborResolver;
  enum class Phase : U8 { waiting, asking, fresh, refreshing, lost };

  const NeighborKey key_;
  NeighborResolver* resolver_ = nullptr;  // null once that is gone
  Phase phase_ = Phase::waiting;
  U32 asked_ = 0;
  Kiv::Time due_ = Kiv::timeInfinite;
  Kiv::Time backOff_{0};
};

/// Keeps the MAC addresses of next hops known ahead of traffic.
///
///     nextHop() ──> asking ──answer──> fresh ──refreshTime──> refreshing ──answer──> fresh
///                     │  ^                                        │
///                 no answer └──────────── lost <──── no answer ───┘
///                     └─────────────────────^  asks again after 1 s, 2 s, ... longestBackOff
///
/// Derived classes ask: `KernelNeighborResolver` has the kernel do it, `DeviceNeighborResolver` speaks ARP
/// and ND itself. A question waits `answerTime` for its answer and is put `tries` times. Of what is known
/// each is asked for anew within three quarters to all of `refreshTime`, so that thousands spread out.
///
///     auto hop = resolver->nextHop({link->ifIndex(), Wirl::IpGenAddr("192.0.2.1")});
///     Kiv::Reactor onHop(hop->resolved, [&] { use(hop->resolved(), hop->ethAddr()); });
class KIV_API NeighborResolver : public Kiv::Entity {
 public:
  KIV_ENTITY(NeighborResolver, Kiv::Entity)
  KIV_ATTR(Kiv::Time, answerTime, std::chrono::seconds(1))
  KIV_ATTR(U32, tries, 3)
  KIV_ATTR(Kiv::Time, refreshTime, std::chrono::seconds(20))
  /// The longest pause between two questions.
  KIV_ATTR(Kiv::Time, longestBackOff, std::chrono::seconds(60))
  KIV_ATTR_READ(U32, resolvedCount, 0)  ///< Next hops that became known.
  KIV_ATTR_READ(U64, askedCount, 0)     ///< Questions asked.
  KIV_ATTR_READ(U64, lostCount, 0)      ///< Next hops that were known and then lost.
  KIV_ATTR_DERIVED(std::size_t, nextHops)

  ~NeighborResolver() override;

  /// Registers a next hop, once however often it is asked for.
  Kiv::Ptr<NextHop> nextHop(const NeighborKey& key);
  std::size_t nextHops() const noexcept { return hops_.size(); }  ///< How many next hops are wanted.

 protected:
  explicit NeighborResolver(Kiv::String name);

  /// To be asked now. `alone`: the next hop's MAC address is known, and it need not be the last question.
  struct Question {
    NeighborKey key;
    EthAddr mac;  ///< The Ethernet address to ask alone, where `alone` is set.
    bool alone;   ///< Whether one neighbour is asked, and not all.
  };
  virtual void ask(const std::vector<Question>& questions) = 0;
  /// A next hop came; by default it is asked for at once.
  virtual void registered(const NeighborKey& key) { askSoon(key); }
  virtual void dropped(const NeighborKey&) {}

  NextHop* find(const NeighborKey& key) const;  ///< The next hop of the key; null if nobody wants it.
  void askSoon(const NeighborKey& key);         ///< Asks in a later pass.
  /// `sure`: it has just answered; else the address is from before, and is to be asked about.
  void heard(const NeighborKey& key, const EthAddr& mac, bool sure);
  void failed(const NeighborKey& key);  ///< The kernel has given up on it.
  /// Calls `visit` with the key of every next hop.
  template <typename Visit>
  void forEachKey(Visit visit) {
    std::vector<NeighborKey> keys;
    for (const auto& each : hops_) keys.push_back(each.first);
    for (const NeighborKey& key : keys) visit(key);
  }

 private:
  friend class NextHop;
  using Phase = NextHop::Phase;

  void forget(NextHop& hop) noexcept;
  void dueIs(NextHop& hop, Kiv::Time due);
  void tick();
  void fail(NextHop& hop);
  void resolvedIs(NextHop& hop, bool resolved, const EthAddr& mac);

  std::map<NeighborKey, NextHop*> hops_;
  std::set<std::pair<Kiv::Time, NextHop*>> due_;
  const Kiv::Ptr<Kiv::Clock> clock_;
  Kiv::Reactor onClock_;
};

/// Has the kernel of a network namespace ask, and follows its table of neighbours. What it adds to the table
/// is exempt from the kernel's limit on entries (NTF_EXT_LEARNED), so 10,000 next hops fit, and goes again
/// with its next hop.
class KIV_API KernelNeighborResolver final : public NeighborResolver {
 public:
  KIV_ENTITY(KernelNeighborResolver, NeighborResolver)

  /// Throws `Kiv::ErrnoException` if there is no such namespace.
  KernelNeighborResolver(Kiv::String name, const NamespaceName& ns);
  ~KernelNeighborResolver() override;

 protected:
  void ask(const std::vector<Question>& questions) override;
  void registered(const NeighborKey& key) override;
  void dropped(const NeighborKey& key) override;

 private:
  void look(const NeighborKey& key);

  KernelChanger changer_;
  const Kiv::Ptr<NeighborView> view_;
  std::set<NeighborKey> ours_;  // added by this object
  Kiv::Reactor onChange_;
  Kiv::Reactor onSync_;
};

/// Speaks ARP (RFC 826, RFC 5227) and neighbour discovery (RFC 4861) on one device itself, for devices whose
/// kernel does not. It asks, learns from answers, answers for its own addresses, and counts others who use
/// them in `conflicts`. It keeps its IPv4 address then, and announces it at most once in 10 s (RFC 5227
/// section 2.4 (c)). The next hops' `ifIndex` is that of the device; keys with another one are not asked for.
class KIV_API DeviceNeighborResolver final : public NeighborResolver {
 public:
  KIV_ENTITY(DeviceNeighborResolver, NeighborResolver)
  KIV_ATTR_READ(U32, ifIndex, 0)
  KIV_ATTR_READ(EthAddr, ownEthAddr)  ///< The Ethernet address that it asks from.
  KIV_ATTR_READ(IpAddr, ownIpAddr)    ///< The IPv4 address that it asks from.
  KIV_ATTR_READ(Ip6Addr, ownIp6Addr)  ///< The IPv6 address that it asks from.
  KIV_ATTR_READ(U32, conflicts, 0)
  KIV_ATTR_READ(U32, badPkts, 0)  ///< Answers that were malformed.

  /// An own address of zeros means that there is none of the family: ARP is spoken without a sender then
  /// (RFC 5227), ND not at all. Throws `Kiv::ErrnoException` as `EthDevPam` does.
  DeviceNeighborResolver(Kiv::String name, const Kiv::String& device, const NamespaceName& ns,
                         IpAddr ownIpAddr, const Ip6Addr& ownIp6Addr);
  ~DeviceNeighborResolver() override;

 protected:
  void ask(const std::vector<Question>& questions) override;

 private:
  void askByArp(const Question& question);
  void askByNd(const Question& question);
  void takeArp(const Pkt::Ptr& pkt);
  void takeNd(const Pkt::Ptr& pkt);
  void learn(const IpGenAddr& address, const EthAddr& mac, bool sure);
  void sendArp(U16 operation, const EthAddr& to, const EthAddr& targetMac, IpAddr targetIp);

  const Kiv::Ptr<EthDevPam> arp_;
  const Kiv::Ptr<EthDevPam> nd_;
  std::optional<Kiv::Time> defended_;
  Kiv::Reactor onArp_;
  Kiv::Reactor onNd_;
};

}  // namespace Wirl
