// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Kiv {

void assertionFailed(const char* file, int line, const char* text) noexcept {
  std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, text);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kiv
