// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/PktChecks.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <random>

#include "tests/packet/Frames.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/TraceCapture.h"

namespace {

using namespace Wirl;
using frames::octets;
using testing::ElementsAre;
using testing::HasSubstr;

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
    "3333ff766c14 000c29766c14 86dd"
    "60000000 0020 3aff fe80000000000000 020c29fffe766c15 ff02000000000000 00000001ff766c14"
    "8700 4d4e 00000000 fe80000000000000 020c29fffe766c14 0101 000c29766c14");

struct Verdict {
  PktErrors code;
  bool ethIsNull, ipIsNull;
  bool operator==(const Verdict&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Verdict& verdict) {
  return out << verdict.code << (verdict.ethIsNull ? " -" : " eth") << (verdict.ipIsNull ? " -" : " ip");
}

template <typename Hdr>
Verdict verdictOf(PktErrors (*check)(const Pkt::Ptr&, EthHdr*&, Hdr*&), const Pkt::Ptr& pkt) {
  EthHdr stale;
  Hdr staleIp;
  EthHdr* ethHdr = &stale;
  Hdr* ipHdr = &staleIp;
  const PktErrors code = check(pkt, ethHdr, ipHdr);
  EXPECT_TRUE(!ethHdr || static_cast<void*>(ethHdr) == pkt->front());
  EXPECT_TRUE(!ipHdr || static_cast<void*>(ipHdr) == pkt->front() + 14);
  return {code, ethHdr == nullptr, ipHdr == nullptr};
}

struct FrameRow {
  std::string frame;
  Verdict verdict;
  const char* trace;
};

template <typename Hdr>
void expectVerdicts(PktErrors (*check)(const Pkt::Ptr&, EthHdr*&, Hdr*&), const std::vector<FrameRow>& rows) {
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.verdict) + ": " + row.trace);
    const auto pkt = frames::packet(row.frame);
    {
      const TraceCapture traces("*/3");
      EXPECT_EQ(verdictOf(check, pkt), row.verdict);
      if (*row.trace) {
        EXPECT_THAT(traces.lines(), ElementsAre(std::string("PktChecks/3:") + row.trace));
      } else {
        EXPECT_THAT(traces.lines(), ElementsAre());
      }
    }
    const std::string left = row.verdict.code == badIpHdrChecksum ? with(row.frame, 24, "0000") : row.frame;
    EXPECT_EQ(pkt->stringValue(), left);
  }
}

TEST(PktChecks, EthIp) {
  const std::string& good = frames::kUdp;
  const std::string header = rightChecksum(with(good, 16, "0014").substr(0, 34));
  const std::string optioned = rightChecksum(with(good, 14, "46"));
  expectVerdicts(
      checkEthIpHdr,
      {
          {good, {noError, false, false}, ""},
          {header, {noError, false, false}, ""},
          {optioned, {noError, false, false}, ""},
          {rightChecksum(with(good, 16, "0000")),
           {noError, false, false},
           ""},  // ends before the header does
          {"", {pktTooShort, true, true}, "Packet has 0 bytes which is less than needed"},
          {header.substr(0, 33), {pktTooShort, true, true}, "Packet has 33 bytes which is less than needed"},
          {with(good, 12, "0806"), {wrongEthType, true, true}, "Type: 806"},
          {with(good, 12, "8100"), {wrongEthType, true, true}, "Type: 8100"},
          {with(good, 14, "65"), {nonIpHdr, false, true}, "Ip hdr is not IPv4"},
          {with(header, 14, "46"),
           {pktTooShort, false, true},
           "Packet has 34 bytes in its first piece which is less than needed"},
          {with(header, 14, "4fff0014"),
           {pktTooShort, false, true},
           "Packet has 34 bytes in its first piece which is less than needed"},
          {with(header, 14, "4f00ffff"),
           {badIpPayloadLen, false, true},
           "IPv4 payload length is larger than the actual packet size20 vs. 65535"},
          {with(good, 16, "002f"),
           {badIpPayloadLen, false, false},
           "IPv4 payload length is larger than the actual packet size46 vs. 47"},
          {with(good, 16, "ffff"),
           {badIpPayloadLen, false, false},
           "IPv4 payload length is larger than the actual packet size46 vs. 65535"},
          {with(good, 24, "66bd"), {badIpHdrChecksum, false, false}, "IPv4 header checksum is invalid"},
          // A checksum of 0 is not the other zero.
          {with(with(good, 18, "66bd"), 24, "0000"), {noError, false, false}, ""},
          {with(with(good, 18, "66bd"), 24, "ffff"),
           {badIpHdrChecksum, false, false},
           "IPv4 header checksum is invalid"},
          {with(optioned, 37, "01"), {badIpHdrChecksum, false, false}, "IPv4 header checksum is invalid"},
      });
}

