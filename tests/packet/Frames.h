// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "Wirl/packet/Pkt.h"

/// Frames for tests, as texts of octets.
namespace frames {

/// Octets from hexadecimal digits; whatever else is between them does not count.
inline std::string octets(std::string_view hex) {
  std::string all;
  int high = -1;
  for (const char c : hex) {
    const auto digit = std::string_view("0123456789abcdef").find(c);
    if (digit == std::string_view::npos) continue;
    if (high < 0) {
      high = static_cast<int>(digit);
    } else {
      all += static_cast<char>(high << 4 | static_cast<int>(digit));
      high = -1;
    }
  }
  return all;
}

inline const std::string kMacs = octets("0a:00:00:00:00:01 0a:00:00:00:00:02");
/// IPv4, header checksum right, from 10.0.0.1 port 1000 to 10.0.0.2 port 53 (no UDP checksum), 18 octets of
/// data: 60 octets in all.
inline const std::string kUdp = kMacs +
                                octets(
                                    "0800"
                                    "45000 02e 00010000 4011 66bc 0a000001 0a000002"
                                    "03e80035 001a0000") +
                                std::string(18, 'x');

/// A packet of these octets. The first `privateBytes` lie in its private area, and the others fill a shared
/// buffer of just their size, so that AddressSanitizer sees who reads past either side of them.
inline Wirl::Pkt::Ptr packet(std::string_view octets, Wirl::U32 privateBytes = 0) {
  const auto& manager = Wirl::globalPktManager();
  const auto bytes = static_cast<Wirl::U32>(octets.size());
  auto pkt = manager->newPkt(manager->newSharedBuffer(bytes - privateBytes));
  pkt->stringValueIs(octets.substr(privateBytes));
  if (privateBytes > 0)
    octets.copy(reinterpret_cast<char*>(pkt->newPrivateHeadData(privateBytes)), privateBytes);
  return pkt;
}

}  // namespace frames
