// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/AhHdr.h"

namespace Wirl {

AhHdrWrapper::Ptr ahHdrWrapperFactory(Pkt::Ptr pkt, U32 offset) {
  return new AhHdrWrapper(std::move(pkt), offset);
}

}  // namespace Wirl
