// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <string_view>

#include "Wirl/value/detail/BoundedName.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl::detail {

// The types that `Fmt.h` and `Format.h` format: value types of this library, and no others that look alike.

template <typename T>
concept ValueType = requires {
  requires T::kIsWirlValue;
};

/// Calls `use` with the canonical text, which is kept on the stack where the type knows its longest text.
template <ValueType T, typename Use>
auto withText(const T& value, Use use) {
  if constexpr (requires { T::kTextMax; }) {
    char text[T::kTextMax + 1];
    return use(std::string_view(text, value.writeText(text)));
  } else {
    return use(std::string_view(value.stringValue()));
  }
}

}  // namespace Wirl::detail
