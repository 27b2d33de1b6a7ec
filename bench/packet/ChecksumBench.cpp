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

/// What a machine without the wider instruction sets runs. Up to 255 bytes all of them do the same: the rows
/// above.
bench::Body portable(Kiv::U16 bytes) {
  return [bytes](benchmark::State& state) {
    const auto sum = detail::checksumKernels().front().sum;
    const auto* data = reinterpret_cast<const Kiv::U8*>(packet());
    std::size_t length = bytes;
    for (auto _ : state) {
      benchmark::DoNotOptimize(data);
      benchmark::DoNotOptimize(length);
      Kiv::U32 total = sum(data, length);
      while (total >> 16 != 0) total = (total & 0xffff) + (total >> 16);
      benchmark::DoNotOptimize(static_cast<Kiv::U16>(~total));
    }
  };
}

bench::Body peer(Kiv::U16 bytes) {
  return [bytes](benchmark::State& state) { bench::rawCksum(state, packet(), bytes); };
}

BENCH_ROWS {
  for (const Kiv::U16 bytes :
       std::initializer_list<Kiv::U16>{20, 32, 40, 63, 64, 98, 127, 128, 160, 190, 256, 576, 1500, 9000}) {
    const auto target = bench::timesFaster(bytes >= 576 ? 2.0 : 1.0);
    bench::compare("Checksum: " + std::to_string(bytes) + " bytes", calc(bytes), "DPDK rte_raw_cksum",
                   peer(bytes), target);
  }
  for (const Kiv::U16 bytes : std::initializer_list<Kiv::U16>{256, 576, 1500, 9000}) {
    bench::compare("Checksum, portable: " + std::to_string(bytes) + " bytes", portable(bytes),
                   "DPDK rte_raw_cksum", peer(bytes), bench::timesFaster(1.0));
  }
}

}  // namespace
