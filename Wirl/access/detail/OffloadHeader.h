// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/Types.h"

namespace Wirl::detail {

/// What the kernel puts in front of a frame with PACKET_VNET_HDR, in host byte order. (The kernel's own
/// header for it is none for C++.)
struct OffloadHeader {
  static constexpr Kiv::U8 kChecksumMissing = 1;

  Kiv::U8 flags;
  Kiv::U8 segmentation;  // 0: none
  Kiv::U16 headerBytes;
  Kiv::U16 segmentBytes;
  Kiv::U16 checksumStart;
  Kiv::U16 checksumOffset;
};
static_assert(sizeof(OffloadHeader) == 10);

}  // namespace Wirl::detail
