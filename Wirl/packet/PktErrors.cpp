// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/PktErrors.h"

#include "Kiv/Exception.h"

namespace Wirl {

namespace {

struct Name {
  PktErrors code;
  std::string_view text;
};

#define NAME(code) \
  { code, #code }
constexpr Name kNames[] = {NAME(noError),
                           NAME(pktTooShort),
                           NAME(wrongEthType),
                           NAME(badArpPkt),
                           NAME(nonOnLink),
                           NAME(badIpHdrChecksum),
                           NAME(badIpPayloadLen),
                           NAME(nonIpHdr),
                           NAME(nonIp6Hdr),
                           NAME(badIp6PayloadLen),
                           NAME(nextHdrIsNotIcmp6),
                           NAME(badIcmp6Checksum),
                           NAME(unspecifiedSrcAddrAndNotSolicitedNodeDst),
                           NAME(icmp6PayloadLenTooShortForHdr),
                           NAME(notIcmp6NsType),
                           NAME(icmp6NsTgtMcast),
                           NAME(icmp6OptLenExceedPayloadLen),
                           NAME(icmp6OptLenZero),
                           NAME(icmp6TypeNotSupported),
                           NAME(unspecSrcAddrSrcLinkLayerAddr),
                           NAME(noSrcLinkLayerOptInMcastNs),
                           NAME(notIcmp6NaType),
                           NAME(icmp6NaTgtMcast),
                           NAME(icmp6McastDstIpAndNonZeroSolicitation),
                           NAME(nonVrrpMac),
                           NAME(nonVrrpDstAddr),
                           NAME(nonVrrpProto),
                           NAME(badVrrpLen),
                           NAME(badVrrpVersion),
                           NAME(badVrrpChecksum),
                           NAME(vrrpVridMacMismatch),
                           NAME(badVrrpAuth),
                           NAME(badVrrpLinkLocal),
                           NAME(nextHdrIsNotAh),
                           NAME(badAhLen),
                           NAME(nonAhHmac96)};
#undef NAME
static_assert(std::size(kNames) == 36);

}  // namespace

std::string_view pktErrorsText(PktErrors code) noexcept {
  for (const Name& name : kNames) {
    if (name.code == code) return name.text;
  }
  return {};
}

std::optional<PktErrors> pktErrorsFromText(std::string_view text) noexcept {
  for (const Name& name : kNames) {
    if (name.text == text) return name.code;
  }
  return std::nullopt;
}

PktErrors pktErrorsFromString(std::string_view text) {
  if (const auto code = pktErrorsFromText(text)) return *code;
  throw Kiv::RangeException("Invalid PktErrors");
}

std::ostream& operator<<(std::ostream& out, PktErrors code) {
  const std::string_view text = pktErrorsText(code);
  return text.empty() ? out << Kiv::S32{code} : out << text;
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, PktErrors code) {
  return log << static_cast<Kiv::U32>(code);
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, PktErrors& code) {
  Kiv::U32 number = 0;
  log >> number;
  code = static_cast<PktErrors>(number);
  return log;
}

}  // namespace Wirl
