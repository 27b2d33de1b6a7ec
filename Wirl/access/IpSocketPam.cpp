// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/IpSocketPam.h"

namespace Wirl {

IpSocketPam::~IpSocketPam() = default;

Kiv::Ptr<IpSocketPam> ipSocketPamFactory(Kiv::String name, IpProtocolNumber protocol,
                                         const NamespaceName& netNs) {
  return Kiv::makePtr<IpSocketPam>(std::move(name), protocol, netNs);
}

}  // namespace Wirl
