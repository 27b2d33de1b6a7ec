// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"

namespace Wirl {

/// VRRP advertisement of version 2 (RFC 3768) or 3 (RFC 5798), without the addresses behind it; of version 2
/// also without the authentication data behind those.
class VrrpHdr : public HdrImage<8> {
 public:
  static constexpr U8 advertisement = 1;  ///< The type of all messages.
  static constexpr U8 authBytes = 8;      ///< Of the authentication data of version 2.

  WIRL_HDR(VrrpHdr, "vrrp");
  WIRL_FIELD(U8, version, 0, 4);
  WIRL_FIELD(U8, type, 4, 4);
  /// Virtual router.
  WIRL_FIELD(U8, vrid, 8, 8);
  WIRL_FIELD(U8, priority, 16, 8);
  WIRL_FIELD(U8, addressCount, 24, 8);
  /// Version 2. Of the authentication that was once defined.
  WIRL_FIELD(U8, authType, 32, 8, .kind = hidden);
  /// Version 2. In seconds.
  WIRL_FIELD(U8, advertisementSeconds, 40, 8, .kind = hidden);
  /// Version 3. In hundredths of a second.
  WIRL_FIELD(U16, maxAdvertisementInterval, 36, 12, .kind = hidden);
  /// Over the whole message; of version 3 over IPv6, and by most senders over IPv4, with the pseudo-header.
  WIRL_FIELD(IpChecksum, checksum, 48, 16);
};
static_assert(isHeaderImage<VrrpHdr, 8>);

}  // namespace Wirl
