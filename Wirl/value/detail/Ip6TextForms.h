// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>

#include "Wirl/value/detail/TextForms.h"

namespace Wirl::detail {

/// Characters that `printToBuffer` stored of a text of `length`.
constexpr unsigned lengthWritten(unsigned length, unsigned size) noexcept {
  return size == 0 ? 0 : std::min(length, size - 1);
}

/// `TextForms` of the IPv6 types, whose `printToBuffer` returns what it wrote.
template <typename T>
class Ip6TextForms : public TextForms<T> {
 public:
  /// Writes the canonical text, cut off to `size` - 1 characters, and a NUL; nothing for size 0. Returns the
  /// number of characters written. Allocates nothing and touches no octet behind the NUL.
  unsigned printToBuffer(char* buffer, unsigned size) const noexcept {
    return lengthWritten(TextForms<T>::printToBuffer(buffer, size), size);
  }
};

}  // namespace Wirl::detail
