// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/uio.h>

#include <algorithm>

#include "Wirl/access/detail/OffloadHeader.h"
#include "Wirl/packet/Pkt.h"

namespace Wirl::detail {

/// The pieces of a frame on the wire: those of the packet, with its separate tag inserted.
class FramePieces {
 public:
  static constexpr std::size_t kAddresses = 12;  // octets in front of a tag

  FramePieces() noexcept = default;
  FramePieces(const FramePieces&) = delete;
  FramePieces& operator=(const FramePieces&) = delete;

  /// `headed`: behind an empty header of the kernel's, which says that the frame is finished.
  void frameIs(const Pkt& pkt, bool headed) noexcept {
    static U8 finished[sizeof(OffloadHeader)] = {};  // only read
    count_ = 0;
    if (headed) add(finished, sizeof(finished));
    if (!pkt.tciPresent()) {
      std::copy_n(pkt.iovecs(), pkt.numIovecs(), pieces_ + count_);
      count_ += pkt.numIovecs();
      return;
    }
    const U16 words[] = {pkt.vlanTpid(), pkt.tciField()};
    for (int i = 0; i < 4; ++i) tag_[i] = static_cast<U8>(words[i / 2] >> (i % 2 == 0 ? 8 : 0));
    std::size_t before = kAddresses;
    for (U32 i = 0; i < pkt.numIovecs(); ++i) {
      const iovec& piece = pkt.iovecs()[i];
      const std::size_t front = std::min(before, piece.iov_len);
      if (front > 0) add(static_cast<U8*>(piece.iov_base), front);
      if (before > 0 && front == before) add(tag_, sizeof(tag_));
      before -= front;
      if (front < piece.iov_len) add(static_cast<U8*>(piece.iov_base) + front, piece.iov_len - front);
    }
  }

  static constexpr U32 kMost = Pkt::maxIovecs_ + 3;

  iovec* pieces() noexcept { return pieces_; }
  std::size_t count() const noexcept { return count_; }

 private:
  void add(U8* base, std::size_t length) noexcept { pieces_[count_++] = {base, length}; }

  U8 tag_[4];
  iovec pieces_[kMost];
  std::size_t count_ = 0;
};

}  // namespace Wirl::detail
