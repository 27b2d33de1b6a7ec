// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <charconv>
#include <concepts>
#include <cstring>
#include <limits>
#include <string_view>
#include <tuple>

#include "Kiv/Representation.h"

namespace Wirl::detail {

// The text representation of `Kiv::printRepresentation`, from the same list of attributes, into a buffer
// whose size is known when it is compiled: for printing without allocating.

template <Kiv::Represented T>
constexpr unsigned representationMax() {
  constexpr auto list = T::representation();
  constexpr auto fieldMax = []<typename Owner, typename Member>(const Kiv::Field<Owner, Member>& field) {
    const std::size_t frame = std::string_view("'': , ").size() + field.name.size();
    if constexpr (std::unsigned_integral<Member>) {
      return frame + std::numeric_limits<Member>::digits10 + 1;
    } else {
      return frame + Member::kTextMax;
    }
  };
  const std::size_t frame = std::string_view("Value('', ** {})").size() - std::string_view(", ").size();
  return static_cast<unsigned>(
      frame + list.type.size() +
      std::apply([&](const auto&... field) { return (fieldMax(field) + ...); }, list.fields));
}

/// Writes at most `representationMax` characters and a NUL; returns the length without the NUL.
template <Kiv::Represented T>
unsigned writeRepresentation(const T& value, char* out) noexcept {
  constexpr auto list = T::representation();
  char* at = out;
  bool first = true;
  const auto write = [&](std::string_view text) {
    std::memcpy(at, text.data(), text.size());
    at += text.size();
  };
  const auto writeField = [&]<typename Owner, typename Member>(const Kiv::Field<Owner, Member>& field) {
    write(first ? "'" : ", '");
    first = false;
    write(field.name);
    write("': ");
    if constexpr (std::unsigned_integral<Member>) {
      at = std::to_chars(at, at + std::numeric_limits<Member>::digits10 + 1, value.*field.member).ptr;
    } else {
      at += (value.*field.member).writeText(at);
    }
  };
  write("Value('");
  write(list.type);
  write("', ** {");
  std::apply([&](const auto&... field) { (writeField(field), ...); }, list.fields);
  write("})");
  *at = '\0';
  return static_cast<unsigned>(at - out);
}

}  // namespace Wirl::detail
