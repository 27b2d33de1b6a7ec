// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstring>

#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"

namespace Wirl::detail {

// Sums of 16-bit words, for the Internet checksum.

inline U32 halves(U32 sum) noexcept {
  return (sum & 0xffff) + (sum >> 16);
}
inline U16 folded(U32 sum) noexcept {
  return static_cast<U16>(halves(halves(sum)));
}

/// Sum of a pseudo-header; the length may be more than a header can say. The addresses are added up in the
/// order of octets that the machine has, and the sum brought into that of the network.
template <typename Ip>
[[gnu::always_inline]] inline U32 pseudoHdrSum(const Ip& ip, std::size_t bytes, U8 protocol) noexcept {
  constexpr std::size_t kAddrs = sizeof(Ip) == sizeof(IpHdr) ? 8 : 32;
  U32 words[kAddrs / 4];
  std::memcpy(words, reinterpret_cast<const U8*>(&ip) + sizeof(Ip) - kAddrs, kAddrs);
  U64 sum = 0;
  for (const U32 word : words) sum += word;
  const U16 addrs = folded(halves(static_cast<U32>(sum)) + halves(static_cast<U32>(sum >> 32)));
  const U16 inOrder = std::endian::native == std::endian::big ? addrs : __builtin_bswap16(addrs);
  return U32{inOrder} + protocol + halves(static_cast<U32>(bytes));
}

}  // namespace Wirl::detail