TEST(PktChecks, EthIp6) {
  expectVerdicts(
      checkEthIp6Hdr,
      {
          {kNs, {noError, false, false}, ""},
          {with(kNs, 18, "0000").substr(0, 54), {noError, false, false}, ""},
          {kNs + "padding", {noError, false, false}, ""},
          {kNs.substr(0, 53), {pktTooShort, true, true}, "Packet has 53 bytes which is less than needed"},
          {with(kNs, 12, "0800"), {wrongEthType, true, true}, "Type: 800"},
          {with(kNs, 14, "40"), {nonIp6Hdr, false, true}, "Ip hdr is not IPv6"},
          {with(kNs, 18, "0021"),
           {badIp6PayloadLen, false, false},
           "IPv6 payload length is larger than the actual packet size. 32 vs. 33"},
          {kNs.substr(0, 54),
           {badIp6PayloadLen, false, false},
           "IPv6 payload length is larger than the actual packet size. 0 vs. 32"},
      });
}

TEST(PktChecks, HeadersLieWholeInTheFirstPiece) {
  const std::string optioned = rightChecksum(with(frames::kUdp, 14, "4b"));  // a header of 44 bytes
  for (U32 split = 0; split <= 60; ++split) {
    SCOPED_TRACE(split);
    const bool whole = split == 0;
    EXPECT_EQ(verdictOf(checkEthIpHdr, frames::packet(frames::kUdp, split)).code,
              whole || split >= 34 ? noError : pktTooShort);
    EXPECT_EQ(verdictOf(checkEthIpHdr, frames::packet(optioned, split)).code,
              whole || split >= 58 ? noError : pktTooShort);
    EXPECT_EQ(verdictOf(checkEthIp6Hdr, frames::packet(kNs, split)).code,
              whole || split >= 54 ? noError : pktTooShort);
  }
}

TEST(PktChecks, IpChecksumIsThatOfTheFieldAtZero) {
  std::mt19937 random(4711);
  const auto anyOctet = [&] { return static_cast<char>(random()); };
  unsigned right = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string frame = frames::kUdp + std::string(14, 'z');
    std::generate(frame.begin() + 14, frame.end(), anyOctet);
    // Few bits, so that sums of 0 and of all ones come up; any header length.
    if (i % 4 == 0) std::fill(frame.begin() + 15, frame.end(), i % 8 == 0 ? '\0' : '\xff');
    frame[14] = static_cast<char>(0x40 | (random() & 0xf));
    frame[16] = 0;
    frame[17] = 60;
    auto* const ipHdr = reinterpret_cast<IpHdr*>(frame.data() + 14);
    ipHdr->checksumU16Is(0);
    const U16 expected = ipHdr->computedChecksumU16();
    for (const U16 stored : {expected, static_cast<U16>(expected ^ 0xffff), static_cast<U16>(random())}) {
      ipHdr->checksumU16Is(stored);
      const PktErrors code = verdictOf(checkEthIpHdr, frames::packet(frame)).code;
      ASSERT_EQ(code, stored == expected ? noError : badIpHdrChecksum) << i << " " << *ipHdr;
      right += code == noError;
    }
  }
  EXPECT_GE(right, 20000u);
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

