// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpAddr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>

#include "Wirl/value/IpAddrWithMask.h"
#include "Wirl/value/IpAndPort.h"
#include "Wirl/value/Prefix.h"
#include "Wirl/value/detail/DottedText.h"
#include "tests/value/TextTable.h"

namespace {

using namespace Wirl;
using Kiv::RangeException;
using table::messageOf;
using namespace std::string_view_literals;

IpAddr ip(std::string_view text) {
  return IpAddr(text);
}

TEST(IpAddr, ReadsDottedDecimal) {
  table::expectReads<IpAddr>({"0.0.0.0", "10.0.0.1", "255.255.255.255", "9.10.99.100",
                              "010.001.000.001 -> 10.1.0.1", "0000255.0.0.08 -> 255.0.0.8",
                              "1.2.3.000000000000000000000000000000000004 -> 1.2.3.4",
                              "00000000000000000000000000000000000000.2.3.4 -> 0.2.3.4"});
}

TEST(IpAddr, RefusesEveryOtherText) {
  table::expectRefused<IpAddr>(
      ip("9.8.7.6"), "Invalid IpAddr",
      {"", "1", "1.", "10.1", "10.0.0", "10.0.0.", "1.2.3.4.", "1.2.3.4.5", "1..2.3", ".1.2.3", "1.2..3.4",
       "256.0.0.1", "1.2.3.256", "1.300.3.4", "1.2.999.4", "1.2.3.1000", "0256.1.1.1", " 1.2.3.4", "1.2.3.4 ",
       "1.2.3.4\n", "1. 2.3.4", "1.2.3.4\0"sv, "1.2\0.3.4"sv, "\0"sv, "a.b.c.d", "0x1.2.3.4", "1.2.3.4a",
       "+1.2.3.4", "-1.2.3.4", "1,2,3,4", "1/2.3.4", "1.2.3:4", "\xb1.2.3.4", "1234567890", "1.2.3.\xff",
       "...", "1.2.3.4/24",
       // Octets that would fit if they wrapped at 8, 32 or 64 bits.
       "257.0.0.1", "4294967297.0.0.1", "18446744073709551617.0.0.1",
       "1.2.3.100000000000000000000000000001"});
}

/// The grammar as it is written down: octets and the characters read.
std::optional<std::pair<Kiv::U32, std::size_t>> readSlowly(const std::string& text) {
  Kiv::U32 octets = 0;
  std::size_t at = 0;
  for (unsigned i = 0; i < 4; ++i) {
    if (i > 0 && (at == text.size() || text[at++] != '.')) return std::nullopt;
    const std::size_t digits = std::min(text.find_first_not_of("0123456789", at), text.size()) - at;
    const std::size_t zeros = std::min(text.find_first_not_of('0', at), at + digits) - at;
    if (digits == 0 || digits - zeros > 3) return std::nullopt;
    const unsigned long octet = digits == zeros ? 0 : std::stoul(text.substr(at + zeros, digits - zeros));
    if (octet > 255) return std::nullopt;
    octets |= static_cast<Kiv::U32>(octet) << 8 * i;
    at += digits;
  }
  return std::pair(octets, at);
}

std::optional<IpAddr> readByTheCLibrary(const std::string& text) {
  in_addr address;
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return IpAddr::fromNetOrder(address.s_addr);
}

TEST(IpAddr, DiffersFromTheCLibraryInLeadingZerosAndBehindANul) {
  table::expectDiffers<IpAddr>(readByTheCLibrary, {{"01.2.3.4", "1.2.3.4", ""},
                                                   {"1.2.3.00", "1.2.3.0", ""},
                                                   {"1.2.0000000255.4", "1.2.255.4", ""},
                                                   {"1.2.3.4\0"sv, "", "1.2.3.4"},
                                                   {"1.2.3.4\0.5"sv, "", "1.2.3.4"}});
}

TEST(IpAddr, EveryWayOfReadingAgreesWithTheSlowOneAndWithTheCLibrary) {
  std::mt19937 random(20240607);
  const auto below = [&](unsigned bound) { return static_cast<unsigned>(random() % bound); };
  for (int round = 0; round < 300'000; ++round) {
    std::string text;
    for (int i = 0; i < 4; ++i) text += (i ? "." : "") + std::to_string(below(below(2) ? 256 : 20));
    if (below(3) == 0) text += "./:5 a\xff"[below(7)] + std::to_string(below(30));
    for (unsigned changes = below(2) ? 0 : below(3); changes > 0 && !text.empty(); --changes) {
      const unsigned at = below(static_cast<unsigned>(text.size()));
      if (below(2)) {
        text[at] = "0129./: a\xb2\0"[below(11)];
      } else if (below(2)) {
        text.insert(at, below(5) ? 1 : 5, "02."[below(3)]);
      } else {
        text.erase(at, 1 + below(3));
      }
    }
    const auto slow = readSlowly(text);
    const std::vector<char> exact(text.begin(), text.end());
    const std::string_view view(exact.data(), exact.size());
    for (const auto& taken :
         {detail::takeDotted(view, detail::Extent::front), detail::takeDottedLoop(view)}) {
      ASSERT_EQ(taken.length, slow ? slow->second : 0) << text;
      if (slow) {
        ASSERT_EQ(taken.octets, slow->first) << text;
      }
    }
    ASSERT_EQ(detail::takeDotted(view, detail::Extent::whole).length,
              slow && slow->second == text.size() ? text.size() : 0)
        << text;
    const auto ours = IpAddr::fromText(text);
    const auto theirs = readByTheCLibrary(text);
    if (theirs && text.find('\0') == text.npos) {
      ASSERT_EQ(ours, theirs) << text;
    } else if (ours) {
      ASSERT_NE(ours->stringValue(), text);
    }
  }
}

TEST(IpAddr, PrintsAsTheCLibraryDoes) {
  std::independent_bits_engine<std::mt19937, 32, Kiv::U32> random(7);
  for (int round = 0; round < 100'000; ++round) {
    const IpAddr address = IpAddr::fromHostOrder(random() & random());
    char theirs[INET_ADDRSTRLEN];
    const Kiv::U32 word = address.netOrder();
    ASSERT_EQ(address.stringValue(), inet_ntop(AF_INET, &word, theirs, sizeof(theirs)));
  }
}

TEST(IpAddr, ClassifiesAddresses) {
  // Zero and any, this network, multicast, reserved multicast, PIM routers, unicast, broadcast, loopback,
  // loopback base, link-local, private.
  const char kinds[] = "ZTMRPUBLbKp";
  const std::pair<const char*, std::vector<std::string_view>> rows[] = {
      {"ZTU", {"0.0.0.0"}},
      {"TU", {"0.0.0.1", "0.255.255.255"}},
      {"U", {"1.0.0.0", "240.0.0.1", "169.253.255.255", "169.255.0.0"}},
      {"MR", {"224.0.0.0", "224.0.0.255"}},
      {"MRP", {"224.0.0.13"}},
      {"M", {"224.0.1.0", "225.0.0.13"}},
      {"Mp", {"239.255.255.255"}},
      {"Up", {"223.255.255.255", "255.255.255.254", "126.255.255.255"}},
      {"Bp", {"255.255.255.255"}},
      {"ULbp", {"127.0.0.0"}},
      {"ULp", {"127.0.0.1", "127.255.255.255"}},
      {"UK", {"169.254.0.0", "169.254.255.255"}},
      // All bits of 10.0.0.0, 172.16.0.0 or 192.168.0.0 make an address private, whatever else is set.
      {"Up",
       {"10.1.2.3", "11.0.0.1", "42.0.0.1", "172.16.0.0", "172.20.0.1", "172.48.0.1", "192.168.1.1",
        "192.169.0.0", "193.168.0.0"}},
      {"U", {"9.255.255.255", "172.32.0.1", "172.15.0.1", "192.167.255.255", "8.8.8.8", "2.0.0.0"}}};
  for (const auto& [expected, addresses] : rows) {
    for (const std::string_view text : addresses) {
      const IpAddr a(text);
      const bool holds[] = {a.isZero(),         a.isThisNetwork(), a.isMulticast(), a.isReservedMulticast(),
                            a.isPimRouters(),   a.isUnicast(),     a.isBroadcast(), a.isLoopback(),
                            a.isLoopbackBase(), a.isLinkLocal(),   a.isPrivate()};
      std::string seen;
      for (std::size_t i = 0; i < std::size(holds); ++i) {
        if (holds[i]) seen += kinds[i];
      }
      EXPECT_EQ(seen, expected) << a;
      EXPECT_EQ(a.isAny(), a.isZero());
      EXPECT_EQ(a.isLinkLocalUnicast(), a.isLinkLocal());
    }
  }
}

/// Runs in a process of its own, where the toggle has not been read: exits with a bit for each expectation
/// that fails, after the file has been changed behind the first call's back.
[[noreturn]] void exitWithReserved(const char* content, bool expected) {
  std::string directory = (std::filesystem::temp_directory_path() / "valueTestXXXXXX").string();
  if (!mkdtemp(directory.data())) std::exit(99);
  const auto file = std::filesystem::path(directory) / "Wirl.json";
  setenv("OPTRA_DIR", directory.c_str(), 1);
  if (*content) std::ofstream(file) << content;
  int failures = 0;
  // The first call decides, and is one that needs no toggle to answer.
  failures |= IpAddr(10, 0, 0, 1).isReserved() ? 1 : 0;
  std::ofstream(file) << (expected ? "{\"Ipv4Routable240ClassE\": true}"
                                   : "{\"Ipv4Routable240ClassE\": false}");
  failures |= IpAddr(240, 0, 0, 0).isReserved() != expected ? 2 : 0;
  failures |= IpAddr(255, 255, 255, 254).isReserved() != expected ? 4 : 0;
  failures |= IpAddr(239, 255, 255, 255).isReserved() ? 8 : 0;
  failures |= IpAddr(255, 255, 255, 255).isReserved() ? 16 : 0;
  std::filesystem::remove_all(directory);
  std::exit(failures);
}

TEST(IpAddrDeathTest, ClassEIsReservedUnlessTheToggleIsOnWhenFirstAsked) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child is a new process, and reads the toggle itself
  const auto succeeded = testing::ExitedWithCode(0);
  EXPECT_EXIT(exitWithReserved("", true), succeeded, "");
  EXPECT_EXIT(exitWithReserved("{\"Ipv4Routable240ClassE\": 1}", true), succeeded, "");
  EXPECT_EXIT(exitWithReserved("{\"Ipv4Routable240ClassE\": false}", true), succeeded, "");
  EXPECT_EXIT(exitWithReserved("{\"Ipv4Routable240ClassE\": true}", false), succeeded, "");
}

