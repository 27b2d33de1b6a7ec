// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Entity.h"

#include <gtest/gtest.h>

#include <ctime>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace {

using namespace Kiv;

class Lamp : public Entity {
 public:
  KIV_ENTITY(Lamp, Entity)
  KIV_ATTR(bool, lit, true)
  KIV_ATTR_HOOK(U8, level, 200, handleLevel)
  KIV_ATTR_COUNTER(U32, clicks)
  KIV_ATTR_RARE(String, label, "none")
  KIV_ATTR(Ptr<Entity>, socket)
  KIV_ATTR_DERIVED(int, watts)

  explicit Lamp(String name, int* deaths = nullptr) : Entity(std::move(name)), deaths_(deaths) {}
  ~Lamp() override {
    if (deaths_) ++*deaths_;
  }
  int watts() const { return level() / 2; }
  std::function<void()> hook;

  /// Changes three things at once; in between, `step` runs.
  void burnOutIs(const char* why, const std::function<void()>& step) {
    Change change(this, turn_);
    change.put(lit, false);
    change.put(label, why);
    change.put(lit, false);  // as it is by now
    change.put(level, U8{0});
    change.run(step);
    change.tell();
    if (change.newest()) clicksInc(1);
  }

 protected:
  virtual void handleLevel() {
    if (hook) hook();
  }

 private:
  U32 turn_ = 0;
  int* deaths_;
};

/// Adds an attribute to those of its base.
class DimmableLamp final : public Lamp {
 public:
  KIV_ENTITY(DimmableLamp, Lamp)
  KIV_ATTR(S16, dim, -1)
  using Lamp::Lamp;
};

TEST(Entity, DumpsEveryAttributeInDeclarationOrder) {
  const auto lamp = makePtr<DimmableLamp>("desk");
  lamp->socketIs(makePtr<Lamp>("other"));
  lamp->labelIs("x");
  std::ostringstream out;
  dump(out, *lamp);
  EXPECT_EQ(out.str(),
            "name    Kiv::String  desk\n"
            "lit     bool         true\n"
            "level   U8           200\n"
            "clicks  U32          0\n"
            "label   String       x\n"
            "socket  Ptr<Entity>  set\n"
            "watts   int          100\n"
            "dim     S16          -1\n");
}

/// A lamp, and a log of what its reactors do.
class ReactorTest : public testing::Test {
 protected:
  int deaths = 0;
  Ptr<Lamp> lamp = makePtr<Lamp>("lamp", &deaths);
  Lamp* const raw = lamp.get();
  std::string log;
};

TEST_F(ReactorTest, ASetterStoresThenHooksThenNotifiesAndAnEqualValueDoesNothing) {
  lamp->hook = [&] { log += "hook " + std::to_string(lamp->level()); };
  const Reactor first(lamp->level, [&] { log += " first " + std::to_string(raw->level()); });
  const Reactor second(lamp->level, [&] { log += " second"; });
  lamp->levelIs(200);
  lamp->levelIs(3);
  EXPECT_EQ(log, "hook 3 first 3 second");
  EXPECT_EQ(lamp->clicksInc(0xffffffff), 0xffffffff);
  EXPECT_EQ(lamp->clicksInc(2), 1u);
  lamp->hook = [&] { lamp = nullptr; };
  lamp->levelIs(9);
  EXPECT_EQ(log, "hook 3 first 3 second first 9 second");  // kept until its reactors have run
  EXPECT_EQ(deaths, 1);
}

TEST(Attr, ARareOneKeepsItsDefaultUntilItIsSetOrWatched) {
  const auto lamp = makePtr<Lamp>("lamp"), other = makePtr<Lamp>("other");
  int runs = 0;
  lamp->labelIs("none");  // as it is
  Reactor watching(lamp->label, [&] { ++runs; });
  EXPECT_EQ(lamp->label(), "none");
  for (const char* const label : {"none", "x", "x", "none"}) lamp->labelIs(label);
  EXPECT_EQ(runs, 2);
  lamp->labelIs("y");
  EXPECT_EQ(lamp->label() + other->label(), "ynone");
}

