// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/PktChecks.h"

#include <gmock/gmock.h>

#include <functional>
#include <sstream>
#include <tuple>

#include "tests/packet/Frames.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/TraceCapture.h"

namespace {

using namespace Wirl;
using frames::octets;
using testing::Each;
using testing::ElementsAre;

/// `frame` with `hex` at `offset`.
std::string with(std::string frame, std::size_t offset, std::string_view hex) {
  const std::string part = octets(hex);
  return frame.replace(offset, part.size(), part);
}

/// The frame with the checksum of its IPv4 header set right, as long as the header says it is.
std::string rightChecksum(std::string frame) {
  IpHdr* const ipHdr = reinterpret_cast<IpHdr*>(frame.data() + 14);
  ipHdr->checksumU16Is(0);
  ipHdr->checksumIs(ipHdr->computedChecksum());
  return frame;
}

// A neighbour solicitation in a frame of 86 bytes: source link-layer address option, ICMPv6 from byte 54 on.
const std::string kNs = octets(
    "3333ff766c14 020000766c14 86dd"
    "60000000 0020 3aff fe80000000000000 000000fffe766c15 ff02000000000000 00000001ff766c14"
    "8700 9f66 00000000 fe80000000000000 020c29fffe766c14 0101 020000766c14");

/// What a check says of `pkt`: its code, where it finds headers, in bytes from the front, and what it traces.
template <typename... Hdrs, typename Check>
std::string told(const Pkt::Ptr& pkt, Check check) {
  const std::string_view prefix = "PktChecks/3:";
  EthHdr stale;
  std::tuple<Hdrs*...> found(reinterpret_cast<Hdrs*>(&stale)...);
  const TraceCapture traces("*/3");
  std::ostringstream out;
  out << std::apply(check, found);
  for (const void* hdr : {static_cast<void*>(std::get<Hdrs*>(found))...}) {
    if (hdr) out << ' ' << static_cast<const U8*>(hdr) - pkt->front();
  }
  for (const auto& line : traces.lines()) {
    EXPECT_TRUE(line.starts_with(prefix)) << line;
    out << ": " << line.substr(prefix.size());
  }
  return out.str();
}
std::string toldOfIp(const Pkt::Ptr& pkt) {
  return told<EthHdr, IpHdr>(pkt, [&](auto&... hdrs) { return checkEthIpHdr(pkt, hdrs...); });
}
std::string toldOfIp6(const Pkt::Ptr& pkt) {
  return told<EthHdr, Ip6Hdr>(pkt, [&](auto&... hdrs) { return checkEthIp6Hdr(pkt, hdrs...); });
}

void expectTold(std::string (*check)(const Pkt::Ptr&),
                const std::vector<std::pair<std::string, std::string>>& rows) {
  for (const auto& [frame, expected] : rows) EXPECT_EQ(check(frames::packet(frame)), expected);
}

// The fuzz target pktChecksFuzz, which FuzzTargetsTest runs, has a second version of every check: it holds
// codes, header pointers and what is written against it. Here are the traces, and what random frames hardly
// meet.

TEST(PktChecks, EthIp) {
  const std::string& good = frames::kUdp;
  const std::string header = rightChecksum(with(good, 16, "0014").substr(0, 34));
  const std::string zeroSum = with(with(good, 18, "66bd"), 24, "0000");
  const std::string inFirst = "Packet has 34 bytes in its first piece which is less than needed";
  const std::string larger = "IPv4 payload length is larger than the actual packet size";
  const std::string badChecksum = "badIpHdrChecksum 0 14: IPv4 header checksum is invalid";
  expectTold(toldOfIp,
             {{header, "noError 0 14"},
              {rightChecksum(with(good, 16, "0000")), "noError 0 14"},  // ends before the header does
              {header.substr(0, 33), "pktTooShort: Packet has 33 bytes which is less than needed"},
              {with(good, 12, "0806"), "wrongEthType: Type: 806"},
              {with(good, 14, "65"), "nonIpHdr 0: Ip hdr is not IPv4"},
              {with(header, 14, "46"), "pktTooShort 0: " + inFirst},
              {with(header, 14, "4f00ffff"), "badIpPayloadLen 0: " + larger + "20 vs. 65535"},
              {with(good, 16, "002f"), "badIpPayloadLen 0 14: " + larger + "46 vs. 47"},
              {zeroSum, "noError 0 14"},
              {with(zeroSum, 24, "ffff"), badChecksum}});  // not the other zero
}

TEST(PktChecks, EthIp6) {
  const std::string larger =
      "badIp6PayloadLen 0 14: IPv6 payload length is larger than the actual packet size. ";
  expectTold(toldOfIp6, {{with(kNs, 18, "0000").substr(0, 54), "noError 0 14"},
                         {kNs.substr(0, 53), "pktTooShort: Packet has 53 bytes which is less than needed"},
                         {with(kNs, 12, "0800"), "wrongEthType: Type: 800"},
                         {with(kNs, 14, "40"), "nonIp6Hdr 0: Ip hdr is not IPv6"},
                         {with(kNs, 18, "0021"), larger + "32 vs. 33"}});
}

struct Icmp6Packet {
  Pkt::Ptr pkt;
  Ip6Hdr* ip6Hdr;
  Icmp6Hdr* icmp6Hdr;
};
Icmp6Packet icmp6Packet(std::string_view frame, U32 split = 0) {
  const auto pkt = frames::packet(frame, split);
  return {pkt, reinterpret_cast<Ip6Hdr*>(pkt->front() + 14), reinterpret_cast<Icmp6Hdr*>(pkt->front() + 54)};
}

struct PktChecksOfNs : testing::Test {
  const Icmp6Packet ns = icmp6Packet(kNs);
  EthHdr* ethHdr = nullptr;
  IpHdr* ipHdr = nullptr;
  Ip6Hdr* ip6Hdr = nullptr;
  Icmp6Hdr* icmp6Hdr = nullptr;
  Icmp6OptionCommonHdr* option = nullptr;
  AhHdr* ahHdr = nullptr;
  char* hdr = nullptr;
};

TEST_F(PktChecksOfNs, TraceEntriesAndWhatWasFoundWithoutAllocationsWhenUntraced) {
  const auto udp = frames::packet(frames::kUdp);
  const auto bad = frames::packet(with(frames::kUdp, 24, "0001"));
  const auto all = [&] {
    checkEthIpHdr(udp, ethHdr, ipHdr);
    checkEthIp6Hdr(ns.pkt, ethHdr, ip6Hdr);
    checkIcmp6CheckSum(ns.pkt, ip6Hdr, icmp6Hdr);
    setIcmp6CheckSum(ns.pkt, ip6Hdr, icmp6Hdr);
    getIcmp6Opt(ns.pkt, ip6Hdr, icmp6Hdr, option, icmp6OptSrcLinkLayerAddr);
    checkIpAhHdr(udp, ipHdr, ahHdr);
    getNextProtoHdr(ip6Hdr, 72, &hdr, ipProtoTcp);
  };
  {
    const AllocationCounter counter;
    all();
    checkEthIpHdr(bad, ethHdr, ipHdr);
    EXPECT_EQ(counter.allocations(), 0u);
  }
  TraceCapture traces("PktChecks/8");
  all();
  const std::string at = "PktChecks/8:";
  EXPECT_THAT(
      traces.lines(),
      ElementsAre(at + "checkEthIpHdr",
                  at + "Got required Type: 800 src MAC: 0a:00:00:00:00:02 dst MAC: 0a:00:00:00:00:01",
                  at + "checkEthIp6Hdr",
                  at + "Got required Type: 86dd src MAC: 02:00:00:76:6c:14 dst MAC: 33:33:ff:76:6c:14",
                  at + "checkIcmp6CheckSum", at + "setIcmp6CheckSum", at + "getIcmp6Opt",
                  at + "Found option: 1", at + "checkIpAhHdr", at + "getNextProtoHdr"));

  // In two pieces: also of a check that ends before it reads more than the fixed header.
  traces.clear();
  const auto [split, splitIp6Hdr, splitIcmp6Hdr] = icmp6Packet(kNs, 60);
  const auto splitUdp = frames::packet(frames::kUdp, 40);
  const PktErrors codes[] = {checkIcmp6CheckSum(split, splitIp6Hdr, icmp6Hdr),
                             setIcmp6CheckSum(split, splitIp6Hdr, splitIcmp6Hdr),
                             getIcmp6Opt(split, splitIp6Hdr, splitIcmp6Hdr, option, icmp6OptSrcLinkLayerAddr),
                             checkIpAhHdr(splitUdp, reinterpret_cast<IpHdr*>(splitUdp->front() + 14), ahHdr)};
  EXPECT_THAT(codes, Each(pktTooShort));
  EXPECT_THAT(traces.lines(), ElementsAre(at + "checkIcmp6CheckSum", at + "setIcmp6CheckSum",
                                          at + "getIcmp6Opt", at + "checkIpAhHdr"));
}

TEST_F(PktChecksOfNs, DieWithoutPacketsAndHeaders) {
  const std::pair<std::function<void()>, const char*> rows[] = {
      {[&] { checkEthIpHdr(nullptr, ethHdr, ipHdr); }, "pkt != 0"},
      {[&] { checkEthIp6Hdr(nullptr, ethHdr, ip6Hdr); }, "pkt != 0"},
      {[&] { checkIcmp6CheckSum(nullptr, ns.ip6Hdr, icmp6Hdr); }, "pkt != 0"},
      {[&] { checkIcmp6CheckSum(ns.pkt, nullptr, icmp6Hdr); }, "ip6Hdr != 0"},
      {[&] { setIcmp6CheckSum(nullptr, ns.ip6Hdr, ns.icmp6Hdr); }, "pkt != 0"},
      {[&] { setIcmp6CheckSum(ns.ip6Hdr, nullptr); }, "icmp6Hdr != 0"},
      {[&] { setIcmp6CheckSum(nullptr, ns.icmp6Hdr); }, "ip6Hdr != 0"},
      {[&] { getIcmp6Opt(nullptr, ns.ip6Hdr, ns.icmp6Hdr, option, icmp6OptMtu); }, "pkt != 0"},
      {[&] { getIcmp6Opt(ns.pkt, ns.ip6Hdr, nullptr, option, icmp6OptMtu); }, "icmp6Hdr != 0"},
      {[&] { checkIpAhHdr(nullptr, reinterpret_cast<IpHdr*>(ns.ip6Hdr), ahHdr); }, "pkt != 0"},
      {[&] { checkIpAhHdr(nullptr, ahHdr); }, "ipHdr != 0"},
      {[&] { checkIpAhHdr(ns.pkt, nullptr, ahHdr); }, "ipHdr != 0"},
      {[&] { getNextProtoHdr(nullptr, 40, &hdr, 0); }, "ip6Hdr != 0"},
      {[&] { getNextProtoHdr(ns.ip6Hdr, 40, nullptr, 0); }, "hdr != 0"},
  };
  for (const auto& [misuse, condition] : rows) EXPECT_DEATH(misuse(), condition);
}

TEST(PktChecks, Icmp6CheckSum) {
  const std::string noIcmp6 = "nextHdrIsNotIcmp6: Next header is not Icmp6";
  const std::pair<std::string, std::string> rows[] = {
      {kNs, "noError 54"},
      {with(kNs, 85, "15"), "badIcmp6Checksum 54: Icmp6 checksum is invalid"},
      {with(kNs, 20, "00"), noIcmp6},
      {with(kNs, 18, "0003"), "badIp6PayloadLen: IP6 payload is too small to contain Icmp6"}};
  for (const auto& [frame, expected] : rows) {
    const auto made = icmp6Packet(frame);
    const auto check = [&](Icmp6Hdr*& found) { return checkIcmp6CheckSum(made.ip6Hdr, found); };
    EXPECT_EQ(told<Icmp6Hdr>(made.pkt, check), expected);
    const auto set = [&](Icmp6Hdr*& hdr) {
      hdr = nullptr;
      return setIcmp6CheckSum(made.ip6Hdr, made.icmp6Hdr);
    };
    EXPECT_EQ(told<Icmp6Hdr>(made.pkt, set), expected == noIcmp6 ? noIcmp6 : "noError");
  }
}

TEST(PktChecks, Icmp6OptionsTraceWhatIsBad) {
  const struct {
    std::size_t at;
    const char* octets;
    const char* told;
  } rows[] = {
      {79, "01", "noError 78"},
      {79, "00", "icmp6OptLenZero: Option length cannot be zero."},
      {79, "02", "icmp6OptLenExceedPayloadLen: Option length exceeds pkt length."},
      {54, "86", "icmp6TypeNotSupported: Icmp6 type is not supported: icmp6TypeRouterAdvertisement"},
  };
  for (const auto& row : rows) {
    const auto made = icmp6Packet(with(kNs, row.at, row.octets));
    const auto check = [&](Icmp6OptionCommonHdr*& option) {
      return getIcmp6Opt(made.ip6Hdr, made.icmp6Hdr, option, icmp6OptSrcLinkLayerAddr);
    };
    EXPECT_EQ(told<Icmp6OptionCommonHdr>(made.pkt, check), row.told);
  }
}

TEST(PktChecks, IpAh) {
  const std::string header = with(frames::kUdp.substr(0, 34), 23, "33");
  const std::string ah = octets("1104 0000 00000100 00000001 0102030405060708090a0b0c");
  const std::pair<std::string, std::string> rows[] = {
      {header + ah + "x", "noError 34"},
      {header + ah, "badAhLen 34: packet is too short to contain Authentication Data."},
      {header + ah.substr(0, 11), "badAhLen: packet is too short to contain an AH header."},
      {with(header + ah, 23, "32"), "nextHdrIsNotAh: Next header is not AH"},
  };
  for (auto [frame, expected] : rows) {
    frame[17] = static_cast<char>(frame.size() - 14);
    const auto pkt = frames::packet(frame);
    EXPECT_EQ(told<AhHdr>(pkt,
                          [&](AhHdr*& ahHdr) {
                            return checkIpAhHdr(pkt, reinterpret_cast<IpHdr*>(pkt->front() + 14), ahHdr);
                          }),
              expected);
  }
}

TEST(PktChecks, NextProtoHdr) {
  const std::string udp = "0035 0035 0008 0000";
  const std::string all =
      "2b00 0502 0000 0100 "  // hop by hop, then routing
      "3c02 0000 00000000 0000000000000000 0000000000000000 "
      "2c00 0104 00000000 "  // options, then fragment
      "3300 0001 00000001 "  // with more to come, then AH
      "1104 0000 00000100 00000001 010203040506070809101112 ";
  const struct {
    U8 first;
    std::string headers;
    U32 protocol;
    std::string told;
  } rows[] = {
      {0, all + udp, 17, "noError 112"},
      {0, all + udp, 273, "noError"},
      {0, all, 17, "pktTooShort"},
      {44, "1100 0009 00000001" + udp, 17, "noError"},     // not the first fragment
      {0, "3b00 0000 00000000", 17, "noError"},            // ends exactly at the end
      {51, "3b01 0000 00000000 00000000", 17, "noError"},  // so does this
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.first) + " " + row.headers + " " + std::to_string(row.protocol));
    const auto pkt = frames::packet(kNs.substr(14, 40) + octets(row.headers));
    auto* const ip6Hdr = reinterpret_cast<Ip6Hdr*>(pkt->front());
    ip6Hdr->protocolIs(row.first);
    for (const U32 payload : {pkt->bytes() - 40, 65535u}) {  // the bytes that are there count
      ip6Hdr->payloadLenIs(static_cast<U16>(payload));
      const auto said = told<char>(
          pkt, [&](char*& hdr) { return getNextProtoHdr(ip6Hdr, pkt->bytes(), &hdr, row.protocol); });
      EXPECT_EQ(said.substr(0, said.find(':')), row.told);
    }
    char* hdr = nullptr;
    EXPECT_EQ(getNextProtoHdr(ip6Hdr, 39, &hdr, row.protocol), pktTooShort);
  }
}

