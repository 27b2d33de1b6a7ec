// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include "Kiv/Types.h"

namespace Kiv {

/// Writes "file:line: assertion failed: text" to standard error, " (name)" behind it where a name is given,
/// and aborts. In every build type.
[[noreturn, gnu::cold]] KIV_API void assertionFailed(const char* file, int line, const char* text,
                                                     std::string_view name = {}) noexcept;

}  // namespace Kiv

/// Ends the process when `condition` does not hold. The text is the second argument, a literal: it is part of
/// the interface, so it must not change with the way the condition is written. A third argument names the
/// entity concerned, as in `KIV_ASSERT_AS(!open(), "!open()", name())`; it is evaluated only on failure.
#define KIV_ASSERT_AS(condition, text, ...)                                        \
  do {                                                                             \
    if (!(condition)) [[unlikely]]                                                 \
      ::Kiv::assertionFailed(__FILE__, __LINE__, text __VA_OPT__(, ) __VA_ARGS__); \
  } while (false)

/// The same for a condition whose own text serves as the message.
#define KIV_ASSERT(condition) KIV_ASSERT_AS(condition, #condition)
