// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>

#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Wirl {

/// The result of one read.
struct KIV_API TcpPduPamReadReturn {
  /// What a read has come to.
  enum Result : Kiv::U8 { error = 0, readMoreData = 1, waitForMoreData = 2, fullPduRead = 3 };

  Result result = error;  ///< What the read has come to.
  Kiv::String reason;     // of an error

  explicit operator bool() const noexcept { return result == fullPduRead; }
  friend KIV_API std::ostream& operator<<(std::ostream& out, const TcpPduPamReadReturn& outcome);
};

}  // namespace Wirl
