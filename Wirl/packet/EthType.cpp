// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/EthType.h"

#include "Kiv/Exception.h"

namespace Wirl {

namespace {

template <typename Enum>
struct Name {
  Enum value;
  std::string_view text;
};

#define NAME(member) \
  { member, #member }
constexpr Name<EthType> kTypes[] = {NAME(ethTypeUnknown), NAME(ethTypeIp),          NAME(ethTypeArpIp),
                                    NAME(ethTypeDot1Q),   NAME(ethTypeQinQ),        NAME(ethTypeIp6),
                                    NAME(ethTypePtp),     NAME(ethTypeMpls),        NAME(ethTypeDot1ah),
                                    NAME(ethTypeDot1ad),  NAME(ethTypeLoopProtect), NAME(ethTypeLldp),
                                    NAME(ethTypeCfm),     NAME(ethTypeSlowProto),   NAME(ethTypeQuillo)};
constexpr Name<EthSubType> kSubTypes[] = {NAME(ethSubTypeKelvo), NAME(ethSubTypeL2HeaderTimestamping)};
#undef NAME

template <typename Enum, std::size_t Size>
constexpr std::string_view textOf(const Name<Enum> (&names)[Size], Enum value,
                                  std::string_view other) noexcept {
  for (const auto& name : names) {
    if (name.value == value) return name.text;
  }
  return other;
}

template <typename Enum, std::size_t Size>
constexpr std::optional<Enum> fromText(const Name<Enum> (&names)[Size], std::string_view text) noexcept {
  for (const auto& name : names) {
    if (name.text == text) return name.value;
  }
  return std::nullopt;
}

}  // namespace

EthType ethTypeOf(Kiv::U16 number) noexcept {
  for (const auto& name : kTypes) {
    if (name.value == number) return name.value;
  }
  return ethTypeUnknown;
}

std::string_view ethTypeText(EthType type) noexcept {
  return textOf(kTypes, type, kTypes[0].text);
}

std::optional<EthType> ethTypeFromText(std::string_view text) noexcept {
  return fromText(kTypes, text);
}

EthType ethTypeFromString(std::string_view text) {
  if (const auto type = ethTypeFromText(text)) return *type;
  throw Kiv::RangeException("Invalid EthType");
}

std::ostream& operator<<(std::ostream& out, EthType type) {
  return out << ethTypeText(type);
}

std::string_view ethSubTypeText(EthSubType type) noexcept {
  return textOf(kSubTypes, type, "");
}

std::optional<EthSubType> ethSubTypeFromText(std::string_view text) noexcept {
  return fromText(kSubTypes, text);
}

EthSubType ethSubTypeFromString(std::string_view text) {
  if (const auto type = ethSubTypeFromText(text)) return *type;
  throw Kiv::RangeException("Invalid EthSubType");
}

std::ostream& operator<<(std::ostream& out, EthSubType type) {
  return out << ethSubTypeText(type);
}

}  // namespace Wirl
