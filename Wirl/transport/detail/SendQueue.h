// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <vector>

#include "Wirl/packet/Pkt.h"

namespace Wirl::detail {

/// Packets that wait to be sent, in order; the first may be sent in part. It keeps their buffers, not them.
/// No memory before the first packet, and once it was empty again room for `kKept` of them at most.
class SendQueue {
 public:
  static constexpr std::size_t kKept = 64;

  bool empty() const noexcept { return first_ == pieces_.size(); }
  U32 size() const noexcept { return static_cast<U32>(pieces_.size() - first_); }
  void clear() noexcept;
  /// A packet of one piece, in its shared buffer.
  void push(const Pkt& pkt) { pieces_.push_back({pkt.sharedBuffer(), pkt.front(), pkt.frontBytes()}); }
  /// Describes the first of them in `out`, at most `max`; returns how many, and their octets in `bytes`.
  unsigned gather(struct ::iovec* out, unsigned max, std::size_t& bytes) const noexcept;
  /// Takes `bytes` off the front.
  void sent(std::size_t bytes) noexcept;

 private:
  struct Piece {
    Pkt::SharedBuffer::Ptr buffer;
    const U8* data;
    U32 bytes;
  };
  std::vector<Piece> pieces_;
  std::size_t first_ = 0;
};

}  // namespace Wirl::detail
