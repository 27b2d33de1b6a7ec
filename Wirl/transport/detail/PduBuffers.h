// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Pkt.h"

namespace Wirl::detail {

/// An empty packet over a buffer of `size` octets. Buffers larger than those that the packet manager recycles
/// are taken from the last few of the thread, where one of that size is held by no packet any more: a PDU
/// each, they would be heavy on the heap.
Pkt::Ptr newPduPkt(U32 size);

}  // namespace Wirl::detail
