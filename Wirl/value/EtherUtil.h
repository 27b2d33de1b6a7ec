// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/value/EthAddr.h"
#include "Wirl/value/IpAddr.h"

namespace Wirl {

/// The Ethernet group of an IPv4 group: 01:00:5e, a clear bit, the low 23 bits of the group (RFC 1112).
constexpr EthAddr ipMcastMacAddr(const IpAddr& group) noexcept {
  return group.mcastEtherAddress();
}

/// Whether the address is that of some IPv4 group: 01:00:5e and a clear bit.
constexpr bool isIpMcastMacAddr(const EthAddr& mac) noexcept {
  return mac.oui() == 0x01'005e && mac.station() <= 0x7f'ffff;
}

}  // namespace Wirl
