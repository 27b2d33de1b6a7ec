// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/WireErrors.h"

#include <algorithm>
#include <iomanip>

namespace Wirl {

using Kiv::S32;
using Kiv::U8;

namespace {

constexpr PktErrors kPktErrors[] = {noError,
                                    pktTooShort,
                                    wrongEthType,
                                    badArpPkt,
                                    nonOnLink,
                                    badIpHdrChecksum,
                                    badIpPayloadLen,
                                    nonIpHdr,
                                    nonIp6Hdr,
                                    badIp6PayloadLen,
                                    nextHdrIsNotIcmp6,
                                    badIcmp6Checksum,
                                    unspecifiedSrcAddrAndNotSolicitedNodeDst,
                                    icmp6PayloadLenTooShortForHdr,
                                    notIcmp6NsType,
                                    icmp6NsTgtMcast,
                                    icmp6OptLenExceedPayloadLen,
                                    icmp6OptLenZero,
                                    icmp6TypeNotSupported,
                                    unspecSrcAddrSrcLinkLayerAddr,
                                    noSrcLinkLayerOptInMcastNs,
                                    notIcmp6NaType,
                                    icmp6NaTgtMcast,
                                    icmp6McastDstIpAndNonZeroSolicitation,
                                    nonVrrpMac,
                                    nonVrrpDstAddr,
                                    nonVrrpProto,
                                    badVrrpLen,
                                    badVrrpVersion,
                                    badVrrpChecksum,
                                    vrrpVridMacMismatch,
                                    badVrrpAuth,
                                    badVrrpLinkLocal,
                                    nextHdrIsNotAh,
                                    badAhLen,
                                    nonAhHmac96};

struct Name {
  S32 value;
  std::string_view text;
};
#define NAME(name, number) {number, #name},
constexpr Name kWireNames[] = {WIRL_WIRE_ERRORS(NAME)};
#undef NAME

/// All codes, `noError` first and then down.
constexpr auto kValues = [] {
  std::array<S32, std::size(kPktErrors) + std::size(kWireNames)> values{};
  auto* const end = std::copy(std::begin(kPktErrors), std::end(kPktErrors), values.begin());
  std::transform(std::begin(kWireNames), std::end(kWireNames), end, [](Name name) { return name.value; });
  std::sort(values.begin(), values.end(), std::greater<>());
  return values;
}();
static_assert(kValues.size() == PktErrorCounters::kCodes);
static_assert(kValues.front() == noError &&
              std::adjacent_find(kValues.begin(), kValues.end()) == kValues.end());

}  // namespace

std::optional<PktCode> PktCode::ofValue(S32 value) noexcept {
  if (!std::binary_search(kValues.begin(), kValues.end(), value, std::greater<>())) return std::nullopt;
  PktCode code;
  code.value_ = value;
  return code;
}

std::optional<PktCode> PktCode::ofText(std::string_view text) noexcept {
  if (const auto code = pktErrorsFromText(text)) return *code;
  for (const Name& name : kWireNames) {
    if (name.text == text) return ofValue(name.value);
  }
  return std::nullopt;
}

std::string_view PktCode::text() const noexcept {
  for (const Name& name : kWireNames) {
    if (name.value == value_) return name.text;
  }
  return pktErrorsText(static_cast<PktErrors>(value_));
}

std::ostream& operator<<(std::ostream& out, PktCode code) {
  const std::string_view text = code.text();
  return text.empty() ? out << code.value_ : out << text;
}

constexpr std::array<U8, PktErrorCounters::kNumbers> PktErrorCounters::kIndices = [] {
  static_assert(kCodes < 0xff && -kValues.back() < kNumbers);
  std::array<U8, kNumbers> indices{};
  indices.fill(kCodes);
  for (std::size_t i = 0; i < kCodes; ++i)
    indices[static_cast<std::size_t>(-kValues[i])] = static_cast<U8>(i);
  return indices;
}();

PktCode PktErrorCounters::codeAt(std::size_t index) noexcept {
  return *PktCode::ofValue(kValues[index]);
}

Kiv::U64 PktErrorCounters::errors() const noexcept {
  Kiv::U64 errors = 0;
  for (std::size_t i = 1; i < counts_.size(); ++i) errors += counts_[i];
  return errors;
}

PktErrorCounters& PktErrorCounters::operator+=(const PktErrorCounters& other) noexcept {
  for (std::size_t i = 0; i < counts_.size(); ++i) counts_[i] += other.counts_[i];
  return *this;
}

std::ostream& operator<<(std::ostream& out, const PktErrorCounters& counters) {
  constexpr int kLongestName = 42;
  const auto flags = out.flags(std::ios_base::dec);
  counters.forEach([&out](PktCode code, Kiv::U64 count) {
    out << std::right << std::setw(4) << code.value() << "  " << std::left << std::setw(kLongestName)
        << code.text() << std::right << std::setw(20) << count << '\n';
  });
  out.flags(flags);
  return out;
}

}  // namespace Wirl
