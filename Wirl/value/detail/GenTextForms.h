// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include "Wirl/value/AddressFamily.h"
#include "Wirl/value/detail/Ip6TextForms.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl::detail {

/// The error for a generic text that has no slash and length or mask behind the address.
inline constexpr Kiv::ParseError kLenExpected = "premature end of Prefix type";

/// `PrintForms` of the generic types, whose `printToBuffer` returns what the one of the family does.
template <typename T>
class GenPrintForms : public PrintForms<T> {
 public:
  /// Writes the canonical text, cut off to `size` - 1 characters, and a NUL; nothing for size 0. Returns the
  /// length of the whole text for `ipv4`, otherwise the number of characters written. Allocates nothing and
  /// touches no octet behind the NUL.
  unsigned printToBuffer(char* buffer, unsigned size) const noexcept {
    const unsigned length = PrintForms<T>::printToBuffer(buffer, size);
    return static_cast<const T&>(*this).af() == AddressFamily::ipv4 ? length : lengthWritten(length, size);
  }

  friend constexpr auto operator<=>(const GenPrintForms&, const GenPrintForms&) noexcept = default;
};

/// `TextForms` of the generic types.
template <typename T>
class GenTextForms : public ReadForms<T>, public GenPrintForms<T> {
 public:
  friend constexpr auto operator<=>(const GenTextForms&, const GenTextForms&) noexcept = default;
};

/// The family of an address at the front of `text`: that of the first colon or full stop. Unknown when there
/// is none, or a slash before it.
constexpr AddressFamily familyOfText(std::string_view text) noexcept {
  for (const char c : text) {
    if (c == ':') return AddressFamily::ipv6;
    if (c == '.') return AddressFamily::ipv4;
    if (c == '/') break;
  }
  return AddressFamily::ipunknown;
}

}  // namespace Wirl::detail
