// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/AddressView.h"

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include "Wirl/kernel/detail/Attrs.h"
#include "Wirl/kernel/detail/Messages.h"

namespace Wirl {

Address::Address(const AddressInfo& info)
    : KernelEntity("address " + std::string(info.key.local.stringValue()), info) {
  Telling nobody;
  putAttrs(nobody);
}

Address::~Address() = default;

void Address::putAttrs(Telling& telling) {
  putAttr(telling, flags, info().flags);
  putAttr(telling, tentative, (info().flags & IFA_F_TENTATIVE) != 0);
  putAttr(telling, duplicate, (info().flags & IFA_F_DADFAILED) != 0);
  putAttr(telling, deprecated, (info().flags & IFA_F_DEPRECATED) != 0);
}

AddressView::AddressView(Kiv::String name, const NamespaceName& ns)
    : EntityView(std::move(name), ns, 1u << (RTNLGRP_IPV4_IFADDR - 1) | 1u << (RTNLGRP_IPV6_IFADDR - 1)) {}

AddressView::~AddressView() = default;

Kiv::Ptr<Address> AddressView::findLocal(const IpGenAddr& address) const {
  for (const auto& [key, entity] : all()) {
    if (key.local.ipGenAddr() == address) return entity;
  }
  return nullptr;
}

std::vector<std::string> AddressView::dumpRequests() const {
  std::vector<std::string> requests;
  for (const int family : {AF_INET, AF_INET6}) {
    ifaddrmsg which{};
    which.ifa_family = static_cast<U8>(family);
    requests.push_back(detail::Request(RTM_GETADDR, NLM_F_DUMP, which).text());
  }
  return requests;
}

void AddressView::take(const nlmsghdr& message, bool inDump) {
  if (message.nlmsg_type != RTM_NEWADDR && message.nlmsg_type != RTM_DELADDR) return;
  AddressInfo address;
  if (!detail::parse(message, address, unused_)) {
    ++bad_;
    return;
  }
  const AddressKey key = address.key;
  if (message.nlmsg_type == RTM_DELADDR) return drop(key);
  put(key, std::move(address), inDump);
}

Kiv::Ptr<AddressView> addressViewFactory(Kiv::String name, const NamespaceName& netNs) {
  return Kiv::makePtr<AddressView>(std::move(name), netNs);
}

}  // namespace Wirl
