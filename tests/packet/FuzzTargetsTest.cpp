// SPDX-License-Identifier: Apache-2.0
// The fuzz targets, each of which holds a part of the room against a second, slow version of it: over their
// corpora, over changes of these and over random inputs. A difference ends the process.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>

#include "Kiv/Trace.h"

extern "C" {
int checksumFuzz(const unsigned char* data, std::size_t size);
int headersFuzz(const unsigned char* data, std::size_t size);
int pktChecksFuzz(const unsigned char* data, std::size_t size);
#ifdef WIRL_WITH_FILTERS
int bpfFilterFuzz(const unsigned char* data, std::size_t size);
#endif
}

namespace {

struct Target {
  const char* name;
  int (*run)(const unsigned char* data, std::size_t size);
  int variants;  // of each input of the corpus
};

class FuzzTargets : public testing::TestWithParam<Target> {
 protected:
  void TearDown() override {
    Kiv::traceIs("");
    Kiv::traceSinkIs(nullptr);
  }
};

TEST_P(FuzzTargets, CorpusAndItsVariants) {
  const Target& target = GetParam();
  const auto run = [&](const std::string& input) {
    const std::basic_string<unsigned char> exact(input.begin(), input.end());
    target.run(exact.data(), exact.size());
  };
  std::set<std::filesystem::path> files;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::filesystem::path(WIRL_CORPUS) / target.name)) {
    files.insert(entry.path());
  }
  ASSERT_FALSE(files.empty());
  std::mt19937 random(1);
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(in), {}};
    run(input);
    for (int i = 0; i < target.variants; ++i) {
      std::string variant = input.empty() ? std::string(1, '\0') : input;
      for (auto changes = random() % 6; changes > 0; --changes) {
        variant[random() % variant.size()] = static_cast<char>(random() % 3 != 0 ? random() : random() % 3);
      }
      if (random() % 3 == 0) variant.resize(random() % (2 * variant.size()), static_cast<char>(random()));
      run(variant);
    }
  }
}

const Target kTargets[] = {
#ifdef WIRL_WITH_FILTERS
    {"bpfFilterFuzz", bpfFilterFuzz, 60},
#endif
    {"checksumFuzz", checksumFuzz, 3000},
    {"headersFuzz", headersFuzz, 3000},
    {"pktChecksFuzz", pktChecksFuzz, 6000}};
INSTANTIATE_TEST_SUITE_P(Targets, FuzzTargets, testing::ValuesIn(kTargets),
                         [](const auto& target) { return target.param.name; });

}  // namespace
