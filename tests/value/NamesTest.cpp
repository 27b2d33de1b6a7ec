// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <new>
#include <random>
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

TEST(VrfName, HoldsAHundredOctetsOfAnyKind) {
  const std::string longest(100, 'v'), tooLong(101, 'v');
  const char* message = "VrfName::value::bytes > VrfName::maxLength not allowed";
  VrfName name("red");
  EXPECT_EQ(messageOf<Kiv::RangeException>([&] { name.stringValueIs(tooLong); }), message);
  EXPECT_FALSE(VrfName::fromText(tooLong));
  Kiv::NboAttrLog log;
  log << Kiv::String(tooLong);
  EXPECT_EQ(messageOf<Kiv::RangeException>([&] { log >> name; }), message);
  for (const std::string& refused : {std::string("red"), std::string("'red"), "'" + tooLong + "'"}) {
    std::string_view rest = refused;
    EXPECT_NE(VrfName::parse(rest, name), nullptr);
    EXPECT_EQ(rest, refused);
  }
  EXPECT_EQ(name, VrfName("red"));
  table::expectPrints(VrfName(longest), longest);
  table::expectOrdered<VrfName>({VrfName(), VrfName(std::string_view("\0", 1)), VrfName("Red"),
                                 VrfName("red"), VrfName("red "), VrfName("redd"), VrfName("\xff")});
  EXPECT_EQ(table::logged(name), (Kiv::Bytes{0, 0, 0, 3, 'r', 'e', 'd'}));
  EXPECT_EQ(table::streamed(name), "red");
  for (const std::string& text : {longest, std::string("it's"), std::string("red, 'number': 5})")}) {
    Named back;
    Kiv::representationIs(back, Kiv::representationOf(Named{VrfName(text), 7}));
    EXPECT_TRUE(back.vrf == VrfName(text) && back.number == 7) << text;
  }
}

TEST(VrfName, LacksMemoryAsAnExceptionAndStaysAsItWas) {
  if (!AllocationRefusal::works) return;
  const std::string longName(100, 'v'), quoted = "'" + longName + "' rest";
  VrfName name("red");
  std::string_view rest = quoted;
  int step = 0;
  for (int thrown = 0; thrown == step && step < 4; ++step) {
    const AllocationRefusal refusal(64);
    try {
      if (step == 0) (void)VrfName::fromText(longName);
      if (step == 1) (void)NamespaceName::fromText(longName);
      if (step == 2) name.stringValueIs(longName);
      if (step == 3) (void)VrfName::parse(rest, name);
    } catch (const std::bad_alloc&) {
      ++thrown;
    }
  }
  EXPECT_TRUE(step == 4 && rest == quoted && name == VrfName("red"));
}

// The model knows names by number; the smallest that is free is given.
TEST(VrfMap, GivesEachVrfOneNumberAsAModelDoes) {
  using L3::VrfId;
  const std::string names[] = {"default", "red", "blue", "green", "grey", ""};
  std::mt19937 random(1);
  L3::VrfMap map;
  std::map<std::string, unsigned> model = {{"default", 0}};
  const auto holder = [&](unsigned id) {
    return std::find_if(model.begin(), model.end(), [&](const auto& entry) { return entry.second == id; });
  };
  for (int step = 0; step < 3000; ++step) {
    const std::string& name = names[random() % 6];
    const VrfName vrf(name);
    const unsigned id = static_cast<unsigned>(random() % 6);
    const auto known = model.find(name);
    if (random() % 3 == 0) {
      EXPECT_EQ(map.erase(vrf), known != model.end() && name != "default");
      if (name != "default") model.erase(name);
    } else if (random() % 2 == 0) {
      const bool fits =
          known != model.end() ? known->second == id : holder(id) == model.end() && !name.empty();
      EXPECT_EQ(map.insert(vrf, VrfId(id)), fits) << name << id;
      if (fits) model[name] = id;
    } else {
      unsigned free = 0;
      while (holder(free) != model.end()) ++free;
      if (!name.empty()) model.emplace(name, free);
      EXPECT_EQ(map.insert(vrf), name.empty() ? std::nullopt : std::optional(VrfId(model[name])));
    }
    std::string text;
    for (const auto& [each, number] : model) {
      text += (text.empty() ? "{'" : ", '") + each + "': " + std::to_string(number);
      EXPECT_TRUE(map.id(VrfName(each)) == VrfId(number) && *map.name(VrfId(number)) == VrfName(each));
    }
    ASSERT_EQ(map.stringValue(), text + "}");
    const auto copy = L3::VrfMap::fromText(map.stringValue());
    EXPECT_TRUE(map.size() == model.size() && copy == map && copy->hash() == map.hash());
    if (random() % 4 == 0) map = *copy;
  }
  EXPECT_TRUE(L3::VrfMap() > L3::VrfMap::fromText("{'a': 1}") && L3::VrfMap().hash() != map.hash());
  for (const char* bad :
       {"", "{'red': 2", "{'red': 2,'blue': 1}", "{'red': 0}", "{'a': 1, 'b': 1}", "{'': 1}", "{} "}) {
    EXPECT_FALSE(L3::VrfMap::fromText(bad)) << bad;
  }
  const L3::VrfMap taken = std::move(map);
  EXPECT_EQ(map.insert(VrfName("red")), VrfId(1)) << "0 is the default VRF's, also where a move took that";
}

TEST(VrfName, KnowsItsNamespace) {
  EXPECT_EQ(VrfName::netNsVrf(NamespaceName("default")), VrfName::defaultVrf());
  for (const char* text : {"blue", "ns-ns-", "all", "multiple source VRFs", "", "default"}) {
    const VrfName vrf(text);
    const bool isDefault = vrf == VrfName::defaultVrf();
    EXPECT_EQ(vrf.nsName().value(), isDefault ? "default" : std::string("ns-") + text);
    EXPECT_EQ(VrfName::netNsVrf(vrf.nsName()), vrf);
    EXPECT_TRUE(vrf.isDefault() == isDefault && static_cast<bool>(vrf) == (*text != '\0'));
  }
  EXPECT_EQ(VrfName::allVrfs().value() + VrfName::multiSrcVrf().value() + VrfName::defaultVrf().value(),
            "allmultiple source VRFsdefault");
  EXPECT_DEATH(VrfName::netNsVrf(NamespaceName("blue")), "starts_with\\(nsPrefix\\)");
  EXPECT_THROW(VrfName::netNsVrf(NamespaceName("ns-" + std::string(101, 'v'))), Kiv::RangeException);
  EXPECT_EQ(NamespaceName(std::string(150, 'n')).value().bytes(), 150u);
  EXPECT_EQ(messageOf<Kiv::RangeException>([] { NamespaceName refused(std::string(151, 'n')); }),
            "NamespaceName::value::bytes > 150 not allowed");
  table::expectOrdered<NamespaceName>({NamespaceName(), NamespaceName("default"), NamespaceName("ns-red")});
}

}  // namespace
