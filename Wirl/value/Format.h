// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <version>

#ifdef __cpp_lib_format
#include <format>
#endif
#include <string_view>

#include "Wirl/value/AddressFamily.h"
#include "Wirl/value/detail/ValueType.h"

// Where the standard library has std::format: every value type formats as its `stringValue()`, with fill,
// width and precision as strings have them, as in std::format("{:>18}", prefix). Elsewhere this header holds
// nothing, and `Fmt.h` does the same with the fmt library. Include it beside the types; no other header does.

#ifdef __cpp_lib_format

template <Wirl::detail::ValueType T>
struct std::formatter<T, char> : std::formatter<std::string_view, char> {
  template <typename Context>
  auto format(const T& value, Context& context) const {
    return Wirl::detail::withText(value, [&](std::string_view text) {
      return std::formatter<std::string_view, char>::format(text, context);
    });
  }
};

template <>
struct std::formatter<Wirl::AddressFamily, char> : std::formatter<std::string_view, char> {
  template <typename Context>
  auto format(Wirl::AddressFamily af, Context& context) const {
    const std::string_view text = Wirl::addressFamilyText(af);
    return std::formatter<std::string_view, char>::format(text, context);
  }
};

#endif
