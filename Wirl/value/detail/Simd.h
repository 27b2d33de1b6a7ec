// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Kiv/Types.h"

// Parsers have a function that looks at sixteen characters at once. It is marked WIRL_SSSE3, and called only
// if `hasSsse3()`. On other machines, and for unusual texts, a plain loop does the work.
#if defined(__x86_64__) || defined(__i386__)
#define WIRL_HAS_SSSE3 1
#define WIRL_SSSE3 __attribute__((target("ssse3")))
#include <tmmintrin.h>
#else
#define WIRL_HAS_SSSE3 0
#endif

namespace Wirl::detail {

/// Whether this machine has the instructions; one load and one test.
inline bool hasSsse3() noexcept {
#if WIRL_HAS_SSSE3
  return __builtin_cpu_supports("ssse3") != 0;
#else
  return false;
#endif
}

#if WIRL_HAS_SSSE3

// These take the address and the size of a text as two arguments. GCC for 32-bit x86 would read a string_view
// in one load, which has to wait for the two stores that wrote it.

/// All bits set, or none. Compilers turn a choice between two numbers into a branch, but not this.
constexpr Kiv::U32 onlyIf(bool condition) noexcept {
  return 0u - static_cast<Kiv::U32>(condition);
}

/// NULs, to be loaded instead of a text that is too short.
extern const char kNuls[16];

/// `text`, or the middle of the NULs. Without a branch, because it could not be predicted.
inline const char* orNuls(bool tooShort, const char* text) noexcept {
  const auto nuls = reinterpret_cast<std::uintptr_t>(kNuls + 8);
  const auto at = reinterpret_cast<std::uintptr_t>(text);
  return reinterpret_cast<const char*>(at ^ ((at ^ nuls) & (0 - static_cast<std::uintptr_t>(tooShort))));
}

/// A text of eight to sixteen characters, and zeros.
WIRL_SSSE3 inline __m128i loadText8to16(const char* at, std::size_t size) noexcept {
  // Two halves that may overlap; the shift removes from the second what the first has.
  const auto from = [](const char* place) { return reinterpret_cast<const __m128i*>(place); };
  const __m128i shift = _mm_cvtsi32_si128(static_cast<int>(128 - 8 * size));
  return _mm_unpacklo_epi64(_mm_loadl_epi64(from(at)),
                            _mm_srl_epi64(_mm_loadl_epi64(from(at + size - 8)), shift));
}

/// The first sixteen characters of a text of at least four, zeros behind its end. Reads nothing outside.
WIRL_SSSE3 inline __m128i loadText16(const char* at, std::size_t size) noexcept {
  const auto load4 = [](const char* from) {
    int word;
    std::memcpy(&word, from, sizeof(word));
    return word;
  };
  if (size >= 16) return loadText8to16(at, 16);
  if (size >= 8) return loadText8to16(at, size);
  const __m128i shift = _mm_cvtsi32_si128(static_cast<int>(8 * size - 32));
  return _mm_or_si128(_mm_cvtsi32_si128(load4(at)),
                      _mm_sll_epi64(_mm_cvtsi32_si128(load4(at + size - 4)), shift));
}

#endif

}  // namespace Wirl::detail
