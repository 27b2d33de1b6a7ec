// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <span>
#include <string_view>

#include "Kiv/Representation.h"
#include "Kiv/Types.h"

namespace Wirl::detail {

/// Reads octets from the front of `text`: groups of hexadecimal digits, all joined by colons or all by
/// hyphens (an octet each) or all by full stops (two octets each). The failure is "Invalid EthAddr" for every
/// number of octets; `text` and `out` are unchanged then.
Kiv::ParseError takeHexGroups(std::string_view& text, std::span<Kiv::U8, 6> out) noexcept;
Kiv::ParseError takeHexGroups(std::string_view& text, std::span<Kiv::U8, 8> out) noexcept;

/// Two digits an octet, joined by colons, and a NUL; returns the length without the NUL.
unsigned writeHexGroups(std::span<const Kiv::U8> octets, char* out) noexcept;

}  // namespace Wirl::detail
