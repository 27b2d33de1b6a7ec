// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

/// SCTP common header (RFC 9260); chunks follow: `SctpChunks(view.payload())`.
class SctpHdr : public HdrImage<12> {
 public:
  WIRL_HDR(SctpHdr, "sctp");
  WIRL_FIELD(U16, srcPort, 0, 16);
  WIRL_FIELD(U16, dstPort, 16, 16);
  /// Verification tag.
  WIRL_FIELD(U32, tag, 32, 32);
  /// CRC-32C of the whole packet, this field as 0, its least significant octet first.
  WIRL_FIELD(U32, checksum, 64, 32, .kind = hex);
};
static_assert(isHeaderImage<SctpHdr, 12>);

using SctpChunks = OptionList<SctpChunkFormat>;  ///< The chunks of a packet.
/// Of INIT and INIT ACK chunks, behind their fixed part; of others that are made of parameters, their data.
using SctpParameters = OptionList<LongOptionFormat<true>>;

/// Types of chunks (RFC 9260, RFC 3758, RFC 4820, RFC 4895, RFC 5061, RFC 6525, RFC 8260).
enum SctpChunkType : Kiv::U8 {
  sctpChunkData = 0,
  sctpChunkInit = 1,
  sctpChunkInitAck = 2,
  sctpChunkSack = 3,
  sctpChunkHeartbeat = 4,
  sctpChunkHeartbeatAck = 5,
  sctpChunkAbort = 6,
  sctpChunkShutdown = 7,
  sctpChunkShutdownAck = 8,
  sctpChunkError = 9,
  sctpChunkCookieEcho = 10,
  sctpChunkCookieAck = 11,
  sctpChunkEcne = 12,
  sctpChunkCwr = 13,
  sctpChunkShutdownComplete = 14,
  sctpChunkAuth = 15,
  sctpChunkIData = 64,
  sctpChunkAsconfAck = 128,
  sctpChunkReconfig = 130,
  sctpChunkPad = 132,
  sctpChunkForwardTsn = 192,
  sctpChunkAsconf = 193,
  sctpChunkIForwardTsn = 194,
};

/// What all chunks begin with.
class SctpChunkHdr : public HdrImage<4> {
 public:
  WIRL_HDR(SctpChunkHdr, "chunk");
  WIRL_FIELD(U8, type, 0, 8);
  WIRL_FIELD(U8, flags, 8, 8, .kind = hex);
  /// In bytes, of the chunk without its padding.
  WIRL_FIELD(U16, length, 16, 16);
};
static_assert(isHeaderImage<SctpChunkHdr, 4>);

/// Payload data; the user's bytes follow.
class SctpDataChunk : public HdrImage<16, SctpChunkHdr> {
 public:
  static constexpr U8 kType = sctpChunkData;
  WIRL_HDR(SctpDataChunk, "data");
  WIRL_FIELD(bool, unordered, 13, 1);
  WIRL_FIELD(bool, beginning, 14, 1);
  WIRL_FIELD(bool, ending, 15, 1);
  WIRL_FIELD(U32, tsn, 32, 32);
  WIRL_FIELD(U16, streamId, 64, 16);
  WIRL_FIELD(U16, streamSeq, 80, 16);
  WIRL_FIELD(U32, payloadProtocol, 96, 32);
};
static_assert(isHeaderImage<SctpDataChunk, 16>);

/// INIT; parameters follow.
class SctpInitChunk : public HdrImage<20, SctpChunkHdr> {
 public:
  static constexpr U8 kType = sctpChunkInit;
  WIRL_HDR(SctpInitChunk, "init");
  WIRL_FIELD(U32, initiateTag, 32, 32);
  WIRL_FIELD(U32, receiverWindow, 64, 32);
  WIRL_FIELD(U16, outboundStreams, 96, 16);
  WIRL_FIELD(U16, inboundStreams, 112, 16);
  WIRL_FIELD(U32, initialTsn, 128, 32);
};
static_assert(isHeaderImage<SctpInitChunk, 20>);

/// Answer to `SctpInitChunk`, which it looks like.
class SctpInitAckChunk : public SctpInitChunk {
 public:
  static constexpr U8 kType = sctpChunkInitAck;
};

/// Selective acknowledgement; gap blocks and duplicate TSNs follow.
class SctpSackChunk : public HdrImage<16, SctpChunkHdr> {
 public:
  static constexpr U8 kType = sctpChunkSack;
  WIRL_HDR(SctpSackChunk, "sack");
  WIRL_FIELD(U32, cumulativeTsn, 32, 32);
  WIRL_FIELD(U32, receiverWindow, 64, 32);
  WIRL_FIELD(U16, gapBlocks, 96, 16);
  WIRL_FIELD(U16, duplicates, 112, 16);
};
static_assert(isHeaderImage<SctpSackChunk, 16>);

/// Shutdown.
class SctpShutdownChunk : public HdrImage<8, SctpChunkHdr> {
 public:
  static constexpr U8 kType = sctpChunkShutdown;
  WIRL_HDR(SctpShutdownChunk, "shutdown");
  WIRL_FIELD(U32, cumulativeTsn, 32, 32);
};
static_assert(isHeaderImage<SctpShutdownChunk, 8>);

}  // namespace Wirl
