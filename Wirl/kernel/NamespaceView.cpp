// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/NamespaceView.h"

#include <dirent.h>
#include <linux/net_namespace.h>
#include <linux/rtnetlink.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <utility>

#include "Kiv/Exception.h"
#include "Nimbo/Nimbo.h"
#include "Wirl/kernel/detail/Attrs.h"
#include "Wirl/kernel/detail/Exchange.h"

namespace Wirl {

namespace {

using namespace std::chrono_literals;

constexpr const char* kParent = "/run";
constexpr const char* kFolder = "/run/netns";
constexpr long kNamespaceFiles = 0x6e736673;  // NSFS_MAGIC
constexpr int kTries = 12;                    // 1 ms, 2 ms, ... 4 s

thread_local NamespaceView* shared = nullptr;

L3::VrfName vrfOf(std::string_view name) {
  constexpr std::string_view prefix = L3::VrfName::nsPrefix;
  if (name.substr(0, prefix.size()) != prefix) return {};
  return L3::VrfName::fromText(name.substr(prefix.size())).value_or(L3::VrfName());
}

}  // namespace

std::ostream& operator<<(std::ostream& out, ChangeKind kind) {
  constexpr const char* kTexts[] = {"added", "changed", "removed"};
  return out << kTexts[static_cast<unsigned>(kind)];
}

KernelNamespace::KernelNamespace(const NamespaceName& name, U64 inode)
    : Entity(Kiv::String(name.stringValue())),
      vrfName(vrfOf(std::string(name.stringValue()))),
      nsName_(name),
      inode_(inode) {}

/// Hears of new numbers of namespaces.
class NamespaceView::NsidListener final : public NetlinkClient {
 public:
  explicit NsidListener(NamespaceView& view) : NetlinkClient("nsid", NETLINK_ROUTE, {}), view_(view) {
    groupsIs(1u << (RTNLGRP_NSID - 1));
  }

 private:
  void event(const nlmsghdr&) override { heard_ = true; }
  void overrun() override { heard_ = true; }
  void passEnded() override {
    if (std::exchange(heard_, false)) view_.scan();
  }

  NamespaceView& view_;
  bool heard_ = false;
};

NamespaceView::NamespaceView(Kiv::String name)
    : Entity(std::move(name)),
      inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      descriptor_(Kiv::makePtr<Kiv::FileDescriptor>("namespaces")),
      again_(Kiv::makePtr<Kiv::Clock>("namespaces")) {
  if (inotify_ < 0) throw Kiv::ErrnoException(errno, "inotify_init1");
  try {
    descriptor_->descriptorIs(inotify_);
    onEvent_ = Kiv::Reactor(descriptor_->readableCount, [this] { readEvents(); });
    onAgain_ = Kiv::Reactor(again_->expiredCount, [this] { scan(); });
    numbers_ = Kiv::makePtr<NsidListener>(*this);
    numbers_->enabledIs(true);
    asker_ = netlinkPamFactory("nsid", NETLINK_ROUTE, {});
    asker_->enabledIs(true);
    inotify_add_watch(inotify_, kParent, IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    watch();
    scan();
  } catch (...) {
    descriptor_->descriptorIs(-1);
    close(inotify_);
    throw;
  }
}

NamespaceView::~NamespaceView() {
  if (shared == this) shared = nullptr;
  descriptor_->descriptorIs(-1);
  close(inotify_);
}

Kiv::Ptr<NamespaceView> NamespaceView::ofLoop() {
  if (shared) return Kiv::Ptr<NamespaceView>(shared);
  auto made = Kiv::makePtr<NamespaceView>("namespaces");
  shared = made.get();
  return made;
}

Kiv::Ptr<KernelNamespace> NamespaceView::find(std::string_view name) const {
  const auto found = namespaces_.find(name);
  return found == namespaces_.end() ? nullptr : found->second;
}

/// The folder is there only once the first namespace was made.
void NamespaceView::watch() {
  folderWatch_ = inotify_add_watch(
      inotify_, kFolder, IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB | IN_ONLYDIR);
}

void NamespaceView::readEvents() {
  alignas(inotify_event) char events[4096];
  while (read(inotify_, events, sizeof(events)) > 0) {
  }
  watch();
  tries_ = 0;
  scan();
}

/// A name is made first, and the namespace is mounted on it afterwards, which no event tells: names without
/// one are looked at again.
void NamespaceView::scan() {
  std::map<std::string, U64, std::less<>> found;
  bool incomplete = false;
  if (const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(kFolder), closedir); folder) {
    while (const dirent* const each = readdir(folder.get())) {
      const std::string name = each->d_name;
      if (name[0] == '.' || name.size() > NamespaceName::maxLength) continue;
      const std::string path = std::string(kFolder) + "/" + name;
      struct statfs system;
      struct stat file;
      if (statfs(path.c_str(), &system) != 0 || stat(path.c_str(), &file) != 0) continue;
      if (system.f_type == kNamespaceFiles) {
        found.emplace(name, file.st_ino);
      } else {
        incomplete = true;
      }
    }
  }
  if (incomplete && tries_ < kTries) {
    again_->timeMinIs(Kiv::activityLoop().now() + 1ms * (1 << tries_++));
  }

  std::vector<Change> changes;
  for (auto each = namespaces_.begin(); each != namespaces_.end();) {
    const auto same = found.find(each->first);
    if (same != found.end() && same->second == each->second->inode_) {
      ++each;
      continue;
    }
    changes.push_back({ChangeKind::removed, each->second});
    each = namespaces_.erase(each);
  }
  for (const auto& [name, inode] : found) {
    if (namespaces_.count(name) != 0) continue;
    const auto made = Kiv::makePtr<KernelNamespace>(NamespaceName(name), inode);
    namespaces_.emplace(name, made);
    changes.push_back({ChangeKind::added, made});
  }
  const auto alive = Kiv::keepAlive(this);
  std::vector<Kiv::Ptr<KernelNamespace>> renumbered;
  for (const auto& [name, entity] : namespaces_) {
    const S32 number = numberOf(entity->nsName());
    if (!entity->storeAttr(entity->nsid, number)) continue;
    renumbered.push_back(entity);
    const bool isNew = std::any_of(changes.begin(), changes.end(),
                                   [&, e = entity](const Change& change) { return change.entity == e; });
    if (!isNew) changes.push_back({ChangeKind::changed, entity});
  }
  if (changes.empty()) return;
  changes_ = std::move(changes);
  changeCount.store(changeCount() + 1);
  for (const auto& each : renumbered) each->nsid.notifiees().notify();
  changeCount.notifiees().notify();
}

S32 NamespaceView::numberOf(const NamespaceName& name) {
  const int descriptor = Nimbo::netnsOpen(std::string(name.stringValue()).c_str());
  if (descriptor < 0) return -1;
  detail::Request request(RTM_GETNSID, 0, rtgenmsg{AF_UNSPEC});
  request.put(NETNSA_FD, static_cast<U32>(descriptor));
  const std::string question = request.text();
  S32 number = -1;
  detail::exchange(*asker_, sequence_, {&question, 1}, [&](const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWNSID) return;
    for (const detail::Attr attr : detail::Attrs(message, sizeof(rtgenmsg))) {
      if (attr.type() == NETNSA_NSID) number = attr.as<S32>();
    }
  });
  close(descriptor);
  return number;
}

}  // namespace Wirl
