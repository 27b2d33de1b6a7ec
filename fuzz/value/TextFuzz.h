// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Representation.h"
#include "Wirl/value/AddressFamily.h"

namespace fuzz {

/// The input where it lies, so that AddressSanitizer sees an octet read in front of it or behind it.
inline std::string_view textOf(const unsigned char* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// What holds for every text that the parsers of a value type are given: the throwing and the other forms
/// agree, what is refused changes nothing, what is read is printed and read again. `before` is a value that
/// differs from the default one. `returnsStored` where `printToBuffer` returns what it stored and not the
/// length of the whole text; a type of either family does so unless it holds an IPv4 address.
template <typename T>
void checkText(std::string_view text, const T& before, bool returnsStored = false) {
  const auto whole = T::fromText(text);

  std::string_view rest = text;
  T front = before;
  const Kiv::ParseError error = T::parse(rest, front);
  KIV_ASSERT(text.ends_with(rest));
  KIV_ASSERT(!error || (rest.size() == text.size() && front == before));
  KIV_ASSERT(whole.has_value() == (!error && rest.empty()));

  T thrown = before;
  try {
    thrown.stringValueIs(text);
    KIV_ASSERT(whole && thrown == *whole);
  } catch (const Kiv::RangeException& failure) {
    KIV_ASSERT(!whole && thrown == before);
    KIV_ASSERT(failure.message() == (error ? error : T::kTrailingText));
  }

  if (error) return;
  KIV_ASSERT(!whole || *whole == front);
  const Kiv::String canonical = front.stringValue();
  const auto again = T::fromText(canonical);
  KIV_ASSERT(again && *again == front && again->hash() == front.hash());
  KIV_ASSERT(canonical.bytes() <= T::kTextMax);
  if constexpr (requires { front.af(); }) returnsStored = front.af() != Wirl::AddressFamily::ipv4;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, canonical.size(), canonical.size() + 1}) {
    std::string buffer(T::kTextMax + 3, '#');
    std::string expected = buffer;
    const std::size_t stored = size == 0 ? 0 : std::min(canonical.size(), size - 1);
    if (size > 0) expected.replace(0, stored + 1, std::string(canonical).substr(0, stored) + '\0');
    const unsigned returned = front.printToBuffer(buffer.data(), static_cast<unsigned>(size));
    KIV_ASSERT(buffer == expected && returned == (returnsStored ? stored : canonical.size()));
  }
}

/// The number that the whole of a text is in decimal, at most 2^32; nothing when it is none.
inline std::optional<std::uint64_t> numberOf(std::string_view text) {
  std::uint64_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    number = std::min(number * 10 + static_cast<std::uint64_t>(c - '0'), std::uint64_t{1} << 32);
  }
  return text.empty() ? std::nullopt : std::optional(number);
}

template <typename Address>
struct AddressAndNumber {
  Address address;
  std::uint64_t number;
};

/// The address in front of the first separator and the number behind it, where
/// the text is made so.
template <typename Address>
std::optional<AddressAndNumber<Address>> joined(std::string_view text, char separator, std::uint64_t max) {
  const std::size_t at = std::min(text.find(separator), text.size());
  const auto address = Address::fromText(text.substr(0, at));
  const auto number = at < text.size() ? numberOf(text.substr(at + 1)) : std::nullopt;
  if (!address || !number || *number > max) return std::nullopt;
  return AddressAndNumber<Address>{*address, *number};
}

/// The address in front of the first slash and the one behind it.
template <typename Address>
std::optional<std::pair<Address, Address>> addressAndMask(std::string_view text) {
  const std::size_t at = std::min(text.find('/'), text.size());
  const auto address = Address::fromText(text.substr(0, at));
  const auto mask = at < text.size() ? Address::fromText(text.substr(at + 1)) : std::nullopt;
  return address && mask ? std::optional(std::pair(*address, *mask)) : std::nullopt;
}

}  // namespace fuzz
