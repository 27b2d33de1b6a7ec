// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "Kiv/Exception.h"

namespace Kiv {

namespace {

struct Rule {
  std::string handle;  // "*" stands for every handle
  U16 levels;          // bit n: level n
};

std::optional<unsigned> levelOf(std::string_view text) {
  if (text.size() != 1 || text[0] < '0' || text[0] > '9') return std::nullopt;
  return static_cast<unsigned>(text[0] - '0');
}

std::optional<Rule> ruleOf(std::string_view text) {
  const std::size_t slash = text.rfind('/');
  if (slash == std::string_view::npos || slash == 0) return std::nullopt;
  const std::string_view range = text.substr(slash + 1);
  const std::size_t dash = range.find('-');
  const auto first = levelOf(range.substr(0, dash));
  const auto last = dash == std::string_view::npos ? first : levelOf(range.substr(dash + 1));
  if (!first || !last || *first > *last) return std::nullopt;
  const unsigned levels = (1u << (*last + 1)) - (1u << *first);
  return Rule{std::string(text.substr(0, slash)), static_cast<U16>(levels)};
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
  static TraceRegistry& instance() {
    // Never destroyed: statics trace until the very end of the process.
    static auto* const registry = new TraceRegistry;
    return *registry;
  }

  void add(TraceHandle& handle) {
    const std::lock_guard lock(mutex_);
    handles_.push_back(&handle);
    apply(handle);
  }
  void remove(TraceHandle& handle) {
    const std::lock_guard lock(mutex_);
    std::erase(handles_, &handle);
  }
  void rulesAre(std::vector<Rule> rules) {
    const std::lock_guard lock(mutex_);
    rules_ = std::move(rules);
    for (TraceHandle* handle : handles_) apply(*handle);
  }
  void sinkIs(TraceSink sink) {
    const std::lock_guard lock(sinkMutex_);
    sink_ = std::make_shared<TraceSink>(sink ? std::move(sink) : toStandardError);
  }
  void write(std::string_view handle, unsigned level, std::string_view text) {
    const std::lock_guard lock(sinkMutex_);
    const std::shared_ptr<TraceSink> sink = sink_;  // it may replace itself
    (*sink)(handle, level, text);
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
  }

  void apply(TraceHandle& handle) const {
    U16 levels = 0;
    for (const Rule& rule : rules_) {
      if (rule.handle == "*" || rule.handle == std::string_view(handle.name())) levels |= rule.levels;
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
  TraceRegistry::instance().write(handle_.name(), level_, text_.str());
}

}  // namespace Kiv
