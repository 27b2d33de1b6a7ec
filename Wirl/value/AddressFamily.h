// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <ostream>
#include <string_view>

#include "Kiv/NboAttrLog.h"
#include "Kiv/Representation.h"
#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Wirl {

/// Family of a generic address. The text of each is its name here.
enum class AddressFamily : Kiv::U32 { ipunknown = 0, ipv4 = 1, ipv6 = 2 };

/// The text of the family; that of `ipunknown` for a number that is no family.
KIV_API std::string_view addressFamilyText(AddressFamily af) noexcept;
/// The family that the whole of `text` names, or nothing.
KIV_API std::optional<AddressFamily> addressFamilyFromText(std::string_view text) noexcept;
/// The same; throws `Kiv::RangeException` for any other text.
KIV_API AddressFamily addressFamilyFromString(std::string_view text);

KIV_API std::ostream& operator<<(std::ostream& out, AddressFamily af);
/// As a 32-bit number.
KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, AddressFamily af);
/// A number that is no family throws `Kiv::RangeException`.
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, AddressFamily& af);

}  // namespace Wirl
