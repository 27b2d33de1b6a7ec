// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "Kiv/Exception.h"
#include "Wirl/packet/EthType.h"
#include "tests/packet/Frames.h"
#include "tests/packet/PktHeaders.h"

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

/// Each header as its standard draws it: octets, and what the fields of its table are in them. (That a setter
/// writes the bits of its row and no other is up to the fuzz target.)
TEST(Headers, FieldsLieWhereTheStandardsHaveThem) {
  const struct {
    const char* type;
    const char* octets;
    const char* constructed;  // how the default constructor begins; zeros follow
    const char* fields;
  } rows[] = {
      {"EthHdr", "020000000001 020000000002 88cc", "", "dst=2199023255553 src=2199023255554 typeOrLen=35020"},
      {"Eth8021QHdr", "b123 0800", "", "tagControl=45347 priority=5 cfi=1 vlanId=291 typeOrLen=2048"},
      {"Eth8022LlcHdr", "aaab03", "", "dsap=170 ssap=171 control=3"},
      {"Eth8022SnapHdr", "123456 789a", "", "orgCode=1193046 localCode=30874"},
      {"MimHdr", "88e7 a1000102", "",
       "serviceIntfEthType=35047 serviceIntfTag=2701132034 reserved=161 isid=258"},
      {"IpHdr", "46b9 0102 0304 a567 40 11 89ab c0000201 c6336402", "",
       "versionAndHeaderLen=70 version=4 headerLen=6 tos=185 dscp=46 ecn=1 totalLen=258 totalLenU16=258 "
       "id=772 "
       "idU16=772 fragmentOffsetAndFlags=42343 flags=5 reservedFragFlag=1 dontFrag=0 "
       "moreFrag=1 fragmentOffset=1383 ttl=64 protocol=17 checksum=35243 checksumU16=35243 src=3221225985 "
       "dst=3325256706"},
      {"IpHdrOptionCommon", "b4", "", "type=180 copied=1 optionClass=1 number=20"},
      {"IpHdrRouterAlertOption", "94040001", "9404",
       "type=148 copied=1 optionClass=0 number=20 length=4 value=1"},
      {"Ip6Hdr", "6abcdef1 0102 3a ff 20010db8000000000000000000000001 20010db8000000000000000000000002", "",
       "versionTrafficClassAndFlowLabel=1790762737 version=6 trafficClass=171 flowLabel=843505 "
       "payloadLen=258 "
       "protocol=58 hopLimit=255 src=1 dst=2"},
      {"Ip6HdrOptionCommon", "2b02", "", "nextHdr=43 hdrExtLen=2"},
      {"Ip6HdrRouterAlertOption", "3a00 0502 0103", "0000 0502",
       "nextHdr=58 hdrExtLen=0 type=5 length=2 value=259"},
      {"Ip6HdrPad1", "c2", "", "type=194"},
      {"Ip6HdrPadN", "0104", "01", "type=1 length=4"},
      {"UdpHdr", "0035 c001 0010 abcd", "",
       "srcPort=53 dstPort=49153 len=16 checksum=43981 checksumU16=43981"},
      {"AhHdr", "1104 0001 00000100 00000002", "",
       "nextHdr=17 payloadLen=4 reserved=1 spi=256 sequenceNum=2"},
      {"Icmp6Hdr", "8701 abcd", "", "type=135 code=1 checksum=43981 checksumU16=43981"},
      {"Icmp6OptionCommonHdr", "0e02", "", "type=14 len=2"},
      {"Icmp6RsHdr", "8500 0001 00000000", "85", "type=133 code=0 checksum=1 checksumU16=1"},
      {"Icmp6RaHdr", "8600 0001 40 c0 0708 00000102 00000304", "86",
       "type=134 code=0 checksum=1 checksumU16=1 curHopLimit=64 managed=1 otherConfig=1 routerLifetime=1800 "
       "reachableTime=258 retransTimer=772"},
      {"Icmp6NsHdr", "8700 0001 00000000 20010db8000000000000000000000007", "87",
       "type=135 code=0 checksum=1 checksumU16=1 target=7"},
      {"Icmp6NaHdr", "8800 0001 a0000000 20010db8000000000000000000000007", "88",
       "type=136 code=0 checksum=1 checksumU16=1 router=1 solicited=0 override=1 target=7"},
      {"Icmp6LinkLayerAddrOptionHdr", "0201 020000000001", "0101", "type=2 len=1 addr=2199023255553"},
      {"Icmp6PrefixInfoOptionHdr", "0304 40 c0 00000005 00000006 00000000 20010db8000000000000000000000000",
       "0304",
       "type=3 len=4 prefixLen=64 onLink=1 autonomous=1 validLifetime=5 preferredLifetime=6 prefix=0"},
      {"Icmp6MtuOptionHdr", "0501 0000 000005dc", "0501", "type=5 len=1 mtu=1500"},
  };
  ASSERT_EQ(hdr::headers().size(), std::size(rows));
  for (const auto& header : hdr::headers()) {
    const auto& row = rows[&header - hdr::headers().data()];
    SCOPED_TRACE(row.type);
    ASSERT_STREQ(header.type, row.type);
    const Octets octets = octetsOf(row.octets);
    ASSERT_EQ(header.table.bytes, octets.size());
    std::string fields;
    for (const HdrField& field : header.table.fields) {
      fields += (fields.empty() ? "" : " ") + std::string(field.name) + "=" +
                std::to_string(field.get(octets.data()));
    }
    EXPECT_EQ(fields, row.fields);
    Octets made = octetsOf(row.constructed);
    made.resize(octets.size());
    EXPECT_EQ(header.made, made);
  }
}

