// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/Crc32.h"

#include <array>
#include <atomic>
#include <bit>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "Wirl/wire/detail/CrcKernels.h"

namespace Wirl {

using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

namespace {

// Polynomials over GF(2), reflected: the lowest bit of a number stands for its highest power of x.
constexpr U32 kIeee = 0xedb88320;
constexpr U32 kCastagnoli = 0x82f63b78;

/// `value`, of degree 31 at most, times x, modulo the polynomial.
constexpr U32 timesX(U32 value, U32 polynomial) noexcept {
  return (value >> 1) ^ ((value & 1) != 0 ? polynomial : 0);
}

// Portably: eight octets a step, a table for each of them.

using Tables = std::array<std::array<U32, 256>, 8>;

constexpr Tables tablesOf(U32 polynomial) noexcept {
  Tables tables{};
  for (U32 octet = 0; octet < 256; ++octet) {
    U32 value = octet;
    for (int bit = 0; bit < 8; ++bit) value = timesX(value, polynomial);
    tables[0][octet] = value;
  }
  for (std::size_t table = 1; table < tables.size(); ++table) {
    for (U32 octet = 0; octet < 256; ++octet) {
      const U32 before = tables[table - 1][octet];
      tables[table][octet] = (before >> 8) ^ tables[0][before & 0xff];
    }
  }
  return tables;
}

template <U32 polynomial>
constexpr Tables kTables = tablesOf(polynomial);

U32 lowestFirst(const U8* from) noexcept {
  U32 word;
  std::memcpy(&word, from, sizeof(word));
  return std::endian::native == std::endian::big ? __builtin_bswap32(word) : word;
}

template <U32 polynomial>
U32 byTables(U32 state, const U8* data, std::size_t bytes) noexcept {
  constexpr const Tables& tables = kTables<polynomial>;
  for (; bytes >= 8; bytes -= 8, data += 8) {
    const U32 first = lowestFirst(data) ^ state;
    const U32 second = lowestFirst(data + 4);
    state = tables[7][first & 0xff] ^ tables[6][first >> 8 & 0xff] ^ tables[5][first >> 16 & 0xff] ^
            tables[4][first >> 24] ^ tables[3][second & 0xff] ^ tables[2][second >> 8 & 0xff] ^
            tables[1][second >> 16 & 0xff] ^ tables[0][second >> 24];
  }
  for (; bytes > 0; --bytes, ++data) state = (state >> 8) ^ tables[0][(state ^ *data) & 0xff];
  return state;
}

#if defined(__x86_64__) || defined(__i386__)

// By carry-less multiplication. A block that lies d bits in front of another one can be added to it once it
// is multiplied by x^d, modulo the polynomial. So the data is folded into one block of 128 bits, and that is
// reduced to 32. The product of two reflected numbers of 64 bits comes out as one of 128 bits that is too low
// by one power, which the factors make up for.

#define WIRL_CLMUL gnu::target("sse4.1,pclmul")
#define WIRL_CLMUL_512 gnu::target("sse4.1,pclmul,avx512f,avx512vl,avx512bw,vpclmulqdq")

constexpr std::size_t kBlock = sizeof(__m128i);

/// x^power modulo the polynomial, as a number of 64 bits.
constexpr long long powerOfX(U32 polynomial, int power) noexcept {
  U32 value = 0x80000000;
  for (int i = 0; i < power; ++i) value = timesX(value, polynomial);
  return static_cast<long long>(U64{value} << 32);
}

/// The factors that take a block `bits` further: for its first half, and for its second.
template <U32 polynomial, int bits>
struct Distance {
  static constexpr long long kFirst = powerOfX(polynomial, bits + 63);
  static constexpr long long kSecond = powerOfX(polynomial, bits - 1);
};

/// The quotient of x^64 and the polynomial, and the polynomial itself, as numbers of 33 bits.
template <U32 polynomial>
struct Division {
  static constexpr long long kDivisor = static_cast<long long>(U64{polynomial} << 1 | 1);
  static constexpr long long kQuotient = [] {
    // Long division: a bit of the quotient for each power from x^32 down to x^0.
    U64 quotient = 1;
    U32 rest = polynomial;
    for (int i = 1; i <= 32; ++i) {
      if ((rest & 1) != 0) quotient |= U64{1} << i;
      rest = timesX(rest, polynomial);
    }
    return static_cast<long long>(quotient);
  }();
};

[[WIRL_CLMUL, gnu::always_inline]] inline __m128i loadBlock(const U8* from) noexcept {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

template <U32 polynomial, int bits>
[[WIRL_CLMUL, gnu::always_inline]] inline __m128i folded(__m128i block, __m128i onto) noexcept {
  using By = Distance<polynomial, bits>;
  const __m128i factors = _mm_set_epi64x(By::kSecond, By::kFirst);
  return _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(block, factors, 0x00), onto),
                       _mm_clmulepi64_si128(block, factors, 0x11));
}

/// From the block into which all is folded up to `data`, and the last `bytes`, less than a block; that many
/// and a whole block lie in front of their end.
template <U32 polynomial>
[[WIRL_CLMUL, gnu::always_inline]] inline U32 finished(__m128i block, const U8* data,
                                                       std::size_t bytes) noexcept {
  if (bytes != 0) {
    // Indices of a shift by octets: 0x80 gives 0.
    static constexpr auto kShifts = [] {
      std::array<U8, 3 * kBlock> shifts{};
      for (std::size_t i = 0; i < shifts.size(); ++i) {
        shifts[i] = i / kBlock == 1 ? static_cast<U8>(i - kBlock) : U8{0x80};
      }
      return shifts;
    }();
    const __m128i toFront = loadBlock(&kShifts[kBlock + bytes]);
    const __m128i toBack = loadBlock(&kShifts[bytes]);
    const __m128i last = loadBlock(data + bytes - kBlock);
    block = folded<polynomial, 128>(_mm_shuffle_epi8(block, toBack),
                                    _mm_blendv_epi8(_mm_shuffle_epi8(block, toFront), last, toFront));
  }
  // The check is the remainder of the data times x^32: 128 bits more to 96, these to 64, these to 32.
  const __m128i factors = _mm_set_epi64x(powerOfX(polynomial, 63), powerOfX(polynomial, 95));
  block =
      _mm_xor_si128(_mm_clmulepi64_si128(block, factors, 0x00), _mm_slli_si128(_mm_srli_si128(block, 8), 4));
  const __m128i upper = _mm_clmulepi64_si128(_mm_and_si128(block, _mm_set_epi32(0, 0, -1, 0)), factors, 0x10);
  block = _mm_srli_si128(_mm_xor_si128(block, upper), 8);
  const __m128i division = _mm_set_epi64x(Division<polynomial>::kDivisor, Division<polynomial>::kQuotient);
  const __m128i lower32 = _mm_set_epi32(0, 0, 0, -1);
  const __m128i quotient = _mm_clmulepi64_si128(_mm_and_si128(block, lower32), division, 0x00);
  const __m128i product = _mm_clmulepi64_si128(_mm_and_si128(quotient, lower32), division, 0x10);
  return static_cast<U32>(_mm_extract_epi32(_mm_xor_si128(block, product), 1));
}

template <U32 polynomial>
[[WIRL_CLMUL, gnu::always_inline]] inline U32 byBlocks(__m128i block, const U8* data,
                                                       std::size_t bytes) noexcept {
  for (; bytes >= kBlock; bytes -= kBlock, data += kBlock) {
    block = folded<polynomial, 128>(block, loadBlock(data));
  }
  return finished<polynomial>(block, data, bytes);
}

template <U32 polynomial>
[[WIRL_CLMUL, gnu::always_inline]] inline __m128i joined(__m128i first, __m128i second, __m128i third,
                                                         __m128i fourth) noexcept {
  return folded<polynomial, 384>(first,
                                 folded<polynomial, 256>(second, folded<polynomial, 128>(third, fourth)));
}

template <U32 polynomial>
[[WIRL_CLMUL]] U32 byMultiplication(U32 state, const U8* data, std::size_t bytes) noexcept {
  if (bytes < kBlock) return byTables<polynomial>(state, data, bytes);
  constexpr std::size_t kStep = 4 * kBlock;
  __m128i first = _mm_xor_si128(loadBlock(data), _mm_cvtsi32_si128(static_cast<int>(state)));
  if (bytes < kStep) return byBlocks<polynomial>(first, data + kBlock, bytes - kBlock);
  __m128i second = loadBlock(data + kBlock);
  __m128i third = loadBlock(data + 2 * kBlock);
  __m128i fourth = loadBlock(data + 3 * kBlock);
  for (data += kStep, bytes -= kStep; bytes >= kStep; data += kStep, bytes -= kStep) {
    first = folded<polynomial, 512>(first, loadBlock(data));
    second = folded<polynomial, 512>(second, loadBlock(data + kBlock));
    third = folded<polynomial, 512>(third, loadBlock(data + 2 * kBlock));
    fourth = folded<polynomial, 512>(fourth, loadBlock(data + 3 * kBlock));
  }
  return byBlocks<polynomial>(joined<polynomial>(first, second, third, fourth), data, bytes);
}

// The same with four blocks in a register.

template <U32 polynomial, int bits>
[[WIRL_CLMUL_512, gnu::always_inline]] inline __m512i folded(__m512i blocks, __m512i onto) noexcept {
  using By = Distance<polynomial, bits>;
  const __m512i factors = _mm512_set_epi64(By::kSecond, By::kFirst, By::kSecond, By::kFirst, By::kSecond,
                                           By::kFirst, By::kSecond, By::kFirst);
  constexpr int kXorOfThree = 0x96;
  return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(blocks, factors, 0x00),
                                   _mm512_clmulepi64_epi128(blocks, factors, 0x11), onto, kXorOfThree);
}

