// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>
#include <span>
#include <string_view>
#include <vector>

#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Wirl {

using Kiv::S64;
using Kiv::U16;
using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

/// What the bytes of a captured packet begin with (LINKTYPE_ numbers of the pcap format).
enum class LinkType : U16 { ethernet = 1, rawIp = 101, user0 = 147 };

/// One packet of a capture.
struct CapturedPkt {
  /// Which way it went.
  enum class Way : U8 { unknown, received, sent };

  U32 interface = 0;           ///< Number of the interface, as `interfaceIs` gave it.
  S64 time = 0;                ///< Nanoseconds since 1970, UTC.
  Way way = Way::unknown;      ///< Which way it went.
  std::span<const U8> octets;  ///< What was kept of the packet.
  U32 bytes = 0;               ///< Length of the whole packet.
  std::string_view comment;    ///< UTF-8; empty for none.
  U64 drops = 0;               ///< Packets of this interface lost since the one before.
};

/// Writes a capture in the pcapng format (draft-ietf-opsawg-pcapng), which tshark and tcpdump read: packets
/// of several named interfaces, with direction, comment and drop count.
///
/// The bytes go to a stream that the caller owns, in the byte order of the machine; failures show in the
/// stream's state.
class KIV_API PcapngWriter {
 public:
  /// Writes the header of the section.
  explicit PcapngWriter(std::ostream& out);

  /// Announces an interface; returns its number, for `CapturedPkt::interface`. A name longer than 65535
  /// octets is cut off.
  U32 interfaceIs(std::string_view name, LinkType linkType, U32 snapLength);
  /// Ends the process for an interface that was not announced. A comment longer than 65535 octets is cut off.
  void pktIs(const CapturedPkt& pkt);
  /// What the interface received and lost in all, at `time`.
  void statisticsIs(U32 interface, S64 time, U64 received, U64 dropped);

 private:
  void block(U32 type, std::span<const U8> body);

  std::ostream& out_;
  std::vector<U8> body_;  // of the block that is written; keeps its memory
  U32 interfaces_ = 0;
};

}  // namespace Wirl
