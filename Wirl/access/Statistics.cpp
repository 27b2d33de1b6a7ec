// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/Statistics.h"

#include <cxxabi.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <typeinfo>

#include "Kiv/Clock.h"
#include "Wirl/access/deferClose.h"
#include "Wirl/access/detail/PamsOfThread.h"

namespace Wirl {

namespace {

using Kiv::ActivityLoop;
using Kiv::LoopStatistics;

// Collecting
// -----------------------------------------------------------------------------------------------------

class Counters final : public Kiv::AttrVisitor {
 public:
  explicit Counters(PamStatistics& pam) : pam_(pam) {}
  void attr(std::string_view, std::string_view, const Kiv::String&) override {}
  void counter(std::string_view name, std::string_view, U64 value) override {
    pam_.counters.emplace_back(name, value);
  }

 private:
  PamStatistics& pam_;
};

std::string className(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> text(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 ? text.get() : type.name();
}

/// The first line of a small file; empty if it cannot be read.
std::string lineOf(const std::string& file) {
  char line[256] = {};
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(std::fopen(file.c_str(), "re"), std::fclose);
  if (!in || !std::fgets(line, sizeof(line), in.get())) return {};
  std::string text = line;
  if (text.ends_with('\n')) text.pop_back();
  return text;
}

std::string threadName(S32 thread) {
  return lineOf("/proc/self/task/" + std::to_string(thread) + "/comm");
}

ProcessStatistics processItself() {
  ProcessStatistics process;
  process.program = program_invocation_short_name;
  process.process = getpid();
  process.depotObjects = Pkt::Manager::depotObjects();
  const DeferCloseStats& closes = *deferCloseStats();
  const U32 closed = closes.closed;  // read first, so that it is not above the other
  process.closesDeferred = closes.enqueued;
  process.closesWaiting = process.closesDeferred - closed;
  process.closedInline = closes.closedInline;
  return process;
}

}  // namespace

const U64* PamStatistics::counter(std::string_view counterName) const noexcept {
  for (const auto& [each, value] : counters) {
    if (each == counterName) return &value;
  }
  return nullptr;
}

ThreadStatistics threadStatistics(bool measure) {
  ThreadStatistics result;
  result.thread = gettid();
  result.name = threadName(result.thread);
  ActivityLoop& loop = Kiv::activityLoop();
  if (measure) loop.measuredIs(true);
  result.measured = loop.measured();
  result.loop = loop.statistics();
  result.cachedPkts = Pkt::Manager::cachedPkts();
  result.cachedBuffers = Pkt::Manager::cachedBuffers();
  detail::PamsOfThread::visit([&](const Pam& pam) {
    PamStatistics& each = result.pams.emplace_back();
    each.name = pam.name();
    each.type = className(typeid(pam));
    each.txErrno = pam.txErrno();
    Counters counters(each);
    pam.visitAttrs(counters);
  });
  std::reverse(result.pams.begin(), result.pams.end());
  return result;
}

/// Only the asking thread holds it for longer than a moment, and only there it is destroyed: the others have
/// weak pointers.
struct StatisticsRequest::State {
  std::function<void(const ProcessStatistics&)> done;
  ProcessStatistics process = processItself();
  std::size_t missing = 0;
  Kiv::Ptr<Kiv::Clock> clock = Kiv::makePtr<Kiv::Clock>("statistics");
  Kiv::Reactor onTime;

