// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/WireChecks.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <sstream>
#include <vector>

#include "Wirl/wire/PktBuilder.h"
#include "tests/packet/Frames.h"
#include "tests/support/TraceCapture.h"

namespace {

using namespace Wirl;
using frames::octets;
using Fill = BuilderLayer::Fill;
using Bytes = std::span<const U8>;

// Checks that differ in their arguments from the others.

PktCode checkSctp(const IpHdr&, Bytes message) {
  return Wirl::checkSctp(message);
}
PktCode checkIcmp(const IpHdr&, Bytes message) {
  return Wirl::checkIcmp(message);
}
template <typename Ip>
PktCode checkVrrp(const Pkt::Ptr& pkt, Ip* ip, VrrpHdr*& hdr) {
  return Wirl::checkVrrp(pkt, reinterpret_cast<EthHdr*>(ip) - 1, ip, hdr);
}
template <typename Ip>
PktCode checkVrrp(const Ip& ip, Bytes message) {
  return Wirl::checkVrrp(reinterpret_cast<const EthHdr*>(&ip) - 1, ip, message);
}
const Prefix kConnected("192.0.2.0/24");
PktCode checkArp(const Pkt::Ptr& pkt, IpHdr*, EthArpHdr*& hdr) {
  EthHdr* eth = nullptr;
  return Wirl::checkArp(pkt, eth, hdr, &kConnected);
}
PktCode checkArp(const IpHdr& behindEth, Bytes message) {
  return Wirl::checkArp(reinterpret_cast<const EthHdr*>(&behindEth) - 1, message, &kConnected);
}

/// Both forms of a check: for a packet with the IP header at `ip`, and for a message alone.
struct Forms {
  std::function<PktCode(const Pkt::Ptr&, U8* ip, U8*& hdr)> inPacket;
  std::function<PktCode(const U8* ip, Bytes message)> alone;
};
#define FORMS(check, Ip, Hdr)                                                                        \
  Forms {                                                                                            \
    [](const Pkt::Ptr& pkt, U8* ip, U8*& found) {                                                    \
      Hdr* hdr = nullptr;                                                                            \
      const PktCode code = check(pkt, reinterpret_cast<Ip*>(ip), hdr);                               \
      found = reinterpret_cast<U8*>(hdr);                                                            \
      return code;                                                                                   \
    },                                                                                               \
        [](const U8* ip, Bytes message) { return check(*reinterpret_cast<const Ip*>(ip), message); } \
  }

const std::string kMacs = octets("00005e005302 00005e005301");
const std::string kGlobal = octets("20010db8000000000000000000000001");
const std::string kLinkLocal = octets("fe80000000000000 0000000000000001");
const std::string kLinkAddr = octets("0101 00005e005301"), kNone(16, '\0');
const std::string kSolicited = octets("ff020000000000000000 0001ff000001");
const std::string kAllNodes = octets("ff02000000000000 0000000000000001");
const std::string kV4 = octets("04 40 c0000201 c0000202"), kV6 = octets("06 40") + kGlobal + kLinkLocal;
constexpr BuilderLayer kUdp{Fill::udp, 0, ipProtoUdp}, kTcp{Fill::tcp, 0, ipProtoTcp};
constexpr BuilderLayer kSctp{Fill::sctp, 0, ipProtoSctp}, kIcmp{Fill::icmp, 0, ipProtoIcmp};
constexpr BuilderLayer kIcmp6{Fill::icmp6, 0, ipProtoIcmpv6}, kIgmp{Fill::icmp, 0, ipProtoIgmp};
constexpr BuilderLayer kVrrp{Fill::vrrp, 0, ipProtoVrrp}, kArp{Fill::nothing, ethTypeArpIp};
const Forms kNd = FORMS(checkNd, Ip6Hdr, Icmp6Hdr), kMld = FORMS(checkMld, Ip6Hdr, Icmp6Hdr);
const Forms kIgmpForms = FORMS(checkIgmp, IpHdr, IgmpHdr);

// UDP and TCP have a second version in the fuzz target wireChecksFuzz, which also has packets in two pieces.

/// A message, how the layers in front announce it, what goes in front, and its check.
struct Kind {
  std::string message;
  BuilderLayer layer;
  std::string ip;  ///< Version, hop limit, source, destination; empty for none.
  Forms check;
  std::string macs = kMacs;
};

std::string nd(const std::string& src, const std::string& dst, char limit = '\xff') {
  return std::string{6, limit} + src + dst;
}

const std::map<std::string, Kind> kKinds = {
    {"udp", {octets("03e8 0035 0000 0000") + "hello", kUdp, kV4, FORMS(checkUdp, IpHdr, UdpHdr)}},
    {"udp6", {octets("03e8 0035 0000 0000") + "hello", kUdp, kV6, FORMS(checkUdp, Ip6Hdr, UdpHdr)}},
    {"tcp",
     {octets("03e8 0050 00000001 00000002 6010 ffff 0000 0000 02040578") + "hi", kTcp, kV4,
      FORMS(checkTcp, IpHdr, TcpHdr)}},
    {"tcp6",
     {octets("03e8 0050 00000001 00000002 5010 ffff 0000 0000"), kTcp, kV6, FORMS(checkTcp, Ip6Hdr, TcpHdr)}},
    {"sctp", {octets("03e8 0050 00000001 00000000 0a00 0004"), kSctp, kV4, FORMS(checkSctp, IpHdr, SctpHdr)}},
    {"icmp", {octets("0800 0000 00010002"), kIcmp, kV4, FORMS(checkIcmp, IpHdr, IcmpHdr)}},
    {"icmp6", {octets("8000 0000 00010002"), kIcmp6, kV6, FORMS(checkIcmp6, Ip6Hdr, Icmp6Hdr)}},
    {"ns", {octets("8700 0000 00000000") + kGlobal + kLinkAddr, kIcmp6, nd(kLinkLocal, kSolicited), kNd}},
    {"dad", {octets("8700 0000 00000000") + kGlobal, kIcmp6, nd(kNone, kSolicited), kNd}},
    {"na", {octets("8800 0000 20000000") + kGlobal, kIcmp6, nd(kGlobal, kAllNodes), kNd}},
    {"rs", {octets("8500 0000 00000000") + kLinkAddr, kIcmp6, nd(kLinkLocal, kAllNodes), kNd}},
    {"ra",
     {octets("8600 0000 40000708 00000000 00000000 0501 0000 000005dc"
             "0304 40c0 00015180 00003840 00000000") +
          kGlobal,
      kIcmp6, nd(kLinkLocal, kAllNodes), kNd}},
    {"redirect",
     {octets("8900 0000 00000000 fe800000000000000000000000000002") + kGlobal, kIcmp6,
      nd(kLinkLocal, kGlobal), kNd}},
    {"mld",
     {octets("8f00 0000 0000 0001 0400 0001 ff020000000000000000000000000123") + kGlobal, kIcmp6,
      nd(kLinkLocal, kAllNodes, 1), kMld}},
    {"mldQuery",
     {octets("8200 0000 03e8 0000") + kNone + octets("027d 0001") + kGlobal, kIcmp6,
      nd(kLinkLocal, kAllNodes, 1), kMld}},
    {"query",
     {octets("1164 0000 00000000 027d 0001 c0000203"), kIgmp, octets("04 01 c0000201 e0000001"), kIgmpForms}},
    {"report",
     {octets("2200 0000 0000 0002 0400 0000 ef010203 0301 0001 ef010204 c0000203 00000000"), kIgmp,
      octets("04 01 c0000201 e0000016"), kIgmpForms}},
    {"vrrp2",
     {octets("2107 6401 0001 0000 c0000201 0000000000000000"), kVrrp, octets("04 ff c0000201 e0000012"),
      FORMS(checkVrrp, IpHdr, VrrpHdr), octets("01005e000012 00005e000107")}},
    {"vrrp3",
     {octets("3107 6401 0064 0000 fe800000000000000000000000000099"), kVrrp,
      nd(kLinkLocal, octets("ff020000000000000000000000000012")), FORMS(checkVrrp, Ip6Hdr, VrrpHdr),
      octets("333300000012 00005e000207")}},
    {"arp",
     {octets("0001 0800 06 04 0001 00005e005301 c0000201 000000000000 c0000202"), kArp, "",
      FORMS(checkArp, IpHdr, EthArpHdr)}},
};

std::size_t messageAt(const Kind& kind) {
  const std::size_t alert = kind.ip.size() > 1 && kind.ip[0] == 6 && kind.ip[1] == 1 ? 8 : 0;
  return sizeof(EthHdr) + (kind.ip.empty() ? 0 : kind.ip[0] == 4 ? sizeof(IpHdr) : alert + sizeof(Ip6Hdr));
}

/// A frame with the message, some octets of it cut off at its end, and with `hex` at an offset of the frame,
/// before lengths and checksums are filled in.
Pkt::Ptr built(const Kind& kind, std::size_t cut = 0, std::size_t at = 0, std::string_view hex = "") {
  const auto pkt = globalPktManager()->newPkt();
  PktBuilder builder(pkt);
  const std::size_t bytes = kind.message.size() - cut;
  BuilderLayer layer = kind.layer;
  if (cut > 0 && bytes < sizeof(TcpHdr)) layer.fill = Fill::nothing;  // less than some header
  builder.push({reinterpret_cast<const U8*>(kind.message.data()), bytes}, layer);
  const auto* const ip = reinterpret_cast<const U8*>(kind.ip.data());
  if (kind.ip.size() == kV4.size()) {
    builder.ip(IpAddr(ip[2], ip[3], ip[4], ip[5]), IpAddr(ip[6], ip[7], ip[8], ip[9]), ip[1]);
  } else if (!kind.ip.empty()) {
    if (kind.ip[1] == 1) {  // listener discovery
      const std::string option = octets("0502 0000");
      builder.ip6Options(ipProtoIpv6HopByHop, {reinterpret_cast<const U8*>(option.data()), option.size()});
      if (at >= 54) at += 8;
    }
    Ip6Addr addrs[2];
    std::memcpy(addrs, ip + 2, sizeof(addrs));
    builder.ip6(addrs[0], addrs[1], ip[1]);
  }
  EthAddr macs[2];
  std::memcpy(macs, kind.macs.data(), sizeof(macs));
  builder.eth(macs[0], macs[1]);
  const std::string part = octets(hex);
  if (!part.empty()) std::memcpy(pkt->front() + at, part.data(), part.size());
  return builder.finish();
}

/// What both forms say, which have to agree where the one with the packet found the message; neither changes
/// anything.
PktCode told(const Kind& kind, const Pkt::Ptr& pkt) {
  const std::string before = pkt->stringValue();
  U8* const ip = pkt->front() + sizeof(EthHdr);
  U8* hdr = nullptr;
  const PktCode code = kind.check.inPacket(pkt, ip, hdr);
  EXPECT_TRUE(pkt->stringValue() == before);
  if (hdr) {
    const auto at = static_cast<std::size_t>(hdr - pkt->front());
    std::size_t end = pkt->bytes();
    if (kind.ip.size() == kV4.size()) end = sizeof(EthHdr) + reinterpret_cast<IpHdr*>(ip)->totalLenU16();
    if (kind.ip.size() == kV6.size()) {
      end = sizeof(EthHdr) + sizeof(Ip6Hdr) + reinterpret_cast<Ip6Hdr*>(ip)->payloadLen();
    }
    const std::vector<U8> copy(before.begin(), before.begin() + static_cast<long>(end));
    // Of the headers in front of it a message alone says nothing.
    const PktCode expected = code == noMldRouterAlert ? PktCode(noError) : code;
    EXPECT_EQ(kind.check.alone(copy.data() + sizeof(EthHdr), Bytes(copy).subspan(at)), expected);
  }
  return code;
}

TEST(WireChecks, GoodMessagesPassAndEveryFlippedBitIsSeen) {
  for (const auto& [name, kind] : kKinds) {
    SCOPED_TRACE(name);
    const auto pkt = built(kind);
    ASSERT_EQ(told(kind, pkt), noError);
    if (name == "arp") continue;  // has no checksum
    for (std::size_t bit = messageAt(kind) * 8; bit < pkt->bytes() * 8; ++bit) {
      const auto octet = static_cast<U32>(bit / 8);
      const auto flip = [&] { pkt->rawByteIs(octet, static_cast<U8>(pkt->rawByte(octet) ^ 1 << bit % 8)); };
      flip();
      EXPECT_NE(told(kind, pkt), noError) << "bit " << bit % 8 << " of octet " << octet - messageAt(kind);
      flip();
    }
  }
}

/// Changes that a check sees: when (before lengths and checksums are filled in, or after), where in the
/// frame, to what, and the code. `cut` octets are missing at the end of the message.
struct Row {
  const char* kind;
  enum { before, after } when;
  std::size_t at;
  const char* hex;
  PktCode code;
  std::size_t cut = 0;
};

constexpr std::size_t kM4 = 34, kM6 = 54, kTtl = 22, kHopLimit = 21, kSrc6 = 22, kDst6 = 38;
const Row kRows[] = {
    {"udp", Row::after, 23, "06", nonUdpProto},
    {"udp", Row::after, 14, "44", badIpHdrLen},
    {"udp", Row::after, 16, "0fff", badIpPayloadLen},
    {"udp", Row::after, 20, "2000", ipFragment},
    {"udp", Row::after, kM4 + 6, "0000", noError},
    {"udp", Row::after, kM4 + 6, "8422", partialUdpChecksum},  // c000 + 0201 + c000 + 0202 + 11 + d, folded
    {"udp6", Row::after, 18, "0fff", badIp6PayloadLen},
    {"udp6", Row::after, 20, "3a", nonUdpProto},
    {"udp6", Row::after, 20, "00", badIp6ExtHdr},  // the ports read as a hop-by-hop header of 1,872 bytes
    {"tcp", Row::before, kM4, "", badTcpLen, 7},
    {"tcp", Row::after, kM4 + 16, "8424", partialTcpChecksum},
    {"tcp", Row::after, 23, "11", nonTcpProto},
    {"sctp", Row::before, kM4, "", badSctpLen, 5},
    {"sctp", Row::after, 23, "11", nonSctpProto},
    {"icmp", Row::before, kM4, "", badIcmpLen, 1},
    {"icmp", Row::after, 23, "11", nonIcmpProto},
    {"icmp6", Row::before, kM6, "", icmp6PayloadLenTooShortForHdr, 5},
    {"icmp6", Row::after, 20, "11", nextHdrIsNotIcmp6},
    {"ns", Row::before, kHopLimit, "fe", badNdHopLimit},
    {"ns", Row::before, kM6 + 1, "01", badNdCode},
    {"ns", Row::before, kM6, "", icmp6PayloadLenTooShortForHdr, 9},
    {"ns", Row::before, kM6 + 8, "ff", icmp6NsTgtMcast},
    {"ns", Row::before, kM6 + 24, "03", badNdOptLen},
    {"ns", Row::before, kM6 + 24, "0e", noSrcLinkLayerOptInMcastNs},
    {"ns", Row::before, kM6 + 25, "00", icmp6OptLenZero},
    {"ns", Row::before, kM6 + 25, "02", icmp6OptLenExceedPayloadLen},
    {"ns", Row::before, kM6, "", icmp6OptLenExceedPayloadLen, 7},
    {"ns", Row::before, kSrc6, "00000000000000000000000000000000", unspecSrcAddrSrcLinkLayerAddr},
    {"ns", Row::before, kM6, "80", notNdType},
    {"dad", Row::before, kDst6 + 12, "00", unspecifiedSrcAddrAndNotSolicitedNodeDst},
    {"na", Row::before, kM6 + 8, "ff", icmp6NaTgtMcast},
    {"na", Row::before, kM6 + 4, "40", icmp6McastDstIpAndNonZeroSolicitation},
    {"rs", Row::before, kSrc6, "00000000000000000000000000000000", unspecSrcAddrSrcLinkLayerAddr},
    {"ra", Row::before, kSrc6, "20", ndSrcNotLinkLocal},
    {"ra", Row::before, kM6 + 17, "02", badNdOptLen},
    {"redirect", Row::before, kSrc6, "20", ndSrcNotLinkLocal},
    {"redirect", Row::before, kM6 + 8, "20", redirectBadTarget},
    {"redirect", Row::before, kM6 + 24, "ff", redirectDstMcast},
    {"mld", Row::before, kHopLimit, "02", badMldHopLimit},
    {"mld", Row::before, kSrc6, "20", mldSrcNotLinkLocal},
    {"mld", Row::before, kM6, "87", icmp6TypeNotSupported},
    {"mld", Row::before, kM6 + 7, "02", badMldLen},
    {"mld", Row::before, kM6 + 12, "20", badMldGroup},
    {"mld", Row::after, kM6 + 2, "01020000", noMldRouterAlert},
    {"mldQuery", Row::before, kM6 + 8, "20", badMldGroup},
    {"mldQuery", Row::before, kM6 + 27, "02", badMldLen},
    {"mldQuery", Row::before, kM6, "", noError, 20},
    {"mldQuery", Row::before, kM6, "", badMldLen, 21},
    {"query", Row::before, kTtl, "02", badIgmpTtl},
    {"query", Row::before, kM4 + 4, "c0", badIgmpGroup},
    {"query", Row::before, kM4 + 11, "02", badIgmpLen},
    {"query", Row::before, kM4, "", badIgmpLen, 9},
    {"query", Row::after, 23, "11", nonIgmpProto},
    {"report", Row::before, kM4 + 7, "03", badIgmpLen},
    {"report", Row::before, kM4 + 17, "02", badIgmpLen},
    {"report", Row::before, kM4 + 12, "c0", badIgmpGroup},
    {"vrrp2", Row::before, 0, "01005e000013", nonVrrpMac},
    {"vrrp2", Row::before, 33, "13", nonVrrpDstAddr},
    {"vrrp2", Row::after, 23, "11", nonVrrpProto},
    {"vrrp2", Row::before, kTtl, "fe", badVrrpTtl},
    {"vrrp2", Row::before, kM4, "41", badVrrpVersion},
    {"vrrp2", Row::before, kM4, "22", badVrrpType},
    {"vrrp2", Row::before, kM4 + 1, "00", badVrrpVrid},
    {"vrrp2", Row::before, kM4 + 1, "08", vrrpVridMacMismatch},
    {"vrrp2", Row::before, kM4 + 3, "00", badVrrpLen},
    {"vrrp2", Row::before, kM4 + 3, "02", badVrrpLen},
    {"vrrp2", Row::before, kM4 + 4, "02", badVrrpAuth},
    {"vrrp2", Row::before, kM4, "31", noError},
    {"vrrp3", Row::before, kM6, "21", badVrrpVersion},
    {"vrrp3", Row::before, kM6 + 8, "20", badVrrpLinkLocal},
    {"vrrp3", Row::before, kSrc6, "20", badVrrpLinkLocal},
    {"arp", Row::before, 14, "0006", badArpPkt},
    {"arp", Row::before, 21, "03", badArpOperation},
    {"arp", Row::before, 22, "01", badArpSender},
    {"arp", Row::before, 28, "e0", badArpSender},
    {"arp", Row::before, 28, "c6336401", nonOnLink},
    {"arp", Row::before, 28, "00000000", noError},
    {"arp", Row::before, 27, "02", arpSrcMacMismatch},
    {"arp", Row::after, 12, "0800", wrongEthType},
    {"arp", Row::before, 14, "", pktTooShort, 1},
};

TEST(WireChecks, EachFaultHasItsCodeAndATrace) {
  const TraceCapture traces("WireChecks/3");
  for (const Row& row : kRows) {
    SCOPED_TRACE(testing::Message() << row.kind << " at " << row.at << ": " << row.hex << ", cut "
                                    << row.cut);
    const Kind& kind = kKinds.at(row.kind);
    const auto pkt = row.when == Row::before ? built(kind, row.cut, row.at, row.hex) : built(kind, row.cut);
    const std::string part = octets(row.hex);
    if (row.when == Row::after) std::memcpy(pkt->front() + row.at, part.data(), part.size());
    const std::size_t before = traces.lines().size();
    EXPECT_EQ(told(kind, pkt), row.code);
    EXPECT_EQ(traces.lines().size() == before, row.code == noError);
  }
}

TEST(PktErrorCounters, CountEachCodeAndPrintATable) {
  PktErrorCounters counters;
  std::size_t codes = 0;
  for (Kiv::S32 value = 1; value > -2000; --value) {
    const auto code = PktCode::ofValue(value);
    if (!code) continue;
    ++codes;
    ASSERT_EQ(PktCode::ofText(code->text()), code);
    for (Kiv::S32 i = 0; i <= -value; ++i) counters.count(*code);
  }
  EXPECT_EQ(codes, PktErrorCounters::kCodes);
  PktErrorCounters sum = counters;
  sum += counters;
  sum.forEach([](PktCode code, U64 count) { EXPECT_EQ(count, 2u * static_cast<U64>(1 - code.value())); });
  counters.clear();
  counters.count(badUdpLen);
  std::ostringstream out;
  out << counters;
  EXPECT_EQ(out.str(), "-501  badUdpLen                                                    1\n");
}

}  // namespace
