// SPDX-License-Identifier: Apache-2.0
// The fuzz target pktChecksFuzz, which FuzzTargetsTest runs, has a second version of every check: it holds
// codes, header pointers and what is written against it. Here are the traces, and what random frames hardly
// meet.
#include "Wirl/packet/PktChecks.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <sstream>

#include "tests/packet/Frames.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/TraceCapture.h"

namespace {

using namespace Wirl;
using frames::octets;

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
const std::string kAh = with(frames::kUdp.substr(0, 34), 23, "33") +
                        octets("1104 0000 00000100 00000001 0102030405060708090a0b0c");

/// A packet, its headers, and what checks find in it.
struct Checked {
  explicit Checked(std::string_view frame) : pkt(frames::packet(frame)) {}

  const Pkt::Ptr pkt;
  IpHdr* const ip = reinterpret_cast<IpHdr*>(pkt->front() + 14);
  Ip6Hdr* const ip6 = reinterpret_cast<Ip6Hdr*>(ip);
  Icmp6Hdr* const icmp6 = reinterpret_cast<Icmp6Hdr*>(ip6 + 1);
  EthHdr* ethFound = nullptr;
  IpHdr* ipFound = nullptr;
  Ip6Hdr* ip6Found = nullptr;
  Icmp6Hdr* icmp6Found = nullptr;
  Icmp6OptionCommonHdr* option = nullptr;
  AhHdr* ah = nullptr;
  char* hdr = nullptr;
};

const std::map<std::string, PktErrors (*)(Checked&)> kChecks = {
    {"checkEthIpHdr", [](Checked& c) { return checkEthIpHdr(c.pkt, c.ethFound, c.ipFound); }},
    {"checkEthIp6Hdr", [](Checked& c) { return checkEthIp6Hdr(c.pkt, c.ethFound, c.ip6Found); }},
    {"checkIcmp6CheckSum", [](Checked& c) { return checkIcmp6CheckSum(c.ip6, c.icmp6Found); }},
    {"setIcmp6CheckSum", [](Checked& c) { return setIcmp6CheckSum(c.ip6, c.icmp6); }},
    {"getIcmp6Opt",
     [](Checked& c) { return getIcmp6Opt(c.ip6, c.icmp6, c.option, icmp6OptSrcLinkLayerAddr); }},
    {"checkIpAhHdr", [](Checked& c) { return checkIpAhHdr(c.pkt, c.ip, c.ah); }},
    {"getNextProtoHdr", [](Checked& c) { return getNextProtoHdr(c.ip6, 72, &c.hdr, ipProtoTcp); }}};

/// What a check says: its code, where it finds headers, in bytes from the front, and what it traces.
std::string told(const std::string& check, std::string_view frame) {
  const std::string_view prefix = "PktChecks/3:";
  const TraceCapture traces("*/3");
  Checked checked(frame);
  std::ostringstream out;
  out << kChecks.at(check)(checked);
  for (const void* found :
       std::initializer_list<const void*>{checked.ethFound, checked.ipFound, checked.ip6Found,
                                          checked.icmp6Found, checked.option, checked.ah}) {
    if (found) out << ' ' << static_cast<const U8*>(found) - checked.pkt->front();
  }
  for (const auto& line : traces.lines()) {
    EXPECT_TRUE(line.starts_with(prefix)) << line;
    out << ": " << line.substr(prefix.size());
  }
  return out.str();
}

TEST(PktChecks, TellWhatIsBad) {
  const std::string& good = frames::kUdp;
  const std::string header = rightChecksum(with(good, 16, "0014").substr(0, 34));
  const std::string zeroSum = with(with(good, 18, "66bd"), 24, "0000");
  const std::string larger = "IPv4 payload length is larger than the actual packet size";
  const std::string larger6 = "IPv6 payload length is larger than the actual packet size. ";
  const std::string noIcmp6 = "nextHdrIsNotIcmp6: Next header is not Icmp6";
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"checkEthIpHdr", header, "noError 0 14"},
      {"checkEthIpHdr", rightChecksum(with(good, 16, "0000")),
       "noError 0 14"},  // ends before the header does
      {"checkEthIpHdr", header.substr(0, 33), "pktTooShort: Packet has 33 bytes which is less than needed"},
      {"checkEthIpHdr", with(good, 12, "0806"), "wrongEthType: Type: 806"},
      {"checkEthIpHdr", with(good, 14, "65"), "nonIpHdr 0: Ip hdr is not IPv4"},
      {"checkEthIpHdr", with(header, 14, "46"),
       "pktTooShort 0: Packet has 34 bytes in its first piece which is less than needed"},
      {"checkEthIpHdr", with(header, 14, "4f00ffff"), "badIpPayloadLen 0: " + larger + "20 vs. 65535"},
      {"checkEthIpHdr", with(good, 16, "002f"), "badIpPayloadLen 0 14: " + larger + "46 vs. 47"},
      {"checkEthIpHdr", zeroSum, "noError 0 14"},
      {"checkEthIpHdr", with(zeroSum, 24, "ffff"),  // not the other zero
       "badIpHdrChecksum 0 14: IPv4 header checksum is invalid"},
      {"checkEthIp6Hdr", with(kNs, 18, "0000").substr(0, 54), "noError 0 14"},
      {"checkEthIp6Hdr", kNs.substr(0, 53), "pktTooShort: Packet has 53 bytes which is less than needed"},
      {"checkEthIp6Hdr", with(kNs, 12, "0800"), "wrongEthType: Type: 800"},
      {"checkEthIp6Hdr", with(kNs, 14, "40"), "nonIp6Hdr 0: Ip hdr is not IPv6"},
      {"checkEthIp6Hdr", with(kNs, 18, "0021"), "badIp6PayloadLen 0 14: " + larger6 + "32 vs. 33"},
      {"checkIcmp6CheckSum", kNs, "noError 54"},
      {"checkIcmp6CheckSum", with(kNs, 85, "15"), "badIcmp6Checksum 54: Icmp6 checksum is invalid"},
      {"checkIcmp6CheckSum", with(kNs, 20, "00"), noIcmp6},
      {"checkIcmp6CheckSum", with(kNs, 18, "0003"),
       "badIp6PayloadLen: IP6 payload is too small to contain Icmp6"},
      {"setIcmp6CheckSum", with(kNs, 20, "00"), noIcmp6},
      {"getIcmp6Opt", kNs, "noError 78"},
      {"getIcmp6Opt", with(kNs, 79, "00"), "icmp6OptLenZero: Option length cannot be zero."},
      {"getIcmp6Opt", with(kNs, 79, "02"), "icmp6OptLenExceedPayloadLen: Option length exceeds pkt length."},
      {"getIcmp6Opt", with(kNs, 54, "86"),
       "icmp6TypeNotSupported: Icmp6 type is not supported: icmp6TypeRouterAdvertisement"},
      {"checkIpAhHdr", with(kAh, 17, "2d") + "x", "noError 34"},
      {"checkIpAhHdr", with(kAh, 17, "2c"),
       "badAhLen 34: packet is too short to contain Authentication Data."},
      {"checkIpAhHdr", with(kAh, 17, "1f"), "badAhLen: packet is too short to contain an AH header."},
      {"checkIpAhHdr", frames::kUdp, "nextHdrIsNotAh: Next header is not AH"}};
  for (const auto& [check, frame, expected] : rows) EXPECT_EQ(told(check, frame), expected) << check;
}

