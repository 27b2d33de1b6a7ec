// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/kernel/AddressView.h"
#include "Wirl/kernel/LinkView.h"
#include "Wirl/kernel/NeighborView.h"
#include "Wirl/kernel/NextHopView.h"
#include "Wirl/kernel/RouteView.h"

struct nlmsghdr;

// The messages of rtnetlink. Each function reads one, and returns false for one that cannot be read. What it
// does not use counts in `unused`. The message is whole and aligned to 4; otherwise nothing is trusted.
namespace Wirl::detail {

bool parse(const nlmsghdr& message, LinkInfo& link, U64& unused);
bool parse(const nlmsghdr& message, AddressInfo& address, U64& unused);
bool parse(const nlmsghdr& message, NeighborInfo& neighbor, U64& unused);
bool parse(const nlmsghdr& message, NextHopInfo& nextHop, U64& unused);
bool parse(const nlmsghdr& message, RouteRule& rule, U64& unused);

struct RouteMessage {
  RouteKey key;
  S32 expires = 0;
  RouteAttrs attrs;
};
bool parse(const nlmsghdr& message, RouteMessage& route, U64& unused);
/// The key alone, and the octets of all other attributes but what changes by itself, appended to `attrs`.
/// False for a message that cannot be read.
bool parseKey(const nlmsghdr& message, RouteKey& key, S32& expires, std::string& attrs);

}  // namespace Wirl::detail
