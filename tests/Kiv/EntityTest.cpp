// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Entity.h"

#include <gtest/gtest.h>

#include <functional>
#include <list>
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
  Reactor logging(const char* name) {
    return Reactor(lamp->clicks, [=, this] { log += name; });
  }
  int deaths = 0;
  Ptr<Lamp> lamp = makePtr<Lamp>("lamp", &deaths);
  Lamp* const raw = lamp.get();
  std::string log;
};

TEST_F(ReactorTest, ASetterStoresThenHooksThenNotifiesAndAnEqualValueDoesNothing) {
  lamp->hook = [&] { log += "hook " + std::to_string(lamp->level()); };
  const Reactor first(lamp->level, [&] { log += " first " + std::to_string(lamp->level()); });
  const Reactor second(lamp->level, [&] { log += " second"; });
  lamp->levelIs(200);
  EXPECT_EQ(log, "");
  lamp->levelIs(3);
  EXPECT_EQ(log, "hook 3 first 3 second");
  EXPECT_EQ(lamp->clicksInc(0xffffffff), 0xffffffff);
  EXPECT_EQ(lamp->clicksInc(2), 1u);
}

TEST_F(ReactorTest, DropsAndMovesAndOutlivesItsEntity) {
  Reactor a = logging("a");
  Reactor b(std::move(a));
  lamp->clicksInc(1);
  a = std::move(b);
  EXPECT_TRUE(a.registered() && !b.registered());
  b = logging("b");
  a.drop();
  a.drop();
  lamp->clicksInc(1);
  EXPECT_EQ(log, "ab");
  lamp = nullptr;
  EXPECT_FALSE(b.registered());
}

TEST_F(ReactorTest, NoneRunsAfterItsRegistrationIsGoneNotEvenOneThatDropsItself) {
  Reactor early = logging("e");
  Reactor late, self;
  self = Reactor(lamp->clicks, [&, held = std::make_unique<std::string>("s")] {
    self.drop();
    log += *held;  // the closure outlives its registration
  });
  const Reactor middle(lamp->clicks, [&] {
    log += "m";
    early.drop();
    late.drop();
  });
  late = logging("l");
  lamp->clicksInc(1);
  lamp->clicksInc(1);
  EXPECT_EQ(log, "esmm");
}

TEST_F(ReactorTest, OneRegisteredDuringANotificationWaitsForTheNextChange) {
  std::vector<Reactor> added;
  const Reactor adder(lamp->clicks, [&] {
    log += "a";
    // Enough of them for the list to move in memory while it is walked.
    while (added.size() < 20) added.push_back(logging("n"));
  });
  lamp->clicksInc(1);
  EXPECT_EQ(log, "a");
  lamp->clicksInc(1);
  EXPECT_EQ(log, "aa" + std::string(20, 'n'));
}

TEST_F(ReactorTest, ASetInsideANotificationNotifiesInside) {
  const auto seeing = [&](const char* name) { log += name + std::to_string(lamp->clicks()) + " "; };
  Reactor late;
  const Reactor first(lamp->clicks, [&] {
    seeing("a");
    if (lamp->clicks() != 1) return;
    late = Reactor(lamp->clicks, [&] { seeing("c"); });
    lamp->clicksIs(2);
  });
  const Reactor second(lamp->clicks, [&] { seeing("b"); });
  lamp->clicksIs(1);
  // The change to 2 reaches all three, then the change to 1 goes on to those that were there for it.
  EXPECT_EQ(log, "a1 a2 b2 c2 b2 ");
}

TEST_F(ReactorTest, MayLetGoOfTheLastPointerToTheEntity) {
  const Reactor killer(lamp->clicks, [&] { lamp = nullptr; });
  const Reactor behind = logging("never");
  EXPECT_EQ(lamp->clicksInc(1), 1u);
  EXPECT_EQ(deaths, 1);
  EXPECT_FALSE(behind.registered());

  lamp = makePtr<Lamp>("lamp", &deaths);
  const Reactor inHook(lamp->level, [&] { log += "hooked"; });
  lamp->hook = [&] { lamp = nullptr; };
  lamp->levelIs(1);
  EXPECT_EQ(log, "hooked");  // kept alive until its reactors have run
  EXPECT_EQ(deaths, 2);
}

TEST_F(ReactorTest, DroppingAClosureThatHoldsTheEntityIsSafe) {
  Reactor reactor(lamp->clicks, [held = lamp] {});
  lamp = nullptr;
  raw->clicksInc(1);
  EXPECT_EQ(deaths, 0);
  reactor.drop();
  EXPECT_EQ(deaths, 1);

  lamp = makePtr<Lamp>("lamp", &deaths);
  Lamp* const last = lamp.get();
  reactor = Reactor(lamp->clicks, [&reactor, held = lamp] { reactor.drop(); });
  lamp = nullptr;
  last->clicksInc(1);  // its own last reference goes with the closure, after it has run
  EXPECT_EQ(deaths, 2);
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
  log = "";
  onLit = Reactor(lamp->lit, [&] { fail("second"); });
  EXPECT_THROW(lamp->burnOutIs("b", [&] { fail("first"); }), std::runtime_error);
  try {
    lamp->levelIs(7);
    log = "";
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

TEST(Reactor, ManyComeAndGoInAnyOrderAlsoWhileTheyRun) {
  const auto lamp = makePtr<Lamp>("lamp");
  std::mt19937 random(3);
  std::list<std::pair<int, Reactor>> all;  // in the order of registration
  std::vector<int> ran;
  int next = 0;
  const auto change = [&] {
    if (random() % 2 == 0) {
      const int number = next++;
      auto& [key, reactor] = all.emplace_back(number, Reactor());
      reactor = Reactor(lamp->clicks, [&, number] { ran.push_back(number); });
    } else if (!all.empty()) {
      all.erase(std::next(all.begin(), static_cast<int>(random() % all.size())));
    }
  };
  const auto running = [&] {
    std::vector<int> keys;
    for (const auto& each : all) keys.push_back(each.first);
    return keys;
  };
  for (int round = 0; round < 500; ++round) {
    for (unsigned i = random() % 4; i > 0; --i) change();
    ran.clear();
    lamp->clicksInc(1);
    ASSERT_EQ(ran, running());
    const Reactor changing(lamp->clicks, [&] { change(), change(), change(); });
    lamp->clicksInc(1);
  }
}

TEST_F(ReactorTest, WhatItThrowsLeavesThroughTheSetterAndLeavesTheListUsable) {
  Reactor thrower(lamp->clicks, [&] {
    thrower.drop();
    throw std::runtime_error("reactor");
  });
  const Reactor behind = logging("b");
  EXPECT_THROW(lamp->clicksInc(1), std::runtime_error);
  EXPECT_EQ(lamp->clicks(), 1u);
  EXPECT_EQ(log, "");
  lamp->clicksInc(1);
  EXPECT_EQ(log, "b");
}

}  // namespace