  void answer(std::size_t index, ThreadStatistics&& thread) {
    if (!done) return;
    process.threads[index] = std::move(thread);
    if (--missing == 0) finish();
  }
  void finish() {
    clock->timeMinIs(Kiv::timeInfinite);
    // Its owner may drop the request now.
    const auto run = std::exchange(done, nullptr);
    const ProcessStatistics result = std::move(process);
    run(result);
  }
};

StatisticsRequest::StatisticsRequest(std::function<void(const ProcessStatistics&)> done, double seconds,
                                     bool measure)
    : state_(std::make_shared<State>()) {
  ActivityLoop& here = Kiv::activityLoop();
  state_->done = std::move(done);
  const std::vector<Kiv::LoopOfThread> loops = Kiv::activityLoops();
  state_->missing = loops.size();
  for (const Kiv::LoopOfThread& each : loops) {
    ThreadStatistics& thread = state_->process.threads.emplace_back();
    thread.thread = each.thread;
    thread.name = threadName(each.thread);
    thread.answered = false;
  }
  state_->onTime = Kiv::Reactor(state_->clock->expiredCount, [state = state_.get()] { state->finish(); });
  state_->clock->timeMinIs(Kiv::timeAfter(here.now(), Kiv::timeOfSeconds(seconds)));
  const std::weak_ptr<State> asking = state_;
  for (std::size_t i = 0; i < loops.size(); ++i) {
    loops[i].loop.post([i, measure, asking, home = here.handle()] {
      try {
        home.post([i, asking, thread = threadStatistics(measure)]() mutable {
          if (const auto state = asking.lock()) state->answer(i, std::move(thread));
        });
      } catch (const std::exception&) {
        // Without memory this loop gives no answer; it must not end for that.
      }
    });
  }
}

StatisticsRequest::~StatisticsRequest() {
  state_->done = nullptr;
  state_->clock->timeMinIs(Kiv::timeInfinite);
}

// Text
// -----------------------------------------------------------------------------------------------------

namespace {

void append(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void append(std::string& out, const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  out.append(text, static_cast<std::size_t>(std::clamp(length, 0, static_cast<int>(sizeof(text)) - 1)));
}

double secondsOf(Kiv::Time time) {
  return std::chrono::duration<double>(time).count();
}

/// In at most six characters.
std::string rounded(U64 number) {
  if (number < 1000000) return std::to_string(number);
  double rest = static_cast<double>(number);
  const char* unit = "kMGTPE";
  for (rest /= 1000; rest >= 999.5; rest /= 1000) ++unit;
  std::string text;
  append(text, "%.*f%c", rest < 10 ? 2 : rest < 100 ? 1 : 0, rest, *unit);
  return text;
}

std::string roundedTime(Kiv::Time time) {
  const double seconds = secondsOf(time);
  std::string text;
  if (seconds < 1e-3) {
    append(text, "%.0f us", seconds * 1e6);
  } else if (seconds < 1) {
    append(text, "%.1f ms", seconds * 1e3);
  } else {
    append(text, "%.1f s", seconds);
  }
  return text;
}

/// What the terminal would act upon is left out, and the middle of what is too long.
std::string cell(std::string_view text, std::size_t width) {
  std::string shown;
  for (const char c : text) shown += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  if (shown.size() > width) shown.replace(width / 2, shown.size() - width + 1, "~");
  return shown;
}

/// The counters that have columns; two names of the same where classes differ.
struct Column {
  const char* head;
  const char* names[2];
};
constexpr Column kColumns[] = {
    {"rxEvent", {"readableCount", nullptr}}, {"txEvent", {"writableCount", nullptr}},
    {"rx", {"rxPkts", "rxPktCount"}},        {"tx", {"txPkts", "txPktCount"}},
    {"rxDrops", {"rxDrops", nullptr}},       {"rxErrs", {"rxErrors", nullptr}},
    {"txDrops", {"txDrops", nullptr}},       {"txErrs", {"txErrors", nullptr}},
};

const U64* columnOf(const PamStatistics& pam, const Column& column) {
  for (const char* name : column.names) {
    const U64* const value = name ? pam.counter(name) : nullptr;
    if (value) return value;
  }
  return nullptr;
}

bool hasColumn(std::string_view counter) {
  return std::any_of(std::begin(kColumns), std::end(kColumns), [&](const Column& column) {
    return counter == column.names[0] || (column.names[1] && counter == column.names[1]);
  });
}

void appendPamRows(std::string& out, const std::vector<PamStatistics>& pams) {
  append(out, "  %-18s %-15s", "Pam", "class");
  for (const Column& column : kColumns) append(out, " %7s", column.head);
  out += '\n';
  for (const PamStatistics& pam : pams) {
    const std::string_view type = pam.type;
    const std::string_view base = type.substr(type.rfind(':') + 1);
    append(out, "  %-18s %-15s", cell(pam.name, 18).c_str(), cell(base, 15).c_str());
    for (const Column& column : kColumns) {
      const U64* const value = columnOf(pam, column);
      append(out, " %7s", value ? rounded(*value).c_str() : "-");
    }
    out += '\n';
    // What else it counted, as far as there is room.
    std::string rest;
    const U64* const errors = pam.counter("txErrors");
    if (errors && *errors > 0 && pam.txErrno != 0) append(rest, "  txErrno %d", pam.txErrno);
    for (const auto& [name, value] : pam.counters) {
      if (value > 0 && !hasColumn(name))
        append(rest, "  %s %s", cell(name, 20).c_str(), rounded(value).c_str());
    }
    if (!rest.empty()) out += "   " + rest.substr(0, 97) + '\n';
  }
}

// JSON

void appendJson(std::string& out, std::string_view text) {
  out += '"';
  for (const char c : text) {
    const auto octet = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (octet < 0x20 || octet >= 0x7f) {
      append(out, "\\u%04x", octet);  // names are octets: each becomes the character of its number
    } else {
      out += c;
    }
  }
  out += '"';
}

// Prometheus

/// A label's value: what the format gives a meaning is escaped, what is not ASCII becomes a question mark.
std::string label(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto octet = static_cast<unsigned char>(c);
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    if (c == '"' || c == '\\') out += '\\';
    out += octet < 0x20 || octet >= 0x7f ? '?' : c;
  }
  return out;
}

/// "rxPktCount" -> "rx_packets", "readableCount" -> "readable", "txDrops" -> "tx_drops".
std::string metricOf(std::string_view counter) {
  for (const auto& [end, instead] : {std::pair<std::string_view, std::string_view>{"PktCount", "Packets"},
                                     {"Pkts", "Packets"},
                                     {"Count", ""}}) {
    if (counter.size() > end.size() && counter.ends_with(end)) {
      return metricOf(std::string(counter.substr(0, counter.size() - end.size())) + std::string(instead));
    }
  }
  std::string out;
  for (const char c : counter) {
    if (c >= 'A' && c <= 'Z') {
      out += '_';
      out += static_cast<char>(c - 'A' + 'a');
    } else {
      out += c;
    }
  }
  return out;
}

/// The samples of each metric must stand together, so they are gathered first.
class Metrics {
 public:
  std::string& of(const std::string& name, const char* type, const char* help) {
    const auto [at, fresh] = metrics_.try_emplace(name);
    if (fresh) append(at->second, "# HELP %s %s\n# TYPE %s %s\n", name.c_str(), help, name.c_str(), type);
    return at->second;
  }
  template <typename Number>
  void add(const std::string& name, const char* type, const char* help, const std::string& labels,
           Number number) {
    std::string& out = of(name, type, help);
    out += name;
    if (!labels.empty()) out += '{' + labels + '}';
    if constexpr (std::is_floating_point_v<Number>) {
      append(out, " %.9f\n", number);
    } else {
      append(out, " %llu\n", static_cast<unsigned long long>(number));
    }
  }
  std::string text() const {
    std::string all;
    for (const auto& [name, lines] : metrics_) all += lines;
    return all;
  }

