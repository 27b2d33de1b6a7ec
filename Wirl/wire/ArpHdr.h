// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/IpAddr.h"

namespace Wirl {

/// The fixed part of an ARP packet (RFC 826): four addresses follow, as long as it says.
class ArpHdr : public HdrImage<8> {
 public:
  static constexpr U16 request = 1;   ///< Operation: who has this address?
  static constexpr U16 reply = 2;     ///< Operation: this one has it.
  static constexpr U16 ethernet = 1;  ///< Hardware type of Ethernet.
  static constexpr U16 atm = 19;      ///< With a packet of another form (RFC 2225).

  WIRL_HDR(ArpHdr, "arp");
  WIRL_FIELD(U16, hardwareType, 0, 16);
  /// An EtherType.
  WIRL_FIELD(U16, protocolType, 16, 16, .kind = hex);
  /// In bytes, of hardware and protocol addresses.
  WIRL_FIELD(U8, hardwareBytes, 32, 8);
  WIRL_FIELD(U8, protocolBytes, 40, 8);
  WIRL_FIELD(U16, operation, 48, 16);

  /// Whether the addresses are those of IPv4 and Ethernet, or of a kind of network with the same addresses.
  bool isIpOverEthernet() const noexcept {
    return protocolType() == 0x0800 && hardwareBytes() == 6 && protocolBytes() == 4;
  }
  /// Of the whole packet.
  U16 packetBytes() const noexcept { return static_cast<U16>(8 + 2 * hardwareBytes() + 2 * protocolBytes()); }
};
static_assert(isHeaderImage<ArpHdr, 8>);

/// ARP packet for IPv4 over Ethernet. `ArpHdr::isIpOverEthernet` says whether it is one.
class EthArpHdr : public HdrImage<28, ArpHdr> {
 public:
  WIRL_HDR(EthArpHdr, "arp");
  WIRL_FIELD(EthAddr, senderMac, 64, 48);
  WIRL_FIELD(IpAddr, senderIp, 112, 32);
  WIRL_FIELD(EthAddr, targetMac, 144, 48);
  WIRL_FIELD(IpAddr, targetIp, 192, 32);
};
static_assert(isHeaderImage<EthArpHdr, 28>);

}  // namespace Wirl
