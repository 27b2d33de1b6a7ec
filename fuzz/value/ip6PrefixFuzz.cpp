// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6AddrWithMask.h"
#include "Wirl/value/Ip6Prefix.h"
#include "Wirl/value/Ip6PrefixLen.h"
#include "fuzz/value/TextFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string text(data, data + size);
  fuzz::checkText<Wirl::Ip6Prefix>(text);
  fuzz::checkText<Wirl::Ip6AddrWithMask>(text);
  fuzz::checkText<Wirl::Ip6AddrWithFullMask>(text);
  fuzz::checkText<Wirl::Ip6PrefixLen>(text);
  return 0;
}