TEST(PktChecks, TraceEntriesAndWhatWasFound) {
  const auto ns = icmp6Packet(kNs);
  auto* const ipHdr = reinterpret_cast<IpHdr*>(ns.ip6Hdr);
  Icmp6Hdr* icmp6Hdr = nullptr;
  Icmp6OptionCommonHdr* option = nullptr;
  AhHdr* ahHdr = nullptr;
  char* hdr = nullptr;
  const TraceCapture traces("PktChecks/8");
  verdictOf(checkEthIpHdr, frames::packet(frames::kUdp));
  verdictOf(checkEthIp6Hdr, ns.pkt);
  checkIcmp6CheckSum(ns.pkt, ns.ip6Hdr, icmp6Hdr);
  setIcmp6CheckSum(ns.pkt, ns.ip6Hdr, ns.icmp6Hdr);
  getIcmp6Opt(ns.pkt, ns.ip6Hdr, ns.icmp6Hdr, option, icmp6OptSrcLinkLayerAddr);
  checkIpAhHdr(ns.pkt, ipHdr, ahHdr);
  getNextProtoHdr(ns.ip6Hdr, 72, &hdr, ipProtoTcp);
  const std::string at = "PktChecks/8:";
  EXPECT_THAT(
      traces.lines(),
      ElementsAre(at + "checkEthIpHdr",
                  at + "Got required Type: 800 src MAC: 0a:00:00:00:00:02 dst MAC: 0a:00:00:00:00:01",
                  at + "checkEthIp6Hdr",
                  at + "Got required Type: 86dd src MAC: 00:0c:29:76:6c:14 dst MAC: 33:33:ff:76:6c:14",
                  at + "checkIcmp6CheckSum", at + "setIcmp6CheckSum", at + "getIcmp6Opt",
                  at + "Found option: 1", at + "checkIpAhHdr", at + "getNextProtoHdr"));
}

TEST(PktChecksDeathTest, AskForPacketsAndHeaders) {
  const auto ns = icmp6Packet(kNs);
  Icmp6Hdr* icmp6Hdr = nullptr;
  Icmp6OptionCommonHdr* option = nullptr;
  AhHdr* ahHdr = nullptr;
  char* hdr = nullptr;
  const struct {
    std::function<void()> misuse;
    const char* condition;
  } rows[] = {
      {[&] { verdictOf(checkEthIpHdr, nullptr); }, "pkt != 0"},
      {[&] { verdictOf(checkEthIp6Hdr, nullptr); }, "pkt != 0"},
      {[&] { checkIcmp6CheckSum(nullptr, ns.ip6Hdr, icmp6Hdr); }, "pkt != 0"},
      {[&] { checkIcmp6CheckSum(ns.pkt, nullptr, icmp6Hdr); }, "ip6Hdr != 0"},
      {[&] { setIcmp6CheckSum(nullptr, ns.ip6Hdr, ns.icmp6Hdr); }, "pkt != 0"},
      {[&] { setIcmp6CheckSum(ns.ip6Hdr, nullptr); }, "icmp6Hdr != 0"},
      {[&] { getIcmp6Opt(nullptr, ns.ip6Hdr, ns.icmp6Hdr, option, icmp6OptMtu); }, "pkt != 0"},
      {[&] { getIcmp6Opt(ns.pkt, ns.ip6Hdr, nullptr, option, icmp6OptMtu); }, "icmp6Hdr != 0"},
      {[&] { checkIpAhHdr(nullptr, reinterpret_cast<IpHdr*>(ns.ip6Hdr), ahHdr); }, "pkt != 0"},
      {[&] { checkIpAhHdr(nullptr, ahHdr); }, "ipHdr != 0"},
      {[&] { getNextProtoHdr(nullptr, 40, &hdr, 0); }, "ip6Hdr != 0"},
      {[&] { getNextProtoHdr(ns.ip6Hdr, 40, nullptr, 0); }, "hdr != 0"},
  };
  for (const auto& row : rows) EXPECT_DEATH(row.misuse(), row.condition);
}

