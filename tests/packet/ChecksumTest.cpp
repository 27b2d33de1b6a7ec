// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/Checksum.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "Wirl/packet/detail/ChecksumKernels.h"
#include "fuzz/packet/FuzzPkt.h"

namespace {

using namespace Wirl;

/// The fuzz target has any data and starts; here each length that goes a way of its own, at each alignment,
/// and the longest data of all ones, which fill a lane most.
TEST(Checksum, EveryWayIsExactAtEveryLengthAndAlignment) {
  std::mt19937 random(1);
  std::string bytes(65535 + 64, '\xff');
  for (const bool ones : {true, false}) {
    if (!ones) std::generate_n(bytes.begin(), 800, [&] { return static_cast<char>(random()); });
    for (U32 len = 0; len <= 701; ++len) {
      const U32 bytesTaken = len <= 700 ? len : 65534;
      for (U32 alignment = 0; alignment < 64; alignment += len < 80 ? 1 : 7) {
        const std::string_view data(&bytes[alignment], bytesTaken);
        U32 sum = 0;
        for (U32 i = 0; i < bytesTaken; ++i) sum += U32{static_cast<U8>(data[i])} << (i % 2 == 0 ? 8 : 0);
        ASSERT_EQ(ipChecksumCalc(data.data(), static_cast<U16>(bytesTaken), 0xffffffff).value(),
                  fuzz::plainChecksum("", sum - 1))
            << "length " << bytesTaken << " alignment " << alignment;
        if (bytesTaken % 2 != 0) continue;
        ASSERT_EQ(ipChecksumChunk(data.data(), static_cast<U16>(bytesTaken), 0xffffffff), sum - 1);
        for (const auto& kernel : detail::checksumKernels()) {
          ASSERT_EQ(kernel.sum(reinterpret_cast<const U8*>(data.data()), bytesTaken), sum) << kernel.name;
        }
      }
    }
  }
}

TEST(Checksum, KnownValues) {
  EXPECT_EQ(ipChecksumCalc("\x00\x01\xf2\x03\xf4\xf5\xf6\xf7", 8, 0), IpChecksum(U16{0x220d}));  // RFC 1071
  EXPECT_EQ(ipChecksumCalc("", 0, 0x1fffe), IpChecksum(U16{0}));
  EXPECT_EQ(ipChecksumCalc(nullptr, 0, 0).net().octets(), (std::array<U8, 2>{0xff, 0xff}));
  std::ostringstream out;
  out << IpChecksum(U16{0x00ab}) << ' ' << 255;
  EXPECT_EQ(out.str(), "0x00ab 255");
  EXPECT_DEATH(ipChecksumChunk("abc", 3, 0), "assertion failed: \\(len % 2\\) == 0\n");
}

}  // namespace
