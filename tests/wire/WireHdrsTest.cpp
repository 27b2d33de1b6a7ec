// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "Wirl/Wirl.h"

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

const std::vector<HdrDescription> kHdrs = descriptions<
    ArpHdr, EthArpHdr, BfdHdr, BfdAuthenticationHdr, BfdKeyedAuthenticationHdr, EspHdr, GreHdr,
    GreChecksumField, GreKeyField, GreSeqField, ErspanHdr, IcmpHdr, IcmpEchoHdr, IcmpTimestampHdr,
    IcmpAddressMaskHdr, IcmpUnreachableHdr, IcmpRedirectHdr, IcmpParameterProblemHdr,
    IcmpRouterAdvertisementHdr, IcmpRouterAddress, IgmpHdr, Igmp3QueryHdr, Igmp3ReportHdr, IgmpRecordHdr,
    Ip6ExtHdr, Ip6OptionHdr, Ip6RouterAlertOption, Ip6JumboOption, Ip6TunnelLimitOption, Ip6HomeAddressOption,
    Ip6FragHdr, Ip6RoutingHdr, Ip6SegmentRoutingHdr, Ip6SegmentHmacTlv, IpOptionHdr, IpRouteOption,
    IpTimestampOption, IpStreamIdOption, IpRouterAlertOption, IpfixHdr, IpfixSetHdr, IpfixTemplateHdr,
    IpfixOptionsTemplateHdr, IpfixEnterpriseFieldSpecifier, LldpTlvHdr, LldpChassisIdTlv, LldpPortIdTlv,
    LldpTtlTlv, LldpCapabilitiesTlv, LldpOrganizationTlv, MplsHdr, PwControlWord, PwAssociatedChannelHdr,
    Icmp6ErrorHdr, Icmp6PacketTooBigHdr, Icmp6ParameterProblemHdr, Icmp6EchoHdr, Icmp6RedirectHdr,
    NdRedirectedHdrOption, NdNonceOption, NdRouteInfoOption, NdRdnssOption, NdDnsslOption, NdPref64Option,
    MldHdr, Mld2QueryHdr, Mld2ReportHdr, MldRecordHdr, PimHdr, PimRegisterHdr, PimOptionHdr,
    PimHoldtimeOption, PimLanPruneDelayOption, PimDrPriorityOption, PimGenerationIdOption, SctpHdr,
    SctpChunkHdr, SctpDataChunk, SctpInitChunk, SctpSackChunk, SctpShutdownChunk, TcpHdr, TcpOptionHdr,
    TcpMssOption, TcpWindowScaleOption, TcpSackBlock, TcpTimestampsOption, TcpUserTimeoutOption,
    TcpAuthenticationOption, VrrpHdr, VxlanHdr>();

/// At every offset of a word, among any bits, a setter writes the bits of its row and no other, and the
/// accessor reads them.
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
