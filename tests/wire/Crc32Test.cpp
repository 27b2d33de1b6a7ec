// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/Crc32.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "Wirl/wire/detail/CrcKernels.h"

namespace {

using namespace Wirl;
using Kiv::U32;
using Kiv::U8;

/// The definition, bit by bit: what the fast ways are held against.
U32 plainOctet(U32 state, U8 octet, U32 polynomial) {
  state ^= octet;
  for (int bit = 0; bit < 8; ++bit) state = (state >> 1) ^ (state % 2 != 0 ? polynomial : 0);
  return state;
}

TEST(Crc32, EveryKernelIsExactAtEveryLengthAndAlignmentInTwoPieces) {
  constexpr U32 kLongest = 1600;
  constexpr U32 kStart = 0xffffffff;
  std::mt19937 random(1);
  for (const U32 alignment : {0u, 1u, 2u, 3u, 5u, 8u, 15u, 16u, 31u, 33u, 63u}) {
    U32 ieee = kStart;
    U32 castagnoli = kStart;
    std::vector<U8> all;
    for (U32 len = 0; len <= kLongest; ++len) {
      // It ends where the memory ends: a sanitizer sees a read past it.
      const auto exact = std::make_unique<U8[]>(alignment + len);
      U8* const data = exact.get() + alignment;
      std::copy(all.begin(), all.end(), data);
      const U32 cut = static_cast<U32>(random() % (len + 1));
      for (const auto& kernel : detail::crcKernels()) {
        SCOPED_TRACE(testing::Message() << kernel.name << " length " << len << " alignment " << alignment);
        ASSERT_EQ(kernel.ieee(kStart, data, len), ieee);
        ASSERT_EQ(kernel.castagnoli(kStart, data, len), castagnoli);
      }
      ASSERT_EQ(crc32({data + cut, len - cut}, crc32({data, cut})), ~ieee);
      ASSERT_EQ(crc32c({data + cut, len - cut}, crc32c({data, cut})), ~castagnoli);
      all.push_back(static_cast<U8>(random()));
      ieee = plainOctet(ieee, all.back(), 0xedb88320);
      castagnoli = plainOctet(castagnoli, all.back(), 0x82f63b78);
    }
  }
  const U8 digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(crc32(digits), 0xcbf43926);
  EXPECT_EQ(crc32c(digits), 0xe3069283);
}

}  // namespace
