// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstring>

#include "Kiv/Types.h"

namespace Wirl::detail {

/// Stores the least significant octet first, on every machine.
inline void storeLittle64(char* to, Kiv::U64 word) noexcept {
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
  std::memcpy(to, &word, sizeof(word));
}

}  // namespace Wirl::detail
