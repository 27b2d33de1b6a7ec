// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/UdpHdr.h"

namespace Wirl {

UdpHdrWrapper::Ptr udpHdrWrapperFactory(Pkt::Ptr pkt, U32 offset) {
  return new UdpHdrWrapper(std::move(pkt), offset);
}

}  // namespace Wirl