TEST(IpAddr, ConvertsAndCompares) {
  const IpAddr a(10, 1, 2, 3);
  EXPECT_EQ(a.hostOrder(), 0x0a010203u);
  EXPECT_EQ(a.netOrder(), htonl(0x0a010203));
  EXPECT_EQ(IpAddr::fromNetOrder(a.netOrder()), a);
  EXPECT_EQ(IpAddr::fromHostOrder(a.hostOrder()), a);
  unsigned char wire[6] = {9, 9, 9, 9, 9, 9};
  a.copyToBuffer(wire + 1);
  EXPECT_EQ(std::memcmp(wire, "\x09\x0a\x01\x02\x03\x09", 6), 0);
  EXPECT_EQ(table::logged(a), (Kiv::Bytes{10, 1, 2, 3}));
  EXPECT_EQ(table::streamed(a), "10.1.2.3");
  EXPECT_EQ(a.mcastEtherAddress().stringValue(), "01:00:5e:01:02:03");
  EXPECT_EQ(a.hash(), Kiv::hashMix(0x0302010a));

  table::expectOrdered<IpAddr>({ip("0.0.0.0"), ip("0.0.0.1"), ip("0.0.1.0"), ip("0.1.0.2"), ip("1.0.0.0"),
                                ip("9.255.255.255"), ip("127.0.0.1"), ip("128.0.0.0"),
                                ip("255.255.255.255")});
  const IpAddr base(10, 0, 0, 0);
  for (unsigned len = 0; len < 32; ++len) {
    const IpAddr other = IpAddr::fromHostOrder(base.hostOrder() ^ (0x80000000u >> len));
    EXPECT_EQ(base.longestCommonPrefix(other), len);
    EXPECT_EQ(base.maskedByLength(len), other.maskedByLength(len));
    EXPECT_NE(base.maskedByLength(len + 1), other.maskedByLength(len + 1));
  }
  EXPECT_EQ(base.longestCommonPrefix(base), 32u);
  EXPECT_EQ(a.maskedByLength(~0u), a);
}

