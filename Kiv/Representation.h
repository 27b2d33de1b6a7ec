// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <charconv>
#include <concepts>
#include <limits>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "Kiv/Exception.h"
#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Kiv {

/// Result of a parse: null for success, else the fixed text of the failure.
///
/// Every value type has `static ParseError parse(std::string_view& text, T& out) noexcept`. It reads one
/// value at the front of `text` and removes what it read from `text`. A failure changes neither `text` nor
/// `out`.
using ParseError = const char*;

/// Reads the run of decimal digits at the front of `text`. Without a digit it returns false and consumes
/// nothing. A number above `max` reads as `max` + 1, whatever its length. `max` must be below 2^64 - 1.
constexpr bool takeDecimal(std::string_view& text, U64 max, U64& out) noexcept {
  std::size_t count = 0;
  U64 value = 0;
  for (; count < text.size() && text[count] >= '0' && text[count] <= '9'; ++count) {
    if (value > max) continue;
    const U64 digit = static_cast<U64>(text[count] - '0');
    value = value > max / 10 || digit > max - value * 10 ? max + 1 : value * 10 + digit;
  }
  if (count == 0) return false;
  text.remove_prefix(count);
  out = value;
  return true;
}

/// Skips `literal` at the front of `text`. Returns false and consumes nothing if `text` begins otherwise.
constexpr bool takeLiteral(std::string_view& text, std::string_view literal) noexcept {
  if (!text.starts_with(literal)) return false;
  text.remove_prefix(literal.size());
  return true;
}

/// The text form of a composite value, "Value('Type', ** {'a': ..., 'b': ...})". A type lists its attributes
/// once, in declaration order; printing and parsing both follow that list.
///
///     static constexpr auto representation() {
///       return Kiv::representation("Wirl::IpAndPort", "Invalid IpAndPort",
///                                  Kiv::field("ip", &IpAndPort::ip_),
///                                  Kiv::field("port", &IpAndPort::port_));
///     }
///
/// An attribute prints as its own representation if it has one, else as its `stringValue()`. Integers print
/// in decimal, flags as True and False. `String` and text types that declare `kQuotedText` print in single
/// quotes with backslash escapes.
template <typename Owner, typename Member>
struct Field {
  std::string_view name;
  Member Owner::*member;  ///< Where the attribute is in its class.
};

template <typename Owner, typename Member>
constexpr Field<Owner, Member> field(std::string_view name, Member Owner::*member) {
  return {name, member};
}

/// The text representation of a type: its name and its attributes, in their order.
template <typename... Fields>
struct Representation {
  std::string_view type;
  ParseError invalid;            // the error text for a missing literal
  std::tuple<Fields...> fields;  ///< The attributes, in the order of the text.
};

template <typename... Fields>
constexpr Representation<Fields...> representation(std::string_view type, ParseError invalid,
                                                   Fields... fields) {
  return {type, invalid, {fields...}};
}

template <typename T>
concept Represented = requires {
  T::representation();
};

namespace detail {

KIV_API void printQuoted(std::string& out, std::string_view text);
KIV_API ParseError parseQuoted(std::string_view& text, String& out);
KIV_API ParseError parseFlag(std::string_view& text, bool& out) noexcept;

template <typename T>
void printValue(std::string& out, const T& value);
template <typename T>
constexpr ParseError parseValue(std::string_view& text, T& out);

}  // namespace detail

/// Appends the representation of `value` to `out`.
template <Represented T>
void printRepresentation(std::string& out, const T& value) {
  constexpr auto list = T::representation();
  out += "Value('";
  out += list.type;
  out += "', ** {";
  std::apply(
      [&](const auto&... attribute) {
        bool first = true;
        ((out += first ? "'" : ", '", first = false, out += attribute.name,
          out += "': ", detail::printValue(out, value.*attribute.member)),
         ...);
      },
      list.fields);
  out += "})";
}

/// Reads a representation at the front of `text` and removes it from there; see `ParseError`.
template <Represented T>
constexpr ParseError parseRepresentation(std::string_view& text, T& out) {
  constexpr auto list = T::representation();
  std::string_view rest = text;
  if (!takeLiteral(rest, "Value('") || !takeLiteral(rest, list.type) || !takeLiteral(rest, "', ** {")) {
    return list.invalid;
  }
  T parsed;
  ParseError error = nullptr;
  bool first = true;
  const auto read = [&](const auto& attribute) {
    if (!takeLiteral(rest, first ? "'" : ", '") || !takeLiteral(rest, attribute.name) ||
        !takeLiteral(rest, "': ")) {
      error = list.invalid;
    } else {
      error = detail::parseValue(rest, parsed.*attribute.member);
    }
    first = false;
    return error == nullptr;
  };
  std::apply([&](const auto&... attribute) { (void)(read(attribute) && ...); }, list.fields);
  if (error) return error;
  if (!takeLiteral(rest, "})")) return list.invalid;
  out = std::move(parsed);
  text = rest;
  return nullptr;
}

template <Represented T>
String representationOf(const T& value) {
  std::string text;
  printRepresentation(text, value);
  return text;
}

/// Parses a whole text. Throws `RangeException` with the error text of the failed part, or with that of the
/// whole type if text is left over. A failure does not change `value`.
template <Represented T>
void representationIs(T& value, std::string_view text) {
  T parsed;
  ParseError error = parseRepresentation(text, parsed);
  if (!error && !text.empty()) error = T::representation().invalid;
  if (error) throw RangeException(error);
  value = std::move(parsed);
}

namespace detail {

template <typename T>
void printValue(std::string& out, const T& value) {
  if constexpr (std::same_as<T, bool>) {
    out += value ? "True" : "False";
  } else if constexpr (std::integral<T>) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
    out.append(digits, end);
  } else if constexpr (std::same_as<T, String>) {
    printQuoted(out, value);
  } else if constexpr (Represented<T>) {
    printRepresentation(out, value);
  } else if constexpr (requires { T::kQuotedText; }) {
    printQuoted(out, value.stringValue());
  } else {
    out += std::string_view(value.stringValue());
  }
}

template <typename T>
constexpr ParseError parseValue(std::string_view& text, T& out) {
  if constexpr (std::same_as<T, bool>) {
    return parseFlag(text, out);
  } else if constexpr (std::unsigned_integral<T> && sizeof(T) < sizeof(U64)) {
    U64 value = 0;
    std::string_view rest = text;
    if (!takeDecimal(rest, std::numeric_limits<T>::max(), value)) return "Invalid integer";
    if (value > std::numeric_limits<T>::max()) return "Integer out of range";
    text = rest;
    out = static_cast<T>(value);
    return nullptr;
  } else if constexpr (std::integral<T>) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc::result_out_of_range) return "Integer out of range";
    if (error != std::errc()) return "Invalid integer";
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    out = value;
    return nullptr;
  } else if constexpr (std::same_as<T, String>) {
    return parseQuoted(text, out);
  } else if constexpr (Represented<T>) {
    return parseRepresentation(text, out);
  } else {
    return T::parse(text, out);
  }
}

}  // namespace detail
}  // namespace Kiv