TEST(PktChecks, Icmp6CheckSum) {
  const std::string cleared = with(kNs, 56, "0000");
  const struct {
    std::string frame;
    PktErrors code;
    const char* trace;
  } rows[] = {
      {kNs, noError, ""},
      {with(kNs, 85, "15"), badIcmp6Checksum, "PktChecks/3:Icmp6 checksum is invalid"},
      {cleared, badIcmp6Checksum, "PktChecks/3:Icmp6 checksum is invalid"},
      {with(kNs, 18, "001f"), badIcmp6Checksum, "PktChecks/3:Icmp6 checksum is invalid"},
      {with(kNs, 18, "0004"), badIcmp6Checksum, "PktChecks/3:Icmp6 checksum is invalid"},
      {with(kNs, 20, "00"), nextHdrIsNotIcmp6, "PktChecks/3:Next header is not Icmp6"},
      {with(kNs, 18, "0003"), badIp6PayloadLen, "PktChecks/3:IP6 payload is too small to contain Icmp6"},
      {with(kNs, 18, "0000"), badIp6PayloadLen, "PktChecks/3:IP6 payload is too small to contain Icmp6"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.code));
    const auto made = icmp6Packet(row.frame);
    const TraceCapture traces("*/3");
    Icmp6Hdr* found = made.icmp6Hdr + 1;
    EXPECT_EQ(checkIcmp6CheckSum(made.ip6Hdr, found), row.code);
    const bool reached = row.code == noError || row.code == badIcmp6Checksum;
    EXPECT_EQ(found, reached ? made.icmp6Hdr : nullptr);
    EXPECT_EQ(made.pkt->stringValue(), reached ? with(row.frame, 56, "0000") : row.frame);
    EXPECT_THAT(traces.lines().empty() ? "" : traces.lines().at(0), row.trace);
  }

  const auto made = icmp6Packet(cleared);
  EXPECT_EQ(setIcmp6CheckSum(made.ip6Hdr, made.icmp6Hdr), noError);
  EXPECT_EQ(made.pkt->stringValue(), kNs);
  made.ip6Hdr->payloadLenIs(2);  // not asked: the field is set all the same
  EXPECT_EQ(setIcmp6CheckSum(made.ip6Hdr, made.icmp6Hdr), noError);
  EXPECT_NE(made.icmp6Hdr->checksumU16(), 0x4d4e);
  made.ip6Hdr->protocolIs(6);
  const TraceCapture traces("*/3");
  EXPECT_EQ(setIcmp6CheckSum(made.ip6Hdr, made.icmp6Hdr), nextHdrIsNotIcmp6);
  EXPECT_THAT(traces.lines(), ElementsAre("PktChecks/3:Next header is not Icmp6"));
}

TEST(PktChecks, DatagramsInTwoPiecesAreRefusedByTheFormsWithThePacket) {
  for (const U32 split : {0u, 54u, 55u, 58u, 64u}) {
    const PktErrors expected = split == 0 ? noError : pktTooShort;
    const auto made = icmp6Packet(kNs, split);
    EXPECT_EQ(verdictOf(checkEthIp6Hdr, made.pkt).code, noError);
    Icmp6Hdr* found = made.icmp6Hdr;
    EXPECT_EQ(checkIcmp6CheckSum(made.pkt, made.ip6Hdr, found), expected);
    EXPECT_EQ(found, split == 0 ? made.icmp6Hdr : nullptr);
    Icmp6OptionCommonHdr* option = nullptr;
    EXPECT_EQ(getIcmp6Opt(made.pkt, made.ip6Hdr, made.icmp6Hdr, option, icmp6OptSrcLinkLayerAddr), expected);
    EXPECT_EQ(option != nullptr, split == 0);
    EXPECT_EQ(setIcmp6CheckSum(made.pkt, made.ip6Hdr, made.icmp6Hdr), expected);
    EXPECT_EQ(made.pkt->stringValue(), kNs);
  }
  // A datagram that ends before its piece does, or just there.
  const auto echo = icmp6Packet(with(kNs, 54, "8000") + "padding", 62);
  echo.ip6Hdr->payloadLenIs(8);
  Icmp6Hdr* icmp6Hdr = nullptr;
  EXPECT_EQ(setIcmp6CheckSum(echo.pkt, echo.ip6Hdr, echo.icmp6Hdr), noError);
  EXPECT_EQ(checkIcmp6CheckSum(echo.pkt, echo.ip6Hdr, icmp6Hdr), noError);
  const auto made = icmp6Packet(kNs.substr(0, 54));  // its length field was never checked
  Icmp6Hdr* found = nullptr;
  const TraceCapture traces("*/3");
  EXPECT_EQ(checkIcmp6CheckSum(made.pkt, made.ip6Hdr, found), pktTooShort);
  EXPECT_EQ(verdictOf(checkEthIpHdr, frames::packet(frames::kUdp, 33)).code, pktTooShort);
  EXPECT_THAT(traces.lines(),
              ElementsAre("PktChecks/3:Packet has 54 bytes in its first piece which is less than needed",
                          "PktChecks/3:Packet has 33 bytes in its first piece which is less than needed"));
}

