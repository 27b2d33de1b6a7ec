// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include "Kiv/Types.h"

namespace Wirl::detail {

/// The parts of a filter expression (pcap-filter(7)) that can make compiling it slow.
struct BpfWords {
  /// Words that are no keywords: numbers, addresses, names.
  Kiv::U32 operands = 0;
  /// The first word that libpcap could look up as the name of a host or a network; empty if there is none. A
  /// word is such a name unless it is known to be something else: a keyword, a number, an address, or the
  /// name of a port or protocol behind the keyword that says so.
  std::string_view hostName;
};
BpfWords bpfWordsOf(std::string_view expression) noexcept;

}  // namespace Wirl::detail
