// SPDX-License-Identifier: Apache-2.0
// What addresses do beside their texts, for which see TextsTest.cpp.

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "Wirl/value/AsNumber.h"
#include "Wirl/value/EthSegmentId.h"
#include "Wirl/value/EtherUtil.h"
#include "Wirl/value/Ip6AddrWithMask.h"
#include "Wirl/value/IpGenAddrWithMask.h"
#include "Wirl/value/IpGenAndPort.h"
#include "Wirl/value/IpGenPrefix.h"
#include "Wirl/value/IsisId.h"
#include "Wirl/value/MplsLabel.h"
#include "Wirl/value/Port.h"
#include "Wirl/value/RouteDistinguisher.h"
#include "tests/value/TextTable.h"

namespace {

using namespace Wirl;
using Kiv::NondeletableAttrException;
using Kiv::RangeException;
using table::messageOf;

/// An index that would be a good one if it wrapped at 32 bits.
constexpr Kiv::U64 kWide = Kiv::U64{1} << 32;

/// A type shows its octets as numbers of `size` of them, by index.
template <typename T>
void expectView(const std::string& name, unsigned size, auto get, auto set, auto del) {
  std::mt19937 random(1);
  T value;
  auto model = value.octets();
  const auto behind = static_cast<unsigned>(model.size()) / size;
  for (unsigned i = behind; i-- > 0;) {
    Kiv::U64 number = 0;
    for (unsigned k = i * size; k < (i + 1) * size; ++k) {
      number = number << 8 | (model[k] = static_cast<Kiv::U8>(random()));
    }
    set(value, i, number);
    EXPECT_EQ(get(value, i), number);
    EXPECT_EQ(value.octets(), model) << name << i;
  }
  const std::string why = ": index out of range";
  EXPECT_EQ(messageOf<RangeException>([&] { get(value, behind); }), name + why);
  EXPECT_EQ(messageOf<RangeException>([&] { set(value, behind, 1); }), name + "Is" + why);
  EXPECT_EQ(messageOf<NondeletableAttrException>([&] { del(value); }), name);
  EXPECT_EQ(value.octets(), model);
}
#define VIEW(view)                                                  \
  [](auto& value, unsigned i) { return value.view(i); },            \
      [](auto& value, unsigned i, Kiv::U64 n) {                     \
        value.view##Is(i, static_cast<decltype(value.view(0))>(n)); \
      },                                                            \
      [](auto& value) { value.view##Del(0); }

TEST(Values, ShowTheirOctetsByIndex) {
  expectView<EthAddr>("EthAddr::byte", 1, VIEW(byte));
  expectView<EthAddr>("EthAddr::word", 2, VIEW(word));
  expectView<Eui64>("Eui64::word", 2, VIEW(word));
  expectView<Ip6Addr>("Ip6Addr::u8", 1, VIEW(u8));
  expectView<Ip6Addr>("Ip6Addr::u16", 2, VIEW(u16));
  expectView<Ip6Addr>("Ip6Addr::u64", 8, VIEW(u64));
  Ip6Addr a;
  for (const auto& act : std::initializer_list<std::function<void()>>{
           [&] { (void)a.u8(kWide); }, [&] { (void)a.u8(Ip6AddrU8Key(256)); }, [&] { a.u8Is(kWide, 1); },
           [&] { a.u8Is(Ip6AddrU8Key(-256), 1); }, [&] { a.u16Is(kWide + 7, 1); }}) {
    EXPECT_THROW(act(), RangeException);
  }
  Eui64 e("0011.2233.4455.6677");
  EXPECT_EQ(e.byte(7), 0x77);
  e.byteIs(Eui64U8Key("1"), 0xff);
  e.byteIs(7, 1);
  e.byteDel(6);
  EXPECT_EQ(table::streamed(e), "00:ff:22:33:44:55:00:01");
  e.byteDelAll();
  EXPECT_EQ(e, Eui64());
  EXPECT_DEATH((void)e.byte(8), "index <= Eui64U8Key::max");
  EXPECT_DEATH(e.byteIs(256, 1), "index <= Eui64U8Key::max");
}

TEST(EthAddr, HasOtherForms) {
  const EthAddr a("02:00:5e:0a:0b:0c");
  EXPECT_TRUE(a.oui() == 0x02005e && a.station() == 0x0a0b0c);
  EXPECT_EQ(a.displayString(), "0200.5e0a.0b0c");
  EXPECT_EQ(a.eui64().stringValue(), "02:00:5e:ff:ff:0a:0b:0c");
  EXPECT_EQ(EthAddrWithMask().mask().stringValue(), "ff:ff:ff:ff:ff:ff");
}

/// Copies the octets of an address and no other.
template <typename T>
void expectCopies(const T& value) {
  unsigned char wire[18];
  std::fill_n(wire, 18, 9);
  const auto octets = value.octets();
  value.copyToBuffer(wire + 1);
  EXPECT_TRUE(wire[0] == 9 && wire[1 + octets.size()] == 9 &&
              std::equal(octets.begin(), octets.end(), wire + 1));
}

/// The log holds octets that the type does not: it throws, and leaves the value.
template <typename T>
void expectLogRefused(const Kiv::Bytes& octets, const T& before, std::string_view message) {
  Kiv::NboAttrLog log(octets);
  T value = before;
  EXPECT_EQ(messageOf<RangeException>([&] { log >> value; }), message);
  EXPECT_EQ(value, before);
}

TEST(Values, RefuseFromTheLogWhatNoTextGives) {
  expectLogRefused<Eui64U8Key>({8}, 3, "Eui64U8Key::value < 0 or > 7 not allowed");
  expectLogRefused<Ip6AddrU8Key>({16}, 3, "Ip6AddrU8Key::value < 0 or > 15 not allowed");
  expectLogRefused<Ip6PrefixLen>(
      {130}, 3, "Ip6PrefixLen::value < Ip6PrefixLen::min or > Ip6PrefixLen::invalid not allowed");
  expectLogRefused<Prefix>({10, 0, 0, 1, 0, 0, 0, 8}, Prefix("10.0.0.0/8"),
                           "Prefix::validAsPrefix != true not allowed");
  expectLogRefused(table::logged(Kiv::S32{-2}), IpGenAddrWithFullMask::PrefixLen(7),
                   "PrefixLen::value < PrefixLen::invalid or > PrefixLen::max not allowed");
  expectLogRefused<MplsLabel>({0, 0x10, 0, 0}, MplsLabel(3), "MplsLabel::value > 1048575 not allowed");
  expectLogRefused<MplsLabelStack>({17}, MplsLabelStack("1/2"), "MplsLabelStack::labels > 16 not allowed");
  expectLogRefused<PortRange>({0, 2, 0, 1}, PortRange("5"), "PortRange::first > PortRange::last not allowed");
  expectLogRefused<IsisAreaId>({0}, IsisAreaId("49"), "Invalid IsisAreaId");
  expectLogRefused<IsisAreaId>({14}, IsisAreaId("49"), "Invalid IsisAreaId");
  for (const std::size_t bad : {0u, 3u, 19u}) {  // no family, or a bit behind IPv4
    Kiv::Bytes broken = table::logged(IpGenAddr("10.0.0.1"));
    broken[bad] = static_cast<Kiv::U8>(broken[bad] ^ (bad == 3 ? 1 : 2));
    Kiv::NboAttrLog log(broken);
    IpGenAddr target = ip6AddrMld;
    EXPECT_THROW(log >> target, RangeException) << bad;
    EXPECT_EQ(target, IpGenAddr(ip6AddrMld));
  }
}

TEST(EtherUtil, MapsGroupsAndInterfaceIdentifiers) {
  EXPECT_EQ(ipMcastMacAddr(IpAddr(239, 129, 1, 2)).stringValue(), "01:00:5e:01:01:02");
  EXPECT_EQ(IpGenAddr(IpAddr(224, 127, 255, 254)).mcastEtherAddress().stringValue(), "01:00:5e:7f:ff:fe");
  EXPECT_EQ(IpGenAddr("2001:db8::12:3456:789a").mcastEtherAddress().stringValue(), "33:33:34:56:78:9a");
  EXPECT_TRUE(isIpMcastMacAddr(EthAddr("01:00:5e:7f:ff:ff")));
  for (const char* other :
       {"01:00:5e:80:00:00", "01:00:5f:00:00:00", "00:00:5e:00:00:00", "01:01:5e:00:00:00"}) {
    EXPECT_FALSE(isIpMcastMacAddr(EthAddr(other))) << other;
  }
  EXPECT_EQ(Ip6Addr("2001:db8::12:3456:789a").solicitedNodeMulticastAddr(), Ip6Addr("ff02::1:ff56:789a"));
  EXPECT_EQ(ip6LinkLocalFromMac(EthAddr("00:00:5e:01:02:03")), Ip6Addr("fe80::200:5eff:fe01:203"));
  EXPECT_EQ(ip6LinkLocalFromMac(EthAddr("02:00:00:00:00:00")), Ip6Addr("fe80::ff:fe00:0"));
  EXPECT_EQ(Ip6Addr("febf:1:2:3:4:5:6:7").validLlUnicastAddress(), Ip6Addr("fe80::4:5:6:7"));
  EXPECT_EQ(messageOf<RangeException>([] { (void)Ip6Addr("2001:db8::1").validLlUnicastAddress(); }),
            "Not an address that belongs to subnet fe80::/10");
}

/// Runs in a process of its own, where the toggle has not been read: exits with a bit for each expectation
/// that fails, after the file has been changed behind the first call's back.
[[noreturn]] void exitWithReserved(const std::string& content, bool expected) {
  std::string directory = (std::filesystem::temp_directory_path() / "valueTestXXXXXX").string();
  if (!mkdtemp(directory.data())) std::exit(99);
  setenv("OPTRA_DIR", directory.c_str(), 1);
  const auto file = std::filesystem::path(directory) / "Wirl.json";
  const auto toggle = [&](const std::string& value) {
    if (!value.empty()) std::ofstream(file) << "{\"Ipv4Routable240ClassE\": " << value << "}";
  };
  toggle(content);
  // The first call decides, and is one that needs no toggle to answer.
  int failures = IpAddr(10, 0, 0, 1).isReserved() ? 1 : 0;
  toggle(expected ? "true" : "false");
  failures |= IpAddr(240, 0, 0, 0).isReserved() != expected ? 2 : 0;
  failures |= IpAddr(255, 255, 255, 254).isReserved() != expected ? 4 : 0;
  failures |= IpAddr(239, 255, 255, 255).isReserved() || IpAddr(255, 255, 255, 255).isReserved() ? 8 : 0;
  std::filesystem::remove_all(directory);
  std::exit(failures);
}

TEST(IpAddrDeathTest, ClassEIsReservedUnlessTheToggleIsOnWhenFirstAsked) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child is a new process, and reads the toggle itself
  for (const char* content : {"", "1", "false", "true"}) {
    const bool reserved = content != std::string_view("true");
    EXPECT_EXIT(exitWithReserved(content, reserved), testing::ExitedWithCode(0), "") << content;
  }
}

TEST(Values, CopyToTheWire) {
  expectCopies(EthAddr("02:00:5e:0a:0b:0c"));
  expectCopies(IpAddr(10, 1, 2, 3));
  expectCopies(Ip6Addr("2001:db8::1234"));
  Ip6Addr back;
  back.copyFromBuffer(Ip6Addr("2001:db8::1234").octets().data());
  EXPECT_EQ(back, Ip6Addr("2001:db8::1234"));
  const IpAddr a(10, 1, 2, 3);
  EXPECT_EQ(a.netOrder(), htonl(0x0a010203));
  EXPECT_EQ(IpAddr::fromNetOrder(a.netOrder()), a);
  EXPECT_EQ((a & IpAddr("255.255.0.0")) | (~IpAddr("255.255.255.0") & IpAddr("1.1.1.9")), IpAddr("10.1.0.9"));
}

template <typename Address>
void expectMasks(unsigned bits) {
  const Address ones = ~Address();
  for (unsigned len = 0; len <= bits; ++len) {
    const Address mask = Address::maskOfLength(len);
    for (unsigned i = 0; i < bits; ++i) ASSERT_EQ(mask.octets()[i / 8] >> (7 - i % 8) & 1, i < len);
    EXPECT_EQ(ones.maskedByLength(len), mask);
    EXPECT_EQ(ones.longestCommonPrefix(mask), len);
    EXPECT_EQ(Address().longestCommonPrefix(~mask), len);
  }
  EXPECT_EQ(ones.maskedByLength(~0u), ones);
}

TEST(Values, HaveMasksAndCommonPrefixesOfEveryLength) {
  expectMasks<IpAddr>(32);
  expectMasks<Ip6Addr>(128);
  for (unsigned len = 0; len <= 128; ++len) {
    EXPECT_EQ((~Ip6Addr()).ip6AddrMaskedByLength(len), Ip6Addr::maskOfLength(len));
    const Ip6AddrWithFullMask masked(ip6AddrLoopback, len);
    EXPECT_TRUE(masked.prefixLen() == Ip6PrefixLen(len) && masked.mask() == Ip6Addr::maskOfLength(len));
  }
  EXPECT_EQ(ip6AddrMld.maskedByLength(kWide), ip6AddrMld);
  EXPECT_DEATH(ip6AddrMld.ip6AddrMaskedByLength(129), "assertion failed: len <= 128");
  EXPECT_DEATH((void)Ip6AddrWithFullMask(Ip6Addr(), kWide), "assertion failed: len <= 128");
  EXPECT_FALSE(Ip6AddrWithFullMask(ip6AddrLoopback, Ip6Addr("ffff:0:ffff::")).hasPrefixRepr());
}

TEST(Ip6Addr, ParserMovesThePositionOverOneAddressOnly) {
  const Kiv::String text = "2001:db8::1/64";
  Kiv::String::IteratorConst pos = text.begin();
  Ip6Addr address;
  Ip6AddrFromString(address, pos, text.end());
  EXPECT_EQ(address, Ip6Addr("2001:db8::1"));
  EXPECT_EQ(pos, text.begin() + 11);
  EXPECT_EQ(messageOf<RangeException>([&] { Ip6AddrFromString(address, pos, text.end()); }),
            "Ip6Addr: hex digit expected");
  EXPECT_EQ(address, Ip6Addr("2001:db8::1"));
  EXPECT_EQ(pos, text.begin() + 11);
}

TEST(Ip6Addr, ExpandedFormIsLenientButForTheShortestText) {
  EXPECT_EQ(Ip6Addr("2001:db8::10.1.2.3").stringValueExpanded(), "2001:0db8:0000:0000:0000:0000:0a01:0203");
  Ip6Addr address = ip6AddrLoopback;
  address.stringValueExpandedIs("0:0:0:0:0:0:0:0");
  EXPECT_EQ(address, ip6AddrZero);
  address.stringValueExpandedIs("1::2");
  for (const auto& [text, message] : {std::pair("::", "Ip6Addr: address is not expanded"),
                                      {"::1 ", "Ip6Addr: unexpected trailing characters"},
                                      {"1:2", "Ip6Addr: incomplete ipv6 address"}}) {
    EXPECT_EQ(messageOf<RangeException>([&, text = text] { address.stringValueExpandedIs(text); }), message);
    EXPECT_EQ(address, Ip6Addr("1::2"));
  }
}

TEST(IpGenAddr, HoldsEitherFamily) {
  const IpGenAddr v4("10.0.0.1");
  const IpGenAddr v6 = ip6AddrLoopback;
  const IpGenAddr empty{std::string_view()};
  EXPECT_TRUE(empty == IpGenAddr() && empty.size() == 16 && empty.stringValue() == "::" &&
              empty.isUnspecified());
  EXPECT_FALSE(empty.next() || empty.distance(empty) || empty.isAny());
  EXPECT_TRUE(v4.v4Addr() == IpAddr(10, 0, 0, 1) && v4.v6Addr() == ip6AddrZero && v6.v4Addr() == IpAddr() &&
              v6.v6Addr() == ip6AddrLoopback);
  for (const IpGenAddr& each : {v4, v6}) {
    const std::string octets = each.bytes();
    std::string copy(octets.size() + 1, 'x');
    each.copyToBuffer(reinterpret_cast<unsigned char*>(copy.data()));
    EXPECT_TRUE(copy == octets + 'x' && octets.back() == 1 && octets.size() == (each == v4 ? 4 : 16));
  }
  EXPECT_EQ(v4.longestCommonPrefix(IpAddr(10, 0, 0, 3)), 30u);
  EXPECT_EQ(v4.longestCommonPrefix(v6), 4u);  // of 10.0.0.1 and 0.0.0.0
  EXPECT_EQ(v6.longestCommonPrefix(v4), 127u);
  EXPECT_EQ(IpGenAddr::getMappedV4Addr(Ip6Addr("::ffff:10.0.0.1")), v4);
  EXPECT_EQ(IpGenAddr::getV4MappedV6Addr(v4), IpGenAddr(Ip6Addr("::ffff:10.0.0.1")));
  for (const IpGenAddr& other :
       {IpGenAddr::getMappedV4Addr(v6), IpGenAddr::getMappedV4Addr(v4), IpGenAddr::getV4MappedV6Addr(v6)}) {
    EXPECT_EQ(other, IpGenAddr());
  }
  for (const char* text : {"ipunknown", "ipv4", "ipv6"}) {
    EXPECT_EQ(table::streamed(addressFamilyFromString(text)), text);
  }
  EXPECT_EQ(messageOf<RangeException>([] { addressFamilyFromString("IPV4"); }), "Invalid AddressFamily");
}

TEST(IpGenAndPort, PassesThroughSocketAddresses) {
  for (const char* text : {"192.0.2.1:179", "[2001:db8::1]:65535", "[fe80::1%7]:1"}) {
    const IpGenAndPort value{std::string_view(text)};
    socklen_t length = 0;
    const auto address = value.toSockaddr(length);
    ASSERT_TRUE(address) << text;
    EXPECT_EQ(IpGenAndPort::fromSockaddr(*address, length), value) << text;
    EXPECT_FALSE(IpGenAndPort::fromSockaddr(*address, length - 1)) << text;
    sockaddr_in6 v6;
    std::memcpy(&v6, &*address, sizeof(v6));
    EXPECT_EQ(ntohs(v6.sin6_port), value.port()) << "at the same place in both";
    EXPECT_TRUE(!value.zone() || v6.sin6_scope_id == 7);
  }
  socklen_t length = 0;
  EXPECT_FALSE(IpGenAndPort("[fe80::1%eth0]:1").toSockaddr(length) || IpGenAndPort().toSockaddr(length) ||
               IpGenAndPort::fromSockaddr(sockaddr_storage{}, sizeof(sockaddr_storage)));
  EXPECT_EQ(IpGenAndPort(IpGenAddr(), 5).stringValue(), "[::]:5");
  for (const char* name : {"7", "a]b", "a%b"}) EXPECT_THROW(Ip6Zone{InterfaceName(name)}, RangeException);
  EXPECT_EQ(table::streamed(IpAndPort("10.0.0.1:179")),
            "Value('Wirl::IpAndPort', ** {'ip': 10.0.0.1, 'port': 179})");
}

TEST(Identifiers, SayWhatTheyAre) {
  std::string kinds;
  for (const Kiv::U32 number : {1u, 23456u, 64495u, 64496u, 64511u, 64512u, 65534u, 65535u, 65536u, 65551u,
                                65552u, 4'199'999'999u, 4'200'000'000u, 4'294'967'294u, 4'294'967'295u}) {
    const AsNumber as(number);
    kinds += as.isPrivate()         ? 'p'
             : as.isDocumentation() ? 'd'
             : as.isReserved()      ? 'r'
             : as.isTwoOctets()     ? '2'
                                    : '4';
  }
  EXPECT_EQ(kinds, "2r2ddpprdd44ppr");
  EXPECT_EQ(AsNumber(65535).asdot() + " " + AsNumber(65536).asdot() + " " + AsNumber(65535).asdotPlus(),
            "65535 1.0 0.65535");
  EXPECT_EQ(RouteDistinguisher(AsNumber(65536), 7).stringValue(), "1.0:7");
  EXPECT_THROW(RouteDistinguisher(AsNumber(65536), 65536), RangeException);
  const RouteDistinguisher rd(IpAddr(192, 0, 2, 1), 7);
  EXPECT_TRUE(rd.address() == IpAddr(192, 0, 2, 1) && rd.number() == 7 && rd.as() == AsNumber());
  EXPECT_EQ(table::logged(rd), (Kiv::Bytes{0, 1, 192, 0, 2, 1, 0, 7}));
  const EthAddr mac("02:00:5e:00:00:01");
  EXPECT_EQ(EthSegmentId::ofLacp(mac, 0x1234).stringValue(), "01:02:00:5e:00:00:01:12:34:00");
  EXPECT_EQ(EthSegmentId::ofSystem(mac, 0xffffff).system(), mac);
  EXPECT_THROW(EthSegmentId::ofSystem(mac, 0x1000000), RangeException);
  EXPECT_TRUE(EthSegmentId::maximum().isMaximum() && EthSegmentId().isZero());
  EXPECT_EQ(IsisSystemId(mac).stringValue() + IsisAreaId().stringValue(), "0200.5e00.000100");
  EXPECT_TRUE(PortRange("1-9").contains(PortRange("9")) && PortRange("1-9").overlaps(PortRange("9-10")) &&
              !PortRange("1-9").overlaps(PortRange("10")) && PortRange("0-65535").size() == 65536);
}

TEST(MplsLabelStack, PassesOverTheWire) {
  MplsLabelStack stack("100/200/1048575");
  unsigned char wire[12];
  stack.copyToBuffer(wire, 5, 64);
  EXPECT_EQ(Kiv::Bytes(wire, wire + 12), (Kiv::Bytes{0, 6, 0x4a, 64, 0, 12, 0x8a, 64, 0xff, 0xff, 0xfb, 64}));
  EXPECT_EQ(MplsLabelStack::fromWire(wire), stack);
  EXPECT_FALSE(MplsLabelStack::fromWire(std::span(wire).first(11)));
  EXPECT_TRUE(stack.push(MplsLabel(3)) && stack.stringValue() == "3/100/200/1048575" &&
              stack.pop() == MplsLabel(3));
  for (int i = 0; i < 13; ++i) EXPECT_TRUE(stack.push(mplsImplicitNull));
  EXPECT_FALSE(stack.push(mplsImplicitNull));
  const unsigned char endless[68] = {};
  EXPECT_FALSE(MplsLabelStack::fromWire(endless));
}

}  // namespace
