// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/Checksum.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <iomanip>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "Kiv/Assert.h"
#include "Wirl/packet/detail/ChecksumKernels.h"

namespace Wirl {

using Kiv::U16;
using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

namespace {

constexpr bool kBigEndian = std::endian::native == std::endian::big;

// Exact sums, a vector of 16-bit lanes at a time. One vector adds the words as the machine reads them, modulo
// 2^16; another adds their upper octets. The difference is the sum of the lower octets. So neither the byte
// order of the machine nor a carry between words matters. The compiler's own vector types give one source for
// every instruction set.

constexpr std::size_t kVector = 16;  // the smallest
constexpr std::size_t kShort = 255;  // up to here the smallest is the fastest
#if defined(__i386__) && !defined(__SSE2__)
constexpr bool kHasVectors = false;  // they are in the kernels only
#else
constexpr bool kHasVectors = true;
#endif

/// Masks that keep the last bytes of a vector that begins earlier.
struct LastOctets {
  constexpr LastOctets() noexcept {
    for (std::size_t i = kZeros; i < sizeof(octets); ++i) octets[i] = 0xff;
  }
  static constexpr std::size_t kZeros = 64;
  U8 octets[2 * kZeros]{};
};
constexpr LastOctets kLastOctets;

/// Sums of the octets of words.
template <std::size_t Size>
class Lanes {
 public:
  typedef U32 Pairs __attribute__((vector_size(Size)));

  /// A lane then holds less than 2^15.
  static constexpr std::size_t kMost = 128;

  /// Adds vectors and moves behind them.
  template <int count>
  [[gnu::always_inline]] void take(const U8*& data) noexcept {
    for (int i = 0; i < count; ++i, data += Size) {
      Words words;
      std::memcpy(&words, data, Size);
      add(words);
    }
  }
  /// The last `bytes` of the vector that ends at `end`.
  [[gnu::always_inline]] void takeLast(const U8* end, std::size_t bytes) noexcept {
    Words words;
    Words mask;
    std::memcpy(&words, end - Size, Size);
    std::memcpy(&mask, kLastOctets.octets + LastOctets::kZeros - Size + bytes, Size);
    words &= mask;
    add(words);
  }
  [[gnu::always_inline]] void take(const Lanes& other) noexcept {
    words_ += other.words_;
    upper_ += other.upper_;
  }
  /// The sums of words; which lane has which does not matter.
  [[gnu::always_inline]] void addTo(Pairs& total) const noexcept {
    const Words lower = words_ - (upper_ << 8);
    const Words& first = kBigEndian ? upper_ : lower;
    const Words& second = kBigEndian ? lower : upper_;
#ifdef __SSE2__
    if constexpr (Size == sizeof(__m128i)) {
      total += reinterpret_cast<Pairs>(_mm_madd_epi16(reinterpret_cast<__m128i>(first), _mm_set1_epi16(256)));
      total += reinterpret_cast<Pairs>(_mm_madd_epi16(reinterpret_cast<__m128i>(second), _mm_set1_epi16(1)));
      return;
    }
#endif
    const Pairs firsts = reinterpret_cast<Pairs>(first);
    const Pairs seconds = reinterpret_cast<Pairs>(second);
    total += ((firsts & 0xffff) + (firsts >> 16)) << 8;
    total += (seconds & 0xffff) + (seconds >> 16);
  }

 private:
  typedef U16 Words __attribute__((vector_size(Size)));

  [[gnu::always_inline]] void add(const Words& words) noexcept {
    words_ += words;
    upper_ += words >> 8;
  }