template <U32 polynomial>
[[WIRL_CLMUL_512]] U32 byWideMultiplication(U32 state, const U8* data, std::size_t bytes) noexcept {
  constexpr std::size_t kWide = sizeof(__m512i);
  constexpr std::size_t kStep = 4 * kWide;
  if (bytes < kStep) return byMultiplication<polynomial>(state, data, bytes);
  __m512i first = _mm512_xor_si512(_mm512_loadu_si512(data),
                                   _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(state))));
  __m512i second = _mm512_loadu_si512(data + kWide);
  __m512i third = _mm512_loadu_si512(data + 2 * kWide);
  __m512i fourth = _mm512_loadu_si512(data + 3 * kWide);
  for (data += kStep, bytes -= kStep; bytes >= kStep; data += kStep, bytes -= kStep) {
    first = folded<polynomial, 2048>(first, _mm512_loadu_si512(data));
    second = folded<polynomial, 2048>(second, _mm512_loadu_si512(data + kWide));
    third = folded<polynomial, 2048>(third, _mm512_loadu_si512(data + 2 * kWide));
    fourth = folded<polynomial, 2048>(fourth, _mm512_loadu_si512(data + 3 * kWide));
  }
  first = folded<polynomial, 1536>(first,
                                   folded<polynomial, 1024>(second, folded<polynomial, 512>(third, fourth)));
  for (; bytes >= kWide; data += kWide, bytes -= kWide) {
    first = folded<polynomial, 512>(first, _mm512_loadu_si512(data));
  }
  // The masked form, since GCC 12 warns of its own header in the other one.
  return byBlocks<polynomial>(joined<polynomial>(_mm512_maskz_extracti32x4_epi32(0xff, first, 0),
                                                 _mm512_maskz_extracti32x4_epi32(0xff, first, 1),
                                                 _mm512_maskz_extracti32x4_epi32(0xff, first, 2),
                                                 _mm512_maskz_extracti32x4_epi32(0xff, first, 3)),
                              data, bytes);
}

