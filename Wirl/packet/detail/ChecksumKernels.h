// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>

#include "Kiv/Types.h"

namespace Wirl::detail {

/// One way to add up the big-endian 16-bit words of `data`. `bytes` is even and below 2^16, so that no sum
/// passes 2^31.
struct ChecksumKernel {
  const char* name;
  Kiv::U32 (*sum)(const Kiv::U8* data, std::size_t bytes) noexcept;
};

/// Those that this processor can run, the slowest first. The last one is used.
KIV_API std::span<const ChecksumKernel> checksumKernels() noexcept;

}  // namespace Wirl::detail
