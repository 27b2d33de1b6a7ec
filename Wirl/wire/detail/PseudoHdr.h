// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstddef>

#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/packet/detail/ShortChecksum.h"

namespace Wirl::detail {

// Sums of 16-bit words, for the Internet checksum.

inline U32 halves(U32 sum) noexcept {
  return (sum & 0xffff) + (sum >> 16);
}
inline U16 folded(U32 sum) noexcept {
  return static_cast<U16>(halves(halves(sum)));
}

/// Sum of the addresses, which are added up in the order of octets that the machine has.
template <typename Ip>
[[gnu::always_inline]] inline U32 addrsSum(const Ip& ip) noexcept {
  constexpr std::size_t kAddrs = sizeof(Ip) == sizeof(IpHdr) ? 8 : 32;
  const U8* const addrs = reinterpret_cast<const U8*>(&ip) + sizeof(Ip) - kAddrs;
  U64 sum = load<U64>(addrs);
  for (std::size_t at = 8; at < kAddrs; at += 8) {
    sum += __builtin_add_overflow(sum, load<U64>(addrs + at), &sum);
  }
  // Added to itself with the halves changed, a number has in its upper half the sum of both, carry included.
  const auto half = static_cast<U32>((sum + std::rotl(sum, 32)) >> 32);
  const auto words = static_cast<U16>((half + std::rotl(half, 16)) >> 16);
  return std::endian::native == std::endian::big ? words : __builtin_bswap16(words);
}

/// Sum of a pseudo-header; the length may be more than a header can say.
template <typename Ip>
[[gnu::always_inline]] inline U32 pseudoHdrSum(const Ip& ip, std::size_t bytes, U8 protocol) noexcept {
  return addrsSum(ip) + protocol + halves(static_cast<U32>(bytes));
}

}  // namespace Wirl::detail