TEST(EthernetHeaders, LlcAndSnapAreToldByTheirValues) {
  EthHdr eth;
  Eth8021QHdr tag;
  for (const U16 length : std::initializer_list<U16>{0, 1535, 1536, 65535}) {
    eth.typeOrLenIs(length);
    tag.typeOrLenIs(length);
    EXPECT_EQ(eth.llcType(), length < 1536) << length;
    EXPECT_EQ(tag.llcType(), length < 1536) << length;
  }
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

TEST(Headers, WrappersForwardToTheirHeaders) {
  const Pkt::Ptr pkt = pktOf(Octets(18, 0xff));
  const auto tag = eth8021QHdrWrapperFactory(pkt, 14);
  tag->tagControlPriorityIs(0xfa);
  tag->tagControlVlanIdIs(0xf123);
  EXPECT_TRUE(tag->tagControlPriority() == 2 && tag->tagControlCfi() && tag->tagControlVlanId() == 0x123);
  tag->tagControlCfiIs(false);
  tag->ethTypeIs(ethTypeQuillo);
  const auto llc = eth8022LlcHdrWrapperFactory(pkt, 0);
  llc->dsapIs(0xaa);
  llc->ssapIs(0xab);
  llc->controlIs(3);
  EXPECT_TRUE(!llc->snap() && llc->dsap() == 0xaa && llc->ssap() == 0xab && llc->control() == 3);
  const auto snap = eth8022SnapHdrWrapperFactory(pkt, 3);
  snap->orgCodeIs(0x123456);
  snap->localCodeIs(0x789a);
  EXPECT_TRUE(snap->orgCode() == 0x123456 && snap->localCode() == 0x789a && snap->localCodeU16() == 0x789a);
  EXPECT_TRUE(snap->orgCode0() == 0x12 && snap->orgCode1() == 0x34 && snap->orgCode2() == 0x56);
  const auto mim = mimHdrWrapperFactory(pkt, 8);
  mim->serviceIntfEthTypeIs(ethTypeDot1ah);
  mim->isidIs(0x1000001);
  EXPECT_TRUE(mim->isid() == 1 && mim->serviceIntfTag() == 0xff000001 && mim->serviceEthTypeU16() == 0x88e7);
  EXPECT_EQ(mim->serviceIntfEthType(), ethTypeDot1ah);
  mim->header()->serviceIntfEthTypeIs(0x1234);
  EXPECT_EQ(mim->serviceIntfEthType(), ethTypeUnknown);
  EXPECT_EQ(pkt->bytesValue(), octetsOf("aaab03 123456789a 1234 ff000001 4123 d28b"));
}

TEST(HeadersDeathTest, AHeaderLiesWholeInTheFirstPiece) {
  for (const auto& header : hdr::headers()) {
    if (!header.bind) continue;
    const std::string condition =
        "assertion failed: ( offset_ + sizeof( " + std::string(header.type) + " ) ) <= pkt_->frontBytes()\n";
    const Pkt::Ptr fits = pktOf(Octets(header.table.bytes + 1));
    EXPECT_EQ(header.bind(fits, 1), fits->front() + 1);
    EXPECT_DEATH(header.bind(fits, 2), testing::HasSubstr(condition));
    EXPECT_DEATH(header.bind(fits, 0u - header.table.bytes), testing::HasSubstr(condition)) << "wraps";
  }
  const Pkt::Ptr inTwo = pktOf(Octets(20));
  inTwo->newPrivateHeadData(13);
  EXPECT_DEATH(ethHdrWrapperFactory(inTwo, 0), "sizeof\\( EthHdr \\)");
}

TEST(IpHeaders, LengthsOfTheHeaderAndThePayload) {
  const struct {
    U8 words;
    U16 total, header, payload;
    bool options;
  } rows[] = {{5, 20, 20, 0, false},        {5, 19, 20, 0, false},   {6, 24, 24, 0, true},
              {15, 65535, 60, 65475, true}, {0, 100, 0, 100, false}, {4, 0, 16, 0, false},
              {5, 1500, 20, 1480, false}};
  for (const auto& row : rows) {
    IpHdr ip;
    ip.headerLenIs(row.words);
    ip.totalLenIs(row.total);
    EXPECT_EQ(ip.headerBytes(), row.header);
    EXPECT_EQ(ip.payloadLen(), row.payload);
    EXPECT_EQ(ip.hasOptions(), row.options);
  }
  EXPECT_DEATH(IpHdr().headerBytesIs(22), "assertion failed: \\(b % 4\\) == 0\n");
}

TEST(IpHeaders, TheChecksumIsOverTheWholeHeader) {
  // The header of a datagram from an ordinary capture, then the same with a router alert.
  Octets plain = {0x45, 0,    0,    0x73, 0, 0,    0x40, 0,    0x40, 0x11,
                  0xb8, 0x61, 0xc0, 0xa8, 0, 0x01, 0xc0, 0xa8, 0,    0xc7};
  auto* ip = reinterpret_cast<IpHdr*>(plain.data());
  EXPECT_EQ(ip->computedChecksumU16(), 0);
  ip->checksumU16Is(0);
  EXPECT_EQ(ip->computedChecksum(), IpChecksum(U16{0xb861}));
  Octets options = plain;
  options[0] = 0x46;
  options.insert(options.end(), {148, 4, 0, 0});
  EXPECT_EQ(reinterpret_cast<IpHdr*>(options.data())->computedChecksumU16(), 0xb861 - 0x9404 - 0x0100);
}

TEST(IpHeaders, EachKnowsItsOwnProtocols) {
  std::string ip4, ip6;
  for (U32 octet = 0; octet < 256; ++octet) {
    IpHdr four;
    Ip6Hdr six;
    four.protocolIs(static_cast<U8>(octet));
    six.protocolIs(static_cast<U8>(octet));
    if (four.protocolNum() == octet) ip4 += std::to_string(octet) + " ";
    if (six.protocolNum() == octet) ip6 += std::to_string(octet) + " ";
    EXPECT_TRUE(four.protocolNum() == octet || four.protocolNum() == ipProtoUnknown);
    EXPECT_TRUE(six.protocolNum() == octet || six.protocolNum() == ipProtoUnknown);
  }
  EXPECT_EQ(ip4, "1 2 6 17 46 47 51 89 94 103 112 115 124 132 253 255 ");
  EXPECT_EQ(ip6, "0 1 2 6 17 43 44 58 59 60 89 103 112 253 255 ");
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

/// Text, what it reads as (printed again), or why not.
template <typename T>
void testTexts(const std::vector<std::pair<std::string, std::string>>& rows) {
  for (const auto& [text, outcome] : rows) {
    T value;
    try {
      value.stringValueIs(text);
      std::ostringstream out;
      out << value;
      EXPECT_EQ(out.str(), outcome) << text;
      EXPECT_EQ(value.stringValue(), outcome);
    } catch (const Kiv::RangeException& failure) {
      EXPECT_EQ(failure.message(), outcome) << text;
      EXPECT_EQ(value, T());
    }
  }
}

TEST(HeaderValues, ReadTheirTextsAndRefuseWhatDoesNotFit) {
  testTexts<IpVersion>({{"0", "0"},
                        {"15", "15"},
                        {"0015", "15"},
                        {"16", "IpVersion::value is larger than its field"},
                        {"", "Invalid IpVersion"},
                        {"4 ", "Invalid IpVersion"},
                        {"-1", "Invalid IpVersion"},
                        {std::string(40, '9'), "IpVersion::value is larger than its field"}});
  testTexts<IpFlowLabel>(
      {{"1048575", "1048575"}, {"1048576", "IpFlowLabel::value is larger than its field"}});
  testTexts<Eth8022LlcSap>({{"170", "170"}, {"256", "Eth8022LlcSap::value is larger than its field"}});
  const std::string tag = "Value('Wirl::Eth8021QTagControl', ** {'v0': 177, 'v1': 35})";
  testTexts<Eth8021QTagControl>(
      {{tag, tag}, {tag + " ", "Invalid Eth8021QTagControl"}, {"", "Invalid Eth8021QTagControl"}});
  const std::string fragments =
      "Value('Wirl::IpFragmentOffsetAndFlags', ** {'flags': Value('Wirl::IpFlags', ** {'reservedFragFlag': "
      "False, "
      "'dontFrag': True, 'moreFrag': False}), 'fragmentOffset': 4660})";
  testTexts<IpFragmentOffsetAndFlags>({{fragments, fragments}});
  const std::string length = "Value('Wirl::IpVersionAndHeaderLen', ** {'version': 4, 'headerLen': 5})";
  testTexts<IpVersionAndHeaderLen>({{length, length}});
  const std::string first =
      "Value('Wirl::IpVersionTrafficClassAndFlowLabel', ** {'version': 6, 'trafficClass': 171, 'flowLabel': "
      "843505})";
  testTexts<IpVersionTrafficClassAndFlowLabel>({{first, first}});
}

TEST(HeaderValues, WordsComeApartAndTogether) {
  for (U32 word = 0; word <= 0xffff; word += 7) {
    const auto bits = static_cast<U16>(word);
    EXPECT_EQ(Eth8021QTagControl(bits).value(), bits);
    EXPECT_EQ(IpFragmentOffsetAndFlags(bits).value(), bits);
    EXPECT_EQ(IpVersionAndHeaderLen(static_cast<U8>(bits)).value(), static_cast<U8>(bits));
    EXPECT_EQ(IpVersionTrafficClassAndFlowLabel(word * 65537).value(), word * 65537);
  }
  const Eth8021QTagControl tag(0xb123);
  EXPECT_TRUE(tag == Eth8021QTagControl(5, true, 0x123) && tag < Eth8021QTagControl(0xb124));
  EXPECT_TRUE(Eth8021QTagControl(0xb0ff) < tag);
  EXPECT_EQ(tag.hash(), Kiv::hashMix(0xb123));
  EXPECT_EQ(std::hash<IpFlags>()(IpFlags(5)), Kiv::hashMix(5));
  const std::unordered_set<IpVersionTrafficClassAndFlowLabel> words{
      IpVersionTrafficClassAndFlowLabel(1), IpVersionTrafficClassAndFlowLabel(0x60000001),
      IpVersionTrafficClassAndFlowLabel(1)};
  EXPECT_EQ(words.size(), 2u);
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

TEST(UpperHeaders, LengthsTheyTell) {
  UdpHdr udp;
  for (const U16 bytes : std::initializer_list<U16>{0, 7, 8, 0x0506}) {
    udp.lenIs(bytes);
    EXPECT_EQ(udp.payloadLen(), bytes < 8 ? 0 : bytes - 8);
  }
  AhHdr ah;
  EXPECT_EQ(ah.headerBytes(), 8);
  ah.payloadLenIs(255);
  EXPECT_EQ(ah.headerBytes(), 1028);
  ah.nextHdrIs(ipProtoEsp);
  EXPECT_EQ(ah.nextHdrNum(), ipProtoEsp);
  ah.nextHdrIs(200);
  EXPECT_EQ(ah.nextHdrNum(), ipProtoUnknown);
}

TEST(HeaderNames, TextsAreTheMembersNames) {
  using testing::PrintToString;
  for (const EthType type : {ethTypeUnknown, ethTypeIp, ethTypeLldp, ethTypeQuillo, ethTypeDot1ad}) {
    EXPECT_EQ(ethTypeFromString(ethTypeText(type)), type);
  }
  EXPECT_EQ(PrintToString(ethTypeSlowProto), "ethTypeSlowProto");
  EXPECT_EQ(PrintToString(static_cast<EthType>(0x1234)), "ethTypeUnknown");
  EXPECT_EQ(ethTypeFromText("ethTypeIp "), std::nullopt);
  EXPECT_THROW(ethTypeFromString("ip"), Kiv::RangeException);
  EXPECT_EQ(PrintToString(ethSubTypeKelvo), "ethSubTypeKelvo");
  EXPECT_EQ(ethSubTypeFromString("ethSubTypeL2HeaderTimestamping"), ethSubTypeL2HeaderTimestamping);
  EXPECT_THROW(ethSubTypeFromString(""), Kiv::RangeException);
  EXPECT_EQ(PrintToString(icmp6TypeRedirect), "icmp6TypeRedirect");
  EXPECT_EQ(PrintToString(static_cast<Icmp6TypeNumber>(200)), "200");
  EXPECT_EQ(PrintToString(static_cast<Icmp6OptionTypeNumber>(6)), "6");
}

}  // namespace
