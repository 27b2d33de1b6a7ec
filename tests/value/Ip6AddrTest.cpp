// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6Addr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Wirl/value/IpAddr.h"
#include "Wirl/value/detail/Ip6Text.h"
#include "tests/value/Ip6Reference.h"
#include "tests/value/TextTable.h"

namespace {

using namespace Wirl;
using Kiv::U16;
using Kiv::U64;
using Kiv::U8;
using namespace std::string_view_literals;

TEST(Ip6Addr, ReadsEveryFormAndPrintsTheCanonicalOne) {
  table::expectReads<Ip6Addr>(
      {"::", "::1", "1::", "1:2:3:4:5:6:7:: -> 1:2:3:4:5:6:7:0", "::2:3:4:5:6:7:8 -> 0:2:3:4:5:6:7:8",
       // RFC 4291, 2.2.
       "ABCD:EF01:2345:6789:ABCD:EF01:2345:6789 -> abcd:ef01:2345:6789:abcd:ef01:2345:6789",
       "2001:DB8:0:0:8:800:200C:417A -> 2001:db8::8:800:200c:417a",
       "2001:DB8::8:800:200C:417A -> 2001:db8::8:800:200c:417a", "FF01:0:0:0:0:0:0:101 -> ff01::101",
       "0:0:0:0:0:0:0:1 -> ::1", "0:0:0:0:0:0:0:0 -> ::", "0:0:0:0:0:0:13.1.68.3 -> ::d01:4403",
       "::13.1.68.3 -> ::d01:4403", "0:0:0:0:0:FFFF:129.144.52.38 -> ::ffff:129.144.52.38",
       "::FFFF:129.144.52.38 -> ::ffff:129.144.52.38",
       // RFC 5952, 2 and 4.
       "2001:db8:0:0:1:0:0:1 -> 2001:db8::1:0:0:1", "2001:0db8:0:0:1:0:0:1 -> 2001:db8::1:0:0:1",
       "2001:db8::0:1:0:0:1 -> 2001:db8::1:0:0:1", "2001:DB8:0000:0:1::1 -> 2001:db8::1:0:0:1",
       "2001:db8:aaaa:bbbb:cccc:dddd:eeee:0001 -> 2001:db8:aaaa:bbbb:cccc:dddd:eeee:1",
       "2001:db8:aaaa:bbbb:cccc:dddd::1 -> 2001:db8:aaaa:bbbb:cccc:dddd:0:1", "2001:db8:0:1:1:1:1:1",
       "2001:0:0:1:0:0:0:1 -> 2001:0:0:1::1", "2001:db8:0:0:aaaa::1 -> 2001:db8::aaaa:0:0:1",
       // The run of zeros that is left out.
       "1:0:0:1:0:0:0:1 -> 1:0:0:1::1", "1:0:0:1:0:0:1:1 -> 1::1:0:0:1:1", "1:0:1:1:1:1:1:1",
       "0:0:1:0:0:0:0:0 -> 0:0:1::", "1:0:0:0:0:0:0:0 -> 1::", "0:1:0:1:0:1:0:1",
       // The last two groups in dotted decimal.
       "::ffff:10.1.2.3", "::ffff:0:0 -> ::ffff:0.0.0.0", "1:2:3:4:5:6:10.1.2.3 -> 1:2:3:4:5:6:a01:203",
       "1:2:3:4:5::10.1.2.3 -> 1:2:3:4:5:0:a01:203", "::ffff:010.001.0000002.3 -> ::ffff:10.1.2.3",
       "0000:0000:0000:0000:0000:ffff:255.255.255.255 -> ::ffff:255.255.255.255",
       "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255 -> ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
       // A gap of no groups at all is one.
       "1:2:3::4:5:6:7:8 -> 1:2:3:4:5:6:7:8", "1::2:3:4:5:6:7.8.9.10 -> 1:2:3:4:5:6:708:90a"},
      true);
}

TEST(Ip6Addr, RefusesWithTheFirstFault) {
  table::expectRefused(
      ip6AddrMld, "Ip6Addr: too many colons",
      {"1:2:3:4:5:6:7:8:9", "1:2:3:4:5:6:7:8::", "::1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8:", ":1:2:3:4:5:6:7:8",
       "1:2:3:4:5:6:7:1.2.3.4", "12345::2:3::4:5:6:7:8:9", ":::::::::::::::::::::"});
  table::expectRefused(
      ip6AddrMld, "Ip6Addr: too many consecutive hex digits",
      {"12345::2:3::4:x:5:6:7:8:9", "12345::", "::00001", "1:2:3:4:5:6:7:88888",
       "123456789012345678901234567890", "0123456789abcdef0123456789abcdef0123456789abcdef:"});
  table::expectRefused(ip6AddrMld, "Ip6Addr: leading hex digit expected", {":1::", ":", ":1.2.3.4"});
  table::expectRefused(
      ip6AddrMld, "Ip6Addr: hex digit expected",
      {"", "x", "/64", ".", ":::", "1:", "1:2:3:4:5:6:7:", "::1:", "1:::2", "::.1", "\0"sv, " ::1"});
  table::expectRefused(
      ip6AddrMld, "Ip6Addr: unexpected trailing characters",
      {"fe80::\0001"sv, "fe80::1/64", "fe80::1%eth0", "::1 ", "::1g", "::1\0"sv,
       "0000:0000:0000:0000:0000:ffff:255.255.255.2555", "::1.2.3.00000000000000000000000000000000000004"});
  table::expectRefused(ip6AddrMld, "Ip6Addr: ':' expected", {"1.2::", "::1.2.3", "::1.2.3.4.5", "1.2.3.4::"});
  table::expectRefused(ip6AddrMld, "Ip6Addr: only one '::' allowed", {"1::2::3", "::1::", "::::"});
  table::expectRefused(ip6AddrMld, "Ip6Addr: incomplete ipv6 address",
                       {"1:2:3", "1", "1:2:3:4:5:6:7", "1.2.3.4", "1:2:1.2.3.4", "fe80"});
  table::expectRefused(ip6AddrMld, "Invalid IpAddr",
                       {"::ffff:256.1.2.3", "::ffff:1.2.3.4294967296", "::ffff:1.2.3.18446744073709551617",
                        "::a.b.c.d", "::1.2.3.", "::...", "::1.2.3.4a", "1:2:300.1.2.3"});
}

/// What is done sixteen characters at a time gives what the loops give that other machines run.
void expectLoopsAgree([[maybe_unused]] const std::string& text, [[maybe_unused]] const Ip6Addr& address) {
#if WIRL_HAS_SSSE3
  if (!detail::hasSsse3()) return;
  const detail::Ip6Hex hex = detail::ip6HexLoop(address.octets());
  const detail::Ip6Hex fastHex = detail::ip6HexSsse3(address.octets());
  EXPECT_EQ(fastHex.digits, hex.digits);
  EXPECT_EQ(fastHex.significant, hex.significant);
  EXPECT_EQ(fastHex.zeros, hex.zeros);
  if (text.size() < 4) return;
  const detail::Ip6Outline outline = detail::ip6OutlineLoop(text);
  const detail::Ip6Outline fast = detail::ip6OutlineSsse3(text.data(), text.size());
  EXPECT_EQ(fast.length, outline.length);
  EXPECT_EQ(fast.colons, outline.colons);
  EXPECT_EQ(fast.dots, outline.dots);
#endif
}

std::optional<Ip6Addr> readByTheCLibrary(const std::string& text) {
  in6_addr octets;
  if (inet_pton(AF_INET6, text.c_str(), &octets) != 1) return std::nullopt;
  Ip6Addr address;
  address.copyFromBuffer(octets.s6_addr);
  return address;
}

TEST(Ip6Addr, DiffersFromTheCLibraryInEmptyGapsLeadingZerosAndBehindANul) {
  table::expectDiffers<Ip6Addr>(readByTheCLibrary, {{"1:2:3::4:5:6:7:8", "1:2:3:4:5:6:7:8", ""},
                                                    {"1::2:3:4:5:6:7.8.9.10", "1:2:3:4:5:6:708:90a", ""},
                                                    {"::ffff:010.1.2.3", "::ffff:10.1.2.3", ""},
                                                    {"::1.2.3.00", "::102:300", ""},
                                                    {"::1\0"sv, "", "::1"},
                                                    {"::1\0:2"sv, "", "::1"}});
}

TEST(Ip6Addr, AgreesWithTheSlowReaderAndTheCLibrary) {
  const std::string pieces[] = {":",     ":",    ":",   ":",   ":",       ":",
                                ":",     "::",   "::",  "0",   "1",       "db8",
                                "FFFF",  "fe80", "00a", "255", "1.2.3.4", "0.01.2.255",
                                "12345", ".",    "g",   "/",   "%1",      std::string(1, '\0')};
  std::mt19937 engine(20);
  const auto random = [&](std::size_t below) { return static_cast<unsigned>(engine() % below); };
  unsigned accepted = 0;
  for (unsigned round = 0; round < 400'000; ++round) {
    std::string text;
    // Mostly by the rules: digits and colons in turn; else anything.
    const bool orderly = random(4) != 0;
    for (unsigned left = 1 + random(17); left > 0; --left) {
      text += pieces[!orderly ? random(std::size(pieces)) : left % 2 != 0 ? 9 + random(9) : random(9)];
    }
    SCOPED_TRACE(text);
    std::vector<U16> groups;
    std::size_t position = 0;
    const std::string error = ip6reference::read(text, groups, position);
    std::string_view rest = text;
    Ip6Addr address = ip6AddrMld;
    const Kiv::ParseError ours = Ip6Addr::parse(rest, address);
    ASSERT_EQ(ours ? ours : "", error);
    ASSERT_EQ(text.size() - rest.size(), position);
    for (unsigned i = 0; !ours && i < 8; ++i) ASSERT_EQ(address.u16(i), groups[i]) << i;
    ASSERT_EQ(Ip6Addr::fromText(text).has_value(), !ours && rest.empty());
    accepted += !ours;
    expectLoopsAgree(text, address);

    if (text.find('\0') != std::string::npos) continue;
    if (const auto theirs = readByTheCLibrary(text)) {
      ASSERT_TRUE(!ours && rest.empty());
      ASSERT_EQ(address, theirs);
    } else if (!ours && rest.empty()) {
      ASSERT_TRUE(ip6reference::isDifferenceToInetPton(text));
    }
  }
  EXPECT_GT(accepted, 20'000u);
}

TEST(Ip6Addr, PrintsAsTheCLibraryDoes) {
  std::mt19937_64 random(21);
  for (unsigned round = 0; round < 200'000; ++round) {
    Ip6Addr address;
    for (unsigned i = 0; i < 8; ++i) {
      if (random() % 2 != 0) address.u16Is(i, static_cast<U16>((random() & 0xffff) >> random() % 16));
    }
    if (round % 8 == 0) address = Ip6Addr(0, 0xffff'0000'0000 | (random() >> 32));
    char theirs[INET6_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET6, address.octets().data(), theirs, sizeof(theirs)), nullptr);
    const Kiv::String ours = address.stringValue();
    EXPECT_EQ(Ip6Addr::fromText(ours), address);
    expectLoopsAgree(ours, address);
    // Theirs has IPv4-compatible addresses in dotted decimal as well.
    const bool compatible = address.u64(0) == 0 && address.u64(1) >> 32 == 0 && address.u64(1) >> 16 != 0;
    EXPECT_EQ(ours == theirs, !compatible) << ours << " " << theirs;
  }
}

TEST(Ip6Addr, ParserMovesThePositionOverOneAddressOnly) {
  const Kiv::String text = "2001:db8::1/64";
  Kiv::String::IteratorConst pos = text.begin();
  Ip6Addr address;
  Ip6AddrFromString(address, pos, text.end());
  EXPECT_EQ(address, Ip6Addr("2001:db8::1"));
  EXPECT_EQ(pos, text.begin() + 11);
  EXPECT_EQ(table::messageOf<Kiv::RangeException>([&] { Ip6AddrFromString(address, pos, text.end()); }),
            "Ip6Addr: hex digit expected");
  EXPECT_EQ(address, Ip6Addr("2001:db8::1"));
  EXPECT_EQ(pos, text.begin() + 11);
}

TEST(Ip6Addr, ExpandedFormIsLenientButForTheShortestText) {
  EXPECT_EQ(Ip6Addr("2001:db8::10.1.2.3").stringValueExpanded(), "2001:0db8:0000:0000:0000:0000:0a01:0203");
  Ip6Addr address = ip6AddrLoopback;
  for (const char* zero : {"0:0:0:0:0:0:0:0", "0000:0000:0000:0000:0000:0000:0000:0000"}) {
    address = ip6AddrLoopback;
    address.stringValueExpandedIs(zero);
    EXPECT_EQ(address, ip6AddrZero);
  }
  address.stringValueExpandedIs("1::2");
  const std::pair<const char*, const char*> failures[] = {
      {"::", "Ip6Addr: address is not expanded"},
      {"::1 ", "Ip6Addr: unexpected trailing characters"},
      {"1:2", "Ip6Addr: incomplete ipv6 address"},
  };
  for (const auto& row : failures) {
    EXPECT_EQ(table::messageOf<Kiv::RangeException>([&] { address.stringValueExpandedIs(row.first); }),
              row.second);
    EXPECT_EQ(address, Ip6Addr("1::2"));
  }
}

TEST(Ip6Addr, ViewsAreOfOneStorage) {
  Ip6Addr a;
  a.u64Is(0, 0x0102'0304'0506'0708);
  a.u16Is(7, 0xabcd);
  a.u8Is(15, 0xef);
  EXPECT_EQ(a, Ip6Addr("102:304:506:708::abef"));
  EXPECT_EQ(a.u8(7), 8);
  EXPECT_EQ(a.u8(Ip6AddrU8Key(14)), 0xab);
  EXPECT_EQ(a.u16(3), 0x0708);
  EXPECT_EQ(a.u64(1), 0xabefu);
  U8 octets[17] = {};
  a.copyToBuffer(octets);
  EXPECT_EQ(octets[0], 1);
  EXPECT_EQ(octets[15], 0xef);
  Ip6Addr back;
  back.copyFromBuffer(octets);
  EXPECT_EQ(back, a);
  EXPECT_EQ(table::logged(a), Kiv::Bytes(octets, octets + 16));

  constexpr U64 kWraps = U64{1} << 32;  // 0 in 32 bits
  const std::pair<std::string, std::function<void()>> failures[] = {
      {"u8", [&] { (void)a.u8(16); }},
      {"u8", [&] { (void)a.u8(kWraps); }},
      {"u8", [&] { (void)a.u8(Ip6AddrU8Key(16)); }},
      {"u8", [&] { (void)a.u8(Ip6AddrU8Key(256)); }},
      {"u8Is", [&] { a.u8Is(~0u, 1); }},
      {"u8Is", [&] { a.u8Is(kWraps, 1); }},
      {"u8Is", [&] { a.u8Is(Ip6AddrU8Key(-256), 1); }},
      {"u16", [&] { (void)a.u16(8); }},
      {"u16", [&] { (void)a.u16(kWraps); }},
      {"u16Is", [&] { a.u16Is(8, 1); }},
      {"u16Is", [&] { a.u16Is(kWraps, 1); }},
      {"u64", [&] { (void)a.u64(2); }},
      {"u64", [&] { (void)a.u64(kWraps); }},
      {"u64Is", [&] { a.u64Is(2, 1); }},
      {"u64Is", [&] { a.u64Is(kWraps, 1); }},
  };
  for (const auto& [name, call] : failures) {
    EXPECT_EQ(table::messageOf<Kiv::RangeException>(call), "Ip6Addr::" + name + ": index out of range");
  }
  using Kiv::NondeletableAttrException;
  EXPECT_EQ(table::messageOf<NondeletableAttrException>([&] { a.u64Del(0); }), "Ip6Addr::u64");
  EXPECT_EQ(table::messageOf<NondeletableAttrException>([&] { a.u16Del(0); }), "Ip6Addr::u16");
  EXPECT_EQ(table::messageOf<NondeletableAttrException>([&] { a.u8Del(0); }), "Ip6Addr::u8");
  EXPECT_EQ(a, back);

  const auto before = Ip6AddrU8Key(3);
  table::expectRefused(before, "Ip6AddrU8Key::value < 0 or > 15 not allowed", {"16", "18446744073709551616"});
  table::expectRefused(before, "Invalid Ip6AddrU8Key", {"-1", "1 "});
  table::expectReads<Ip6AddrU8Key>({"0", "015 -> 15"});
  table::expectOrdered<Ip6AddrU8Key>({0, 1, 15});
}

TEST(Ip6Addr, Predicates) {
  const std::pair<const char*, bool (Ip6Addr::*)() const noexcept> predicates[] = {
      {"Zero", &Ip6Addr::isZero},
      {"Unspecified", &Ip6Addr::isUnspecified},
      {"Loopback", &Ip6Addr::isLoopback},
      {"LoopbackBase", &Ip6Addr::isLoopbackBase},
      {"Multicast", &Ip6Addr::isMulticast},
      {"Unicast", &Ip6Addr::isUnicast},
      {"LinkLocalUnicast", &Ip6Addr::isLinkLocalUnicast},
      {"LinkLocalUnicast2", &Ip6Addr::isLinkLocalUnicast2},
      {"LinkLocalMulticast", &Ip6Addr::isLinkLocalMulticast},
      {"LinkLocal", &Ip6Addr::isLinkLocal},
      {"GlobalUnicast", &Ip6Addr::isGlobalUnicast},
      {"RoutableMulticast", &Ip6Addr::isRoutableMulticast},
      {"PimRouters", &Ip6Addr::isPimRouters},
      {"SiteLocal", &Ip6Addr::isSiteLocal},
      {"UniqueLocal", &Ip6Addr::isUniqueLocal},
      {"V4MappedV6", &Ip6Addr::isV4MappedV6},
  };
  const std::pair<std::string, std::vector<std::string_view>> rows[] = {
      {"Zero Unspecified Unicast ", {"::"}},
      {"Loopback Unicast ", {"::1"}},
      {"Unicast GlobalUnicast ",
       {"::2", "1::", "fe7f:ffff::", "fbff::", "fe00::", "::fffe:0:0", "1::ffff:0:0"}},
      {"Unicast LinkLocalUnicast LinkLocalUnicast2 LinkLocal ", {"fe80::", "fe80::1:2:3:4"}},
      {"Unicast LinkLocalUnicast2 ", {"fe80:0:0:1::", "febf::1"}},
      {"Unicast GlobalUnicast SiteLocal ", {"fec0::", "feff::"}},
      {"Unicast GlobalUnicast UniqueLocal ", {"fc00::", "fdff::"}},
      {"Multicast ", {"ff00::", "ff03::d"}},
      {"Multicast LinkLocalMulticast LinkLocal ", {"ff02::1", "ff32::1"}},
      {"Multicast LinkLocalMulticast LinkLocal PimRouters ", {"ff02::d"}},
      {"Multicast RoutableMulticast ", {"ff04::", "ff05::1", "ff0a::"}},
      {"Unicast GlobalUnicast V4MappedV6 ", {"::ffff:0.0.0.0"}}};
  for (const auto& [expected, addresses] : rows) {
    for (const std::string_view text : addresses) {
      const Ip6Addr address(text);
      std::string holds;
      for (const auto& [name, predicate] : predicates) {
        if ((address.*predicate)()) holds += std::string(name) + " ";
      }
      EXPECT_EQ(holds, expected) << address;
    }
  }
}

TEST(Ip6Addr, Constants) {
  const std::pair<Ip6Addr, const char*> rows[] = {{ip6AddrZero, "::"},
                                                  {ip6AddrLoopback, "::1"},
                                                  {ip6AddrAllNodes, "ff02::1"},
                                                  {ip6AddrAllRouters, "ff02::2"},
                                                  {ip6AddrAllHosts, "ff02::3"},
                                                  {ip6AddrPimRouters, "ff02::d"},
                                                  {ip6AddrVrrp, "ff02::12"},
                                                  {ip6AddrMld, "ff02::16"},
                                                  {ip6AddrLinkLocalBase, "ff02::"},
                                                  {ip6AddrV4MappedLoopback, "::ffff:127.0.0.1"},
                                                  {ip6AddrV4MappedLoopbackBase, "::ffff:127.0.0.0"}};
  for (const auto& [address, text] : rows) EXPECT_EQ(address.stringValue(), text);
}

TEST(Ip6Addr, DerivedAddresses) {
  const Ip6Addr address("2001:db8::12:3456:789a");
  EXPECT_EQ(address.mcastEtherAddress(), EthAddr("33:33:34:56:78:9a"));
  EXPECT_EQ(address.solicitedNodeMulticastAddr(), Ip6Addr("ff02::1:ff56:789a"));
  EXPECT_EQ(Ip6Addr("febf:1:2:3:4:5:6:7").validLlUnicastAddress(), Ip6Addr("fe80::4:5:6:7"));
  EXPECT_EQ(Ip6Addr("fe80::1:2:3:4").validLlUnicastAddress(), Ip6Addr("fe80::1:2:3:4"));
  EXPECT_EQ(table::messageOf<Kiv::RangeException>([&] { address.validLlUnicastAddress(); }),
            "Not an address that belongs to subnet fe80::/10");
  EXPECT_EQ(ip6LinkLocalFromMac(EthAddr("00:1c:73:01:02:03")), Ip6Addr("fe80::21c:73ff:fe01:203"));
  EXPECT_EQ(ip6LinkLocalFromMac(EthAddr("02:00:00:00:00:00")), Ip6Addr("fe80::ff:fe00:0"));
}

TEST(Ip6Addr, MasksAndCommonPrefixesOfEveryLength) {
  const Ip6Addr ones = ~Ip6Addr();
  for (unsigned len = 0; len <= 128; ++len) {
    Ip6Addr mask;
    for (unsigned i = 0; i < len; ++i) mask.u8Is(i / 8, static_cast<U8>(mask.u8(i / 8) | 0x80 >> i % 8));
    EXPECT_EQ(Ip6Addr::maskOfLength(len), mask);
    EXPECT_EQ(ones.ip6AddrMaskedByLength(len), mask);
    EXPECT_EQ(ones.longestCommonPrefix(mask), len);
    EXPECT_EQ(Ip6Addr().longestCommonPrefix(~mask), len);
  }
  EXPECT_DEATH(ones.ip6AddrMaskedByLength(129), "assertion failed: len <= 128");
}

TEST(Ip6Addr, OrderHashAndLog) {
  std::vector<Ip6Addr> ascending;
  for (const char* text : {"::", "::1", "::100", "::1:0:0", "::8000:0:0:0", "0:0:0:1::", "1::", "7fff::",
                           "8000::", "ff00::", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}) {
    ascending.emplace_back(std::string_view(text));
  }
  table::expectOrdered(ascending);
  Kiv::U32 h = 0;
  for (const Kiv::U32 word : {0x20010db8u, 0u, 0xffu, 0x1234u}) h = Kiv::hashMix(word ^ h);
  EXPECT_EQ(Ip6Addr("2001:db8::ff:0:1234").hash(), h);
}

}  // namespace
