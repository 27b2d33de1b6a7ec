// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/KernelView.h"

#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "Kiv/Exception.h"

namespace Wirl {

namespace {

using namespace std::chrono_literals;

constexpr Kiv::Time kAfterFailure = 1s;
constexpr Kiv::Time kLongestWait = 5s;

}  // namespace

/// The view's ear. Outlives the view's interest in it for as long as it is at work.
class KernelView::Client final : public NetlinkClient {
 public:
  Client(KernelView& view, const NamespaceName& ns)
      : NetlinkClient(view.name(), NETLINK_ROUTE, ns), view_(&view) {}
  void leave() {
    view_ = nullptr;
    enabledIs(false);
  }

 private:
  void event(const nlmsghdr& message) override {
    if (view_) view_->take(message, false);
  }
  void overrun() override {
    if (view_) view_->outOfSync();
  }
  void passEnded() override {
    if (view_) view_->passEnded();
  }

  KernelView* view_;
};

KernelView::KernelView(Kiv::String name, const NamespaceName& ns, U32 groups)
    : Entity(std::move(name)), netNs(ns), groups_(groups), wait_(Kiv::makePtr<Kiv::Clock>("dump")) {
  onWait_ = Kiv::Reactor(wait_->expiredCount, [this] {
    if (client_ || !namespaces_) return nextDump();
    follow();
  });
}

KernelView::~KernelView() {
  if (client_) client_->leave();
}

void KernelView::enabledIs(bool on) {
  if (on == enabled()) return;
  const auto alive = Kiv::keepAlive(this);
  if (!on) {
    onNamespaces_.drop();
    namespaces_ = nullptr;
    enabled.set(false);
    close();
    return;
  }
  const std::string name(netNs().stringValue());
  if (!name.empty() && name != "default") {
    namespaces_ = NamespaceView::ofLoop();
    onNamespaces_ = Kiv::Reactor(namespaces_->changeCount, [this] { follow(); });
    opened_ = namespaces_->find(name);
    if (!opened_) return enabled.set(true);
  }
  try {
    open();
  } catch (...) {
    onNamespaces_.drop();
    namespaces_ = nullptr;
    opened_ = nullptr;
    throw;
  }
  enabled.set(true);
}

/// The namespace of the name may be another one, or none.
void KernelView::follow() {
  const auto alive = Kiv::keepAlive(this);
  const auto now = namespaces_->find(std::string(netNs().stringValue()));
  if (now == opened_) return;
  close();
  opened_ = now;
  if (!now || !enabled()) return;
  try {
    open();
  } catch (const Kiv::ErrnoException& failure) {
    // Gone again, which will be told, or there is a lack of something, which may pass.
    opened_ = nullptr;
    wait_->timeMinIs(Kiv::activityLoop().now() + kAfterFailure);
    lastError.set(failure.error());
  }
}

void KernelView::open() {
  const auto made = Kiv::makePtr<Client>(*this, netNs());
  made->groupsIs(groups_);
  made->rxBufIs(rxBuf());
  made->enabledIs(true);
  client_ = made;
  took_ = Kiv::Time(0);
  again_ = false;
  nextDump();
  present.set(true);
}

void KernelView::close() {
  wait_->timeMinIs(Kiv::timeInfinite);
  opened_ = nullptr;
  dumping_ = again_ = synced_ = false;
  if (!client_) return;
  overruns_ += client_->rxOverruns();
  const auto closing = std::exchange(client_, nullptr);
  closing->leave();
  forgetAll();
  Change change(this);
  change.put(inSync, false);
  change.put(present, false);
  change.run([&] { showChanges(); });
  change.tell();
}

U32 KernelView::rxOverruns() const noexcept {
  return overruns_ + (client_ ? client_->rxOverruns() : 0);
}

void KernelView::resync() {
  if (client_) outOfSync();
}

void KernelView::outOfSync() {
  const auto alive = Kiv::keepAlive(this);
  again_ = true;
  synced_ = false;
  if (dumping_ || !client_) return;
  const Kiv::Time now = Kiv::activityLoop().now();
  const Kiv::Time next = std::max(now, ended_ + std::min(took_, kLongestWait));
  if (wait_->timeMin() > next) wait_->timeMinIs(next);
  inSync.set(false);
}

void KernelView::nextDump() {
  const auto alive = Kiv::keepAlive(this);
  if (dumping_ || !client_) return;
  wait_->timeMinIs(Kiv::timeInfinite);
  dumping_ = true;
  again_ = failed_ = synced_ = false;
  began_ = Kiv::activityLoop().now();
  dumps.set(dumps() + 1);
  if (!client_) return;
  dumpBegins();
  const std::vector<std::string> requests = dumpRequests();
  parts_ = requests.size();
  partsDone_ = 0;
  const auto client = client_;  // a send may fail and answer at once
  for (const std::string& request : requests) {
    client->request(
        request, [this](const nlmsghdr& message) { take(message, true); },
        [this](const NetlinkClient::Answer& answer) { dumpEnded(answer); });
  }
}

void KernelView::dumpEnded(const NetlinkClient::Answer& answer) {
  const auto alive = Kiv::keepAlive(this);
  if (answer.interrupted) again_ = true;
  // Old kernels, and those made without IPv6, do not have everything.
  const bool lacks = answer.error == EOPNOTSUPP || answer.error == EAFNOSUPPORT;
  if (lacks) dumpLacks(partsDone_);
  if (answer.error != 0 && !lacks) {
    again_ = failed_ = true;
    lastError.set(answer.error);
  }
  if (!client_ || ++partsDone_ < parts_) return;
  ended_ = Kiv::activityLoop().now();
  took_ = std::max(failed_ ? kAfterFailure : Kiv::Time(0), ended_ - began_);
  if (!again_) dumpEnds();
  dumping_ = false;
  if (again_) return outOfSync();
  synced_ = true;
  handleRefreshTime();
}

void KernelView::handleRefreshTime() {
  if (dumping_ || again_ || !client_) return;
  wait_->timeMinIs(refreshTime() == Kiv::timeInfinite ? Kiv::timeInfinite : ended_ + refreshTime());
}

void KernelView::passEnded() {
  const auto alive = Kiv::keepAlive(this);
  const auto client = client_;
  passEnds();
  if (client_ != client) return;
  showChanges();
  if (client_ == client && synced_) inSync.set(true);
}

void KernelView::ask(std::string_view request) {
  if (!client_) return;
  client_->request(request, [this](const nlmsghdr& message) { take(message, false); }, {});
}

}  // namespace Wirl
