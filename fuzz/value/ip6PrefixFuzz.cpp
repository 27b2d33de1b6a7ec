// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6AddrWithMask.h"
#include "Wirl/value/Ip6Prefix.h"
#include "Wirl/value/Ip6PrefixLen.h"
#include "fuzz/value/TextFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace Wirl;
  const std::string_view text = fuzz::textOf(data, size);
  const Ip6Addr address("9:8:7:6:5:4:3:2");
  fuzz::checkText(text, Ip6Prefix(address, 128));
  fuzz::checkText(text, Ip6AddrWithMask(address, 5));
  fuzz::checkText(text, Ip6AddrWithFullMask(address, address));
  fuzz::checkText(text, Ip6PrefixLen(5));
  return 0;
}
