// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Kiv/Trace.h"

/// Collects traces as "Handle/level:text" while it lives, in place of standard error. For traces of one
/// thread.
class TraceCapture {
 public:
  /// `setting` is that of `Kiv::traceIs`, as in "UdpPam/0-9".
  explicit TraceCapture(std::string_view setting) {
    Kiv::traceIs(setting);
    Kiv::traceSinkIs([this](std::string_view handle, unsigned level, std::string_view text) {
      lines_.push_back(std::string(handle) + '/' + std::to_string(level) + ':' + std::string(text));
    });
  }
  ~TraceCapture() {
    Kiv::traceIs("");
    Kiv::traceSinkIs(nullptr);
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  const std::vector<std::string>& lines() const noexcept { return lines_; }
  void clear() noexcept { lines_.clear(); }

 private:
  std::vector<std::string> lines_;
};
