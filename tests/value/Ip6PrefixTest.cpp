// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6Prefix.h"

#include <gtest/gtest.h>

#include <vector>

#include "Wirl/value/Ip6AddrWithMask.h"
#include "Wirl/value/Ip6PrefixLen.h"
#include "tests/value/TextTable.h"

namespace {

using namespace Wirl;

template <typename T>
class Ip6AddrAndLenTest : public testing::Test {};
using AddrAndLenTypes = testing::Types<Ip6Prefix, Ip6AddrWithMask>;
TYPED_TEST_SUITE(Ip6AddrAndLenTest, AddrAndLenTypes);

TYPED_TEST(Ip6AddrAndLenTest, Texts) {
  using T = TypeParam;
  table::expectReads<T>(
      {"::/0", "fe80::1/64", "::ffff:10.0.0.0/0000104 -> ::ffff:10.0.0.0/104", "::1/128",
       // RFC 4291, 2.3.
       "2001:0DB8:0000:CD30:0000:0000:0000:0000/60 -> 2001:db8:0:cd30::/60",
       "2001:0DB8::CD30:0:0:0:0/60 -> 2001:db8:0:cd30::/60", "2001:0DB8:0:CD30::/60 -> 2001:db8:0:cd30::/60",
       "2001:0DB8::CD30/60 -> 2001:db8::cd30/60"},
      true);
  const auto before = T(ip6AddrMld, 9);
  table::expectRefused(before, "Ip6Addr: incomplete ipv6 address", {"2001:0DB8:0:CD3/60"});
  table::expectRefused(before, "Ip6AddrWithMask: prefix size expected",
                       {"::", "::/", "::/x", "::/-1", "::/ 1", "fe80::1%eth0/64"});
  table::expectRefused(before, "Ip6AddrWithMask: prefix too long",
                       {"fe80::1/129", "::/256", "::/4294967296", "::/18446744073709551680",
                        "::/340282366920938463463374607431768211520"});
  table::expectRefused(before, T::kTrailingText, {"::/1/", "::/1 ", "::/64::"});
  EXPECT_STREQ(Ip6Prefix::kTrailingText, "Ip6Prefix: unexpected trailing characters");
}

TYPED_TEST(Ip6AddrAndLenTest, ContainsAndOverlaps) {
  using T = TypeParam;
  const T net(Ip6Addr("2001:db8::"), 32);
  const T all(Ip6Addr(), 0);
  const T null(Ip6Addr(), 0xffff'ffff);
  EXPECT_TRUE(net.contains(Ip6Addr("2001:db8:ffff::1")));
  EXPECT_FALSE(net.contains(Ip6Addr("2001:db9::")));
  EXPECT_TRUE(all.contains(Ip6Addr("ff02::1")));
  EXPECT_TRUE(T(ip6AddrLoopback, 128).contains(ip6AddrLoopback));
  EXPECT_FALSE(T(ip6AddrLoopback, 128).contains(ip6AddrZero));
  EXPECT_FALSE(null.contains(Ip6Addr()));
  EXPECT_FALSE(T(Ip6Addr(), 129).contains(Ip6Addr()));
  const struct {
    T a;
    T b;
    bool overlap;
  } rows[] = {
      {net, net, true},
      {net, T(Ip6Addr("2001:db8:1::"), 48), true},
      {net, T(Ip6Addr("2001:db9::"), 48), false},
      {net, all, true},
      {net, T(Ip6Addr("2001:d00::"), 24), true},
      {net, null, false},
      {null, null, false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.a.overlaps(row.b), row.overlap) << row.a << " " << row.b;
    EXPECT_EQ(row.b.overlaps(row.a), row.overlap) << row.b << " " << row.a;
  }
  EXPECT_TRUE(net.validAsPrefix() && all.validAsPrefix() && T(ip6AddrLoopback, 128).validAsPrefix());
  EXPECT_FALSE(null.validAsPrefix() || T(Ip6Addr(), 129).validAsPrefix() ||
               T(ip6AddrLoopback, 127).validAsPrefix());
}

TYPED_TEST(Ip6AddrAndLenTest, Order) {
  using T = TypeParam;
  std::vector<T> ascending;
  ascending.emplace_back(Ip6Addr(), 0xffff'ffff);
  for (const char* text :
       {"::/128", "::1/128", "::/64", "::/3", "2000::/128", "2001:db8:0:1::/64", "2001:db8:1::/64",
        "2001:db8::/32", "2001:db9::/48", "2000::/3", "fe80::/10", "fe80::/9", "::/0"}) {
    ascending.emplace_back(std::string_view(text));
  }
  table::expectOrdered(ascending);
  const Ip6Addr address("2001:db8::1");
  EXPECT_EQ(T(address, 64).hash(5), Kiv::SeededHash(5).add(address.hash()).add(64).value());
}

TEST(Ip6Prefix, OfWhatKindItIs) {
  const Ip6Prefix prefix(Ip6Addr("2001:db8::"), 32);
  EXPECT_EQ(prefix.subnetHost(Ip6Addr("::1:2")), Ip6Addr("2001:db8::1:2"));
  EXPECT_EQ(table::messageOf<Kiv::RangeException>([&] { (void)prefix.subnetHost(Ip6Addr("0:1::")); }),
            "Host address is too long");
  EXPECT_EQ(Ip6Prefix().subnetHost(Ip6Addr("8000::")), Ip6Addr("8000::"));
  const Ip6Prefix null(Ip6Addr(), Ip6Prefix::kNullLen);
  EXPECT_EQ(null.subnetHost(Ip6Addr("8000::")), Ip6Addr("8000::"));
  EXPECT_TRUE(null.isNullPrefix() && !Ip6Prefix().isNullPrefix());
  EXPECT_EQ(null.stringValue(), "::/4294967295");
  EXPECT_TRUE(Ip6Prefix("::/0").isDefaultRoutePrefix());
  EXPECT_FALSE(Ip6Prefix("::/1").isDefaultRoutePrefix() || Ip6Prefix("1::/0").isDefaultRoutePrefix() ||
               null.isDefaultRoutePrefix());
  EXPECT_TRUE(Ip6Prefix("::/128").isHostRoutePrefix() && !Ip6Prefix("::/127").isHostRoutePrefix());
  EXPECT_EQ(ip6LinkLocalPrefix, Ip6Prefix("fe80::/10"));
  EXPECT_EQ(ip6SiteLocalPrefix, Ip6Prefix("fec0::/10"));
  EXPECT_EQ(ip6UniqueLocalPrefix, Ip6Prefix("fc00::/7"));
  EXPECT_EQ(Ip6AddrWithMask("2001:db8::1/64").subnet(), Ip6Prefix("2001:db8::/64"));
  EXPECT_DEATH((void)Ip6AddrWithMask(Ip6Addr(), 129).subnet(), "assertion failed: len <= 128");
}

TEST(Ip6AddrWithFullMask, Texts) {
  table::expectReads<Ip6AddrWithFullMask>(
      {"fe80::1/ffff:ffff:ffff:ffff:: -> fe80::1/64", "fe80::1/64", "::/:: -> ::/0", "::/0", "::1/128",
       "::1/ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe -> ::1/127", "1::/10::", "1::/::ffff:1.2.3.4",
       "::ffff:111.111.111.111/::ffff:222.222.222.222"},
      true);
  const auto before = Ip6AddrWithFullMask(ip6AddrMld, 7);
  table::expectRefused(before, "Ip6Addr: hex digit expected", {"", "::1/"});
  table::expectRefused(before, "Ip6AddrWithFullMask: mask expected", {"::1", "::1 /64"});
  table::expectRefused(before, "Ip6Addr: incomplete ipv6 address", {"::1/129", "::1/64a", "::1/255.255.0.0"});
  table::expectRefused(before, "Ip6Addr: too many consecutive hex digits", {"::1/12345"});
  table::expectRefused(before, "Ip6Addr: leading hex digit expected", {"::1/:1"});
  table::expectRefused(before, "Ip6AddrWithFullMask: unexpected trailing characters",
                       {"::1/64 ", "::1/ffff::/"});
}

TEST(Ip6AddrWithFullMask, LengthsOfMasksAndOrder) {
  for (unsigned len = 0; len <= 128; ++len) {
    const Ip6AddrWithFullMask value(ip6AddrLoopback, len);
    EXPECT_EQ(value.prefixLen(), Ip6PrefixLen(len));
    EXPECT_EQ(Ip6AddrWithFullMask::fromText(value.stringValue()), value);
  }
  const Ip6AddrWithFullMask holes(ip6AddrLoopback, Ip6Addr("ffff:0:ffff::"));
  EXPECT_EQ(holes.prefixLen(), Ip6PrefixLen::invalid);
  EXPECT_FALSE(holes.hasPrefixRepr());
  EXPECT_DEATH((void)Ip6AddrWithFullMask(Ip6Addr(), Kiv::U64{1} << 32), "assertion failed: len <= 128");
  table::expectOrdered<Ip6AddrWithFullMask>({{ip6AddrZero, 0u},
                                             {ip6AddrZero, ip6AddrLoopback},
                                             {ip6AddrZero, 128u},
                                             {ip6AddrLoopback, 0u},
                                             {ip6AddrLoopback, 64u}});
}

TEST(Ip6PrefixLen, IsBounded) {
  constexpr auto kRange = "Ip6PrefixLen::value < Ip6PrefixLen::min or > Ip6PrefixLen::invalid not allowed";
  table::expectReads<Ip6PrefixLen>({"0", "128", "00129 -> 129"});
  const auto before = Ip6PrefixLen(5u);
  table::expectRefused(before, kRange, {"130", "4294967296"});
  table::expectRefused(before, "Invalid Ip6PrefixLen", {"", "-1", "1."});
  EXPECT_EQ(table::messageOf<Kiv::RangeException>([] { (void)Ip6PrefixLen(130u); }), kRange);
  table::expectOrdered<Ip6PrefixLen>({0u, 1u, 128u, 129u});
  Kiv::NboAttrLog log(Kiv::Bytes{130});
  Ip6PrefixLen len;
  EXPECT_THROW(log >> len, Kiv::RangeException);
}

}  // namespace
