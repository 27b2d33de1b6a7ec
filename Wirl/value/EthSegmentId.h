// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/value/EthAddr.h"
#include "Wirl/value/detail/Number.h"

namespace Wirl {

/// Ethernet segment identifier (RFC 7432): a type and nine octets. Default zero, a segment with one device.
/// Reads groups of hexadecimal digits as `EthAddr` does: ten octets joined by colons or by hyphens, or five
/// pairs by full stops.
class KIV_API EthSegmentId : public detail::Octets<EthSegmentId, 10> {
 public:
  static constexpr unsigned kTextMax = 29;
  static constexpr Kiv::ParseError kTrailingText = "Invalid EthSegmentId";

  using Octets::Octets;

  /// Type 1: the system's address and its LACP key. Type 3: the system's address and a number of 24 bits.
  static constexpr EthSegmentId ofLacp(const EthAddr& system, Kiv::U16 key) noexcept {
    return made(1, system, Kiv::U32{key} << 8);
  }
  /// Type 3: of a system's address and a number of 24 bits.
  static constexpr EthSegmentId ofSystem(const EthAddr& system, Kiv::U32 number) {
    if (number > 0xff'ffff) detail::throwRange("EthSegmentId::number > 16777215 not allowed");
    return made(3, system, number);
  }
  /// All ones, which no segment has.
  static constexpr EthSegmentId maximum() noexcept {
    EthSegmentId all;
    all.octets_.fill(0xff);
    return all;
  }

  constexpr Kiv::U8 type() const noexcept { return octets_[0]; }
  constexpr bool isZero() const noexcept { return *this == EthSegmentId(); }
  /// Whether all octets are 0xff.
  constexpr bool isMaximum() const noexcept { return *this == maximum(); }
  /// The system's address of types 1 and 3; of type 2 the root bridge's. Else zero.
  constexpr EthAddr system() const noexcept {
    EthAddr system;
    if (type() >= 1 && type() <= 3) system.copyFromBuffer(octets_.data() + 1);
    return system;
  }

  static constexpr Kiv::ParseError parse(std::string_view& text, EthSegmentId& out) noexcept {
    EthSegmentId read;
    const std::size_t length = detail::takeHexOctets(text, read.octets_.data(), 10);
    if (length == 0) return kTrailingText;
    out = read;
    text.remove_prefix(length);
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    constexpr char kDigits[] = "0123456789abcdef";
    for (unsigned i = 0; i < 10; ++i) {
      out[3 * i] = kDigits[octets_[i] >> 4];
      out[3 * i + 1] = kDigits[octets_[i] & 15];
      out[3 * i + 2] = i < 9 ? ':' : '\0';
    }
    return kTextMax;
  }

 private:
  static constexpr EthSegmentId made(Kiv::U8 type, const EthAddr& system, Kiv::U32 rest) noexcept {
    EthSegmentId made;
    made.octets_[0] = type;
    system.copyToBuffer(made.octets_.data() + 1);
    for (unsigned i = 0; i < 3; ++i) made.octets_[7 + i] = static_cast<Kiv::U8>(rest >> (16 - 8 * i));
    return made;
  }
};

static_assert(std::is_trivially_copyable_v<EthSegmentId> && sizeof(EthSegmentId) == 10);

}  // namespace Wirl

WIRL_STD_HASH(Wirl::EthSegmentId)