TEST(Prefix, ReadsAddressAndLength) {
  table::expectReads<Prefix>({"10.1.0.0/16", "0.0.0.0/0", "255.255.255.255/32",
                              "128.0.0.0/000000000000000000000001 -> 128.0.0.0/1"});
  const Prefix before("10.0.0.0/8");
  table::expectRefused(before, "Invalid IpAddr", {"", "10.0.0/8", "/8", " 10.0.0.0/8", "256.0.0.0/8"});
  table::expectRefused(before, "premature end of Prefix type",
                       {"10.0.0.0", "10.0.0.0/", "10.0.0.0/x", "10.0.0.0 /8", "10.0.0.0/ 8", "10.0.0.0/-8",
                        "10.0.0.0\0/8"sv, "10.0.0.0.0/8"});
  table::expectRefused(before, "Invalid Prefix - non-zero after prefixlen",
                       {"10.1.0.1/16", "1.0.0.0/0", "10.0.0.1/31", "10.0.0.0/33", "10.0.0.0/255.0.0.0",
                        "10.0.0.0/8 ", "10.0.0.0/8/8", "10.0.0.0/8\0"sv,
                        // The marker of no length, and lengths that would be 8 if they wrapped.
                        "10.0.0.0/4294967295", "10.0.0.0/4294967304", "10.0.0.0/18446744073709551624"});
  EXPECT_EQ(table::streamed(Prefix(ip("10.1.2.3"), Prefix::kNoLen)), "10.1.2.3/4294967295");
}

