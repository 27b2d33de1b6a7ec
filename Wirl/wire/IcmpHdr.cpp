// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/IcmpHdr.h"

namespace Wirl {

std::string_view icmpTypeNumberText(IcmpTypeNumber type) noexcept {
  switch (type) {
#define NAME(member) \
  case member:       \
    return #member
    NAME(icmpTypeEchoReply);
    NAME(icmpTypeDstUnreachable);
    NAME(icmpTypeSourceQuench);
    NAME(icmpTypeRedirect);
    NAME(icmpTypeEchoRequest);
    NAME(icmpTypeRouterAdvertisement);
    NAME(icmpTypeRouterSolicitation);
    NAME(icmpTypeTimeExceeded);
    NAME(icmpTypeParameterProblem);
    NAME(icmpTypeTimestampRequest);
    NAME(icmpTypeTimestampReply);
    NAME(icmpTypeInformationRequest);
    NAME(icmpTypeInformationReply);
    NAME(icmpTypeAddressMaskRequest);
    NAME(icmpTypeAddressMaskReply);
    NAME(icmpTypeExtendedEchoRequest);
    NAME(icmpTypeExtendedEchoReply);
#undef NAME
  }
  return {};
}

}  // namespace Wirl
