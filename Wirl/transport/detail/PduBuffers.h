// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Pkt.h"

namespace Wirl::detail {

/// An empty packet over a buffer of `size` octets. The packet manager recycles small buffers; of larger ones
/// each thread keeps the last few here, because one heap allocation per PDU is expensive.
Pkt::Ptr newPduPkt(U32 size);

}  // namespace Wirl::detail
