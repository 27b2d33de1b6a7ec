// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>

// What is done whatever reactors throw meanwhile. The failure that was first is the one that leaves.
namespace Wirl::detail {

/// For what is yet to be done while an exception is on its way: it stays the one that leaves.
template <std::invocable Action>
void doQuietly(Action action) noexcept {
  try {
    action();
  } catch (...) {
  }
}

/// Does both, the second also where the first throws; what was thrown first leaves.
template <std::invocable First, std::invocable Second>
void doBoth(First first, Second second) {
  try {
    first();
  } catch (...) {
    doQuietly(second);
    throw;
  }
  second();
}

}  // namespace Wirl::detail
