// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <unordered_set>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Kiv/Ptr.h"
#include "Kiv/Representation.h"
#include "Kiv/String.h"
#include "Kiv/Trace.h"

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

class PtrTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { ptrThreadSafeIs(GetParam()); }
  void TearDown() override { ptrThreadSafeIs(false); }
};
INSTANTIATE_TEST_SUITE_P(CountKinds, PtrTest, testing::Bool(),
                         [](const auto& param) { return param.param ? "Atomic" : "Plain"; });

TEST_P(PtrTest, TheLastPointerDeletesOnce) {
  int deaths = 0;
  {
    Ptr<Derived> first = makePtr<Derived>(&deaths);
    Ptr<const Counted> base = first;
    Ptr<Counted> moved = std::move(first);
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(moved->references(), 2u);
    Ptr<Counted>& alias = moved;
    moved = alias;
    EXPECT_EQ(moved->references(), 2u);
    moved = nullptr;
    EXPECT_EQ(base->references(), 1u);
    EXPECT_EQ(deaths, 0);
  }
  EXPECT_EQ(deaths, 1);
}

TEST(Ptr, ServesAsAKey) {
  int deaths = 0;
  const Ptr<Counted> a = makePtr<Counted>(&deaths);
  const Ptr<Counted> b = makePtr<Counted>(&deaths);
  const std::map<Ptr<Counted>, int> ordered = {{a, 1}, {b, 2}};
  EXPECT_EQ(ordered.at(b), 2);
  const std::unordered_set<Ptr<Counted>> hashed = {a, b, a};
  EXPECT_EQ(hashed.size(), 2u);
  EXPECT_NE(a, b);
  EXPECT_EQ(a < b, !(b < a));
}

TEST(String, MeetsTheStandardTypesBothWays) {
  const String text = std::string("ab\0c", 4);
  EXPECT_EQ(text.bytes(), 4u);
  const std::string standard = text;
  const std::string_view view = text;
  EXPECT_EQ(standard, view);
  EXPECT_TRUE(String("ab") == "ab" && "ab" == String("ab") && String("ab") == std::string("ab"));
  EXPECT_TRUE(String("ab") < "b" && String("b") > String("ab"));
  EXPECT_EQ(std::hash<String>()("x"), std::hash<String>()(std::string("x")));
}

TEST(Exceptions, CarryTheFixedTextAndTheErrno) {
  try {
    throw ErrnoException(ENOENT, "bind");
  } catch (const Exception& failure) {
    EXPECT_EQ(failure.message(), "bind");
    EXPECT_STREQ(failure.what(), "bind: No such file or directory");
    EXPECT_EQ(dynamic_cast<const ErrnoException&>(failure).error(), ENOENT);
  }
  EXPECT_STREQ(RangeException("too far").what(), "too far");
}

TEST(AssertDeathTest, NamesThePlaceAndTheGivenText) {
  EXPECT_DEATH(KIV_ASSERT_AS(1 + 1 == 3, "( sums ) add up"),
               "BasicsTest.cpp:[0-9]+: assertion failed: \\( sums \\) add up\n");
}

TEST(NboAttrLog, ReadsBackWhatWasWrittenAndRefusesToReadOn) {
  NboAttrLog log;
  const U8 octets[] = {1, 2, 3};
  log << U16{0x0102} << S32{-2} << U64{0x1122334455667788} << true << String("ab");
  log.octetsIs(octets);
  EXPECT_EQ(log.bytes(), (Bytes{1,    2,    255, 255, 255, 254, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66,
                                0x77, 0x88, 1,   0,   0,   0,   2,    'a',  'b',  1,    2,    3}));
  U16 a = 0;
  S32 b = 0;
  U64 c = 0;
  bool d = false;
  String e;
  log >> a >> b >> c >> d >> e;
  EXPECT_EQ(a, 0x0102);
  EXPECT_EQ(b, -2);
  EXPECT_EQ(c, 0x1122334455667788u);
  EXPECT_TRUE(d);
  EXPECT_EQ(e, "ab");
  EXPECT_THROW(log >> b, RangeException);
  U8 back[3];
  log.octets(back);
  EXPECT_EQ(back[2], 3);

  NboAttrLog liar(Bytes{255, 255, 255, 255, 'x'});
  EXPECT_THROW(liar >> e, RangeException);
  EXPECT_EQ(liar.bytesLeft(), 5u);
  EXPECT_EQ(e, "ab");
}

