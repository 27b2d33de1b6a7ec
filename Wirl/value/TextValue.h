// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstring>
#include <optional>
#include <ostream>
#include <string_view>

#include "Kiv/Exception.h"
#include "Kiv/Representation.h"
#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Wirl {

/// Base of a value type `Self` with one canonical text form. On top of what the type itself has,
///
///     static Kiv::ParseError parse(std::string_view& text, Self& out) noexcept;  // see Kiv::ParseError
///     unsigned printToBuffer(char* buf, unsigned size) const noexcept;
///     static constexpr unsigned kMaxText;             // characters of the longest text
///     static constexpr Kiv::ParseError kTrailing;     // what is said of text behind a value
///
/// it gives the forms that take a whole text, and the printing ones.
template <typename Self>
class TextValue {
 public:
  /// The value of the whole of `text`, or nothing.
  static std::optional<Self> fromText(std::string_view text) noexcept {
    std::optional<Self> value(std::in_place);
    if (Self::parse(text, *value) || !text.empty()) value.reset();
    return value;
  }

  /// Parses the whole of `text`; throws `Kiv::RangeException` and changes nothing when it does not serve.
  void stringValueIs(std::string_view text) {
    Self value;
    Kiv::ParseError error = Self::parse(text, value);
    if (!error && !text.empty()) error = Self::kTrailing;
    if (error) throw Kiv::RangeException(error);
    static_cast<Self&>(*this) = value;
  }

  Kiv::String stringValue() const {
    char text[Self::kMaxText + 1];
    return Kiv::String(text, static_cast<const Self&>(*this).printToBuffer(text, sizeof(text)));
  }

  friend std::ostream& operator<<(std::ostream& out, const Self& value) {
    char text[Self::kMaxText + 1];
    return out << std::string_view(text, value.printToBuffer(text, sizeof(text)));
  }
};

namespace detail {

/// Copies what fits of a text and ends it with NUL; nothing for size 0. Returns the characters written.
inline unsigned copyText(char* buf, unsigned size, const char* text, unsigned length) noexcept {
  if (size == 0) return 0;
  const unsigned written = std::min(length, size - 1);
  std::memcpy(buf, text, written);
  buf[written] = '\0';
  return written;
}

}  // namespace detail
}  // namespace Wirl
