// SPDX-License-Identifier: Apache-2.0
#include <random>
#include <string>

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/detail/ChecksumKernels.h"
#include "bench/packet/RawCksumPeer.h"
#include "bench/support/Compare.h"

namespace {

using namespace Wirl;

/// Where an IPv4 header lies in a frame that is aligned: at 14.
const char* packet() {
  static const std::string bytes = [] {
    std::mt19937 random(1);
    std::string made(9100, '\0');
    for (char& c : made) c = static_cast<char>(random());
    return made;
  }();
  return bytes.data() + 14;
}

bench::Body calc(Kiv::U16 bytes) {
  return [bytes](benchmark::State& state) {
    const char* data = packet();
    Kiv::U16 length = bytes;
    for (auto _ : state) {
      benchmark::DoNotOptimize(data);
      benchmark::DoNotOptimize(length);
      benchmark::DoNotOptimize(ipChecksumCalc(data, length, 0));
    }
  };
}

/// A sum that is exact, by whatever `sum` is, and then folded as the peer's is.
template <typename Sum>
bench::Body folded(Kiv::U16 bytes, Sum sum) {
  return [bytes, sum](benchmark::State& state) {
    const char* data = packet();
    Kiv::U16 length = bytes;
    for (auto _ : state) {
      benchmark::DoNotOptimize(data);
      benchmark::DoNotOptimize(length);
      Kiv::U32 total = sum(data, length);
      total = (total & 0xffff) + (total >> 16);
      total = (total & 0xffff) + (total >> 16);
      benchmark::DoNotOptimize(static_cast<Kiv::U16>(~total));
    }
  };
}

bench::Body chunk(Kiv::U16 bytes) {
  return folded(bytes, [](const char* data, Kiv::U16 length) { return ipChecksumChunk(data, length, 0); });
}

/// What a machine without the wider instruction sets runs. Up to 255 bytes all of them do the same: that of
/// the rows above.
bench::Body portable(Kiv::U16 bytes) {
  return folded(bytes, [sum = detail::checksumKernels().front().sum](const char* data, Kiv::U16 length) {
    return sum(reinterpret_cast<const Kiv::U8*>(data), length);
  });
}

bench::Body peer(Kiv::U16 bytes) {
  return [bytes](benchmark::State& state) { bench::rawCksum(state, packet(), bytes); };
}

void rows(const std::string& work, bench::Body (*ours)(Kiv::U16), std::initializer_list<Kiv::U16> lengths,
          double (*times)(Kiv::U16)) {
  for (const Kiv::U16 bytes : lengths) {
    bench::compare(work + std::to_string(bytes) + " bytes", ours(bytes), "DPDK rte_raw_cksum", peer(bytes),
                   bench::timesFaster(times(bytes)));
  }
}

BENCH_ROWS {
  const auto neverSlower = [](Kiv::U16) { return 1.0; };
  rows("Checksum: ", calc, {20, 24, 32, 40, 48, 63, 64, 98, 127, 128, 160, 190, 256, 576, 1500, 9000},
       [](Kiv::U16 bytes) { return bytes >= 576 ? 2.0 : 1.0; });
  rows("Checksum, chunk: ", chunk,
       {20,  24,  32,  40,  48,  52,  64,  72,  80,  88,  96,  98,  112, 120, 128,  144,  158,
        160, 176, 190, 192, 208, 222, 224, 240, 254, 256, 320, 384, 512, 576, 1024, 1500, 9000},
       neverSlower);
  rows("Checksum, portable: ", portable, {256, 288, 320, 382, 384, 512, 576, 1024, 1500, 9000}, neverSlower);
}

}  // namespace
