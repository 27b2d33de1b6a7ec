// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "Kiv/Types.h"
#include "Wirl/value/IpGenPrefix.h"

namespace Wirl {

using Kiv::S32;
using Kiv::U16;
using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

/// A rule of policy routing (ip-rule(8)): which packets it is for, and what it does with them.
struct KIV_API RouteRule {
  /// A range of ports, or with a mask the ports that are `first` in the bits of the mask; all zeros: any.
  struct Ports {
    /// The ports, both ends included, host order; a mask chooses bits.
    U16 first = 0, last = 0, mask = 0;

    bool contains(U16 port) const noexcept {
      return mask != 0 ? ((port ^ first) & mask) == 0 : port >= first && port <= last;
    }
    bool isAny() const noexcept { return first == 0 && last == 0; }
    friend bool operator==(const Ports&, const Ports&) = default;
  };

  AddressFamily af = AddressFamily::ipv4;
  U32 priority = 0;  ///< rules are tried from the lowest on
  // For which packets.
  bool invert = false;                      ///< for all but those that the rest says
  IpGenPrefix from, to;                     ///< of the unknown family: any
  U8 tos = 0;                               ///< 0: any
  U32 mark = 0, markMask = 0;               ///< The packet's mark, and the bits of it that count; 0: any.
  std::string inInterface, outInterface;    ///< names; empty: any. "lo" comes in what this machine sends.
  U8 ipProtocol = 0;                        ///< 0: any
  Ports sourcePorts, destinationPorts;      ///< The ports that it holds for.
  std::optional<std::pair<U32, U32>> uids;  ///< the first and the last one
  U64 tunnelId = 0;                         ///< in network byte order; 0: any
  bool l3Master = false;                    ///< for interfaces in a VRF; the table is that of the VRF
  bool other = false;                       ///< selects by something that this class does not know
  // What it does.
  U8 action = 1;            ///< FR_ACT_TO_TBL, FR_ACT_GOTO, FR_ACT_BLACKHOLE, ...
  U32 table = 0;            ///< of FR_ACT_TO_TBL
  U32 goTo = 0;             ///< of FR_ACT_GOTO: the priority of the rule to go on with
  S32 suppressLength = -1;  ///< routes of prefixes this long or shorter are no answer; -1: all are
  S32 suppressGroup = -1;   ///< nor are those by links of this group; -1: none
  U32 realms = 0;           ///< Realms of what it routes; 0: none.
  U8 protocol = 0;          ///< who added it, RTPROT_KERNEL and others

  friend bool operator==(const RouteRule&, const RouteRule&) = default;
};

/// What decides about the way of a packet, as `ip route get` takes it.
struct RouteQuery {
  IpGenAddr destination;                    ///< Where the packet goes.
  IpGenAddr source = {};                    ///< of the unknown family: not known yet
  U32 outIfIndex = 0;                       ///< the interface that it must leave by; 0: any
  U32 inIfIndex = 0;                        ///< the interface that it came by; 0: this machine sends it
  U32 mark = 0;                             ///< The packet's mark.
  U8 tos = 0;                               ///< the octet of the header
  U8 ipProtocol = 0;                        ///< 0: not known
  U16 sourcePort = 0, destinationPort = 0;  ///< Ports, host order; 0: none.
  std::optional<U32> uid = {};              ///< of the sender; without it this process's
};

}  // namespace Wirl
