// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <ostream>
#include <sstream>
#include <string_view>

#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Kiv {

/// A named source of traces with levels 0 (failures) to 9 (everything). Each source unit has one, as a
/// static:
///
///     namespace { Kiv::TraceHandle trace("UdpPam"); }
///     ...
///     KIV_TRACE(trace, 3) << "Type: " << type;
///
/// The environment variable `KIV_TRACE` ("UdpPam/0-9,IpPam/3,*/0": handle, slash, level or range) and
/// `traceIs` say what is on; by default nothing is. `KIV_TRACE=help` lists the handles of the process, and a
/// handle in `KIV_TRACE` that does not exist is reported when the first activity loop is made, or at the end
/// of the process. A disabled level costs one load and one branch and evaluates none of its pieces.
class KIV_API TraceHandle {
 public:
  /// A handle of that name; it lives as long as the program, as a static does.
  explicit TraceHandle(std::string_view name);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const String& name() const noexcept { return name_; }
  /// Whether the level, 0 to 9, is on.
  bool enabled(unsigned level) const noexcept {
    return (levels_.load(std::memory_order_relaxed) >> level & 1) != 0;
  }

 private:
  friend class TraceRegistry;
  String name_;
  std::atomic<U16> levels_{0};
};

/// Switches traces on and off, for existing handles and for those made later. The text is that of `KIV_TRACE`
/// and replaces the former setting. A malformed text throws `RangeException` "Invalid trace setting" and
/// changes nothing. Handles that do not exist yet are reported as a trace of "KIV_TRACE", level 0; so are all
/// existing ones for "help".
KIV_API void traceIs(std::string_view setting);

namespace detail {
/// Reports the handles of `KIV_TRACE` that do not exist. Called when all statics are there.
void traceCheck() noexcept;
}  // namespace detail

/// How many traces of the process were dropped: no memory for one, or a piece or the sink threw.
KIV_API U64 traceDrops() noexcept;

/// Receives one trace: the handle's name, the level and the text without a line end. Called from any thread
/// that traces, one call at a time. If it throws, the trace counts as dropped.
using TraceSink = std::function<void(std::string_view handle, unsigned level, std::string_view text)>;

/// Replaces the sink; null brings back standard error.
KIV_API void traceSinkIs(TraceSink sink);

/// One trace while it is being written; it goes to the sink when the stream ends. If a piece cannot be
/// printed, for want of memory for example, the trace is dropped and counted; the traced code goes on. So
/// stream values, not texts made from them: what the expression of a piece throws leaves the statement.
class KIV_API TraceStream {
 public:
  // Cold, so that tracing code does not pollute the hot path.
  [[gnu::cold]] TraceStream(const TraceHandle& handle, unsigned level) noexcept;
  [[gnu::cold]] ~TraceStream();
  TraceStream(const TraceStream&) = delete;
  TraceStream& operator=(const TraceStream&) = delete;

  template <typename T>
  TraceStream& operator<<(const T& piece) {
    try {
      text_ << piece;
    } catch (const std::exception&) {
      text_.setstate(std::ios_base::badbit);
    }
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
