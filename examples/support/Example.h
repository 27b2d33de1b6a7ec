// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Shared by the example programs: ending on Ctrl-C, and tables of counters.

#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/Kiv.h"
#include "Wirl/access/Statistics.h"

namespace example {

/// While it lives, SIGINT and SIGTERM end the activity loop's run instead of the process.
class StopOnSignal {
 public:
  StopOnSignal() {
    // Whoever started the program, or this agent, may have blocked them until now.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  }
  bool stopped() const noexcept { return interrupt_->receivedCount() + terminate_->receivedCount() > 0; }

 private:
  const Kiv::Ptr<Kiv::Signal> interrupt_ = Kiv::makePtr<Kiv::Signal>("interrupt", SIGINT);
  const Kiv::Ptr<Kiv::Signal> terminate_ = Kiv::makePtr<Kiv::Signal>("terminate", SIGTERM);
  const Kiv::Reactor onInterrupt_{interrupt_->receivedCount, [] { Kiv::activityLoop().stop(); }};
  const Kiv::Reactor onTerminate_{terminate_->receivedCount, [] { Kiv::activityLoop().stop(); }};
};

inline constexpr const char* kStatisticsHelp = "shows its counters to wirlTop";

/// While it lives, wirlTop finds this program.
inline Kiv::Ptr<Wirl::StatisticsServer> statisticsIf(bool wanted) {
  return wanted ? Wirl::statisticsServerFactory() : nullptr;
}

/// Name of an interface in the socket's namespace, or "?" if there is no such interface any more.
inline std::string interfaceName(int socket, Kiv::U32 index) {
  ifreq request{};
  request.ifr_ifindex = static_cast<int>(index);
  return ioctl(socket, SIOCGIFNAME, &request) == 0 ? request.ifr_name : "?";
}

/// Table of counters: a row per entity, a column per counter that any of them has.
class CounterTable {
 public:
  /// Adds the attributes of `entity` that `kColumns` names, with their current values.
  void add(const Kiv::Entity& entity) {
    Row row(entity.name());
    entity.visitAttrs(row);
    rows_.push_back(row.cells);
  }
  /// Adds a row of another process's `lines()`.
  void addLine(std::string_view line) {
    std::vector<std::string> cells;
    for (std::size_t start = 0; start <= line.size();) {
      const std::size_t end = std::min(line.find('\t', start), line.size());
      cells.emplace_back(line.substr(start, end - start));
      start = end + 1;
    }
    if (cells.size() == std::size(kColumns) + 1) rows_.push_back(std::move(cells));
  }
  /// The rows as text, to send to another process.
  std::string lines() const {
    std::string text;
    for (const auto& row : rows_) {
      for (std::size_t i = 0; i < row.size(); ++i) text += (i == 0 ? "" : "\t") + row[i];
      text += '\n';
    }
    return text;
  }
  /// In as many parts as fit a hundred columns of a terminal. A part leaves out who has nothing in it.
  void print(std::FILE* out = stdout) const {
    constexpr std::size_t kMost = 100;
    std::vector<std::string> head = {"Pam"};
    head.insert(head.end(), std::begin(kColumns), std::end(kColumns));
    std::vector<std::size_t> widths(head.size());
    for (std::size_t i = 0; i < head.size(); ++i) {
      widths[i] = head[i].size();
      for (const auto& row : rows_) widths[i] = std::max(widths[i], row[i].size());
    }
    std::vector<std::size_t> part;
    std::size_t width = widths[0];
    const auto has = [&part](const auto& row) {
      return std::any_of(part.begin(), part.end(), [&row](std::size_t i) { return row[i] != "-"; });
    };
    const auto printRow = [&](const std::vector<std::string>& row) {
      std::fprintf(out, "%-*s", static_cast<int>(widths[0]), row[0].c_str());
      for (const std::size_t i : part)
        std::fprintf(out, "  %*s", static_cast<int>(widths[i]), row[i].c_str());
      std::fprintf(out, "\n");
    };
    const auto printPart = [&] {
      if (part.empty()) return;
      printRow(head);
      for (const auto& row : rows_) {
        if (has(row)) printRow(row);
      }
      part.clear();
      width = widths[0];
    };
    for (std::size_t i = 1; i < head.size(); ++i) {
      if (std::all_of(rows_.begin(), rows_.end(), [i](const auto& row) { return row[i] == "-"; })) continue;
      if (width + 2 + widths[i] > kMost) printPart();
      part.push_back(i);
      width += 2 + widths[i];
    }
    printPart();
  }

 private:
  static constexpr const char* kColumns[] = {"txPkts",     "txPktCount", "txBytes",       "rxPkts",
                                             "rxPktCount", "rxBytes",    "txDrops",       "txErrors",
                                             "txErrno",    "rxErrors",   "rxDrops",       "accepted",
                                             "attempts",   "connects",   "readableCount", "writableCount"};

  struct Row final : Kiv::AttrVisitor {
    explicit Row(std::string name) : cells(std::size(kColumns) + 1, "-") { cells[0] = std::move(name); }
    void attr(std::string_view name, std::string_view, const Kiv::String& value) override {
      const auto column = std::find(std::begin(kColumns), std::end(kColumns), name);
      if (column != std::end(kColumns)) cells[static_cast<std::size_t>(column - kColumns) + 1] = value;
    }
    std::vector<std::string> cells;
  };

  std::vector<std::vector<std::string>> rows_;
};

/// Prints `doing`, runs the activity loop until it is stopped, and prints the counters of `pam`.
inline void runUntilStopped(const char* doing, const Kiv::Entity& pam) {
  const StopOnSignal signals;
  std::printf("%s; Ctrl-C ends\n", doing);
  std::fflush(stdout);
  Kiv::activityLoop().run();
  CounterTable counters;
  counters.add(pam);
  counters.print();
}

}  // namespace example
