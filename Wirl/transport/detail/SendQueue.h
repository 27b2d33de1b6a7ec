// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <memory>
#include <vector>

#include "Wirl/packet/Pkt.h"

namespace Wirl::detail {

/// Packets that wait to be sent, in order; the first may be sent in part. Holds the buffers, not the packets.
/// Takes no memory before the first packet; once empty again it keeps room for at most `kKept`.
class SendQueue {
 public:
  static constexpr std::size_t kKept = 64;

  bool empty() const noexcept { return size() == 0; }
  U32 size() const noexcept { return queue_ ? static_cast<U32>(queue_->pieces.size() - queue_->first) : 0; }
  void clear() noexcept { queue_ = nullptr; }
  /// A packet of one piece, in its shared buffer.
  void push(const Pkt& pkt);
  /// Describes up to `max` packets in `out`. Returns how many, and their octets in `bytes`.
  unsigned gather(struct ::iovec* out, unsigned max, std::size_t& bytes) const noexcept;
  /// Takes `bytes` off the front.
  void sent(std::size_t bytes) noexcept;

 private:
  struct Piece {
    Pkt::SharedBuffer::Ptr buffer;
    const U8* data;
    U32 bytes;
  };
  struct Queue {
    std::vector<Piece> pieces;
    std::size_t first = 0;
  };
  std::unique_ptr<Queue> queue_;
};

}  // namespace Wirl::detail
