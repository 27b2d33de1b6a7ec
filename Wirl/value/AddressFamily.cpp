// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/AddressFamily.h"

#include <array>

#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

namespace {

constexpr std::array<std::string_view, 3> kTexts = {"ipunknown", "ipv4", "ipv6"};
constexpr Kiv::ParseError kInvalid = "Invalid AddressFamily";

}  // namespace

std::string_view addressFamilyText(AddressFamily af) noexcept {
  const auto number = static_cast<Kiv::U32>(af);
  return kTexts[number < kTexts.size() ? number : 0];
}

std::optional<AddressFamily> addressFamilyFromText(std::string_view text) noexcept {
  for (Kiv::U32 i = 0; i < kTexts.size(); ++i) {
    if (text == kTexts[i]) return static_cast<AddressFamily>(i);
  }
  return std::nullopt;
}

AddressFamily addressFamilyFromString(std::string_view text) {
  const auto af = addressFamilyFromText(text);
  if (!af) detail::throwRange(kInvalid);
  return *af;
}

std::ostream& operator<<(std::ostream& out, AddressFamily af) {
  return out << addressFamilyText(af);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, AddressFamily af) {
  return log << static_cast<Kiv::U32>(af);
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, AddressFamily& af) {
  Kiv::U32 number = 0;
  log >> number;
  if (number >= kTexts.size()) detail::throwRange(kInvalid);
  af = static_cast<AddressFamily>(number);
  return log;
}

}  // namespace Wirl
