// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Wirl/kernel/NamespaceView.h"

namespace Wirl {

/// What all views of the kernel's state have in common: they load the state of a network namespace and follow
/// it.
///
///     enabledIs(true) ──> present ──> dump ──> inSync ──> what the kernel tells, pass by pass
///                                      ^          │
///                                      └──────────┘ something was missed, or changed without being told
///
/// A view belongs to the name of a namespace ("default" and the empty name: the own one). It waits for the
/// namespace while there is none of that name, goes empty when the name goes, and loads the new one when the
/// name comes back; `present` says so.
///
/// `inSync` is true when the view holds what the kernel has. It is false during the first dump, and from when
/// something was missed (no room in the socket) until a new dump is through; what is known is shown
/// meanwhile. Dumps that were interrupted by changes are repeated. The kernel is left alone between dumps for
/// as long as the last one took.
///
/// Members change, and reactors run, once in a pass of the loop, however much the kernel told. First all of
/// the view's state is stored; then reactors to entities are told, then those to `changeCount`, which find
/// what changed in `changes()`, then those to `inSync`.
///
/// With a `refreshTime` the state is dumped anew that long after each dump, for what the kernel does not
/// tell; the view stays in sync meanwhile.
///
/// Attributes of messages that the view does not use count in `unusedAttrs`, messages that it cannot read in
/// `badMessages`.
class KIV_API KernelView : public Kiv::Entity {
 public:
  KIV_ENTITY(KernelView, Kiv::Entity)
  KIV_ATTR_READ(NamespaceName, netNs)
  KIV_ATTR(U32, rxBuf, 4u << 20)
  KIV_ATTR_HOOK(Kiv::Time, refreshTime, Kiv::timeInfinite, handleRefreshTime)
  KIV_ATTR_READ(bool, enabled, false)  ///< Whether it follows the kernel.
  KIV_ATTR_READ(bool, present, false)
  KIV_ATTR_READ(bool, inSync, false)
  KIV_ATTR_READ(U64, changeCount, 0)
  KIV_ATTR_READ(U32, dumps, 0)
  KIV_ATTR_READ(S32, lastError, 0)  ///< The errno of the last failure; 0: none.
  KIV_ATTR_DERIVED(U32, rxOverruns)
  KIV_ATTR_DERIVED(U64, unusedAttrs)
  KIV_ATTR_DERIVED(U32, badMessages)

  ~KernelView() override;

  /// Starts or stops following; stopped, the view is empty. Throws `Kiv::ErrnoException` if the socket cannot
  /// be opened; a namespace that is not there is no error. `rxBuf`, the socket's room in octets, applies from
  /// the next opening on.
  void enabledIs(bool on);
  /// Loads everything anew, as after a loss; for what the kernel does not tell of, statistics for example.
  void resync();

  U32 rxOverruns() const noexcept;
  U64 unusedAttrs() const noexcept { return unused_; }
  U32 badMessages() const noexcept { return bad_; }

 protected:
  /// `groups` are those of `NetlinkPam`.
  KernelView(Kiv::String name, const NamespaceName& ns, U32 groups);

  /// The requests that dump the state, one after the other.
  virtual std::vector<std::string> dumpRequests() const = 0;
  virtual void dumpBegins() = 0;
  /// The kernel does not have what the request of this number is for.
  virtual void dumpLacks(std::size_t) {}
  /// `inDump`: part of the dump, as against something that just happened. What happened during a dump is
  /// newer than what the dump says of it.
  virtual void take(const nlmsghdr& message, bool inDump) = 0;
  /// The dump is whole: what it did not show is no more.
  virtual void dumpEnds() = 0;
  /// Everything goes.
  virtual void forgetAll() = 0;
  /// Shows what the pass changed and tells reactors of it.
  virtual void showChanges() = 0;
  /// Every pass ends so.
  virtual void passEnds() {}

