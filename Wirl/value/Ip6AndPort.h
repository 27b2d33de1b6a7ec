// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/value/Interface.h"
#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/detail/Number.h"

namespace Wirl {

/// The zone of an IPv6 address that is not unique without it (RFC 4007): the name or the index of an
/// interface. Default none. A text of digits is an index.
class KIV_API Ip6Zone : public detail::TextForms<Ip6Zone> {
 public:
  static constexpr unsigned kTextMax = InterfaceName::kTextMax;
  static constexpr Kiv::ParseError kTrailingText = "Invalid Ip6Zone";

  constexpr Ip6Zone() noexcept = default;
  constexpr explicit Ip6Zone(InterfaceIndex index) noexcept : index_(index) {}
  /// Throws `Kiv::RangeException` for a name of digits alone, which would read as an index, and for one with
  /// a bracket or a percent sign, which end the text of a zone.
  constexpr explicit Ip6Zone(const InterfaceName& name) : name_(name) {
    const std::string_view text = name.value();
    if (name &&
        (text.find_first_not_of("0123456789") == text.npos || text.find_first_of(kEnds) != text.npos)) {
      detail::throwRange(kTrailingText);
    }
  }
  /// From text; throws `Kiv::RangeException`.
  constexpr explicit Ip6Zone(std::string_view text) { stringValueIs(text); }
  explicit Ip6Zone(std::nullptr_t) = delete;

  constexpr explicit operator bool() const noexcept { return index_ || name_; }
  /// 0 where the zone has a name, or is none.
  constexpr InterfaceIndex index() const noexcept { return index_; }
  /// Empty where the zone has an index, or is none.
  constexpr const InterfaceName& name() const noexcept { return name_; }

  /// A zone's text ends before a bracket, so that it can stand inside brackets, and before a percent sign.
  static constexpr Kiv::ParseError parse(std::string_view& text, Ip6Zone& out) noexcept {
    const std::size_t end = std::min(text.find_first_of(kEnds), text.size());
    std::string_view front = text.substr(0, end);
    Ip6Zone zone;
    if (InterfaceName::parse(front, zone.name_)) return kTrailingText;
    if (zone.name_.value().find_first_not_of("0123456789") == std::string_view::npos) {
      std::string_view digits = zone.name_.value();
      InterfaceIndex index;
      if (InterfaceIndex::parse(digits, index) || !index) return kTrailingText;
      zone = Ip6Zone(index);
    }
    out = zone;
    text.remove_prefix(end - front.size());
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    return index_ ? index_.writeText(out) : name_.writeText(out);
  }

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(index_.hash()).add(name_.hash()).value();
  }
  friend constexpr auto operator<=>(const Ip6Zone&, const Ip6Zone&) noexcept = default;
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const Ip6Zone& zone) {
    return log << zone.index_ << zone.name_;
  }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6Zone& zone) {
    InterfaceIndex index;
    InterfaceName name;
    log >> index >> name;
    if (index && name) detail::throwRange(kTrailingText);
    zone = index ? Ip6Zone(index) : Ip6Zone(name);
    return log;
  }

 private:
  static constexpr std::string_view kEnds = "[]%";

  InterfaceIndex index_;
  InterfaceName name_;
};

/// An IPv6 address with a transport port, and a zone where the address needs one. Its text is that of RFC
/// 3986 and RFC 4007: [2001:db8::1]:179, [fe80::1%eth0]:179.
class KIV_API Ip6AndPort : public detail::TextForms<Ip6AndPort> {
 public:
  static constexpr unsigned kTextMax = Ip6Addr::kTextMax + Ip6Zone::kTextMax + 9;
  static constexpr Kiv::ParseError kTrailingText = "Invalid Ip6AndPort";

  constexpr Ip6AndPort() noexcept = default;
  constexpr Ip6AndPort(const Ip6Addr& ip, Kiv::U16 port, const Ip6Zone& zone = Ip6Zone()) noexcept
      : ip_(ip), port_(port), zone_(zone) {}
  /// From text; throws `Kiv::RangeException`.
  constexpr explicit Ip6AndPort(std::string_view text) { stringValueIs(text); }
  explicit Ip6AndPort(std::nullptr_t) = delete;

  constexpr const Ip6Addr& ip() const noexcept { return ip_; }
  /// In host order.
  constexpr Kiv::U16 port() const noexcept { return port_; }
  /// The zone of a link-local address; empty: none.
  constexpr const Ip6Zone& zone() const noexcept { return zone_; }

  static constexpr Kiv::ParseError parse(std::string_view& text, Ip6AndPort& out) noexcept {
    std::string_view rest = text;
    Ip6Addr ip;
    Ip6Zone zone;
    Kiv::U32 port = 0;
    if (!Kiv::takeLiteral(rest, "[")) return kTrailingText;
    if (const Kiv::ParseError error = Ip6Addr::parse(rest, ip)) return error;
    if (Kiv::takeLiteral(rest, "%")) {
      if (const Kiv::ParseError error = Ip6Zone::parse(rest, zone)) return error;
    }
    if (!Kiv::takeLiteral(rest, "]:") || !detail::takeNumber(rest, 0xffff, port)) return kTrailingText;
    out = Ip6AndPort(ip, static_cast<Kiv::U16>(port), zone);
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    char* at = out;
    *at++ = '[';
    at += ip_.writeText(at);
    if (zone_) {
      *at++ = '%';
      at += zone_.writeText(at);
    }
    *at++ = ']';
    *at++ = ':';
    at = detail::putDecimal(at, port_);
    *at = '\0';
    return static_cast<unsigned>(at - out);
  }

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(ip_.hash()).add(port_).add(zone_.hash()).value();
  }
  friend constexpr auto operator<=>(const Ip6AndPort&, const Ip6AndPort&) noexcept = default;
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const Ip6AndPort& value) {
    return log << value.ip_ << value.port_ << value.zone_;
  }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6AndPort& value) {
    Ip6AndPort read;
    log >> read.ip_ >> read.port_ >> read.zone_;
    value = read;
    return log;
  }

 private:
  Ip6Addr ip_;
  Kiv::U16 port_ = 0;
  Ip6Zone zone_;
};

static_assert(std::is_trivially_copyable_v<Ip6Zone> && sizeof(Ip6Zone) == 20);
static_assert(std::is_trivially_copyable_v<Ip6AndPort> && sizeof(Ip6AndPort) == 40);

}  // namespace Wirl

WIRL_STD_HASH(Wirl::Ip6Zone)
WIRL_STD_HASH(Wirl::Ip6AndPort)
