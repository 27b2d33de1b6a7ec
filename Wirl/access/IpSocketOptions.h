// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <ostream>
#include <string_view>

#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Wirl {

/// A set of socket options, one bit each. Its text lists the names in the order of the bits, joined by "|";
/// the empty set is "none". Bits without a name are kept and print as one number.
class KIV_API IpSocketOptions {
 public:
  /// One option a bit.
  enum Option : Kiv::U32 {
    none = 0,
    ipFreeBind = 0x1,          // IP_FREEBIND
    ipHdrIncl = 0x2,           // IP_HDRINCL
    ipMulticastLoop = 0x4,     // IP_MULTICAST_LOOP
    ipPktInfo = 0x8,           // IP_PKTINFO
    ipRecvErr = 0x10,          // IP_RECVERR
    ipRecvOrigDstAddr = 0x20,  // IP_RECVORIGDSTADDR
    ipRecvTOS = 0x40,          // IP_RECVTOS
    ipRecvTTL = 0x80,          // IP_RECVTTL
    ipRouterAlert = 0x100,     // IP_ROUTER_ALERT
    ipTransparent = 0x200,     // IP_TRANSPARENT
    ipAttachFilter = 0x400,    // SO_ATTACH_FILTER with the program `rxFilter`
    ipRcvBuf = 0x800,          // SO_RCVBUFFORCE with `rxBuf`
    ipPriority = 0x1000,       // SO_PRIORITY with `priority`, even if that is 0
    ipv6Checksum = 0x2000,     // IPV6_CHECKSUM, for IPv6 only
  };

  constexpr IpSocketOptions(Kiv::U32 bits = none) noexcept : bits_(bits) {}  ///< The options of the bits.
  constexpr operator Kiv::U32() const noexcept { return bits_; }             ///< The bits.
  /// Whether the option is among them.
  constexpr bool has(Option option) const noexcept { return (bits_ & option) != 0; }

  Kiv::String stringValue() const;
  /// Parses the whole of `text`; empty if it is no set.
  static std::optional<IpSocketOptions> fromText(std::string_view text);
  /// Parses the whole of `text`. If it is no set, throws `Kiv::RangeException` "Invalid IpSocketOptions" and
  /// changes nothing.
  void stringValueIs(std::string_view text);
  friend std::ostream& operator<<(std::ostream& out, IpSocketOptions options) {
    return out << options.stringValue();
  }

 private:
  Kiv::U32 bits_;
};

}  // namespace Wirl
