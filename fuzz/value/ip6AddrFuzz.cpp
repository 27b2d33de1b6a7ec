// SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <vector>

#include "Wirl/value/Ip6Addr.h"
#include "fuzz/value/Ip6Reference.h"
#include "fuzz/value/TextFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using Wirl::Ip6Addr;
  const std::string_view text = fuzz::textOf(data, size);
  fuzz::checkText(text, Ip6Addr("9:8:7:6:5:4:3:2"), true);
  fuzz::checkText(text, Wirl::Ip6AddrU8Key(5));

  // The same value and the same message as the reader that goes character by character.
  std::string_view rest = text;
  Ip6Addr address;
  const Kiv::ParseError error = Ip6Addr::parse(rest, address);
  std::vector<Kiv::U16> groups;
  std::size_t position = 0;
  KIV_ASSERT(ip6reference::read(text, groups, position) == (error ? error : ""));
  KIV_ASSERT(error || size - rest.size() == position);
  for (unsigned i = 0; !error && i < 8; ++i) KIV_ASSERT(address.u16(i) == groups[i]);

  // No difference to the C library but those that are known.
  if (text.find('\0') != text.npos) return 0;
  in6_addr theirs;
  if (inet_pton(AF_INET6, std::string(text).c_str(), &theirs) == 1) {
    KIV_ASSERT(!error && rest.empty());
    KIV_ASSERT(std::memcmp(&theirs, address.octets().data(), sizeof(theirs)) == 0);
  } else {
    KIV_ASSERT(error || !rest.empty() || ip6reference::isDifferenceToInetPton(std::string(text)));
  }
  return 0;
}
