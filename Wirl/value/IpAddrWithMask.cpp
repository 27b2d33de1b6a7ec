// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpAddrWithMask.h"

#include <algorithm>

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

unsigned IpAddrWithMask::writeText(char* out) const noexcept {
  const unsigned length = address_.writeText(out);
  return length + detail::writeNumber('/', len_, out + length);
}

unsigned IpAddrWithFullMask::writeText(char* out) const noexcept {
  return detail::writeRepresentation(*this, out);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpAddrWithMask& value) {
  return log << value.address() << value.len();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpAddrWithMask& value) {
  IpAddr address;
  Kiv::U32 len = 0;
  log >> address >> len;
  value = IpAddrWithMask(address, len);
  return log;
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpAddrWithFullMask& value) {
  return log << value.address() << value.mask();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpAddrWithFullMask& value) {
  IpAddr address;
  Kiv::U32 mask = 0;
  log >> address >> mask;
  value = IpAddrWithFullMask(address, mask);
  return log;
}

}  // namespace Wirl
