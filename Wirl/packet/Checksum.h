// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <ostream>

#include "Kiv/Types.h"
#include "Wirl/packet/NetInt.h"
#include "Wirl/packet/detail/ShortChecksum.h"

namespace Wirl {

/// A finished Internet checksum, as it stands in a header.
class IpChecksum {
 public:
  constexpr IpChecksum() noexcept = default;
  /// From the number in host order.
  constexpr explicit IpChecksum(Kiv::U16 value) noexcept : net_(value) {}
  constexpr explicit IpChecksum(NetU16 net) noexcept : net_(net) {}

  /// In host order.
  constexpr Kiv::U16 value() const noexcept { return net_; }
  constexpr NetU16 net() const noexcept { return net_; }  ///< As it lies in the packet.

  friend constexpr bool operator==(const IpChecksum&, const IpChecksum&) noexcept = default;
  /// As a number in hexadecimal, with 0x.
  KIV_API friend std::ostream& operator<<(std::ostream& out, IpChecksum checksum);

 private:
  NetU16 net_;
};
static_assert(isHeaderImage<IpChecksum, 2>);

// The Internet checksum (RFC 1071). The data may lie at any address.

/// `sum` and the big-endian 16-bit words of `data`, added modulo 2^32. An odd length ends the process.
KIV_API Kiv::U32 ipChecksumChunk(const char* data, Kiv::U16 len, Kiv::U32 sum);

/// The checksum of `data`; an odd last byte is the high byte of a word. `sum` is the start value, for
/// instance the sum of a pseudo-header from `ipChecksumChunk`. A result of 0 stays 0.
IpChecksum ipChecksumCalc(const char* data, Kiv::U16 len, Kiv::U32 sum);

namespace detail {
/// The same, out of line.
KIV_API IpChecksum checksumOfAny(const char* data, Kiv::U16 len, Kiv::U32 sum) noexcept;
}  // namespace detail

inline IpChecksum ipChecksumCalc(const char* data, Kiv::U16 len, Kiv::U32 sum) {
  using namespace detail;
  if (len < kFewestShort || len > kMostShort || sum > kMostToStart) return checksumOfAny(data, len, sum);
  return IpChecksum(std::bit_cast<NetU16>(shortChecksum(reinterpret_cast<const Kiv::U8*>(data), len, sum)));
}

}  // namespace Wirl
