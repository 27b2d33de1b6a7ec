// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <new>
#include <utility>

#include "Kiv/Representation.h"
#include "Wirl/value/NamespaceName.h"
#include "Wirl/value/VrfMap.h"
#include "Wirl/value/VrfName.h"
#include "tests/support/AllocationCounter.h"
#include "tests/value/TextTable.h"

namespace {

using L3::VrfName;
using table::messageOf;
using Wirl::NamespaceName;

struct Named {
  VrfName vrf;
  Kiv::U8 number = 0;
  static constexpr auto representation() {
    return Kiv::representation("Named", "Invalid Named", Kiv::field("vrf", &Named::vrf),
                               Kiv::field("number", &Named::number));
  }
};

TEST(VrfName, ReadsBackFromARepresentationWhateverIsInIt) {
  for (const char* name : {"red", "", "it's", "red, 'number': 5})"}) {
    Named back;
    Kiv::representationIs(back, Kiv::representationOf(Named{VrfName(name), 7}));
    EXPECT_EQ(back.vrf, VrfName(name));
    EXPECT_EQ(back.number, 7);
  }
}

TEST(VrfName, HoldsAHundredOctetsOfAnyKind) {
  const std::string longest(100, 'v');
  const std::string tooLong(101, 'v');
  const char* message = "VrfName::value::bytes > VrfName::maxLength not allowed";
  VrfName name("red");
  EXPECT_EQ(messageOf<Kiv::RangeException>([&] { name.stringValueIs(tooLong); }), message);
  EXPECT_EQ(messageOf<Kiv::RangeException>([&] { VrfName refused(tooLong); }), message);
  EXPECT_FALSE(VrfName::fromText(tooLong));
  Kiv::NboAttrLog log;
  log << Kiv::String(tooLong);
  EXPECT_EQ(messageOf<Kiv::RangeException>([&] { log >> name; }), message);
  std::string_view quoted = "'vrf \\'x\\'' rest";
  EXPECT_EQ(name, VrfName("red"));
  EXPECT_EQ(VrfName::parse(quoted, name), nullptr);
  EXPECT_EQ(name, VrfName("vrf 'x'"));
  EXPECT_EQ(quoted, " rest");
  const std::string quotedTooLong = "'" + tooLong + "'";
  for (const std::string_view refused :
       {std::string_view("red"), std::string_view("'red"), std::string_view(quotedTooLong)}) {
    std::string_view rest = refused;
    EXPECT_NE(VrfName::parse(rest, name), nullptr);
    EXPECT_EQ(rest, refused);
  }
  EXPECT_EQ(name, VrfName("vrf 'x'"));

  EXPECT_EQ(VrfName::fromText(longest)->nsName().value(), "ns-" + longest);
  table::expectPrints(VrfName(longest), longest);
  table::expectOrdered<VrfName>({VrfName(), VrfName(std::string_view("\0", 1)), VrfName("Red"),
                                 VrfName("red"), VrfName("red "), VrfName("redd"), VrfName("\xff")});
  EXPECT_EQ(table::logged(VrfName("red")), (Kiv::Bytes{0, 0, 0, 3, 'r', 'e', 'd'}));
  EXPECT_EQ(table::streamed(VrfName("red")), "red");
}

TEST(VrfName, LacksMemoryAsAnExceptionAndStaysAsItWas) {
  if (!AllocationRefusal::works) return;
  const std::string longName(100, 'v');
  const std::string quoted = "'" + longName + "' rest";
  VrfName name("red");
  std::string_view rest = quoted;
  int thrown = 0;
  {
    const AllocationRefusal refusal(64);
    const auto lacks = [&](auto act) {
      try {
        act();
      } catch (const std::bad_alloc&) {
        ++thrown;
      }
    };
    lacks([&] { (void)VrfName::fromText(longName); });
    lacks([&] { (void)NamespaceName::fromText(longName); });
    lacks([&] { name.stringValueIs(longName); });
    lacks([&] { (void)VrfName::parse(rest, name); });
  }
  EXPECT_EQ(thrown, 4);
  EXPECT_EQ(rest, quoted);
  EXPECT_EQ(name, VrfName("red"));
}

TEST(VrfMap, GivesEachVrfOneNumber) {
  using L3::VrfId;
  L3::VrfMap map;
  EXPECT_EQ(map.id(VrfName::defaultVrf()), VrfId(0));
  EXPECT_TRUE(map.insert(VrfName("red"), VrfId(2)) && map.insert(VrfName("red"), VrfId(2)));
  EXPECT_FALSE(map.insert(VrfName("red"), VrfId(3)) || map.insert(VrfName("blue"), VrfId(2)) ||
               map.insert(VrfName(), VrfId(9)) || map.insert(VrfName()) || map.erase(VrfName::defaultVrf()));
  EXPECT_EQ(map.insert(VrfName("blue")), VrfId(1));
  EXPECT_EQ(map.insert(VrfName("blue")), VrfId(1));
  EXPECT_EQ(map.insert(VrfName("green")), VrfId(3));
  const L3::VrfMap copy = map;
  EXPECT_TRUE(map.erase(VrfName("blue")) && !map.erase(VrfName("blue")) && !map.name(VrfId(1)));
  EXPECT_EQ(*copy.name(VrfId(1)), VrfName("blue"));
  EXPECT_EQ(map.insert(VrfName("grey")), VrfId(1));
  std::string names;
  for (const auto& [name, id] : map) names += std::string(name.value()) + id.stringValue() + " ";
  EXPECT_EQ(names, "default0 green3 grey1 red2 ");
  map = copy;
  EXPECT_TRUE(map.size() == 4 && map.id(VrfName("blue")) && !map.id(VrfName("grey")));
  const std::string text = "{'blue': 1, 'default': 0, 'green': 3, 'red': 2}";
  EXPECT_EQ(map.stringValue(), text);
  EXPECT_EQ(L3::VrfMap::fromText("{'red': 2, 'green': 3, 'blue': 1}"), map);
  EXPECT_TRUE(L3::VrfMap() > map && L3::VrfMap().hash() != map.hash() &&
              L3::VrfMap::fromText("{}") == L3::VrfMap());
  for (const char* bad :
       {"", "{'red': 2", "{'red': 2,'blue': 1}", "{'red': 0}", "{'a': 1, 'b': 1}", "{'': 1}", "{} "}) {
    EXPECT_FALSE(L3::VrfMap::fromText(bad)) << bad;
  }
  const L3::VrfMap taken = std::move(map);
  EXPECT_EQ(map.insert(VrfName("red")), VrfId(1)) << "0 is the default VRF's, also where a move took that";
  EXPECT_TRUE(map.insert(VrfName::defaultVrf(), VrfId(0)) && !map.insert(VrfName("blue"), VrfId(0)));
}

TEST(VrfName, KnowsItsNamespace) {
  EXPECT_EQ(VrfName::defaultVrf().nsName().value(), "default");
  EXPECT_EQ(VrfName("blue").nsName().value(), "ns-blue");
  EXPECT_EQ(VrfName().nsName().value(), "ns-") << "never the empty name, which is no namespace";
  EXPECT_EQ(VrfName::netNsVrf(NamespaceName("default")), VrfName::defaultVrf());
  for (const VrfName& vrf :
       {VrfName("blue"), VrfName("ns-ns-"), VrfName::allVrfs(), VrfName::multiSrcVrf(), VrfName()}) {
    EXPECT_EQ(VrfName::netNsVrf(vrf.nsName()), vrf);
    EXPECT_FALSE(vrf.isDefault());
    EXPECT_EQ(static_cast<bool>(vrf), vrf != VrfName());
  }
  EXPECT_TRUE(VrfName("default").isDefault());
  EXPECT_EQ(VrfName::allVrfs().value(), "all");
  EXPECT_EQ(VrfName::multiSrcVrf().value(), "multiple source VRFs");
  EXPECT_DEATH(VrfName::netNsVrf(NamespaceName("blue")), "starts_with\\(nsPrefix\\)");
  EXPECT_DEATH(VrfName::netNsVrf(NamespaceName("")), "starts_with\\(nsPrefix\\)");
  EXPECT_EQ(
      messageOf<Kiv::RangeException>([] { VrfName::netNsVrf(NamespaceName("ns-" + std::string(101, 'v'))); }),
      "VrfName::value::bytes > VrfName::maxLength not allowed");
}

TEST(NamespaceName, HoldsAHundredAndFiftyOctets) {
  EXPECT_EQ(NamespaceName(std::string(150, 'n')).value().bytes(), 150u);
  EXPECT_EQ(messageOf<Kiv::RangeException>([] { NamespaceName refused(std::string(151, 'n')); }),
            "NamespaceName::value::bytes > 150 not allowed");
  table::expectOrdered<NamespaceName>({NamespaceName(), NamespaceName("default"), NamespaceName("ns-red")});
}

}  // namespace
