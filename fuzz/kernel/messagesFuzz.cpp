// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/detail/Messages.h"

#include <linux/rtnetlink.h>

#include <cstring>
#include <vector>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Wirl/kernel/KernelChanges.h"
#include "Wirl/kernel/detail/Attrs.h"
#include "Wirl/kernel/detail/LinkStates.h"
#include "Wirl/kernel/detail/RouteRules.h"

// Any octets as a datagram of rtnetlink: nothing is read outside of it, what is read makes sense, and it can
// be put into a request again.

using namespace Wirl;
using namespace Wirl::detail;

namespace {

void check(const nlmsghdr& message) {
  U64 unused = 0;
  LinkInfo link;
  if (parse(message, link, unused)) KIV_ASSERT(link.ifIndex != 0 && !link.name.empty());
  KernelChanges changes;
  AddressInfo address;
  if (parse(message, address, unused)) {
    KIV_ASSERT(address.key.local.af() == address.key.peer.af());
    changes.addressReplace(address);
  }
  NeighborInfo neighbor;
  if (parse(message, neighbor, unused)) {
    KIV_ASSERT(neighbor.key.address.af() != AddressFamily::ipunknown);
    changes.neighborReplace(neighbor);
  }
  NextHopInfo nextHop;
  RouteRule rule;
  if (parse(message, rule, unused)) changes.ruleAdd(rule);
  RouteMessage route;
  RouteKey key;
  S32 expires = 0;
  std::string octets;
  const bool good = parse(message, route, unused);
  KIV_ASSERT(parseKey(message, key, expires, octets) == good);
  if (good) {
    KIV_ASSERT(key == route.key && key.prefix.validAsPrefix());
  }
  try {
    if (parse(message, nextHop, unused)) changes.nextHopReplace(nextHop);
    if (good) changes.routeReplace(key, route.attrs);
  } catch (const Kiv::RangeException&) {
    // An encapsulation may be long.
  }
  ackOf(message);
}

/// What follows links and rules takes everything, and look-ups end.
void follow(std::string_view datagram) {
  LinkStates links;
  RouteRules rules;
  U64 unused = 0;
  unsigned count = 0;
  links.dumpBegins();
  rules.dumpBegins();
  forEachMessage(datagram, [&](const nlmsghdr& message) {
    links.take(message, ++count % 2 == 0);
    RouteRule rule;
    if (parse(message, rule, unused)) rules.take(message.nlmsg_type == RTM_NEWRULE, rule, count % 3 == 0);
  });
  links.dumpEnds();
  rules.dumpEnds();
  for (const char* const address : {"192.0.2.1", "2001:db8::1"}) {
    const RouteQuery query{IpGenAddr(address)};
    std::size_t tried = 0;
    rules.visit(query, links, [&](const RouteRule&) { return ++tried == 0; });
    KIV_ASSERT(tried <= rules.of(query.destination.af()).size());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  if (size == 0) return 0;
  // Aligned as the kernel's are, and ending where the heap's buffer does.
  std::vector<unsigned char> datagram(data, data + size);
  forEachMessage({reinterpret_cast<const char*>(datagram.data()), size}, check);
  follow({reinterpret_cast<const char*>(datagram.data()), size});
  // Lengths of messages are hard to guess: the whole as one as well, of each kind.
  if (size < sizeof(nlmsghdr)) return 0;
  nlmsghdr header;
  std::memcpy(&header, datagram.data(), sizeof(header));
  header.nlmsg_len = static_cast<U32>(size);
  std::memcpy(datagram.data(), &header, sizeof(header));
  forEachMessage({reinterpret_cast<const char*>(datagram.data()), size}, check);
  return 0;
}
