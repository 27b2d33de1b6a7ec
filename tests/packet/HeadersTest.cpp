// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Kiv/Exception.h"
#include "Wirl/packet/EthType.h"
#include "tests/packet/Frames.h"
#include "tests/packet/PktHeaders.h"
#include "tests/support/Failure.h"

namespace {

using namespace Wirl;

using hdr::Octets;

Octets octetsOf(std::string_view hex) {
  const std::string octets = frames::octets(hex);
  return Octets(octets.begin(), octets.end());
}

Pkt::Ptr pktOf(const Octets& octets) {
  Pkt::Ptr pkt = globalPktManager()->newPkt();
  pkt->bytesValueIs(octets);
  return pkt;
}

/// Each header as its standard draws it (headers.py). That a setter writes the bits of its row and no other
/// is up to the fuzz target.
TEST(Headers, FieldsLieWhereTheStandardsHaveThem) {
  std::ifstream rows(WIRL_HEADERS);
  std::set<std::string> types;
  for (std::string line; std::getline(rows, line);) {
    SCOPED_TRACE(line);
    std::istringstream in(line);
    std::string type, begins, hex, expected;
    std::getline(in >> type >> begins >> hex >> std::ws, expected);
    const auto header = std::find_if(hdr::headers().begin(), hdr::headers().end(),
                                     [&](const hdr::Header& each) { return each.type == type; });
    ASSERT_TRUE(header != hdr::headers().end());
    types.insert(type);
    const Octets octets = octetsOf(hex);
    ASSERT_EQ(header->table.bytes, octets.size());
    std::string fields;
    for (const HdrField& field : header->table.fields) {
      fields += (fields.empty() ? "" : " ") + std::string(field.name) + "=" +
                std::to_string(field.get(octets.data()));
    }
    EXPECT_EQ(fields, expected);
    Octets made = begins == "." ? Octets() : octetsOf(begins);
    made.resize(octets.size());
    EXPECT_EQ(header->made, made);
  }
  EXPECT_EQ(types.size(), hdr::headers().size());
}

TEST(EthernetHeaders, SnapIsToldByItsValues) {
  for (U32 bits = 0; bits < 8; ++bits) {
    Eth8022LlcHdr llc;
    llc.dsapIs(bits & 1 ? 0xaa : 0xab);
    llc.ssapIs(bits & 2 ? 0xaa : 0xab);
    llc.controlIs(bits & 4 ? 3 : 4);
    EXPECT_EQ(llc.snap(), bits == 7);
  }
}

TEST(EthernetHeaders, WrappersKnowTheirOwnTypesOnly) {
  const auto eth = ethHdrWrapperFactory(pktOf(Octets(14)), 0);
  const auto tag = eth8021QHdrWrapperFactory(pktOf(Octets(4)), 0);
  std::string known;
  for (U32 type = 0; type <= 0xffff; ++type) {
    eth->header()->typeOrLenIs(static_cast<U16>(type));
    tag->header()->typeOrLenIs(static_cast<U16>(type));
    EXPECT_TRUE(eth->header()->llcType() == (type < 1536) && tag->header()->llcType() == (type < 1536));
    if (eth->ethType() != tag->ethType()) known += "eth only ";
    if (eth->ethType() == ethTypeUnknown) {
      EXPECT_EQ(tag->ethType(), ethTypeUnknown);
    } else {
      EXPECT_EQ(eth->ethType(), type);
      known += std::string(ethTypeText(eth->ethType())) + " ";
    }
  }
  EXPECT_EQ(known,
            "ethTypeIp ethTypeArpIp ethTypeDot1Q ethTypeIp6 ethTypeMpls ethTypePtp ethTypeCfm eth only "
            "ethTypeQinQ ");
  tag->ethTypeIs(ethTypeQuillo);
  EXPECT_EQ(tag->pkt()->rawByte(2), 0xd2);
}

TEST(Headers, WrappersMaskWhatIsTooWide) {
  const Pkt::Ptr pkt = pktOf(Octets(18, 0xff));
  const auto tag = eth8021QHdrWrapperFactory(pkt, 14);
  tag->tagControlPriorityIs(0xfa);
  tag->tagControlVlanIdIs(0xf123);
  tag->tagControlCfiIs(false);
  tag->ethTypeIs(ethTypeQuillo);
  EXPECT_TRUE(tag->tagControlPriority() == 2 && !tag->tagControlCfi() && tag->tagControlVlanId() == 0x123);
  const auto snap = eth8022SnapHdrWrapperFactory(pkt, 3);
  snap->orgCodeIs(0x123456);
  EXPECT_TRUE(snap->orgCode0() == 0x12 && snap->orgCode1() == 0x34 && snap->orgCode2() == 0x56);
  const auto mim = mimHdrWrapperFactory(pkt, 8);
  mim->isidIs(0x1000001);
  mim->header()->serviceIntfEthTypeIs(0x1234);
  EXPECT_EQ(mim->serviceIntfEthType(), ethTypeUnknown);
  EXPECT_EQ(pkt->bytesValue(), octetsOf("ffffff 123456ffff 1234 ff000001 4123 d28b"));
}

TEST(HeadersDeathTest, AHeaderLiesWholeInTheFirstPiece) {
  for (const auto& header : hdr::headers()) {
    if (!header.bind) continue;
    const std::string condition =
        "\\( offset_ \\+ sizeof\\( " + std::string(header.type) + " \\) \\) <= pkt_->frontBytes\\(\\)\n";
    const Pkt::Ptr fits = pktOf(Octets(header.table.bytes + 1));
    EXPECT_EQ(header.bind(fits, 1), fits->front() + 1);
    EXPECT_DEATH(header.bind(fits, 2), condition);
    EXPECT_DEATH(header.bind(fits, 0u - header.table.bytes), condition) << "wraps";
  }
  const Pkt::Ptr inTwo = pktOf(Octets(20));
  inTwo->newPrivateHeadData(13);
  EXPECT_DEATH(ethHdrWrapperFactory(inTwo, 0), "sizeof\\( EthHdr \\)");
}

TEST(Headers, TellTheirLengths) {
  for (const auto& [words, total, payload] :
       {std::tuple(5, 20, 0), {5, 19, 0}, {15, 65535, 65475}, {0, 100, 100}}) {
    IpHdr ip;
    ip.headerLenIs(static_cast<U8>(words));
    ip.totalLenIs(static_cast<U16>(total));
    EXPECT_TRUE(ip.headerBytes() == 4 * words && ip.hasOptions() == (words > 5) &&
                ip.payloadLen() == payload);
    UdpHdr udp;
    udp.lenIs(static_cast<U16>(words));
    EXPECT_EQ(udp.payloadLen(), words < 8 ? 0 : words - 8);
    AhHdr ah;
    ah.payloadLenIs(static_cast<U8>(words));
    EXPECT_EQ(ah.headerBytes(), 8 + 4 * words);
  }
  EXPECT_DEATH(IpHdr().headerBytesIs(22), "assertion failed: \\(b % 4\\) == 0\n");
}

template <typename Ip>
std::string knownProtocols() {
  std::string known;
  for (U32 octet = 0; octet < 256; ++octet) {
    Ip ip;
    ip.protocolIs(static_cast<U8>(octet));
    EXPECT_TRUE(ip.protocolNum() == octet || ip.protocolNum() == ipProtoUnknown);
    if (ip.protocolNum() == octet) known += std::to_string(octet) + " ";
  }
  return known;
}

TEST(IpHeaders, EachKnowsItsOwnProtocols) {
  EXPECT_EQ(knownProtocols<IpHdr>(), "1 2 6 17 46 47 51 89 94 103 112 115 124 132 253 255 ");
  EXPECT_EQ(knownProtocols<Ip6Hdr>(), "0 1 2 6 17 43 44 58 59 60 89 103 112 253 255 ");
}

TEST(IpHeaders, PrintTheirFields) {
  IpHdr four;
  four.versionIs(4);
  four.headerBytesIs(20);
  four.totalLenIs(115);
  four.idU16Is(7);
  four.dontFragIs(true);
  four.ttlIs(64);
  four.protocolNumIs(ipProtoUdp);
  four.checksumU16Is(0xb861);
  four.srcIs(IpAddr(192, 168, 0, 1));
  four.dstIs(IpAddr(192, 168, 0, 199));
  std::ostringstream out;
  out << four;
  EXPECT_EQ(out.str(),
            "IPv4 version 4 headerLen 5 tos 0 totalLen 115 id 7 dontFrag fragmentOffset 0 ttl 64 protocol 17 "
            "checksum 0xb861 src 192.168.0.1 dst 192.168.0.199");
  Ip6Hdr six;
  six.versionTrafficClassAndFlowLabelIs(IpVersionTrafficClassAndFlowLabel(0x6abcdef1));
  six.hopLimitIs(1);
  out.str("");
  out << six;
  EXPECT_EQ(
      out.str(),
      "IPv6 version 6 trafficClass 171 flowLabel 843505 payloadLen 0 nextHeader 0 hopLimit 1 src :: dst ::");
}

/// A text is refused with this message, and the value stays; without one it is the value's own.
template <typename T>
void expectText(const std::string& text, const std::string& refusal = "") {
  T value;
  EXPECT_EQ(failureOf([&] { value.stringValueIs(text); }), refusal) << text;
  EXPECT_EQ(value.stringValue(), refusal.empty() ? text : std::string(T().stringValue()));
  EXPECT_EQ(testing::PrintToString(value), std::string(value.stringValue()));
}

TEST(HeaderValues, ReadTheirTextsAndRefuseWhatDoesNotFit) {
  expectText<IpVersion>("15");
  for (const char* text : {"16", "99999999999999999999999999"}) {
    expectText<IpVersion>(text, "IpVersion::value is larger than its field");
  }
  expectText<IpVersion>("4 ", "Invalid IpVersion");
  const std::string tag = "Value('Wirl::Eth8021QTagControl', ** {'v0': 177, 'v1': 35})";
  expectText<Eth8021QTagControl>(tag);
  expectText<Eth8021QTagControl>(tag + " ", "Invalid Eth8021QTagControl");
  expectText<IpFragmentOffsetAndFlags>(
      "Value('Wirl::IpFragmentOffsetAndFlags', ** {'flags': Value('Wirl::IpFlags', ** {'reservedFragFlag': "
      "False, 'dontFrag': True, 'moreFrag': False}), 'fragmentOffset': 4660})");
  expectText<IpVersionAndHeaderLen>(
      "Value('Wirl::IpVersionAndHeaderLen', ** {'version': 4, 'headerLen': 5})");
  const Eth8021QTagControl control(0xb123);
  EXPECT_TRUE(control == Eth8021QTagControl(5, true, 0x123) && control < Eth8021QTagControl(0xb124) &&
              control.hash() == Kiv::hashMix(0xb123));
  EXPECT_EQ(std::hash<IpFlags>()(IpFlags(5)), Kiv::hashMix(5));
}

// Of somebody else: `std::hash` of it is not ours.
struct Foreign {
  using Composite = Foreign;
};

TEST(HeaderValues, NumbersOfHeadersCompareWithNumbersAndOnlyTheyHash) {
  static_assert(NetU16(5) == 5 && 5 == NetU16(5) && NetU16(5) != 65541 && NetU32(~0u) != -1);
  static_assert(NetU16(0x0800) == ethTypeIp && NetU16(5) == IpVersion(5) && NetU32(5) == NetU16(5));
  static_assert(!std::is_default_constructible_v<std::hash<Foreign>>);
  EXPECT_EQ(NetU16(7), NetU16(7));
}

TEST(HeaderNames, TextsAreTheMembersNames) {
  using testing::PrintToString;
  for (const EthType type : {ethTypeUnknown, ethTypeIp, ethTypeLldp, ethTypeQuillo, ethTypeDot1ad}) {
    EXPECT_TRUE(ethTypeFromString(ethTypeText(type)) == type && ethTypeOf(static_cast<U16>(type)) == type);
  }
  EXPECT_EQ(PrintToString(static_cast<EthType>(0x1234)), "ethTypeUnknown");
  EXPECT_EQ(ethTypeFromText("ethTypeIp "), std::nullopt);
  EXPECT_THROW(ethTypeFromString("ip"), Kiv::RangeException);
  EXPECT_EQ(PrintToString(ethSubTypeFromString("ethSubTypeL2HeaderTimestamping")),
            "ethSubTypeL2HeaderTimestamping");
  EXPECT_THROW(ethSubTypeFromString(""), Kiv::RangeException);
  std::string types, options;
  for (unsigned octet = 0; octet < 256; ++octet) {
    const std::string number = std::to_string(octet);
    const auto type = PrintToString(static_cast<Icmp6TypeNumber>(octet));
    const auto option = PrintToString(static_cast<Icmp6OptionTypeNumber>(octet));
    if (type != number) types += number + ' ';
    if (option != number) options += number + ' ';
    const auto protocol = static_cast<IpProtocolNumber>(octet);
    EXPECT_TRUE(protocol == ipProtoUnknown || ipProtocolNumberText(protocol) == "ipProtoUnknown" ||
                ipProtocolNumberFromString(ipProtocolNumberText(protocol)) == protocol);
  }
  EXPECT_EQ(types, "1 2 3 4 128 129 130 131 132 133 134 135 136 137 143 ");
  EXPECT_EQ(options, "1 2 3 4 5 14 24 25 31 ");
  EXPECT_EQ(PrintToString(icmp6TypeRedirect), "icmp6TypeRedirect");
}

}  // namespace