  Words words_{};
  Words upper_{};
};

template <std::size_t Size>
[[gnu::always_inline]] inline U32 sumOfLanes(const typename Lanes<Size>::Pairs& lanes) noexcept {
  if constexpr (Size == 8) {
    return lanes[0] + lanes[1];
  } else {
    typename Lanes<Size / 2>::Pairs halves[2];
    std::memcpy(&halves, &lanes, Size);
    halves[0] += halves[1];
    return sumOfLanes<Size / 2>(halves[0]);
  }
}

/// At most one vector.
[[gnu::always_inline]] inline U32 sumOfFewWords(const U8* data, std::size_t bytes) noexcept {
  constexpr U64 kOctets = 0x00ff00ff00ff00ff;
  constexpr U64 kWords = 0x0000ffff0000ffff;
  U64 low = 0;
  U64 high = 0;
  const auto take = [&](U64 words) {
    low += words & kOctets;
    high += words >> 8 & kOctets;
  };
  for (; bytes >= 8; bytes -= 8, data += 8) take(detail::load<U64>(data));
  if ((bytes & 4) != 0) {
    take(detail::load<U32>(data));
    data += 4;
  }
  if ((bytes & 2) != 0) take(detail::load<U16>(data));
  const U64 lows = (low & kWords) + (low >> 16 & kWords);
  const U64 highs = (high & kWords) + (high >> 16 & kWords);
  const U64 sums = kBigEndian ? (highs << 8) + lows : (lows << 8) + highs;
  return static_cast<U32>(sums) + static_cast<U32>(sums >> 32);
}

/// Long enough for a vector, too short for the call of a wider one.
[[gnu::always_inline]] inline bool forVectorsAtHand(std::size_t bytes) noexcept {
  return kHasVectors && bytes > kVector && bytes <= kShort && bytes % 2 == 0;
}

/// More than one vector and at most kShort bytes.
[[gnu::always_inline]] inline U32 sumOfShort(const U8* data, std::size_t bytes) noexcept {
  Lanes<kVector> lanes;
  // Add the last vector first: only a part of it may be new.
  const std::size_t others = bytes - 1;
  lanes.takeLast(data + bytes, others % kVector + 1);
  lanes.take<1>(data);
  if (const std::size_t rest = others / kVector - 1; rest != 0) {
    if ((rest & 8) != 0) lanes.take<8>(data);
    if ((rest & 4) != 0) lanes.take<4>(data);
    if ((rest & 2) != 0) lanes.take<2>(data);
    if ((rest & 1) != 0) lanes.take<1>(data);
  }
  Lanes<kVector>::Pairs total{};
  lanes.addTo(total);
  return sumOfLanes<kVector>(total);
}

template <std::size_t Size>
[[gnu::always_inline]] inline U32 sumOfWords(const U8* data, std::size_t bytes) noexcept {
  if (bytes <= kVector) return sumOfFewWords(data, bytes);
  if (bytes <= kShort) return sumOfShort(data, bytes);
  typename Lanes<Size>::Pairs total{};
  // Two accumulators, so that an addition need not wait for the previous one.
  Lanes<Size> even;
  Lanes<Size> odd;
  even.takeLast(data + bytes, (bytes - 1) % Size + 1);
  std::size_t rest = (bytes - 1) / Size;
  if (rest % 2 != 0) odd.template take<1>(data);
  for (rest /= 2;;) {
    std::size_t rounds = std::min(rest, Lanes<Size>::kMost / 2 - 1);
    rest -= rounds;
#pragma GCC unroll 4
    for (; rounds != 0; --rounds) {
      even.template take<1>(data);
      odd.template take<1>(data);
    }
    even.take(odd);
    even.addTo(total);
    if (rest == 0) return sumOfLanes<Size>(total);
    even = odd = {};
  }
}

U32 sumPortably(const U8* data, std::size_t bytes) noexcept {
  return sumOfWords<16>(data, bytes);
}

#if defined(__x86_64__) || defined(__i386__)
[[gnu::target("sse2")]] U32 sumBySse2(const U8* data, std::size_t bytes) noexcept {
  return sumOfWords<16>(data, bytes);
}
[[gnu::target("avx2")]] U32 sumByAvx2(const U8* data, std::size_t bytes) noexcept {
  return sumOfWords<32>(data, bytes);
}
[[gnu::target("avx512f,avx512bw,avx512vl")]] U32 sumByAvx512(const U8* data, std::size_t bytes) noexcept {
  return sumOfWords<64>(data, bytes);
}
#endif

}  // namespace

std::span<const detail::ChecksumKernel> detail::checksumKernels() noexcept {
  static constexpr ChecksumKernel kernels[] = {
    {"portable", sumPortably},
#if defined(__x86_64__) || defined(__i386__)
    {"SSE2", sumBySse2},
    {"AVX2", sumByAvx2},
    {"AVX-512", sumByAvx512},
#endif
  };
  std::size_t usable = 1;
#if defined(__x86_64__) || defined(__i386__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("sse2")) usable = 2;
  if (__builtin_cpu_supports("avx2")) usable = 3;
  // The first processors with AVX-512 slow down for it; those that have VBMI2 do not.
  if (usable == 3 && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") &&
      __builtin_cpu_supports("avx512vbmi2")) {
    usable = 4;
  }
#endif
  return {kernels, usable};
}

namespace {

using Sum = U32 (*)(const U8*, std::size_t) noexcept;
U32 chooseAndSum(const U8* data, std::size_t bytes) noexcept;
constinit std::atomic<Sum> sumOfEven{chooseAndSum};

U32 chooseAndSum(const U8* data, std::size_t bytes) noexcept {
  const Sum best = detail::checksumKernels().back().sum;
  sumOfEven.store(best, std::memory_order_relaxed);
  return best(data, bytes);
}

[[gnu::noinline]] U32 sumByKernel(const char* data, std::size_t len, U32 sum) {
  KIV_ASSERT_AS(len % 2 == 0, "(len % 2) == 0");
  return sum + sumOfEven.load(std::memory_order_relaxed)(reinterpret_cast<const U8*>(data), len);
}

}  // namespace

// Aligned: at an unlucky address the loops take up to two thirds more time.

[[gnu::aligned(64)]] U32 ipChecksumChunk(const char* data, U16 len, U32 sum) {
  if (!forVectorsAtHand(len)) return sumByKernel(data, len, sum);
  return sum + sumOfShort(reinterpret_cast<const U8*>(data), len);
}

[[gnu::aligned(64)]] IpChecksum detail::checksumOfAny(const char* data, U16 len, U32 sum) noexcept {
  const U32 even = len & ~1u;
  sum = forVectorsAtHand(even) ? sum + sumOfShort(reinterpret_cast<const U8*>(data), even)
                               : sumByKernel(data, even, sum);
  if (len % 2 != 0) sum += U32{static_cast<U8>(data[even])} << 8;
  return IpChecksum(checksumOf(sum));
}

std::ostream& operator<<(std::ostream& out, IpChecksum checksum) {
  const auto flags = out.flags(std::ios_base::hex | std::ios_base::right);
  const char fill = out.fill('0');
  out << "0x" << std::setw(4) << checksum.value();
  out.fill(fill);
  out.flags(flags);
  return out;
}

}  // namespace Wirl
