// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kiv/Entity.h"
#include "Wirl/value/IpGenAddr.h"
#include "Wirl/value/IpGenAddrWithMask.h"
#include "Wirl/value/IpGenPrefix.h"
#include "Wirl/value/IpGenPrefixColl.h"
#include "tests/value/TextTable.h"

namespace {

using namespace Wirl;
using namespace std::string_view_literals;

template <typename... Args>
std::string rangeMessage(Args&&... args) {
  return table::messageOf<Kiv::RangeException>(std::forward<Args>(args)...);
}

constexpr Kiv::U64 kWraps = Kiv::U64{1} << 32;  // 0 in 32 bits

TEST(AddressFamily, Texts) {
  for (const auto& [af, text] :
       {std::pair(AddressFamily::ipunknown, "ipunknown"), std::pair(AddressFamily::ipv4, "ipv4"),
        std::pair(AddressFamily::ipv6, "ipv6")}) {
    EXPECT_EQ(table::streamed(af), text);
    EXPECT_EQ(addressFamilyFromText(text), af);
    EXPECT_EQ(addressFamilyFromString(text), af);
  }
  EXPECT_FALSE(addressFamilyFromText("ipv"));
  EXPECT_EQ(rangeMessage([] { addressFamilyFromString("IPV4"); }), "Invalid AddressFamily");
}

TEST(IpGenAddr, Texts) {
  table::expectReads<IpGenAddr>({"10.0.0.1", "0.0.0.0"});
  table::expectReads<IpGenAddr>({"::", "::ffff:1.2.3.4", "FE80::1 -> fe80::1"}, true);
  const auto before = IpGenAddr(IpAddr(9, 9, 9, 9));
  table::expectRefused(
      before, "Invalid IpGenAddr",
      {"", "abc", "12/1.2.3.4", "1.2.3.4.5", "1.2.3.4 ", "::1/64", "1.2.3.4\0"sv, "::1\0"sv});
  table::expectRefused(before, "Invalid IpAddr", {"1.2.3", "1.2.3:4", "1.2\0.3.4"sv});
  table::expectRefused(before, "Ip6Addr: incomplete ipv6 address", {"1:2"});
  table::expectRefused(before, "Ip6Addr: hex digit expected", {" ::1"});
  const IpGenAddr empty{std::string_view()};
  EXPECT_EQ(empty.af(), AddressFamily::ipunknown);
  EXPECT_EQ(empty.stringValue(), "::");
  EXPECT_EQ(empty.size(), 16u);
}

TEST(IpGenAddr, HoldsEitherFamily) {
  const IpGenAddr v4 = IpAddr(10, 0, 0, 1);
  const IpGenAddr v6 = ip6AddrLoopback;
  EXPECT_EQ(v4.v4Addr(), IpAddr(10, 0, 0, 1));
  EXPECT_EQ(v4.v6Addr(), ip6AddrZero);
  EXPECT_EQ(v6.v4Addr(), IpAddr());
  EXPECT_EQ(v6.v6Addr(), ip6AddrLoopback);
  EXPECT_EQ(v4.bytes(), std::string_view("\x0a\0\0\x01", 4));
  EXPECT_EQ(v6.bytes().bytes(), 16u);
  unsigned char octets[17] = {};
  octets[4] = 0x55;
  v4.copyToBuffer(octets);
  EXPECT_TRUE(octets[0] == 10 && octets[3] == 1 && octets[4] == 0x55);
  v6.copyToBuffer(octets);
  EXPECT_EQ(octets[15], 1);
  EXPECT_EQ(IpGenAddr(IpAddr("239.129.1.2")).mcastEtherAddress(), EthAddr("01:00:5e:01:01:02"));
  EXPECT_EQ(IpGenAddr(Ip6Addr("ff02::1:2")).mcastEtherAddress(), EthAddr("33:33:00:01:00:02"));
  EXPECT_EQ(v4.longestCommonPrefix(IpAddr(10, 0, 0, 3)), 30u);
  EXPECT_EQ(v4.longestCommonPrefix(v6), 4u);  // of 10.0.0.1 and 0.0.0.0
  EXPECT_EQ(v6.longestCommonPrefix(v4), 127u);
  EXPECT_EQ(IpGenAddr::getMappedV4Addr(Ip6Addr("::ffff:10.1.2.3")), IpGenAddr(IpAddr(10, 1, 2, 3)));
  EXPECT_EQ(IpGenAddr::getMappedV4Addr(Ip6Addr("2001:db8::1")), IpGenAddr());
  EXPECT_EQ(IpGenAddr::getMappedV4Addr(v4), IpGenAddr());
  EXPECT_EQ(IpGenAddr::getV4MappedV6Addr(v4), IpGenAddr(Ip6Addr("::ffff:10.0.0.1")));
  EXPECT_EQ(IpGenAddr::getV4MappedV6Addr(v6), IpGenAddr());
}

TEST(IpGenAddr, PredicatesByFamily) {
  const std::pair<const char*, bool (IpGenAddr::*)() const noexcept> predicates[] = {
      {"Unicast", &IpGenAddr::isUnicast},
      {"Multicast", &IpGenAddr::isMulticast},
      {"LinkLocalUnicast", &IpGenAddr::isLinkLocalUnicast},
      {"LinkLocal", &IpGenAddr::isLinkLocal},
      {"Loopback", &IpGenAddr::isLoopback},
      {"LoopbackBase", &IpGenAddr::isLoopbackBase},
      {"Unspecified", &IpGenAddr::isUnspecified},
      {"PimRouters", &IpGenAddr::isPimRouters},
      {"RoutableMulticast", &IpGenAddr::isRoutableMulticast},
      {"LinkLocalMulticast", &IpGenAddr::isLinkLocalMulticast},
      {"Any", &IpGenAddr::isAny},
      {"Reserved", &IpGenAddr::isReserved},
      {"ThisNetwork", &IpGenAddr::isThisNetwork},
      {"Broadcast", &IpGenAddr::isBroadcast},
      {"V4LinkLocal", &IpGenAddr::isV4LinkLocal},
      {"V6LinkLocal", &IpGenAddr::isV6LinkLocal},
  };
  const std::pair<const char*, std::string> rows[] = {
      {"", "Unicast Unspecified "},
      {"::", "Unicast Unspecified "},
      {"0.0.0.0", "Unicast Unspecified Any ThisNetwork "},
      {"0.0.0.1", "Unicast ThisNetwork "},
      {"10.0.0.1", "Unicast "},
      {"127.0.0.0", "Unicast Loopback LoopbackBase "},
      {"127.0.0.1", "Unicast Loopback "},
      {"::1", "Unicast Loopback "},
      {"::ffff:127.0.0.0", "Unicast "},
      {"169.254.1.1", "Unicast LinkLocalUnicast LinkLocal V4LinkLocal "},
      {"fe80::1", "Unicast LinkLocalUnicast LinkLocal V6LinkLocal "},
      {"ff02::1", "Multicast LinkLocal LinkLocalMulticast V6LinkLocal "},
      {"ff02::d", "Multicast LinkLocal PimRouters LinkLocalMulticast V6LinkLocal "},
      {"ff05::1", "Multicast RoutableMulticast "},
      {"224.0.0.1", "Multicast LinkLocalMulticast "},
      {"224.0.0.13", "Multicast PimRouters LinkLocalMulticast "},
      {"239.1.1.1", "Multicast RoutableMulticast "},
      {"240.0.0.1", "Unicast Reserved "},
      {"255.255.255.255", "Broadcast "},
  };
  for (const auto& [text, expected] : rows) {
    const IpGenAddr address{std::string_view(text)};
    std::string holds;
    for (const auto& [name, predicate] : predicates) {
      if ((address.*predicate)()) holds += std::string(name) + " ";
    }
    EXPECT_EQ(holds, expected) << text;
  }
}

TEST(IpGenAddr, OrderHashAndLog) {
  table::expectOrdered<IpGenAddr>({IpGenAddr(), IpGenAddr(AddressFamily::ipv4), IpGenAddr("10.0.0.1"),
                                   IpGenAddr("10.0.0.2"), IpGenAddr("255.255.255.255"), IpGenAddr("::"),
                                   IpGenAddr("::1"), IpGenAddr("a00:1::")});
  const IpGenAddr v4("10.0.0.1");
  EXPECT_EQ(v4.hash(3), Kiv::SeededHash(3).add(1).add(Ip6Addr("a00:1::").hash()).value());
  Kiv::Bytes octets = {0, 0, 0, 1, 10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(table::logged(v4), octets);
  for (const std::size_t bad : {std::size_t{3}, std::size_t{0}, std::size_t{19}}) {
    Kiv::Bytes broken = octets;
    broken[bad] = static_cast<Kiv::U8>(broken[bad] ^ (bad == 3 ? 1 : 2));  // no family, or a bit behind IPv4
    Kiv::NboAttrLog log(broken);
    IpGenAddr target = ip6AddrMld;
    EXPECT_THROW(log >> target, Kiv::RangeException) << bad;
    EXPECT_EQ(target, IpGenAddr(ip6AddrMld));
  }
}

TEST(IpGenPrefix, Texts) {
  table::expectReads<IpGenPrefix>({"10.0.0.0/8", "0.0.0.0/0", "1.2.3.4/032 -> 1.2.3.4/32",
                                   "10.0.0.0/000000000000000000000000000008 -> 10.0.0.0/8"});
  table::expectReads<IpGenPrefix>(
      {"2001:DB8::/32 -> 2001:db8::/32", "::/0", "::ffff:1.2.3.4/128", "fe80::1/64"}, true);
  constexpr auto kNoLen = "premature end of Prefix type";
  const auto before = IpGenPrefix("9.0.0.0/8");
  table::expectRefused(
      before, "Invalid prefix",
      {"", "/24", "10/8.0.0.0", "abc", "10.0.0.0/8 ", "2001:db8::/32/", "10.0.0.0/8\0"sv, "::/8\0"sv});
  table::expectRefused(before, "Invalid IpAddr", {"10.0.0/8"});
  table::expectRefused(before, kNoLen, {"10.0.0.0", "10.0.0.0/", "10.0.0.0/x", "2001:db8::", "2001:db8::/"});
  table::expectRefused(before, "Ip6Addr: incomplete ipv6 address", {"2001:db8/32"});
  table::expectRefused(before, "Invalid Prefix - non-zero after prefixlen",
                       {"10.0.0.1/24", "10.0.0.0/33", "10.0.0.0/4294967295", "10.0.0.0/4294967304",
                        "10.0.0.0/100000000000000000000000000008"});
  table::expectRefused(before, "Ip6AddrWithMask: prefix too long",
                       {"::/129", "::/100000000000000000000000000008"});
}

TEST(IpGenPrefix, ConstructorsCheck) {
  constexpr auto kHostBits = "Invalid prefix - Non-zero after prefix length";
  const std::pair<std::function<void()>, std::string> failures[] = {
      {[] { (void)IpGenPrefix(IpAddr(10, 0, 0, 0), 33); }, "Invalid IPv4 Prefix Length"},
      {[] { (void)IpGenPrefix(IpAddr(10, 0, 0, 0), ~0u); }, "Invalid IPv4 Prefix Length"},
      {[] { (void)IpGenPrefix(IpAddr(10, 0, 0, 0), kWraps + 8); }, "Invalid IPv4 Prefix Length"},
      {[] { (void)IpGenPrefix(ip6AddrZero, kWraps); }, "Invalid IPv6 Prefix Length"},
      {[] { (void)IpGenPrefix(AddressFamily::ipv6, kWraps, {}); }, "Invalid IPv6 Prefix Length"},
      {[] { (void)IpGenPrefix(IpAddr(10, 0, 0, 1), 24); }, kHostBits},
      {[] { (void)IpGenPrefix(ip6AddrZero, 129); }, "Invalid IPv6 Prefix Length"},
      {[] { (void)IpGenPrefix(ip6AddrLoopback, 127); }, kHostBits},
      {[] { (void)IpGenPrefix(IpGenAddr("10.0.0.1"), 31); }, kHostBits},
      {[] { (void)IpGenPrefix(IpGenAddr(), 129); }, "Invalid IPv6 Prefix Length"},
  };
  for (const auto af : {AddressFamily::ipv4, AddressFamily::ipv6, AddressFamily::ipunknown}) {
    const unsigned len = af == AddressFamily::ipunknown ? 128 : 8;
    EXPECT_EQ(rangeMessage([&] {
                (void)IpGenPrefix(af, len, {len == 8 ? 0x0a00'0000u : 0u, 0, 0, 1});
              }),
              kHostBits);
  }
  for (const auto& [make, message] : failures) EXPECT_EQ(rangeMessage(make), message);
  EXPECT_EQ(IpGenPrefix(AddressFamily::ipv4, 8, {0x0a00'0000, 0, 0, 0}), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(IpGenPrefix(AddressFamily::ipv6, 128, {0x2001'0db8, 1, 2, 3}),
            IpGenPrefix("2001:db8:0:1:0:2:0:3/128"));

  const IpGenPrefix host(Ip6Prefix("fe80::1/64"));  // not checked
  EXPECT_EQ(host.v6Prefix(), Ip6Prefix("fe80::1/64"));
  EXPECT_EQ(host.v4Prefix(), Prefix());
  const IpGenPrefix noLength(Prefix(IpAddr(1, 2, 3, 4), Prefix::kNoLen));
  EXPECT_EQ(noLength.stringValue(), "1.2.3.4/4294967295");
  EXPECT_FALSE(noLength.isHost() || noLength.contains(IpAddr(1, 2, 3, 4)));

  EXPECT_TRUE(IpGenPrefix("10.0.0.1/32").isHost() && IpGenPrefix("::1/128").isHost());
  EXPECT_FALSE(IpGenPrefix("10.0.0.0/31").isHost() || IpGenPrefix(ip6AddrZero, 32).isHost() ||
               IpGenPrefix().isHost());
  EXPECT_TRUE(IpGenPrefix("10.0.0.0/8").contains(IpAddr(10, 9, 9, 9)));
  EXPECT_FALSE(IpGenPrefix("0.0.0.0/0").contains(ip6AddrZero) ||
               IpGenPrefix("10.0.0.0/8").contains(IpAddr(11, 0, 0, 0)));
  EXPECT_TRUE(IpGenPrefix("224.0.0.0/4").isMulticast() && IpGenPrefix("127.0.0.0/8").isLoopback() &&
              IpGenPrefix("fe80::/64").isLinkLocal() && IpGenPrefix("ff05::/16").isRoutableMulticast() &&
              IpGenPrefix("0.0.0.0/0").isUnspecified() && IpGenPrefix("240.0.0.0/4").isReserved());
}

TEST(IpGenPrefix, OrderHashAndLog) {
  std::vector<IpGenPrefix> ascending = {IpGenPrefix()};
  for (const char* text :
       {"0.0.0.0/0", "10.0.0.0/8", "10.0.0.0/16", "10.0.0.0/32", "10.1.0.0/16", "11.0.0.0/8", "::/0", "::/64",
        "::1/128", "2001:db8::/32", "2001:db8::/48", "fe80::/10"}) {
    ascending.emplace_back(std::string_view(text));
  }
  table::expectOrdered(ascending);
  const IpGenPrefixBase& base = ascending[2];
  table::expectPrints(base, "10.0.0.0/8");
  EXPECT_EQ(table::streamed(base), "10.0.0.0/8");
  EXPECT_EQ(table::logged(base), table::logged(ascending[2]));
  EXPECT_EQ(std::hash<IpGenPrefixBase>()(base), base.hash());
  // From the log comes what a constructor makes, as a prefix without length and IPv6 host bits, and no more.
  const auto readBack = [](const IpGenAddr& address, Kiv::U32 len) {
    Kiv::NboAttrLog log;
    log << address << len;
    IpGenPrefix read(ip6AddrMld, 128);
    try {
      log >> read;
    } catch (const Kiv::RangeException&) {
      EXPECT_EQ(read, IpGenPrefix(ip6AddrMld, 128));
      return std::string("refused");
    }
    return std::string(read.stringValue());
  };
  EXPECT_EQ(readBack(IpAddr(1, 2, 3, 4), Prefix::kNoLen), "1.2.3.4/4294967295");
  EXPECT_EQ(readBack(ip6AddrLoopback, 64), "::1/64");
  for (const Kiv::U32 len : {31u, 33u, 77u}) EXPECT_EQ(readBack(IpAddr(10, 0, 0, 1), len), "refused");
  EXPECT_EQ(readBack(IpGenAddr(), 129), "refused");
  EXPECT_EQ(ascending[2].hash(9), Kiv::SeededHash(9).add(1).add(Ip6Addr("a00::").hash()).add(8).value());
}

TEST(IpGenAddrWithMask, TextsAndConstructors) {
  table::expectReads<IpGenAddrWithMask>(
      {"10.1.2.3/24", "10.1.2.3/0", "10.1.2.3/000000000000000000000000000008 -> 10.1.2.3/8"});
  table::expectReads<IpGenAddrWithMask>({"FE80::1/64 -> fe80::1/64", "::/128"}, true);
  const auto before = IpGenAddrWithMask("9.0.0.1/8");
  table::expectRefused(before, "Invalid IpGenAddr", {"", "/24"});
  table::expectRefused(before, "Invalid IpAddr", {"10.1.2/24"});
  table::expectRefused(before, "premature end of Prefix type", {"10.1.2.3", "fe80::1/"});
  table::expectRefused(before, "Invalid IPv4 Prefix Length",
                       {"10.1.2.3/33", "10.1.2.3/4294967320", "10.1.2.3/100000000000000000000000000008"});
  table::expectRefused(before, "Invalid IPv6 Prefix Length",
                       {"fe80::1/129", "fe80::1/100000000000000000000000000008"});
  table::expectRefused(before, "Invalid IpGenAddrWithMask",
                       {"10.1.2.3/24 ", "10.1.2.3/24\0"sv, "fe80::1/64\0"sv});
  for (const auto& [len4, len6] : {std::pair<Kiv::U64, Kiv::U64>(33, 129), {kWraps, kWraps}}) {
    EXPECT_EQ(rangeMessage([len = len4] { (void)IpGenAddrWithMask(IpAddr(1, 2, 3, 4), len); }),
              "Invalid IPv4 Prefix Length");
    EXPECT_EQ(rangeMessage([len = len6] { (void)IpGenAddrWithMask(ip6AddrZero, len); }),
              "Invalid IPv6 Prefix Length");
  }
  EXPECT_EQ(rangeMessage([] { (void)IpGenAddrWithMask(IpAddrWithMask(IpAddr(), 40)); }),
            "Invalid IPv4 Prefix Length");
  EXPECT_EQ(IpGenAddrWithMask(IpAddrWithMask("10.1.2.3/24")), IpGenAddrWithMask(IpGenAddr("10.1.2.3"), 24));
  table::expectOrdered<IpGenAddrWithMask>({IpGenAddrWithMask(), IpGenAddrWithMask("10.1.2.3/8"),
                                           IpGenAddrWithMask("10.1.2.3/24"), IpGenAddrWithMask("10.1.2.4/0"),
                                           IpGenAddrWithMask("::/0")});
}

TEST(IpGenAddrWithFullMask, TextsAndConstructors) {
  using T = IpGenAddrWithFullMask;
  table::expectReads<T>({"10.1.2.3/255.255.255.0 -> 10.1.2.3/24", "10.1.2.3/24", "10.1.2.3/0",
                         "10.1.2.3/255.0.255.0", "10.1.2.3/000000000000000000000000000008 -> 10.1.2.3/8"});
  table::expectReads<T>(
      {"fe80::1/ffff:ffff:: -> fe80::1/32", "fe80::1/128", "::ffff:1.2.3.4/::ffff:255.0.255.0"}, true);
  const T before(IpAddr(9, 9, 9, 9), 9);
  table::expectRefused(before, "Invalid IPv4/IPv6 address",
                       {"", "10", "10/1.2.3.4", "10.1.2.3/24 ", "10.1.2.3/24\0"sv, "fe80::1/ff::\0"sv});
  table::expectRefused(before, "Invalid IPv4 address", {"10.1.2/24"});
  table::expectRefused(before, "Invalid IPv6 address", {"1:2/24"});
  table::expectRefused(before, "premature end of Prefix type", {"10.1.2.3", "10.1.2.3/", "fe80::1"});
  table::expectRefused(before, "Invalid IPv4 mask", {"10.1.2.3/255.0.0", "10.1.2.3/ff::"});
  table::expectRefused(before, "Invalid IPv4 prefix", {"10.1.2.3/x"});
  table::expectRefused(before, "Invalid IPv4 prefix length",
                       {"10.1.2.3/33", "10.1.2.3/4294967297", "10.1.2.3/100000000000000000000000000008"});
  table::expectRefused(before, "Invalid IPv6 mask", {"fe80::1/255.0.0.0", "fe80::1/f:"});
  table::expectRefused(before, "Invalid IPv6 prefix",
                       {"fe80::1/ff", "fe80::1/129", "fe80::1/100000000000000000000000000008"});
  for (unsigned len = 0; len <= 32; ++len) {
    EXPECT_EQ(T(IpAddr(1, 2, 3, 4), len).prefixLen().value(), static_cast<int>(len));
  }
  EXPECT_EQ(T(ip6AddrMld, 77).prefixLen().value(), 77);
  EXPECT_FALSE(T(IpAddr(1, 2, 3, 4), IpAddr(255, 0, 255, 0)).hasPrefixRepr());
  EXPECT_EQ(T(IpAddr(1, 2, 3, 4), IpAddr(255, 0, 255, 0)).prefixLen(), T::PrefixLen::invalid);
  for (const auto& [len4, len6] : {std::pair<Kiv::U64, Kiv::U64>(33, 129), {129, 200}, {kWraps, kWraps}}) {
    EXPECT_EQ(rangeMessage([len = len4] { (void)T(IpAddr(), len); }), "Invalid IPv4 prefix length");
    EXPECT_EQ(rangeMessage([len = len4] { (void)T(IpGenAddr("1.2.3.4"), len); }),
              "Invalid IPv4 prefix length");
    EXPECT_EQ(rangeMessage([len = len6] { (void)T(ip6AddrZero, len); }), "Invalid IPv6 prefix");
    EXPECT_EQ(rangeMessage([len = len6] { (void)T(IpGenAddr("::"), len); }), "Invalid IPv6 prefix");
  }
  EXPECT_EQ(rangeMessage([] { (void)T(IpGenAddr("1.2.3.4"), IpGenAddr("::")); }),
            "Invalid IPv4/IPv6 address");
  for (const T& value : {T(), T(IpAddr(1, 2, 3, 4), 8), T(ip6AddrMld, 77)}) {
    EXPECT_EQ(T(value.address(), value.prefixLen()), value);
  }
  EXPECT_EQ(rangeMessage([] { (void)T(IpGenAddr("::"), T::PrefixLen(T::PrefixLen::invalid)); }),
            "Invalid IPv6 prefix");
  EXPECT_EQ(rangeMessage([] { (void)T(IpGenAddr(), 1); }), "Invalid IPv4/IPv6 address");
  table::expectOrdered<T>(
      {T(), T(IpAddr(1, 2, 3, 4), 0), T(IpAddr(1, 2, 3, 4), 8), T(IpAddr(1, 2, 3, 5), 0), T(ip6AddrZero, 1)});

  constexpr auto kRange = "PrefixLen::value < PrefixLen::invalid or > PrefixLen::max not allowed";
  EXPECT_EQ(rangeMessage([] { (void)T::PrefixLen(-2); }), kRange);
  EXPECT_EQ(rangeMessage([] { (void)T::PrefixLen(129); }), kRange);
  EXPECT_EQ(rangeMessage([] { (void)T::PrefixLen(0xffff'ffffu); }), kRange);
  EXPECT_EQ(rangeMessage([] { (void)T::PrefixLen(Kiv::U64{1} << 32); }), kRange);
  EXPECT_EQ(rangeMessage([] {
              Kiv::NboAttrLog log(table::logged(Kiv::S32{-2}));
              T::PrefixLen read;
              log >> read;
            }),
            kRange);
  table::expectOrdered<T::PrefixLen>({-1, 0, 1, 128});
  table::expectReads<T::PrefixLen>({"-1", "0", "128"});
  const T::PrefixLen len(5);
  table::expectRefused(len, kRange, {"129", "-2", "999999999999999999999999999999", "-18446744073709551615"});
  table::expectRefused(len, "Invalid PrefixLen", {"-", "1x", "5\0"sv});
}

TEST(IpGenPrefixColl, IsASetThatReactorsCanWatch) {
  IpGenPrefixColl coll;
  EXPECT_TRUE(coll.prefixIs(IpGenPrefix("::/0")) && coll.prefixIs(IpGenPrefix("10.0.0.0/16")) &&
              coll.prefixIs(IpGenPrefix("10.0.0.0/8")));
  EXPECT_FALSE(coll.prefixIs(IpGenPrefix("::/0")) || coll.prefixDel(IpGenPrefix("::/1")));
  EXPECT_EQ(table::streamed(coll), "{10.0.0.0/8, 10.0.0.0/16, ::/0}");
  const auto config = Kiv::makePtr<IpGenPrefixSetConfig>("permit");
  int changes = 0;
  const Kiv::Reactor reactor(config->prefixes, [&] { ++changes; });
  config->prefixesIs(coll);
  config->prefixesIs(coll);
  EXPECT_EQ(changes, 1);
  EXPECT_TRUE(config->prefixes().prefix(IpGenPrefix("10.0.0.0/8")));
  EXPECT_TRUE(coll.prefixDel(IpGenPrefix("::/0")) && coll.size() == 2);
  coll.prefixDelAll();
  EXPECT_EQ(table::streamed(coll), "{}");
}

}  // namespace
