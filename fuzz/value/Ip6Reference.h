// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/Types.h"

// What the parser of IPv6 addresses is held against, in tests and fuzz targets.

namespace ip6reference {

using Kiv::U16;

/// The grammar once more, step by step and character by character. The position is that behind the address.
inline std::string read(std::string_view text, std::vector<U16>& groups, std::size_t& position) {
  std::size_t size = 0;
  while (size < std::min<std::size_t>(text.size(), 45) &&
         (std::isxdigit(static_cast<unsigned char>(text[size])) || text[size] == ':' || text[size] == '.')) {
    ++size;
  }
  const std::string_view address = text.substr(0, size);
  const auto at = [&](std::size_t i) { return i < size ? address[i] : '\0'; };
  int colons = 0;
  for (std::size_t i = 0; i < size; ++i) {
    if (at(i) != ':') continue;
    ++colons;
    if (at(i + 1) == ':') ++i;
  }
  const std::size_t tail = address.rfind(':') + 1;  // 0 without a colon
  const bool dotted = std::ranges::count(address.substr(tail), '.') == 3;
  if (colons + dotted > 7) return "Ip6Addr: too many colons";
  std::size_t i = 0;
  int gap = -1;
  if (at(0) == ':') {
    if (at(1) != ':') return "Ip6Addr: leading hex digit expected";
    gap = 0;
    i = 2;
  }
  for (bool more = gap < 0 || i < size; more;) {
    if (dotted && i == tail) {
      U16 octets[4];
      for (int k = 0; k < 4; ++k) {
        unsigned octet = 0;
        if (!std::isdigit(static_cast<unsigned char>(at(i)))) return "Invalid IpAddr";
        for (; std::isdigit(static_cast<unsigned char>(at(i))); ++i) {
          octet = std::min(256u, octet * 10 + static_cast<unsigned>(at(i) - '0'));
        }
        if (octet > 255 || (k < 3 && at(i++) != '.')) return "Invalid IpAddr";
        octets[k] = static_cast<U16>(octet);
      }
      if (i != size) return "Invalid IpAddr";
      groups.push_back(static_cast<U16>(octets[0] << 8 | octets[1]));
      groups.push_back(static_cast<U16>(octets[2] << 8 | octets[3]));
      break;
    }
    std::string digits;
    for (; std::isxdigit(static_cast<unsigned char>(at(i))); ++i) {
      if (digits.size() == 4) return "Ip6Addr: too many consecutive hex digits";
      digits += at(i);
    }
    if (digits.empty()) {
      return at(i) == ':' && at(i + 1) == ':' ? "Ip6Addr: only one '::' allowed"
                                              : "Ip6Addr: hex digit expected";
    }
    groups.push_back(static_cast<U16>(std::stoul(digits, nullptr, 16)));
    more = i < size;
    if (!more) break;
    if (at(i++) != ':') return "Ip6Addr: ':' expected";
    if (at(i) == ':') {
      if (gap >= 0) return "Ip6Addr: only one '::' allowed";
      gap = static_cast<int>(groups.size());
      more = ++i < size;
    }
  }
  if (gap < 0 && groups.size() != 8) return "Ip6Addr: incomplete ipv6 address";
  if (gap >= 0) groups.insert(groups.begin() + gap, 8 - groups.size(), 0);
  position = size;
  return "";
}

/// The two things that are read here and not by the C library.
inline bool isDifferenceToInetPton(std::string text) {
  in6_addr address;
  for (std::size_t i = text.rfind(':') + 1; i < text.size();) {  // leading zeros in dotted decimal
    const bool first = i == 0 || !std::isdigit(static_cast<unsigned char>(text[i - 1]));
    if (first && text[i] == '0' && std::isdigit(static_cast<unsigned char>(text[i + 1]))) {
      text.erase(i, 1);
    } else {
      ++i;
    }
  }
  if (inet_pton(AF_INET6, text.c_str(), &address) == 1) return true;
  const std::size_t gap = text.find("::");  // a gap of no groups
  if (gap == std::string::npos) return false;
  text.erase(gap, 1);
  return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

}  // namespace ip6reference
