// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/Ip6SocketPam.h"

namespace Wirl {

Ip6SocketPam::~Ip6SocketPam() = default;

Kiv::Ptr<Ip6SocketPam> ip6SocketPamFactory(Kiv::String name, IpProtocolNumber protocol,
                                           const NamespaceName& netNs) {
  return Kiv::makePtr<Ip6SocketPam>(std::move(name), protocol, netNs);
}

}  // namespace Wirl