TEST(PktChecks, TraceTheirEntryAndAllocateNothingUntraced) {
  Checked ns(kNs), udp(frames::kUdp), bad(with(frames::kUdp, 24, "0001"));
  const auto all = [&] {
    for (const auto& [name, check] : kChecks)
      check(name == "checkEthIpHdr" || name == "checkIpAhHdr" ? udp : ns);
  };
  {
    const AllocationCounter counter;
    all();
    kChecks.at("checkEthIpHdr")(bad);
    EXPECT_EQ(counter.allocations(), 0u);
  }
  const TraceCapture traces("PktChecks/8");
  all();
  std::string lines;
  for (const std::string& line : traces.lines()) lines += line.substr(line.find(':') + 1) + '\n';
  EXPECT_EQ(
      lines,
      "checkEthIp6Hdr\n"
      "Got required Type: 86dd src MAC: 02:00:00:76:6c:14 dst MAC: 33:33:ff:76:6c:14\n"
      "checkEthIpHdr\n"
      "Got required Type: 800 src MAC: 0a:00:00:00:00:02 dst MAC: 0a:00:00:00:00:01\n"
      "checkIcmp6CheckSum\ncheckIpAhHdr\ngetIcmp6Opt\nFound option: 1\ngetNextProtoHdr\nsetIcmp6CheckSum\n");
}

