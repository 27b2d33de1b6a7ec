// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/detail/SendQueue.h"

#include <algorithm>

namespace Wirl::detail {

void SendQueue::push(const Pkt& pkt) {
  if (!queue_) queue_ = std::make_unique<Queue>();
  queue_->pieces.push_back({pkt.sharedBuffer(), pkt.front(), pkt.frontBytes()});
}

unsigned SendQueue::gather(struct ::iovec* out, unsigned max, std::size_t& bytes) const noexcept {
  const unsigned count = std::min(size(), max);
  bytes = 0;
  for (unsigned i = 0; i < count; ++i) {
    const Piece& piece = queue_->pieces[queue_->first + i];
    out[i] = {const_cast<U8*>(piece.data), piece.bytes};
    bytes += piece.bytes;
  }
  return count;
}

void SendQueue::sent(std::size_t bytes) noexcept {
  if (!queue_) return;
  auto& [pieces, first] = *queue_;
  while (first < pieces.size() && pieces[first].bytes <= bytes) {
    bytes -= pieces[first].bytes;
    pieces[first].buffer = nullptr;
    ++first;
  }
  if (bytes > 0 && first < pieces.size()) {
    pieces[first].data += bytes;
    pieces[first].bytes -= static_cast<U32>(bytes);
  }
  // Compact only once half the vector is sent, so the copying is amortised O(1).
  if (first * 2 >= pieces.size()) {
    pieces.erase(pieces.begin(), pieces.begin() + static_cast<std::ptrdiff_t>(first));
    first = 0;
    if (pieces.capacity() > kKept && pieces.empty()) std::vector<Piece>().swap(pieces);
  }
}

}  // namespace Wirl::detail
