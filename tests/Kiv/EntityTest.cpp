// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Entity.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
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
  KIV_ATTR(String, label, "none")
  KIV_ATTR(Ptr<Entity>, socket)
  KIV_ATTR_DERIVED(int, watts)

  explicit Lamp(String name, int* deaths = nullptr) : Entity(std::move(name)), deaths_(deaths) {}
  ~Lamp() override {
    if (deaths_) ++*deaths_;
  }
  int watts() const { return level() / 2; }
  std::function<void()> hook;

 protected:
  virtual void handleLevel() {
    if (hook) hook();
  }

 private:
  int* deaths_;
};

/// Adds an attribute to those of its base, and none of its own lines may be taken for the base's.
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

TEST(Attr, ASetterStoresThenHooksThenNotifiesAndAnEqualValueDoesNothing) {
  const auto lamp = makePtr<Lamp>("lamp");
  std::vector<std::string> steps;
  lamp->hook = [&] { steps.push_back("hook " + std::to_string(lamp->level())); };
  const Reactor first(lamp->level, [&] { steps.push_back("first " + std::to_string(lamp->level())); });
  const Reactor second(lamp->level, [&] { steps.push_back("second"); });
  lamp->levelIs(200);
  EXPECT_TRUE(steps.empty());
  lamp->levelIs(3);
  EXPECT_EQ(steps, (std::vector<std::string>{"hook 3", "first 3", "second"}));
  EXPECT_EQ(lamp->clicksInc(0xffffffff), 0xffffffff);
  EXPECT_EQ(lamp->clicksInc(2), 1u);
}

TEST(Reactor, DropsAndMovesAndOutlivesItsEntity) {
  auto lamp = makePtr<Lamp>("lamp");
  int runs = 0;
  Reactor a(lamp->lit, [&] { ++runs; });
  Reactor b(std::move(a));
  lamp->litIs(false);
  EXPECT_EQ(runs, 1);
  a = std::move(b);
  EXPECT_TRUE(a.registered() && !b.registered());
  b = Reactor(lamp->lit, [&] { runs += 10; });
  a.drop();
  a.drop();
  lamp->litIs(true);
  EXPECT_EQ(runs, 11);
  lamp = nullptr;
  EXPECT_FALSE(b.registered());
}

TEST(Reactor, MayDropItselfAndStillUseWhatItHolds) {
  const auto lamp = makePtr<Lamp>("lamp");
  std::unique_ptr<Reactor> self;
  int sum = 0;
  const auto held = std::make_shared<std::vector<int>>(100, 1);
  self = std::make_unique<Reactor>(lamp->clicks, [&sum, &self, held = std::make_unique<int>(7)] {
    self.reset();
    sum += *held;  // the closure outlives its registration
  });
  lamp->clicksInc(1);
  lamp->clicksInc(1);
  EXPECT_EQ(sum, 7);
}

TEST(Reactor, NoneRunsAfterItsRegistrationIsGone) {
  const auto lamp = makePtr<Lamp>("lamp");
  std::string order;
  Reactor early(lamp->clicks, [&] { order += "e"; });
  std::unique_ptr<Reactor> late;
  const Reactor middle(lamp->clicks, [&] {
    order += "m";
    early.drop();
    late.reset();
  });
  late = std::make_unique<Reactor>(lamp->clicks, [&] { order += "l"; });
  lamp->clicksInc(1);
  lamp->clicksInc(1);
  EXPECT_EQ(order, "emm");
}

TEST(Reactor, OneRegisteredDuringANotificationWaitsForTheNextChange) {
  const auto lamp = makePtr<Lamp>("lamp");
  std::string order;
  std::vector<Reactor> added;
  const Reactor adder(lamp->clicks, [&] {
    order += "a";
    // Enough of them for the list to move in memory while it is walked.
    for (int i = 0; i < 20 && added.size() < 20; ++i) added.emplace_back(lamp->clicks, [&] { order += "n"; });
  });
  lamp->clicksInc(1);
  EXPECT_EQ(order, "a");
  lamp->clicksInc(1);
  EXPECT_EQ(order, "aa" + std::string(20, 'n'));
}

TEST(Reactor, ASetInsideANotificationNotifiesInside) {
  const auto lamp = makePtr<Lamp>("lamp");
  std::vector<std::pair<char, U32>> seen;
  std::vector<Reactor> late;
  const Reactor first(lamp->clicks, [&] {
    seen.emplace_back('a', lamp->clicks());
    if (lamp->clicks() == 1) {
      late.emplace_back(lamp->clicks, [&] { seen.emplace_back('c', lamp->clicks()); });
      lamp->clicksIs(2);
      lamp->litIs(false);
    }
  });
  const Reactor second(lamp->clicks, [&] { seen.emplace_back('b', lamp->clicks()); });
  lamp->clicksIs(1);
  // The change to 2 reaches all three, then the change to 1 goes on to those that were there for it.
  EXPECT_EQ(seen, (std::vector<std::pair<char, U32>>{{'a', 1}, {'a', 2}, {'b', 2}, {'c', 2}, {'b', 2}}));
}

TEST(Reactor, MayLetGoOfTheLastPointerToTheEntity) {
  for (const bool hooked : {false, true}) {
    int deaths = 0;
    auto lamp = makePtr<Lamp>("lamp", &deaths);
    int later = 0;
    const Reactor killer(lamp->clicks, [&] { lamp = nullptr; });
    const Reactor behind(lamp->clicks, [&] { ++later; });
    Reactor inHook(lamp->level, [&] { ++later; });
    if (hooked) {
      Lamp* const raw = lamp.get();
      raw->hook = [&] { lamp = nullptr; };
      raw->levelIs(1);
      EXPECT_EQ(later, 1);  // kept alive until its reactors have run
    } else {
      EXPECT_EQ(lamp->clicksInc(1), 1u);
      EXPECT_EQ(later, 0);
    }
    EXPECT_EQ(deaths, 1);
    EXPECT_FALSE(behind.registered());
  }
}

TEST(Reactor, DroppingAClosureThatHoldsTheEntityIsSafe) {
  int deaths = 0;
  Reactor reactor;
  {
    auto lamp = makePtr<Lamp>("lamp", &deaths);
    reactor = Reactor(lamp->clicks, [lamp] {});
    Lamp* const raw = lamp.get();
    lamp = nullptr;
    raw->clicksInc(1);
  }
  EXPECT_EQ(deaths, 0);
  reactor.drop();
  EXPECT_EQ(deaths, 1);

  auto lamp = makePtr<Lamp>("lamp", &deaths);
  Lamp* const raw = lamp.get();
  reactor = Reactor(lamp->clicks, [&reactor, lamp] { reactor.drop(); });
  lamp = nullptr;
  raw->clicksInc(1);  // its own last reference goes with the closure, after it has run
  EXPECT_EQ(deaths, 2);
}

TEST(Reactor, WhatItThrowsLeavesThroughTheSetterAndLeavesTheListUsable) {
  const auto lamp = makePtr<Lamp>("lamp");
  int runs = 0;
  Reactor thrower(lamp->clicks, [&] {
    thrower.drop();
    throw std::runtime_error("reactor");
  });
  const Reactor behind(lamp->clicks, [&] { ++runs; });
  EXPECT_THROW(lamp->clicksInc(1), std::runtime_error);
  EXPECT_EQ(lamp->clicks(), 1u);
  EXPECT_EQ(runs, 0);
  lamp->clicksInc(1);
  EXPECT_EQ(runs, 1);
}

}  // namespace
