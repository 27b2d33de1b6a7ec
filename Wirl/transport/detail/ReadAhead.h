// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstring>

#include "Wirl/packet/Pkt.h"

namespace Wirl::detail {

/// Octets that were read off a socket and belong to no PDU yet. Holds a buffer only while there are such
/// octets.
///
/// Each thread has a few buffers that its connections use in turn. PDUs may be slices of them; a PDU that the
/// client keeps thus keeps a whole buffer from being used again. When all of the thread's buffers are kept
/// so, PDUs are copied (`sliceable()` is false), until one is free again: so a thread never holds more than
/// `kBuffers` of them, however few octets are kept.
class ReadAhead {
 public:
  static constexpr std::size_t kBytes = 65536;
  static constexpr unsigned kBuffers = 16;

  bool empty() const noexcept { return next_ == end_; }
  U32 bytes() const noexcept { return end_ - next_; }
  bool sliceable() const noexcept { return sliceable_; }
  void clear() noexcept {
    release();
    drained_ = false;
  }
  /// A packet over the first `count` octets, which stay. There are that many.
  Pkt::Ptr slice(U32 count) const { return Pkt::Manager::newSlice(buffer_, next_, count); }
  /// Drops octets.
  void skip(U32 count) noexcept {
    next_ += count;
    if (next_ == end_) [[unlikely]]
      release();
  }
  /// Copies up to `length` of the octets that are here and returns how many. There must be some.
  ssize_t take(Kiv::U8* to, std::size_t length) noexcept {
    const U32 count = length < bytes() ? static_cast<U32>(length) : bytes();
    std::memcpy(to, buffer_->buffer() + next_, count);
    skip(count);
    return static_cast<ssize_t>(count);
  }
  /// Like recv(2) with MSG_DONTWAIT, to be called while nothing is here: reads all that fits. A short read is
  /// taken to mean that the socket is empty, and the next call returns EAGAIN without a system call; not with
  /// `toTheEnd`. ENOMEM without memory for the buffer.
  ssize_t fill(int fd, bool toTheEnd);
  /// The same, and returns what was asked for. Without memory for the buffer it reads only that.
  ssize_t receive(int fd, Kiv::U8* to, std::size_t length, bool toTheEnd);

 private:
  void release() noexcept {
    buffer_ = nullptr;
    sliceable_ = false;
    next_ = end_ = 0;
  }

  Pkt::SharedBuffer::Ptr buffer_;
  U32 next_ = 0;
  U32 end_ = 0;
  bool sliceable_ = false;
  bool drained_ = false;
};

}  // namespace Wirl::detail
