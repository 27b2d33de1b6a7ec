// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"

namespace Wirl {

/// Encapsulating security payload (RFC 4303): what is not encrypted.
class EspHdr : public HdrImage<8> {
 public:
  WIRL_HDR(EspHdr, "esp");
  /// Security parameters index.
  WIRL_FIELD(U32, spi, 0, 32, .kind = hex);
  WIRL_FIELD(U32, seqNum, 32, 32, .key = "seq");
};
static_assert(isHeaderImage<EspHdr, 8>);

}  // namespace Wirl