#undef WIRL_CLMUL
#undef WIRL_CLMUL_512
#endif

}  // namespace

std::span<const detail::CrcKernel> detail::crcKernels() noexcept {
  static constexpr CrcKernel kernels[] = {
    {"tables", byTables<kIeee>, byTables<kCastagnoli>},
#if defined(__x86_64__) || defined(__i386__)
    {"PCLMULQDQ", byMultiplication<kIeee>, byMultiplication<kCastagnoli>},
    {"VPCLMULQDQ", byWideMultiplication<kIeee>, byWideMultiplication<kCastagnoli>},
#endif
  };
  std::size_t usable = 1;
#if defined(__x86_64__) || defined(__i386__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("sse4.1") && __builtin_cpu_supports("pclmul")) usable = 2;
  if (usable == 2 && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") &&
      __builtin_cpu_supports("vpclmulqdq")) {
    usable = 3;
  }
#endif
  return {kernels, usable};
}

namespace {

using Update = detail::CrcKernel::Update;

template <Update detail::CrcKernel::*member>
struct Chosen {
  static U32 chooseAndUpdate(U32 state, const U8* data, std::size_t bytes) noexcept {
    const Update best = detail::crcKernels().back().*member;
    update.store(best, std::memory_order_relaxed);
    return best(state, data, bytes);
  }
  static U32 crc(std::span<const U8> data, U32 crc) noexcept {
    return ~update.load(std::memory_order_relaxed)(~crc, data.data(), data.size());
  }
  static inline constinit std::atomic<Update> update{chooseAndUpdate};
};

}  // namespace

U32 crc32(std::span<const U8> data, U32 crc) noexcept {
  return Chosen<&detail::CrcKernel::ieee>::crc(data, crc);
}

U32 crc32c(std::span<const U8> data, U32 crc) noexcept {
  return Chosen<&detail::CrcKernel::castagnoli>::crc(data, crc);
}

}  // namespace Wirl
