// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/NboAttrLog.h"

// What every value type promises of its texts, its order and its hash, checked over a table of rows.

namespace table {

/// The message of what `act` throws.
template <typename Exception>
std::string messageOf(const std::function<void()>& act) {
  try {
    act();
  } catch (const Exception& failure) {
    return failure.message();
  }
  return "nothing thrown";
}

using PrintTo = std::function<std::size_t(char*, unsigned)>;

/// `print` is `printToBuffer` of a value; `returnsStored` where it returns what it stored and not the whole
/// length.
inline void expectPrintsInto(const PrintTo& print, std::string_view canonical, bool returnsStored) {
  for (unsigned size = 0; size <= canonical.size() + 40; ++size) {
    std::string buffer(canonical.size() + 60, '#');
    std::string expected = buffer;
    const std::size_t stored = size == 0 ? 0 : std::min<std::size_t>(canonical.size(), size - 1);
    if (size > 0) expected.replace(0, stored + 1, std::string(canonical.substr(0, stored)) + '\0');
    EXPECT_EQ(print(buffer.data(), size), returnsStored ? stored : canonical.size()) << size;
    EXPECT_EQ(buffer, expected) << "into " << size;
  }
}

template <typename T>
void expectPrints(const T& value, std::string_view canonical, bool returnsStored = false) {
  EXPECT_EQ(value.stringValue(), canonical);
  expectPrintsInto([&](char* buffer, unsigned size) { return value.printToBuffer(buffer, size); }, canonical,
                   returnsStored);
}

/// What the operators and hashes say of two values. (Not asserted in a template: the compiler would take
/// long.)
struct Relation {
  bool equal, less, hash, seededHash, standardHash;
  bool operator==(const Relation&) const = default;
};
inline void expectRelation(const Relation& relation, bool equal, bool less, const std::string& pair) {
  // Unequal values of one table whose hashes are the same are too few for chance.
  EXPECT_EQ(relation, (Relation{equal, less, equal, equal, equal})) << pair;
}
inline void expectRoundTrip(bool equal, std::size_t bytesLeft, const std::string& value) {
  EXPECT_TRUE(equal && bytesLeft == 0) << value;
}

/// All pairs of values in ascending order: ==, < and the hashes agree; each value passes through the
/// attribute log.
template <typename T>
void expectOrdered(const std::vector<T>& ascending) {
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    const T& a = ascending[i];
    for (std::size_t k = 0; k < ascending.size(); ++k) {
      const T& b = ascending[k];
      const Relation relation{a == b, a < b, a.hash() == b.hash(), a.hash(7) == b.hash(7),
                              std::hash<T>()(a) == std::hash<T>()(b)};
      expectRelation(relation, i == k, i < k, a.stringValue() + " and " + b.stringValue());
    }
    Kiv::NboAttrLog log;
    log << a;
    T back;
    log >> back;
    expectRoundTrip(back == a, log.bytesLeft(), a.stringValue());
  }
}

template <typename T>
Kiv::Bytes logged(const T& value) {
  Kiv::NboAttrLog log;
  log << value;
  return log.bytes();
}

template <typename T>
std::string streamed(const T& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

}  // namespace table