TEST_F(ReactorTest, AChangeTellsOfAllAtRestAndGivesWayToANewerOne) {
  const auto see = [&](const char* name) {
    log += name + lamp->label() + (lamp->lit() ? "1" : "0") + std::to_string(lamp->level()) + " ";
  };
  Reactor onLit(lamp->lit, [&] { see("lit:"); });
  const Reactor onLabel(lamp->label, [&] { see("label:"); });
  Reactor onLevel(lamp->level, [&] { see("level:"); });
  lamp->burnOutIs("a", [&] { log += "step "; });
  EXPECT_EQ(std::exchange(log, ""), "step lit:a00 label:a00 level:a00 ");
  EXPECT_EQ(lamp->clicks(), 1u);

  const auto fail = [](const char* what) { throw std::runtime_error(what); };
  lamp->litIs(true);
  lamp->levelIs(7);
  log = "";
  onLit = Reactor(lamp->lit, [&] { fail("second"); });
  try {
    lamp->burnOutIs("c", [&] { fail("first"); });
  } catch (const std::runtime_error& failure) {
    log += failure.what();
  }
  EXPECT_EQ(std::exchange(log, ""), "label:c00 level:c00 first");
  EXPECT_EQ(lamp->clicks(), 1u);

  // The inner change is the newer one, and the outer one ends when it has told.
  onLit = Reactor(lamp->lit, [&] { lamp->burnOutIs("inner", [] {}); });
  lamp->litIs(true);
  EXPECT_EQ(lamp->clicks(), 2u);
  log = "";
  lamp->burnOutIs("outer", [] {});
  EXPECT_EQ(log, "label:outer00 ");
  EXPECT_EQ(lamp->clicks(), 3u);
  lamp->levelIs(1);
  onLevel = Reactor(lamp->level, [&] { lamp = nullptr; });
  raw->burnOutIs("last", [] {});
  EXPECT_EQ(deaths, 1);
}

TEST(Reactor, MayDoEverythingToEachOtherWhileTheyRun) {
  std::minstd_rand random(3);
  Ptr<Lamp> lamp;
  std::map<int, Reactor> all;        // by number, so in the order of registration
  std::list<std::deque<int>> turns;  // who is yet to run, per notification in progress
  int next = 0, runs = 0, deaths = 0, lamps = 0;
  std::function<void()> act;
  const auto change = [&] {
    auto& turn = turns.emplace_back();
    for (const auto& [number, reactor] : all) {
      if (reactor.registered()) turn.push_back(number);
    }
    const Lamp* const raw = lamp.get();
    bool thrown = false;
    try {
      lamp->clicksInc(1);
    } catch (int) {
      thrown = true;
    }
    std::erase_if(turn, [&](int number) { return !all.contains(number); });
    EXPECT_TRUE(turn.empty() || thrown || lamp.get() != raw);
    turns.pop_back();
  };
  act = [&] {
    const auto what = random() % 10;
    if (what < 4 && lamp) {
      const int number = ++next;
      all[number] = Reactor(lamp->clicks, [&, number, held = std::make_unique<int>(number)] {
        auto& turn = turns.back();
        std::erase_if(turn, [&](int each) { return !all.contains(each); });
        ASSERT_FALSE(turn.empty());
        EXPECT_EQ(turn.front(), number);
        turn.pop_front();
        if (++runs % 3 == 0) act();
        EXPECT_EQ(*held, number);  // a closure outlives its registration while it runs
      });
    } else if (what < 8 && !all.empty()) {
      all.erase(std::next(all.begin(), static_cast<int>(random() % all.size())));
    } else if (what == 8 && lamp && turns.size() < 4) {
      change();
    } else if (what == 9 && !turns.empty()) {
      if (random() % 10 == 0)
        lamp = nullptr;
      else
        throw 1;
    }
  };
  for (int round = 0; round < 5000; ++round) {
    if (!lamp) ++lamps, lamp = makePtr<Lamp>("lamp", &deaths);
    for (int i = 0; i < 3; ++i) act();
    if (lamp) change();
  }
  EXPECT_GT(runs, 5000);
  EXPECT_GT(lamps, 10);
  lamp = nullptr;
  EXPECT_EQ(deaths, lamps);
}

TEST(Reactor, DroppingCostsTheSameInAnyOrder) {
  const auto lamp = makePtr<Lamp>("lamp");
  std::vector<Reactor> all;
  for (int i = 0; i < 200'000; ++i) all.emplace_back(lamp->clicks, [] {});
  const std::clock_t start = std::clock();
  while (!all.empty()) all.pop_back();
  EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC);  // a search for each takes 20 times that
}

}  // namespace