TEST(PktChecks, Icmp6Options) {
  constexpr int kNone = -1;
  const std::string first = "0101 0a0000000001 ";
  const std::string second = "0101 0a0000000002 ";
  const std::string other = "0e02 000000000000 0000000000000000 ";
  const struct {
    U8 type;
    std::string options;  // in hexadecimal
    PktErrors code;
    int at;  // where the option is that was found, in bytes from the first
    const char* trace = "";
  } rows[] = {
      {135, "", noError, kNone},
      {136, first, noError, 0},
      {135, first + second, noError, 8},
      {135, first + other, noError, 0},
      {133, other + second, noError, 16},
      {133, other, noError, kNone},
      {134, first, icmp6TypeNotSupported, kNone, "Icmp6 type is not supported: icmp6TypeRouterAdvertisement"},
      {128, first, icmp6TypeNotSupported, kNone, "Icmp6 type is not supported: icmp6TypeEchoRequest"},
      {135, "01", noError, kNone},
      {135, "0100", icmp6OptLenZero, kNone, "Option length cannot be zero."},
      {135, "0101", icmp6OptLenExceedPayloadLen, kNone, "Option length exceeds pkt length."},
      {135, "0101 0a00000000", icmp6OptLenExceedPayloadLen, kNone, "Option length exceeds pkt length."},
      {135, "01ff" + first, icmp6OptLenExceedPayloadLen, kNone, "Option length exceeds pkt length."},
      {135, first + "0100 0a0000000001", icmp6OptLenZero, 0, "Option length cannot be zero."},
      {135, first + "02", noError, 0},
      {135, first + "0201", icmp6OptLenExceedPayloadLen, 0, "Option length exceeds pkt length."},
      {135, first + "0200", icmp6OptLenExceedPayloadLen, 0, "Option length exceeds pkt length."},
      {135, first + "020100", icmp6OptLenExceedPayloadLen, 0, "Option length exceeds pkt length."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.options + " in " + std::to_string(row.type));
    const std::size_t start = row.type == 133 ? 62 : row.type == 134 ? 70 : 78;
    std::string frame = kNs.substr(0, start) + octets(row.options);
    frame[54] = static_cast<char>(row.type);
    frame[19] = static_cast<char>(frame.size() - 54);
    const auto made = icmp6Packet(frame);
    const TraceCapture traces("*/3");
    Icmp6OptionCommonHdr* option = reinterpret_cast<Icmp6OptionCommonHdr*>(made.icmp6Hdr);
    EXPECT_EQ(getIcmp6Opt(made.ip6Hdr, made.icmp6Hdr, option, icmp6OptSrcLinkLayerAddr), row.code);
    const U8* const expected = row.at == kNone ? nullptr : made.pkt->front() + start + row.at;
    EXPECT_EQ(static_cast<void*>(option), expected);
    EXPECT_EQ(traces.lines().empty() ? "" : traces.lines().at(0),
              *row.trace ? std::string("PktChecks/3:") + row.trace : "");
  }
  // A message that ends inside of its fixed part has no options.
  const auto made = icmp6Packet(with(kNs, 18, "0004").substr(0, 58));
  Icmp6OptionCommonHdr* option = nullptr;
  EXPECT_EQ(getIcmp6Opt(made.ip6Hdr, made.icmp6Hdr, option, icmp6OptSrcLinkLayerAddr), noError);
}

