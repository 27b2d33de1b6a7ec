// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <span>

#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpProtocolNumber.h"

namespace Wirl::detail {

/// Walks the extension headers of an IPv6 datagram (RFC 8200 section 4), one a step; every step takes 8 bytes
/// or more.
class Ip6Chain {
 public:
  static constexpr U32 kUnit = 8;

  /// `datagram` begins with the IPv6 header and ends where its payload does, or where there are no more
  /// bytes.
  explicit Ip6Chain(std::span<const U8> datagram) noexcept : datagram_(datagram) {
    next_ = datagram[kNextAt];
  }

  /// What is at `at()`: an extension header, as long as `step` goes over it, or the upper layer.
  U8 next() const noexcept { return next_; }
  U32 at() const noexcept { return at_; }
  /// Where the octet is that says what is here.
  U32 saidAt() const noexcept { return saidAt_; }

  bool atExtension() const noexcept {
    switch (next_) {
      case ipProtoIpv6HopByHop:
      case ipProtoIpv6Route:
      case ipProtoIpv6Frag:
      case ipProtoIpv6Opts:
      case ipProtoAh:
        return true;
      default:
        return false;
    }
  }
  /// Over an extension header; false where it is not there whole.
  bool step() noexcept {
    const std::size_t left = datagram_.size() - at_;
    if (left < kUnit) return false;
    const U8* const hdr = &datagram_[at_];
    const U32 bytes = next_ == ipProtoAh         ? (hdr[1] + 2u) * 4
                      : next_ == ipProtoIpv6Frag ? kUnit
                                                 : (hdr[1] + 1u) * kUnit;
    if (bytes > left || bytes < kUnit) return false;
    next_ = hdr[0];
    saidAt_ = at_;
    at_ += bytes;
    return true;
  }
  /// At a fragment header that is there: whether it says that more fragments belong to the datagram.
  bool isPart() const noexcept { return (U32{datagram_[at_ + 2]} << 8 | (datagram_[at_ + 3] & 0xf9u)) != 0; }

 private:
  static constexpr U32 kNextAt = 6;

  std::span<const U8> datagram_;
  U32 at_ = sizeof(Ip6Hdr);
  U32 saidAt_ = kNextAt;
  U8 next_;
};

}  // namespace Wirl::detail
