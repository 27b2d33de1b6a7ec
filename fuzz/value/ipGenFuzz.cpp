// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpGenAddr.h"
#include "Wirl/value/IpGenAddrWithMask.h"
#include "Wirl/value/IpGenPrefix.h"
#include "fuzz/value/TextFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace Wirl;
  const std::string text(data, data + size);
  fuzz::checkText<IpGenAddr>(text);
  fuzz::checkText<IpGenPrefix>(text);
  fuzz::checkText<IpGenAddrWithMask>(text);
  fuzz::checkText<IpGenAddrWithFullMask>(text);
  fuzz::checkText<IpGenAddrWithFullMask::PrefixLen>(text);

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
