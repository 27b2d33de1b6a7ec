// SPDX-License-Identifier: Apache-2.0
#include "bench/support/Compare.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

namespace bench {

namespace {

struct Row {
  std::string work;
  std::string peer;  // empty: a figure with no peer
  Target target;
};

std::vector<Row>& rows() {
  static std::vector<Row> all;
  return all;
}

std::string oursName(const Row& row) {
  return row.work + "|ours";
}
std::string peerName(const Row& row) {
  return row.work + "|" + row.peer;
}

/// Keeps the times of the repetitions, in nanoseconds of wall clock an iteration; prints nothing itself.
class Collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      if (run.error_occurred) {
        errors[run.run_name.function_name] = run.error_message;
        continue;
      }
      const auto bytes = run.counters.find("bytes");
      if (bytes != run.counters.end()) {
        sizes[run.run_name.function_name] = bytes->second;
        continue;
      }
      const auto own = run.counters.find("nanoseconds");
      if (own != run.counters.end()) {
        times[run.run_name.function_name].push_back(own->second);
        continue;
      }
      // A body may count several pieces of work an iteration.
      const auto items = run.counters.find("items_per_second");
      times[run.run_name.function_name].push_back(items != run.counters.end()
                                                      ? 1e9 / items->second
                                                      : run.real_accumulated_time /
                                                            static_cast<double>(run.iterations) * 1e9);
    }
  }

  double median(const std::string& name) {
    auto& values = times[name];
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
  }

  std::map<std::string, std::vector<double>> times;
  std::map<std::string, double> sizes;
  std::map<std::string, std::string> errors;
};

void print(const Row& row, Collector& results) {
  const double ours = results.median(oursName(row));
  for (const auto& name : {oursName(row), peerName(row)}) {
    const auto error = results.errors.find(name);
    if (error != results.errors.end()) {
      std::printf("%-58s | %s\n", row.work.c_str(), error->second.c_str());
      return;
    }
  }
  if (const auto size = results.sizes.find(oursName(row)); size != results.sizes.end()) {
    std::printf("%-58s | %10.0f bytes", row.work.c_str(), size->second);
    if (row.target.bound > 0) {
      std::printf(" | %*s<= %5.0f | %s", 62, "", row.target.bound,
                  size->second <= row.target.bound ? "reached" : "MISSED");
    }
    std::printf("\n");
    return;
  }
  if (ours == 0) return;  // filtered out
  if (row.peer.empty()) {
    std::printf("%-58s | %10.1f ns\n", row.work.c_str(), ours);
    return;
  }
  const double theirs = results.median(peerName(row));
  const double ratio = row.target.faster ? theirs / ours : ours / theirs;
  const bool reached = row.target.faster ? ratio >= row.target.bound : ratio <= row.target.bound;
  std::printf("%-58s | %10.1f ns | %-24s %10.1f ns | %s %6.2f | %s %5.2f | %s\n", row.work.c_str(), ours,
              row.peer.c_str(), theirs, row.target.faster ? "peer/ours" : "ours/peer", ratio,
              row.target.faster ? ">=" : "<=", row.target.bound, reached ? "reached" : "MISSED");
}

void add(const std::string& name, const Body& body) {
  benchmark::RegisterBenchmark(name.c_str(), body)->UseRealTime();
}

}  // namespace

void compare(std::string work, Body ours, std::string peer, Body theirs, Target target) {
  rows().push_back({std::move(work), std::move(peer), target});
  add(oursName(rows().back()), ours);
  add(peerName(rows().back()), theirs);
}

void state(std::string work, Body body, double limit) {
  rows().push_back({std::move(work), "", atMost(limit)});
  add(oursName(rows().back()), body);
}

}  // namespace bench

int main(int argc, char** argv) {
  // Short repetitions in random order: drift of the machine hits both sides of a row alike.
  std::vector<char*> arguments = {argv[0]};
  std::string defaults[] = {"--benchmark_repetitions=9", "--benchmark_min_time=0.05",
                            "--benchmark_enable_random_interleaving=true"};
  for (auto& flag : defaults) arguments.push_back(flag.data());
  for (int i = 1; i < argc; ++i) arguments.push_back(argv[i]);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
  bench::Collector results;
  benchmark::RunSpecifiedBenchmarks(&results);
  for (const auto& row : bench::rows()) bench::print(row, results);
  return 0;
}
