// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/NeighborView.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include "Wirl/kernel/detail/Attrs.h"
#include "Wirl/kernel/detail/Messages.h"

namespace Wirl {

EthAddr NeighborInfo::ethAddr() const noexcept {
  EthAddr mac;
  if (linkAddress.size() == 6) mac.copyFromBuffer(reinterpret_cast<const unsigned char*>(linkAddress.data()));
  return mac;
}

bool NeighborInfo::isUsable() const noexcept {
  constexpr U16 kUsable = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT | NUD_NOARP;
  return (state & kUsable) != 0 && !linkAddress.empty();
}

Neighbor::Neighbor(const NeighborInfo& info)
    : KernelEntity("neighbor " + std::string(info.key.address.stringValue()), info) {
  Telling nobody;
  putAttrs(nobody);
}

Neighbor::~Neighbor() = default;

void Neighbor::putAttrs(Telling& telling) {
  putAttr(telling, state, info().state);
  putAttr(telling, ethAddr, info().ethAddr());
}

NeighborView::NeighborView(Kiv::String name, const NamespaceName& ns)
    : EntityView(std::move(name), ns, 1u << (RTNLGRP_NEIGH - 1)) {}

NeighborView::~NeighborView() = default;

std::vector<std::string> NeighborView::dumpRequests() const {
  ndmsg proxies{};
  proxies.ndm_flags = NTF_PROXY;
  return {detail::Request(RTM_GETNEIGH, NLM_F_DUMP, ndmsg{}).text(),
          detail::Request(RTM_GETNEIGH, NLM_F_DUMP, proxies).text()};
}

void NeighborView::take(const nlmsghdr& message, bool inDump) {
  if (message.nlmsg_type != RTM_NEWNEIGH && message.nlmsg_type != RTM_DELNEIGH) return;
  const auto* const fixed = detail::fixedOf<ndmsg>(message);
  // The group also hears of bridges' forwarding tables.
  if (fixed && fixed->ndm_family != AF_INET && fixed->ndm_family != AF_INET6) return;
  NeighborInfo neighbor;
  if (!detail::parse(message, neighbor, unused_)) {
    ++bad_;
    return;
  }
  const NeighborKey key = neighbor.key;
  if (message.nlmsg_type == RTM_DELNEIGH) return drop(key);
  put(key, std::move(neighbor), inDump);
}

Kiv::Ptr<NeighborView> neighborViewFactory(Kiv::String name, const NamespaceName& netNs) {
  return Kiv::makePtr<NeighborView>(std::move(name), netNs);
}

}  // namespace Wirl
