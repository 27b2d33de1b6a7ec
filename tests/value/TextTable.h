// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <initializer_list>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_set>
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

/// `print` is `printToBuffer`; `returnsStored` where it returns what it stored and not the whole length.
template <typename T>
void expectPrints(const T& value, std::string_view canonical, bool returnsStored = false) {
  EXPECT_EQ(value.stringValue(), canonical);
  for (unsigned size = 0; size <= canonical.size() + 40; ++size) {
    std::string buffer(canonical.size() + 60, '#');
    std::string expected = buffer;
    const std::size_t stored = size == 0 ? 0 : std::min<std::size_t>(canonical.size(), size - 1);
    if (size > 0) expected.replace(0, stored + 1, std::string(canonical.substr(0, stored)) + '\0');
    EXPECT_EQ(value.printToBuffer(buffer.data(), size), returnsStored ? stored : canonical.size()) << size;
    EXPECT_EQ(buffer, expected) << "into " << size;
  }
}

/// All pairs of values in ascending order: ==, <, the hashes and the containers agree; each value passes
/// through the attribute log and its own stream form.
template <typename T>
void expectOrdered(const std::vector<T>& ascending) {
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    for (std::size_t k = 0; k < ascending.size(); ++k) {
      const T& a = ascending[i];
      const T& b = ascending[k];
      SCOPED_TRACE(testing::Message() << a << " and " << b);
      EXPECT_EQ(a == b, i == k);
      EXPECT_EQ(a < b, i < k);
      EXPECT_EQ(a.hash() == b.hash(), i == k) << "equal, or these few collide";
      EXPECT_EQ(a.hash(7) == b.hash(7), i == k) << "equal, or these few collide";
      EXPECT_EQ(std::hash<T>()(a) == std::hash<T>()(b), i == k);
    }
    Kiv::NboAttrLog log;
    log << ascending[i];
    T back;
    log >> back;
    EXPECT_EQ(back, ascending[i]);
    EXPECT_EQ(log.bytesLeft(), 0u);
  }
  const std::set<T> ordered(ascending.rbegin(), ascending.rend());
  EXPECT_TRUE(std::equal(ordered.begin(), ordered.end(), ascending.begin(), ascending.end()));
  EXPECT_EQ(std::unordered_set<T>(ascending.begin(), ascending.end()).size(), ascending.size());
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
