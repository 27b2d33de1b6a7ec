// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fmt/format.h>
#include <concepts>
#include <optional>
#include <string_view>

#include "Wirl/value/AddressFamily.h"

// For programs that use the fmt library: every value type formats as its `stringValue()`, with fill, width
// and precision as strings have them, as in fmt::format("{:>18}", prefix). Include it beside the types; no
// other header does.

namespace Wirl::detail {

template <typename T>
concept ValueType = requires(const T& value, std::string_view text) {
  { value.stringValue() } -> std::convertible_to<std::string_view>;
  { T::fromText(text) } -> std::same_as<std::optional<T>>;
};

/// A type that prints itself without allocating.
template <typename T>
concept WritesText = ValueType<T> && requires(const T& value, char* out) {
  { T::kTextMax } -> std::convertible_to<unsigned>;
  { value.writeText(out) } -> std::same_as<unsigned>;
};

}  // namespace Wirl::detail

template <Wirl::detail::ValueType T>
struct fmt::formatter<T> : fmt::formatter<fmt::string_view> {
  template <typename Context>
  auto format(const T& value, Context& context) const {
    if constexpr (Wirl::detail::WritesText<T>) {
      char text[T::kTextMax + 1];
      const unsigned length = value.writeText(text);
      return fmt::formatter<fmt::string_view>::format({text, length}, context);
    } else {
      const auto& text = value.stringValue();
      return fmt::formatter<fmt::string_view>::format({text.data(), text.size()}, context);
    }
  }
};

template <>
struct fmt::formatter<Wirl::AddressFamily> : fmt::formatter<fmt::string_view> {
  template <typename Context>
  auto format(Wirl::AddressFamily af, Context& context) const {
    const std::string_view text = Wirl::addressFamilyText(af);
    return fmt::formatter<fmt::string_view>::format({text.data(), text.size()}, context);
  }
};
