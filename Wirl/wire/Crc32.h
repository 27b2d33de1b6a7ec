// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <span>

#include "Kiv/Types.h"

namespace Wirl {

// Cyclic redundancy checks of 32 bits. The data may lie at any address. `crc` is the check of what comes
// before the data, so that a check can be taken piece by piece: crc32(b, crc32(a)) is the check of a and b
// behind it.

/// The frame check sequence of Ethernet (IEEE 802.3, section 3.2.9): reflected polynomial 0xedb88320. It goes
/// over the wire with its lowest octet first. "123456789" gives 0xcbf43926.
KIV_API Kiv::U32 crc32(std::span<const Kiv::U8> data, Kiv::U32 crc = 0) noexcept;

/// The check of SCTP (RFC 9260, appendix A): reflected polynomial 0x82f63b78, named after Castagnoli. It goes
/// over the wire with its lowest octet first. "123456789" gives 0xe3069283.
KIV_API Kiv::U32 crc32c(std::span<const Kiv::U8> data, Kiv::U32 crc = 0) noexcept;

}  // namespace Wirl
