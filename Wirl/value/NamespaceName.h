// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <optional>
#include <ostream>
#include <string_view>

#include "Kiv/NboAttrLog.h"
#include "Wirl/value/detail/BoundedName.h"

namespace Wirl {

/// Name of a kernel network namespace, at most 150 octets. Empty by default.
class KIV_API NamespaceName : public detail::BoundedName<NamespaceName> {
 public:
  static constexpr std::size_t maxLength = 150;
  static constexpr Kiv::ParseError kTooLong = "NamespaceName::value::bytes > 150 not allowed";

  NamespaceName() noexcept = default;
  /// Throws `Kiv::RangeException` when the text is too long.
  explicit NamespaceName(std::string_view text) { stringValueIs(text); }
  explicit NamespaceName(std::nullptr_t) = delete;
};

}  // namespace Wirl

template <>
struct std::hash<Wirl::NamespaceName> {
  std::size_t operator()(const Wirl::NamespaceName& name) const noexcept { return name.hash(); }
};