TEST(PktErrors, TextsAreTheNames) {
  const std::pair<int, const char*> rows[] = {{0, "noError"},
                                              {-4, "nonOnLink"},
                                              {-52, "nonIpHdr"},
                                              {-102, "badIp6PayloadLen"},
                                              {-308, "badVrrpLinkLocal"},
                                              {-402, "nonAhHmac96"}};
  for (const auto& [value, text] : rows) {
    EXPECT_EQ(int{pktErrorsFromString(text)}, value);
    EXPECT_EQ(testing::PrintToString(static_cast<PktErrors>(value)), text);
  }
  unsigned named = 0;
  for (int value = -500; value <= 10; ++value) {
    const auto code = static_cast<PktErrors>(value);
    if (pktErrorsText(code).empty()) continue;
    ++named;
    Kiv::NboAttrLog log;
    PktErrors back = noError;
    log << code;
    log >> back;
    EXPECT_EQ(back, code);
    EXPECT_EQ(pktErrorsFromText(pktErrorsText(code)), code);
  }
  EXPECT_EQ(named, 36u);
  EXPECT_EQ(pktErrorsFromText("noerror"), std::nullopt);
  EXPECT_THROW(pktErrorsFromString(""), Kiv::RangeException);
  EXPECT_EQ(testing::PrintToString(static_cast<PktErrors>(-5)), "-5");
}

}  // namespace