  bool dumping() const noexcept { return dumping_; }  ///< Whether a dump is in progress.
  /// Something may have changed without being told.
  void outOfSync();
  /// Asks the kernel something; an answer comes as if it had just happened.
  void ask(std::string_view request);
  /// Counts a change without telling of it.
  void countChange() { changeCount.store(changeCount() + 1); }
  U64 unused_ = 0;  // attributes
  U32 bad_ = 0;     // messages

 private:
  class Client;

  void handleRefreshTime();
  void follow();
  void open();
  void close();
  void nextDump();
  void dumpEnded(const NetlinkClient::Answer& answer);
  void passEnded();

  const U32 groups_;
  Kiv::Ptr<NamespaceView> namespaces_;
  Kiv::Ptr<KernelNamespace> opened_;
  Kiv::Ptr<Client> client_;
  U32 overruns_ = 0;
  bool dumping_ = false;
  bool again_ = false;     // this dump is not good enough
  bool failed_ = false;    // a part of it was refused
  bool synced_ = false;    // to be told at the end of the pass
  std::size_t parts_ = 0;  // of the dump
  std::size_t partsDone_ = 0;
  Kiv::Time began_{};
  Kiv::Time ended_{};
  Kiv::Time took_{};
  const Kiv::Ptr<Kiv::Clock> wait_;
  Kiv::Reactor onNamespaces_;
  Kiv::Reactor onWait_;
};

/// A view whose members are entities, each of type `E` and known by its `E::Key`; `E::Info` is all that is
/// known of one.
template <typename E>
class EntityView : public KernelView {
 public:
  using Key = typename E::Key;
  using Info = typename E::Info;
  /// A change of one entity.
  struct Change {
    ChangeKind kind;
    Kiv::Ptr<E> entity;  ///< removed ones show what they were
    Info before;         ///< of a changed one
  };

  /// All members, in the order of their keys.
  const std::map<Key, Kiv::Ptr<E>>& all() const noexcept { return members_; }
  /// Null if there is none.
  Kiv::Ptr<E> find(const Key& key) const {
    const auto found = members_.find(key);
    return found == members_.end() ? nullptr : found->second;
  }
  /// What the latest count of `changeCount` stands for. An entity stands in it once.
  const std::vector<Change>& changes() const noexcept { return changes_; }

 protected:
  using KernelView::KernelView;

  /// What the view knows of a member, told or not; null for none.
  const Info* known(const Key& key) const {
    const auto waiting = waiting_.find(key);
    if (waiting != waiting_.end()) return waiting->second.there ? &waiting->second.info : nullptr;
    const auto found = members_.find(key);
    return found == members_.end() ? nullptr : &found->second->info();
  }
  /// Calls `visit(key, info)` for each member that the view knows of, told or not.
  template <typename Visit>
  void forEachKnown(Visit visit) const {
    for (const auto& [key, news] : waiting_) {
      if (news.there) visit(key, news.info);
    }
    for (const auto& [key, entity] : members_) {
      if (waiting_.count(key) == 0) visit(key, entity->info());
    }
  }
  /// Takes over what the kernel says of one.
  void put(const Key& key, Info info, bool inDump) {
    if (!counts(key, inDump)) return;
    waiting_.insert_or_assign(key, Waiting{true, std::move(info)});
  }
  /// Drops one that the kernel has deleted.
  void drop(const Key& key) {
    if (counts(key, false)) waiting_.insert_or_assign(key, Waiting{false, Info()});
  }

