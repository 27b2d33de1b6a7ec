// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/Crc32.h"

#include <vector>

#include "bench/support/Compare.h"

#if BENCH_ISAL
#include <isa-l/crc.h>
#endif

namespace {

using Kiv::U32;
using Kiv::U8;

constexpr std::size_t kBytes = 1500;

std::vector<U8> data() {
  std::vector<U8> octets(kBytes);
  for (std::size_t i = 0; i < kBytes; ++i) octets[i] = static_cast<U8>(i * 7 + (i >> 8));
  return octets;
}

template <typename Crc>
void run(benchmark::State& state, Crc crc) {
  const std::vector<U8> octets = data();
  const U8* at = octets.data();
  for (auto _ : state) {
    benchmark::DoNotOptimize(at);
    benchmark::DoNotOptimize(crc(at));
  }
}

void ieee(benchmark::State& state) {
  run(state, [](const U8* at) { return Wirl::crc32({at, kBytes}); });
}
void castagnoli(benchmark::State& state) {
  run(state, [](const U8* at) { return Wirl::crc32c({at, kBytes}); });
}

#if BENCH_ISAL
void isalIeee(benchmark::State& state) {
  run(state, [](const U8* at) { return crc32_gzip_refl(0, at, kBytes); });
}
void isalCastagnoli(benchmark::State& state) {
  run(state,
      [](const U8* at) { return crc32_iscsi(const_cast<U8*>(at), static_cast<int>(kBytes), 0xffffffff); });
}
#endif

BENCH_ROWS {
#if BENCH_ISAL
  bench::compare("CRC-32 of 1,500 bytes", ieee, "ISA-L", isalIeee, bench::timesFaster(1.0));
  bench::compare("CRC-32C of 1,500 bytes", castagnoli, "ISA-L", isalCastagnoli, bench::timesFaster(1.0));
#else
  bench::state("CRC-32 of 1,500 bytes (no ISA-L here)", ieee);
  bench::state("CRC-32C of 1,500 bytes (no ISA-L here)", castagnoli);
#endif
}

}  // namespace
