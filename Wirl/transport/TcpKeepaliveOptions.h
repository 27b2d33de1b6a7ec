// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>
#include <string_view>

#include "Kiv/Representation.h"
#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Wirl {

/// TCP keepalive of a connection (RFC 9293, 3.8.4). After `idleTime` seconds of silence the kernel sends a
/// probe, then one every `probeInterval` seconds. If `probeCount` probes stay unanswered, the connection
/// fails.
///
/// The text form has the three numbers alone. All zero reads as `keepaliveDisabled`, because no kernel
/// accepts that for an enabled keepalive; any other text reads as enabled.
class KIV_API TcpKeepaliveOptions {
 public:
  static constexpr auto representation() {
    return Kiv::representation("Wirl::TcpKeepaliveOptions", "Invalid TcpKeepaliveOptions",
                               Kiv::field("idleTime", &TcpKeepaliveOptions::idleTime_),
                               Kiv::field("probeInterval", &TcpKeepaliveOptions::probeInterval_),
                               Kiv::field("probeCount", &TcpKeepaliveOptions::probeCount_));
  }

  /// Disabled.
  constexpr TcpKeepaliveOptions() noexcept = default;
  constexpr TcpKeepaliveOptions(bool enabled, Kiv::U32 idleTime, Kiv::U32 probeInterval,
                                Kiv::U32 probeCount) noexcept
      : enabled_(enabled), idleTime_(idleTime), probeInterval_(probeInterval), probeCount_(probeCount) {}
  /// From the text form; throws `Kiv::RangeException`.
  explicit TcpKeepaliveOptions(std::string_view text) { stringValueIs(text); }

  constexpr bool enabled() const noexcept { return enabled_; }  ///< Whether probes are sent.
  /// In seconds.
  constexpr Kiv::U32 idleTime() const noexcept { return idleTime_; }
  /// In seconds.
  constexpr Kiv::U32 probeInterval() const noexcept { return probeInterval_; }
  /// How many probes go unanswered before the connection ends.
  constexpr Kiv::U32 probeCount() const noexcept { return probeCount_; }

  Kiv::String stringValue() const { return Kiv::representationOf(*this); }
  void stringValueIs(std::string_view text) {
    TcpKeepaliveOptions parsed;
    Kiv::representationIs(parsed, text);
    parsed.enabled_ = (parsed.idleTime_ | parsed.probeInterval_ | parsed.probeCount_) != 0;
    *this = parsed;
  }

  friend constexpr bool operator==(const TcpKeepaliveOptions&, const TcpKeepaliveOptions&) noexcept = default;
  friend std::ostream& operator<<(std::ostream& out, const TcpKeepaliveOptions& options) {
    return out << options.stringValue();
  }

 private:
  bool enabled_ = false;
  Kiv::U32 idleTime_ = 0;
  Kiv::U32 probeInterval_ = 0;
  Kiv::U32 probeCount_ = 0;
};

inline constexpr TcpKeepaliveOptions keepaliveDisabled;  ///< No probes.

}  // namespace Wirl
