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

unsigned Ip6Addr::writeText(char* out) const noexcept {
  if (isV4MappedV6()) {
    std::memcpy(out, "::ffff:", 7);
    return 7 + IpAddr(octets_[12], octets_[13], octets_[14], octets_[15]).writeText(out + 7);
  }
  return detail::writeIp6Groups(octets_, out);
}

Kiv::String Ip6Addr::stringValueExpanded() const {
  constexpr char kDigits[] = "0123456789abcdef";
  char text[8 * 5];
  char* at = text;
  for (unsigned i = 0; i < 16; ++i) {
    *at++ = kDigits[octets_[i] >> 4];
    *at++ = kDigits[octets_[i] & 15];
    if (i % 2 != 0) *at++ = ':';
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
