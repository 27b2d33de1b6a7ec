// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstring>
#include <map>

#include "Kiv/Assert.h"
#include "Wirl/value/PrefixTable.h"

// A prefix map does what a std::map does that is searched from end to end. Every seven octets of the input
// are a step: a deed, a length, four octets of an address and how far to the right they stand.

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace Wirl;
  const auto order = [](const IpGenPrefix& a, const IpGenPrefix& b) {
    return a.ipGenAddr() != b.ipGenAddr() ? a.ipGenAddr() < b.ipGenAddr() : a.len() < b.len();
  };
  std::map<IpGenPrefix, int, decltype(order)> model(order);
  PrefixMap<int> map;
  int step = 0;
  for (; size >= 7; data += 7, size -= 7, ++step) {
    const Kiv::U32 word =
        Kiv::U32{data[2]} << 24 | Kiv::U32{data[3]} << 16 | Kiv::U32{data[4]} << 8 | data[5];
    const bool v4 = (data[0] & 1) != 0;
    const IpGenAddr address = v4 ? IpGenAddr(IpAddr::fromHostOrder(word))
                                 : IpGenAddr(Ip6Addr::withNumber(U128(word) << 96 >> data[6] % 128));
    const unsigned len = data[1] % (address.bits() + 1);
    const IpGenPrefix key(address.maskedByLength(len), len);
    switch (data[0] >> 1 & 3) {
      case 0:
        KIV_ASSERT(map.erase(key) == (model.erase(key) == 1));
        break;
      case 1:
        map.insertOrAssign(key, step);
        model[key] = step;
        break;
      default:
        KIV_ASSERT(map.insert(key, step).second == model.emplace(key, step).second);
    }
    const int* best = nullptr;
    for (const auto& [prefix, value] : model) {
      if (prefix.contains(address)) best = &value;  // longer ones come later
    }
    const auto found = map.longestMatch(address);
    KIV_ASSERT((best != nullptr) == (found.value != nullptr) && (!best || *best == *found));
  }
  auto at = model.begin();
  const PrefixTable<int> table(map);
  for (const auto [key, value] : map) {
    KIV_ASSERT(at != model.end() && at->first == key && at->second == value);
    const auto found = map.longestMatch(key.last());
    KIV_ASSERT(found && *table.longestMatch(key.last()) == *found);
    ++at;
  }
  KIV_ASSERT(at == model.end());
  return 0;
}
