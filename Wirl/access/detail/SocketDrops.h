// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <linux/sock_diag.h>
#include <sys/socket.h>

#include "Kiv/Types.h"

namespace Wirl::detail {

/// Reads the kernel's count of the packets that a socket had no room for, which costs the receive path
/// nothing.
class SocketDrops {
 public:
  /// How many there were since the last time, or since the socket was opened; 0 where that is not known.
  Kiv::U32 sinceLast(int fd) noexcept {
    Kiv::U32 info[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof(info);
    if (fd < 0 || getsockopt(fd, SOL_SOCKET, SO_MEMINFO, info, &length) < 0) return 0;
    const Kiv::U32 before = counted_;
    counted_ = info[SK_MEMINFO_DROPS];
    return counted_ - before;
  }
  /// The next socket begins with 0.
  void reset() noexcept { counted_ = 0; }

 private:
  Kiv::U32 counted_ = 0;
};

}  // namespace Wirl::detail