TEST(Prefix, HoldsItsInvariant) {
  const char* message = "Prefix::validAsPrefix != true not allowed";
  for (const unsigned len : {33u, 64u, 0xfffffffeu}) {
    EXPECT_EQ(messageOf<RangeException>([&] { Prefix refused(ip("10.0.0.0"), len); }), message);
  }
  EXPECT_EQ(messageOf<RangeException>([] { Prefix refused(ip("10.0.0.1"), 31); }), message);
  EXPECT_EQ(messageOf<RangeException>([] { Prefix refused(ip("0.0.0.1"), 0); }), message);
  Prefix target("10.0.0.0/8");
  Kiv::NboAttrLog log(Kiv::Bytes{10, 0, 0, 1, 0, 0, 0, 8});
  EXPECT_EQ(messageOf<RangeException>([&] { log >> target; }), message);
  EXPECT_EQ(target, Prefix("10.0.0.0/8"));
  EXPECT_TRUE(Prefix(ip("10.0.0.1"), Prefix::kNoLen).validAsPrefix());
  EXPECT_EQ(table::logged(Prefix("10.1.0.0/16")), (Kiv::Bytes{10, 1, 0, 0, 0, 0, 0, 16}));
}

TEST(Prefix, KnowsItsHosts) {
  const Prefix p("10.1.0.0/16");
  const Prefix marker(ip("10.1.0.0"), Prefix::kNoLen);
  EXPECT_EQ(p.subnetHost(ip("0.0.1.5")), ip("10.1.1.5"));
  EXPECT_EQ(Prefix().subnetHost(ip("255.1.2.3")), ip("255.1.2.3"));
  EXPECT_EQ(marker.subnetHost(ip("240.0.0.1")), ip("250.1.0.1"));
  EXPECT_EQ(messageOf<RangeException>([&] { (void)p.subnetHost(ip("0.1.0.1")); }), "Host address too long");
  EXPECT_EQ(messageOf<RangeException>([] { (void)Prefix("10.0.0.1/32").subnetHost(ip("0.0.0.1")); }),
            "Host address too long");
  EXPECT_TRUE(p.contains(ip("10.1.255.255")) && !p.contains(ip("10.2.0.0")) &&
              Prefix().contains(ip("1.2.3.4")));
  EXPECT_FALSE(marker.contains(ip("10.1.0.0")));
  EXPECT_TRUE(Prefix("10.1.0.0/16") <= Prefix("10.0.0.0/8") &&
              !(Prefix("10.0.0.0/8") <= Prefix("10.1.0.0/16")));
  EXPECT_TRUE(p.overlaps(Prefix("10.0.0.0/8")) && Prefix("10.0.0.0/8").overlaps(p));
  EXPECT_FALSE(p.overlaps(Prefix("10.2.0.0/16")) || p.overlaps(marker));
  EXPECT_TRUE(Prefix("10.0.0.1/32").isHost() && !p.isHost());
  EXPECT_TRUE(p.isUnicast() && !Prefix("224.0.0.0/4").isUnicast());
}

