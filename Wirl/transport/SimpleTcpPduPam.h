// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/transport/TcpPduPam.h"

namespace Wirl {

/// PDUs with a header of 20 octets, of which octets 2 and 3 are the length of the whole PDU, header included,
/// in network order.
class KIV_API SimpleTcpPduPam : public TcpPduPam {
 public:
  static constexpr U16 kHeaderLength = 20;  ///< Length of the header, in octets.

  using TcpPduPam::TcpPduPam;
  ~SimpleTcpPduPam() override;

  U16 getPduSize() override;
};

/// Makes a Pam for a connected socket on the factory's loop.
KIV_API Kiv::Ptr<SimpleTcpPduPam> simpleTcpPduPamFactory(
    const TcpFileDescriptor::PtrConst& descriptor,
    const Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>& factory);

}  // namespace Wirl
