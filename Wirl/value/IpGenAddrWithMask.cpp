// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpGenAddrWithMask.h"

#include <charconv>

#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

Kiv::ParseError IpGenAddrWithMask::parse(std::string_view& text, IpGenAddrWithMask& out) noexcept {
  std::string_view rest = text;
  IpGenAddr address;
  Kiv::U64 len = 0;
  if (const Kiv::ParseError error = IpGenAddr::parse(rest, address)) return error;
  if (const Kiv::ParseError error = detail::takePrefixLength(rest, len)) return error;
  if (const Kiv::ParseError error = checkLen(address, len)) return error;
  out.address_ = address;
  out.len_ = static_cast<Kiv::U32>(len);
  text = rest;
  return nullptr;
}

unsigned IpGenAddrWithMask::writeText(char* out) const noexcept {
  const unsigned length = address_.writeText(out);
  return length + detail::writeNumber('/', len_, out + length);
}

namespace {

/// What the parts of a text are refused with.
struct Refusals {
  Kiv::ParseError address;
  Kiv::ParseError mask;
  Kiv::ParseError noLength;  // neither a mask nor a number
  Kiv::ParseError badLength;
};

bool isHexDigit(char c) noexcept {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/// Whether a colon or full stop is in front of the text, or behind hexadecimal digits there.
bool startsAsAddress(std::string_view text) noexcept {
  for (const char c : text) {
    if (!isHexDigit(c)) return c == ':' || c == '.';
  }
  return false;
}

template <typename Address>
Kiv::ParseError takeWithFullMask(std::string_view& text, const Refusals& refusals, unsigned maxLen,
                                 IpGenAddrWithFullMask& out) noexcept {
  std::string_view rest = text;
  Address address;
  if (Address::parse(rest, address)) return refusals.address;
  if (!Kiv::takeLiteral(rest, "/") || rest.empty()) return detail::kLenExpected;
  if (startsAsAddress(rest)) {
    Address mask;
    if (Address::parse(rest, mask)) return refusals.mask;
    out = IpGenAddrWithFullMask(address, mask);
  } else {
    Kiv::U64 len = 0;
    if (!Kiv::takeDecimal(rest, maxLen, len)) return refusals.noLength;
    if (len > maxLen) return refusals.badLength;
    out = IpGenAddrWithFullMask(address, static_cast<unsigned>(len));
  }
  text = rest;
  return nullptr;
}

}  // namespace

Kiv::ParseError IpGenAddrWithFullMask::parse(std::string_view& text, IpGenAddrWithFullMask& out) noexcept {
  constexpr Refusals kV4 = {"Invalid IPv4 address", "Invalid IPv4 mask", "Invalid IPv4 prefix",
                            "Invalid IPv4 prefix length"};
  constexpr Refusals kV6 = {"Invalid IPv6 address", "Invalid IPv6 mask", "Invalid IPv6 prefix",
                            "Invalid IPv6 prefix"};
  switch (detail::familyOfText(text)) {
    case AddressFamily::ipv4:
      return takeWithFullMask<IpAddr>(text, kV4, 32, out);
    case AddressFamily::ipv6:
      return takeWithFullMask<Ip6Addr>(text, kV6, 128, out);
    case AddressFamily::ipunknown:
      break;
  }
  return kTrailingText;
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

Kiv::ParseError IpGenAddrWithFullMask::PrefixLen::parse(std::string_view& text, PrefixLen& out) noexcept {
  std::string_view rest = text;
  const bool negative = Kiv::takeLiteral(rest, "-");
  Kiv::U64 value = 0;
  if (!Kiv::takeDecimal(rest, max, value)) return kTrailingText;
  if (value > (negative ? 1 : max)) return kOutOfRange;
  out.value_ = negative ? -static_cast<Kiv::S32>(value) : static_cast<Kiv::S32>(value);
  text = rest;
  return nullptr;
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
