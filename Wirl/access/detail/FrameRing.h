// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/Types.h"

struct tpacket3_hdr;

namespace Wirl::detail {

using Kiv::U32;
using Kiv::U8;

/// The receive ring of a packet socket (TPACKET_V3), mapped: the kernel fills blocks with frames and hands a
/// block over when it is full, or a millisecond after its first frame. Reading costs no system call.
///
///     block   | descriptor | frame header, octets | frame header, octets | ... |
///             owned by the kernel or by us; goes back when its last frame was taken
class KIV_API FrameRing {
 public:
  FrameRing() = default;
  ~FrameRing();
  FrameRing(const FrameRing&) = delete;
  FrameRing& operator=(const FrameRing&) = delete;

  /// Makes a ring of at least `octets` for a packet socket that receives nothing yet. Returns null, or the
  /// step that failed, with errno.
  const char* open(int fd, U32 octets) noexcept;
  /// The oldest frame that was not taken, or null. Valid until `pop`.
  const tpacket3_hdr* front() noexcept;
  /// Takes it.
  void pop() noexcept;

 private:
  U8* memory_ = nullptr;
  U32 blocks_ = 0;
  U32 at_ = 0;    // the block at work
  U32 left_ = 0;  // frames in it that were not taken; 0: it is not ours
  const U8* frame_ = nullptr;
};

}  // namespace Wirl::detail
