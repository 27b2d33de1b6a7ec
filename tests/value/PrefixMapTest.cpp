// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/PrefixMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "Kiv/Exception.h"
#include "Wirl/value/PrefixTable.h"
#include "tests/support/AllocationCounter.h"

namespace {

using namespace Wirl;
using Random = std::independent_bits_engine<std::mt19937, 32, Kiv::U32>;

/// Prefixes that cover one another often: short of bits that differ, in all places of the address.
template <typename P>
P randomPrefix(Random& random) {
  const auto v4 = [&] {
    const unsigned len = random() % 33;
    const Kiv::U32 bits = random() & random() & 0xc103'0c11 & (random() % 4 ? ~0u : 0xf000'0000);
    return Prefix(IpAddr::fromHostOrder(bits).maskedByLength(len), len);
  };
  const auto v6 = [&] {
    const unsigned len = random() % 3 ? random() % 129 : 126 + random() % 3;
    const auto half = [&] { return Kiv::U64{random()} << 32 & 0x8103'0000'0000'0000; };
    const Ip6Addr address(half() >> random() % 64 & half() >> random() % 60, half() >> random() % 64);
    return Ip6Prefix(address.maskedByLength(len), len);
  };
  if constexpr (std::same_as<P, Prefix>) {
    return v4();
  } else if constexpr (std::same_as<P, Ip6Prefix>) {
    return v6();
  } else {
    return random() % 2 ? P(v4()) : P(v6());
  }
}

template <typename P>
struct TrieOrder {
  bool operator()(const P& a, const P& b) const {
    return a.baseAddress() != b.baseAddress() ? a.baseAddress() < b.baseAddress() : a.len() < b.len();
  }
};

/// A number too large for a node of the trie, and moved with care.
class Kept {
 public:
  Kept(int number = 0) : numbers_{number, number} {}
  Kept(const Kept&) = default;
  Kept(Kept&& other) noexcept : numbers_{other.numbers_[0], std::exchange(other.numbers_[1], -1)} {}
  Kept& operator=(Kept other) noexcept {
    return numbers_[0] = other.numbers_[0], numbers_[1] = other.numbers_[1], *this;
  }
  ~Kept() { numbers_[1] = -2; }
  operator int() const { return numbers_[1] == numbers_[0] ? numbers_[0] : -3; }

 private:
  int numbers_[3] = {};  // more than a pointer has
};

template <typename P>
class PrefixMapTest : public testing::Test {
 protected:
  using Address = detail::AddressOf<P>;
  using Value = std::conditional_t<std::same_as<P, IpGenPrefix>, Kept, int>;
  using Map = PrefixMap<Value, P>;
  using Model = std::map<P, int, TrieOrder<P>>;

  /// The slow way: all prefixes that contain the address.
  static const int* longest(const Model& model, const Address& address, P* key = nullptr) {
    const int* best = nullptr;
    unsigned len = 0;
    for (const auto& [prefix, value] : model) {
      if (!prefix.contains(address) || (best && prefix.len() < len)) continue;
      best = &value;
      len = prefix.len();
      if (key) *key = prefix;
    }
    return best;
  }

  static void expectSameTable(Map& map, Random& random) {
    const PrefixTable<Value, P> table(map);
    std::vector<Address> addresses;
    for (unsigned i = 0; i < 50; ++i) {
      P asked = randomPrefix<P>(random);
      if (const auto at = map.lowerBound(asked); i % 3 == 0 && at != map.end()) asked = at->key;
      addresses.push_back(i % 2 ? asked.first() : asked.last());
    }
    const auto expect = [&](std::size_t i, const Value* value) {
      const auto found = map.longestMatch(addresses[i]);
      ASSERT_TRUE(value ? found && *found == *value : !found) << addresses[i];
    };
    for (std::size_t i = 0; i < addresses.size(); ++i) expect(i, table.longestMatch(addresses[i]));
    if constexpr (!std::same_as<P, IpGenPrefix>)
      table.longestMatches(addresses.data(), addresses.size(), expect);
  }

