// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

/// Exported from the library; everything else stays hidden inside it.
#define KIV_API __attribute__((visibility("default")))

namespace Kiv {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S8 = std::int8_t;
using S16 = std::int16_t;
using S32 = std::int32_t;
using S64 = std::int64_t;

/// Octets, owned.
using Bytes = std::vector<U8>;

}  // namespace Kiv
