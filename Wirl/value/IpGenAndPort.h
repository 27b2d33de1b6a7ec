// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <optional>

#include "Wirl/value/Ip6AndPort.h"
#include "Wirl/value/IpAndPort.h"
#include "Wirl/value/IpGenAddr.h"
#include "Wirl/value/detail/GenTextForms.h"

namespace Wirl {

/// An IPv4 or an IPv6 address with a transport port: 10.0.0.1:179, [2001:db8::1]:179. Default `ipunknown`
/// with port 0; that family prints as :: does.
class KIV_API IpGenAndPort : public detail::TextForms<IpGenAndPort> {
 public:
  static constexpr unsigned kTextMax = Ip6AndPort::kTextMax;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IpGenAndPort";

  constexpr IpGenAndPort() noexcept = default;
  constexpr IpGenAndPort(const IpAndPort& value) noexcept : ip_(value.ip()), port_(value.port()) {}
  constexpr IpGenAndPort(const Ip6AndPort& value) noexcept
      : ip_(value.ip()), port_(value.port()), zone_(value.zone()) {}
  constexpr IpGenAndPort(const IpGenAddr& ip, Kiv::U16 port) noexcept : ip_(ip), port_(port) {}
  /// From text; throws `Kiv::RangeException`.
  constexpr explicit IpGenAndPort(std::string_view text) { stringValueIs(text); }
  explicit IpGenAndPort(std::nullptr_t) = delete;

  constexpr AddressFamily af() const noexcept { return ip_.af(); }
  constexpr const IpGenAddr& ip() const noexcept { return ip_; }
  /// In host order.
  constexpr Kiv::U16 port() const noexcept { return port_; }
  /// None in IPv4.
  constexpr const Ip6Zone& zone() const noexcept { return zone_; }
  /// Of the family, else 0.0.0.0:0 and [::]:0.
  constexpr IpAndPort v4() const noexcept {
    return af() == AddressFamily::ipv4 ? IpAndPort(ip_.v4Addr(), port_) : IpAndPort();
  }
  constexpr Ip6AndPort v6() const noexcept {
    return af() == AddressFamily::ipv6 ? Ip6AndPort(ip_.v6Addr(), port_, zone_) : Ip6AndPort();
  }

  /// The socket address, and its length in `length`. Returns nothing for `ipunknown`, and for a zone that is
  /// a name: the kernel wants an index, and this class does not look it up.
  std::optional<sockaddr_storage> toSockaddr(socklen_t& length) const noexcept;
  /// Of a socket address of AF_INET or AF_INET6 with `length` octets; nothing for others and for too few
  /// octets.
  static std::optional<IpGenAndPort> fromSockaddr(const sockaddr_storage& address, socklen_t length) noexcept;

  static constexpr Kiv::ParseError parse(std::string_view& text, IpGenAndPort& out) noexcept {
    const auto read = [&](auto value) {
      const Kiv::ParseError error = decltype(value)::parse(text, value);
      if (!error) out = value;
      return error;
    };
    return text.starts_with('[') ? read(Ip6AndPort()) : read(IpAndPort());
  }
  unsigned writeText(char* out) const noexcept {
    return af() == AddressFamily::ipv4 ? v4().writeText(out)
                                       : Ip6AndPort(ip_.storage(), port_, zone_).writeText(out);
  }

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(ip_.hash()).add(port_).add(zone_.hash()).value();
  }
  friend constexpr auto operator<=>(const IpGenAndPort&, const IpGenAndPort&) noexcept = default;
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpGenAndPort& value) {
    return log << value.ip_ << value.port_ << value.zone_;
  }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpGenAndPort& value) {
    IpGenAndPort read;
    log >> read.ip_ >> read.port_ >> read.zone_;
    if (read.zone_ && read.af() != AddressFamily::ipv6) detail::throwRange(kTrailingText);
    value = read;
    return log;
  }

 private:
  IpGenAddr ip_;
  Kiv::U16 port_ = 0;
  Ip6Zone zone_;
};

static_assert(std::is_trivially_copyable_v<IpGenAndPort> && sizeof(IpGenAndPort) == 44);

}  // namespace Wirl

WIRL_STD_HASH(Wirl::IpGenAndPort)
