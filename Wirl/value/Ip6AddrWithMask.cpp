// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6AddrWithMask.h"

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

namespace {

/// Reads a run of digits of at most 128 that no other character of an address follows.
bool takeLength(std::string_view& text, Kiv::U64& len) noexcept {
  std::string_view rest = text;
  if (!Kiv::takeDecimal(rest, 128, len) || len > 128) return false;
  if (rest.substr(0, 1).find_first_of("abcdefABCDEF:.") != rest.npos) return false;
  text = rest;
  return true;
}

}  // namespace

Kiv::ParseError Ip6AddrWithFullMask::parse(std::string_view& text, Ip6AddrWithFullMask& out) noexcept {
  std::string_view rest = text;
  Ip6Addr address;
  Ip6Addr mask;
  Kiv::U64 len = 0;
  if (const Kiv::ParseError error = Ip6Addr::parse(rest, address)) return error;
  if (!Kiv::takeLiteral(rest, "/")) return "Ip6AddrWithFullMask: mask expected";
  // No address is made of decimal digits alone, so a length cannot be taken for one.
  if (takeLength(rest, len)) {
    mask = Ip6Addr::maskOfLength(static_cast<unsigned>(len));
  } else if (const Kiv::ParseError error = Ip6Addr::parse(rest, mask)) {
    return error;
  }
  out = Ip6AddrWithFullMask(address, mask);
  text = rest;
  return nullptr;
}

unsigned Ip6AddrWithFullMask::writeText(char* out) const noexcept {
  const unsigned length = address_.writeText(out);
  const Ip6PrefixLen len = prefixLen();
  if (len != Ip6PrefixLen::invalid) return length + detail::writeNumber('/', len.value(), out + length);
  out[length] = '/';
  return length + 1 + mask_.writeText(out + length + 1);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const Ip6AddrWithFullMask& value) {
  return log << value.address() << value.mask();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6AddrWithFullMask& value) {
  Ip6Addr address;
  Ip6Addr mask;
  log >> address >> mask;
  value = Ip6AddrWithFullMask(address, mask);
  return log;
}

}  // namespace Wirl
