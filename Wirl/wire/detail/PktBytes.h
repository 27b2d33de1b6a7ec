// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstring>

#include "Wirl/packet/Pkt.h"

namespace Wirl::detail {

/// Copies bytes of a packet, from whichever pieces they lie in. All of them are there.
inline void copyBytes(const Pkt& pkt, U32 offset, U32 bytes, U8* to) noexcept {
  const struct ::iovec* const pieces = pkt.iovecs();
  for (U32 i = 0; bytes > 0; ++i) {
    const auto have = static_cast<U32>(pieces[i].iov_len);
    if (offset < have) {
      const U32 n = std::min(have - offset, bytes);
      std::memcpy(to, static_cast<const U8*>(pieces[i].iov_base) + offset, n);
      to += n;
      bytes -= n;
      offset += n;
    }
    offset -= have;
  }
}

/// A packet of `bytes` of undefined contents. Of default size where it fits, since these are recycled.
inline Pkt::Ptr newPktOf(U32 bytes) {
  const auto& manager = globalPktManager();
  const bool fits = bytes <= Pkt::Manager::defaultBufferBytes_;
  Pkt::Ptr pkt = fits ? manager->newPkt() : manager->newPkt(manager->newSharedBuffer(bytes));
  pkt->newSharedHeadData(bytes);
  return pkt;
}

}  // namespace Wirl::detail
