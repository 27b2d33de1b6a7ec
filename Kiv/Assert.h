// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/Types.h"

namespace Kiv {

/// Writes "file:line: assertion failed: text" to standard error and aborts. In every build type.
[[noreturn, gnu::cold]] KIV_API void assertionFailed(const char* file, int line, const char* text) noexcept;

}  // namespace Kiv

/// Ends the process when `condition` does not hold. The text is the second argument, a literal: it is part
/// of the interface, so it must not move with the way that the condition happens to be written.
#define KIV_ASSERT_AS(condition, text)                  \
  do {                                                  \
    if (!(condition)) [[unlikely]]                      \
      ::Kiv::assertionFailed(__FILE__, __LINE__, text); \
  } while (false)

/// The same for a condition whose own text serves as the message.
#define KIV_ASSERT(condition) KIV_ASSERT_AS(condition, #condition)
