// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fmt/format.h>
#include <string_view>

#include "Wirl/value/AddressFamily.h"
#include "Wirl/value/detail/ValueType.h"

// For programs that use the fmt library: every value type formats as its `stringValue()`, with fill, width
// and precision as strings have them, as in fmt::format("{:>18}", prefix). Include it beside the types; no
// other header does.

template <Wirl::detail::ValueType T>
struct fmt::formatter<T> : fmt::formatter<fmt::string_view> {
  /// Prints the canonical text.
  template <typename Context>
  auto format(const T& value, Context& context) const {
    return Wirl::detail::withText(value, [&](std::string_view text) {
      return fmt::formatter<fmt::string_view>::format({text.data(), text.size()}, context);
    });
  }
};

template <>
struct fmt::formatter<Wirl::AddressFamily> : fmt::formatter<fmt::string_view> {
  /// Prints the name of the family.
  template <typename Context>
  auto format(Wirl::AddressFamily af, Context& context) const {
    const std::string_view text = Wirl::addressFamilyText(af);
    return fmt::formatter<fmt::string_view>::format({text.data(), text.size()}, context);
  }
};
