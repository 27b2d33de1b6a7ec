// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstring>
#include <memory>

#include "Kiv/Types.h"

namespace Wirl::detail {

/// Octets that were read off a socket beyond those asked for. Holds memory only while there are such octets.
/// Each thread keeps one buffer for the next connection that needs it.
class ReadAhead {
 public:
  static constexpr std::size_t kBytes = 65536;

  ReadAhead() noexcept = default;
  ~ReadAhead() { clear(); }
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  bool empty() const noexcept { return next_ == end_; }
  void clear() noexcept {
    release();
    drained_ = false;
  }
  /// Copies up to `length` of the octets that are here and returns how many. There must be some.
  ssize_t take(Kiv::U8* to, std::size_t length) noexcept {
    const std::size_t count = length < end_ - next_ ? length : end_ - next_;
    std::memcpy(to, buffer_.get() + next_, count);
    next_ += static_cast<Kiv::U32>(count);
    if (next_ == end_) [[unlikely]]
      release();
    return static_cast<ssize_t>(count);
  }
  /// Like recv(2) with MSG_DONTWAIT, to be called while nothing is here: reads all that fits and returns what
  /// was asked for. Without memory for the buffer it reads only that. A short read is taken to mean that the
  /// socket is empty, and the next call returns EAGAIN without a system call; not with `toTheEnd`.
  ssize_t receive(int fd, Kiv::U8* to, std::size_t length, bool toTheEnd);

 private:
  void release() noexcept;

  std::unique_ptr<Kiv::U8[]> buffer_;
  Kiv::U32 next_ = 0;
  Kiv::U32 end_ = 0;
  bool drained_ = false;
};

}  // namespace Wirl::detail
