// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string_view>

#include "Kiv/Exception.h"
#include "Kiv/Representation.h"
#include "Kiv/String.h"
#include "Kiv/Types.h"
#include "Wirl/value/detail/WriteRepresentation.h"

namespace Wirl::detail {

[[noreturn, gnu::cold]] KIV_API void throwRange(Kiv::ParseError error);

/// Writes the front of `text` that fits before a NUL, and the NUL; nothing for size 0. Returns the length of
/// the whole text.
KIV_API unsigned printTruncated(std::string_view text, char* buffer, unsigned size) noexcept;

/// The printing members of a value type, made of its own `writeText` and `kTextMax`; see `TextForms`.
template <typename T>
class PrintForms {
 public:
  static constexpr bool kIsWirlValue = true;

  /// The canonical text.
  Kiv::String stringValue() const {
    char text[T::kTextMax + 1];
    const unsigned length = self().writeText(text);
    return {text, length};
  }

  /// Writes the canonical text, cut off to `size` - 1 characters, and a NUL; nothing for size 0. Returns the
  /// length of the whole text. Allocates nothing and touches no octet behind the NUL.
  unsigned printToBuffer(char* buffer, unsigned size) const noexcept {
    if (size > T::kTextMax) [[likely]]
      return self().writeText(buffer);
    char text[T::kTextMax + 1];
    const unsigned length = self().writeText(text);
    return printTruncated({text, length}, buffer, size);
  }

  /// The text representation of a composite value, else the canonical text.
  friend std::ostream& operator<<(std::ostream& out, const T& value) {
    if constexpr (Kiv::Represented<T>) {
      char text[representationMax<T>() + 1];
      return out << std::string_view(text, writeRepresentation(value, text));
    } else {
      char text[T::kTextMax + 1];
      return out << std::string_view(text, value.writeText(text));
    }
  }

  // Nothing to compare here. Declared so that a value type can default its own comparisons.
  friend constexpr auto operator<=>(const PrintForms&, const PrintForms&) noexcept = default;

 private:
  const T& self() const noexcept { return static_cast<const T&>(*this); }
};

/// The parsing members of a value type, made of its own `parse` and `kTrailingText`; see `TextForms`.
template <typename T>
class ReadForms {
 public:
  /// Parses the whole of `text`; returns nothing if it is not a value.
  static constexpr std::optional<T> fromText(std::string_view text) noexcept {
    T value;
    if (T::parse(text, value) || !text.empty()) [[unlikely]]
      return std::nullopt;
    return value;
  }
  static std::optional<T> fromText(std::nullptr_t) = delete;
  /// The same, but throws `Kiv::RangeException` with the reason.
  static constexpr T read(std::string_view text) {
    T value;
    Kiv::ParseError error = T::parse(text, value);
    if (!error && !text.empty()) error = T::kTrailingText;
    if (error) throwRange(error);
    return value;
  }

  /// Parses the whole of `text` and takes its value. If it is not a value, throws `Kiv::RangeException` with
  /// the reason and changes nothing.
  constexpr void stringValueIs(std::string_view text) {
    // Not in one expression with the next line: GCC 12 would then lose the old value when `read` throws.
    const T made = read(text);
    static_cast<T&>(*this) = made;
  }
  void stringValueIs(std::nullptr_t) = delete;

  friend constexpr auto operator<=>(const ReadForms&, const ReadForms&) noexcept = default;
};

/// The text members of a value type, made of four of its own:
///
///     static constexpr Kiv::ParseError parse(std::string_view& text, T& out) noexcept;  // see Kiv
///     unsigned writeText(char* out) const noexcept;    // the text and a NUL, no octet more; its length
///     static constexpr unsigned kTextMax;              // the longest text, without its NUL
///     static constexpr Kiv::ParseError kTrailingText;  // why text behind the value is refused
template <typename T>
class TextForms : public ReadForms<T>, public PrintForms<T> {
 public:
  friend constexpr auto operator<=>(const TextForms&, const TextForms&) noexcept = default;
};

}  // namespace Wirl::detail
