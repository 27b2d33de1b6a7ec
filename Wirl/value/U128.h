// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Wirl/value/detail/StdHash.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

/// An unsigned number of 128 bits, for distances between IPv6 addresses and counts of them. Arithmetic is
/// modulo 2^128, as that of the built-in unsigned types is modulo their size. Its text is the decimal number.
class KIV_API U128 : public detail::TextForms<U128> {
 public:
  static constexpr unsigned kTextMax = 39;
  static constexpr Kiv::ParseError kTrailingText = "Invalid U128";

  constexpr U128() noexcept = default;
  /// A negative number counts modulo 2^128.
  template <std::integral T>
  requires(sizeof(T) <= sizeof(Kiv::U64))  // a wider one would lose its upper half
      constexpr U128(T low) noexcept
      : high_(std::signed_integral<T> && low < T{} ? ~Kiv::U64{0} : 0), low_(static_cast<Kiv::U64>(low)) {}
  /// Of its two halves.
  constexpr U128(Kiv::U64 high, Kiv::U64 low) noexcept : high_(high), low_(low) {}
  /// From its decimal number; throws `Kiv::RangeException`.
  constexpr explicit U128(std::string_view text) { stringValueIs(text); }
  explicit U128(std::nullptr_t) = delete;

  /// 2^exponent, or 0 for 128 and more.
  static constexpr U128 powerOfTwo(unsigned exponent) noexcept { return U128(1) << exponent; }

  constexpr Kiv::U64 high() const noexcept { return high_; }
  constexpr Kiv::U64 low() const noexcept { return low_; }

  friend constexpr U128 operator+(const U128& a, const U128& b) noexcept {
    const Kiv::U64 low = a.low_ + b.low_;
    return U128(a.high_ + b.high_ + (low < a.low_ ? 1 : 0), low);
  }
  friend constexpr U128 operator-(const U128& a, const U128& b) noexcept {
    return U128(a.high_ - b.high_ - (a.low_ < b.low_ ? 1 : 0), a.low_ - b.low_);
  }
  friend constexpr U128 operator&(const U128& a, const U128& b) noexcept {
    return U128(a.high_ & b.high_, a.low_ & b.low_);
  }
  friend constexpr U128 operator|(const U128& a, const U128& b) noexcept {
    return U128(a.high_ | b.high_, a.low_ | b.low_);
  }
  friend constexpr U128 operator~(const U128& a) noexcept { return U128(~a.high_, ~a.low_); }
  /// 0 where `count` is 128 or more.
  friend constexpr U128 operator<<(const U128& a, unsigned count) noexcept {
    if (count >= 128) return U128();
    if (count >= 64) return U128(a.low_ << (count - 64), 0);
    if (count == 0) return a;
    return U128(a.high_ << count | a.low_ >> (64 - count), a.low_ << count);
  }
  friend constexpr U128 operator>>(const U128& a, unsigned count) noexcept {
    if (count >= 128) return U128();
    if (count >= 64) return U128(0, a.high_ >> (count - 64));
    if (count == 0) return a;
    return U128(a.high_ >> count, a.high_ << (64 - count) | a.low_ >> count);
  }
  constexpr U128& operator+=(const U128& other) noexcept { return *this = *this + other; }
  constexpr U128& operator-=(const U128& other) noexcept { return *this = *this - other; }
  constexpr U128& operator&=(const U128& other) noexcept { return *this = *this & other; }
  constexpr U128& operator|=(const U128& other) noexcept { return *this = *this | other; }
  constexpr U128& operator<<=(unsigned count) noexcept { return *this = *this << count; }
  constexpr U128& operator>>=(unsigned count) noexcept { return *this = *this >> count; }
  friend constexpr auto operator<=>(const U128&, const U128&) noexcept = default;

  /// Number of zero bits behind the last one that is set; 128 for 0.
  constexpr unsigned trailingZeros() const noexcept {
    return static_cast<unsigned>(low_ != 0 ? std::countr_zero(low_) : 64 + std::countr_zero(high_));
  }
  /// Number of zero bits in front of the first one that is set; 128 for 0.
  constexpr unsigned leadingZeros() const noexcept {
    return static_cast<unsigned>(high_ != 0 ? std::countl_zero(high_) : 64 + std::countl_zero(low_));
  }

  static constexpr Kiv::ParseError parse(std::string_view& text, U128& out) noexcept {
    U128 value;
    std::size_t count = 0;
    for (; count < text.size() && text[count] >= '0' && text[count] <= '9'; ++count) {
      const U128 digit = text[count] - '0';
      const U128 tenfold = (value << 3) + (value << 1);
      // 10 times a number below 2^125 fits, and so does a digit more.
      if (value.leadingZeros() < 3 || tenfold < (value << 3) || tenfold + digit < tenfold) {
        return kTooLarge;
      }
      value = tenfold + digit;
    }
    if (count == 0) return kTrailingText;
    out = value;
    text.remove_prefix(count);
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    Kiv::SeededHash hash(seed);
    for (const Kiv::U64 half : {high_, low_}) {
      hash.add(static_cast<Kiv::U32>(half >> 32)).add(static_cast<Kiv::U32>(half));
    }
    return hash.value();
  }

 private:
  static constexpr Kiv::ParseError kTooLarge = "U128::value > 2^128 - 1 not allowed";

  Kiv::U64 high_ = 0;
  Kiv::U64 low_ = 0;
};

static_assert(std::is_trivially_copyable_v<U128> && sizeof(U128) == 16);

/// As two 64-bit numbers, the more significant first.
KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const U128& value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, U128& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::U128> {
  std::size_t operator()(const Wirl::U128& value) const noexcept {
    return Wirl::detail::stdHash(value.high(), value.low());
  }
};
