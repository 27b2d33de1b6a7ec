// SPDX-License-Identifier: Apache-2.0
#include <memory>

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/detail/ChecksumKernels.h"
#include "fuzz/packet/FuzzPkt.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace fuzz;
  Input input(data, size);
  const std::size_t align = input.octet() % 64;
  const std::size_t times = input.octet() + 1u;  // long data from a short input
  const U32 start = input.number<U32>();
  const std::string pattern = input.rest();
  std::string octets;
  for (std::size_t i = 0; i < times && octets.size() + pattern.size() <= 65535; ++i) octets += pattern;
  const auto bytes = static_cast<U16>(octets.size());

  const std::unique_ptr<U8[]> room(new U8[align + bytes]);
  octets.copy(reinterpret_cast<char*>(room.get()) + align, bytes);
  const U8* const from = room.get() + align;
  const auto* const chars = reinterpret_cast<const char*>(from);

  const std::size_t even = bytes & ~1u;
  U32 sum = 0;
  for (std::size_t i = 0; i < even; i += 2) sum += word(octets, i);
  for (const auto& kernel : detail::checksumKernels()) KIV_ASSERT(kernel.sum(from, even) == sum);
  KIV_ASSERT(ipChecksumChunk(chars, static_cast<U16>(even), start) == sum + start);

  // The sum to start with is one of 32 bits, and what goes beyond them is cut off.
  if (bytes % 2 != 0) sum += U32{from[bytes - 1]} << 8;
  KIV_ASSERT(ipChecksumCalc(chars, bytes, start).value() == plainChecksum("", sum + start));
  return 0;
}
