// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/detail/ReadAhead.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>

#include "Wirl/packet/detail/Recycles.h"

namespace Wirl::detail {

namespace {

using Buffer = Pkt::SharedBuffer::Ptr;

// Connections may outlive the thread's variables, but not look at one that is gone.
thread_local bool buffersGone = false;
struct Buffers {
  Buffer all[ReadAhead::kBuffers];
  Buffer copied;  // whose PDUs are copied
  ~Buffers() { buffersGone = true; }
};
thread_local Buffers buffers;

Buffer newBuffer() {
  return globalPktManager()->newSharedBuffer(ReadAhead::kBytes);
}

/// Null without memory.
Buffer freeBuffer(bool& sliceable) noexcept {
  try {
    sliceable = true;
    if (!kRecycles || buffersGone) return newBuffer();
    for (Buffer& each : buffers.all) {
      if (!each) each = newBuffer();
      if (each->references() == 1) return each;
    }
    sliceable = false;
    if (!buffers.copied) buffers.copied = newBuffer();
    return buffers.copied->references() == 1 ? buffers.copied : newBuffer();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

ssize_t ReadAhead::fill(int fd, bool toTheEnd) {
  if (drained_) {
    drained_ = false;
    errno = EAGAIN;
    return -1;
  }
  buffer_ = freeBuffer(sliceable_);
  if (!buffer_) {
    errno = ENOMEM;
    return -1;
  }
  const ssize_t received = recv(fd, buffer_->buffer(), kBytes, MSG_DONTWAIT);
  if (received <= 0) {
    const int error = errno;
    release();
    errno = error;
    return received;
  }
  end_ = static_cast<U32>(received);
  drained_ = !toTheEnd && end_ < kBytes;
  return received;
}

ssize_t ReadAhead::receive(int fd, Kiv::U8* to, std::size_t length, bool toTheEnd) {
  const ssize_t received = fill(fd, toTheEnd);
  if (received > 0) return take(to, length);
  return received < 0 && errno == ENOMEM ? recv(fd, to, length, MSG_DONTWAIT) : received;
}

}  // namespace Wirl::detail
