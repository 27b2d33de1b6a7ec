// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/Types.h"
#include "bench/support/Compare.h"

namespace bench {

/// Texts or values for one row: enough of them, in random order, that no branch predictor learns them by
/// heart.
constexpr std::size_t kCorpusSize = 10'000;

using Random = std::independent_bits_engine<std::mt19937, 32, Kiv::U32>;

inline unsigned below(Random& random, unsigned bound) {
  return random() % bound;
}

template <typename Make>
auto corpus(Make make, std::size_t size = kCorpusSize) {
  Random random(20240607);
  std::vector<decltype(make(random))> all;
  for (std::size_t i = 0; i < size; ++i) all.push_back(make(random));
  return all;
}

/// A text with a fault of one of the usual kinds; `wrong` refuses it.
template <typename Refused>
std::string spoilt(Random& random, const std::string& text, std::string_view separators, Refused refused) {
  for (;;) {
    std::string bad = text;
    const std::size_t at = below(random, static_cast<unsigned>(text.size()));
    switch (below(random, 5)) {
      case 0:
        bad[at] = "gxz %_"[below(random, 6)];
        break;
      case 1:
        bad.resize(at);
        break;
      case 2:
        bad += ": .\n"[below(random, 4)];
        break;
      case 3:
        bad[at] = separators[below(random, static_cast<unsigned>(separators.size()))];
        break;
      default:
        bad.insert(at, 1, '9');
        break;
    }
    if (refused(bad)) return bad;
  }
}

/// Does `work` on each item of a corpus, and counts the items.
template <typename Corpus, typename Work>
Body each(const Corpus& items, Work work) {
  return [&items, work](benchmark::State& state) {
    for (auto _ : state) {
      for (const auto& item : items) benchmark::DoNotOptimize(work(item));
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(items.size()));
  };
}

}  // namespace bench
