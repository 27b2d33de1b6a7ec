// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/SimpleTcpPduPam.h"

namespace Wirl {

SimpleTcpPduPam::~SimpleTcpPduPam() = default;

U16 SimpleTcpPduPam::getPduSize() {
  const Pkt::Ptr& pdu = rxPktHolderShadow();
  if (!initialized() || !pdu || pdu->frontBytes() < kHeaderLength) return kHeaderLength;
  const U8* const header = pdu->front();
  return static_cast<U16>(header[2] << 8 | header[3]);
}

Kiv::Ptr<SimpleTcpPduPam> simpleTcpPduPamFactory(
    const TcpFileDescriptor::PtrConst& descriptor,
    const Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>& factory) {
  return Kiv::makePtr<SimpleTcpPduPam>(descriptor, factory);
}

}  // namespace Wirl
