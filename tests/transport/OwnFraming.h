// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/transport/TcpPduPam.h"

// docs/framing.md shows both classes below; a test compares the two.
class BgpPam : public Wirl::TcpPduPam {
 public:
  using TcpPduPam::TcpPduPam;
  Kiv::U16 getPduSize() override {
    const Wirl::Pkt::Ptr& pdu = rxPktHolderShadow();
    if (!pdu || pdu->bytes() < 19) return 19;
    return static_cast<Kiv::U16>(pdu->rawByte(16) << 8 | pdu->rawByte(17));
  }
};

class WideLengthPam : public Wirl::TcpPduPam {
 public:
  using TcpPduPam::TcpPduPam;
  Kiv::U16 getPduSize() override {
    const Wirl::Pkt::Ptr& pdu = rxPktHolderShadow();
    if (!pdu || pdu->bytes() < 4) return 4;
    Kiv::U32 length = 0;
    for (Kiv::U32 i = 0; i < 4; ++i) length = length << 8 | pdu->rawByte(i);
    return pduSize(length, 4);
  }
};
