// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpGenAddrWithMask.h"

#include <charconv>

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

unsigned IpGenAddrWithMask::writeText(char* out) const noexcept {
  const unsigned length = address_.writeText(out);
  return length + detail::writeNumber('/', len_, out + length);
}

unsigned IpGenAddrWithFullMask::writeText(char* out) const noexcept {
  const unsigned length = address_.writeText(out);
  const Kiv::S32 len = prefixLen().value();
  if (len != PrefixLen::invalid) {
    return length + detail::writeNumber('/', static_cast<Kiv::U32>(len), out + length);
  }
  out[length] = '/';
  return length + 1 + mask_.writeText(out + length + 1);
}

unsigned IpGenAddrWithFullMask::PrefixLen::writeText(char* out) const noexcept {
  char* const end = std::to_chars(out, out + kTextMax, value_).ptr;
  *end = '\0';
  return static_cast<unsigned>(end - out);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, IpGenAddrWithFullMask::PrefixLen value) {
  return log << value.value();
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpGenAddrWithMask& value) {
  return log << value.ipGenAddr() << value.len();
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpGenAddrWithFullMask& value) {
  return log << value.address() << value.mask();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpGenAddrWithFullMask::PrefixLen& value) {
  Kiv::S32 len = 0;
  log >> len;
  value = IpGenAddrWithFullMask::PrefixLen(len);
  return log;
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpGenAddrWithMask& value) {
  IpGenAddr address;
  Kiv::U32 len = 0;
  log >> address >> len;
  value = IpGenAddrWithMask(address, len);
  return log;
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpGenAddrWithFullMask& value) {
  IpGenAddr address;
  IpGenAddr mask;
  log >> address >> mask;
  value = IpGenAddrWithFullMask(address, mask);
  return log;
}

}  // namespace Wirl
