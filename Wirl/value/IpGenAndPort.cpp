// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpGenAndPort.h"

#include <netinet/in.h>

#include <cstring>

namespace Wirl {

std::optional<sockaddr_storage> IpGenAndPort::toSockaddr(socklen_t& length) const noexcept {
  sockaddr_storage storage{};
  if (af() == AddressFamily::ipv4) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    address.sin_addr.s_addr = ip_.v4Addr().netOrder();
    std::memcpy(&storage, &address, sizeof(address));
    length = sizeof(address);
    return storage;
  }
  if (af() != AddressFamily::ipv6 || zone_.name()) return std::nullopt;
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port_);
  address.sin6_scope_id = zone_.index().value();
  ip_.copyToBuffer(address.sin6_addr.s6_addr);
  std::memcpy(&storage, &address, sizeof(address));
  length = sizeof(address);
  return storage;
}

std::optional<IpGenAndPort> IpGenAndPort::fromSockaddr(const sockaddr_storage& storage,
                                                       socklen_t length) noexcept {
  if (storage.ss_family == AF_INET && length >= sizeof(sockaddr_in)) {
    sockaddr_in address;
    std::memcpy(&address, &storage, sizeof(address));
    return IpAndPort(IpAddr::fromNetOrder(address.sin_addr.s_addr), ntohs(address.sin_port));
  }
  if (storage.ss_family == AF_INET6 && length >= sizeof(sockaddr_in6)) {
    sockaddr_in6 address;
    std::memcpy(&address, &storage, sizeof(address));
    if (address.sin6_scope_id > InterfaceIndex::max) return std::nullopt;
    Ip6Addr ip;
    ip.copyFromBuffer(address.sin6_addr.s6_addr);
    return Ip6AndPort(ip, ntohs(address.sin6_port), Ip6Zone(InterfaceIndex(address.sin6_scope_id)));
  }
  return std::nullopt;
}

}  // namespace Wirl
