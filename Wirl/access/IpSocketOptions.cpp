// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/IpSocketOptions.h"

#include <array>
#include <limits>

#include "Kiv/Exception.h"
#include "Kiv/Representation.h"

namespace Wirl {

namespace {

/// The names of the bits, lowest bit first.
constexpr std::array<std::string_view, 14> kNames = {
    "ipFreeBind",        "ipHdrIncl", "ipMulticastLoop", "ipPktInfo",     "ipRecvErr",
    "ipRecvOrigDstAddr", "ipRecvTOS", "ipRecvTTL",       "ipRouterAlert", "ipTransparent",
    "ipAttachFilter",    "ipRcvBuf",  "ipPriority",      "ipv6Checksum"};
static_assert(1u << (kNames.size() - 1) == IpSocketOptions::ipv6Checksum);

std::optional<Kiv::U32> bitsOf(std::string_view word) {
  for (unsigned bit = 0; bit < kNames.size(); ++bit) {
    if (word == kNames[bit]) return 1u << bit;
  }
  constexpr Kiv::U64 kMax = std::numeric_limits<Kiv::U32>::max();
  Kiv::U64 number = 0;
  if (!Kiv::takeDecimal(word, kMax, number) || number > kMax || !word.empty()) return std::nullopt;
  return static_cast<Kiv::U32>(number);
}

}  // namespace

Kiv::String IpSocketOptions::stringValue() const {
  std::string text;
  const auto add = [&text](std::string_view word) {
    if (!text.empty()) text += '|';
    text += word;
  };
  Kiv::U32 rest = bits_;
  for (unsigned bit = 0; bit < kNames.size(); ++bit) {
    if ((rest & 1u << bit) != 0) add(kNames[bit]);
    rest &= ~(1u << bit);
  }
  if (rest != 0) add(std::to_string(rest));
  return text.empty() ? Kiv::String("none") : Kiv::String(text);
}

std::optional<IpSocketOptions> IpSocketOptions::fromText(std::string_view text) {
  if (text == "none") return none;
  Kiv::U32 bits = 0;
  for (;;) {
    const std::size_t end = text.find('|');
    const auto word = bitsOf(text.substr(0, end));
    if (!word) return std::nullopt;
    bits |= *word;
    if (end == text.npos) return bits;
    text.remove_prefix(end + 1);
  }
}

void IpSocketOptions::stringValueIs(std::string_view text) {
  const auto options = fromText(text);
  if (!options) throw Kiv::RangeException("Invalid IpSocketOptions");
  *this = *options;
}

}  // namespace Wirl
