// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstring>
#include <optional>
#include <span>

#include "Wirl/wire/Ip6ExtHdr.h"
#include "Wirl/wire/IpOptions.h"
#include "Wirl/wire/detail/PseudoHdr.h"

namespace Wirl::detail {

// Addresses that a pseudo-header has in place of those in the IP header: the last node of a source route
// (RFC 8200 section 8.1), and the home address of a mobile node (RFC 6275 sections 6.3, 6.4).

/// The last node of a source route that has not been reached yet.
inline std::optional<IpAddr> finalDst(std::span<const U8> ipOptions) noexcept {
  for (const WireOption& option : IpOptions(ipOptions)) {
    if (option.type != IpRouteOption::looseSourceRoute && option.type != IpRouteOption::strictSourceRoute)
      continue;
    constexpr std::size_t kFixed = sizeof(IpRouteOption), kAddr = sizeof(IpAddr);
    const std::size_t bytes = option.bytes.size();
    if (bytes < kFixed + kAddr || (bytes - kFixed) % kAddr != 0) return std::nullopt;
    const std::size_t next = option.bytes[2];
    if (next > bytes || next % kAddr != 0 || next == 0) return std::nullopt;
    IpAddr addr;
    std::memcpy(&addr, &option.bytes[bytes - sizeof(addr)], sizeof(addr));
    return addr;
  }
  return std::nullopt;
}

/// The same of a routing header, with `dst` as in the IPv6 header.
inline std::optional<Ip6Addr> finalDst(std::span<const U8> routingHdr, Ip6Addr dst) noexcept {
  const auto routing = viewAt<Ip6RoutingHdr>(routingHdr);
  if (!routing || routing->segmentsLeft() == 0) return std::nullopt;
  if (const auto last = Ip6RouteAddrs(routing.header(), dst).last()) return *last;
  return std::nullopt;
}

inline std::optional<Ip6Addr> homeAddr(std::span<const U8> ip6Options) noexcept {
  const auto home = Ip6Options(ip6Options).find<Ip6HomeAddressOption>();
  if (!home) return std::nullopt;
  return home->home();
}

/// What to add to a sum that has `before` in place of `now`.
template <typename Addr>
U32 sumChange(const Addr& before, const Addr& now) noexcept {
  const auto words = [](const Addr& addr) {
    U32 sum = 0;
    for (std::size_t at = 0; at < sizeof(addr); at += 2) {
      const U8* const octets = reinterpret_cast<const U8*>(&addr) + at;
      sum += static_cast<U32>(octets[0] << 8 | octets[1]);
    }
    return folded(sum);
  };
  return U32{words(now)} + static_cast<U16>(~words(before));
}

}  // namespace Wirl::detail
