// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/U128.h"

#include <algorithm>

namespace Wirl {

unsigned U128::writeText(char* out) const noexcept {
  // Long division by 10 of four 32-bit words, the most significant first.
  Kiv::U32 words[] = {static_cast<Kiv::U32>(high_ >> 32), static_cast<Kiv::U32>(high_),
                      static_cast<Kiv::U32>(low_ >> 32), static_cast<Kiv::U32>(low_)};
  unsigned length = 0;
  bool more = true;
  while (more) {
    Kiv::U64 rest = 0;
    more = false;
    for (Kiv::U32& word : words) {
      rest = rest << 32 | word;
      word = static_cast<Kiv::U32>(rest / 10);
      rest %= 10;
      more |= word != 0;
    }
    out[length++] = static_cast<char>('0' + rest);
  }
  std::reverse(out, out + length);
  out[length] = '\0';
  return length;
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const U128& value) {
  return log << value.high() << value.low();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, U128& value) {
  Kiv::U64 high = 0;
  Kiv::U64 low = 0;
  log >> high >> low;
  value = U128(high, low);
  return log;
}

}  // namespace Wirl
