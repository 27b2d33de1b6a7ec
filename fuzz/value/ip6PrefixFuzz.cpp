// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6AddrWithMask.h"
#include "Wirl/value/Ip6Prefix.h"
#include "Wirl/value/Ip6PrefixLen.h"
#include "fuzz/value/TextFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace Wirl;
  const std::string_view text = fuzz::textOf(data, size);
  const Ip6Addr address("9:8:7:6:5:4:3:2");
  fuzz::checkText(text, Ip6Prefix(address, 128), true);
  fuzz::checkText(text, Ip6AddrWithMask(address, 5), true);
  fuzz::checkText(text, Ip6AddrWithFullMask(address, address), true);
  fuzz::checkText(text, Ip6PrefixLen(5));

  // An address, a slash and a length of at most 128, or for a full mask another address.
  const auto withLen = fuzz::joined<Ip6Addr>(text, '/', 128);
  const auto prefix = Ip6Prefix::fromText(text);
  const auto withMask = Ip6AddrWithMask::fromText(text);
  const auto full = Ip6AddrWithFullMask::fromText(text);
  const auto pair = fuzz::addressAndMask<Ip6Addr>(text);
  KIV_ASSERT(prefix.has_value() == withLen.has_value() && withMask.has_value() == withLen.has_value());
  KIV_ASSERT(full.has_value() == (withLen || pair) && !(withLen && pair));
  if (withLen) {
    const auto len = static_cast<unsigned>(withLen->number);
    KIV_ASSERT(prefix->address() == withLen->address && prefix->len() == len);
    KIV_ASSERT(withMask->address() == withLen->address && withMask->len() == len);
    KIV_ASSERT(full->address() == withLen->address && full->prefixLen() == Ip6PrefixLen(len));
  } else if (pair) {
    KIV_ASSERT(full->address() == pair->first && full->mask() == pair->second);
  }
  const auto number = fuzz::numberOf(text);
  const auto len = Ip6PrefixLen::fromText(text);
  KIV_ASSERT(len.has_value() == (number && *number <= Ip6PrefixLen::invalid));
  KIV_ASSERT(!len || len->value() == *number);
  return 0;
}
