// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/value/IpAddr.h"
#include "Wirl/value/detail/Number.h"

namespace Wirl {

namespace detail {

/// A number of 32 bits that is written as an IPv4 address, and read as one or in decimal.
template <typename T>
class DottedNumber : public Number<T, Kiv::U32> {
 public:
  static constexpr unsigned kTextMax = IpAddr::kTextMax;

  using Number<T, Kiv::U32>::Number;

  static constexpr Kiv::ParseError parse(std::string_view& text, T& out) noexcept {
    IpAddr dotted;
    if (IpAddr::parse(text, dotted)) return Number<T, Kiv::U32>::parse(text, out);
    out = T(dotted.hostOrder());
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept { return IpAddr::fromHostOrder(this->value_).writeText(out); }
};

}  // namespace detail

/// OSPF area (RFC 2328), as 0.0.0.1; also read as 1.
class KIV_API OspfAreaId : public detail::DottedNumber<OspfAreaId> {
 public:
  static constexpr Kiv::ParseError kTrailingText = "Invalid OspfAreaId";
  static constexpr Kiv::ParseError kTooLarge = "OspfAreaId::value > 4294967295 not allowed";

  using DottedNumber::DottedNumber;

  /// 0.0.0.0, which joins all others.
  constexpr bool isBackbone() const noexcept { return value_ == 0; }
};

/// Router identifier of OSPF (RFC 2328) and BGP (RFC 6286), as 192.0.2.1; also read in decimal. Default
/// 0.0.0.0, which no router has.
class KIV_API RouterId : public detail::DottedNumber<RouterId> {
 public:
  static constexpr Kiv::ParseError kTrailingText = "Invalid RouterId";
  static constexpr Kiv::ParseError kTooLarge = "RouterId::value > 4294967295 not allowed";

  using DottedNumber::DottedNumber;
  /// The same number as an address has.
  constexpr explicit RouterId(IpAddr address) noexcept : DottedNumber(address.hostOrder()) {}

  constexpr explicit operator bool() const noexcept { return value_ != 0; }
};

static_assert(std::is_trivially_copyable_v<OspfAreaId> && sizeof(OspfAreaId) == 4);
static_assert(std::is_trivially_copyable_v<RouterId> && sizeof(RouterId) == 4);

}  // namespace Wirl

WIRL_STD_HASH(Wirl::OspfAreaId)
WIRL_STD_HASH(Wirl::RouterId)
