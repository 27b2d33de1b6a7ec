// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/Trace.h"

namespace Wirl::detail {

/// The trace handle "TcpPduPam", which the sources of the class share.
extern Kiv::TraceHandle tcpPduPamTrace;

}  // namespace Wirl::detail
