// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/LinkView.h"

#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <algorithm>

#include "Wirl/kernel/detail/Attrs.h"
#include "Wirl/kernel/detail/Messages.h"

namespace Wirl {

std::ostream& operator<<(std::ostream& out, OperState state) {
  constexpr const char* kTexts[] = {"unknown", "notPresent", "down", "lowerLayerDown",
                                    "testing", "dormant",    "up"};
  const auto number = static_cast<unsigned>(state);
  if (number < std::size(kTexts)) return out << kTexts[number];
  return out << number;
}

EthAddr LinkInfo::ethAddr() const noexcept {
  EthAddr mac;
  if (address.size() == 6) mac.copyFromBuffer(reinterpret_cast<const unsigned char*>(address.data()));
  return mac;
}

Link::Link(const LinkInfo& info) : KernelEntity("link " + info.name, info) {
  Telling nobody;
  putAttrs(nobody);
}

Link::~Link() = default;

void Link::putAttrs(Telling& telling) {
  putAttr(telling, ifName, Kiv::String(info().name));
  putAttr(telling, up, (info().flags & IFF_UP) != 0);
  putAttr(telling, operState, info().operState);
  putAttr(telling, mtu, info().mtu);
  putAttr(telling, ethAddr, info().ethAddr());
  putAttr(telling, master, info().master);
}

LinkView::LinkView(Kiv::String name, const NamespaceName& ns)
    : EntityView(std::move(name), ns, 1u << (RTNLGRP_LINK - 1)) {}

LinkView::~LinkView() = default;

Kiv::Ptr<Link> LinkView::findByName(std::string_view name) const {
  for (const auto& [index, link] : all()) {
    const auto& others = link->info().altNames;
    if (link->info().name == name || std::find(others.begin(), others.end(), name) != others.end())
      return link;
  }
  return nullptr;
}

Kiv::Ptr<Link> LinkView::vrfOf(const Link& link) const {
  auto master = link.info().master != 0 ? find(link.info().master) : nullptr;
  return master && master->info().kind == "vrf" ? master : nullptr;
}

std::vector<std::string> LinkView::dumpRequests() const {
  detail::Request request(RTM_GETLINK, NLM_F_DUMP, ifinfomsg{});
  return {request.text()};
}

void LinkView::take(const nlmsghdr& message, bool inDump) {
  const auto* const fixed = detail::fixedOf<ifinfomsg>(message);
  if (!fixed) {
    ++bad_;
    return;
  }
  // Bridges tell of their ports by messages of their own family, which have less.
  if (fixed->ifi_family != AF_UNSPEC || fixed->ifi_index <= 0) return;
  if (message.nlmsg_type == RTM_DELLINK) {
    const LinkInfo* const was = known(static_cast<U32>(fixed->ifi_index));
    refreshPeers(static_cast<U32>(fixed->ifi_index), was ? was->lower : std::nullopt);
    return drop(static_cast<U32>(fixed->ifi_index));
  }
  if (message.nlmsg_type != RTM_NEWLINK) return;
  // Nor has what wireless drivers tell of themselves more than the name.
  for (const detail::Attr attr : detail::Attrs(message, sizeof(ifinfomsg))) {
    if (attr.type() == IFLA_WIRELESS) return;
  }
  LinkInfo link;
  if (!detail::parse(message, link, unused_)) {
    ++bad_;
    return;
  }
  const U32 index = link.ifIndex;
  if (!inDump && !known(index)) refreshPeers(index, link.lower);
  put(index, std::move(link), inDump);
}

/// A link that comes from another namespace, or leaves for one, changes how the kernel shows its peer, which
/// it does not tell.
void LinkView::refreshPeers(U32 ifIndex, std::optional<U32> lower) {
  if (lower && *lower != 0) refresh_.insert(*lower);
  forEachKnown([&](U32 index, const LinkInfo& link) {
    if (link.lower == ifIndex) refresh_.insert(index);
  });
}

void LinkView::passEnds() {
  for (const U32 index : refresh_) {
    if (!known(index)) continue;
    ifinfomsg which{};
    which.ifi_index = static_cast<int>(index);
    detail::Request request(RTM_GETLINK, 0, which);
    ask(request.octets());
  }
  refresh_.clear();
}

Kiv::Ptr<LinkView> linkViewFactory(Kiv::String name, const NamespaceName& netNs) {
  return Kiv::makePtr<LinkView>(std::move(name), netNs);
}

}  // namespace Wirl
