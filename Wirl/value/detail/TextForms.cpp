// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/detail/TextForms.h"

#include <algorithm>
#include <cstring>

#include "Wirl/value/detail/Simd.h"

namespace Wirl::detail {

#if WIRL_HAS_SSSE3
extern const char kNuls[16] = {};
#endif

void throwRange(Kiv::ParseError error) {
  throw Kiv::RangeException(error);
}

unsigned printTruncated(std::string_view text, char* buffer, unsigned size) noexcept {
  if (size > 0) {
    const std::size_t fits = std::min<std::size_t>(text.size(), size - 1);
    std::memcpy(buffer, text.data(), fits);
    buffer[fits] = '\0';
  }
  return static_cast<unsigned>(text.size());
}

}  // namespace Wirl::detail
