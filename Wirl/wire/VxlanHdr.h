// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"

namespace Wirl {

/// VXLAN header (RFC 7348), an Ethernet frame behind it.
class VxlanHdr : public HdrImage<8> {
 public:
  static constexpr U16 udpPort = 4789;  ///< RFC 7348.

  WIRL_HDR(VxlanHdr, "vxlan");
  /// The octet of RFC 7348 and the one behind it, which extensions use.
  WIRL_FIELD(U16, flags, 0, 16, .kind = hex);
  /// There is a network identifier.
  WIRL_FIELD(bool, vniValid, 4, 1, .kind = hidden);
  /// Of the group policy extension; else reserved.
  WIRL_FIELD(U16, groupPolicy, 16, 16);
  WIRL_FIELD(U32, vni, 32, 24);
};
static_assert(isHeaderImage<VxlanHdr, 8>);

}  // namespace Wirl
