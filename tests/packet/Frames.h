// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

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

/// The frames of a capture file (pcap, in either byte order); none where there is no file.
inline std::vector<std::string> ofCapture(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string all{std::istreambuf_iterator<char>(file), {}};
  std::vector<std::string> found;
  for (std::size_t at = 24; at + 16 <= all.size();) {
    std::size_t bytes = 0;
    for (const std::size_t i : {0u, 1u, 2u, 3u}) {
      bytes = bytes << 8 | static_cast<unsigned char>(all[at + 8 + (all[0] == '\xa1' ? i : 3 - i)]);
    }
    found.push_back(all.substr(at + 16, bytes));
    at += 16 + bytes;
  }
  return found;
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
