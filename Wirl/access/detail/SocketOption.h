// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include "Kiv/Types.h"

// The socket options that attributes of Pams set, in one table.
namespace Wirl::detail {

/// One option in both families, as for setsockopt(2), and the text of its failure.
struct SocketOption {
  /// How the kernel takes the value.
  enum class Form : Kiv::U8 {
    integer,
    /// An interface index: IPv4 has a structure for it.
    interface,
    /// A buffer's octets: past the system's limit where that is permitted, and checked where it is not.
    buffer
  };
  struct Name {
    int level, option;
    const char* text;
  };

  Name v4, v6;
  Form form = Form::integer;

  const Name& of(int domain) const noexcept;
  const char* textOf(int domain) const noexcept { return of(domain).text; }
};

/// Sets the option of a socket of `domain`. Returns 0 or the errno; ENOBUFS for a buffer that is granted in
/// part only.
KIV_API int socketOptionIs(int fd, int domain, const SocketOption& option, int value) noexcept;
/// The same for the name of a device; ENODEV for one that is too long.
KIV_API int socketOptionIs(int fd, int domain, const SocketOption& option, std::string_view text) noexcept;

namespace options {

// Of all sockets.
extern const SocketOption rxBuffer, txBuffer, rxTimestamps;
// Of IP sockets.
extern const SocketOption bindDevice, reuseAddress, reusePort, priority;
extern const SocketOption hopLimit, trafficClass, multicastHopLimit, multicastInterface, multicastLoop;
extern const SocketOption rxPktInfo, rxHopLimit, rxTrafficClass, rxOriginalDestination, rxErrors;
extern const SocketOption freeBind, transparent, headerIncluded, routerAlert;
// Of UDP.
extern const SocketOption rxMerged, txSegments;

}  // namespace options

}  // namespace Wirl::detail
