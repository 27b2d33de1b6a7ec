// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpGenPrefix.h"

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

unsigned IpGenPrefixBase::writeText(char* out) const noexcept {
  const unsigned length = address_.writeText(out);
  return length + detail::writeNumber('/', len_, out + length);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpGenPrefixBase& value) {
  return log << value.ipGenAddr() << value.len();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpGenPrefix& value) {
  IpGenAddr address;
  Kiv::U32 len = 0;
  log >> address >> len;
  // Accept only what a constructor makes.
  switch (address.af()) {
    case AddressFamily::ipv4:
      value = Prefix(address.v4Addr(), len);
      break;
    case AddressFamily::ipv6:
      value = Ip6Prefix(address.v6Addr(), len);
      break;
    case AddressFamily::ipunknown:
      value = IpGenPrefix(address, len);
      break;
  }
  return log;
}

}  // namespace Wirl
