// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>

#include "Kiv/Types.h"

namespace Wirl::detail {

/// One way to take the two checks. `state` and the result are the check's complement.
struct CrcKernel {
  using Update = Kiv::U32 (*)(Kiv::U32 state, const Kiv::U8* data, std::size_t bytes) noexcept;
  const char* name;
  Update ieee;
  Update castagnoli;
};

/// Those that this processor can run, the slowest first. The last one is used.
KIV_API std::span<const CrcKernel> crcKernels() noexcept;

}  // namespace Wirl::detail
