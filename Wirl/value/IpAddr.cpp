// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpAddr.h"

#include "Optra/Optra.h"

namespace Wirl {

bool IpAddr::isReserved() const noexcept {
  static const bool routable = Optra::getToggleState("Ipv4Routable240ClassE", "Wirl.json", false);
  return !routable && octets_[0] >= 240 && !isBroadcast();
}

Kiv::ParseError IpAddr::parse(std::string_view& text, IpAddr& out) noexcept {
  std::string_view rest = text;
  std::array<Kiv::U8, 4> octets;
  for (unsigned i = 0; i < 4; ++i) {
    Kiv::U64 octet = 0;
    if (i > 0 && !Kiv::takeLiteral(rest, ".")) return kTrailingText;
    if (!Kiv::takeDecimal(rest, 255, octet) || octet > 255) return kTrailingText;
    octets[i] = static_cast<Kiv::U8>(octet);
  }
  out.octets_ = octets;
  text = rest;
  return nullptr;
}

unsigned IpAddr::writeText(char* out) const noexcept {
  char* at = out;
  for (const unsigned octet : octets_) {
    if (octet >= 100) *at++ = static_cast<char>('0' + octet / 100);
    if (octet >= 10) *at++ = static_cast<char>('0' + octet / 10 % 10);
    *at++ = static_cast<char>('0' + octet % 10);
    *at++ = '.';
  }
  *--at = '\0';
  return static_cast<unsigned>(at - out);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, IpAddr value) {
  log.octetsIs(value.octets());
  return log;
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpAddr& value) {
  std::array<Kiv::U8, 4> octets;
  log.octets(octets);
  value = IpAddr(octets);
  return log;
}

}  // namespace Wirl
