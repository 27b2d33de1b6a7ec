// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstring>
#include <memory>

#include "Kiv/Types.h"

namespace Wirl::detail {

/// What was read off a socket beyond what was asked for. It holds memory only while there are such octets;
/// one buffer of each thread is kept for the next to need it, whichever connection that is.
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
  /// Copies what is here, `length` octets at most, and returns how many; there must be some.
  ssize_t take(Kiv::U8* to, std::size_t length) noexcept {
    const std::size_t count = length < end_ - next_ ? length : end_ - next_;
    std::memcpy(to, buffer_.get() + next_, count);
    next_ += static_cast<Kiv::U32>(count);
    if (next_ == end_) [[unlikely]]
      release();
    return static_cast<ssize_t>(count);
  }
  /// As recv(2) with MSG_DONTWAIT, while nothing is here: it reads all that fits, and gives what was asked for;
  /// without memory for that it reads no more than was asked for.
  /// Unless `toTheEnd`, it believes a short read that the socket is empty, and answers the next call EAGAIN
  /// without asking.
  ssize_t receive(int fd, Kiv::U8* to, std::size_t length, bool toTheEnd);

 private:
  void release() noexcept;

  std::unique_ptr<Kiv::U8[]> buffer_;
  Kiv::U32 next_ = 0;
  Kiv::U32 end_ = 0;
  bool drained_ = false;
};

}  // namespace Wirl::detail
