// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Prefix.h"

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

unsigned Prefix::writeText(char* out) const noexcept {
  const unsigned length = address_.writeText(out);
  return length + detail::writeNumber('/', len_, out + length);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const Prefix& value) {
  return log << value.address() << value.len();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Prefix& value) {
  IpAddr address;
  Kiv::U32 len = 0;
  log >> address >> len;
  value = Prefix(address, len);
  return log;
}

}  // namespace Wirl
