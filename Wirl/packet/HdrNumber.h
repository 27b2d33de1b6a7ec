// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <compare>
#include <concepts>
#include <functional>
#include <limits>
#include <ostream>
#include <string_view>

#include "Kiv/Hash.h"
#include "Kiv/Representation.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

namespace detail {

/// Text as a template argument.
template <std::size_t Size>
struct FixedText {
  char text[Size];
  constexpr FixedText(const char (&literal)[Size]) { std::copy_n(literal, Size, text); }
  constexpr std::string_view view() const { return {text, Size - 1}; }
};

/// Pieces of text in one constant, NUL-terminated.
template <FixedText... pieces>
struct Joined {
  static constexpr auto array = [] {
    std::array<char, (pieces.view().size() + ... + 1)> joined{};
    char* at = joined.data();
    ((at = std::copy(pieces.view().begin(), pieces.view().end(), at)), ...);
    return joined;
  }();
  static constexpr const char* text = array.data();
};

/// What composite values of headers offer besides their `value()`: the framework's representation as text,
/// and a hash.
template <typename T>
class CompositeForms {
 public:
  Kiv::String stringValue() const { return Kiv::representationOf(static_cast<const T&>(*this)); }
  /// Throws `Kiv::RangeException` with the reason, and changes nothing, for a text that is none.
  void stringValueIs(std::string_view text) { Kiv::representationIs(static_cast<T&>(*this), text); }
  friend std::ostream& operator<<(std::ostream& out, const T& value) { return out << value.stringValue(); }
  constexpr Kiv::U32 hash() const noexcept { return Kiv::hashMix(static_cast<const T&>(*this).value()); }
  friend constexpr auto operator<=>(const CompositeForms&, const CompositeForms&) noexcept = default;
};

/// `std::hash` of a type that hashes itself.
template <typename T>
struct HashOfItself {
  std::size_t operator()(const T& value) const noexcept { return value.hash(); }
};

}  // namespace detail

/// The number in a header's field of `Bits` bits, with the name of the field as its type. Reads as a number;
/// a number that is put in is cut to the field. Its text is the number in decimal; a text with a larger one
/// is refused.
template <detail::FixedText Name, std::unsigned_integral Int,
          unsigned Bits = std::numeric_limits<Int>::digits>
class HdrNumber : public detail::TextForms<HdrNumber<Name, Int, Bits>> {
 public:
  static constexpr Int maxValue =
      static_cast<Int>(std::numeric_limits<Int>::max() >> (std::numeric_limits<Int>::digits - Bits));
  static constexpr unsigned kTextMax = std::numeric_limits<Int>::digits10 + 1;
  static constexpr Kiv::ParseError kTrailingText = detail::Joined<"Invalid ", Name>::text;
  static constexpr Kiv::ParseError kTooLarge = detail::Joined<Name, "::value is larger than its field">::text;

  constexpr HdrNumber() noexcept = default;
  constexpr explicit HdrNumber(Int value) noexcept : value_(static_cast<Int>(value & maxValue)) {}

  constexpr operator Int() const noexcept { return value_; }  ///< The number.
  constexpr Int value() const noexcept { return value_; }

  static Kiv::ParseError parse(std::string_view& text, HdrNumber& out) noexcept {
    Kiv::U64 value = 0;
    std::string_view rest = text;
    if (!Kiv::takeDecimal(rest, maxValue, value)) return kTrailingText;
    if (value > maxValue) return kTooLarge;
    out.value_ = static_cast<Int>(value);
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    char* const end = std::to_chars(out, out + kTextMax, Kiv::U32{value_}).ptr;
    *end = '\0';
    return static_cast<unsigned>(end - out);
  }

  constexpr Kiv::U32 hash() const noexcept { return Kiv::hashMix(value_); }
  friend constexpr auto operator<=>(const HdrNumber&, const HdrNumber&) noexcept = default;

 private:
  Int value_ = 0;
};

}  // namespace Wirl

template <Wirl::detail::FixedText Name, typename Int, unsigned Bits>
struct std::hash<Wirl::HdrNumber<Name, Int, Bits>>
    : Wirl::detail::HashOfItself<Wirl::HdrNumber<Name, Int, Bits>> {};