 private:
  std::map<std::string, std::string> metrics_;
};

}  // namespace

std::string statisticsTable(const ProcessStatistics& statistics) {
  std::string out;
  append(out, "%s (process %d): depot %u, deferred closes %u, waiting %u, inline %u\n",
         cell(statistics.program, 30).c_str(), statistics.process, statistics.depotObjects,
         statistics.closesDeferred, statistics.closesWaiting, statistics.closedInline);
  for (const ThreadStatistics& thread : statistics.threads) {
    append(out, "\nthread %d %s", thread.thread, cell(thread.name, 16).c_str());
    if (!thread.answered) {
      out += ": did not answer, its loop is busy or at rest outside of run()\n";
      continue;
    }
    append(out, ": keeps %u packets, %u buffers", thread.cachedPkts, thread.cachedBuffers);
    const LoopStatistics& loop = thread.loop;
    if (thread.measured) {
      append(out, "; %s passes, in reactors %s of %s\n ", rounded(loop.passes).c_str(),
             roundedTime(loop.inReactors).c_str(), roundedTime(loop.measured).c_str());
      for (unsigned i = 0; i < LoopStatistics::kEvents; ++i) {
        append(out, " %s %s", eventName(static_cast<LoopStatistics::Event>(i)).data(),
               rounded(loop.events[i]).c_str());
      }
      out += loop.slowest.empty() ? "" : "\n  slowest:";
      for (std::size_t i = 0; i < loop.slowest.size() && i < 3; ++i) {
        const LoopStatistics::Slow& slow = loop.slowest[i];
        append(out, "%s %s (%s) %s", i > 0 ? "," : "", cell(slow.name, 12).c_str(),
               eventName(slow.event).data(), roundedTime(slow.longest).c_str());
      }
    }
    out += '\n';
    if (!thread.pams.empty()) appendPamRows(out, thread.pams);
  }
  return out;
}

std::string statisticsJson(const ProcessStatistics& statistics) {
  std::string out = "{\"program\":";
  appendJson(out, statistics.program);
  append(out, ",\"process\":%d,\"depotObjects\":%u", statistics.process, statistics.depotObjects);
  append(out, ",\"closesDeferred\":%u,\"closesWaiting\":%u,\"closedInline\":%u,\"threads\":[",
         statistics.closesDeferred, statistics.closesWaiting, statistics.closedInline);
  const char* comma = "";
  for (const ThreadStatistics& thread : statistics.threads) {
    append(out, "%s{\"thread\":%d,\"name\":", std::exchange(comma, ","), thread.thread);
    appendJson(out, thread.name);
    append(out, ",\"answered\":%s", thread.answered ? "true" : "false");
    if (thread.answered) {
      append(out, ",\"cachedPkts\":%u,\"cachedBuffers\":%u", thread.cachedPkts, thread.cachedBuffers);
      if (thread.measured) {
        const LoopStatistics& loop = thread.loop;
        append(out, ",\"loop\":{\"passes\":%llu", static_cast<unsigned long long>(loop.passes));
        for (unsigned i = 0; i < LoopStatistics::kEvents; ++i) {
          append(out, ",\"%s\":%llu", eventName(static_cast<LoopStatistics::Event>(i)).data(),
                 static_cast<unsigned long long>(loop.events[i]));
        }
        append(out, ",\"measuredSeconds\":%.9f,\"inReactorsSeconds\":%.9f,\"slowest\":[",
               secondsOf(loop.measured), secondsOf(loop.inReactors));
        const char* between = "";
        for (const LoopStatistics::Slow& slow : loop.slowest) {
          append(out, "%s{\"event\":\"%s\",\"seconds\":%.9f,\"name\":", std::exchange(between, ","),
                 eventName(slow.event).data(), secondsOf(slow.longest));
          appendJson(out, slow.name);
          out += '}';
        }
        out += "]}";
      }
      out += ",\"pams\":[";
      const char* between = "";
      for (const PamStatistics& pam : thread.pams) {
        append(out, "%s{\"name\":", std::exchange(between, ","));
        appendJson(out, pam.name);
        out += ",\"class\":";
        appendJson(out, pam.type);
        append(out, ",\"txErrno\":%d", pam.txErrno);
        for (const auto& [name, value] : pam.counters) {
          out += ',';
          appendJson(out, name);
          append(out, ":%llu", static_cast<unsigned long long>(value));
        }
        out += '}';
      }
      out += ']';
    }
    out += '}';
  }
  out += "]}\n";
  return out;
}

std::string statisticsPrometheus(const ProcessStatistics& statistics) {
  Metrics metrics;
  const auto gauge = [&](const char* name, const char* help, const std::string& labels, auto number) {
    metrics.add(name, "gauge", help, labels, number);
  };
  const auto counter = [&](const char* name, const char* help, const std::string& labels, auto number) {
    metrics.add(name, "counter", help, labels, number);
  };
  std::string info;
  append(info, "program=\"%s\",process=\"%d\"", label(statistics.program).c_str(), statistics.process);
  gauge("wirl_process_info", "The process.", info, 1);
  gauge("wirl_depot_objects", "Packets and buffers that threads left for each other.", "",
        statistics.depotObjects);
  counter("wirl_deferred_closes_total", "Descriptors given to the closer thread.", "",
          statistics.closesDeferred);
  gauge("wirl_deferred_closes_waiting", "Descriptors that wait for the closer thread.", "",
        statistics.closesWaiting);
  counter("wirl_inline_closes_total", "Descriptors closed by the caller since too many waited.", "",
          statistics.closedInline);
  for (const ThreadStatistics& thread : statistics.threads) {
    std::string at;
    append(at, "thread=\"%d\"", thread.thread);
    gauge("wirl_thread_info", "A thread that has a loop.", at + ",name=\"" + label(thread.name) + '"', 1);
    gauge("wirl_thread_answered", "Whether the loop of the thread answered in time.", at, thread.answered);
    if (!thread.answered) continue;
    gauge("wirl_cached_packets", "Packets that the thread keeps.", at, thread.cachedPkts);
    gauge("wirl_cached_buffers", "Buffers that the thread keeps.", at, thread.cachedBuffers);
    if (thread.measured) {
      const LoopStatistics& loop = thread.loop;
      counter("wirl_loop_passes_total", "Passes of the loop.", at, loop.passes);
      for (unsigned i = 0; i < LoopStatistics::kEvents; ++i) {
        const std::string event(eventName(static_cast<LoopStatistics::Event>(i)));
        counter("wirl_loop_events_total", "Events that the loop ran reactors for.",
                at + ",event=\"" + event + '"', loop.events[i]);
      }
      counter("wirl_loop_measured_seconds_total", "How long the loop has been measured.", at,
              secondsOf(loop.measured));
      counter("wirl_loop_reactor_seconds_total", "Time spent in reactors.", at, secondsOf(loop.inReactors));
      for (const LoopStatistics::Slow& slow : loop.slowest) {
        gauge("wirl_loop_slowest_seconds", "The longest run of the reactors to a source.",
              at + ",event=\"" + std::string(eventName(slow.event)) + "\",source=\"" + label(slow.name) + '"',
              secondsOf(slow.longest));
      }
    }
    std::map<std::string, unsigned> sameName;
    for (const PamStatistics& pam : thread.pams) {
      std::string labels = at + ",pam=\"" + label(pam.name) + "\",class=\"" + label(pam.type) + '"';
      const unsigned number = ++sameName[labels];
      if (number > 1) append(labels, ",number=\"%u\"", number);  // no two samples may have the same labels
      for (const auto& [name, value] : pam.counters) {
        counter(("wirl_pam_" + metricOf(name) + "_total").c_str(), "A counter of a Pam.", labels, value);
      }
    }
  }
  return metrics.text();
}

}  // namespace Wirl
