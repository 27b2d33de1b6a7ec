// SPDX-License-Identifier: Apache-2.0
#include <netinet/ether.h>

#include <cstdio>

#include "Wirl/value/EthAddr.h"
#include "Wirl/value/Eui64.h"
#include "Wirl/value/detail/HexGroups.h"
#include "fuzz/value/TextFuzz.h"

namespace {

using namespace Wirl;

std::size_t hexDigits(std::string_view text) {
  return std::min(text.find_first_not_of("0123456789abcdefABCDEF"), text.size());
}

/// A text as the C library reads it: colons, and an octet a group of at most two digits. Empty when there is
/// no way to write it so.
std::string withColons(std::string_view text) {
  std::string out;
  const std::size_t first = hexDigits(text);
  const char separator = first < text.size() ? text[first] : '\0';
  for (;;) {
    std::string_view group = text.substr(0, hexDigits(text));
    text.remove_prefix(group.size());
    if (group.empty()) return "";
    group.remove_prefix(std::min(group.find_first_not_of('0'), group.size() - 1));
    if (separator == '.') {
      if (group.size() > 4) return "";
      const std::string padded = std::string(4 - group.size(), '0') + std::string(group);
      out += padded.substr(0, 2) + ":" + padded.substr(2);
    } else {
      if (group.size() > 2) return "";
      out += group;
    }
    if (text.empty()) return out;
    if (text[0] != separator || std::string_view(":-.").find(separator) == std::string_view::npos) return "";
    out += ':';
    text.remove_prefix(1);
  }
}

std::optional<EthAddr> theirs(const std::string& text) {
  ether_addr octets;
  EthAddr address;
  if (!ether_aton_r(text.c_str(), &octets)) return std::nullopt;
  address.copyFromBuffer(octets.ether_addr_octet);
  return address;
}

void checkAddress(std::string_view text) {
  // The way that looks at sixteen characters at once against the plain one.
  std::string_view rest = text;
  EthAddr front;
  const bool taken = !EthAddr::parse(rest, front);
  const auto slow = detail::takeHexGroupsLoop(text, 6);
  KIV_ASSERT(taken ? text.size() - rest.size() == slow.length : slow.length == 0);
  for (unsigned i = 0; taken && i < 6; ++i) KIV_ASSERT(front.octets()[i] == (slow.octets >> 8 * i & 0xff));

  // The C library has colons only, reads no group of more than two digits, and does not look at what follows
  // six of them. All else is the same.
  const auto ours = EthAddr::fromText(text);
  const std::string plain = withColons(text);
  const bool sixGroups = std::count(plain.begin(), plain.end(), ':') == 5;
  KIV_ASSERT(ours == (sixGroups ? theirs(plain) : std::nullopt));
  const auto asItIs = theirs(std::string(text));
  if (!asItIs) return;
  std::size_t end = 0;
  for (int i = 0; i < 5; ++i) end = text.find(':', end) + 1;
  end += std::min<std::size_t>(2, hexDigits(text.substr(end)));
  KIV_ASSERT(EthAddr::fromText(text.substr(0, end)) == asItIs);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string_view text = fuzz::textOf(data, size);
  const EthAddr address(9, 8, 7, 6, 5, 4);
  fuzz::checkText(text, address);
  fuzz::checkText(text, EthAddrWithMask(address, address));
  fuzz::checkText(text, Eui64({9, 8, 7, 6, 5, 4, 3, 2}));
  fuzz::checkText(text, Eui64U8Key(5));
  checkAddress(text);

  // Two octets more, and the same grammar.
  const std::string plain = withColons(text);
  const auto eui = Eui64::fromText(text);
  unsigned o[8];
  const bool eightGroups = std::count(plain.begin(), plain.end(), ':') == 7;
  KIV_ASSERT(eui.has_value() == eightGroups);
  if (!eui) return 0;
  KIV_ASSERT(std::sscanf(plain.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x:%2x:%2x", o, o + 1, o + 2, o + 3, o + 4,
                         o + 5, o + 6, o + 7) == 8);
  KIV_ASSERT(std::equal(o, o + 8, eui->octets().begin()));
  return 0;
}
