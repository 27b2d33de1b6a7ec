// SPDX-License-Identifier: Apache-2.0
// What prefixes and masks do beside their texts, for which see TextsTest.cpp.

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <sstream>
#include <vector>

#include "Kiv/Entity.h"
#include "Wirl/value/Ip6AddrWithMask.h"
#include "Wirl/value/IpGenAddrWithMask.h"
#include "Wirl/value/IpGenPrefixColl.h"
#include "Wirl/value/Summarise.h"
#include "tests/value/TextTable.h"

namespace {

using namespace Wirl;

template <typename... Args>
std::string rangeMessage(Args&&... args) {
  return table::messageOf<Kiv::RangeException>(std::forward<Args>(args)...);
}

constexpr Kiv::U64 kWide = Kiv::U64{1} << 32;  // 0 in 32 bits

// What Python's ipaddress says (reckoning.py), for the type of a family and for the generic one.

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

template <typename T>
std::string textOf(const std::optional<T>& value) {
  return value ? std::string(value->stringValue()) : "-";
}
template <typename Range>
std::string joined(const Range& range) {
  std::string all;
  for (const auto& value : range) all += (all.empty() ? "" : ",") + std::string(value.stringValue());
  return all;
}

template <typename P, typename Address>
void expectReckons(const std::vector<std::string>& row) {
  const auto text = [&](std::size_t i) { return std::string_view(row.at(i)); };
  if (row[0] == "prefix") {
    const P prefix(text(1));
    EXPECT_TRUE(prefix.first().stringValue() == text(2) && prefix.last().stringValue() == text(3));
    EXPECT_EQ(prefix.addressCount(), U128(text(4)));
    EXPECT_EQ(prefix.hostCount(), U128(text(5)));
    EXPECT_EQ(textOf(prefix.broadcast()), text(6));
    EXPECT_EQ(textOf(prefix.next()), text(7));
    EXPECT_EQ(textOf(prefix.previous()), text(8));
    EXPECT_EQ(prefix.len() == 0 ? "-" : textOf(prefix.supernet(prefix.len() - 1)), text(9));
    const auto subnets = prefix.subnets(static_cast<unsigned>(std::stoul(row[10])));
    std::vector<P> expected;
    for (std::size_t i = 11; i < row.size(); ++i) expected.emplace_back(text(i));
    EXPECT_TRUE(std::ranges::equal(subnets, expected));
    auto at = subnets.end();
    for (auto back = expected.rbegin(); back != expected.rend(); ++back) EXPECT_EQ(*--at, *back);
    EXPECT_THROW((void)prefix.subnets(prefix.first().bits() + 1), Kiv::RangeException);
    EXPECT_TRUE(prefix.len() == 0 ||
                rangeMessage([&] { (void)prefix.subnets(prefix.len() - 1); }) == "Invalid subnet length");
    EXPECT_FALSE(prefix.supernet(prefix.len() + 1));
    if (prefix.addressCount() > U128(4096)) return;
    EXPECT_EQ(U128(std::ranges::distance(prefix.addresses())), prefix.addressCount());
    EXPECT_EQ(*std::ranges::prev(prefix.addresses().end()), prefix.last());
  } else if (row[0] == "step") {
    const Address a(text(1));
    const U128 n(text(2));
    EXPECT_EQ(textOf(a.after(n)), text(3));
    EXPECT_EQ(textOf(a.before(n)), text(4));
    const auto sum = [&](auto make) {
      try {
        return std::string(make().stringValue());
      } catch (const Kiv::RangeException& failure) {
        EXPECT_EQ(failure.message(), "Address out of range");
        return std::string("-");
      }
    };
    Address moved = a;
    EXPECT_EQ(sum([&] { return moved += n; }), text(3));
    EXPECT_TRUE(moved == (text(3) == "-" ? a : Address(text(3))));  // unchanged where there is none
    EXPECT_EQ(sum([&] { return a - n; }), text(4));
    if (n > U128(255)) return;
    EXPECT_EQ(sum([&] { return a - -static_cast<int>(n.low()); }), text(3));
    EXPECT_EQ(sum([&] { return a + -static_cast<int>(n.low()); }), text(4));
    Address steps = a;
    EXPECT_TRUE(n != U128(1) || sum([&] { return steps++, steps; }) == text(3));
    EXPECT_TRUE(n != U128(1) || text(3) == "-" || --steps == a);
  } else if (row[0] == "distance") {
    EXPECT_EQ(textOf(Address(text(1)).distance(Address(text(2)))), text(3));
    EXPECT_EQ(textOf(Address(text(2)).distance(Address(text(1)))), text(3));
  } else if (row[0] == "contains") {
    const P p(text(1)), q(text(2));
    EXPECT_EQ(p.contains(q), text(3) == "1");
    EXPECT_EQ(p.contains(q.first()) && p.contains(q.last()), text(3) == "1");
    EXPECT_EQ(p.overlaps(q), p.contains(q) || q.contains(p));
  } else if (row[0] == "summary") {
    std::vector<P> prefixes;
    for (const std::string& prefix : split(row[1], ',')) prefixes.emplace_back(std::string_view(prefix));
    EXPECT_EQ(joined(summarised(prefixes)), row.size() > 2 ? text(2) : "");
  } else {
    ASSERT_EQ(row[0], "range");
    EXPECT_EQ(joined(summarisedRange<P>(Address(text(1)), Address(text(2)))), text(3));
  }
}

TEST(Reckoning, AgreesWithAnotherLibrary) {
  std::ifstream file(WIRL_TESTS_VALUE "/reckoning.tsv");
  unsigned rows = 0;
  for (std::string line; std::getline(file, line); ++rows) {
    const auto row = split(line, '\t');
    SCOPED_TRACE(line.substr(0, 200));
    const bool v6 =
        row.at(1).find(':') != std::string::npos || (row[0] == "summary" && line.find(':') != line.npos);
    v6 ? expectReckons<Ip6Prefix, Ip6Addr>(row) : expectReckons<Prefix, IpAddr>(row);
    expectReckons<IpGenPrefix, IpGenAddr>(row);
  }
  EXPECT_GT(rows, 500u);
  EXPECT_THROW((void)summarised(std::vector<Ip6Prefix>{Ip6Prefix("fe80::1/64")}), Kiv::RangeException);
  EXPECT_THROW((void)summarised(std::vector{Prefix(IpAddr(), Prefix::kNoLen)}), Kiv::RangeException);
  EXPECT_THROW((void)summarisedRange<IpGenPrefix>(IpGenAddr("::"), IpGenAddr("1.2.3.4")),
               Kiv::RangeException);
  EXPECT_THROW((void)summarisedRange<Prefix>(IpAddr(1, 0, 0, 0), IpAddr()), Kiv::RangeException);
}

TEST(Prefix, HoldsItsInvariant) {
  for (const auto& [address, len] :
       {std::pair("10.0.0.0", 33u), {"10.0.0.0", 0xfffffffeu}, {"0.0.0.1", 31u}}) {
    EXPECT_EQ(rangeMessage([&, a = address, l = len] { (void)Prefix(IpAddr(a), l); }),
              "Prefix::validAsPrefix != true not allowed");
  }
  const Prefix marker(IpAddr("10.1.0.1"), Prefix::kNoLen);
  EXPECT_TRUE(marker.validAsPrefix() && !marker.contains(IpAddr("10.1.0.1")) && !marker.contains(marker) &&
              marker.last() == IpAddr("10.1.0.1") && marker.stringValue() == "10.1.0.1/4294967295");
  // Behind all others, whatever the address; for prefixes with a length see texts.py.
  const Prefix other(IpAddr("0.0.0.0"), Prefix::kNoLen);
  EXPECT_TRUE(Prefix("0.0.0.0/0") < marker && Prefix("255.255.255.255/32") < other && !(marker < other) &&
              !(other < marker));
  EXPECT_FALSE(marker.overlaps(marker));
  const Prefix p("10.1.0.0/16");
  EXPECT_EQ(p.subnetHost(IpAddr("0.0.1.5")), IpAddr("10.1.1.5"));
  EXPECT_EQ(Prefix().subnetHost(IpAddr("255.1.2.3")), IpAddr("255.1.2.3"));
  EXPECT_EQ(marker.subnetHost(IpAddr("240.0.0.0")), IpAddr("250.1.0.1"));
  EXPECT_EQ(rangeMessage([&] { (void)p.subnetHost(IpAddr("0.1.0.1")); }), "Host address too long");
  EXPECT_TRUE(Prefix("10.0.0.1/32").isHost() && !p.isHost() && !Prefix("224.0.0.0/4").isUnicast());
}

template <typename T>
class Ip6AddrAndLenTest : public testing::Test {};
using AddrAndLenTypes = testing::Types<Ip6Prefix, Ip6AddrWithMask>;
TYPED_TEST_SUITE(Ip6AddrAndLenTest, AddrAndLenTypes);

TYPED_TEST(Ip6AddrAndLenTest, IsOrderedByItsDefinitionAndTransitiveForAllValues) {
  using T = TypeParam;
  std::vector<T> values;
  for (const char* text : {"::", "::1", "::5", "::9", "::8000:0:0:0", "1::", "1::5", "8000::", "ffff::1"}) {
    for (const Kiv::U32 len :
         {0u, 1u, 3u, 63u, 64u, 65u, 127u, 128u, 129u, 0x7fff'ffffu, 0x8000'0000u, 0xffff'ffffu}) {
      values.emplace_back(Ip6Addr(text), len);
    }
  }
  for (const T& a : values) {
    for (const T& b : values) {
      ASSERT_EQ(a == b, !(a < b) && !(b < a)) << a << " and " << b;
      if (a.len() <= 128 && b.len() <= 128) {
        const T& shorter = a.len() < b.len() ? a : b;
        const T& longer = a.len() < b.len() ? b : a;
        const bool covers = a.len() != b.len() && shorter.contains(longer.address());
        ASSERT_EQ(a < b, covers ? a.len() > b.len() : a.address() < b.address()) << a << " and " << b;
      }
      for (const T& c : values) ASSERT_TRUE(!(a < b && b < c) || a < c) << a << ", " << b << ", " << c;
    }
  }
}

TYPED_TEST(Ip6AddrAndLenTest, WithoutAPossibleLengthContainsNothing) {
  const TypeParam net(Ip6Addr("2001:db8::"), 32), host(ip6AddrLoopback, 128);
  EXPECT_TRUE(net.contains(Ip6Addr("2001:db8:ffff::1")) && net.overlaps(net) && net.validAsPrefix() &&
              host.validAsPrefix());
  EXPECT_FALSE(host.contains(ip6AddrZero) || TypeParam(ip6AddrLoopback, 127).validAsPrefix());
  for (const Kiv::U32 len : {129u, 0xffff'ffffu}) {
    const TypeParam none(Ip6Addr(), len);
    EXPECT_FALSE(none.contains(Ip6Addr()) || none.overlaps(none) || none.overlaps(net) ||
                 none.validAsPrefix());
  }
}

TEST(Ip6Prefix, OfWhatKindItIs) {
  const Ip6Prefix prefix("2001:db8::/32");
  EXPECT_EQ(prefix.subnetHost(Ip6Addr("::1:2")), Ip6Addr("2001:db8::1:2"));
  EXPECT_EQ(rangeMessage([&] { (void)prefix.subnetHost(Ip6Addr("0:1::")); }), "Host address is too long");
  const Ip6Prefix null(Ip6Addr(), Ip6Prefix::kNullLen);
  EXPECT_EQ(null.subnetHost(Ip6Addr("8000::")), Ip6Addr("8000::"));
  EXPECT_TRUE(null.isNullPrefix() && !Ip6Prefix().isNullPrefix() && null.stringValue() == "::/4294967295");
  EXPECT_TRUE(Ip6Prefix("::/0").isDefaultRoutePrefix());
  EXPECT_FALSE(Ip6Prefix("::/1").isDefaultRoutePrefix() || Ip6Prefix("1::/0").isDefaultRoutePrefix());
  EXPECT_TRUE(Ip6Prefix("::/128").isHostRoutePrefix() && !Ip6Prefix("::/127").isHostRoutePrefix());
  EXPECT_EQ(ip6LinkLocalPrefix.stringValue() + ip6SiteLocalPrefix.stringValue() +
                ip6UniqueLocalPrefix.stringValue(),
            "fe80::/10fec0::/10fc00::/7");
  EXPECT_EQ(Ip6AddrWithMask("2001:db8::1/64").subnet(), Ip6Prefix("2001:db8::/64"));
  EXPECT_DEATH((void)Ip6AddrWithMask(Ip6Addr(), 129).subnet(), "assertion failed: len <= 128");
  EXPECT_EQ(rangeMessage([] { (void)Ip6PrefixLen(130u); }),
            "Ip6PrefixLen::value < Ip6PrefixLen::min or > Ip6PrefixLen::invalid not allowed");
}

TEST(AddrWithMask, KnowsItsSubnet) {
  const IpAddrWithMask v4("10.1.2.3/24"), none("10.1.2.3/33");
  EXPECT_TRUE(v4.subnet() == Prefix("10.1.2.0/24") && v4.contains(IpAddr("10.1.2.255")));
  EXPECT_FALSE(v4.contains(IpAddr("10.1.3.0")) || none.contains(IpAddr("10.1.2.3")));
  EXPECT_THROW((void)none.subnet(), Kiv::RangeException);
  const IpGenAddrWithMask gen(v4);
  EXPECT_TRUE(gen.subnet() == IpGenPrefix("10.1.2.0/24") && gen.contains(IpAddr("10.1.2.255")));
  EXPECT_FALSE(gen.contains(IpAddr("10.1.3.0")) || gen.contains(Ip6Addr("a01:203::")));
  EXPECT_EQ(IpGenAddrWithMask("2001:db8::1/64").subnet(), IpGenPrefix("2001:db8::/64"));
}

TEST(Generic, ConstructorsCheckLengthsAndHostBits) {
  using Masked = IpGenAddrWithFullMask;
  constexpr auto kHostBits = "Invalid prefix - Non-zero after prefix length";
  constexpr auto kLen4 = "Invalid IPv4 Prefix Length";
  constexpr auto kLen6 = "Invalid IPv6 Prefix Length";
  constexpr auto kRange = "PrefixLen::value < PrefixLen::invalid or > PrefixLen::max not allowed";
  using Words = std::array<Kiv::U32, 4>;
  const auto ofWords = [](AddressFamily af, Kiv::U64 len, Words words) { (void)IpGenPrefix(af, len, words); };
  const std::pair<std::function<void()>, std::string> failures[] = {
      {[] { (void)IpGenPrefix(IpAddr(10, 0, 0, 0), kWide + 8); }, kLen4},
      {[] { (void)IpGenPrefix(IpAddr(10, 0, 0, 0), 33); }, kLen4},
      {[] { (void)IpGenPrefix(ip6AddrZero, 129); }, kLen6},
      {[] { (void)IpGenPrefix(IpGenAddr(), 129); }, kLen6},
      {[&] { ofWords(AddressFamily::ipv6, kWide, {}); }, kLen6},
      {[] { (void)IpGenPrefix(IpAddr(10, 0, 0, 1), 24); }, kHostBits},
      {[] { (void)IpGenPrefix(ip6AddrLoopback, 127); }, kHostBits},
      {[&] {
         ofWords(AddressFamily::ipv4, 8, Words{0x0a00'0000, 0, 0, 1});
       },
       kHostBits},
      {[&] {
         ofWords(AddressFamily::ipunknown, 128, Words{0, 0, 0, 1});
       },
       kHostBits},
      {[] { (void)IpGenAddrWithMask(IpAddr(1, 2, 3, 4), kWide); }, kLen4},
      {[] { (void)IpGenAddrWithMask(IpAddrWithMask(IpAddr(), 40)); }, kLen4},
      {[] { (void)IpGenAddrWithMask(ip6AddrZero, 129); }, kLen6},
      {[] { (void)Masked(IpAddr(), Kiv::U64{33}); }, "Invalid IPv4 prefix length"},
      {[] { (void)Masked(IpGenAddr("1.2.3.4"), kWide); }, "Invalid IPv4 prefix length"},
      {[] { (void)Masked(ip6AddrZero, Kiv::U64{129}); }, "Invalid IPv6 prefix"},
      {[] { (void)Masked(IpGenAddr("1.2.3.4"), IpGenAddr("::")); }, "Invalid IPv4/IPv6 address"},
      {[] { (void)Masked(IpGenAddr(), Kiv::U64{1}); }, "Invalid IPv4/IPv6 address"},
      {[] { (void)Masked::PrefixLen(-2); }, kRange},
      {[] { (void)Masked::PrefixLen(kWide); }, kRange}};
  for (const auto& [make, message] : failures) EXPECT_EQ(rangeMessage(make), message);
  EXPECT_EQ(IpGenPrefix(AddressFamily::ipv4, 8, {0x0a00'0000, 0, 0, 0}), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(IpGenPrefix(AddressFamily::ipv6, 128, {0x2001'0db8, 1, 2, 3}),
            IpGenPrefix("2001:db8:0:1:0:2:0:3/128"));
  for (unsigned len = 0; len <= 32; ++len) {
    EXPECT_EQ(Masked(IpAddr(1, 2, 3, 4), Kiv::U64{len}).prefixLen().value(), static_cast<int>(len));
  }
  EXPECT_EQ(Masked(ip6AddrMld, Kiv::U64{77}).prefixLen().value(), 77);
  EXPECT_EQ(Masked(IpAddr(1, 2, 3, 4), IpAddr(255, 0, 255, 0)).prefixLen(), Masked::PrefixLen::invalid);
}

TEST(IpGenPrefix, HoldsWhatItsConstructorsMake) {
  const IpGenPrefix host(Ip6Prefix("fe80::1/64"));  // not checked
  const IpGenPrefix noLength(Prefix(IpAddr(1, 2, 3, 4), Prefix::kNoLen));
  EXPECT_TRUE(host.v6Prefix() == Ip6Prefix("fe80::1/64") && host.v4Prefix() == Prefix() &&
              noLength.stringValue() == "1.2.3.4/4294967295");
  EXPECT_FALSE(host.validAsPrefix() || IpGenPrefix().validAsPrefix() ||
               noLength.contains(IpAddr(1, 2, 3, 4)));
  EXPECT_TRUE(IpGenPrefix("10.0.0.1/32").isHost() && IpGenPrefix("::1/128").isHost());
  for (const IpGenPrefix& other :
       {noLength, IpGenPrefix(), IpGenPrefix("10.0.0.0/31"), IpGenPrefix(ip6AddrZero, 32)}) {
    EXPECT_FALSE(other.isHost()) << other;
  }
  EXPECT_FALSE(IpGenPrefix("0.0.0.0/0").contains(ip6AddrZero) ||
               IpGenPrefix("0.0.0.0/0").contains(IpGenPrefix("::/8")));
  EXPECT_TRUE(IpGenPrefix("224.0.0.0/4").isMulticast() && IpGenPrefix("127.0.0.0/8").isLoopback() &&
              IpGenPrefix("fe80::/64").isLinkLocal() && IpGenPrefix("ff05::/16").isRoutableMulticast() &&
              IpGenPrefix("0.0.0.0/0").isUnspecified() && IpGenPrefix("240.0.0.0/4").isReserved());
  const IpGenPrefixBase& base = host;
  EXPECT_TRUE(table::streamed(base) == "fe80::1/64" && table::logged(base) == table::logged(host) &&
              std::hash<IpGenPrefixBase>()(base) == base.hash());
  // From the log comes what a constructor makes, as a prefix without length and IPv6 host bits, and no more.
  const auto readBack = [](const IpGenAddr& address, Kiv::U32 len) {
    Kiv::NboAttrLog log;
    log << address << len;
    IpGenPrefix read(ip6AddrMld, 128);
    const bool refused = rangeMessage([&] { log >> read; }) != "nothing thrown";
    return refused && read == IpGenPrefix(ip6AddrMld, 128) ? "refused" : std::string(read.stringValue());
  };
  EXPECT_EQ(readBack(IpAddr(1, 2, 3, 4), Prefix::kNoLen) + readBack(ip6AddrLoopback, 64),
            "1.2.3.4/4294967295::1/64");
  for (const Kiv::U32 len : {31u, 33u, 77u}) EXPECT_EQ(readBack(IpAddr(10, 0, 0, 1), len), "refused");
  EXPECT_EQ(readBack(IpGenAddr(), 129), "refused");
}

TEST(IpGenPrefixColl, IsASetThatReactorsCanWatch) {
  IpGenPrefixColl coll;
  for (const char* text : {"::/0", "10.0.0.0/16", "10.0.0.0/8"})
    EXPECT_TRUE(coll.prefixIs(IpGenPrefix(text)));
  EXPECT_FALSE(coll.prefixIs(IpGenPrefix("::/0")) || coll.prefixDel(IpGenPrefix("::/1")));
  EXPECT_EQ(table::streamed(coll), "{10.0.0.0/8, 10.0.0.0/16, ::/0}");
  const auto config = Kiv::makePtr<IpGenPrefixSetConfig>("permit");
  int changes = 0;
  const Kiv::Reactor reactor(config->prefixes, [&] { ++changes; });
  for (int i = 0; i < 2; ++i) config->prefixesIs(coll);
  EXPECT_TRUE(changes == 1 && coll.prefixDel(IpGenPrefix("::/0")) && coll.size() == 2);
  coll.prefixDelAll();
  EXPECT_EQ(table::streamed(coll), "{}");
}

}  // namespace
