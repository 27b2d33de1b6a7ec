// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <functional>
#include <ostream>
#include <sstream>
#include <string_view>

#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Kiv {

/// A named source of traces with levels 0 (failures) to 9 (everything). One a source unit, as a static:
///
///     namespace { Kiv::TraceHandle trace("UdpPam"); }
///     ...
///     KIV_TRACE(trace, 3) << "Type: " << type;
///
/// What is on comes from the environment variable `KIV_TRACE` ("UdpPam/0-9,IpPam/3,*/0": handle, slash,
/// level or range) and from `traceIs`; by default nothing is. A disabled level costs one load and one
/// branch and evaluates none of its pieces.
class KIV_API TraceHandle {
 public:
  explicit TraceHandle(std::string_view name);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const String& name() const noexcept { return name_; }
  bool enabled(unsigned level) const noexcept {
    return (levels_.load(std::memory_order_relaxed) >> level & 1) != 0;
  }

 private:
  friend class TraceRegistry;
  String name_;
  std::atomic<U16> levels_{0};
};

/// Switches traces on and off for the handles that there are and those that come; the text is that of
/// `KIV_TRACE` and replaces what was set before. A malformed text throws `RangeException`
/// "Invalid trace setting" and changes nothing.
KIV_API void traceIs(std::string_view setting);

/// Receives one trace: the handle's name, the level and the text without a line end. May be called from any
/// thread that traces, one call at a time. It must not throw.
using TraceSink = std::function<void(std::string_view handle, unsigned level, std::string_view text)>;

/// Replaces the sink; null brings back standard error.
KIV_API void traceSinkIs(TraceSink sink);

/// One trace while it is being written; it goes to the sink when the stream ends.
class KIV_API TraceStream {
 public:
  // Cold: what is traced is kept out of the way of the code that is not.
  [[gnu::cold]] TraceStream(const TraceHandle& handle, unsigned level) noexcept;
  [[gnu::cold]] ~TraceStream();
  TraceStream(const TraceStream&) = delete;
  TraceStream& operator=(const TraceStream&) = delete;

  template <typename T>
  TraceStream& operator<<(const T& piece) {
    text_ << piece;
    return *this;
  }
  // Octets and flags are numbers in a trace, not characters.
  TraceStream& operator<<(U8 piece) { return *this << static_cast<unsigned>(piece); }
  TraceStream& operator<<(S8 piece) { return *this << static_cast<int>(piece); }
  TraceStream& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    text_ << manipulator;
    return *this;
  }
  TraceStream& operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
    text_ << manipulator;
    return *this;
  }

 private:
  const TraceHandle& handle_;
  unsigned level_;
  std::ostringstream text_;
};

}  // namespace Kiv

/// Begins a trace when `level` of `handle` is on; a statement of its own, also behind an `if` without braces.
#define KIV_TRACE(handle, level)                                                  \
  for (bool kivTraceOn = (handle).enabled(level); kivTraceOn; kivTraceOn = false) \
  ::Kiv::TraceStream((handle), (level))
