// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Kiv {

void assertionFailed(const char* file, int line, const char* text, std::string_view name) noexcept {
  const int length = static_cast<int>(name.size());
  std::fprintf(stderr,
               name.empty() ? "%s:%d: assertion failed: %s%.*s\n" : "%s:%d: assertion failed: %s (%.*s)\n",
               file, line, text, length, name.data());
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kiv
