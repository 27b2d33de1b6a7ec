// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <vector>

#include "Wirl/value/Ip6Prefix.h"
#include "Wirl/value/IpGenPrefix.h"
#include "Wirl/value/Prefix.h"

namespace Wirl {

/// The fewest prefixes that cover the same addresses, ordered by address, IPv4 first. An invalid prefix
/// throws `Kiv::RangeException`. `P` is `Prefix`, `Ip6Prefix` or `IpGenPrefix`. Takes O(n log n) steps and no
/// memory beyond the vector.
template <typename P>
std::vector<P> summarised(std::vector<P> prefixes) {
  for (const P& prefix : prefixes) {
    if (!prefix.validAsPrefix() || prefix.len() > prefix.baseAddress().bits()) {
      detail::throwRange("Invalid prefix to summarise");
    }
  }
  std::sort(prefixes.begin(), prefixes.end(), [](const P& a, const P& b) {
    return a.baseAddress() != b.baseAddress() ? a.baseAddress() < b.baseAddress() : a.len() < b.len();
  });
  // The front of the vector is a stack of the result so far. Two halves on top become their whole, which may
  // be a half again.
  std::size_t size = 0;
  for (const P& prefix : prefixes) {
    if (size > 0 && prefixes[size - 1].contains(prefix)) continue;
    prefixes[size++] = prefix;
    while (size > 1 && prefixes[size - 1].len() > 0 && prefixes[size - 2].len() == prefixes[size - 1].len()) {
      const P whole = *prefixes[size - 1].supernet(prefixes[size - 1].len() - 1);
      if (!whole.contains(prefixes[size - 2])) break;
      prefixes[--size - 1] = whole;
    }
  }
  prefixes.resize(size);
  return prefixes;
}

/// The fewest prefixes that cover exactly the addresses from `first` to `last`, in order. Throws
/// `Kiv::RangeException` if the families differ or `last` is below `first`.
template <typename P, typename Address>
std::vector<P> summarisedRange(const Address& first, const Address& last) {
  if (!first.distance(last) || last < first) detail::throwRange("Invalid range to summarise");
  std::vector<P> prefixes;
  const unsigned bits = first.bits();
  for (auto at = std::optional(first); at && *at <= last; at = prefixes.back().last().next()) {
    // As many low bits as are zero in front and as there are addresses left.
    const U128 left = last.number() - at->number();
    unsigned open = std::min(at->number().trailingZeros(), bits);
    while (open > 0 && (~U128() >> (128 - open)) > left) --open;
    prefixes.emplace_back(*at, bits - open);
  }
  return prefixes;
}

}  // namespace Wirl
