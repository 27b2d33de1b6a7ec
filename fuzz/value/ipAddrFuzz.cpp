// SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>

#include "Wirl/value/IpAddr.h"
#include "Wirl/value/IpAddrWithMask.h"
#include "Wirl/value/IpAndPort.h"
#include "Wirl/value/Prefix.h"
#include "Wirl/value/detail/DottedText.h"
#include "fuzz/value/TextFuzz.h"

namespace {

using namespace Wirl;

void checkAddress(std::string_view text) {
  // The way that looks at sixteen characters at once against the plain one.
  std::string_view rest = text;
  IpAddr front;
  const bool taken = !IpAddr::parse(rest, front);
  const auto slow = detail::takeDottedLoop(text);
  KIV_ASSERT(taken ? text.size() - rest.size() == slow.length : slow.length == 0);
  for (unsigned i = 0; taken && i < 4; ++i) KIV_ASSERT(front.octets()[i] == (slow.octets >> 8 * i & 0xff));

  // The C library reads no octet with zeros in front, and nothing behind a NUL. All else is the same.
  if (text.find('\0') != text.npos) return;
  const auto ours = IpAddr::fromText(text);
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool first = plain.empty() || plain.back() == '.';
    const bool digitFollows = i + 1 < text.size() && text[i + 1] >= '0' && text[i + 1] <= '9';
    if (text[i] != '0' || !first || !digitFollows) plain += text[i];
  }
  in_addr theirs;
  KIV_ASSERT((inet_pton(AF_INET, plain.c_str(), &theirs) == 1) == ours.has_value());
  KIV_ASSERT(!ours || ours->netOrder() == theirs.s_addr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string_view text = fuzz::textOf(data, size);
  const IpAddr address(9, 8, 7, 6);
  fuzz::checkText(text, address);
  fuzz::checkText(text, Prefix(address, 32));
  fuzz::checkText(text, IpAddrWithMask(address, 5));
  fuzz::checkText(text, IpAddrWithFullMask(address, 5));
  fuzz::checkText(text, IpAndPort(address, 5));
  checkAddress(text);

  const auto withLen = fuzz::joined<IpAddr>(text, '/', ~std::uint64_t{0});
  const auto withMask = IpAddrWithMask::fromText(text);
  KIV_ASSERT(withMask.has_value() == withLen.has_value());
  KIV_ASSERT(!withMask || (withMask->address() == withLen->address &&
                           withMask->len() == std::min<std::uint64_t>(withLen->number, 0xffff'ffff)));
  const auto prefix = Prefix::fromText(text);
  KIV_ASSERT(prefix.has_value() ==
             (withLen && withLen->number <= 32 &&
              (Kiv::U64{withLen->address.hostOrder()} << withLen->number & 0xffff'ffff) == 0));
  KIV_ASSERT(!prefix || (prefix->address() == withLen->address && prefix->len() == withLen->number));
  const auto withPort = fuzz::joined<IpAddr>(text, ':', 0xffff);
  const auto endpoint = text.starts_with("Value(") ? std::nullopt : IpAndPort::fromText(text);
  KIV_ASSERT(endpoint.has_value() == withPort.has_value());
  KIV_ASSERT(!endpoint || (endpoint->ip() == withPort->address && endpoint->port() == withPort->number));
  return 0;
}
