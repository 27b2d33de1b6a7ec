// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/packet/Pkt.h"
#include "Wirl/wire/WireErrors.h"

namespace Wirl {

/// Cuts an IPv4 or IPv6 datagram into fragments that fit a link (RFC 791 section 3.2, RFC 8200 section 4.5):
///
///     PktFragmenter fragments(pkt, sizeof(EthHdr), 1500, nextId++);
///     while (auto fragment = fragments.next()) pam->txPktIs(fragment);
///     if (fragments.code() != noError) ...
///
/// A datagram that fits is given as it is. Of an IPv4 datagram a fragment may be cut again; IPv6 leaves that
/// to nobody but the source. Fragments are packets of their own, with the link-layer header and the separate
/// tag of the first; checksums of upper layers stay as they are. Padding behind the datagram goes.
class KIV_API PktFragmenter {
 public:
  /// The IP header is at `ipOffset` and has passed its check; it lies in the first piece with its options or
  /// extension headers. `mtu` counts bytes of IP. `id6` identifies the datagram among those of the same
  /// addresses; an IPv4 header has its own. A null packet ends the process.
  PktFragmenter(Pkt::Ptr pkt, U32 ipOffset, U32 mtu, U32 id6 = 0);

  /// Why there are no fragments: `ipDontFrag`, `mtuTooSmall` (also where not all headers fit into the first
  /// fragment of IPv6, RFC 7112), `ipFragment` (of IPv6), `pktTooShort`, `nonIpHdr`, `badIpHdrLen`,
  /// `badIpOptions`, `badIpPayloadLen`, `badIp6PayloadLen`, `badIp6ExtHdr`, `badFragmentLen` (a middle
  /// fragment that is no multiple of 8), `fragmentTooLong`.
  PktCode code() const noexcept { return code_; }
  /// Null behind the last one, and when there are none.
  Pkt::Ptr next();

 private:
  PktCode prepare(U32 mtu);
  PktCode prepareIp(U32 mtu);
  PktCode prepareIp6(U32 mtu);
  Pkt::Ptr fragment(U32 hdrBytes, U32 bytes) const;

  const Pkt::Ptr pkt_;
  const U32 ipOffset_;
  const U32 id6_;
  PktCode code_;
  bool isIp6_ = false;
  bool whole_ = false;  // it fits
  U8 next6_ = 0;        // protocol of the fragmentable part
  U8 ipHdr_[60];        // IPv4: that of all but the first, with the options that are copied
  U32 hdrBytes_ = 0;    // of the first one's header, without that of IPv6 fragments
  U32 laterHdrBytes_ = 0;
  U32 saidAt_ = 0;  // IPv6: where the protocol of the fragmentable part is said, from the IP header on
  U32 room_ = 0;    // data of the first, and of later ones
  U32 laterRoom_ = 0;
  U32 dataAt_ = 0;  // from the packet's front
  U32 dataBytes_ = 0;
  U32 offset_ = 0;       // of the next one in the data
  U32 firstOffset_ = 0;  // of the data in the datagram
  bool moreBehind_ = false;
};

}  // namespace Wirl
