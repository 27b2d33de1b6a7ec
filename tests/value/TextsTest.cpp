// SPDX-License-Identifier: Apache-2.0
// The texts of all value types, against what the slow reader (texts.py) makes of them.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Wirl/value/AsNumber.h"
#include "Wirl/value/EthSegmentId.h"
#include "Wirl/value/IpDscp.h"
#include "Wirl/value/IpGenAddrWithMask.h"
#include "Wirl/value/IpGenAndPort.h"
#include "Wirl/value/IpTtl.h"
#include "Wirl/value/IsisId.h"
#include "Wirl/value/Literals.h"
#include "Wirl/value/MplsLabel.h"
#include "Wirl/value/OspfId.h"
#include "Wirl/value/Port.h"
#include "Wirl/value/VrfMap.h"
#include "Wirl/value/detail/DottedText.h"
#include "Wirl/value/detail/HexGroups.h"
#include "Wirl/value/detail/Ip6Text.h"
#include "tests/value/TextTable.h"

namespace {

using namespace Wirl;
using namespace Wirl::literals;

using Fields = std::vector<std::string>;

/// The fields of the rows of one kind, by type.
std::vector<Fields> rowsOf(std::string_view kind) {
  std::vector<Fields> rows;
  std::ifstream file(WIRL_TESTS_VALUE "/texts.tsv");
  for (std::string line; std::getline(file, line);) {
    Fields fields(1);
    for (std::size_t i = 0; i < line.size(); ++i) {
      if (line[i] == '\t') {
        fields.emplace_back();
      } else if (line[i] == '\\') {
        fields.back() += static_cast<char>(std::stoi(line.substr(i + 2, 2), nullptr, 16));
        i += 3;
      } else {
        fields.back() += line[i];
      }
    }
    if (fields[0] == kind) rows.push_back(fields);
  }
  EXPECT_FALSE(rows.empty());
  return rows;
}

/// `printToBuffer` of IPv6 values returns what it stored, that of all others the whole length.
template <typename T>
bool returnsStored(const T& value) {
  if constexpr (std::derived_from<T, detail::Ip6TextForms<T>>) return true;
  if constexpr (std::derived_from<T, IpGenPrefixBase> || std::derived_from<T, detail::GenPrintForms<T>>) {
    return value.af() != AddressFamily::ipv4;
  }
  return false;
}

/// What a type makes of a text, told without assertions, which take the compiler long in each of forty types.
struct Reading {
  bool reads = false;
  std::size_t taken = 0;
  bool readsWhole = false;
  std::string refusal;            ///< what the setter throws
  bool setterKeepsFaith = false;  ///< the setter sets the value that was read, or leaves the old one
  bool waysAgree = false;         ///< front, whole, constructor and canonical text give one value
  std::string printed;
  table::PrintTo print;
  bool returnsStored = false;
};

template <typename T>
concept FromNull = requires {
  T(nullptr);
}
|| requires {
  T::fromText(nullptr);
}
|| requires(T t) {
  t.stringValueIs(nullptr);
};

template <typename T>
Reading readingOf(std::string_view text, std::string_view canonical) {
  static_assert(!FromNull<T>);
  Reading reading;
  std::string_view rest = text;
  T front;
  reading.reads = T::parse(rest, front) == nullptr;
  reading.taken = text.size() - rest.size();
  const auto whole = T::fromText(text);
  reading.readsWhole = whole.has_value();
  T thrown;
  reading.refusal = table::messageOf<Kiv::RangeException>([&] { thrown.stringValueIs(text); });
  reading.setterKeepsFaith = thrown == (whole ? *whole : T());
  if (!reading.reads) return reading;
  reading.waysAgree = (!whole || (*whole == front && T(text) == front)) && T::fromText(canonical) == front;
  reading.printed = front.stringValue();
  reading.print = [front](char* buffer, unsigned size) { return front.printToBuffer(buffer, size); };
  reading.returnsStored = returnsStored(front);
  return reading;
}

void expectRead(const Fields& row, Reading (*read)(std::string_view, std::string_view)) {
  // In a place of its own, where AddressSanitizer sees an octet that is read behind it.
  const std::vector<char> exact(row[2].begin(), row[2].end());
  const std::string& canonical = row[4];
  const std::string& message = row[5];
  const bool reads = row[3] != "-";
  const Reading reading = read({exact.data(), exact.size()}, canonical);
  ASSERT_EQ(reading.reads, reads);
  ASSERT_EQ(reading.taken, reads ? std::stoul(row[3]) : 0);
  ASSERT_EQ(reading.readsWhole, message.empty());
  ASSERT_EQ(reading.refusal, message.empty() ? "nothing thrown" : message);
  ASSERT_TRUE(reading.setterKeepsFaith);
  if (!reads) return;
  ASSERT_TRUE(reading.waysAgree);
  ASSERT_EQ(reading.printed, canonical);
  table::expectPrintsInto(reading.print, canonical, reading.returnsStored);
}

template <typename T>
void expectOrder(const Fields& row) {
  std::vector<T> ascending;
  for (std::size_t i = 2; i < row.size(); ++i) ascending.emplace_back(std::string_view(row[i]));
  table::expectOrdered(ascending);
}

/// hash(), hash(5) and the octets in the attribute log.
template <typename T>
std::string bitsOf(std::string_view text) {
  const T value(text);
  std::string bits = std::to_string(value.hash()) + " " + std::to_string(value.hash(5)) + " ";
  for (const Kiv::U8 octet : table::logged(value)) {
    bits += "0123456789abcdef"[octet >> 4];
    bits += "0123456789abcdef"[octet & 15];
  }
  return bits;
}

struct Checks {
  Reading (*read)(std::string_view text, std::string_view canonical);
  void (*order)(const Fields&);
  std::string (*bits)(std::string_view text);
};
template <typename T>
constexpr Checks checks{readingOf<T>, expectOrder<T>, bitsOf<T>};

const std::map<std::string, Checks> kTypes = {
#define TYPE(name) \
  { #name, checks < name> }
    TYPE(EthAddr),
    TYPE(EthAddrWithMask),
    TYPE(Eui64),
    TYPE(Eui64U8Key),
    TYPE(IpAddr),
    TYPE(Prefix),
    TYPE(IpAddrWithMask),
    TYPE(IpAddrWithFullMask),
    TYPE(IpAndPort),
    TYPE(Ip6Addr),
    TYPE(Ip6AddrU8Key),
    TYPE(Ip6PrefixLen),
    TYPE(Ip6Prefix),
    TYPE(Ip6AddrWithMask),
    TYPE(Ip6AddrWithFullMask),
    TYPE(IpGenAddr),
    TYPE(IpGenPrefix),
    TYPE(IpGenAddrWithMask),
    TYPE(IpGenAddrWithFullMask),
    TYPE(IpGenAddrWithFullMask::PrefixLen),
    TYPE(IpDscp),
    TYPE(IpTtl),
    TYPE(U128),
    TYPE(AsNumber),
    TYPE(RouteDistinguisher),
    TYPE(EthSegmentId),
    TYPE(MplsLabel),
    TYPE(MplsLabelStack),
    TYPE(Port),
    TYPE(PortRange),
    TYPE(InterfaceIndex),
    TYPE(InterfaceName),
    {"VrfId", checks<L3::VrfId>},
    TYPE(OspfAreaId),
    TYPE(RouterId),
    TYPE(IsisSystemId),
    TYPE(IsisAreaId),
    TYPE(Ip6Zone),
    TYPE(Ip6AndPort),
    TYPE(IpGenAndPort)
#undef TYPE
};

TEST(Texts, AreReadAndPrintedAsBySlowReader) {
  std::size_t types = 0;
  std::string last;
  for (const Fields& row : rowsOf("read")) {
    SCOPED_TRACE(row[1] + ": " + row[2]);
    types += std::exchange(last, row[1]) != row[1];
    ASSERT_NO_FATAL_FAILURE(expectRead(row, kTypes.at(row[1]).read));
  }
  EXPECT_EQ(types, kTypes.size());
}

TEST(Texts, ValuesSortAsTheSlowReaderSortsThem) {
  for (const Fields& row : rowsOf("order")) {
    SCOPED_TRACE(row[1]);
    kTypes.at(row[1]).order(row);
  }
}

TEST(Texts, HashesAndTheLogAreThoseOfTheSlowReader) {
  for (const Fields& row : rowsOf("bits")) {
    EXPECT_EQ(kTypes.at(row[1]).bits(row[2]), row[3] + " " + row[4] + " " + row[5])
        << row[1] << ' ' << row[2];
  }
}

template <typename T>
using Predicates = std::vector<std::pair<const char*, bool (T::*)() const noexcept>>;

template <typename T>
void expectHolds(const Fields& row, const Predicates<T>& predicates) {
  const T value{std::string_view(row[2])};
  for (const auto& [name, holds] : predicates) {
    EXPECT_EQ((value.*holds)(), std::find(row.begin() + 3, row.end(), name) != row.end())
        << row[2] << ' ' << name;
  }
}

TEST(Texts, PredicatesHoldWhereTheSlowReaderSaysSo) {
#define HOLDS(name) \
  { #name, &Address::is##name }
#define HOLDS_BOTH                                                                              \
  HOLDS(Unicast), HOLDS(Multicast), HOLDS(LinkLocalUnicast), HOLDS(LinkLocal), HOLDS(Loopback), \
      HOLDS(LoopbackBase), HOLDS(Unspecified), HOLDS(PimRouters), HOLDS(RoutableMulticast),     \
      HOLDS(LinkLocalMulticast)
  for (const Fields& row : rowsOf("holds")) {
    if (row[1] == "EthAddr") {
      using Address = EthAddr;
      expectHolds<Address>(row, {HOLDS(Broadcast), HOLDS(Unicast), HOLDS(Multicast), HOLDS(Ip6Multicast),
                                 HOLDS(Ip4LinkLocalMulticast), HOLDS(IEEELinkConstrained)});
    } else if (row[1] == "IpAddr") {
      using Address = IpAddr;
      expectHolds<Address>(row,
                           {HOLDS_BOTH, HOLDS(Zero), HOLDS(Any), HOLDS(ThisNetwork), HOLDS(ReservedMulticast),
                            HOLDS(Broadcast), HOLDS(Reserved), HOLDS(Private)});
    } else if (row[1] == "Ip6Addr") {
      using Address = Ip6Addr;
      expectHolds<Address>(row, {HOLDS_BOTH, HOLDS(Zero), HOLDS(LinkLocalUnicast2), HOLDS(GlobalUnicast),
                                 HOLDS(SiteLocal), HOLDS(UniqueLocal), HOLDS(V4MappedV6)});
    } else {
      using Address = IpGenAddr;
      expectHolds<Address>(row, {HOLDS_BOTH, HOLDS(Any), HOLDS(Reserved), HOLDS(ThisNetwork),
                                 HOLDS(Broadcast), HOLDS(V4LinkLocal), HOLDS(V6LinkLocal)});
    }
  }
}

/// The readers of sixteen characters at a time, the loops that other machines and constant expressions use.
void expectWaysAgree(std::string_view text) {
  const auto same = [&](detail::Taken a, detail::Taken b) {
    ASSERT_EQ(a.length, b.length) << text;
    ASSERT_TRUE(a.length == 0 || a.octets == b.octets) << text;
  };
  using detail::Extent;
  const auto dotted = detail::takeDottedLoop(text);
  same(detail::takeDotted(text, Extent::front), dotted);
  same(detail::takeDotted(text, Extent::whole), dotted.within(text.size(), Extent::whole));
  same(detail::takeDottedPlainly(text, Extent::front), dotted);
  same(detail::takeEthAddr(text), detail::takeHexGroupsLoop(text, 6).within(text.size(), Extent::whole));
  same(detail::takeHexGroupsPlainly(text), detail::takeEthAddr(text));
#if WIRL_HAS_SSSE3
  if (!detail::hasSsse3() || text.size() < 4) return;
  const auto slow = detail::ip6OutlineLoop(text);
  const auto fast = detail::ip6OutlineSsse3(text.data(), text.size());
  ASSERT_TRUE(fast.length == slow.length && fast.colons == slow.colons && fast.dots == slow.dots) << text;
#endif
}

TEST(Texts, EveryWayOfReadingAndPrintingAgrees) {
  std::vector<std::string> texts;
  for (const Fields& row : rowsOf("read")) {
    if (row[1] == "IpAddr" || row[1] == "EthAddr" || row[1] == "Ip6Addr") texts.push_back(row[2]);
  }
  std::independent_bits_engine<std::mt19937, 32, Kiv::U32> random(20240607);
  for (int round = 0; round < 300'000; ++round) {
    std::string text = texts[random() % texts.size()];
    for (unsigned changes = random() % 4; changes > 0 && !text.empty(); --changes) {
      const std::size_t at = random() % text.size();
      if (random() % 2) {
        text[at] = "0129:./-aF gG@`\xb2\0"[random() % 17];
      } else if (random() % 2) {
        text.insert(at, random() % 5 ? 1 : 9, "02f:.-"[random() % 6]);
      } else {
        text.erase(at, 1 + random() % 3);
      }
    }
    const std::vector<char> exact(text.begin(), text.end());
    ASSERT_NO_FATAL_FAILURE(expectWaysAgree({exact.data(), exact.size()}));
  }
  for (int round = 0; round < 100'000; ++round) {
    // Printing: against the C library for IPv4 and IPv6, and its two ways.
    std::array<Kiv::U8, 16> octets{};
    for (unsigned i = 0; i < 16; i += 2) {
      const Kiv::U32 group = random() % 2 ? 0 : (random() & 0xffff) >> random() % 16;
      octets[i] = static_cast<Kiv::U8>(group >> 8);
      octets[i + 1] = static_cast<Kiv::U8>(group);
    }
    const Ip6Addr address(octets);
    ASSERT_EQ(Ip6Addr::fromText(address.stringValue()), address);
    char v4[48], mac[48];
    std::snprintf(v4, sizeof(v4), "%d.%d.%d.%d", octets[0], octets[1], octets[2], octets[3]);
    ASSERT_EQ(IpAddr(octets[0], octets[1], octets[2], octets[3]).stringValue(), v4);
    std::snprintf(mac, sizeof(mac), "%02x:%02x:%02x:%02x:%02x:%02x", octets[0], octets[1], octets[2],
                  octets[3], octets[4], octets[5]);
    ASSERT_EQ(EthAddr(octets[0], octets[1], octets[2], octets[3], octets[4], octets[5]).stringValue(), mac);
#if WIRL_HAS_SSSE3
    if (!detail::hasSsse3()) continue;
    char slow[48], fast[48];
    const unsigned length = detail::writeIp6GroupsPlainly(octets, slow);
    ASSERT_EQ(length, detail::writeIp6GroupsSsse3(octets, fast));
    ASSERT_STREQ(slow, fast);
#endif
  }
}

// The compiler reads by the same functions; what it refuses is no constant.
template <auto kMake>
concept IsConstant = requires {
  typename std::bool_constant<(kMake(), true)>;
};
#define SAME(type, text)                                 \
  {                                                      \
    constexpr type value(text);                          \
    EXPECT_EQ(type::fromText(std::string(text)), value); \
  }
#define REFUSED(type, text)                              \
  static_assert(!IsConstant<[] { return type(text); }>); \
  EXPECT_FALSE(type::fromText(std::string(text)).has_value())

TEST(Texts, TheCompilerReadsWhatTheProgramReads) {
  SAME(EthAddr, "0200.5e10.0b0c")
  SAME(EthAddrWithMask, "Value('Wirl::EthAddrWithMask', ** {'mac': 2:0:0:0:0:1, 'mask': 1.2.3})")
  SAME(IpAddr, "010.1.2.003")
  SAME(Ip6Addr, "2001:db8::192.0.2.1")
  SAME(Ip6AddrWithFullMask, "::1/ffff::")
  SAME(RouteDistinguisher, "65536:1")
  SAME(IpGenAndPort, "[fe80::1%eth0]:179")
  REFUSED(EthAddr, "1:2:3:4:5");
  REFUSED(IpAddr, "256.0.0.1");
  REFUSED(Ip6Addr, "1::2::3");
  static_assert(std::same_as<decltype("10.0.0.0/8"_prefix), Prefix> && "10.0.0.0/8"_prefix.len() == 8);
  static_assert(std::same_as<decltype("::/8"_prefix), Ip6Prefix> && "::1"_ip == ip6AddrLoopback);
  static_assert("192.0.2.1"_ip.hostOrder() == 0xc000'0201 && "10.1.2.3/24"_ipWithMask.len() == 24);
  static_assert("[::1]:179"_ipAndPort.port() == 179 && "65000:1"_rd.as() == "65000"_as);
  static_assert("02:00:5e:00:00:01"_mac.station() == 1);
}

template <typename T>
concept FromZero = requires {
  T(0);
};
template <typename... T>
constexpr bool zeroMakesNone = !(FromZero<T> || ...);
static_assert(zeroMakesNone<IpAddr, Ip6Addr, EthAddr, Eui64, Prefix, IpGenAddr, IpGenPrefix, IpAndPort,
                            Ip6Prefix, InterfaceName, RouteDistinguisher>);

}  // namespace
