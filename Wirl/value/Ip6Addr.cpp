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

Kiv::ParseError Ip6Addr::parseFast(std::string_view& text, Ip6Addr& out) noexcept {
  const detail::Loadable chars(text);
  return parseOutlined(text, chars.text(), detail::ip6OutlineOf(chars.text()), out);
}

std::optional<Ip6Addr> Ip6Addr::fromTextFast(std::string_view text) noexcept {
  const detail::Loadable chars(text);
  return fromOutlined(text, chars.text(), detail::ip6OutlineOf(chars.text()));
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
  if (octet > Ip6AddrU8Key::max) detail::throwRange(Ip6AddrU8Key::kOutOfRange);
  value = octet;
  return log;
}

}  // namespace Wirl
