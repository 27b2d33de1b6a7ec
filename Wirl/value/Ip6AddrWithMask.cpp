// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6AddrWithMask.h"

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

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
