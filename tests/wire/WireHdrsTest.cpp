// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "Wirl/Wirl.h"
#include "tests/packet/PktHeaders.h"

namespace {

using namespace Wirl;
using hdr::Octets;

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
  for (const HdrDescription& each : kHdrs) {
    for (const HdrField& field : each.fields) {
      for (unsigned trial = 0; trial < 24; ++trial) {
        SCOPED_TRACE(testing::Message() << each.name << "::" << field.name << ", trial " << trial);
        const std::size_t offset = trial % 8;
        Octets memory(offset + each.bytes + 8);
        for (U8& octet : memory) octet = static_cast<U8>(trial < 8 ? 0xff : random());
        const U64 value = trial < 16 ? random() : 0;
        const Octets expected = hdr::withField(memory, offset, field, value);
        field.set(memory.data() + offset, value);
        ASSERT_EQ(memory, expected);
        ASSERT_EQ(field.get(memory.data() + offset), hdr::fieldValue(field, value));
      }
    }
  }
}

}  // namespace
