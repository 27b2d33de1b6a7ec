// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6Addr.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "Wirl/value/IpAddr.h"
#include "Wirl/value/detail/Ip6Text.h"

namespace Wirl {

using detail::Ip6Outline;
using Kiv::U16;
using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

namespace {

constexpr Kiv::ParseError kTooManyColons = "Ip6Addr: too many colons";
constexpr Kiv::ParseError kLeadingColon = "Ip6Addr: leading hex digit expected";
constexpr Kiv::ParseError kDigitExpected = "Ip6Addr: hex digit expected";
constexpr Kiv::ParseError kTooManyDigits = "Ip6Addr: too many consecutive hex digits";
constexpr Kiv::ParseError kColonExpected = "Ip6Addr: ':' expected";
constexpr Kiv::ParseError kSecondGap = "Ip6Addr: only one '::' allowed";
constexpr Kiv::ParseError kIncomplete = "Ip6Addr: incomplete ipv6 address";
constexpr Kiv::ParseError kOutOfRange = "Ip6AddrU8Key::value < 0 or > 15 not allowed";

constexpr unsigned kNowhere = ~0u;

/// Whether exactly three bits are set.
constexpr bool isThree(U64 bits) noexcept {
  const auto withoutLowest = [](U64 b) { return b & (b - 1); };
  const U64 last = withoutLowest(withoutLowest(bits));
  return last != 0 && withoutLowest(last) == 0;
}

/// The value of the `digits` (1 to 4) hexadecimal digits at `at`, in a text of at least four characters.
inline U32 groupValue(std::string_view text, unsigned at, unsigned digits) noexcept {
  // Four characters that hold the group; the first one in the lowest octet.
  const std::size_t from = std::min<std::size_t>(at, text.size() - 4);
  const auto octet = [&](unsigned i) { return U32{static_cast<U8>(text[from + i])} << 8 * i; };
  U32 chars = octet(0) | octet(1) | octet(2) | octet(3);
  // The group's last digit goes to the highest octet, zeros come in below its first one.
  chars = chars >> 8 * (at - from) << 8 * (4 - digits);
  const U32 nibbles = (chars & 0x0f0f0f0f) + (chars >> 6 & 0x01010101) * 9;
  const U32 pairs = (nibbles << 4 | nibbles >> 8) & 0x00ff00ff;
  return (pairs & 0xff) << 8 | pairs >> 16;
}

/// Number of bits set; for machines without an instruction for it better than what the compilers call.
constexpr unsigned bitCount(U64 bits) noexcept {
  bits -= bits >> 1 & 0x5555'5555'5555'5555;
  bits = (bits & 0x3333'3333'3333'3333) + (bits >> 2 & 0x3333'3333'3333'3333);
  bits = (bits + (bits >> 4)) & 0x0f0f'0f0f'0f0f'0f0f;
  return static_cast<unsigned>(bits * 0x0101'0101'0101'0101 >> 56);
}

constexpr bool isSet(U64 bits, unsigned i) noexcept {
  return (bits >> i & 1) != 0;
}

/// Goes through a text that is no address from left to right and finds what is wrong with it. The number of
/// colons comes first, wherever they are.
Kiv::ParseError refusal(std::string_view text, const Ip6Outline& outline, unsigned dottedAt) noexcept {
  const U64 colons = outline.colons;
  unsigned separators = dottedAt == kNowhere ? 0 : 1;
  for (U64 left = colons; left != 0; ++separators) {
    const U64 colon = left & (~left + 1);
    left &= ~(colon | colon << 1);  // two in a row count as one
  }
  if (separators > 7) return kTooManyColons;
  bool gap = isSet(colons, 0);
  if (gap && !isSet(colons, 1)) return kLeadingColon;
  const U64 stops = colons | outline.dots | U64{1} << outline.length;
  for (unsigned at = gap ? 2 : 0; at != dottedAt;) {
    const auto end = static_cast<unsigned>(std::countr_zero(stops >> at)) + at;
    const unsigned digits = end - at;
    if (digits == 0) return isSet(colons, end) && isSet(colons, end + 1) ? kSecondGap : kDigitExpected;
    if (digits > 4) return kTooManyDigits;  // and four of them fit a group whatever they are
    if (end == outline.length) return kIncomplete;
    if (!isSet(colons, end)) return kColonExpected;
    at = end + 1;
    if (isSet(colons, at)) {
      if (gap) return kSecondGap;
      gap = true;
      ++at;
    }
  }
  text = text.substr(dottedAt, outline.length - dottedAt);
  IpAddr v4;
  const Kiv::ParseError error = IpAddr::parse(text, v4);
  return error || !text.empty() ? IpAddr::kTrailingText : kIncomplete;
}

/// A text, or a copy with NULs behind it where it has less than the four characters that a load needs.
class Loadable {
 public:
  explicit Loadable(std::string_view text) noexcept : text_(text) {
    if (text.size() >= sizeof(short_)) [[likely]]
      return;
    for (std::size_t i = 0; i < text.size(); ++i) short_[i] = text[i];
    text_ = {short_, sizeof(short_)};
  }
  Loadable(const Loadable&) = delete;
  Loadable& operator=(const Loadable&) = delete;

  std::string_view text() const noexcept { return text_; }

 private:
  char short_[4] = {};
  std::string_view text_;
};

/// Reads the address that an outline is of; false when it is none. Sets `dottedAt` where its dotted part
/// begins if it has one.
inline bool read(std::string_view text, const Ip6Outline& outline, unsigned& dottedAt,
                 std::array<U8, 16>& octets) noexcept {
  const U64 colons = outline.colons;
  unsigned end = outline.length;  // of the hexadecimal groups
  U64 dots = outline.dots;
  IpAddr v4;
  if (dots != 0) {
    const auto behindColons = static_cast<unsigned>(64 - std::countl_zero(colons));
    if (isThree(dots >> behindColons)) {
      std::string_view rest = text.substr(behindColons, end - behindColons);
      dottedAt = behindColons;
      if (!IpAddr::parse(rest, v4) && rest.empty()) {
        end = dottedAt;
        dots &= (U64{1} << dottedAt) - 1;
      }
    }
  }
  // The form as a whole is checked on the sets of colons and digits, without a branch for each group.
  const bool dotted = dottedAt != kNowhere;
  const U64 gaps = colons & colons >> 1;  // a colon that another one follows
  const U64 runs = colons & ~(colons << 1);
  const unsigned leading = static_cast<unsigned>(colons & 1);
  const unsigned trailing = end > 0 && !dotted ? static_cast<unsigned>(colons >> (end - 1) & 1) : 0;
  const unsigned separators = bitCount(runs) + (dotted ? 1 : 0);
  const unsigned count = separators + 1 - leading - trailing;
  const U64 digits = ~colons & ((U64{1} << end) - 1);
  const U64 twoDigits = digits & digits >> 1;
  const bool edges = leading > (gaps & 1) || (trailing != 0 && (end < 2 || !isSet(gaps, end - 2)));
  if (dots != 0 || (gaps & (gaps - 1)) != 0 || edges || (twoDigits & twoDigits >> 2 & digits >> 4) != 0 ||
      separators > 7 || (gaps == 0 && count != 8)) {
    return false;
  }
  const unsigned missing = 8 - count;
  octets = {};
  U64 ends = runs | U64{1} << end;
  unsigned index = 0;
  unsigned at = 0;
  if (leading != 0) {
    ends &= ends - 1;
    index = missing;
    at = 2;
  }
  for (unsigned left = dotted ? count - 2 : count; left > 0; --left) {
    const auto groupEnd = static_cast<unsigned>(std::countr_zero(ends));
    const U32 group = groupValue(text, at, groupEnd - at);
    octets[2 * index] = static_cast<U8>(group >> 8);
    octets[2 * index + 1] = static_cast<U8>(group);
    const unsigned gap = static_cast<unsigned>(gaps >> groupEnd & 1);
    ends &= ends - 1;
    at = groupEnd + 1 + gap;
    index += 1 + (gap != 0 ? missing : 0);
  }
  if (dotted) v4.copyToBuffer(octets.data() + 12);
  return true;
}

}  // namespace

Kiv::ParseError Ip6Addr::parse(std::string_view& text, Ip6Addr& out) noexcept {
  const Loadable chars(text);
  const Ip6Outline outline = detail::ip6OutlineOf(chars.text());
  unsigned dottedAt = kNowhere;
  if (!read(chars.text(), outline, dottedAt, out.octets_)) [[unlikely]]
    return refusal(chars.text(), outline, dottedAt);
  text.remove_prefix(outline.length);
  return nullptr;
}

std::optional<Ip6Addr> Ip6Addr::fromText(std::string_view text) noexcept {
  const Loadable chars(text);
  const Ip6Outline outline = detail::ip6OutlineOf(chars.text());
  unsigned dottedAt = kNowhere;
  std::optional<Ip6Addr> address(std::in_place);
  if (outline.length != text.size() || !read(chars.text(), outline, dottedAt, address->octets_))
    address.reset();
  return address;
}

namespace {

/// By the set of groups that are zero, the groups that "::" stands for: the longest run of them, the first of
/// equal ones, and none of a single group. Bit i is group i.
constexpr auto kGaps = [] {
  std::array<U8, 256> gaps{};
  for (unsigned zeros = 0; zeros < 256; ++zeros) {
    unsigned longest = 1;
    for (unsigned begin = 0; begin < 8; ++begin) {
      unsigned size = 0;
      while (begin + size < 8 && (zeros >> (begin + size) & 1) != 0) ++size;
      if (size > longest) {
        longest = size;
        gaps[zeros] = static_cast<U8>(((1u << size) - 1) << begin);
      }
    }
  }
  return gaps;
}();

/// Writes the first `count` octets of `value`, the lowest first.
template <unsigned count>
void putOctets(char* out, U32 value) noexcept {
  for (unsigned i = 0; i < count; ++i) out[i] = static_cast<char>(value >> 8 * i);
}

}  // namespace

unsigned Ip6Addr::writeText(char* out) const noexcept {
  char* at = out;
  if (isV4MappedV6()) {
    std::memcpy(at, "::ffff:", 7);
    return 7 + IpAddr(octets_[12], octets_[13], octets_[14], octets_[15]).writeText(at + 7);
  }
  // No branch depends on the address: which groups have how many digits cannot be predicted. Each group is
  // written as four characters of which as many count as it has digits, and one in the gap goes nowhere.
  const detail::Ip6Hex text = detail::ip6HexOf(octets_);
  const U32 gap = kGaps[text.zeros];
  const U32 colons = ~gap | (gap & (~gap + 1));  // the gap has one of its own
  char nowhere[4];
  const auto shown = [gap](unsigned i) { return (gap >> i & 1) == 0; };
  const auto leadingZeros = [&](unsigned i) {
    return static_cast<unsigned>(std::countr_zero(text.significant >> 4 * i));
  };
  const auto digits = [&](unsigned i) {
    const auto octet = [&](unsigned k) { return U32{static_cast<U8>(text.digits[4 * i + k])} << 8 * k; };
    return (octet(0) | octet(1) | octet(2) | octet(3)) >> 8 * leadingZeros(i);
  };
  *at = ':';
  at += gap & 1;
  for (unsigned i = 0; i < 7; ++i) {
    putOctets<4>(shown(i) ? at : nowhere, digits(i));
    at += shown(i) ? 4 - leadingZeros(i) : 0;
    *at = ':';
    at += colons >> i & 1;
  }
  // The last one must not reach beyond the NUL: a second pair of characters over the first or behind it.
  const unsigned size = 4 - leadingZeros(7);
  putOctets<2>(shown(7) ? at : nowhere, digits(7));
  putOctets<2>(shown(7) ? at + size / 2 : nowhere, digits(7) >> 8 * (size / 2));
  at += shown(7) ? size : 0;
  *at = '\0';
  return static_cast<unsigned>(at - out);
}

Kiv::String Ip6Addr::stringValueExpanded() const {
  char text[8 * 5];
  const detail::Ip6Hex hex = detail::ip6HexOf(octets_);
  for (unsigned i = 0; i < 8; ++i) {
    std::memcpy(text + 5 * i, hex.digits.data() + 4 * i, 4);
    text[5 * i + 4] = ':';
  }
  return {text, sizeof(text) - 1};
}

void Ip6Addr::stringValueExpandedIs(std::string_view text) {
  if (text == "::") detail::throwRange("Ip6Addr: address is not expanded");
  stringValueIs(text);
}

void Ip6Addr::u8Del(unsigned) {
  throw Kiv::NondeletableAttrException("Ip6Addr::u8");
}

void Ip6Addr::u16Del(unsigned) {
  throw Kiv::NondeletableAttrException("Ip6Addr::u16");
}

void Ip6Addr::u64Del(unsigned) {
  throw Kiv::NondeletableAttrException("Ip6Addr::u64");
}

Ip6Addr Ip6Addr::validLlUnicastAddress() const {
  if (!isLinkLocalUnicast2()) detail::throwRange("Not an address that belongs to subnet fe80::/10");
  return Ip6Addr(0xfe80'0000'0000'0000, low());
}

void Ip6AddrFromString(Ip6Addr& out, Kiv::String::IteratorConst& pos, const Kiv::String::IteratorConst& end) {
  std::string_view text(pos, static_cast<std::size_t>(end - pos));
  if (const Kiv::ParseError error = Ip6Addr::parse(text, out)) detail::throwRange(error);
  pos = end - text.size();
}

Ip6Addr ip6LinkLocalFromMac(const EthAddr& mac) noexcept {
  const auto& m = mac.octets();
  return Ip6Addr(std::array<U8, 16>{0xfe, 0x80, 0, 0, 0, 0, 0, 0, static_cast<U8>(m[0] ^ 0x02), m[1], m[2],
                                    0xff, 0xfe, m[3], m[4], m[5]});
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const Ip6Addr& value) {
  log.octetsIs(value.octets());
  return log;
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6Addr& value) {
  std::array<U8, 16> octets;
  log.octets(octets);
  value = Ip6Addr(octets);
  return log;
}

Kiv::ParseError Ip6AddrU8Key::parse(std::string_view& text, Ip6AddrU8Key& out) noexcept {
  std::string_view rest = text;
  U64 value = 0;
  if (!Kiv::takeDecimal(rest, max, value)) return kTrailingText;
  if (value > max) return kOutOfRange;
  out = static_cast<U8>(value);
  text = rest;
  return nullptr;
}

unsigned Ip6AddrU8Key::writeText(char* out) const noexcept {
  char* const end = std::to_chars(out, out + kTextMax, value_).ptr;
  *end = '\0';
  return static_cast<unsigned>(end - out);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, Ip6AddrU8Key value) {
  return log << value.value();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6AddrU8Key& value) {
  U8 octet = 0;
  log >> octet;
  if (octet > Ip6AddrU8Key::max) detail::throwRange(kOutOfRange);
  value = octet;
  return log;
}

}  // namespace Wirl
