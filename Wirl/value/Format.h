// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <version>

#ifdef __cpp_lib_format
#include <format>
#endif
#include <string_view>

#include "Wirl/value/AddressFamily.h"
#include "Wirl/value/detail/ValueType.h"

// Formatters for std::format, where the standard library has it: every value type formats as its
// `stringValue()`, with the fill, width and precision of strings, as in std::format("{:>18}", prefix). With
// other standard libraries this header is empty; `Fmt.h` does the same for the fmt library. No other header
// includes this one.

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
