// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6Prefix.h"

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl::detail {

Kiv::ParseError takeIp6AddrAndLen(std::string_view& text, Ip6Addr& address, Kiv::U32& len) noexcept {
  std::string_view rest = text;
  Ip6Addr parsed;
  Kiv::U64 parsedLen = 0;
  if (const Kiv::ParseError error = Ip6Addr::parse(rest, parsed)) return error;
  if (!Kiv::takeLiteral(rest, "/") || !Kiv::takeDecimal(rest, 128, parsedLen)) {
    return kIp6LenExpected;
  }
  if (parsedLen > 128) return "Ip6AddrWithMask: prefix too long";
  address = parsed;
  len = static_cast<Kiv::U32>(parsedLen);
  text = rest;
  return nullptr;
}

unsigned writeIp6AddrAndLen(const Ip6Addr& address, Kiv::U32 len, char* out) noexcept {
  const unsigned length = address.writeText(out);
  return length + writeNumber('/', len, out + length);
}

void logIp6AddrAndLen(Kiv::NboAttrLog& log, const Ip6Addr& address, Kiv::U32 len) {
  log << address << len;
}

void readIp6AddrAndLen(Kiv::NboAttrLog& log, Ip6Addr& address, Kiv::U32& len) {
  log >> address >> len;
}

}  // namespace Wirl::detail
