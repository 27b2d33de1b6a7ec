// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "Kiv/Exception.h"

namespace Kiv {

namespace {

struct Rule {
  std::string handle;  // "*" stands for every handle
  U16 levels;          // bit n: level n
  bool known = false;  // there is, or was, such a handle
};

constexpr std::string_view kHelp = "help";
constexpr const char* kOwnHandle = "KIV_TRACE";

std::atomic<U64> drops{0};

std::optional<unsigned> levelOf(std::string_view text) {
  if (text.size() != 1 || text[0] < '0' || text[0] > '9') return std::nullopt;
  return static_cast<unsigned>(text[0] - '0');
}

std::optional<Rule> ruleOf(std::string_view text) {
  if (text == kHelp) return Rule{std::string(text), 0, true};
  const std::size_t slash = text.rfind('/');
  if (slash == std::string_view::npos || slash == 0) return std::nullopt;
  const std::string_view range = text.substr(slash + 1);
  const std::size_t dash = range.find('-');
  const auto first = levelOf(range.substr(0, dash));
  const auto last = dash == std::string_view::npos ? first : levelOf(range.substr(dash + 1));
  if (!first || !last || *first > *last) return std::nullopt;
  const unsigned levels = (1u << (*last + 1)) - (1u << *first);
  std::string handle(text.substr(0, slash));
  const bool all = handle == "*";
  return Rule{std::move(handle), static_cast<U16>(levels), all};
}

std::optional<std::vector<Rule>> rulesOf(std::string_view setting) {
  std::vector<Rule> rules;
  while (!setting.empty()) {
    const std::size_t comma = setting.find(',');
    const auto rule = ruleOf(setting.substr(0, comma));
    if (!rule) return std::nullopt;
    rules.push_back(*rule);
    setting = comma == std::string_view::npos ? "" : setting.substr(comma + 1);
  }
  return rules;
}

void toStandardError(std::string_view handle, unsigned level, std::string_view text) {
  std::fprintf(stderr, "%.*s/%u: %.*s\n", static_cast<int>(handle.size()), handle.data(), level,
               static_cast<int>(text.size()), text.data());
}

}  // namespace

/// Everything that traces share: the handles, the rules and the sink, behind one lock.
class TraceRegistry {
 public:
  using Reports = std::vector<std::string>;

  static TraceRegistry& instance() {
    // Never destroyed: statics trace until the very end of the process.
    static auto* const registry = new TraceRegistry;
    return *registry;
  }

  void add(TraceHandle& handle) {
    Reports reports;
    {
      const std::lock_guard lock(mutex_);
      handles_.push_back(&handle);
      apply(handle, reports);
    }
    write(reports);
  }
  void remove(TraceHandle& handle) {
    const std::lock_guard lock(mutex_);
    std::erase(handles_, &handle);
  }
  void rulesAre(std::vector<Rule> rules) {
    Reports reports;
    {
      const std::lock_guard lock(mutex_);
      rules_ = std::move(rules);
      for (TraceHandle* handle : handles_) apply(*handle, reports);
    }
    write(reports);
    write(unknownHandles());
  }
  /// What the rules name and nobody has made, each once.
  Reports unknownHandles() {
    const std::lock_guard lock(mutex_);
    Reports unknown;
    for (Rule& rule : rules_) {
      if (!std::exchange(rule.known, true)) unknown.push_back("no handle " + rule.handle);
    }
    return unknown;
  }
  void sinkIs(TraceSink sink) {
    const std::lock_guard lock(sinkMutex_);
    sink_ = std::make_shared<TraceSink>(sink ? std::move(sink) : toStandardError);
  }
  void write(std::string_view handle, unsigned level, std::string_view text) noexcept {
    try {
      const std::lock_guard lock(sinkMutex_);
      const std::shared_ptr<TraceSink> sink = sink_;  // it may replace itself
      (*sink)(handle, level, text);
    } catch (...) {
      ++drops;
    }
  }
  void write(const Reports& reports) noexcept {
    for (const std::string& text : reports) write(kOwnHandle, 0, text);
  }

 private:
  TraceRegistry() : sink_(std::make_shared<TraceSink>(toStandardError)) {
    const char* const setting = std::getenv("KIV_TRACE");
    if (!setting) return;
    if (auto rules = rulesOf(setting)) {
      rules_ = std::move(*rules);
    } else {
      std::fprintf(stderr, "KIV_TRACE: invalid trace setting \"%s\" ignored\n", setting);
    }
    // For a process without an activity loop. Not to the sink, which may be gone by then.
    std::atexit([] {
      for (const std::string& text : instance().unknownHandles()) toStandardError(kOwnHandle, 0, text);
    });
  }

  void apply(TraceHandle& handle, Reports& reports) {
    U16 levels = 0;
    for (Rule& rule : rules_) {
      if (rule.levels == 0) reports.push_back(handle.name());  // help
      if (rule.handle != "*" && rule.handle != std::string_view(handle.name())) continue;
      levels |= rule.levels;
      rule.known = true;
    }
    handle.levels_.store(levels, std::memory_order_relaxed);
  }

  std::mutex mutex_;
  std::vector<TraceHandle*> handles_;
  std::vector<Rule> rules_;
  // A lock of its own, recursive: a sink may itself run code that traces.
  std::recursive_mutex sinkMutex_;
  std::shared_ptr<TraceSink> sink_;
};

void detail::traceCheck() noexcept {
  try {
    TraceRegistry& registry = TraceRegistry::instance();
    registry.write(registry.unknownHandles());
  } catch (const std::bad_alloc&) {
    ++drops;
  }
}

TraceHandle::TraceHandle(std::string_view name) : name_(name) {
  TraceRegistry::instance().add(*this);
}

TraceHandle::~TraceHandle() {
  TraceRegistry::instance().remove(*this);
}

void traceIs(std::string_view setting) {
  auto rules = rulesOf(setting);
  if (!rules) throw RangeException("Invalid trace setting");
  TraceRegistry::instance().rulesAre(std::move(*rules));
}

void traceSinkIs(TraceSink sink) {
  TraceRegistry::instance().sinkIs(std::move(sink));
}

TraceStream::TraceStream(const TraceHandle& handle, unsigned level) noexcept
    : handle_(handle), level_(level) {}

TraceStream::~TraceStream() {
  if (!text_.good()) {
    ++drops;
    return;
  }
  TraceRegistry::instance().write(handle_.name(), level_, text_.view());
}

U64 traceDrops() noexcept {
  return drops;
}

}  // namespace Kiv
