// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
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

  bool empty() const noexcept { return !buffer_; }
  void clear() noexcept;
  /// As recv(2) with MSG_DONTWAIT, from what is here, else from the socket, of which it reads all that fits.
  /// Unless `toTheEnd`, it believes a short read that the socket is empty, and answers the next call EAGAIN
  /// without asking.
  ssize_t receive(int fd, Kiv::U8* to, std::size_t length, bool toTheEnd);

 private:
  std::unique_ptr<Kiv::U8[]> buffer_;
  Kiv::U32 next_ = 0;
  Kiv::U32 end_ = 0;
  bool drained_ = false;
};

}  // namespace Wirl::detail
