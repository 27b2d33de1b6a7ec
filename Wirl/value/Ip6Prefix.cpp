// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6Prefix.h"

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl::detail {

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
