// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/Checksum.h"

#include <gtest/gtest.h>

#include <memory>
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

constexpr U32 kStarts[] = {0, 1, 0xffff, 0x10000, 0x7fffffff, 0x80000000, 0xfffeffff, 0xffffffff};
constexpr U32 kLongest = 2048;
constexpr U32 kAlignments = 64;

/// Bytes whose sums carry in different ways.
class ChecksumData : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    std::mt19937 random(1);
    const std::string_view kind = GetParam();
    for (std::size_t i = 0; i < kLongest + kAlignments; ++i) {
      bytes_[i] = kind == "random"      ? static_cast<char>(random())
                  : kind == "allOnes"   ? '\xff'
                  : kind == "highBytes" ? "\xff\0"[i % 2]
                                        : '\0';
    }
  }
  /// The data at an alignment, ending where the memory ends: a sanitizer sees a read past it.
  const char* at(U32 alignment, U32 len) {
    exact_ = std::make_unique<char[]>(alignment + len);
    std::copy_n(&bytes_[0], len, exact_.get() + alignment);
    return exact_.get() + alignment;
  }

  std::string bytes_ = std::string(kLongest + kAlignments, '\0');
  std::unique_ptr<char[]> exact_;
};
INSTANTIATE_TEST_SUITE_P(Kinds, ChecksumData, testing::Values("random", "allOnes", "highBytes", "zeros"),
                         [](const auto& kind) { return kind.param; });

TEST_P(ChecksumData, EveryKernelIsExactAtEveryLengthAndAlignment) {
  for (const auto& kernel : detail::checksumKernels()) {
    SCOPED_TRACE(kernel.name);
    for (U32 len = 0; len <= kLongest; len += 2) {
      for (U32 alignment = 0; alignment < kAlignments; ++alignment) {
        const char* const data = &bytes_[alignment];
        ASSERT_EQ(kernel.sum(reinterpret_cast<const U8*>(data), len), plainChunk(data, len, 0))
            << "length " << len << " alignment " << alignment;
      }
      const char* const data = at(len % 16, len);
      ASSERT_EQ(kernel.sum(reinterpret_cast<const U8*>(data), len), plainChunk(data, len, 0))
          << "length " << len;
    }
  }
}

TEST_P(ChecksumData, TheChecksumIsThePlainOneFromEveryStart) {
  for (U32 len = 0; len <= kLongest; ++len) {
    for (const U32 start : kStarts) {
      const char* const data = at(len % 8, len);
      const auto length = static_cast<U16>(len);
      ASSERT_EQ(ipChecksumCalc(data, length, start).value(), plainCalc(data, len, start))
          << "length " << len << " start " << start;
      if (len % 2 == 0) {
        ASSERT_EQ(ipChecksumChunk(data, length, start), plainChunk(data, len, start));
      }
      // What is short goes another way than through the kernels.
      for (U32 alignment = 0; len <= 300 && alignment < kAlignments; ++alignment) {
        const char* const there = &bytes_[alignment];
        ASSERT_EQ(ipChecksumCalc(there, length, start).value(), plainCalc(there, len, start))
            << "length " << len << " start " << start << " alignment " << alignment;
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
