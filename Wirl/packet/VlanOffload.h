// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Pkt.h"

namespace Wirl {

// Moving a VLAN tag (IEEE 802.1Q) between the bytes of an Ethernet frame and the packet's separate tag.
//
// What counts is the frame that the packet shows. Nobody else sees bytes move: if a move touches shared data
// that others hold, the packet gets a copy in a buffer of its own first (`Pkt::ownSharedData`); without
// memory for it `std::bad_alloc` is thrown and nothing has changed. The packet's offset range follows the
// bytes that it began and ended with; over all shared data it stays (0, 0).

/// Whether `maybeOffloadAnyVlanTag` would move a tag: the frame has at least 18 bytes, an outermost tag of
/// type 0x8100, 0x88a8 or 0x9100 behind the two addresses, and no separate tag.
KIV_API bool hasVlanTagToOffload(const Pkt& pkt);

/// Moves the outermost tag out of the frame into the separate tag; true when it did. Anything else than the
/// above is left alone. Private head data loses 4 bytes where it has more; where not, it stays, and the
/// shared data loses them.
KIV_API bool maybeOffloadAnyVlanTag(const Pkt::Ptr& pkt);

/// Puts the separate tag back behind the two addresses; true when it did. A packet without a separate tag or
/// without two addresses is left alone, and so is one without a shared buffer whose private area is full.
KIV_API bool maybeRestoreVlanTag(const Pkt::Ptr& pkt);

}  // namespace Wirl
