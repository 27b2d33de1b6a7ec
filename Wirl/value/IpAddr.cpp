// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpAddr.h"

#include "Optra/Optra.h"
#include "Wirl/value/detail/DottedText.h"

namespace Wirl {

bool IpAddr::isReserved() const noexcept {
  static const bool routable = Optra::getToggleState("Ipv4Routable240ClassE", "Wirl.json", false);
  return !routable && octets_[0] >= 240 && !isBroadcast();
}

detail::Taken IpAddr::takeFast(std::string_view text, detail::Extent extent) noexcept {
  return detail::takeDotted(text, extent);
}

unsigned IpAddr::writeText(char* out) const noexcept {
  return detail::writeDotted(octets_, out);
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
