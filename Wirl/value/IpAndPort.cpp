// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpAndPort.h"

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

Kiv::ParseError IpAndPort::parse(std::string_view& text, IpAndPort& out) noexcept {
  if (text.starts_with("Value(")) return Kiv::parseRepresentation(text, out);
  std::string_view rest = text;
  IpAddr ip;
  Kiv::U64 port = 0;
  if (const Kiv::ParseError error = IpAddr::parse(rest, ip)) return error;
  if (!Kiv::takeLiteral(rest, ":") || !Kiv::takeDecimal(rest, 0xffff, port) || port > 0xffff) {
    return kTrailingText;
  }
  out = IpAndPort(ip, static_cast<Kiv::U16>(port));
  text = rest;
  return nullptr;
}

unsigned IpAndPort::writeText(char* out) const noexcept {
  const unsigned length = ip_.writeText(out);
  return length + detail::writeNumber(':', port_, out + length);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpAndPort& value) {
  return log << value.ip() << value.port();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpAndPort& value) {
  IpAddr ip;
  Kiv::U16 port = 0;
  log >> ip >> port;
  value = IpAndPort(ip, port);
  return log;
}

}  // namespace Wirl
