// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "Wirl/wire/ArpHdr.h"
#include "Wirl/wire/IcmpHdr.h"
#include "Wirl/wire/IgmpHdr.h"
#include "Wirl/wire/TcpHdr.h"
#include "Wirl/wire/VrrpHdr.h"

namespace {

using namespace Wirl;
using Octets = std::vector<U8>;

/// The lowest bits of `value` in a field, bit by bit; of a wide one the upper half is the complement.
Octets withField(Octets memory, std::size_t offset, const HdrField& field, U64 value) {
  for (unsigned i = 0; i < field.bits; ++i) {
    const std::size_t bit = offset * 8 + field.firstBit + field.bits - 1u - i;
    const U8 mask = static_cast<U8>(0x80 >> bit % 8);
    const bool set = ((i < 64 ? value >> i : ~value >> (i - 64)) & 1) != 0;
    memory[bit / 8] = static_cast<U8>(set ? memory[bit / 8] | mask : memory[bit / 8] & ~mask);
  }
  return memory;
}

template <typename... Hdrs>
std::vector<HdrDescription> descriptions() {
  return {hdrDescription<Hdrs>...};
}

const std::vector<HdrDescription> kHdrs =
    descriptions<TcpHdr, TcpMssOption, TcpWindowScaleOption, TcpSackBlock, TcpTimestampsOption,
                 TcpUserTimeoutOption, TcpAuthenticationOption, IcmpHdr, IcmpEchoHdr, IcmpTimestampHdr,
                 IcmpAddressMaskHdr, IcmpUnreachableHdr, IcmpRedirectHdr, IcmpParameterProblemHdr,
                 IcmpRouterAdvertisementHdr, IcmpRouterAddress, EthArpHdr, IgmpHdr, Igmp3QueryHdr,
                 Igmp3ReportHdr, IgmpRecordHdr, VrrpHdr>();

/// At every offset of a word, among any bits, a setter writes the bits of its row and no other, and the accessor
/// reads them.
TEST(WireHdrs, AccessorsAreThoseOfTheTable) {
  std::mt19937_64 random(1);
  for (const HdrDescription& hdr : kHdrs) {
    for (const HdrField& field : hdr.fields) {
      for (unsigned trial = 0; trial < 24; ++trial) {
        SCOPED_TRACE(testing::Message() << hdr.name << "::" << field.name << ", trial " << trial);
        const std::size_t offset = trial % 8;
        Octets memory(offset + hdr.bytes + 8);
        for (U8& octet : memory) octet = static_cast<U8>(trial < 8 ? 0xff : random());
        const U64 value = trial < 16 ? random() : 0;
        const Octets expected = withField(memory, offset, field, value);
        field.set(memory.data() + offset, value);
        ASSERT_EQ(memory, expected);
        ASSERT_EQ(field.get(memory.data() + offset),
                  field.bits < 64 ? value & ((U64{1} << field.bits) - 1) : value);
      }
    }
  }
}

}  // namespace
