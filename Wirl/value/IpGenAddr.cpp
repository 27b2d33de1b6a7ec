// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpGenAddr.h"

namespace Wirl {

Kiv::String IpGenAddr::bytes() const {
  char octets[16];
  for (unsigned i = 0; i < size(); ++i) octets[i] = static_cast<char>(storage_.octets()[i]);
  return {octets, size()};
}

Kiv::ParseError IpGenAddr::parse(std::string_view& text, IpGenAddr& out) noexcept {
  const auto read = [&](auto address) {
    const Kiv::ParseError error = decltype(address)::parse(text, address);
    if (!error) out = address;
    return error;
  };
  switch (detail::familyOfText(text)) {
    case AddressFamily::ipv4:
      return read(IpAddr());
    case AddressFamily::ipv6:
      return read(Ip6Addr());
    case AddressFamily::ipunknown:
      break;
  }
  return kTrailingText;
}

std::optional<IpGenAddr> IpGenAddr::fromText(std::string_view text) noexcept {
  switch (detail::familyOfText(text)) {
    case AddressFamily::ipv4:
      return IpAddr::fromText(text);
    case AddressFamily::ipv6:
      return Ip6Addr::fromText(text);
    case AddressFamily::ipunknown:
      break;
  }
  return std::nullopt;
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
