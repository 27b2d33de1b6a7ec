// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/detail/SendQueue.h"

#include <algorithm>

namespace Wirl::detail {

void SendQueue::clear() noexcept {
  pieces_.clear();
  first_ = 0;
}

unsigned SendQueue::gather(struct ::iovec* out, unsigned max, std::size_t& bytes) const noexcept {
  const unsigned count = std::min(size(), max);
  bytes = 0;
  for (unsigned i = 0; i < count; ++i) {
    const Piece& piece = pieces_[first_ + i];
    out[i] = {const_cast<U8*>(piece.data), piece.bytes};
    bytes += piece.bytes;
  }
  return count;
}

void SendQueue::sent(std::size_t bytes) noexcept {
  while (first_ < pieces_.size() && pieces_[first_].bytes <= bytes) {
    bytes -= pieces_[first_].bytes;
    pieces_[first_].buffer = nullptr;
    ++first_;
  }
  if (bytes > 0 && first_ < pieces_.size()) {
    pieces_[first_].data += bytes;
    pieces_[first_].bytes -= static_cast<U32>(bytes);
  }
  // Moves the rest down no more often than it has sent as many.
  if (first_ * 2 >= pieces_.size()) {
    pieces_.erase(pieces_.begin(), pieces_.begin() + static_cast<std::ptrdiff_t>(first_));
    first_ = 0;
    if (pieces_.capacity() > kKept && pieces_.empty()) std::vector<Piece>().swap(pieces_);
  }
}

}  // namespace Wirl::detail
