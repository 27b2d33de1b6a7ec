// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

/// Transmission control header (RFC 9293), without its options.
class TcpHdr : public HdrImage<20> {
 public:
  WIRL_HDR(TcpHdr, "tcp");
  WIRL_FIELD(U16, srcPort, 0, 16);
  WIRL_FIELD(U16, dstPort, 16, 16);
  WIRL_FIELD(U32, seqNum, 32, 32, .key = "seq");
  WIRL_FIELD(U32, ackNum, 64, 32, .key = "ack");
  /// In words of 4 bytes, options included.
  WIRL_FIELD(U8, dataOffset, 96, 4, .key = "headerLength", .scale = 4);
  /// All 12 bits, the reserved ones first.
  WIRL_FIELD(U16, flags, 100, 12, .kind = hex);
  WIRL_FIELD(bool, ae, 103, 1, .kind = hidden);  ///< Accurate ECN.
  WIRL_FIELD(bool, cwr, 104, 1, .kind = hidden);
  WIRL_FIELD(bool, ece, 105, 1, .kind = hidden);
  WIRL_FIELD(bool, urg, 106, 1, .kind = hidden);
  WIRL_FIELD(bool, ack, 107, 1, .kind = hidden);
  WIRL_FIELD(bool, psh, 108, 1, .kind = hidden);
  WIRL_FIELD(bool, rst, 109, 1, .kind = hidden);
  WIRL_FIELD(bool, syn, 110, 1, .kind = hidden);
  WIRL_FIELD(bool, fin, 111, 1, .kind = hidden);
  /// As it stands: before the scale of the connection.
  WIRL_FIELD(U16, window, 112, 16);
  WIRL_FIELD(IpChecksum, checksum, 128, 16);
  WIRL_FIELD(U16, urgentPointer, 144, 16, .key = "urgent");

  /// Of the header with its options: 0 to 60.
  U16 headerBytes() const noexcept { return static_cast<U16>(dataOffset() * 4); }
};
static_assert(isHeaderImage<TcpHdr, 20>);

/// The options of a header: `TcpOptions(viewAt<TcpHdr>(bytes).options())`.
using TcpOptions = OptionList<IpOptionFormat>;

/// What TCP options begin with.
class TcpOptionHdr : public HdrImage<2> {
 public:
  WIRL_HDR(TcpOptionHdr, "option");
  WIRL_FIELD(U8, type, 0, 8);
  /// In bytes, of the whole option.
  WIRL_FIELD(U8, length, 8, 8);
};

/// Maximum segment size (RFC 9293).
class TcpMssOption : public HdrImage<4, TcpOptionHdr> {
 public:
  static constexpr U8 kType = 2;
  WIRL_HDR(TcpMssOption, "mss");
  WIRL_FIELD(U16, mss, 16, 16);
};

/// Window scale (RFC 7323).
class TcpWindowScaleOption : public HdrImage<3, TcpOptionHdr> {
 public:
  static constexpr U8 kType = 3;
  WIRL_HDR(TcpWindowScaleOption, "windowScale");
  /// Windows are to be shifted left by it: at most 14.
  WIRL_FIELD(U8, shift, 16, 8);
};

/// Selective acknowledgements are understood (RFC 2018).
class TcpSackPermittedOption : public TcpOptionHdr {
 public:
  static constexpr U8 kType = 4;
};

/// A block of bytes that arrived: those from `left` up to, but not with, `right`.
class TcpSackBlock : public HdrImage<8> {
 public:
  WIRL_HDR(TcpSackBlock, "block");
  WIRL_FIELD(U32, left, 0, 32);
  WIRL_FIELD(U32, right, 32, 32);
};

/// Selective acknowledgement (RFC 2018): the blocks are the option's data.
class TcpSackOption : public TcpOptionHdr {
 public:
  static constexpr U8 kType = 5;
  /// How many blocks it has.
  unsigned blocks() const noexcept {
    return length() < 2 ? 0u : (length() - 2u) / unsigned{sizeof(TcpSackBlock)};
  }
};

/// Timestamps (RFC 7323).
class TcpTimestampsOption : public HdrImage<10, TcpOptionHdr> {
 public:
  static constexpr U8 kType = 8;
  WIRL_HDR(TcpTimestampsOption, "timestamps");
  WIRL_FIELD(U32, value, 16, 32);
  WIRL_FIELD(U32, echoReply, 48, 32);
};

/// MD5 signature (RFC 2385): 16 octets of digest are the data.
class TcpMd5Option : public HdrImage<18, TcpOptionHdr> {
 public:
  static constexpr U8 kType = 19;
};

/// User timeout (RFC 5482).
class TcpUserTimeoutOption : public HdrImage<4, TcpOptionHdr> {
 public:
  static constexpr U8 kType = 28;
  WIRL_HDR(TcpUserTimeoutOption, "userTimeout");
  /// The timeout counts minutes rather than seconds.
  WIRL_FIELD(bool, minutes, 16, 1);
  WIRL_FIELD(U16, timeout, 17, 15);
};

/// Authentication (RFC 5925): the code is the data behind these.
class TcpAuthenticationOption : public HdrImage<4, TcpOptionHdr> {
 public:
  static constexpr U8 kType = 29;
  WIRL_HDR(TcpAuthenticationOption, "authentication");
  WIRL_FIELD(U8, keyId, 16, 8);
  WIRL_FIELD(U8, nextKeyId, 24, 8);
};

/// Fast open (RFC 7413): the cookie is the data; none of it asks for one.
class TcpFastOpenOption : public TcpOptionHdr {
 public:
  static constexpr U8 kType = 34;
};

}  // namespace Wirl
