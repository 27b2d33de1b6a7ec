// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpGenAddr.h"

namespace Wirl {

Kiv::String IpGenAddr::bytes() const {
  char octets[16];
  for (unsigned i = 0; i < size(); ++i) octets[i] = static_cast<char>(storage_.octets()[i]);
  return {octets, size()};
}

unsigned IpGenAddr::writeText(char* out) const noexcept {
  return isV4() ? v4Addr().writeText(out) : storage_.writeText(out);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpGenAddr& value) {
  return log << value.af() << value.storage();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpGenAddr& value) {
  AddressFamily af{};
  Ip6Addr storage;
  log >> af >> storage;
  IpGenAddr read(af);
  if (af == AddressFamily::ipv4) {
    read = IpAddr::fromHostOrder(static_cast<Kiv::U32>(storage.u64(0) >> 32));
  } else if (af == AddressFamily::ipv6) {
    read = storage;
  }
  if (read.storage() != storage) detail::throwRange(IpGenAddr::kTrailingText);
  value = read;
  return log;
}

}  // namespace Wirl