TEST(PktChecks, IpAh) {
  const std::string header = with(frames::kUdp.substr(0, 34), 23, "33");
  const std::string ah = octets("1104 0000 00000100 00000001 0102030405060708090a0b0c");
  const std::string short_ = "packet is too short to contain an AH header.";
  const std::string data = "packet is too short to contain Authentication Data.";
  const struct {
    std::string frame;
    PktErrors code;
    std::string trace;
  } rows[] = {
      {header + ah + "x", noError, ""},
      {header + ah, badAhLen, data},  // nothing behind it
      {header + ah.substr(0, 23), badAhLen, data},
      {header + ah.substr(0, 12), badAhLen, data},
      {header + ah.substr(0, 11), badAhLen, short_},
      {header, badAhLen, short_},
      {with(header + ah + "x", 35, "00"), noError, ""},
      {with(header + ah + "x", 35, "ff"), badAhLen, data},
      {with(header + ah + "x", 23, "32"), nextHdrIsNotAh, "Next header is not AH"},
      {with(header + ah + "x", 14, "4a"), badAhLen, short_},  // options leave too little
  };
  for (const auto& row : rows) {
    std::string frame = row.frame;
    frame[17] = static_cast<char>(frame.size() - 14);
    const auto pkt = frames::packet(frame);
    auto* const ipHdr = reinterpret_cast<IpHdr*>(pkt->front() + 14);
    AhHdr* ahHdr = reinterpret_cast<AhHdr*>(pkt->front());
    const TraceCapture traces("*/3");
    EXPECT_EQ(checkIpAhHdr(pkt, ipHdr, ahHdr), row.code) << row.trace << frame.size();
    EXPECT_EQ(static_cast<void*>(ahHdr),
              row.code == noError || row.trace == data ? pkt->front() + 34 : nullptr);
    EXPECT_EQ(traces.lines().empty() ? "" : traces.lines().at(0),
              row.trace.empty() ? "" : "PktChecks/3:" + row.trace);
    EXPECT_EQ(pkt->stringValue(), frame);
  }
  const auto pkt = frames::packet(with(header, 16, "0030") + ah + std::string(4, 'x'), 40);
  AhHdr* ahHdr = nullptr;
  EXPECT_EQ(checkIpAhHdr(pkt, reinterpret_cast<IpHdr*>(pkt->front() + 14), ahHdr), pktTooShort);
}

TEST(PktChecks, NextProtoHdr) {
  constexpr int kNone = -1;
  const std::string hopByHop = "2b00 0502 0000 0100 ";  // then routing
  const std::string routing = "3c02 0000 00000000 0000000000000000 0000000000000000 ";
  const std::string options = "2c00 0104 00000000 ";   // then fragment
  const std::string fragment = "3300 0001 00000001 ";  // then AH; more to come
  const std::string ah = "1104 0000 00000100 00000001 010203040506070809101112 ";
  const std::string all = hopByHop + routing + options + fragment + ah;
  const std::string udp = "0035 0035 0008 0000";
  const struct {
    U8 first;
    std::string headers;
    U32 protocol;
    PktErrors code;
    int at;
  } rows[] = {
      {17, udp, 17, noError, 0},
      {17, udp, 6, noError, kNone},
      {0, all + udp, 17, noError, 72},
      {0, all + udp, 51, noError, 48},
      {0, all + udp, 44, noError, 40},
      {0, all + udp, 0, noError, 0},
      {0, all + udp, 58, noError, kNone},
      {0, all + udp, 273, noError, kNone},
      {0, all, 17, pktTooShort, kNone},
      {17, "", 17, pktTooShort, kNone},
      {0, "1100", 17, pktTooShort, kNone},
      {0, "1101 0000 00000000" + udp.substr(0, 17), 17, pktTooShort, kNone},
      {0, "11ff 0000 00000000" + udp, 17, pktTooShort, kNone},
      {44, "1100 0009 00000001" + udp, 17, noError, kNone},  // not the first fragment
      {44, "1100 0007 00000001" + udp, 17, noError, 8},
      {59, udp, 17, noError, kNone},
      {59, udp, 59, noError, kNone},
      {50, udp, 17, noError, kNone},  // encrypted
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.first) + " " + row.headers + " " + std::to_string(row.protocol));
    std::string datagram = kNs.substr(14, 40) + octets(row.headers);
    datagram[5] = static_cast<char>(datagram.size() - 40);
    datagram[6] = static_cast<char>(row.first);
    const auto pkt = frames::packet(datagram);
    auto* const ip6Hdr = reinterpret_cast<Ip6Hdr*>(pkt->front());
    const auto* const start = reinterpret_cast<char*>(pkt->front()) + 40;
    char* hdr = reinterpret_cast<char*>(ip6Hdr);
    EXPECT_EQ(getNextProtoHdr(ip6Hdr, pkt->bytes(), &hdr, row.protocol), row.code);
    EXPECT_EQ(static_cast<const void*>(hdr), row.at == kNone ? nullptr : start + row.at);
    ip6Hdr->payloadLenIs(65535);  // the bytes that are there count
    EXPECT_EQ(getNextProtoHdr(ip6Hdr, pkt->bytes(), &hdr, row.protocol), row.code);
    EXPECT_EQ(getNextProtoHdr(ip6Hdr, 39, &hdr, row.protocol), pktTooShort);
    EXPECT_EQ(hdr, nullptr);
  }
}

