// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>

#include "Kiv/Types.h"

namespace Wirl {

/// Socket priorities (SO_PRIORITY) by the names of the kernel's queueing disciplines. Every number from 0 to
/// 15 is valid.
enum IpTrafficControl : Kiv::U32 {
  tcPrioBestEffort = 0,
  tcPrioFiller = 1,
  tcPrioBulk = 2,
  tcPrioInteractiveBulk = 4,
  tcPrioInteractive = 6,
  tcPrioControl = 7,
  tcPrioMax = 15,
};

inline std::ostream& operator<<(std::ostream& out, IpTrafficControl priority) {
  return out << static_cast<Kiv::U32>(priority);
}

}  // namespace Wirl
