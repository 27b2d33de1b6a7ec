// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Wirl/value/detail/PlainText.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

/// Index of an octet of an `Eui64`, 0 to 7.
class KIV_API Eui64U8Key : public detail::TextForms<Eui64U8Key> {
 public:
  static constexpr Kiv::U8 max = 7;
  static constexpr unsigned kTextMax = 3;
  static constexpr Kiv::ParseError kTrailingText = "Invalid Eui64U8Key";

  constexpr Eui64U8Key() noexcept = default;
  /// Accepts any number; one that does not fit an octet becomes 255. Using an index above 7 ends the process.
  template <std::integral T>
  constexpr Eui64U8Key(T value) noexcept
      : value_(std::in_range<Kiv::U8>(value) ? static_cast<Kiv::U8>(value) : Kiv::U8{0xff}) {}
  /// From its decimal number; throws `Kiv::RangeException`.
  constexpr explicit Eui64U8Key(std::string_view text) { stringValueIs(text); }
  explicit Eui64U8Key(std::nullptr_t) = delete;

  constexpr Kiv::U8 value() const noexcept { return value_; }

  static constexpr Kiv::ParseError parse(std::string_view& text, Eui64U8Key& out) noexcept {
    Kiv::U64 value = 0;
    std::string_view rest = text;
    if (!Kiv::takeDecimal(rest, max, value)) return kTrailingText;
    if (value > max) return "Eui64U8Key::value < 0 or > 7 not allowed";
    out = static_cast<Kiv::U8>(value);
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return Kiv::hashMix(value_); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept { return Kiv::SeededHash(seed).add(value_).value(); }
  friend constexpr auto operator<=>(Eui64U8Key, Eui64U8Key) noexcept = default;

 private:
  Kiv::U8 value_ = 0;
};

/// EUI-64 identifier (IEEE): eight octets in wire order.
class KIV_API Eui64 : public detail::TextForms<Eui64> {
 public:
  static constexpr unsigned kTextMax = 23;
  static constexpr Kiv::ParseError kTrailingText = "Invalid Eui64";

  constexpr Eui64() noexcept = default;
  /// Octets in wire order.
  constexpr explicit Eui64(const std::array<Kiv::U8, 8>& octets) noexcept : octets_(octets) {}
  /// From any of the text forms that `parse` reads; throws `Kiv::RangeException`.
  constexpr explicit Eui64(std::string_view text) { stringValueIs(text); }
  explicit Eui64(std::nullptr_t) = delete;

  /// Octet `i`, in the order of the wire.
  Kiv::U8 byte(Eui64U8Key i) const noexcept { return octets_[checked(i)]; }
  void byteIs(Eui64U8Key i, Kiv::U8 octet) noexcept { octets_[checked(i)] = octet; }
  void byteDel(Eui64U8Key i) noexcept { octets_[checked(i)] = 0; }
  void byteDelAll() noexcept { octets_ = {}; }

  /// Octets 2i and 2i+1 as a number, i < 4; else throws `Kiv::RangeException`.
  Kiv::U16 word(unsigned i) const;
  void wordIs(unsigned i, Kiv::U16 word);
  [[noreturn]] void wordDel(unsigned i);

  constexpr const std::array<Kiv::U8, 8>& octets() const noexcept { return octets_; }

  /// Eight groups of hexadecimal digits joined by colons or by hyphens, or four joined by full stops.
  static constexpr Kiv::ParseError parse(std::string_view& text, Eui64& out) noexcept {
    std::array<Kiv::U8, 8> octets{};
    const std::size_t length = detail::takeHexOctets(text, octets.data(), 8);
    // The message names EthAddr on purpose: the two types share one grammar.
    if (length == 0) [[unlikely]]
      return "Invalid EthAddr";
    out.octets_ = octets;
    text.remove_prefix(length);
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    Kiv::SeededHash hash(seed);
    for (unsigned i = 0; i < 8; i += 4) {
      hash.add(Kiv::U32{octets_[i]} << 24 | Kiv::U32{octets_[i + 1]} << 16 | Kiv::U32{octets_[i + 2]} << 8 |
               octets_[i + 3]);
    }
    return hash.value();
  }
  friend constexpr auto operator<=>(const Eui64&, const Eui64&) noexcept = default;

 private:
  static unsigned checked(Eui64U8Key i) noexcept {
    KIV_ASSERT_AS(i.value() <= Eui64U8Key::max, "Eui64::byte: index <= Eui64U8Key::max");
    return i.value();
  }

  std::array<Kiv::U8, 8> octets_{};
};

static_assert(std::is_trivially_copyable_v<Eui64> && sizeof(Eui64) == 8 && alignof(Eui64) == 1);
static_assert(std::is_trivially_copyable_v<Eui64U8Key> && sizeof(Eui64U8Key) == 1);

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const Eui64& value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Eui64& value);
KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, Eui64U8Key value);
/// An octet above 7 throws `Kiv::RangeException`.
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Eui64U8Key& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::Eui64> {
  std::size_t operator()(const Wirl::Eui64& value) const noexcept { return value.hash(); }
};
template <>
struct std::hash<Wirl::Eui64U8Key> {
  std::size_t operator()(Wirl::Eui64U8Key value) const noexcept { return value.hash(); }
};
