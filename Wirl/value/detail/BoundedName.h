// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <cstddef>
#include <optional>
#include <ostream>
#include <string_view>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Kiv/Representation.h"
#include "Kiv/String.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl::detail {

/// A name of at most `T::maxLength` octets of any value. A longer one is refused with `T::kTooLong`.
/// Ordered octet by octet.
template <typename T>
class BoundedName {
 public:
  static constexpr bool kIsWirlValue = true;
  static constexpr bool kQuotedText = true;  // in a text representation
  const Kiv::String& value() const noexcept { return value_; }
  const Kiv::String& stringValue() const noexcept { return value_; }
  explicit operator bool() const noexcept { return !value_.empty(); }

  // A long name lives on the heap, so reading one may throw `std::bad_alloc`; it then changes nothing.

  /// The name that the text is, or nothing when it is too long.
  static std::optional<T> fromText(std::string_view text) {
    if (text.size() > T::maxLength) return std::nullopt;
    std::optional<T> name(std::in_place);
    name->value_ = text;
    return name;
  }
  static std::optional<T> fromText(std::nullptr_t) = delete;
  /// Throws `Kiv::RangeException`, and changes nothing, when the text is too long.
  void stringValueIs(std::string_view text) {
    if (text.size() > T::maxLength) throwRange(T::kTooLong);
    value_ = text;
  }
  void stringValueIs(std::nullptr_t) = delete;
  /// Reads a quoted name, as in a text representation.
  static Kiv::ParseError parse(std::string_view& text, T& out) {
    std::string_view rest = text;
    Kiv::String name;
    if (const Kiv::ParseError error = Kiv::detail::parseQuoted(rest, name)) return error;
    if (name.bytes() > T::maxLength) return T::kTooLong;
    out.value_ = std::move(name);
    text = rest;
    return nullptr;
  }
  /// The name cut off to `size` - 1 octets, and a NUL; nothing for size 0. Returns the name's length.
  unsigned printToBuffer(char* buffer, unsigned size) const noexcept {
    return printTruncated(value_, buffer, size);
  }

  Kiv::U32 hash() const noexcept { return hash(0); }
  Kiv::U32 hash(unsigned seed) const noexcept {
    Kiv::SeededHash hash(seed);
    for (const char c : value_) hash.add(static_cast<Kiv::U8>(c));
    return hash.value();
  }
  friend bool operator==(const T& a, const T& b) noexcept { return a.value() == b.value(); }
  friend std::strong_ordering operator<=>(const T& a, const T& b) noexcept { return a.value() <=> b.value(); }
  friend std::ostream& operator<<(std::ostream& out, const T& name) { return out << name.value(); }
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const T& name) { return log << name.value(); }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, T& name) {
    Kiv::String text;
    log >> text;
    name.stringValueIs(text);
    return log;
  }

 private:
  Kiv::String value_;
};

}  // namespace Wirl::detail
