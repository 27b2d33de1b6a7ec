// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <string_view>

#include "Kiv/Representation.h"
#include "Kiv/Types.h"
#include "Wirl/value/detail/PlainText.h"

namespace Wirl::detail {

// The grammar of IPv6 addresses. First the outline of a text is found, with vector instructions where the
// machine has them. All further work is on its sets of characters.

enum Ip6Kind : Kiv::U8 { kIp6Foreign = 0, kIp6Colon = 1, kIp6Dot = 2, kIp6Digit = 4 };

inline constexpr auto kIp6Kinds = [] {
  std::array<Kiv::U8, 256> kinds{};
  for (const char c : std::string_view("0123456789abcdefABCDEF")) kinds[static_cast<Kiv::U8>(c)] = kIp6Digit;
  kinds[':'] = kIp6Colon;
  kinds['.'] = kIp6Dot;
  return kinds;
}();

/// The characters at the front of a text that can belong to an IPv6 address: hexadecimal digits, colons and
/// full stops, 45 at most. Bit i stands for character i.
struct Ip6Outline {
  unsigned length = 0;
  Kiv::U64 colons = 0;
  Kiv::U64 dots = 0;
};

inline constexpr std::size_t kIp6Scanned = 45;  // the longest address

/// Of a text of at least four characters.
constexpr Ip6Outline ip6OutlineLoop(std::string_view text) noexcept {
  Ip6Outline outline;
  const std::size_t size = std::min(text.size(), kIp6Scanned);
  Kiv::U64 bit = 1;
  for (; outline.length < size; ++outline.length, bit <<= 1) {
    const Kiv::U8 kind = kIp6Kinds[static_cast<Kiv::U8>(text[outline.length])];
    if (kind == kIp6Foreign) break;
    if (kind == kIp6Colon) outline.colons |= bit;
    if (kind == kIp6Dot) outline.dots |= bit;
  }
  return outline;
}

inline constexpr Kiv::ParseError kIp6TooManyColons = "Ip6Addr: too many colons";
inline constexpr Kiv::ParseError kIp6LeadingColon = "Ip6Addr: leading hex digit expected";
inline constexpr Kiv::ParseError kIp6DigitExpected = "Ip6Addr: hex digit expected";
inline constexpr Kiv::ParseError kIp6TooManyDigits = "Ip6Addr: too many consecutive hex digits";
inline constexpr Kiv::ParseError kIp6ColonExpected = "Ip6Addr: ':' expected";
inline constexpr Kiv::ParseError kIp6SecondGap = "Ip6Addr: only one '::' allowed";
inline constexpr Kiv::ParseError kIp6Incomplete = "Ip6Addr: incomplete ipv6 address";

inline constexpr unsigned kNowhere = ~0u;

/// Whether exactly three bits are set.
constexpr bool isThree(Kiv::U64 bits) noexcept {
  const auto withoutLowest = [](Kiv::U64 b) { return b & (b - 1); };
  const Kiv::U64 last = withoutLowest(withoutLowest(bits));
  return last != 0 && withoutLowest(last) == 0;
}

/// The value of the `digits` (1 to 4) hexadecimal digits at `at`, in a text of at least four characters.
constexpr Kiv::U32 groupValue(std::string_view text, unsigned at, unsigned digits) noexcept {
  // Four characters that hold the group; the first one in the lowest octet.
  const std::size_t from = std::min<std::size_t>(at, text.size() - 4);
  const auto octet = [&](unsigned i) { return Kiv::U32{static_cast<Kiv::U8>(text[from + i])} << 8 * i; };
  Kiv::U32 chars = octet(0) | octet(1) | octet(2) | octet(3);
  // The group's last digit goes to the highest octet, zeros come in below its first one.
  chars = chars >> 8 * (at - from) << 8 * (4 - digits);
  const Kiv::U32 nibbles = (chars & 0x0f0f0f0f) + (chars >> 6 & 0x01010101) * 9;
  const Kiv::U32 pairs = (nibbles << 4 | nibbles >> 8) & 0x00ff00ff;
  return (pairs & 0xff) << 8 | pairs >> 16;
}

/// Number of bits set. Faster than the library function that compilers call on machines without an
/// instruction.
constexpr unsigned bitCount(Kiv::U64 bits) noexcept {
  bits -= bits >> 1 & 0x5555'5555'5555'5555;
  bits = (bits & 0x3333'3333'3333'3333) + (bits >> 2 & 0x3333'3333'3333'3333);
  bits = (bits + (bits >> 4)) & 0x0f0f'0f0f'0f0f'0f0f;
  return static_cast<unsigned>(bits * 0x0101'0101'0101'0101 >> 56);
}

constexpr bool isSet(Kiv::U64 bits, unsigned i) noexcept {
  return (bits >> i & 1) != 0;
}

/// Finds the error in a text that is not an address, from left to right. Too many colons are reported before
/// anything else, wherever they are.
constexpr Kiv::ParseError ip6Refusal(std::string_view text, const Ip6Outline& outline,
                                     unsigned dottedAt) noexcept {
  const Kiv::U64 colons = outline.colons;
  unsigned separators = dottedAt == kNowhere ? 0 : 1;
  for (Kiv::U64 left = colons; left != 0; ++separators) {
    const Kiv::U64 colon = left & (~left + 1);
    left &= ~(colon | colon << 1);  // two in a row count as one
  }
  if (separators > 7) return kIp6TooManyColons;
  bool gap = isSet(colons, 0);
  if (gap && !isSet(colons, 1)) return kIp6LeadingColon;
  const Kiv::U64 stops = colons | outline.dots | Kiv::U64{1} << outline.length;
  for (unsigned at = gap ? 2 : 0; at != dottedAt;) {
    const auto end = static_cast<unsigned>(std::countr_zero(stops >> at)) + at;
    const unsigned digits = end - at;
    if (digits == 0) return isSet(colons, end) && isSet(colons, end + 1) ? kIp6SecondGap : kIp6DigitExpected;
    if (digits > 4) return kIp6TooManyDigits;  // and four of them fit a group whatever they are
    if (end == outline.length) return kIp6Incomplete;
    if (!isSet(colons, end)) return kIp6ColonExpected;
    at = end + 1;
    if (isSet(colons, at)) {
      if (gap) return kIp6SecondGap;
      gap = true;
      ++at;
    }
  }
  text = text.substr(dottedAt, outline.length - dottedAt);
  return takeDottedLoop(text).length != text.size() ? "Invalid IpAddr" : kIp6Incomplete;
}

/// A text of at least four characters, which a load needs: a shorter one is copied and filled with NULs.
class Loadable {
 public:
  constexpr explicit Loadable(std::string_view text) noexcept : text_(text) {
    if (text.size() >= sizeof(short_)) [[likely]]
      return;
    for (std::size_t i = 0; i < text.size(); ++i) short_[i] = text[i];
    text_ = {short_, sizeof(short_)};
  }
  Loadable(const Loadable&) = delete;
  Loadable& operator=(const Loadable&) = delete;

  constexpr std::string_view text() const noexcept { return text_; }

 private:
  char short_[4] = {};
  std::string_view text_;
};

/// Reads the address with the given outline; returns false if it is not an address. If it has a dotted part,
/// sets `dottedAt` to its beginning.
constexpr bool readIp6(std::string_view text, const Ip6Outline& outline, unsigned& dottedAt,
                       std::array<Kiv::U8, 16>& octets) noexcept {
  const Kiv::U64 colons = outline.colons;
  unsigned end = outline.length;  // of the hexadecimal groups
  Kiv::U64 dots = outline.dots;
  Taken v4{0, 0};
  if (dots != 0) {
    const auto behindColons = static_cast<unsigned>(64 - std::countl_zero(colons));
    if (isThree(dots >> behindColons)) {
      const std::string_view part = text.substr(behindColons, end - behindColons);
      dottedAt = behindColons;
      v4 = takeDottedLoop(part);
      if (v4.length == part.size()) {
        end = dottedAt;
        dots &= (Kiv::U64{1} << dottedAt) - 1;
      }
    }
  }
  // The form as a whole is checked on the sets of colons and digits, without a branch for each group.
  const bool dotted = dottedAt != kNowhere;
  const Kiv::U64 gaps = colons & colons >> 1;  // a colon that another one follows
  const Kiv::U64 runs = colons & ~(colons << 1);
  const unsigned leading = static_cast<unsigned>(colons & 1);
  const unsigned trailing = end > 0 && !dotted ? static_cast<unsigned>(colons >> (end - 1) & 1) : 0;
  const unsigned separators = bitCount(runs) + (dotted ? 1 : 0);
  const unsigned count = separators + 1 - leading - trailing;
  const Kiv::U64 digits = ~colons & ((Kiv::U64{1} << end) - 1);
  const Kiv::U64 twoDigits = digits & digits >> 1;
  const bool edges = leading > (gaps & 1) || (trailing != 0 && (end < 2 || !isSet(gaps, end - 2)));
  if (dots != 0 || (gaps & (gaps - 1)) != 0 || edges || (twoDigits & twoDigits >> 2 & digits >> 4) != 0 ||
      separators > 7 || (gaps == 0 && count != 8)) {
    return false;
  }
  const unsigned missing = 8 - count;
  octets = {};
  Kiv::U64 ends = runs | Kiv::U64{1} << end;
  unsigned index = 0;
  unsigned at = 0;
  if (leading != 0) {
    ends &= ends - 1;
    index = missing;
    at = 2;
  }
  for (unsigned left = dotted ? count - 2 : count; left > 0; --left) {
    const auto groupEnd = static_cast<unsigned>(std::countr_zero(ends));
    const Kiv::U32 group = groupValue(text, at, groupEnd - at);
    octets[2 * index] = static_cast<Kiv::U8>(group >> 8);
    octets[2 * index + 1] = static_cast<Kiv::U8>(group);
    const unsigned gap = static_cast<unsigned>(gaps >> groupEnd & 1);
    ends &= ends - 1;
    at = groupEnd + 1 + gap;
    index += 1 + (gap != 0 ? missing : 0);
  }
  for (unsigned i = 0; dotted && i < 4; ++i) octets[12 + i] = static_cast<Kiv::U8>(v4.octets >> 8 * i);
  return true;
}

}  // namespace Wirl::detail
