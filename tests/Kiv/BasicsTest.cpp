// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <thread>
#include <unordered_set>

#include "Kiv/Assert.h"
#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Kiv/Ptr.h"
#include "Kiv/Representation.h"
#include "Kiv/Time.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/Failure.h"
#include "tests/support/TraceCapture.h"

namespace {

using namespace Kiv;

struct Counted : PtrInterface {
  explicit Counted(int* deaths) : deaths_(deaths) {}
  ~Counted() override { ++*deaths_; }
  int* deaths_;
};
struct Derived : Counted {
  using Counted::Counted;
};

TEST(Ptr, TheLastOneDeletesOnceWhicheverWayItIsCounted) {
  for (const bool threadSafe : {true, false}) {
    ptrThreadSafeIs(threadSafe);
    int deaths = 0;
    {
      Ptr<Derived> first = makePtr<Derived>(&deaths);
      Ptr<const Counted> base = first;
      Ptr<Counted> moved = std::move(first);
      EXPECT_EQ(first, nullptr);
      Ptr<Counted>& alias = moved;
      moved = alias;
      EXPECT_EQ(moved->references(), 2u);
      EXPECT_EQ(staticPtrCast<Derived>(moved), moved);
      const Ptr<Counted> other = makePtr<Counted>(&deaths);
      EXPECT_EQ((std::map<Ptr<Counted>, int>{{moved, 1}, {other, 2}}).at(other), 2);
      EXPECT_EQ((std::unordered_set<Ptr<Counted>>{moved, other, moved}).size(), 2u);
      moved = nullptr;
      EXPECT_EQ(base->references(), 1u);
      EXPECT_EQ(deaths, 0);
    }
    EXPECT_EQ(deaths, 2);
  }
}

TEST(Ptr, AnImmortalObjectsCountNeverChanges) {
  static int deaths = 0;
  static const Ptr<Counted> immortal = makeImmortal<Counted>(&deaths);
  const U32 count = immortal->references();
  EXPECT_GT(count, 1u);  // so nobody takes itself for the sole owner
  const auto copy = [count] {
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(Ptr<Counted>(immortal)->references(), count);
  };
  std::thread other(copy);
  copy();
  other.join();
  for (int i = 0; i < 2; ++i) Ptr<Counted>::adopt(immortal.get());
  EXPECT_EQ(deaths, 0);
}

TEST(String, MeetsTheStandardTypesBothWays) {
  const String text = std::string("ab\0c", 4);
  const std::string standard = text;
  EXPECT_TRUE(text.bytes() == 4 && standard == std::string_view(text));
  EXPECT_TRUE(String("ab") == "ab" && "ab" == String("ab") && String("ab") == std::string("ab") &&
              String("ab") < "b" && String("b") > String("ab"));
  EXPECT_EQ(std::hash<String>()("x"), std::hash<String>()(std::string("x")));
}

TEST(Exceptions, CarryTheFixedTextAndTheErrno) {
  const ErrnoException named(ENOENT, "bind", "192.0.2.1:7 in ns-red");
  EXPECT_STREQ(ErrnoException(ENOENT, "bind").what(), "bind: No such file or directory");
  EXPECT_STREQ(named.what(), "bind: No such file or directory (192.0.2.1:7 in ns-red)");
  EXPECT_EQ(failureOf([&] { throw named; }), "bind " + std::to_string(ENOENT));
  EXPECT_STREQ(RangeException("too far").what(), "too far");
}

TEST(AssertDeathTest, NamesThePlaceAndTheGivenText) {
  EXPECT_DEATH(KIV_ASSERT_AS(1 + 1 == 3, "( sums ) add up"),
               "BasicsTest.cpp:[0-9]+: assertion failed: \\( sums \\) add up\n");
  const String name("lamp");
  EXPECT_DEATH(KIV_ASSERT_AS(false, "lit()", name), "assertion failed: lit\\(\\) \\(lamp\\)\n");
}

TEST(Time, SaturatesAtBothEnds) {
  EXPECT_EQ(timeAfter(Time::min(), timeInfinite), Time(-1));
  EXPECT_EQ(timeAfter(Time(-1), timeInfinite), timeInfinite - Time(1));
  EXPECT_EQ(timeAfter(Time(1), timeInfinite), timeInfinite);
  EXPECT_EQ(timeAfter(Time(-1), Time::min()), Time::min());
  EXPECT_EQ(timeOfSeconds(1.5), Time(1'500'000'000));
  EXPECT_EQ(timeOfSeconds(9.3e9), timeInfinite);
  EXPECT_EQ(timeOfSeconds(-1), Time(0));
}

TEST(NboAttrLog, ReadsBackWhatWasWrittenAndRefusesToReadOn) {
  NboAttrLog log;
  const U8 octets[] = {1, 2, 3};
  log << U16{0x0102} << S32{-2} << U64{0x1122334455667788} << true << String("ab");
  log.octetsIs(octets);
  EXPECT_EQ(log.bytes(), (Bytes{1,    2,    255, 255, 255, 254, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66,
                                0x77, 0x88, 1,   0,   0,   0,   2,    'a',  'b',  1,    2,    3}));
  std::tuple<U16, S32, U64, bool, String> back;
  std::apply([&](auto&... each) { (log >> ... >> each); }, back);
  EXPECT_EQ(back, std::tuple(0x0102, -2, 0x1122334455667788u, true, "ab"));
  EXPECT_THROW(log >> std::get<S32>(back), RangeException);
  U8 last[3];
  log.octets(last);
  EXPECT_EQ(last[2], 3);
  log << String("to the end");
  log >> std::get<String>(back);
  EXPECT_EQ(std::get<String>(back), "to the end");
  NboAttrLog liar(Bytes{255, 255, 255, 255, 'x'});
  EXPECT_THROW(liar >> std::get<String>(back), RangeException);
  EXPECT_TRUE(liar.bytesLeft() == 5 && std::get<String>(back) == "to the end");
}

TEST(Hash, SeededHashDependsOnSeedOrderAndLength) {
  EXPECT_NE(SeededHash(1).add(7).value(), SeededHash(2).add(7).value());
  EXPECT_NE(SeededHash(1).add(7).add(8).value(), SeededHash(1).add(8).add(7).value());
  EXPECT_NE(SeededHash(1).value(), SeededHash(1).add(0).value());
  EXPECT_EQ(hashMix(0), 0xcaa3caa3u);  // worked out step by step
}

struct Inner {
  U8 small = 0;
  S16 negative = 0;
  static constexpr auto representation() {
    return Kiv::representation("T::Inner", "Invalid Inner", field("small", &Inner::small),
                               field("negative", &Inner::negative));
  }
};
struct Outer {
  String text;
  bool flag = false;
  Inner inner;
  U64 wide = 0;
  static constexpr auto representation() {
    return Kiv::representation("T::Outer", "Invalid Outer", field("text", &Outer::text),
                               field("flag", &Outer::flag), field("inner", &Outer::inner),
                               field("wide", &Outer::wide));
  }
};

TEST(Representation, PrintsAndParsesOneList) {
  const Outer value{String(std::string_view("a'\\\n\0", 5)), true, {255, -32768}, ~U64{0}};
  const std::string text =
      "Value('T::Outer', ** {'text': 'a\\'\\\\\\x0a\\x00', 'flag': True, 'inner': "
      "Value('T::Inner', ** {'small': 255, 'negative': -32768}), 'wide': 18446744073709551615})";
  EXPECT_EQ(representationOf(value), text);
  Outer back;
  representationIs(back, text);
  EXPECT_EQ(representationOf(back), text);
  for (const char* cut : {"", "\\", "\\x", "\\x0", "\\q'"}) {  // the text of a String has no end
    const std::string begins = "Value('T::Outer', ** {'text': 'a" + std::string(cut);
    EXPECT_THROW(representationIs(back, begins), RangeException) << begins;
  }
}

TEST(Representation, AFailedParseChangesNothingAndSaysWhy) {
  const std::string inner = "Value('T::Inner', ** ";
  const std::pair<std::string, const char*> rows[] = {
      {"", "Invalid Inner"},
      {"Value('T::Other', ** {'small': 1, 'negative': 2})", "Invalid Inner"},
      {inner + "{'small': 256, 'negative': 2})", "Integer out of range"},
      {inner + "{'small': 99999999999999999999999999999, 'negative': 2})", "Integer out of range"},
      {inner + "{'small': -1, 'negative': 2})", "Invalid integer"},
      {inner + "{'small': 1, 'negative': -32769})", "Integer out of range"},
      {inner + "{'small': 1, 'negative': 2}", "Invalid Inner"},
      {inner + "{'small': 1, 'negative': 2}) ", "Invalid Inner"},
  };
  for (const auto& [text, why] : rows) {
    Inner target{7, 8};
    EXPECT_EQ(failureOf([&, from = text] { representationIs(target, from); }), why) << text;
    EXPECT_TRUE(target.small == 7 && target.negative == 8) << text;
  }
}

TEST(Trace, RulesChooseHandlesAndLevels) {
  const TraceHandle one("One"), two("Two");
  const TraceCapture traces("One/2-4,*/0");
  int evaluated = 0;
  KIV_TRACE(one, 0) << "a";
  KIV_TRACE(one, 1) << "b" << ++evaluated;
  KIV_TRACE(one, 4) << "c" << U8{7} << std::hex << 255;
  KIV_TRACE(two, 0) << "d";
  KIV_TRACE(two, 2) << "e" << ++evaluated;
  const TraceHandle late("One");
  KIV_TRACE(late, 3) << "f";
  EXPECT_EQ(traces.lines(), (std::vector<std::string>{"One/0:a", "One/4:c7ff", "Two/0:d", "One/3:f"}));
  EXPECT_EQ(evaluated, 0);
  for (const char* bad : {"One", "/1", "One/", "One/4-2", "One/10", "One/1-", "One/1,,"}) {
    EXPECT_THROW(traceIs(bad), RangeException) << bad;
  }
  EXPECT_TRUE(one.enabled(3) && !one.enabled(1));  // a malformed setting changes nothing

  traceIs("help,One/3,Tow/3,*/9");
  EXPECT_NE(std::ranges::find(traces.lines(), "KIV_TRACE/0:One"), traces.lines().end());
  EXPECT_EQ(traces.lines().back(), "KIV_TRACE/0:no handle Tow");
  const TraceHandle another("Late");
  EXPECT_EQ(traces.lines().back(), "KIV_TRACE/0:Late");
  EXPECT_TRUE(one.enabled(3) && one.enabled(9) && !one.enabled(4));
}

struct Unprintable {
  friend std::ostream& operator<<(std::ostream&, const Unprintable&) { throw std::bad_alloc(); }
};

TEST(Trace, OneThatCannotBeMadeIsDroppedAndCounted) {
  const TraceHandle handle("One");
  traceIs("One/1");
  const U64 before = traceDrops();
  int reached = 0;
  const std::string longer(1000, 'x');
  const auto trace = [&] {
    KIV_TRACE(handle, 1) << longer << longer;
    ++reached;
  };
  traceSinkIs([](std::string_view, unsigned, std::string_view) { FAIL(); });
  KIV_TRACE(handle, 1) << "a" << Unprintable() << ++reached;
  if (AllocationRefusal::works) {
    const AllocationRefusal noMemory(100);
    trace();
  }
  traceSinkIs([](std::string_view, unsigned, std::string_view) { throw "of any type"; });
  trace();
  traceSinkIs(nullptr);
  traceIs("");
  EXPECT_EQ(reached, AllocationRefusal::works ? 3 : 2);
  EXPECT_EQ(traceDrops(), before + static_cast<U64>(reached));
}

TEST(Trace, ASinkMayTraceAndReplaceItself) {
  const TraceHandle handle("One");
  const TraceCapture restoring("One/1");
  std::string lines;
  traceSinkIs([&, text = std::string(100, 'x')](std::string_view, unsigned, std::string_view) {
    traceSinkIs([&](std::string_view, unsigned, std::string_view inner) { lines += inner; });
    KIV_TRACE(handle, 1) << "inner";
    lines += text;
  });
  KIV_TRACE(handle, 1) << "outer";
  EXPECT_EQ(lines, "inner" + std::string(100, 'x'));
}

}  // namespace
