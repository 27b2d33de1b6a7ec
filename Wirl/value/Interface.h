// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstring>

#include "Wirl/value/detail/Number.h"

namespace Wirl {

/// Index of a network interface, as the kernel numbers them in each namespace: from 1 on; 0 for none.
class KIV_API InterfaceIndex : public detail::Number<InterfaceIndex, Kiv::U32, 0x7fff'ffff> {
 public:
  static constexpr Kiv::ParseError kTrailingText = "Invalid InterfaceIndex";
  static constexpr Kiv::ParseError kTooLarge = "InterfaceIndex::value > 2147483647 not allowed";

  using Number::Number;
  constexpr explicit operator bool() const noexcept { return value_ != 0; }
};

/// Name of a network interface, as the kernel admits them: 1 to 15 octets, without slash, colon and white
/// space, and not "." or "..". Empty by default, for none. Ordered octet by octet.
class KIV_API InterfaceName : public detail::TextForms<InterfaceName> {
 public:
  static constexpr unsigned maxLength = 15;
  static constexpr unsigned kTextMax = maxLength;
  static constexpr Kiv::ParseError kTrailingText = "Invalid InterfaceName";
  static constexpr Kiv::ParseError kTooLong = "InterfaceName::value::bytes > 15 not allowed";

  constexpr InterfaceName() noexcept = default;
  /// Throws `Kiv::RangeException` for what the kernel does not admit.
  constexpr explicit InterfaceName(std::string_view text) { stringValueIs(text); }
  explicit InterfaceName(std::nullptr_t) = delete;

  constexpr std::string_view value() const noexcept {
    unsigned length = 0;
    while (length < maxLength && name_[length] != '\0') ++length;
    return {name_.data(), length};
  }
  /// With a NUL, as the kernel's calls want it.
  constexpr const char* cString() const noexcept { return name_.data(); }
  constexpr explicit operator bool() const noexcept { return name_[0] != '\0'; }

  /// Reads up to the first character that cannot be in a name.
  static constexpr Kiv::ParseError parse(std::string_view& text, InterfaceName& out) noexcept {
    std::size_t length = 0;
    while (length < text.size() && isOfName(text[length])) ++length;
    const std::string_view name = text.substr(0, length);
    if (name.empty() || name == "." || name == "..") return kTrailingText;
    if (length > maxLength) return kTooLong;
    out = InterfaceName();
    for (std::size_t i = 0; i < length; ++i) out.name_[i] = name[i];
    text.remove_prefix(length);
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    const std::string_view text = value();
    std::memcpy(out, name_.data(), text.size());
    out[text.size()] = '\0';
    return static_cast<unsigned>(text.size());
  }

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    Kiv::SeededHash hash(seed);
    for (const char c : value()) hash.add(static_cast<Kiv::U8>(c));
    return hash.value();
  }
  friend constexpr bool operator==(const InterfaceName&, const InterfaceName&) noexcept = default;
  friend constexpr std::strong_ordering operator<=>(const InterfaceName& a, const InterfaceName& b) noexcept {
    return a.value() <=> b.value();
  }
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const InterfaceName& name) {
    return log << Kiv::String(name.value());
  }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, InterfaceName& name) {
    Kiv::String text;
    log >> text;
    name = std::string_view(text).empty() ? InterfaceName() : InterfaceName(std::string_view(text));
    return log;
  }

 private:
  static constexpr bool isOfName(char c) noexcept {
    // The kernel's isspace() means white space of Latin-1.
    return c != '\0' && c != '/' && c != ':' && c != ' ' && (c < '\t' || c > '\r') && c != '\xa0';
  }

  std::array<char, maxLength + 1> name_{};  // NULs behind the name
};

static_assert(std::is_trivially_copyable_v<InterfaceName> && sizeof(InterfaceName) == 16);

}  // namespace Wirl

WIRL_STD_HASH(Wirl::InterfaceIndex)
WIRL_STD_HASH(Wirl::InterfaceName)
