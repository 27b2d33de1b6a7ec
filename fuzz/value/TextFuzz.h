// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstring>
#include <string_view>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Representation.h"

namespace fuzz {

/// What holds for every text that the parsers of a value type are given: the throwing and the other forms
/// agree, what is refused changes nothing, what is read is printed and read again.
template <typename T>
void checkText(std::string_view text) {
  const auto whole = T::fromText(text);

  std::string_view rest = text;
  T front;
  const T before = front;
  const Kiv::ParseError error = T::parse(rest, front);
  KIV_ASSERT(text.ends_with(rest));
  KIV_ASSERT(!error || (rest == text && front == before));
  KIV_ASSERT(whole.has_value() == (!error && rest.empty()));

  T thrown;
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
  char buffer[T::kTextMax + 1];
  front.printToBuffer(buffer, sizeof(buffer));
  KIV_ASSERT(canonical == std::string_view(buffer, std::strlen(buffer)));
}

}  // namespace fuzz
