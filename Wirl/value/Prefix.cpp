// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Prefix.h"

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

Kiv::ParseError Prefix::parse(std::string_view& text, Prefix& out) noexcept {
  std::string_view rest = text;
  IpAddr address;
  Kiv::U64 len = 0;
  if (const Kiv::ParseError error = IpAddr::parse(rest, address)) return error;
  if (const Kiv::ParseError error = detail::takePrefixLength(rest, len)) return error;
  // The marker of no length is no length that a text may name.
  if (len > 32 || !validAsPrefix(address, static_cast<Kiv::U32>(len))) return kTrailingText;
  out.address_ = address;
  out.len_ = static_cast<Kiv::U32>(len);
  text = rest;
  return nullptr;
}

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
