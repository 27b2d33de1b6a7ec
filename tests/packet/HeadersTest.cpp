// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "Kiv/Exception.h"
#include "Wirl/packet/EthType.h"
#include "tests/packet/Frames.h"
#include "tests/packet/HdrFields.h"

namespace {

using namespace Wirl;

using hdr::Octets;

template <typename Hdr>
Octets octetsOf(const Hdr& hdr) {
  const auto* begin = reinterpret_cast<const U8*>(&hdr);
  return Octets(begin, begin + sizeof(hdr));
}

Pkt::Ptr pktOf(const Octets& octets) {
  Pkt::Ptr pkt = globalPktManager()->newPkt();
  pkt->bytesValueIs(octets);
  return pkt;
}

/// At every offset of a word, among set and among clear bits, a setter writes its bits and no other.
TEST(Headers, SettersReplaceTheirFieldsOnly) {
  for (const auto& header : hdr::headers()) {
    for (const auto& field : header.fields) {
      for (U32 trial = 0; trial < 48; ++trial) {
        const U32 offset = trial / 6;
        const U64 value = std::array<U64, 3>{0, ~U64{0}, 0x9182'3456'789a'bcd5}[trial / 2 % 3];
        SCOPED_TRACE(testing::Message() << header.name << "::" << field.name << " at offset " << offset);
        Octets memory(offset + header.bytes + 8, static_cast<U8>(trial % 2 ? 0xff : 0));
        const Octets expected = hdr::withField(memory, offset, field, value);
        field.set(memory.data() + offset, value);
        EXPECT_EQ(memory, expected);
        if (field.get) {
          EXPECT_EQ(field.get(memory.data() + offset), hdr::fieldValue(field, value));
        }
      }
    }
  }
}

TEST(Headers, AreConstructedZeroOrWellFormed) {
  const std::map<std::string_view, std::pair<U32, std::string>> wellFormed = {
      {"EthHdr", {14, ""}},
      {"Eth8021QHdr", {4, ""}},
      {"Eth8022LlcHdr", {3, ""}},
      {"Eth8022SnapHdr", {5, ""}},
      {"MimHdr", {6, ""}},
      {"IpHdr", {20, ""}},
      {"IpHdrOptionCommon", {1, ""}},
      {"IpHdrRouterAlertOption", {4, "9404"}},
      {"Ip6Hdr", {40, ""}},
      {"Ip6HdrOptionCommon", {2, ""}},
      {"Ip6HdrPad1", {1, ""}},
      {"Ip6HdrPadN", {2, "01"}},
      {"Ip6HdrRouterAlertOption", {6, "0000 0502"}},
      {"UdpHdr", {8, ""}},
      {"AhHdr", {12, ""}},
      {"Icmp6Hdr", {4, ""}},
      {"Icmp6OptionCommonHdr", {2, ""}},
      {"Icmp6RsHdr", {8, "85"}},
      {"Icmp6RaHdr", {16, "86"}},
      {"Icmp6NsHdr", {24, "87"}},
      {"Icmp6NaHdr", {24, "88"}},
      {"Icmp6LinkLayerAddrOptionHdr", {8, "0101"}},
      {"Icmp6PrefixInfoOptionHdr", {32, "0304"}},
      {"Icmp6MtuOptionHdr", {8, "0501"}},
  };
  EXPECT_EQ(hdr::headers().size(), wellFormed.size());
  for (const auto& header : hdr::headers()) {
    const auto& [bytes, begin] = wellFormed.at(header.name);
    const std::string octets = frames::octets(begin);
    Octets expected(octets.begin(), octets.end());
    expected.resize(bytes);
    EXPECT_EQ(header.made, expected) << header.name;
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

TEST(EthernetHeaders, TagSettersOfTheWrapperCutTheirValue) {
  for (const U8 around : Octets{0x00, 0xff}) {
    const Pkt::Ptr pkt = pktOf(Octets(4, around));
    const auto tag = eth8021QHdrWrapperFactory(pkt, 0);
    const auto word = [&] { return pkt->rawByte(0) << 8 | pkt->rawByte(1); };
    const int before = word();
    tag->tagControlPriorityIs(0xfa);
    EXPECT_EQ(word(), (before & 0x1fff) | 0x4000);
    EXPECT_EQ(tag->tagControlPriority(), 2);
    tag->tagControlCfiIs(!tag->tagControlCfi());
    EXPECT_EQ(word(), ((before & 0x1fff) | 0x4000) ^ 0x1000);
    tag->tagControlVlanIdIs(0xf123);
    EXPECT_EQ(word() & 0xfff, 0x123);
    EXPECT_EQ(tag->tagControlVlanId(), 0x123);
    EXPECT_EQ(word() & 0xf000, (before & 0x1000) ^ 0x5000);
  }
}

TEST(EthernetHeaders, TheIpHeaderIsFoundBehindTagsOfOneKind) {
  const Octets macs(12), ip4 = {0x08, 0x00}, ip6 = {0x86, 0xdd}, arp = {0x08, 0x06}, q = {0x81, 0x00},
                         ad = {0x88, 0xa8}, qinq = {0x91, 0x00}, tci = {0, 5}, llc = {0x05, 0xff};
  const struct {
    std::vector<Octets> pieces;
    U32 cut, offset;  // from Ethernet on
  } rows[] = {{{ip4}, 0, 14},
              {{ip6}, 0, 14},
              {{ip4}, 1, 0},
              {{arp}, 0, 0},
              {{llc}, 0, 0},
              {{ad, tci, ip4}, 0, 0},
              {{qinq, tci, ip4}, 0, 0},
              {{q, tci, ip4}, 0, 18},
              {{q, tci, ip4}, 1, 0},
              {{q, tci, arp}, 0, 0},
              {{q, tci, llc}, 0, 0},
              {{q, tci, ad, tci, ip4}, 0, 0},
              {{q, tci, q, tci, ip6}, 0, 22},
              {{q, tci, q, tci, ip6}, 4, 0},
              {{q, tci, q, tci, q, tci, q, tci, ip4}, 0, 30},
              {{q}, 0, 0}};
  for (const auto& row : rows) {
    Octets frame = macs;
    for (const auto& piece : row.pieces) frame.insert(frame.end(), piece.begin(), piece.end());
    frame.resize(frame.size() - row.cut);
    SCOPED_TRACE(testing::PrintToString(frame));
    const Octets exact(frame);  // a sanitizer sees a read past it
    EXPECT_EQ(ipHdrOffset(reinterpret_cast<const EthHdr*>(exact.data()), static_cast<U32>(exact.size())),
              row.offset);
    const U32 lead = 3;
    frame.insert(frame.begin(), lead, 0xee);
    if (frame.size() >= lead + 14) {
      EXPECT_EQ(ethHdrWrapperFactory(pktOf(frame), lead)->ipHdrOffset(), row.offset);
    }
    if (frame.size() >= lead + 18 && row.pieces[0] == q) {
      EXPECT_EQ(eth8021QHdrWrapperFactory(pktOf(frame), lead + 14)->ipHdrOffset(),
                row.offset ? row.offset - 14 : 0);
    }
  }
}

TEST(Headers, WrappersForwardTheirHeadersFields) {
  const Pkt::Ptr pkt = pktOf(Octets(20, 0xff));
  const auto llc = eth8022LlcHdrWrapperFactory(pkt, 0);
  llc->dsapIs(0xaa);
  llc->ssapIs(0xaa);
  llc->controlIs(3);
  EXPECT_TRUE(llc->snap() && llc->dsap() == 0xaa && llc->ssap() == 0xaa && llc->control() == 3);
  const auto snap = eth8022SnapHdrWrapperFactory(pkt, 3);
  snap->orgCodeIs(0x123456);
  snap->localCodeIs(0x789a);
  EXPECT_TRUE(snap->orgCode() == 0x123456 && snap->localCode() == 0x789a && snap->localCodeU16() == 0x789a);
  EXPECT_TRUE(snap->orgCode0() == 0x12 && snap->orgCode1() == 0x34 && snap->orgCode2() == 0x56);
  const auto mim = mimHdrWrapperFactory(pkt, 8);
  mim->serviceIntfEthTypeIs(ethTypeDot1ah);
  mim->isidIs(0x1000001);
  EXPECT_TRUE(mim->serviceIntfEthType() == ethTypeDot1ah && mim->serviceEthTypeU16() == 0x88e7);
  mim->header()->serviceIntfEthTypeIs(0x1234);
  EXPECT_TRUE(mim->serviceIntfEthType() == ethTypeUnknown && mim->serviceEthTypeU16() == 0x1234);
  mim->serviceIntfEthTypeIs(ethTypeDot1ah);
  EXPECT_TRUE(mim->isid() == 1 && mim->serviceIntfTag() == 0xff000001);
  EXPECT_EQ(pkt->bytesValue(), (Octets{0xaa, 0xaa, 3, 0x12, 0x34, 0x56, 0x78, 0x9a, 0x88, 0xe7,
                                       0xff, 0,    0, 1,    0xff, 0xff, 0xff, 0xff, 0xff, 0xff}));
}

TEST(Headers, AWrapperFollowsThePacketWhenToldTo) {
  const Pkt::Ptr pkt = pktOf(Octets(40));
  const auto ip = ipHdrWrapperFactory(pkt, 20);
  EXPECT_EQ(reinterpret_cast<U8*>(ip->header()), pkt->front() + 20);
  pkt->newSharedHeadData(2000);
  ip->handleHeader();
  EXPECT_EQ(reinterpret_cast<U8*>(ip->header()), pkt->front() + 20);
  IpHdr elsewhere;
  ip->headerIs(&elsewhere);
  EXPECT_EQ(ip->header(), &elsewhere);
}

TEST(HeadersDeathTest, AHeaderLiesWholeInTheFirstPiece) {
  for (const auto& header : hdr::headers()) {
    if (!header.bind) continue;
    const std::string condition =
        "assertion failed: ( offset_ + sizeof( " + std::string(header.name) + " ) ) <= pkt_->frontBytes()\n";
    const Pkt::Ptr fits = pktOf(Octets(header.bytes + 1));
    EXPECT_EQ(header.bind(fits, 1), fits->front() + 1);
    EXPECT_DEATH(header.bind(fits, 2), testing::HasSubstr(condition));
    EXPECT_DEATH(header.bind(fits, 0u - header.bytes), testing::HasSubstr(condition)) << "wraps";
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

TEST(IpHeaders, ThePseudoHeaderIsSummedAsItIsWritten) {
  Ip6Hdr ip;
  ip.srcIs(Ip6Addr("fe80::1:2ff:fe03:4"));
  ip.dstIs(Ip6Addr("ff02::1:ff00:1"));
  Octets pseudo = octetsOf(ip);
  pseudo.erase(pseudo.begin(), pseudo.begin() + 8);
  for (const U8 octet : Octets{0x00, 0x01, 0x86, 0xa5, 0, 0, 0, 58}) pseudo.push_back(octet);
  EXPECT_EQ(ip.pseudoHdrSum(0x000186a5, 58), ipChecksumChunk(reinterpret_cast<const char*>(pseudo.data()),
                                                             static_cast<U16>(pseudo.size()), 0));
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

TEST(UpperHeaders, NumbersWithoutANameAreNumbers) {
  EXPECT_EQ(testing::PrintToString(icmp6TypeRedirect), "icmp6TypeRedirect");
  EXPECT_EQ(testing::PrintToString(static_cast<Icmp6TypeNumber>(200)), "200");
  EXPECT_EQ(testing::PrintToString(icmp6OptMtu), "icmp6OptMtu");
  EXPECT_EQ(testing::PrintToString(static_cast<Icmp6OptionTypeNumber>(6)), "6");
}

TEST(EthTypes, TextsAreTheMembersNames) {
  for (const EthType type : {ethTypeUnknown, ethTypeIp, ethTypeLldp, ethTypeQuillo, ethTypeDot1ad}) {
    EXPECT_EQ(ethTypeFromString(ethTypeText(type)), type);
  }
  std::ostringstream out;
  out << ethTypeSlowProto << ' ' << static_cast<EthType>(0x1234) << ' ' << ethSubTypeKelvo;
  EXPECT_EQ(out.str(), "ethTypeSlowProto ethTypeUnknown ethSubTypeKelvo");
  EXPECT_EQ(ethTypeFromText("ethTypeIp "), std::nullopt);
  EXPECT_THROW(ethTypeFromString("ip"), Kiv::RangeException);
  EXPECT_EQ(ethSubTypeFromString("ethSubTypeL2HeaderTimestamping"), ethSubTypeL2HeaderTimestamping);
  EXPECT_THROW(ethSubTypeFromString(""), Kiv::RangeException);
}

}  // namespace
