// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <compare>
#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Kiv/Representation.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/Prefix.h"
#include "Wirl/value/detail/PrefixLength.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

/// An interface's IPv4 address with its mask length. Keeps host bits and accepts any length.
class KIV_API IpAddrWithMask : public detail::TextForms<IpAddrWithMask> {
 public:
  static constexpr unsigned kTextMax = Prefix::kTextMax;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IpAddrWithMask";

  constexpr IpAddrWithMask() noexcept = default;
  constexpr IpAddrWithMask(IpAddr address, Kiv::U32 len) noexcept : address_(address), len_(len) {}
  /// From text as 10.1.2.3/24; throws `Kiv::RangeException`.
  constexpr explicit IpAddrWithMask(std::string_view text) { stringValueIs(text); }
  explicit IpAddrWithMask(std::nullptr_t) = delete;

  constexpr IpAddr address() const noexcept { return address_; }
  constexpr Kiv::U32 len() const noexcept { return len_; }

  /// The network that the address is in; a length that no prefix has throws `Kiv::RangeException`.
  constexpr Prefix subnet() const { return Prefix(address_.maskedByLength(len_), len_); }
  /// Whether the address is in the same network; never with a length above 32.
  constexpr bool contains(IpAddr address) const noexcept {
    return len_ <= 32 && address.longestCommonPrefix(address_) >= len_;
  }

  /// An address, a slash, the length in decimal; a length above 2^32 - 1 is taken as that.
  static constexpr Kiv::ParseError parse(std::string_view& text, IpAddrWithMask& out) noexcept {
    std::string_view rest = text;
    IpAddr address;
    Kiv::U64 len = 0;
    if (const Kiv::ParseError error = IpAddr::parse(rest, address)) return error;
    if (const Kiv::ParseError error = detail::takePrefixLength(rest, len)) return error;
    out = IpAddrWithMask(address, static_cast<Kiv::U32>(std::min<Kiv::U64>(len, 0xffff'ffff)));
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(address_.hash()).add(len_).value();
  }
  friend constexpr auto operator<=>(const IpAddrWithMask&, const IpAddrWithMask&) noexcept = default;

 private:
  IpAddr address_;
  Kiv::U32 len_ = 0;
};

/// An IPv4 address with a mask of any bit pattern, as a number whose most significant bit goes with the first
/// bit of the address.
class KIV_API IpAddrWithFullMask : public detail::TextForms<IpAddrWithFullMask> {
 public:
  static constexpr Kiv::ParseError kTrailingText = "Invalid IpAddrWithFullMask";
  static constexpr auto representation() {
    return Kiv::representation("Wirl::IpAddrWithFullMask", kTrailingText,
                               Kiv::field("address", &IpAddrWithFullMask::address_),
                               Kiv::field("mask", &IpAddrWithFullMask::mask_));
  }
  static constexpr unsigned kTextMax = 86;

  constexpr IpAddrWithFullMask() noexcept = default;
  constexpr IpAddrWithFullMask(IpAddr address, Kiv::U32 mask) noexcept : address_(address), mask_(mask) {}
  /// From the text representation; throws `Kiv::RangeException`.
  constexpr explicit IpAddrWithFullMask(std::string_view text) { stringValueIs(text); }
  explicit IpAddrWithFullMask(std::nullptr_t) = delete;

  constexpr IpAddr address() const noexcept { return address_; }
  constexpr Kiv::U32 mask() const noexcept { return mask_; }

  static constexpr Kiv::ParseError parse(std::string_view& text, IpAddrWithFullMask& out) noexcept {
    return Kiv::parseRepresentation(text, out);
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(address_.hash()).add(mask_).value();
  }
  friend constexpr auto operator<=>(const IpAddrWithFullMask&, const IpAddrWithFullMask&) noexcept = default;

 private:
  IpAddr address_;
  Kiv::U32 mask_ = 0;
};

static_assert(std::is_trivially_copyable_v<IpAddrWithMask> && sizeof(IpAddrWithMask) == 8);
static_assert(std::is_trivially_copyable_v<IpAddrWithFullMask> && sizeof(IpAddrWithFullMask) == 8);
static_assert(IpAddrWithFullMask::kTextMax == detail::representationMax<IpAddrWithFullMask>());

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpAddrWithMask& value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpAddrWithMask& value);
KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpAddrWithFullMask& value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpAddrWithFullMask& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::IpAddrWithMask> {
  std::size_t operator()(const Wirl::IpAddrWithMask& value) const noexcept { return value.hash(); }
};
template <>
struct std::hash<Wirl::IpAddrWithFullMask> {
  std::size_t operator()(const Wirl::IpAddrWithFullMask& value) const noexcept { return value.hash(); }
};
