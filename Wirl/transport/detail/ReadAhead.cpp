// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/detail/ReadAhead.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>

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

Buffer newBuffer() {
  if (!spareGone && spare.buffer) return std::move(spare.buffer);
  return Buffer(new (std::nothrow) Kiv::U8[ReadAhead::kBytes]);  // not cleared: it is read into
}

}  // namespace

void ReadAhead::release() noexcept {
  if (buffer_ && !spareGone) spare.buffer = std::move(buffer_);
  buffer_ = nullptr;
  next_ = end_ = 0;
}

ssize_t ReadAhead::receive(int fd, Kiv::U8* to, std::size_t length, bool toTheEnd) {
  if (drained_) {
    drained_ = false;
    errno = EAGAIN;
    return -1;
  }
  buffer_ = newBuffer();
  if (!buffer_) return recv(fd, to, length, MSG_DONTWAIT);
  const ssize_t received = recv(fd, buffer_.get(), kBytes, MSG_DONTWAIT);
  if (received <= 0) {
    const int error = errno;
    release();
    errno = error;
    return received;
  }
  end_ = static_cast<Kiv::U32>(received);
  drained_ = !toTheEnd && end_ < kBytes;
  return take(to, length);
}

}  // namespace Wirl::detail