  void dumpBegins() override {
    inDump_.clear();
    happened_.clear();
  }
  void dumpEnds() override {
    for (const auto& [key, entity] : members_) {
      if (inDump_.count(key) == 0 && happened_.count(key) == 0) waiting_.try_emplace(key);
    }
    dumpBegins();
  }
  void forgetAll() override {
    dumpBegins();
    waiting_.clear();
    for (const auto& [key, entity] : members_) waiting_.try_emplace(key);
  }
  void showChanges() override {
    if (waiting_.empty()) return;
    std::map<Key, Waiting> waiting;
    waiting.swap(waiting_);
    std::vector<Change> changes;
    std::vector<typename E::Telling> tellings(waiting.size());
    std::size_t told = 0;
    for (auto& [key, news] : waiting) {
      const auto found = members_.find(key);
      if (found == members_.end()) {
        if (!news.there) continue;
        auto made = Kiv::makePtr<E>(news.info);
        members_.emplace(key, made);
        changes.push_back({ChangeKind::added, std::move(made), Info()});
      } else if (!news.there) {
        changes.push_back({ChangeKind::removed, found->second, Info()});
        found->second->infoIs(Info(found->second->info()), false, tellings[told++]);
        members_.erase(found);
      } else if (found->second->info() == news.info) {
        found->second->sameInfoIs(std::move(news.info));
      } else {
        changes.push_back({ChangeKind::changed, found->second, found->second->info()});
        found->second->infoIs(std::move(news.info), true, tellings[told++]);
      }
    }
    if (changes.empty()) return;
    changes_ = std::move(changes);
    this->countChange();
    Kiv::FirstFailure failure;
    for (std::size_t i = 0; i < told; ++i) failure.run([&] { tellings[i].tell(); });
    failure.run([&] { this->changeCount.notifiees().notify(); });
    failure.rethrow();
  }

 private:
  struct Waiting {
    bool there = false;
    Info info{};
  };

  /// Whether the news counts: not if it is of a dump during which something newer was told.
  bool counts(const Key& key, bool inDump) {
    if (!this->dumping()) return true;
    if (!inDump) {
      happened_.insert(key);
      return true;
    }
    inDump_.insert(key);
    return happened_.count(key) == 0;
  }

  std::map<Key, Kiv::Ptr<E>> members_;
  std::map<Key, Waiting> waiting_;  // for the end of the pass
  std::vector<Change> changes_;
  std::set<Key> inDump_;
  std::set<Key> happened_;
};

/// A member of a view: everything known of it in `info()`, and what agents watch most as attributes.
/// `changeCount` goes up once in a pass in which anything of it changed. `present` turns false when it is
/// removed; one that comes back is another entity.
template <typename InfoOf>
class KernelEntity : public Kiv::Entity {
 public:
  KIV_ENTITY(KernelEntity, Kiv::Entity)
  KIV_ATTR_READ(bool, present, true)
  KIV_ATTR_READ(U64, changeCount, 0)

  using Info = InfoOf;
  const Info& info() const noexcept { return info_; }

  /// Reactors that are to be told of an entity.
  class Telling {
   public:
    void tell() {
      for (unsigned i = 0; i < count_; ++i) noted_[i]->notify();
    }

   private:
    friend class KernelEntity;
    Kiv::Ptr<KernelEntity> entity_;
    const Kiv::NotifieeList* noted_[12];
    unsigned count_ = 0;
  };
  /// For the view alone.
  void infoIs(Info info, bool there, Telling& telling) {
    telling.entity_ = Kiv::Ptr<KernelEntity>(this);
    info_ = std::move(info);
    putAttr(telling, present, there);
    putAttrs(telling);
    putAttr(telling, changeCount, changeCount() + 1);
  }
  void sameInfoIs(Info info) { info_ = std::move(info); }  ///< Takes over what nobody is told of.

 protected:
  /// One of that name, of what the kernel says.
  explicit KernelEntity(Kiv::String name, const Info& info) : Entity(std::move(name)), info_(info) {}
  /// Stores the attributes that show parts of `info()`, by `putAttr`; at most ten.
  virtual void putAttrs(Telling& telling) = 0;
  /// Stores an attribute; `telling` tells of it.
  template <typename AnyAttr, typename Value>
  void putAttr(Telling& telling, AnyAttr& attr, const Value& value) {
    if (this->storeAttr(attr, value)) telling.noted_[telling.count_++] = &attr.notifiees();
  }

 private:
  Info info_;
};

}  // namespace Wirl
