// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/detail/ReadAhead.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Wirl::detail {

namespace {

using Buffer = std::unique_ptr<Kiv::U8[]>;

// Connections may outlive the thread's variables, but not look at one that is gone.
thread_local bool spareGone = false;
struct Spare {
  Buffer buffer;
  ~Spare() { spareGone = true; }
};
thread_local Spare spare;

Buffer take() {
  if (!spareGone && spare.buffer) return std::move(spare.buffer);
  return Buffer(new Kiv::U8[ReadAhead::kBytes]);  // not cleared: it is read into
}

}  // namespace

void ReadAhead::clear() noexcept {
  if (buffer_ && !spareGone) spare.buffer = std::move(buffer_);
  buffer_ = nullptr;
  next_ = end_ = 0;
  drained_ = false;
}

ssize_t ReadAhead::receive(int fd, Kiv::U8* to, std::size_t length, bool toTheEnd) {
  if (!buffer_) {
    if (drained_) {
      drained_ = false;
      errno = EAGAIN;
      return -1;
    }
    buffer_ = take();
    const ssize_t received = recv(fd, buffer_.get(), kBytes, MSG_DONTWAIT);
    if (received <= 0) {
      const int error = errno;
      clear();
      errno = error;
      return received;
    }
    next_ = 0;
    end_ = static_cast<Kiv::U32>(received);
    drained_ = !toTheEnd && end_ < kBytes;
  }
  const std::size_t count = std::min<std::size_t>(length, end_ - next_);
  std::memcpy(to, buffer_.get() + next_, count);
  next_ += static_cast<Kiv::U32>(count);
  if (next_ == end_) {
    const bool drained = drained_;
    clear();
    drained_ = drained;
  }
  return static_cast<ssize_t>(count);
}

}  // namespace Wirl::detail
