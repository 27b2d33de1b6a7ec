// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/value/ValueRange.h"
#include "Wirl/value/detail/Number.h"

namespace Wirl {

/// Port of UDP, TCP or SCTP, in host order.
class KIV_API Port : public detail::Number<Port, Kiv::U16> {
 public:
  static constexpr Kiv::ParseError kTrailingText = "Invalid Port";
  static constexpr Kiv::ParseError kTooLarge = "Port::value > 65535 not allowed";

  using Number::Number;

  /// 49152 to 65535 (RFC 6335), for whoever asks for any port.
  constexpr bool isDynamic() const noexcept { return value_ >= 49152; }
};

/// Ports from a first to a last one, both included: as 1024-2047, or 80 alone. Default 0. Ordered by the
/// first, then by the last port.
class KIV_API PortRange : public detail::TextForms<PortRange> {
 public:
  static constexpr unsigned kTextMax = 11;
  static constexpr Kiv::ParseError kTrailingText = "Invalid PortRange";
  static constexpr Kiv::ParseError kOrder = "PortRange::first > PortRange::last not allowed";

  constexpr PortRange() noexcept = default;
  constexpr explicit PortRange(Port port) noexcept : first_(port), last_(port) {}
  /// A first port above the last one throws `Kiv::RangeException`.
  constexpr PortRange(Port first, Port last) : first_(first), last_(last) {
    if (first > last) detail::throwRange(kOrder);
  }
  /// From text; throws `Kiv::RangeException`.
  constexpr explicit PortRange(std::string_view text) { stringValueIs(text); }
  explicit PortRange(std::nullptr_t) = delete;

  constexpr Port first() const noexcept { return first_; }
  constexpr Port last() const noexcept { return last_; }
  constexpr unsigned size() const noexcept { return last_.value() - first_.value() + 1u; }
  constexpr bool contains(Port port) const noexcept { return first_ <= port && port <= last_; }
  constexpr bool contains(const PortRange& other) const noexcept {
    return contains(other.first_) && contains(other.last_);
  }
  constexpr bool overlaps(const PortRange& other) const noexcept {
    return contains(other.first_) || other.contains(first_);
  }

  static constexpr Kiv::ParseError parse(std::string_view& text, PortRange& out) noexcept {
    std::string_view rest = text;
    PortRange read;
    if (const Kiv::ParseError error = Port::parse(rest, read.first_)) return error;
    read.last_ = read.first_;
    if (Kiv::takeLiteral(rest, "-")) {
      if (const Kiv::ParseError error = Port::parse(rest, read.last_)) return error;
    }
    if (read.first_ > read.last_) return kOrder;
    out = read;
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    char* at = detail::putDecimal(out, first_.value());
    if (first_ != last_) {
      *at++ = '-';
      at = detail::putDecimal(at, last_.value());
    }
    *at = '\0';
    return static_cast<unsigned>(at - out);
  }

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(first_.value()).add(last_.value()).value();
  }
  friend constexpr auto operator<=>(const PortRange&, const PortRange&) noexcept = default;
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const PortRange& ports) {
    return log << ports.first_ << ports.last_;
  }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, PortRange& ports) {
    Port first;
    Port last;
    log >> first >> last;
    ports = PortRange(first, last);
    return log;
  }

 private:
  Port first_;
  Port last_;
};

static_assert(std::is_trivially_copyable_v<PortRange> && sizeof(PortRange) == 4);

}  // namespace Wirl

WIRL_STD_HASH(Wirl::Port)
WIRL_STD_HASH(Wirl::PortRange)
