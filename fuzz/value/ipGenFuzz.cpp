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
  return 0;
}
