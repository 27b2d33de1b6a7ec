// SPDX-License-Identifier: Apache-2.0
#include <netinet/ether.h>

#include <cstdio>
#include <cstring>

#include "Wirl/value/EthAddr.h"
#include "bench/value/Corpus.h"

namespace {

using namespace bench;
using Wirl::EthAddr;

EthAddr anyAddress(Random& random) {
  EthAddr address;
  for (unsigned i = 0; i < 6; ++i)
    address.byteIs(i, static_cast<Kiv::U8>(below(random, below(random, 4) ? 256 : 16)));
  return address;
}

/// `octets` of them between two separators.
std::string printed(const EthAddr& address, char separator, unsigned octets, const char* digits, bool zeros) {
  std::string text;
  for (unsigned i = 0; i < 6; ++i) {
    const Kiv::U8 octet = address.byte(i);
    if (i > 0 && i % octets == 0) text += separator;
    if (zeros || octet > 15) text += digits[octet >> 4];
    text += digits[octet & 15];
  }
  return text;
}

constexpr char kSmall[] = "0123456789abcdef";
constexpr char kCapital[] = "0123456789ABCDEF";

/// Colons: what the C library reads too. In full, small or capital, and now and then without leading zeros.
std::string colonText(Random& random) {
  const unsigned form = below(random, 6);
  return printed(anyAddress(random), ':', 1, form < 4 ? kSmall : kCapital, form > 0);
}

/// Every form: colons, hyphens, full stops.
std::string anyText(Random& random) {
  switch (below(random, 4)) {
    case 0:
      return printed(anyAddress(random), '-', 1, kSmall, true);
    case 1:
      return printed(anyAddress(random), '.', 2, kSmall, true);
    default:
      return colonText(random);
  }
}

const auto& addresses() {
  static const auto all = corpus(anyAddress);
  return all;
}
const auto& colonTexts() {
  static const auto all = corpus(colonText);
  return all;
}
const auto& anyTexts() {
  static const auto all = corpus(anyText);
  return all;
}
const auto& badTexts() {
  static const auto all = corpus([](Random& random) {
    return spoilt(random, anyText(random), ":-.",
                  [](const std::string& text) { return !EthAddr::fromText(text); });
  });
  return all;
}

/// Each form by the format that reads it.
bool scan(const std::string& text, unsigned (&o)[6]) {
  const char* const from = text.c_str();
  if (text[4] == '.') {
    return std::sscanf(from, "%2x%2x.%2x%2x.%2x%2x", o, o + 1, o + 2, o + 3, o + 4, o + 5) == 6;
  }
  if (text[2] == '-')
    return std::sscanf(from, "%x-%x-%x-%x-%x-%x", o, o + 1, o + 2, o + 3, o + 4, o + 5) == 6;
  return std::sscanf(from, "%x:%x:%x:%x:%x:%x", o, o + 1, o + 2, o + 3, o + 4, o + 5) == 6;
}

BENCH_ROWS {
  const auto parse = [](const std::string& text) {
    const auto address = EthAddr::fromText(text);
    return address ? address->octets()[5] : -1;
  };
  const auto print = [](const EthAddr& address) {
    char text[18];
    benchmark::DoNotOptimize(address.printToBuffer(text, sizeof(text)));
    return text[0];
  };
  compare("MAC text with colons, parse", each(colonTexts(), parse), "ether_aton_r",
          each(colonTexts(),
               [](const std::string& text) {
                 ether_addr out;
                 return ether_aton_r(text.c_str(), &out) ? out.ether_addr_octet[5] : -1;
               }),
          timesFaster(5));
  compare("MAC text in all forms, parse", each(anyTexts(), parse), "sscanf",
          each(anyTexts(),
               [](const std::string& text) {
                 unsigned octets[6];
                 return scan(text, octets) ? static_cast<int>(octets[5]) : -1;
               }),
          timesFaster(5));
  compare("MAC text, reject", each(badTexts(), parse), "our parse", each(anyTexts(), parse), atMost(1));
  compare("MAC text, print to buffer", each(addresses(), print), "snprintf",
          each(addresses(),
               [](const EthAddr& a) {
                 char text[18];
                 std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", a.byte(0), a.byte(1),
                               a.byte(2), a.byte(3), a.byte(4), a.byte(5));
                 return text[0];
               }),
          timesFaster(15));
  compare("MAC text, print to buffer", each(addresses(), print), "ether_ntoa_r",
          each(addresses(),
               [](const EthAddr& address) {
                 ether_addr octets;
                 char text[18];
                 std::memcpy(&octets, &address, sizeof(octets));
                 benchmark::DoNotOptimize(ether_ntoa_r(&octets, text));
                 return text[0];
               }),
          timesFaster(15));
  compare("MAC text, string form",
          each(addresses(), [](const EthAddr& address) { return address.stringValue(); }),
          "ether_ntoa_r, std::string",
          each(addresses(),
               [](const EthAddr& address) {
                 ether_addr octets;
                 char text[18];
                 std::memcpy(&octets, &address, sizeof(octets));
                 return std::string(ether_ntoa_r(&octets, text));
               }),
          timesFaster(8));
}

}  // namespace
