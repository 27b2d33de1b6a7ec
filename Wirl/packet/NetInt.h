// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <type_traits>
#include <utility>

#include "Kiv/Types.h"

namespace Wirl {

/// An unsigned integer as it stands in a header: octets in network order, without alignment. Reads and writes
/// as a number in host order.
template <std::unsigned_integral T>
class NetInt {
 public:
  constexpr NetInt() noexcept = default;
  constexpr NetInt(T host) noexcept : octets_(std::bit_cast<Octets>(swapped(host))) {}
  constexpr operator T() const noexcept { return value(); }  ///< As a number of the machine.
  constexpr T value() const noexcept { return swapped(std::bit_cast<T>(octets_)); }

  /// The octets in network order.
  constexpr const std::array<Kiv::U8, sizeof(T)>& octets() const noexcept { return octets_; }
  friend constexpr bool operator==(const NetInt&, const NetInt&) noexcept = default;
  /// With any number, by value: `field == 5`.
  template <typename Number>
  requires(std::convertible_to<Number, T> && !std::same_as<Number, NetInt>) friend constexpr bool operator==(
      const NetInt& a, Number b) noexcept {
    return std::cmp_equal(a.value(), +b);
  }

 private:
  using Octets = std::array<Kiv::U8, sizeof(T)>;

  static constexpr T swapped(T word) noexcept {
    if constexpr (std::endian::native == std::endian::big) {
      return word;
    } else if constexpr (sizeof(T) == 2) {
      return __builtin_bswap16(word);
    } else {
      static_assert(sizeof(T) == 4);
      return __builtin_bswap32(word);
    }
  }

  Octets octets_{};
};

using NetU16 = NetInt<Kiv::U16>;  ///< A 16-bit number in network order.
using NetU32 = NetInt<Kiv::U32>;  ///< A 32-bit number in network order.

/// What a header image is: octets and nothing else, so that it may lie over a packet's bytes at any offset.
template <typename Hdr, std::size_t Size>
inline constexpr bool isHeaderImage = sizeof(Hdr) == Size &&
                                      alignof(Hdr) == 1 && std::is_trivially_copyable_v<Hdr>;

static_assert(isHeaderImage<NetU16, 2> && isHeaderImage<NetU32, 4>);

}  // namespace Wirl
