// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/detail/LinkStates.h"

#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <utility>

#include "Wirl/kernel/detail/Attrs.h"
#include "Wirl/kernel/detail/Messages.h"

namespace Wirl::detail {

std::string LinkStates::dumpRequest() {
  constexpr U32 kSkipStats = 1 << 3;  // RTEXT_FILTER_SKIP_STATS, which older headers lack
  Request request(RTM_GETLINK, NLM_F_DUMP, ifinfomsg{});
  request.put(IFLA_EXT_MASK, kSkipStats);
  return request.text();
}

void LinkStates::dumpBegins() {
  inDump_.clear();
  happened_.clear();
  dumping_ = true;
}

void LinkStates::dumpEnds() {
  std::erase_if(links_, [this](const auto& each) {
    return inDump_.count(each.first) == 0 && happened_.count(each.first) == 0;
  });
  dumping_ = false;
}

void LinkStates::clear() {
  links_.clear();
  suspects.clear();
  dumping_ = false;
}

void LinkStates::take(const nlmsghdr& message, bool inDump) {
  const auto* const fixed = fixedOf<ifinfomsg>(message);
  if (!fixed || fixed->ifi_family != AF_UNSPEC) return;
  const auto index = static_cast<U32>(fixed->ifi_index);
  if (dumping_) (inDump ? inDump_ : happened_).insert(index);
  if (inDump && happened_.count(index) != 0) return;
  if (message.nlmsg_type == RTM_DELLINK) {
    links_.erase(index);
    suspects.insert(index);
    return;
  }
  LinkInfo link;
  U64 unused = 0;
  if (message.nlmsg_type != RTM_NEWLINK || !parse(message, link, unused)) return;
  const U32 flags = link.flags & (IFF_UP | IFF_RUNNING | IFF_LOWER_UP);
  // The kernel follows a carrier that is lost later than the flags show it, and tells of the same flags then.
  const bool isLost = (flags & IFF_UP) != 0 && flags != (IFF_UP | IFF_RUNNING | IFF_LOWER_UP);
  const auto found = links_.find(index);
  const bool isNews =
      isLost || found == links_.end() || found->second.flags != flags || found->second.mtu != link.mtu;
  if (!inDump && isNews) suspects.insert(index);
  links_[index] = {std::move(link.name), flags, link.mtu, link.group, link.master, link.vrfTable};
}

const LinkStates::State* LinkStates::find(U32 ifIndex) const {
  const auto found = links_.find(ifIndex);
  return found == links_.end() ? nullptr : &found->second;
}

U32 LinkStates::indexOf(const std::string& name) const {
  for (const auto& [index, link] : links_) {
    if (link.name == name) return index;
  }
  return 0;
}

U32 LinkStates::vrfTableOf(U32 ifIndex) const {
  // A port of a VRF shows the VRF's table as well.
  const State* const link = find(ifIndex);
  return link ? link->vrfTable : 0;
}

}  // namespace Wirl::detail
