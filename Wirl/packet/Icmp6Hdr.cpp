// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/Icmp6Hdr.h"

namespace Wirl {

namespace {

template <typename Number>
std::ostream& writeNumber(std::ostream& out, std::string_view text, Number number) {
  return text.empty() ? out << unsigned{number} : out << text;
}

}  // namespace

#define NAME(number) \
  case number:       \
    return #number

std::string_view icmp6TypeNumberText(Icmp6TypeNumber type) noexcept {
  switch (type) {
    NAME(icmp6TypeDstUnreachable);
    NAME(icmp6TypePacketTooBig);
    NAME(icmp6TypeTimeExceeded);
    NAME(icmp6TypeParameterProblem);
    NAME(icmp6TypeEchoRequest);
    NAME(icmp6TypeEchoReply);
    NAME(icmp6TypeMldQuery);
    NAME(icmp6TypeMldReport);
    NAME(icmp6TypeMldDone);
    NAME(icmp6TypeRouterSolicitation);
    NAME(icmp6TypeRouterAdvertisement);
    NAME(icmp6TypeNeighborSolicitation);
    NAME(icmp6TypeNeighborAdvertisement);
    NAME(icmp6TypeRedirect);
    NAME(icmp6TypeMldv2Report);
  }
  return {};
}

std::string_view icmp6OptionTypeNumberText(Icmp6OptionTypeNumber type) noexcept {
  switch (type) {
    NAME(icmp6OptSrcLinkLayerAddr);
    NAME(icmp6OptTgtLinkLayerAddr);
    NAME(icmp6OptPrefixInfo);
    NAME(icmp6OptRedirectedHdr);
    NAME(icmp6OptMtu);
    NAME(icmp6OptNonce);
    NAME(icmp6OptRouteInfo);
    NAME(icmp6OptRdnss);
    NAME(icmp6OptDnssl);
  }
  return {};
}

#undef NAME

std::ostream& operator<<(std::ostream& out, Icmp6TypeNumber type) {
  return writeNumber(out, icmp6TypeNumberText(type), type);
}

std::ostream& operator<<(std::ostream& out, Icmp6OptionTypeNumber type) {
  return writeNumber(out, icmp6OptionTypeNumberText(type), type);
}

}  // namespace Wirl
