// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/NextHopView.h"

#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include "Wirl/kernel/detail/Attrs.h"
#include "Wirl/kernel/detail/LinkStates.h"
#include "Wirl/kernel/detail/Messages.h"

namespace Wirl {

NextHopObject::NextHopObject(const NextHopInfo& info)
    : KernelEntity("next hop " + std::to_string(info.id), info) {}

NextHopObject::~NextHopObject() = default;

NextHopView::NextHopView(Kiv::String name, const NamespaceName& ns)
    : EntityView(std::move(name), ns, 1u << (RTNLGRP_NEXTHOP - 1) | 1u << (RTNLGRP_LINK - 1)),
      links_(std::make_unique<detail::LinkStates>()) {}

NextHopView::~NextHopView() = default;

std::vector<std::string> NextHopView::dumpRequests() const {
  return {detail::LinkStates::dumpRequest(), detail::Request(RTM_GETNEXTHOP, NLM_F_DUMP, nhmsg{}).text()};
}

void NextHopView::dumpBegins() {
  EntityView::dumpBegins();
  links_->dumpBegins();
}

void NextHopView::take(const nlmsghdr& message, bool inDump) {
  switch (message.nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return links_->take(message, inDump);
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP: {
      NextHopInfo info;
      if (!detail::parse(message, info, unused_)) {
        ++bad_;
        return;
      }
      const U32 id = info.id;
      if (message.nlmsg_type == RTM_DELNEXTHOP) return drop(id);
      return put(id, std::move(info), inDump);
    }
    default:
      return;
  }
}

void NextHopView::dumpEnds() {
  EntityView::dumpEnds();
  links_->dumpEnds();
}

void NextHopView::forgetAll() {
  EntityView::forgetAll();
  links_->clear();
}

void NextHopView::passEnds() {
  bool suspicious = false;
  if (!links_->suspects.empty()) {
    forEachKnown([&](U32, const NextHopInfo& info) {
      suspicious = suspicious || links_->suspects.count(info.hop.ifIndex) != 0;
    });
  }
  links_->suspects.clear();
  if (suspicious) outOfSync();
}

Kiv::Ptr<NextHopView> nextHopViewFactory(Kiv::String name, const NamespaceName& netNs) {
  return Kiv::makePtr<NextHopView>(std::move(name), netNs);
}

}  // namespace Wirl
