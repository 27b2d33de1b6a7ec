// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/Checksum.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>

#include "Wirl/packet/detail/ChecksumKernels.h"

namespace {

using namespace Wirl;
using Kiv::U16;
using Kiv::U32;
using Kiv::U8;

// The definition, word by word: what the fast ways are held against.

U32 plainChunk(const char* data, U32 len, U32 sum) {
  for (U32 i = 0; i < len; i += 2) sum += U32{static_cast<U8>(data[i])} << 8 | static_cast<U8>(data[i + 1]);
  return sum;
}

U16 plainCalc(const char* data, U32 len, U32 sum) {
  sum = plainChunk(data, len & ~1u, sum);
  if (len % 2 != 0) sum += U32{static_cast<U8>(data[len - 1])} << 8;
  while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<U16>(sum ^ 0xffff);
}

/// The fuzz target has any data and starts; here each length that goes a way of its own, at each alignment.
TEST(Checksum, EveryWayIsExactAtEveryLengthAndAlignment) {
  std::mt19937 random(1);
  std::string bytes(700 + 64, '\xff');
  for (const bool ones : {true, false}) {
    for (char& c : bytes) c = ones ? '\xff' : static_cast<char>(random());
    for (U32 len = 0; len <= 700; ++len) {
      for (U32 alignment = 0; alignment < 64; alignment += len < 80 ? 1 : 7) {
        const char* const data = &bytes[alignment];
        for (const U32 start : {0u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
          ASSERT_EQ(ipChecksumCalc(data, static_cast<U16>(len), start).value(), plainCalc(data, len, start))
              << "length " << len << " start " << start << " alignment " << alignment;
        }
        if (len % 2 != 0) continue;
        ASSERT_EQ(ipChecksumChunk(data, static_cast<U16>(len), 0xffffffff),
                  plainChunk(data, len, 0xffffffff));
        for (const auto& kernel : detail::checksumKernels()) {
          ASSERT_EQ(kernel.sum(reinterpret_cast<const U8*>(data), len), plainChunk(data, len, 0))
              << kernel.name;
        }
      }
    }
  }
}

TEST(Checksum, TheLongestDataOfAllOnesDoesNotOverflowALane) {
  const std::string ones(65535, '\xff');
  for (const auto& kernel : detail::checksumKernels()) {
    EXPECT_EQ(kernel.sum(reinterpret_cast<const U8*>(ones.data()), 65534), 32767u * 0xffff) << kernel.name;
  }
  EXPECT_EQ(ipChecksumCalc(ones.data(), 65535, 0).value(), plainCalc(ones.data(), 65535, 0));
}

TEST(Checksum, KnownValues) {
  const struct {
    std::string data;
    U32 start;
    U16 checksum;
  } rows[] = {{"", 0, 0xffff},
              {std::string(2, '\xff'), 0, 0},
              {"\x01", 0, 0xfeff},
              {std::string("\x01\0", 2), 0, 0xfeff},
              {"", 0x1fffe, 0},
              // RFC 1071, section 3.
              {std::string("\x00\x01\xf2\x03\xf4\xf5\xf6\xf7", 8), 0, 0x220d}};
  for (const auto& row : rows) {
    EXPECT_EQ(ipChecksumCalc(row.data.data(), static_cast<U16>(row.data.size()), row.start),
              IpChecksum(row.checksum));
  }
  EXPECT_EQ(ipChecksumCalc(nullptr, 0, 0).net().octets(), (std::array<U8, 2>{0xff, 0xff}));
  std::ostringstream out;
  out << IpChecksum(U16{0x00ab}) << ' ' << 255;
  EXPECT_EQ(out.str(), "0x00ab 255");
}

TEST(ChecksumDeathTest, AChunkHasWholeWords) {
  EXPECT_DEATH(ipChecksumChunk("abc", 3, 0), "assertion failed: \\(len % 2\\) == 0\n");
}

}  // namespace