TEST(Hash, SeededHashDependsOnSeedOrderAndLength) {
  EXPECT_NE(SeededHash(1).add(7).value(), SeededHash(2).add(7).value());
  EXPECT_NE(SeededHash(1).add(7).add(8).value(), SeededHash(1).add(8).add(7).value());
  EXPECT_NE(SeededHash(1).value(), SeededHash(1).add(0).value());
  // ~0 + 0 is all ones; the rest of the steps were worked out by hand for it.
  U32 key = 0xffffffffu;
  key ^= key >> 12;
  key += key << 2;
  key ^= key >> 4;
  key *= 2057;
  key ^= key >> 16;
  EXPECT_EQ(hashMix(0), key);
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
}

TEST(Representation, AFailedParseChangesNothingAndSaysWhy) {
  const struct {
    const char* text;
    const char* message;
  } rows[] = {
      {"", "Invalid Inner"},
      {"Value('T::Other', ** {'small': 1, 'negative': 2})", "Invalid Inner"},
      {"Value('T::Inner', ** {'small': 256, 'negative': 2})", "Integer out of range"},
      {"Value('T::Inner', ** {'small': 99999999999999999999999999999, 'negative': 2})",
       "Integer out of range"},
      {"Value('T::Inner', ** {'small': -1, 'negative': 2})", "Invalid integer"},
      {"Value('T::Inner', ** {'small': 1, 'negative': -32769})", "Integer out of range"},
      {"Value('T::Inner', ** {'small': 1, 'negative': 2}", "Invalid Inner"},
      {"Value('T::Inner', ** {'small': 1, 'negative': 2}) ", "Invalid Inner"},
      {"Value('T::Inner', ** {'small': 1,'negative': 2})", "Invalid Inner"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    Inner target{7, 8};
    try {
      representationIs(target, row.text);
      ADD_FAILURE() << "accepted";
    } catch (const RangeException& failure) {
      EXPECT_EQ(failure.message(), row.message);
    }
    EXPECT_EQ(target.small, 7);
    EXPECT_EQ(target.negative, 8);
  }
}

class TraceTest : public testing::Test {
 protected:
  void SetUp() override {
    traceSinkIs([this](std::string_view handle, unsigned level, std::string_view text) {
      lines += std::string(handle) + "/" + std::to_string(level) + ":" + std::string(text) + "\n";
    });
  }
  void TearDown() override {
    traceSinkIs(nullptr);
    traceIs("");
  }
  std::string lines;
};

TEST_F(TraceTest, RulesChooseHandlesAndLevels) {
  const TraceHandle one("One");
  const TraceHandle two("Two");
  traceIs("One/2-4,*/0");
  KIV_TRACE(one, 0) << "a";
  KIV_TRACE(one, 1) << "b";
  KIV_TRACE(one, 4) << "c" << U8{7} << std::hex << 255;
  KIV_TRACE(two, 0) << "d";
  KIV_TRACE(two, 2) << "e";
  const TraceHandle late("One");
  KIV_TRACE(late, 3) << "f";
  EXPECT_EQ(lines, "One/0:a\nOne/4:c7ff\nTwo/0:d\nOne/3:f\n");
}

TEST_F(TraceTest, ADisabledLevelEvaluatesNothing) {
  const TraceHandle handle("Quiet");
  int evaluated = 0;
  KIV_TRACE(handle, 5) << ++evaluated;
  EXPECT_EQ(evaluated, 0);
}

TEST_F(TraceTest, ASinkMayTraceAndReplaceItself) {
  const TraceHandle handle("One");
  traceIs("One/1");
  traceSinkIs([this, &handle, text = std::string(100, 'x')](std::string_view, unsigned, std::string_view) {
    traceSinkIs([this](std::string_view, unsigned, std::string_view inner) { lines += inner; });
    KIV_TRACE(handle, 1) << "inner";
    lines += text;
  });
  KIV_TRACE(handle, 1) << "outer";
  EXPECT_EQ(lines, "inner" + std::string(100, 'x'));
}

TEST_F(TraceTest, AMalformedSettingChangesNothing) {
  const TraceHandle handle("One");
  traceIs("One/1");
  for (const char* bad : {"One", "/1", "One/", "One/4-2", "One/10", "One/1-", "One/1,,"}) {
    EXPECT_THROW(traceIs(bad), RangeException) << bad;
  }
  EXPECT_TRUE(handle.enabled(1));
}

}  // namespace
