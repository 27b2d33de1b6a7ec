// SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "Wirl/value/Prefix.h"
#include "bench/value/Addresses.h"

namespace {

using namespace bench;
using Kiv::S64;
using Kiv::U32;
using Kiv::U64;
using Wirl::IpAddr;
using Wirl::Prefix;

const auto& addresses() {
  static const auto all = corpus(mixedIpAddr);
  return all;
}
const auto& texts() {
  static const auto all =
      corpus([](Random& random) { return std::string(mixedIpAddr(random).stringValue()); });
  return all;
}
const auto& badTexts() {
  static const auto all = corpus([](Random& random) {
    return spoilt(random, mixedIpAddr(random).stringValue(),
                  "./:", [](const std::string& text) { return !IpAddr::fromText(text); });
  });
  return all;
}

constexpr std::size_t kMany = 1'000'000;

const auto& manyPrefixes() {
  static const auto all = corpus(
      [](Random& random) {
        const unsigned len = 8 + below(random, 25);
        return Prefix(IpAddr::fromHostOrder(random()).maskedByLength(len), len);
      },
      kMany);
  return all;
}
const auto& manyPacked() {
  static const auto all = [] {
    std::vector<U64> packed;
    for (const Prefix& p : manyPrefixes()) packed.push_back(U64{p.address().hostOrder()} << 8 | p.len());
    return packed;
  }();
  return all;
}

template <typename Values>
Body sorted(const Values& values) {
  return [&values](benchmark::State& state) {
    Values work;
    for (auto _ : state) {
      work = values;
      std::sort(work.begin(), work.end());
      benchmark::DoNotOptimize(work.data());
    }
  };
}

/// The same million under both kinds of key, filled in turns so that neither has its nodes in better places.
struct Maps {
  std::unordered_map<IpAddr, U32> byAddress;
  std::unordered_map<U32, U32> byNumber;
  std::vector<IpAddr> addresses;  // the keys, in another order than they were put in
  std::vector<U32> numbers;

  Maps() {
    numbers = corpus([](Random& random) { return random(); }, kMany);
    for (const U32 number : numbers) {
      byAddress.emplace(IpAddr::fromHostOrder(number), number);
      byNumber.emplace(number, number);
    }
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937(1));
    for (const U32 number : numbers) addresses.push_back(IpAddr::fromHostOrder(number));
  }
};
const Maps& maps() {
  static const Maps both;
  return both;
}

template <typename Keys, typename Map>
Body lookedUp(const Keys Maps::*keys, const Map Maps::*map) {
  return [keys, map](benchmark::State& state) {
    for (auto _ : state) {
      for (const auto& key : maps().*keys) benchmark::DoNotOptimize((maps().*map).find(key)->second);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(kMany));
  };
}

BENCH_ROWS {
  const auto parse = [](const std::string& text) {
    const auto address = IpAddr::fromText(text);
    return address ? S64{address->netOrder()} : S64{-1};
  };
  compare("IPv4 text, parse", each(texts(), parse), "inet_pton",
          each(texts(),
               [](const std::string& text) {
                 in_addr out;
                 return inet_pton(AF_INET, text.c_str(), &out) == 1 ? S64{out.s_addr} : S64{-1};
               }),
          timesFaster(5));
  compare("IPv4 text, reject", each(badTexts(), parse), "our parse", each(texts(), parse), atMost(1));
  compare("IPv4 text, print to buffer",
          each(addresses(),
               [](const IpAddr& address) {
                 char text[INET_ADDRSTRLEN];
                 benchmark::DoNotOptimize(address.printToBuffer(text, sizeof(text)));
                 return text[0];
               }),
          "inet_ntop",
          each(addresses(),
               [](const IpAddr& address) {
                 char text[INET_ADDRSTRLEN];
                 const in_addr word{address.netOrder()};
                 benchmark::DoNotOptimize(inet_ntop(AF_INET, &word, text, sizeof(text)));
                 return text[0];
               }),
          timesFaster(15));
  compare("IPv4 text, string form",
          each(addresses(), [](const IpAddr& address) { return address.stringValue(); }),
          "inet_ntop, std::string",
          each(addresses(),
               [](const IpAddr& address) {
                 char text[INET_ADDRSTRLEN];
                 const in_addr word{address.netOrder()};
                 return std::string(inet_ntop(AF_INET, &word, text, sizeof(text)));
               }),
          timesFaster(8));
  compare("IPv4 prefixes, sort a million", sorted(manyPrefixes()), "64-bit integers", sorted(manyPacked()),
          atMost(1.5));
  compare("IPv4 addresses, look up in a map of a million", lookedUp(&Maps::addresses, &Maps::byAddress),
          "integer key", lookedUp(&Maps::numbers, &Maps::byNumber), atMost(1.1));
}

}  // namespace
