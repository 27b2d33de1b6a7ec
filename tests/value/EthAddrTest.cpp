// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/EthAddr.h"

#include <gtest/gtest.h>
#include <netinet/ether.h>

#include <algorithm>
#include <optional>
#include <random>

#include "Wirl/value/EtherUtil.h"
#include "Wirl/value/Eui64.h"
#include "Wirl/value/detail/HexGroups.h"
#include "tests/value/TextTable.h"

namespace {

using namespace Wirl;
using Kiv::RangeException;
using table::messageOf;
using namespace std::string_view_literals;

EthAddr mac(std::string_view text) {
  return EthAddr(text);
}

TEST(EthAddr, ReadsEveryTextForm) {
  table::expectReads<EthAddr>({"00:1c:73:0a:0b:0c", "00:1C:73:0a:b:c -> 00:1c:73:0a:0b:0c",
                               "00-1c-73-0A-0b-0c -> 00:1c:73:0a:0b:0c",
                               "001c.730a.0b0c -> 00:1c:73:0a:0b:0c", "1.2.3 -> 00:01:00:02:00:03",
                               "00:1c:73:0a:0b:0cd -> 00:1c:73:0a:0b:cd", "0.FfFf.10 -> 00:00:ff:ff:00:10",
                               "0000000a:00:00:00:00:01 -> 0a:00:00:00:00:01",
                               "0:0:0:0:0:00000000000000000000000000000000000000ff -> 00:00:00:00:00:ff",
                               "000abcd.000000000000000000001.2 -> ab:cd:00:01:00:02",
                               "000000000000000000:1:2:3:4:5 -> 00:01:02:03:04:05",
                               "0000000000000000000a-1-2-3-4-5 -> 0a:01:02:03:04:05",
                               "000000000000000000000000000000000000abcd.1.2 -> ab:cd:00:01:00:02",
                               "0-0-0-0-0-0 -> 00:00:00:00:00:00", "FF:FF:FF:FF:FF:FF -> ff:ff:ff:ff:ff:ff"});
}

TEST(EthAddr, RefusesEveryOtherText) {
  table::expectRefused<EthAddr>(
      mac("2:3:4:5:6:7"), "Invalid EthAddr",
      {"", ":", "0", "001c730a0b0c", "00 1c 73 0a 0b 0c", "00:1c-73:0a:0b:0c", "00-1c-73-0a-0b:0c",
       "00:1c:73:0a:0b.0c", "00:1c:73:0a:0b:0c:", "00:1c:73:0a:0b:0c ", " 00:1c:73:0a:0b:0c",
       "00:1c:73:0a:0b:0c\0"sv, "00:1c:73\0:0a:0b:0c"sv, "00:1c:73:0a:0b:1cd", "100:1c:73:0a:0b:0c",
       "00:1c:73:0a:0b:100", "00:1c:73:0a:0b:", "00:1c:73:0a:0b", "00::73:0a:0b:0c", ":00:1c:73:0a:0b:0c",
       "00:1c:73:0a:0b:0g", "g0:1c:73:0a:0b:0c", "00:1c:73:0a:0b:0c:0d", "/0:1c:73:0a:0b:0c",
       "0@:1c:73:0a:0b:0c", "0`:1c:73:0a:0b:0c", "00:1c:73:0a:0b:\xb0\x63", "00_1c_73_0a_0b_0c",
       "00:1c:73;0a:0b:0c", "10000.1.1", "001c.730a", "001c.730a.", "001c.730a.0b0c.", "001c.730a.1b0c0",
       "001c-730a-0b0c", "001c:730a:0b0c",
       // Numbers that would fit if they wrapped at 32 or 64 bits.
       "10000000a:00:00:00:00:01", "1000000000000000a:00:00:00:00:01",
       "1000000000000000000000000000000a:00:00:00:00:01", "10000000000000001.2.3"});
}

std::optional<EthAddr> readByTheCLibrary(const std::string& text) {
  ether_addr octets;
  if (!ether_aton_r(text.c_str(), &octets)) return std::nullopt;
  EthAddr address;
  address.copyFromBuffer(octets.ether_addr_octet);
  return address;
}

TEST(EthAddr, AgreesWithTheCLibrary) {
  table::expectDiffers<EthAddr>(readByTheCLibrary, {{"1-2-3-4-5-6", "1:2:3:4:5:6", ""},
                                                    {"102.304.506", "1:2:3:4:5:6", ""},
                                                    {"001:2:3:4:5:6", "1:2:3:4:5:6", ""},
                                                    {"1:2:3:4:5:0f6", "1:2:3:4:5:f6", "1:2:3:4:5:f"},
                                                    {"1:2:3:4:5:1f6", "", "1:2:3:4:5:1f"},
                                                    {"1:2:3:4:5:06:7", "", "1:2:3:4:5:6"},
                                                    {"1:2:3:4:5:6 ", "", "1:2:3:4:5:6"},
                                                    {"1:2:3:4:5:06x", "", "1:2:3:4:5:6"},
                                                    {"1:2:3:4:5:6\0"sv, "", "1:2:3:4:5:6"}});
  // Colons, and at most six groups of at most two digits: both read the same, or neither reads any.
  std::mt19937 random(20261121);
  const auto below = [&](unsigned bound) { return static_cast<unsigned>(random() % bound); };
  unsigned read = 0;
  for (int round = 0; round < 50'000; ++round) {
    std::string text;
    for (unsigned left = below(8) ? 6 : below(6); left > 0; --left) {
      for (unsigned digits = below(40) ? 1 + below(2) : 0; digits > 0; --digits) {
        text += below(100) ? "0123456789abcdefABCDEF"[below(22)] : "g/@G`:\x7f"[below(7)];
      }
      if (left > 1) text += ':';
    }
    if (std::count(text.begin(), text.end(), ':') > 5) continue;
    const auto ours = EthAddr::fromText(text);
    ASSERT_EQ(ours, readByTheCLibrary(text)) << text;
    if (!ours) continue;
    ++read;
    ether_addr octets;
    char printed[18];
    ours->copyToBuffer(octets.ether_addr_octet);
    ASSERT_EQ(EthAddr::fromText(ether_ntoa_r(&octets, printed)), ours);
    ASSERT_EQ(readByTheCLibrary(std::string(ours->stringValue())), ours);
  }
  EXPECT_GT(read, 20'000u);
}

TEST(EthAddr, ClassifiesAddresses) {
  // Broadcast, unicast, multicast, IPv6 multicast, IPv4 link-local multicast, link-constrained.
  const std::pair<const char*, const char*> rows[] = {
      {"ff:ff:ff:ff:ff:ff", "B....."}, {"ff:ff:ff:ff:ff:fe", "..M..."}, {"fe:ff:ff:ff:ff:ff", ".U...."},
      {"00:00:00:00:00:00", ".U...."}, {"01:00:5e:00:00:01", "..M.4."}, {"01:00:5e:00:00:ff", "..M.4."},
      {"01:00:5e:00:01:00", "..M..."}, {"01:00:5f:00:00:00", "..M..."}, {"00:00:5e:00:00:01", ".U...."},
      {"01:80:c2:00:00:00", "..M..L"}, {"01:80:c2:00:00:0f", "..M..L"}, {"01:80:c2:00:00:10", "..M..."},
      {"01:80:c1:ff:ff:ff", "..M..."}, {"01:00:0c:cc:cc:cd", "..M..L"}, {"01:00:0c:cc:cc:cc", "..M..."},
      {"33:33:00:00:00:01", "..M6.."}, {"33:34:00:00:00:01", "..M..."}, {"33:33:ff:ff:ff:ff", "..M6.."}};
  for (const auto& row : rows) {
    const EthAddr a(row.first);
    // clang-format off
    const bool holds[] = {a.isBroadcast(), a.isUnicast(), a.isMulticast(), a.isIp6Multicast(),
                          a.isIp4LinkLocalMulticast(), a.isIEEELinkConstrained()};
    // clang-format on
    std::string seen;
    for (int i = 0; i < 6; ++i) seen += holds[i] ? "BUM64L"[i] : '.';
    EXPECT_EQ(seen, row.second) << row.first;
  }
}

TEST(EthAddr, GivesItsPartsByIndex) {
  EthAddr a(0x00, 0x1c, 0x73, 0x0a, 0x0b, 0x0c);
  EXPECT_EQ(a.word(0), 0x001c);
  EXPECT_EQ(a.word(2), 0x0b0c);
  EXPECT_EQ(a.byte(5), 0x0c);
  EXPECT_EQ(a.oui(), 0x001c73u);
  EXPECT_EQ(a.station(), 0x0a0b0cu);
  EXPECT_EQ(a.displayString(), "001c.730a.0b0c");
  EXPECT_EQ(a.eui64().stringValue(), "00:1c:73:ff:ff:0a:0b:0c");
  EXPECT_EQ(table::logged(a), (Kiv::Bytes{0x00, 0x1c, 0x73, 0x0a, 0x0b, 0x0c}));
  EXPECT_EQ(table::streamed(a), "00:1c:73:0a:0b:0c");
  unsigned char wire[8] = {9, 9, 9, 9, 9, 9, 9, 9};
  a.copyToBuffer(wire + 1);
  EXPECT_EQ(std::memcmp(wire, "\x09\x00\x1c\x73\x0a\x0b\x0c\x09", 8), 0);

  a.byteIs(5, 0xff);
  EXPECT_EQ(a, mac("00:1c:73:0a:0b:ff"));
  a.byteIs(2, 0xaa);
  a.wordIs(0, 0xbbcc);
  EXPECT_EQ(a, mac("bb:cc:aa:0a:0b:ff"));

  const EthAddr before = a;
  EXPECT_EQ(messageOf<RangeException>([&] { (void)a.word(3); }), "EthAddr::word: index out of range");
  EXPECT_EQ(messageOf<RangeException>([&] { a.wordIs(3, 1); }), "EthAddr::wordIs: index out of range");
  EXPECT_EQ(messageOf<RangeException>([&] { (void)a.byte(6); }), "EthAddr::byte: index out of range");
  EXPECT_EQ(messageOf<RangeException>([&] { a.byteIs(~0u, 1); }), "EthAddr::byteIs: index out of range");
  EXPECT_EQ(messageOf<Kiv::NondeletableAttrException>([&] { a.wordDel(0); }), "EthAddr::word");
  EXPECT_EQ(messageOf<Kiv::NondeletableAttrException>([&] { a.byteDel(9); }), "EthAddr::byte");
  EXPECT_EQ(a, before);
}

TEST(EthAddr, OrdersByOctetsOnTheWire) {
  table::expectOrdered<EthAddr>({mac("0:0:0:0:0:0"), mac("0:0:0:0:0:1"), mac("0:0:0:0:1:0"),
                                 mac("0:0:0:ff:0:0"), mac("0:0:1:0:0:0"), mac("0:1:0:0:0:2"),
                                 mac("7f:0:0:0:0:0"), mac("80:0:0:0:0:0"), mac("ff:ff:ff:ff:ff:fe"),
                                 mac("ff:ff:ff:ff:ff:ff")});
  EXPECT_EQ(mac("1:2:3:4:5:6").hash(), Kiv::hashMix((0x0102u ^ 0x0304u) << 16 | 0x0506u));
  EXPECT_EQ(mac("1:2:3:4:5:6").hash(9), Kiv::SeededHash(9).add(0x0201).add(0x0403).add(0x0605).value());
}

TEST(EthAddrWithMask, PrintsAndReadsItsRepresentation) {
  const std::string text =
      "Value('Wirl::EthAddrWithMask', ** {'mac': 00:1c:73:00:00:00, 'mask': ff:ff:ff:00:00:00})";
  table::expectReads<EthAddrWithMask>(
      {text, "Value('Wirl::EthAddrWithMask', ** {'mac': 1c.7300.0, 'mask': ff-ff-ff-0-0-0}) -> " + text});
  EXPECT_EQ(table::streamed(EthAddrWithMask(text)), text);
  table::expectRefused<EthAddrWithMask>(
      EthAddrWithMask(), "Invalid EthAddrWithMask",
      {"", text + " ", text.substr(0, text.size() - 1),
       "Value('Wirl::EthAddrWithMask', ** {'mask': 0:0:0:0:0:0, 'mac': 0:0:0:0:0:0})"});
  table::expectRefused<EthAddrWithMask>(
      EthAddrWithMask(), "Invalid EthAddr",
      {"Value('Wirl::EthAddrWithMask', ** {'mac': 0:1, 'mask': 0:0:0:0:0:0})"});
  EXPECT_EQ(EthAddrWithMask().mask(), mac("ff:ff:ff:ff:ff:ff"));
  table::expectOrdered<EthAddrWithMask>({{mac("0:0:0:0:0:1"), mac("0:0:0:0:0:0")},
                                         {mac("0:0:0:0:0:1"), mac("ff:0:0:0:0:0")},
                                         {mac("0:0:0:0:0:2"), mac("0:0:0:0:0:0")}});
  const EthAddrWithMask value(mac("1:2:3:4:5:6"), mac("7:8:9:a:b:c"));
  EXPECT_EQ(value.hash(3), Kiv::SeededHash(3).add(value.mac().hash()).add(value.mask().hash()).value());
}

TEST(EtherUtil, MapsIpv4Groups) {
  EXPECT_EQ(ipMcastMacAddr(IpAddr(239, 129, 1, 2)), mac("01:00:5e:01:01:02"));
  EXPECT_EQ(ipMcastMacAddr(IpAddr(224, 127, 255, 254)), mac("01:00:5e:7f:ff:fe"));
  EXPECT_TRUE(isIpMcastMacAddr(mac("01:00:5e:7f:ff:ff")));
  for (const char* other :
       {"01:00:5e:80:00:00", "01:00:5f:00:00:00", "00:00:5e:00:00:00", "01:01:5e:00:00:00"}) {
    EXPECT_FALSE(isIpMcastMacAddr(mac(other))) << other;
  }
}

TEST(Eui64, ReadsEveryTextForm) {
  table::expectReads<Eui64>({"00:11:22:33:44:55:66:77", "0-1-2-3-4-5-6-Aa -> 00:01:02:03:04:05:06:aa",
                             "0011.2233.4455.6677 -> 00:11:22:33:44:55:66:77",
                             "000000000001:0:0:0:0:0:0:0 -> 01:00:00:00:00:00:00:00"});
  const Eui64 before({1, 2, 3, 4, 5, 6, 7, 8});
  table::expectRefused(
      before, "Invalid EthAddr",
      {"00:11:22:33:44:55:66", "0011.2233.4455", "00:11:22:33:44:55:66:177", "0011223344556677", ""});
  table::expectRefused(before, "Invalid Eui64", {"00:11:22:33:44:55:66:77:88", "0011.2233.4455.6677."});
  table::expectOrdered<Eui64>(
      {Eui64(), Eui64("0.0.0.1"), Eui64("0.0.1.0"), Eui64("100.0.0.0"), Eui64("ff00.0.0.0")});
}

TEST(Eui64, GivesItsPartsByIndex) {
  Eui64 e("0011.2233.4455.6677");
  EXPECT_EQ(e.byte(7), 0x77);
  EXPECT_EQ(e.word(3), 0x6677);
  e.byteIs(Eui64U8Key("1"), 0xff);
  e.wordIs(1, 0xabcd);
  e.byteDel(7);
  EXPECT_EQ(table::streamed(e), "00:ff:ab:cd:44:55:66:00");
  EXPECT_EQ(messageOf<RangeException>([&] { (void)e.word(4); }), "Eui64::word: index out of range");
  EXPECT_EQ(messageOf<RangeException>([&] { e.wordIs(4, 0); }), "Eui64::wordIs: index out of range");
  EXPECT_EQ(messageOf<Kiv::NondeletableAttrException>([&] { e.wordDel(0); }), "Eui64::word");
  e.byteDelAll();
  EXPECT_EQ(e, Eui64());
  EXPECT_DEATH((void)e.byte(8), "index <= Eui64U8Key::max");
  EXPECT_DEATH(e.byteIs(256, 1), "index <= Eui64U8Key::max");
}

TEST(Eui64U8Key, IsBoundedWhenItComesFromText) {
  table::expectReads<Eui64U8Key>({"0", "007 -> 7"});
  const char* range = "Eui64U8Key::value < 0 or > 7 not allowed";
  table::expectRefused<Eui64U8Key>(3, range, {"8", "18446744073709551616"});
  table::expectRefused<Eui64U8Key>(3, "Invalid Eui64U8Key", {"", "-1", "7x"});
  Kiv::NboAttrLog log(Kiv::Bytes{8});
  Eui64U8Key key = 3;
  EXPECT_EQ(messageOf<RangeException>([&] { log >> key; }), range);
  EXPECT_EQ(key.value(), 3);
  EXPECT_EQ(table::logged(key), Kiv::Bytes{3});
}

/// The grammar as it is written down, character by character: octets and the characters read.
std::optional<std::pair<Kiv::Bytes, std::size_t>> readSlowly(const std::string& text, std::size_t octets) {
  Kiv::Bytes out;
  std::size_t at = 0;
  char separator = 0;
  while (true) {
    const std::size_t length =
        std::min(text.find_first_not_of("0123456789abcdefABCDEF", at), text.size()) - at;
    if (length == 0) return std::nullopt;
    const std::string digits = text.substr(at, length);
    const std::size_t zeros = std::min(digits.find_first_not_of('0'), length - 1);
    at += length;
    if (!separator) {
      if (at == text.size() || std::string_view(":-.").find(text[at]) == text.npos) return std::nullopt;
      separator = text[at];
    }
    if (length - zeros > (separator == '.' ? 4 : 2)) return std::nullopt;
    const unsigned long group = std::stoul(digits.substr(zeros), nullptr, 16);
    if (separator == '.') out.push_back(static_cast<Kiv::U8>(group >> 8));
    out.push_back(static_cast<Kiv::U8>(group));
    if (out.size() == octets) return std::pair(out, at);
    if (at == text.size() || text[at] != separator) return std::nullopt;
    ++at;
  }
}

void expectAgrees(const std::string& text, std::size_t octets, detail::Taken taken) {
  const auto slow = readSlowly(text, octets);
  ASSERT_EQ(taken.length, slow ? slow->second : 0) << text;
  for (std::size_t i = 0; slow && i < octets; ++i) {
    ASSERT_EQ(taken.octets >> 8 * i & 0xff, slow->first[i]) << text;
  }
}

TEST(HexGroups, EveryWayOfReadingAgreesWithTheSlowOne) {
  std::mt19937 random(20240607);
  const auto below = [&](unsigned bound) { return static_cast<unsigned>(random() % bound); };
  for (int round = 0; round < 200'000; ++round) {
    // Mostly an address in one of the forms, and then a few changes.
    const char separator = ":-."[below(3)];
    const unsigned groups = (below(4) ? 6u : 8u) / (separator == '.' ? 2 : 1);
    const unsigned width = separator == '.' ? 4 : 2;
    const bool full = below(2) == 0;
    std::string text;
    for (unsigned i = 0; i < groups; ++i) {
      if (i) text += separator;
      const unsigned length = !full ? 1 + below(width) : below(6) ? width : below(width + 2);
      for (unsigned k = 0; k < length; ++k) text += "0123456789abcdefABCDEF"[below(22)];
    }
    if (below(4) == 0) text += "0: g.-\xff"[below(7)];
    for (unsigned changes = below(8) < 5 ? 0 : below(3); changes > 0 && !text.empty(); --changes) {
      const unsigned at = below(static_cast<unsigned>(text.size()));
      if (below(2)) {
        text[at] = "0:-. g/@G`\x7f\0fF9"[below(15)];
      } else {
        text.insert(at, below(5) ? 1 : 9, "0f:.-"[below(5)]);
      }
    }
    // Where an octet read outside of the text would be seen by AddressSanitizer.
    const std::vector<char> exact(text.begin(), text.end());
    const std::string_view view(exact.data(), exact.size());
    expectAgrees(text, 6, detail::takeHexGroupsLoop(view, 6));
    expectAgrees(text, 8, detail::takeHexGroupsLoop(view, 8));
    const auto whole = detail::takeHexGroupsPlainly(view);
    const auto quick = detail::takeEthAddr(view);
    ASSERT_EQ(quick.length, whole.length) << text;
    if (whole.length != 0) {
      ASSERT_EQ(quick.octets, whole.octets) << text;
    }
    if (HasFatalFailure()) return;
  }
}

}  // namespace
