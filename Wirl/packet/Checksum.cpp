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

template <typename Word>
[[gnu::always_inline]] inline Word load(const U8* from) noexcept {
  Word word;
  std::memcpy(&word, from, sizeof(word));
  return word;
}

// Exact sums. The octets of words are added up apart, the first ones and the second ones, so that neither the
// machine's order of octets nor a carry between words matters. As many words as a vector holds go at once, in
// lanes of 16 bits, which are full after 257 rounds. The vectors are the compiler's own: one source for every
// instruction set.

template <std::size_t Size>
struct Lanes {
  typedef U16 Words __attribute__((vector_size(Size)));
  typedef U32 Pairs __attribute__((vector_size(Size)));
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

/// Fewer than 16 bytes.
[[gnu::always_inline]] inline U32 sumOfFewWords(const U8* data, std::size_t bytes) noexcept {
  if (bytes == 0) return 0;
  constexpr U64 kOctets = 0x00ff00ff00ff00ff;
  constexpr U64 kWords = 0x0000ffff0000ffff;
  U64 eight = 0;
  U64 four = 0;
  U64 two = 0;
  if (bytes & 8) {
    eight = load<U64>(data);
    data += 8;
  }
  if (bytes & 4) {
    four = load<U32>(data);
    data += 4;
  }
  if (bytes & 2) two = load<U16>(data);
  const U64 low = (eight & kOctets) + (four & kOctets) + (two & kOctets);
  const U64 high = (eight >> 8 & kOctets) + (four >> 8 & kOctets) + (two >> 8);
  const U64 lows = (low & kWords) + (low >> 16 & kWords);
  const U64 highs = (high & kWords) + (high >> 16 & kWords);
  const U64 sums = kBigEndian ? (highs << 8) + lows : (lows << 8) + highs;
  return static_cast<U32>(sums) + static_cast<U32>(sums >> 32);
}

/// What fills vectors of `Size`, then smaller ones.
template <std::size_t Size>
[[gnu::always_inline]] inline U32 sumOfWords(const U8* data, std::size_t bytes) noexcept {
  using Words = typename Lanes<Size>::Words;
  using Pairs = typename Lanes<Size>::Pairs;
  U32 sum = 0;
  if (bytes >= Size) {
    Pairs total{};
    do {
      std::size_t rounds = std::min<std::size_t>(bytes / Size, 256);
      bytes -= rounds * Size;
      Words first{};
      Words second{};
#pragma GCC unroll 4
      for (; rounds != 0; --rounds, data += Size) {
        Words words;
        std::memcpy(&words, data, Size);
        first += kBigEndian ? words >> 8 : words & 0xff;
        second += kBigEndian ? words & 0xff : words >> 8;
      }
      const Pairs firsts = (reinterpret_cast<Pairs>(first) & 0xffff) + (reinterpret_cast<Pairs>(first) >> 16);
      const Pairs seconds =
          (reinterpret_cast<Pairs>(second) & 0xffff) + (reinterpret_cast<Pairs>(second) >> 16);
      total += (firsts << 8) + seconds;
    } while (bytes >= Size);
    sum = sumOfLanes<Size>(total);
  }
  if constexpr (Size > 16) {
    return sum + sumOfWords<Size / 2>(data, bytes);
  } else {
    return sum + sumOfFewWords(data, bytes);
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

// For what is too short to be worth a vector, and where only the folded sum matters: words of the machine's
// own size and order, whose carries count as ones, since 2^16 is 1 in this arithmetic.
constexpr std::size_t kShort = 255;
constexpr std::size_t kIpHdr = 20;
using Word = std::conditional_t<sizeof(void*) == 8, unsigned long long, unsigned>;
using Carry = unsigned char;
constexpr std::size_t kWord = sizeof(Word);

/// Adds `word` and the carry to `sum`; returns the carry from that.
[[gnu::always_inline]] inline Carry addWithCarry(Carry carry, Word& sum, Word word) noexcept {
#if defined(__x86_64__)
  return _addcarry_u64(carry, sum, word, &sum);
#elif defined(__i386__)
  return _addcarry_u32(carry, sum, word, &sum);
#else
  const Carry first = __builtin_add_overflow(sum, word, &sum);
  return static_cast<Carry>(first | __builtin_add_overflow(sum, Word{carry}, &sum));
#endif
}

/// The octets of the checksum, in memory order, from a sum of words.
[[gnu::always_inline]] inline U16 finished(U64 sum) noexcept {
  // Added to itself with the halves changed, a number has in its upper half the sum of both, carry included.
  const auto half = static_cast<U32>((sum + std::rotl(sum, 32)) >> 32);
  return static_cast<U16>(~(half + std::rotl(half, 16)) >> 16);
}

/// Of an IPv4 header without options, the most frequent one.
[[gnu::always_inline]] inline U16 ipHdrChecksum(const U8* data, U64 start) noexcept {
  U64 sum = start;
  for (std::size_t i = 0; i < kIpHdr; i += 4) sum += load<U32>(data + i);
  return finished(sum);
}

/// Adds `count` words, carries and all, and goes behind them.
template <std::size_t count>
[[gnu::always_inline]] inline void takeWords(Word& sum, const U8*& data) noexcept {
  Word words = sum;  // in a register, whatever addresses are taken
  Carry carry = 0;
  for (std::size_t i = 0; i < count; ++i) carry = addWithCarry(carry, words, load<Word>(data + i * kWord));
  sum = words + carry;  // which is less than all ones after a carry
  data += count * kWord;
}

[[gnu::always_inline]] inline U16 shortChecksum(const U8* data, std::size_t bytes, U64 rest) noexcept {
  Word words = 0;
  for (; bytes >= 8 * kWord; bytes -= 8 * kWord) takeWords<8>(words, data);
  if ((bytes & 4 * kWord) != 0) takeWords<4>(words, data);
  if (bytes % (4 * kWord) != 0) {
    if ((bytes & 2 * kWord) != 0) takeWords<2>(words, data);
    if ((bytes & kWord) != 0) takeWords<1>(words, data);
    if (kWord == 8 && (bytes & 4) != 0) {
      rest += load<U32>(data);
      data += 4;
    }
    if ((bytes & 2) != 0) {
      rest += load<U16>(data);
      data += 2;
    }
    if ((bytes & 1) != 0) rest += kBigEndian ? U32{*data} << 8 : U32{*data};
  }
  U64 sum = words;
  sum += __builtin_add_overflow(sum, rest, &sum);
  return finished(sum);
}

[[gnu::noinline]] IpChecksum longChecksum(const char* data, U16 len, U32 sum) noexcept {
  sum += sumOfEven.load(std::memory_order_relaxed)(reinterpret_cast<const U8*>(data), len & ~1u);
  if (len % 2 != 0) sum += U32{static_cast<U8>(data[len - 1])} << 8;
  while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
  return IpChecksum(static_cast<U16>(sum ^ 0xffff));
}

}  // namespace

U32 ipChecksumChunk(const char* data, U16 len, U32 sum) {
  KIV_ASSERT_AS(len % 2 == 0, "(len % 2) == 0");
  return sum + sumOfEven.load(std::memory_order_relaxed)(reinterpret_cast<const U8*>(data), len);
}

IpChecksum ipChecksumCalc(const char* data, U16 len, U32 sum) {
  // Data adds less than 2^31, so that nothing is cut off here as it is from a larger start.
  if (len > kShort || sum > 0x7fffffff) [[unlikely]]
    return longChecksum(data, len, sum);
  const auto* const octets = reinterpret_cast<const U8*>(data);
  const U32 start = kBigEndian ? sum : __builtin_bswap32(sum);
  return IpChecksum(std::bit_cast<NetU16>(len == kIpHdr ? ipHdrChecksum(octets, start)
                                                        : shortChecksum(octets, len, start)));
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
