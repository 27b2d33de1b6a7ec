// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/transport/TcpPduPam.h"

// docs/framing.md shows the class below; a test compares the two.
class BgpPam : public Wirl::TcpPduPam {
 public:
  using TcpPduPam::TcpPduPam;
  Kiv::U16 getPduSize() override {
    const Wirl::Pkt::Ptr& pdu = rxPktHolderShadow();
    if (!pdu || pdu->bytes() < 19) return 19;
    return static_cast<Kiv::U16>(pdu->rawByte(16) << 8 | pdu->rawByte(17));
  }
};