/// The order as it is defined, step by step.
bool sortsBefore(const Prefix& a, const Prefix& b) {
  const auto lenA = static_cast<Kiv::S32>(a.len());
  const auto lenB = static_cast<Kiv::S32>(b.len());
  const Kiv::S32 shorter = std::min(lenA, lenB);
  if (static_cast<Kiv::U32>(shorter - 1) > 31) return lenA > lenB;
  const auto bits = static_cast<unsigned>(shorter);
  if (a.address().maskedByLength(bits) != b.address().maskedByLength(bits)) return a.address() < b.address();
  return lenA > lenB;
}

TEST(Prefix, SortsTheMoreSpecificFirst) {
  const Prefix marker(ip("10.0.0.0"), Prefix::kNoLen);
  table::expectOrdered<Prefix>({Prefix("0.0.0.0/32"), Prefix("10.0.0.0/32"), Prefix("10.1.0.0/24"),
                                Prefix("10.1.0.0/16"), Prefix("10.128.0.0/9"), Prefix("10.0.0.0/8"),
                                Prefix("11.0.0.0/8"), Prefix("0.0.0.0/1"), Prefix("255.255.255.255/32"),
                                Prefix("128.0.0.0/1"), Prefix("0.0.0.0/0"), marker});
  // Markers have no order among themselves, and no two addresses are the same value.
  const Prefix otherMarker(ip("11.0.0.1"), Prefix::kNoLen);
  EXPECT_FALSE(marker < otherMarker || otherMarker < marker || marker == otherMarker);

  std::independent_bits_engine<std::mt19937, 32, Kiv::U32> random(3);
  std::vector<Prefix> prefixes = {marker, otherMarker};
  for (int i = 0; i < 1500; ++i) {
    const unsigned len = random() % 33;
    prefixes.emplace_back(IpAddr::fromHostOrder(random() & 0x81018101).maskedByLength(len), len);
  }
  for (const Prefix& a : prefixes) {
    for (const Prefix& b : prefixes) ASSERT_EQ(a < b, sortsBefore(a, b)) << a << " and " << b;
  }
  EXPECT_EQ(Prefix("10.0.0.0/8").hash(5), Kiv::SeededHash(5).add(ip("10.0.0.0").hash()).add(8).value());
}

TEST(IpAddrWithMask, KeepsHostBitsAndEveryLength) {
  table::expectReads<IpAddrWithMask>({"10.1.2.3/24", "10.1.2.3/40", "10.1.2.3/0", "1.2.3.4/4294967295",
                                      // Never wraps, however many digits there are.
                                      "1.2.3.4/4294967296 -> 1.2.3.4/4294967295",
                                      "1.2.3.4/100000000000000000000000000008 -> 1.2.3.4/4294967295"});
  const IpAddrWithMask before("1.2.3.4/5");
  table::expectRefused(before, "Invalid IpAddr", {"", "10.1.2/24"});
  table::expectRefused(before, "premature end of Prefix type", {"10.1.2.3", "10.1.2.3/"});
  table::expectRefused(before, "Invalid IpAddrWithMask", {"10.1.2.3/24 ", "10.1.2.3/24."});
  table::expectOrdered<IpAddrWithMask>({IpAddrWithMask("9.0.0.0/32"), IpAddrWithMask("10.0.0.0/8"),
                                        IpAddrWithMask("10.0.0.0/16"), IpAddrWithMask("10.0.0.0/4294967295"),
                                        IpAddrWithMask("10.0.0.1/0")});
  const IpAddrWithMask value("10.1.2.3/24");
  EXPECT_EQ(value.subnet(), Prefix("10.1.2.0/24"));
  EXPECT_TRUE(value.contains(ip("10.1.2.255")) && !value.contains(ip("10.1.3.0")));
  EXPECT_FALSE(IpAddrWithMask("10.1.2.3/33").contains(ip("10.1.2.3")));
  EXPECT_THROW((void)IpAddrWithMask("10.1.2.3/33").subnet(), RangeException);
  EXPECT_EQ(table::streamed(value), "10.1.2.3/24");
  EXPECT_EQ(value.hash(5), Kiv::SeededHash(5).add(ip("10.1.2.3").hash()).add(24).value());
}