  static void expectSame(Map& map, const Model& model, Random& random) {
    ASSERT_EQ(map.size(), model.size());
    auto at = model.begin();
    for (auto [prefix, value] : map) {
      ASSERT_TRUE(at != model.end() && prefix == at->first && value == at->second) << prefix;
      ++at;
    }
    ASSERT_TRUE(at == model.end());
    const Map copy = map;
    // A part of the routes, which mostly have their first bits in common.
    const P block = randomPrefix<P>(random);
    Map part;
    for (const auto [prefix, value] : copy.covered(block)) part.insert(prefix, value);
    expectSameTable(part, random);
    expectSameTable(map, random);
    for (int i = 0; i < 60; ++i) {
      const P asked = randomPrefix<P>(random);
      const Address address = random() % 2 ? asked.first() : asked.last();
      P key;
      const int* best = longest(model, address, &key);
      const auto found = copy.longestMatch(address);
      ASSERT_EQ(found.value != nullptr, best != nullptr) << address;
      ASSERT_TRUE(!best || (*found == *best && found.key == key)) << address;

      const auto exact = model.find(asked);
      const Value* const ours = map.find(asked);
      ASSERT_EQ(ours ? int{*ours} : -1, exact == model.end() ? -1 : exact->second);
      std::vector<P> covered, covering, within, above;
      for (const auto& entry : model) {
        if (asked.contains(entry.first)) within.push_back(entry.first);
        if (entry.first.contains(asked)) above.push_back(entry.first);
      }
      for (const auto entry : copy.covered(asked)) covered.push_back(entry.key);
      map.covering(asked, [&](const P& prefix, int) { covering.push_back(prefix); });
      ASSERT_EQ(covered, within) << asked;
      ASSERT_EQ(covering, above) << asked;
      const auto bound = model.upper_bound(asked);
      const auto behind = copy.upperBound(asked);
      ASSERT_EQ(behind == copy.end(), bound == model.end());
      ASSERT_TRUE(bound == model.end() || behind->key == bound->first);
      const auto from = copy.lowerBound(asked);
      ASSERT_TRUE(exact == model.end() ? from == behind : from->key == asked);
    }
  }
};
using Families = testing::Types<Prefix, Ip6Prefix, IpGenPrefix>;
TYPED_TEST_SUITE(PrefixMapTest, Families);

TYPED_TEST(PrefixMapTest, DoesWhatTheModelDoes) {
  using P = TypeParam;
  Random random(14);
  typename TestFixture::Map map;
  typename TestFixture::Model model;
  for (int step = 0; step < 6000; ++step) {
    const P key = randomPrefix<P>(random);
    if (step % 8 == 0) {
      // One block of memory is lacking: the prefix comes as a whole or not at all.
      const AllocationRefusal refusal(1 + random() % 5, 1, true);
      try {
        map.insert(key, step);
      } catch (const std::bad_alloc&) {
        ASSERT_FALSE(map.find(key));
      }
    }
    if (map.find(key)) model.emplace(key, step);
    // Grows to some hundreds, then shrinks to nothing, twice.
    const bool grows = step / 1500 % 2 == 0;
    if (grows ? random() % 8 != 0 : random() % 8 == 0) {
      if (random() % 2) {
        const auto [value, isNew] = map.insert(key, step);
        ASSERT_EQ(isNew, model.emplace(key, step).second);
        ASSERT_EQ(*value, model[key]);
      } else {
        ASSERT_EQ(map.insertOrAssign(key, step), model[key] = step);
      }
    } else if (const auto at = model.lower_bound(key); random() % 4 && at != model.end()) {
      ASSERT_TRUE(map.erase(at->first));
      model.erase(at);
    } else {
      ASSERT_EQ(map.erase(key), model.erase(key) == 1);
    }
    if (step % 100 == 0) this->expectSame(map, model, random);
  }
  // Erase and insert while iterating, the current prefix included.
  for (auto at = map.begin(); at != map.end();) {
    const P key = at->key;
    ASSERT_EQ(at->value, model.at(key));
    if (random() % 2) {
      at = map.erase(at);
      model.erase(key);
      const P other = randomPrefix<P>(random);
      map.insertOrAssign(other, model[other] = 7);
    } else {
      at->value = model[key] = 3;
      ++at;
    }
  }
  this->expectSame(map, model, random);
  typename TestFixture::Map moved = std::move(map);
  this->expectSame(moved, model, random);
  for (const auto& entry : model) moved.erase(entry.first);
  EXPECT_TRUE(moved.empty() && moved.memory() == 0 && moved.begin() == moved.end());
  EXPECT_DEATH((void)*moved.begin(), "the prefix is in the map");
}

TEST(PrefixTable, OfManyRoutesAgreesWithTheMap) {
  Random random(24);
  PrefixMap<int> map;
#ifdef __OPTIMIZE__
  constexpr std::size_t kRoutes = 340'000;
#else
  constexpr std::size_t kRoutes = 30'000;  // under a sanitizer
#endif
  while (map.size() < kRoutes) {
    const unsigned len = 8 + random() % 25;
    const IpAddr v4 = IpAddr::fromHostOrder(random());
    map.insert(Prefix(v4.maskedByLength(len), len), static_cast<int>(random() % 100));
    const Ip6Addr v6(Kiv::U64{random()} << 32, Kiv::U64{random()} << 32);
    map.insert(Ip6Prefix(v6.maskedByLength(4 * len), 4 * len), static_cast<int>(random() % 100));
  }
  const PrefixTable<int> table(map);
  for (const auto& [prefix, value] : map) {
    for (const auto& address : {std::optional(prefix.first()), prefix.last().next()}) {
      if (!address) continue;
      const auto found = map.longestMatch(*address);
      const int* const looked = table.longestMatch(*address);
      ASSERT_TRUE(looked ? found && *found == *looked : !found) << *address;
    }
  }
}

TEST(PrefixMap, RefusesKeysThatAreNoPrefixes) {
  PrefixMap<std::unique_ptr<int>> map;
  EXPECT_TRUE(map.insert(IpGenPrefix("10.0.0.0/8"), std::make_unique<int>(1)).second);
  for (const IpGenPrefix& key :
       {IpGenPrefix(), IpGenPrefix("fe80::1/64"), IpGenPrefix(Prefix(IpAddr(10, 0, 0, 0), Prefix::kNoLen)),
        IpGenPrefix(Ip6Prefix(Ip6Addr(), Ip6Prefix::kNullLen))}) {
    EXPECT_THROW(map.insert(key, nullptr), Kiv::RangeException) << key;
    EXPECT_THROW(map.insertOrAssign(key, nullptr), Kiv::RangeException) << key;
    EXPECT_TRUE(!map.find(key) && !map.erase(key) && map.covered(key).empty()) << key;
  }
  EXPECT_FALSE(map.longestMatch(IpGenAddr()));
  EXPECT_EQ(**map.longestMatch(IpGenAddr("10.1.2.3")), 1);
  map.clear();
  EXPECT_FALSE(map.longestMatch(IpGenAddr("10.1.2.3")));
}

TEST(LiveTable, IsReplacedWhileOthersRead) {
  using Table = PrefixTable<int, Prefix>;
  LiveTable<Table> live;
  std::atomic<bool> stop = false;
  std::atomic<unsigned> changesSeen = 0;
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      LiveTable<Table>::Reader reader(live);
      int last = 0;
      while (!stop) {
        // All routes of a version have one value, and versions only go up.
        const Table& table = reader.table();
        const int* const a = table.longestMatch(IpAddr(10, 1, 2, 3));
        const int* const b = table.longestMatch(IpAddr(10, 200, 0, 1));
        ASSERT_EQ(a ? *a : 0, b ? *b : 0);
        ASSERT_GE(a ? *a : 0, last);
        if (a && *a != last) ++changesSeen;
        last = a ? *a : 0;
      }
    });
  }
  for (int version = 1; version <= 200 || changesSeen < 100; ++version) {
    PrefixMap<int, Prefix> map;
    map.insert(Prefix("10.0.0.0/8"), version);
    for (unsigned i = 0; i < 100; ++i)
      map.insert(Prefix(IpAddr(10, static_cast<Kiv::U8>(i), 0, 0), 16), version);
    live.replace(Table(map));
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
}

}  // namespace
