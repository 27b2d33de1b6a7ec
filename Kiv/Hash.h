// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>

#include "Kiv/Types.h"

namespace Kiv {

/// The 32-bit integer mix of unseeded hashes. All arithmetic is modulo 2^32.
constexpr U32 hashMix(U32 key) noexcept {
  key = ~key + (key << 15);
  key ^= key >> 12;
  key += key << 2;
  key ^= key >> 4;
  key *= 2057;
  key ^= key >> 16;
  return key;
}

/// Seeded hash over a sequence of integers: the same seed and sequence give the same value on every machine,
/// another seed gives an unrelated order of buckets. Each integer is one step, whatever its width.
class SeededHash {
 public:
  constexpr explicit SeededHash(U32 seed) noexcept : state_(seed) {}  ///< Begins with the seed.

  /// Mixes one more field in; the order counts.
  constexpr SeededHash& add(U32 value) noexcept {
    value *= 0xcc9e2d51u;
    value = std::rotl(value, 15) * 0x1b873593u;
    state_ = std::rotl(state_ ^ value, 13) * 5 + 0xe6546b64u;
    ++count_;
    return *this;
  }

  constexpr U32 value() const noexcept {
    U32 h = state_ ^ count_;
    h = (h ^ (h >> 16)) * 0x85ebca6bu;
    h = (h ^ (h >> 13)) * 0xc2b2ae35u;
    return h ^ (h >> 16);
  }

 private:
  U32 state_;
  U32 count_ = 0;
};

}  // namespace Kiv
