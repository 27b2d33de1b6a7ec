// SPDX-License-Identifier: Apache-2.0
// The fuzz targets of a room, each of which holds it against a second, slow version: over their corpora and
// the frames of a capture, over changes of these, and over random inputs. A difference ends the process.
//
// WIRL_FUZZ_TARGETS has TARGET(name, runs, octets) of each: so many runs, and with so many octets in front a
// frame is an input of the target (0 where its inputs are no frames).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "Kiv/Trace.h"
#include "tests/packet/Frames.h"

#define TARGET(name, runs, octets) extern "C" int name(const unsigned char* data, std::size_t size);
WIRL_FUZZ_TARGETS
#undef TARGET

namespace {

struct Target {
  const char* name;
  int (*run)(const unsigned char* data, std::size_t size);
  unsigned runs, octetsInFront;
};

/// Inputs that are worth changing.
std::vector<std::string> seedsOf(const Target& target) {
  std::vector<std::string> seeds;
  if (target.octetsInFront > 0) {
    seeds = frames::ofCapture(WIRL_FUZZ_FRAMES);
    for (std::string& seed : seeds) seed.insert(0, target.octetsInFront, '\0');
  }
  const auto corpus = std::filesystem::path(WIRL_FUZZ_CORPUS) / target.name;
  if (std::filesystem::exists(corpus)) {
    for (const auto& entry : std::filesystem::directory_iterator(corpus)) {
      std::ifstream file(entry.path(), std::ios::binary);
      seeds.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
  }
  if (seeds.empty()) seeds.emplace_back(300, '\0');
  std::sort(seeds.begin(), seeds.end());
  return seeds;
}

using FuzzTargets = testing::TestWithParam<Target>;

TEST_P(FuzzTargets, FindNoDifference) {
  const Target& target = GetParam();
  const auto seeds = seedsOf(target);
  std::mt19937 random(1);
  for (unsigned run = 0; run < target.runs + seeds.size(); ++run) {
    std::string input = seeds[run % seeds.size()];
    if (run >= seeds.size()) {
      const std::size_t most = seeds.size() > 1 ? 6 : input.size();  // all of it, where there is but zeros
      for (auto changes = random() % most; changes > 0 && !input.empty(); --changes) {
        input[random() % input.size()] = static_cast<char>(random() % 3 != 0 ? random() : random() % 3);
      }
      for (unsigned i = 0; i < target.octetsInFront; ++i) input[i] = static_cast<char>(random());
      const std::size_t size = random() % (2 * input.size() + 2);
      if (random() % 3 == 0)
        std::generate_n(std::back_inserter(input), 40, std::ref(random)), input.resize(size);
    }
    const std::vector<unsigned char> exact(input.begin(), input.end());
    target.run(exact.data(), exact.size());
  }
  Kiv::traceIs("");
  Kiv::traceSinkIs(nullptr);
}

#define TARGET(name, runs, octets) Target{#name, name, runs, octets},
INSTANTIATE_TEST_SUITE_P(Of, FuzzTargets, testing::ValuesIn({WIRL_FUZZ_TARGETS}),
                         [](const auto& target) { return target.param.name; });

}  // namespace