TEST(PktChecksDeathTest, WithoutPacketsAndHeaders) {
  Checked c(kNs);
  const std::pair<std::function<void()>, const char*> rows[] = {
      {[&] { checkEthIpHdr(nullptr, c.ethFound, c.ipFound); }, "pkt != 0"},
      {[&] { checkEthIp6Hdr(nullptr, c.ethFound, c.ip6Found); }, "pkt != 0"},
      {[&] { checkIcmp6CheckSum(nullptr, c.ip6, c.icmp6Found); }, "pkt != 0"},
      {[&] { checkIcmp6CheckSum(c.pkt, nullptr, c.icmp6Found); }, "ip6Hdr != 0"},
      {[&] { setIcmp6CheckSum(nullptr, c.ip6, c.icmp6); }, "pkt != 0"},
      {[&] { setIcmp6CheckSum(c.ip6, nullptr); }, "icmp6Hdr != 0"},
      {[&] { getIcmp6Opt(nullptr, c.ip6, c.icmp6, c.option, icmp6OptMtu); }, "pkt != 0"},
      {[&] { getIcmp6Opt(c.pkt, c.ip6, nullptr, c.option, icmp6OptMtu); }, "icmp6Hdr != 0"},
      {[&] { checkIpAhHdr(nullptr, c.ip, c.ah); }, "pkt != 0"},
      {[&] { checkIpAhHdr(nullptr, c.ah); }, "ipHdr != 0"},
      {[&] { getNextProtoHdr(nullptr, 40, &c.hdr, 0); }, "ip6Hdr != 0"},
      {[&] { getNextProtoHdr(c.ip6, 40, nullptr, 0); }, "hdr != 0"}};
  for (const auto& [misuse, condition] : rows) EXPECT_DEATH(misuse(), condition);
}

TEST(PktChecks, NextProtoHdr) {
  const std::string udp = "0035 0035 0008 0000";
  const std::string all =
      "2b00 0502 0000 0100 "  // hop by hop, then routing
      "3c02 0000 00000000 0000000000000000 0000000000000000 "
      "2c00 0104 00000000 "  // options, then fragment
      "3300 0001 00000001 "  // with more to come, then AH
      "1104 0000 00000100 00000001 010203040506070809101112 ";
  const std::tuple<int, std::string, U32, PktErrors, int> rows[] = {
      {0, all + udp, 17, noError, 112},
      {0, all + udp, 273, noError, 0},
      {0, all, 17, pktTooShort, 0},
      {44, "1100 0009 00000001" + udp, 17, noError, 0},     // not the first fragment
      {0, "3b00 0000 00000000", 17, noError, 0},            // ends exactly at the end
      {51, "3b01 0000 00000000 00000000", 17, noError, 0},  // so does this
  };
  for (const auto& [first, headers, protocol, code, at] : rows) {
    const auto pkt = frames::packet(kNs.substr(14, 40) + octets(headers));
    auto* const ip6Hdr = reinterpret_cast<Ip6Hdr*>(pkt->front());
    ip6Hdr->protocolIs(static_cast<U8>(first));
    char* hdr = nullptr;
    for (const U32 payload : {pkt->bytes() - 40, 65535u}) {  // the bytes that are there count
      ip6Hdr->payloadLenIs(static_cast<U16>(payload));
      EXPECT_EQ(getNextProtoHdr(ip6Hdr, pkt->bytes(), &hdr, protocol), code) << headers;
      EXPECT_EQ(hdr ? hdr - reinterpret_cast<char*>(ip6Hdr) : 0, at) << headers;
    }
    EXPECT_EQ(getNextProtoHdr(ip6Hdr, 39, &hdr, protocol), pktTooShort);
  }
}

TEST(PktErrors, TextsAreTheNames) {
  std::string some;
  unsigned named = 0;
  for (int value = -500; value <= 10; ++value) {
    const auto code = static_cast<PktErrors>(value);
    const auto text = pktErrorsText(code);
    if (text.empty()) continue;
    if (named++ % 7 == 0) some += std::to_string(value) + testing::PrintToString(code) + " ";
    Kiv::NboAttrLog log;
    PktErrors back = noError;
    log << code;
    log >> back;
    EXPECT_EQ(back, code);
    EXPECT_EQ(pktErrorsFromText(text), code);
  }
  EXPECT_EQ(named, 36u);
  EXPECT_EQ(some,
            "-402nonAhHmac96 -304badVrrpVersion -211notIcmp6NaType -204notIcmp6NsType -52nonIpHdr 0noError ");
  EXPECT_EQ(pktErrorsFromText("noerror"), std::nullopt);
  EXPECT_THROW(pktErrorsFromString(""), Kiv::RangeException);
  EXPECT_EQ(testing::PrintToString(static_cast<PktErrors>(-5)), "-5");
}

}  // namespace
