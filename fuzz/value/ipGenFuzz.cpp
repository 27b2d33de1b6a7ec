// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpGenAddr.h"
#include "Wirl/value/IpGenAddrWithMask.h"
#include "Wirl/value/IpGenPrefix.h"
#include "fuzz/value/TextFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace Wirl;
  const std::string_view text = fuzz::textOf(data, size);
  const IpAddr address(9, 8, 7, 6);
  fuzz::checkText(text, IpGenAddr(address));
  fuzz::checkText(text, IpGenPrefix(address, 32));
  fuzz::checkText(text, IpGenAddrWithMask(address, 5));
  fuzz::checkText(text, IpGenAddrWithFullMask(address, address));
  fuzz::checkText(text, IpGenAddrWithFullMask::PrefixLen(5));

  // A generic address is what one of the families reads, and the family follows from the text alone.
  const auto generic = IpGenAddr::fromText(text);
  const auto v4 = IpAddr::fromText(text);
  const auto v6 = Ip6Addr::fromText(text);
  KIV_ASSERT(!(v4 && v6));
  KIV_ASSERT(generic.has_value() == (v4 || v6));
  KIV_ASSERT(!v4 || *generic == IpGenAddr(*v4));
  KIV_ASSERT(!v6 || *generic == IpGenAddr(*v6));
  if (generic && generic->af() == AddressFamily::ipv4) {
    KIV_ASSERT(IpGenAddr::getMappedV4Addr(IpGenAddr::getV4MappedV6Addr(*generic)) == *generic);
  }

  // So are a generic prefix, and a generic address with a length that its family has.
  const auto prefix = IpGenPrefix::fromText(text);
  const auto v4Prefix = Prefix::fromText(text);
  const auto v6Prefix = Ip6Prefix::fromText(text);
  KIV_ASSERT(prefix.has_value() == (v4Prefix || v6Prefix));
  KIV_ASSERT(!v4Prefix || *prefix == IpGenPrefix(*v4Prefix));
  KIV_ASSERT(!v6Prefix || *prefix == IpGenPrefix(*v6Prefix));
  const auto withMask = IpGenAddrWithMask::fromText(text);
  const auto v4WithMask = IpAddrWithMask::fromText(text);
  const auto v6WithMask = Ip6AddrWithMask::fromText(text);
  const bool v4LenFits = v4WithMask && v4WithMask->len() <= 32;
  KIV_ASSERT(withMask.has_value() == (v4LenFits || v6WithMask));
  KIV_ASSERT(!v4LenFits || *withMask == IpGenAddrWithMask(*v4WithMask));
  KIV_ASSERT(!v6WithMask || *withMask == IpGenAddrWithMask(*v6WithMask));

  // A full mask is a length or an address of the family.
  const auto full = IpGenAddrWithFullMask::fromText(text);
  const auto v4Pair = fuzz::addressAndMask<IpAddr>(text);
  const auto v6Full = Ip6AddrWithFullMask::fromText(text);
  KIV_ASSERT(full.has_value() == (v4LenFits || v4Pair || v6Full));
  KIV_ASSERT(!v4LenFits || *full == IpGenAddrWithFullMask(v4WithMask->address(), v4WithMask->len()));
  KIV_ASSERT(!v4Pair || *full == IpGenAddrWithFullMask(v4Pair->first, v4Pair->second));
  KIV_ASSERT(!v6Full || *full == IpGenAddrWithFullMask(v6Full->address(), v6Full->mask()));
  const bool negative = text.starts_with('-');
  const auto number = fuzz::numberOf(text.substr(negative));
  const auto len = IpGenAddrWithFullMask::PrefixLen::fromText(text);
  KIV_ASSERT(len.has_value() == (number && *number <= (negative ? 1 : 128)));
  KIV_ASSERT(!len || len->value() == (negative ? -1 : 1) * static_cast<int>(*number));
  return 0;
}
