// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <linux/filter.h>
#include <sys/socket.h>

#include <utility>
#include <vector>

#include "Wirl/access/IpFilter.h"

namespace Wirl::detail {

/// Appends the program to one for the kernel. Jumps stay valid, since they are relative.
inline void appendFilter(std::vector<sock_filter>& instructions, const IpFilterProgram& filter) {
  for (const auto& [index, each] : filter) {
    instructions.push_back({each.code(), each.jt(), each.jf(), each.k()});
  }
}

/// Attaches the program to a socket and replaces a former one. Returns the result of setsockopt(2).
inline int attachFilter(int fd, std::vector<sock_filter> instructions) {
  const sock_fprog program = {static_cast<Kiv::U16>(instructions.size()), instructions.data()};
  return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program));
}
inline int attachFilter(int fd, const IpFilterProgram& filter) {
  std::vector<sock_filter> instructions;
  appendFilter(instructions, filter);
  return attachFilter(fd, std::move(instructions));
}

inline int detachFilter(int fd) {
  const int unused = 0;
  return setsockopt(fd, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof(unused));
}

}  // namespace Wirl::detail
