// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpAndPort.h"

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

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
