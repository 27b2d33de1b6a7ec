// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <ostream>
#include <string_view>

#include "Kiv/Types.h"

namespace Wirl {

/// EtherTypes (IEEE 802 Numbers) that the library has a name for. A text is the name of the member.
enum EthType : Kiv::U16 {
  ethTypeUnknown = 0,
  ethTypeIp = 0x0800,
  ethTypeArpIp = 0x0806,
  ethTypeDot1Q = 0x8100,
  ethTypeQinQ = 0x9100,
  ethTypeIp6 = 0x86dd,
  ethTypePtp = 0x88f7,
  ethTypeMpls = 0x8847,
  ethTypeDot1ah = 0x88e7,
  ethTypeDot1ad = 0x88a8,
  ethTypeLoopProtect = 0x88b7,
  ethTypeLldp = 0x88cc,
  ethTypeCfm = 0x8902,
  ethTypeSlowProto = 0x8809,
  ethTypeQuillo = 0xd28b,  ///< The system's own: an `EthSubType` follows.
};

/// What follows `ethTypeQuillo`.
enum EthSubType : Kiv::U16 {
  ethSubTypeKelvo = 1,
  ethSubTypeL2HeaderTimestamping = 3,
};

/// The member of that number; `ethTypeUnknown` where there is none.
KIV_API EthType ethTypeOf(Kiv::U16 number) noexcept;
/// The member's name; that of `ethTypeUnknown` for a value without one.
KIV_API std::string_view ethTypeText(EthType type) noexcept;
/// The type that the whole of `text` names, or nothing.
KIV_API std::optional<EthType> ethTypeFromText(std::string_view text) noexcept;
/// The same; throws `Kiv::RangeException` "Invalid EthType" for any other text.
KIV_API EthType ethTypeFromString(std::string_view text);
KIV_API std::ostream& operator<<(std::ostream& out, EthType type);

/// The member's name; empty for a value without one.
KIV_API std::string_view ethSubTypeText(EthSubType type) noexcept;
/// The subtype of a name; nothing if there is none.
KIV_API std::optional<EthSubType> ethSubTypeFromText(std::string_view text) noexcept;
/// The same; throws `Kiv::RangeException` "Invalid EthSubType" for any other text.
KIV_API EthSubType ethSubTypeFromString(std::string_view text);
KIV_API std::ostream& operator<<(std::ostream& out, EthSubType type);

}  // namespace Wirl
