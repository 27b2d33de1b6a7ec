// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstddef>
#include <functional>

#include "Kiv/Types.h"

namespace Wirl::detail {

/// `std::hash` of values of up to 128 bits. Takes one multiplication where the machine has a product of 128
/// bits, else two. Unlike `hash()` it differs between machines.
constexpr std::size_t stdHash(Kiv::U64 a, Kiv::U64 b) noexcept {
#ifdef __SIZEOF_INT128__
  __extension__ using Product = unsigned __int128;
  const Product product = Product{a ^ 0x9e37'79b9'7f4a'7c15} * (b ^ 0xd1b5'4a32'd192'ed03);
  // If one factor is zero, the product is too: adding `b` still keeps such keys apart.
  return static_cast<std::size_t>((static_cast<Kiv::U64>(product >> 64) ^ static_cast<Kiv::U64>(product)) +
                                  b);
#else
  const auto fold = [](Kiv::U64 word, Kiv::U32 x, Kiv::U32 y) {
    const Kiv::U64 product =
        Kiv::U64{static_cast<Kiv::U32>(word >> 32) ^ x} * (static_cast<Kiv::U32>(word) ^ y);
    return static_cast<Kiv::U32>(product >> 32) ^ static_cast<Kiv::U32>(product);
  };
  const Kiv::U32 first = fold(a, 0x9e37'79b9, 0x7f4a'7c15) + static_cast<Kiv::U32>(a);
  return std::rotl(first, 15) + fold(b, 0xd1b5'4a32, 0xd192'ed03 ^ first) + static_cast<Kiv::U32>(b);
#endif
}

}  // namespace Wirl::detail

/// `std::hash` of a value type by its `hash()`. Outside of all namespaces.
#define WIRL_STD_HASH(Type)                                                           \
  template <>                                                                         \
  struct std::hash<Type> {                                                            \
    std::size_t operator()(const Type& value) const noexcept { return value.hash(); } \
  };
