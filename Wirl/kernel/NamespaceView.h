// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "Kiv/Clock.h"
#include "Wirl/kernel/NetlinkClient.h"
#include "Wirl/value/VrfName.h"

namespace Wirl {

/// What happened to a member of a view since it was last told of.
enum class ChangeKind : U8 { added, changed, removed };
KIV_API std::ostream& operator<<(std::ostream& out, ChangeKind kind);

/// A named network namespace. Its name is what stands under /run/netns; one that is removed and made again is
/// another entity.
class KIV_API KernelNamespace final : public Kiv::Entity {
 public:
  KIV_ENTITY(KernelNamespace, Kiv::Entity)
  /// The VRF that lives in it; empty for a namespace that belongs to none.
  KIV_ATTR_READ(L3::VrfName, vrfName)
  /// By what number the own namespace knows it, as links name the namespace of their peer; -1: by none.
  KIV_ATTR_READ(S32, nsid, -1)

  /// One of that name; `inode` tells it from an earlier one of the name.
  KernelNamespace(const NamespaceName& name, U64 inode);
  /// For a Pam.
  const NamespaceName& nsName() const noexcept { return nsName_; }

 private:
  friend class NamespaceView;
  const NamespaceName nsName_;
  const U64 inode_;
};

/// The named network namespaces of the machine, those that stand under /run/netns, as they come and go. Knows
/// them all from the start.
///
///     const auto view = Wirl::NamespaceView::ofLoop();
///     Kiv::Reactor onChange(view->changeCount, [&] {
///       for (const auto& change : view->changes()) {
///         if (change.kind == Wirl::ChangeKind::added) open(change.entity->nsName());
///       }
///     });
///
/// `changeCount` goes up once in a pass of the loop in which namespaces came or went, or got a number.
class KIV_API NamespaceView final : public Kiv::Entity {
 public:
  KIV_ENTITY(NamespaceView, Kiv::Entity)
  KIV_ATTR_READ(U64, changeCount, 0)

  /// A namespace that came or went.
  struct Change {
    ChangeKind kind;
    Kiv::Ptr<KernelNamespace> entity;  ///< The namespace.
  };
  /// The namespaces by their names.
  using Namespaces = std::map<std::string, Kiv::Ptr<KernelNamespace>, std::less<>>;

  /// Throws `Kiv::ErrnoException` "inotify_init1".
  explicit NamespaceView(Kiv::String name);
  ~NamespaceView() override;
  /// The one that the views of the calling thread share.
  static Kiv::Ptr<NamespaceView> ofLoop();

  /// By name.
  const Namespaces& namespaces() const noexcept { return namespaces_; }
  /// Null if there is none of the name.
  Kiv::Ptr<KernelNamespace> find(std::string_view name) const;
  /// What the latest count of `changeCount` stands for.
  const std::vector<Change>& changes() const noexcept { return changes_; }

 private:
  class NsidListener;

  void watch();
  void readEvents();
  void scan();
  S32 numberOf(const NamespaceName& name);

  const int inotify_;
  int folderWatch_ = -1;
  Namespaces namespaces_;
  std::vector<Change> changes_;
  Kiv::Ptr<NsidListener> numbers_;
  Kiv::Ptr<NetlinkPam> asker_;  // of numbers; apart from the listener, whose queue it does not disturb
  U32 sequence_ = 0;
  int tries_ = 0;
  const Kiv::Ptr<Kiv::FileDescriptor> descriptor_;
  const Kiv::Ptr<Kiv::Clock> again_;
  Kiv::Reactor onEvent_;
  Kiv::Reactor onAgain_;
};

}  // namespace Wirl
