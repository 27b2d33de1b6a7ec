// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include "Kiv/Types.h"
#include "Wirl/value/IpGenAddr.h"

namespace Wirl::detail {

/// An address and a port of either family, in the form that the kernel takes and gives.
class SockAddr {
 public:
  /// Room for one that the kernel is to give.
  SockAddr() noexcept = default;
  /// `port` in host order; `scope` is the interface index that a link-local address needs.
  SockAddr(const IpGenAddr& address, Kiv::U16 port, Kiv::U32 scope) noexcept {
    if (address.af() == AddressFamily::ipv4) {
      v4_.sin_family = AF_INET;
      v4_.sin_port = htons(port);
      v4_.sin_addr.s_addr = address.v4Addr().netOrder();
      length_ = sizeof(v4_);
    } else {
      v6_.sin6_family = AF_INET6;
      v6_.sin6_port = htons(port);
      address.copyToBuffer(v6_.sin6_addr.s6_addr);
      if (address.isLinkLocalUnicast()) v6_.sin6_scope_id = scope;
    }
  }

  const sockaddr* get() const noexcept { return reinterpret_cast<const sockaddr*>(&v6_); }
  sockaddr* get() noexcept { return reinterpret_cast<sockaddr*>(&v6_); }
  socklen_t length() const noexcept { return length_; }
  socklen_t& length() noexcept { return length_; }

  /// `ipunknown` when the kernel gave none.
  IpGenAddr address() const noexcept {
    if (v6_.sin6_family == AF_INET) return IpAddr::fromNetOrder(v4_.sin_addr.s_addr);
    if (v6_.sin6_family != AF_INET6) return IpGenAddr();
    Ip6Addr address;
    address.copyFromBuffer(v6_.sin6_addr.s6_addr);
    return address;
  }
  /// In host order.
  Kiv::U16 port() const noexcept { return ntohs(v6_.sin6_port); }  // at the same place in both families

 private:
  union {
    sockaddr_in6 v6_{};
    sockaddr_in v4_;
  };
  socklen_t length_ = sizeof(v6_);
};

}  // namespace Wirl::detail
