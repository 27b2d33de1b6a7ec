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

/// Outcome of a parse: null when it succeeded, else the failure's fixed text.
///
/// Every value type reads itself with `static ParseError parse(std::string_view& text, T& out) noexcept`: one
/// value from the front of `text`, which then begins behind it. A failure leaves both as they were.
using ParseError = const char*;

/// Reads the run of decimal digits at the front of `text`. False, and nothing consumed, when there is none.
/// A number above `max` saturates to `max` + 1, however many digits it has; `max` is below 2^64 - 1.
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

/// Skips `literal` at the front of `text`; false, and nothing consumed, when it is not there.
constexpr bool takeLiteral(std::string_view& text, std::string_view literal) noexcept {
  if (!text.starts_with(literal)) return false;
  text.remove_prefix(literal.size());
  return true;
}

/// The text representation of a composite value, "Value('Type', ** {'a': ..., 'b': ...})": one list of
/// attributes in declaration order drives printing and parsing.
///
///     static constexpr auto representation() {
///       return Kiv::representation("Wirl::IpAndPort", "Invalid IpAndPort",
///                                  Kiv::field("ip", &IpAndPort::ip_),
///                                  Kiv::field("port", &IpAndPort::port_));
///     }
///
/// Attributes print by their own representation, else by `stringValue()`; integers in decimal, flags as True
/// and False, `String`, and text types that say `kQuotedText`, in single quotes with backslash escapes.
template <typename Owner, typename Member>
struct Field {
  std::string_view name;
  Member Owner::*member;
};

template <typename Owner, typename Member>
constexpr Field<Owner, Member> field(std::string_view name, Member Owner::*member) {
  return {name, member};
}

template <typename... Fields>
struct Representation {
  std::string_view type;
  ParseError invalid;  // the text when a literal of the representation is missing
  std::tuple<Fields...> fields;
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

/// Reads a representation from the front of `text`, which then begins behind it; see `ParseError`.
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

/// Parses a whole text; throws `RangeException` with the text of what failed, or the type's own for text that
/// is left over. `value` is unchanged then.
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
