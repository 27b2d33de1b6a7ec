// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Kiv/Representation.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

/// An IPv4 address with a transport port. Its `stringValue` is short, as 10.0.0.1:179; streams, as all
/// composite values, get the text representation. Text is read in either form.
class KIV_API IpAndPort : public detail::TextForms<IpAndPort> {
 public:
  static constexpr unsigned kTextMax = IpAddr::kTextMax + 6;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IpAndPort";
  static constexpr auto representation() {
    return Kiv::representation("Wirl::IpAndPort", kTrailingText, Kiv::field("ip", &IpAndPort::ip_),
                               Kiv::field("port", &IpAndPort::port_));
  }

  constexpr IpAndPort() noexcept = default;
  constexpr IpAndPort(IpAddr ip, Kiv::U16 port) noexcept : ip_(ip), port_(port) {}
  /// From either text form; throws `Kiv::RangeException`.
  constexpr explicit IpAndPort(std::string_view text) { stringValueIs(text); }
  explicit IpAndPort(std::nullptr_t) = delete;

  constexpr IpAddr ip() const noexcept { return ip_; }
  /// In host order.
  constexpr Kiv::U16 port() const noexcept { return port_; }

  static constexpr Kiv::ParseError parse(std::string_view& text, IpAndPort& out) noexcept {
    if (text.starts_with("Value(")) return Kiv::parseRepresentation(text, out);
    std::string_view rest = text;
    IpAddr ip;
    Kiv::U64 port = 0;
    if (const Kiv::ParseError error = IpAddr::parse(rest, ip)) return error;
    if (!Kiv::takeLiteral(rest, ":") || !Kiv::takeDecimal(rest, 0xffff, port) || port > 0xffff) {
      return kTrailingText;
    }
    out = IpAndPort(ip, static_cast<Kiv::U16>(port));
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(ip_.hash()).add(port_).value();
  }
  friend constexpr auto operator<=>(const IpAndPort&, const IpAndPort&) noexcept = default;

 private:
  IpAddr ip_;
  Kiv::U16 port_ = 0;
};

static_assert(std::is_trivially_copyable_v<IpAndPort> && sizeof(IpAndPort) == 6);

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpAndPort& value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpAndPort& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::IpAndPort> {
  std::size_t operator()(const Wirl::IpAndPort& value) const noexcept { return value.hash(); }
};