TEST(IpAddrWithFullMask, PrintsAndReadsItsRepresentation) {
  const auto text = "Value('Wirl::IpAddrWithFullMask', ** {'address': 10.1.2.3, 'mask': 4278255360})"sv;
  table::expectReads<IpAddrWithFullMask>({text});
  EXPECT_EQ(table::streamed(IpAddrWithFullMask(ip("10.1.2.3"), 0xff00ff00)), text);
  const IpAddrWithFullMask before(text);
  const std::string type = "Value('Wirl::IpAddrWithFullMask', ** {'address': ";
  table::expectRefused(before, "Invalid IpAddrWithFullMask",
                       {"", "10.1.2.3/8", type + "10.1.2.3, 'mask': 1}) ", type + "10.1.2.3,'mask': 1})"});
  table::expectRefused(before, "Invalid IpAddr", {type + "10.1.2, 'mask': 1})"});
  table::expectRefused(before, "Integer out of range", {type + "10.1.2.3, 'mask': 4294967296})"});
  table::expectRefused(before, "Invalid integer", {type + "10.1.2.3, 'mask': -1})"});
  table::expectOrdered<IpAddrWithFullMask>(
      {{ip("9.0.0.0"), ~0u}, {ip("10.0.0.0"), 0}, {ip("10.0.0.0"), 0xff}, {ip("10.0.0.0"), 0xff000000}});
  EXPECT_EQ(table::logged(IpAddrWithFullMask(ip("10.1.2.3"), 0xff000000)),
            (Kiv::Bytes{10, 1, 2, 3, 255, 0, 0, 0}));
}

TEST(IpAndPort, ReadsBothTextForms) {
  const std::string text = "Value('Wirl::IpAndPort', ** {'ip': 10.0.0.1, 'port': 179})";
  table::expectReads<IpAndPort>(
      {"10.0.0.1:179", "10.0.0.1:065535 -> 10.0.0.1:65535", text + " -> 10.0.0.1:179"});
  EXPECT_EQ(table::streamed(IpAndPort(ip("10.0.0.1"), 179)), text);
  EXPECT_EQ(Kiv::representationOf(IpAndPort(ip("10.0.0.1"), 179)), text);
  const IpAndPort before(ip("1.2.3.4"), 5);
  table::expectRefused(before, "Invalid IpAddr", {"10.0.0:1"});
  table::expectRefused(before, "Invalid IpAndPort",
                       {"10.0.0.1", "10.0.0.1:", "10.0.0.1:65536", "10.0.0.1:18446744073709551617",
                        "10.0.0.1:179 ", "Value('Wirl::IpAndPort', ** {'ip': 10.0.0.1, 'port': 179}",
                        "Value('Wirl::IpAndPort', ** {'ip': 10.0.0.1, 'port': 179})x"});
  table::expectRefused(before, "Integer out of range",
                       {"Value('Wirl::IpAndPort', ** {'ip': 10.0.0.1, 'port': 65536})"});
  table::expectOrdered<IpAndPort>(
      {{ip("9.0.0.0"), 9}, {ip("10.0.0.0"), 0}, {ip("10.0.0.0"), 65535}, {ip("11.0.0.0"), 1}});
  EXPECT_EQ(table::logged(IpAndPort(ip("10.0.0.1"), 179)), (Kiv::Bytes{10, 0, 0, 1, 0, 179}));
  EXPECT_EQ(IpAndPort(ip("10.0.0.1"), 179).hash(5),
            Kiv::SeededHash(5).add(ip("10.0.0.1").hash()).add(179).value());
}

}  // namespace
