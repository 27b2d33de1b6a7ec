// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6PrefixLen.h"

#include <charconv>

namespace Wirl {

unsigned Ip6PrefixLen::writeText(char* out) const noexcept {
  char* const end = std::to_chars(out, out + kTextMax, value_).ptr;
  *end = '\0';
  return static_cast<unsigned>(end - out);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, Ip6PrefixLen value) {
  return log << value.value();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6PrefixLen& value) {
  Kiv::U8 octet = 0;
  log >> octet;
  value = Ip6PrefixLen(octet);
  return log;
}

}  // namespace Wirl