TEST(PktChecks, DoNotAllocate) {
  const auto good = frames::packet(frames::kUdp);
  const auto bad = frames::packet(with(frames::kUdp, 24, "0001"));
  const auto ns = icmp6Packet(kNs);
  const AllocationCounter counter;
  EthHdr* ethHdr = nullptr;
  IpHdr* ipHdr = nullptr;
  Ip6Hdr* ip6Hdr = nullptr;
  Icmp6Hdr* icmp6Hdr = nullptr;
  Icmp6OptionCommonHdr* option = nullptr;
  checkEthIpHdr(good, ethHdr, ipHdr);
  checkEthIpHdr(bad, ethHdr, ipHdr);
  checkEthIp6Hdr(ns.pkt, ethHdr, ip6Hdr);
  checkIcmp6CheckSum(ip6Hdr, icmp6Hdr);
  getIcmp6Opt(ip6Hdr, icmp6Hdr, option, icmp6OptSrcLinkLayerAddr);
  EXPECT_EQ(counter.allocations(), 0u);
  EXPECT_NE(option, nullptr);
}

TEST(PktErrors, TextsAreTheNames) {
  const struct {
    PktErrors code;
    const char* text;
    int value;
  } rows[] = {
      {noError, "noError", 0},
      {nonOnLink, "nonOnLink", -4},
      {nonIpHdr, "nonIpHdr", -52},
      {badIp6PayloadLen, "badIp6PayloadLen", -102},
      {icmp6McastDstIpAndNonZeroSolicitation, "icmp6McastDstIpAndNonZeroSolicitation", -213},
      {badVrrpLinkLocal, "badVrrpLinkLocal", -308},
      {nonAhHmac96, "nonAhHmac96", -402},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(int{row.code}, row.value);
    EXPECT_EQ(testing::PrintToString(row.code), row.text);
    EXPECT_EQ(pktErrorsFromString(row.text), row.code);
  }
  unsigned named = 0;
  for (int value = -500; value <= 10; ++value) {
    const auto code = static_cast<PktErrors>(value);
    if (pktErrorsText(code).empty()) continue;
    ++named;
    EXPECT_EQ(pktErrorsFromText(pktErrorsText(code)), code);
  }
  EXPECT_EQ(named, 36u);
  EXPECT_EQ(pktErrorsFromText("noerror"), std::nullopt);
  EXPECT_THROW(pktErrorsFromString(""), Kiv::RangeException);
  EXPECT_EQ(testing::PrintToString(static_cast<PktErrors>(-5)), "-5");
  Kiv::NboAttrLog log;
  PktErrors back = noError;
  log << nonAhHmac96;
  log >> back;
  EXPECT_EQ(back, nonAhHmac96);
}

}  // namespace
