// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/PktChecks.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "Kiv/Trace.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("PktChecks");

constexpr U32 kMinIcmp6Bytes = 4;
constexpr U32 kOptionUnit = 8;

template <typename Hdr>
Hdr* hdrAt(void* base, U32 offset) noexcept {
  return reinterpret_cast<Hdr*>(static_cast<U8*>(base) + offset);
}

U32 wordAt(const U8* from) noexcept {
  U32 word;
  std::memcpy(&word, from, sizeof(word));
  return word;
}

PktErrors tooShort(U32 bytes, const char* which) {
  KIV_TRACE(trace, 3) << "Packet has " << bytes << " bytes" << which << " which is less than needed";
  return pktTooShort;
}

/// The Ethernet header, of the type, with a header of type `Next` whole behind it.
template <typename Next>
PktErrors checkEthHdr(Pkt& pkt, EthType type, EthHdr*& ethHdr) {
  constexpr U32 kNeeded = sizeof(EthHdr) + sizeof(Next);
  if (pkt.bytes() < kNeeded) return tooShort(pkt.bytes(), "");
  if (pkt.frontBytes() < kNeeded) return tooShort(pkt.frontBytes(), " in its first piece");
  EthHdr* const found = hdrAt<EthHdr>(pkt.front(), 0);
  const U16 typeOrLen = found->typeOrLen();
  if (typeOrLen != type) {
    KIV_TRACE(trace, 3) << "Type: " << std::hex << typeOrLen;
    return wrongEthType;
  }
  KIV_TRACE(trace, 8) << "Got required Type: " << std::hex << typeOrLen << " src MAC: " << found->src()
                      << " dst MAC: " << found->dst();
  ethHdr = found;
  return noError;
}

/// Whether the header's checksum is the one that the header has with that field at 0. The octets' order does
/// not matter to a one's complement sum, as long as it is the same on both sides.
bool ipChecksumIsRight(const IpHdr* ipHdr) noexcept {
  constexpr U32 kChecksumWord = 8;  // offset of the word whose second half is the checksum
  const U8* const octets = reinterpret_cast<const U8*>(ipHdr);
  U16 half[2];
  std::memcpy(half, octets + kChecksumWord, sizeof(half));
  U64 sum = 0;
  if (const U32 bytes = ipHdr->headerBytes(); bytes == sizeof(IpHdr)) [[likely]] {
    sum = U64{wordAt(octets)} + wordAt(octets + 4) + half[0] + wordAt(octets + 12) + wordAt(octets + 16);
  } else {
    for (U32 i = 0; i < bytes; i += 4) sum += i == kChecksumWord ? half[0] : wordAt(octets + i);
  }
  while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
  return half[1] == (sum ^ 0xffff);
}

U32 icmp6PseudoHdrSum(const Ip6Hdr& ip6Hdr) {
  return ip6Hdr.pseudoHdrSum(ip6Hdr.payloadLen(), ipProtoIcmpv6);
}

/// Of the message with its checksum field as it stands.
IpChecksum icmp6Checksum(const Ip6Hdr& ip6Hdr, const Icmp6Hdr* icmp6Hdr) {
  return ipChecksumCalc(reinterpret_cast<const char*>(icmp6Hdr), ip6Hdr.payloadLen(),
                        icmp6PseudoHdrSum(ip6Hdr));
}

bool isIcmp6(const Ip6Hdr& ip6Hdr) {
  if (ip6Hdr.protocol() == ipProtoIcmpv6) return true;
  KIV_TRACE(trace, 3) << "Next header is not Icmp6";
  return false;
}

/// Where options begin in a message of neighbour discovery, 0 for other messages.
U32 optionsOffset(Icmp6TypeNumber type) noexcept {
  switch (type) {
    case icmp6TypeNeighborSolicitation:
    case icmp6TypeNeighborAdvertisement:
      return sizeof(Icmp6NsHdr);
    case icmp6TypeRouterSolicitation:
      return sizeof(Icmp6RsHdr);
    default:
      return 0;
  }
}

/// Whether `bytes` from `begin` on all lie in the packet's first piece.
bool inFirstPiece(const Pkt& pkt, const void* begin, U32 bytes) {
  const auto front = reinterpret_cast<std::uintptr_t>(pkt.front());
  const auto from = reinterpret_cast<std::uintptr_t>(begin);
  const U32 present = pkt.frontBytes();
  if (from >= front && from - front <= present && bytes <= present - (from - front)) return true;
  tooShort(present, " in its first piece");
  return false;
}

bool inFirstPiece(const Pkt& pkt, const Ip6Hdr* ip6Hdr) {
  return inFirstPiece(pkt, ip6Hdr, sizeof(*ip6Hdr)) &&
         inFirstPiece(pkt, ip6Hdr, U32{sizeof(*ip6Hdr)} + ip6Hdr->payloadLen());
}

bool inFirstPiece(const Pkt& pkt, const IpHdr* ipHdr) {
  return inFirstPiece(pkt, ipHdr, sizeof(*ipHdr)) &&
         inFirstPiece(pkt, ipHdr, U32{std::max(ipHdr->totalLenU16(), ipHdr->headerBytes())});
}

}  // namespace

PktErrors checkEthIpHdr(const Pkt::Ptr& pkt, EthHdr*& ethHdr, IpHdr*& ipHdr) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  ethHdr = nullptr;
  ipHdr = nullptr;
  KIV_TRACE(trace, 8) << "checkEthIpHdr";
  if (const PktErrors error = checkEthHdr<IpHdr>(*pkt, ethTypeIp, ethHdr); error != noError) return error;
  IpHdr* const found = hdrAt<IpHdr>(ethHdr, sizeof(EthHdr));
  if (found->version() != IpHdr::ipVersion4) {
    KIV_TRACE(trace, 3) << "Ip hdr is not IPv4";
    return nonIpHdr;
  }
  if (found->headerBytes() > pkt->frontBytes() - sizeof(EthHdr)) {
    return tooShort(pkt->frontBytes(), " in its first piece");
  }
  ipHdr = found;
  const U32 present = pkt->bytes() - U32{sizeof(EthHdr)};
  if (found->totalLenU16() > present) {
    KIV_TRACE(trace, 3) << "IPv4 payload length is larger than the actual packet size" << present << " vs. "
                        << found->totalLenU16();
    return badIpPayloadLen;
  }
  // The field need not be 0 meanwhile: nobody sees it, and a good packet is not written to.
  if (!ipChecksumIsRight(found)) [[unlikely]] {
    found->checksumU16Is(0);
    KIV_TRACE(trace, 3) << "IPv4 header checksum is invalid";
    return badIpHdrChecksum;
  }
  return noError;
}

PktErrors checkEthIp6Hdr(const Pkt::Ptr& pkt, EthHdr*& ethHdr, Ip6Hdr*& ip6Hdr) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  ethHdr = nullptr;
  ip6Hdr = nullptr;
  KIV_TRACE(trace, 8) << "checkEthIp6Hdr";
  if (const PktErrors error = checkEthHdr<Ip6Hdr>(*pkt, ethTypeIp6, ethHdr); error != noError) return error;
  Ip6Hdr* const found = hdrAt<Ip6Hdr>(ethHdr, sizeof(EthHdr));
  if (found->version() != Ip6Hdr::ipVersion6) {
    KIV_TRACE(trace, 3) << "Ip hdr is not IPv6";
    return nonIp6Hdr;
  }
  ip6Hdr = found;
  const U32 present = pkt->bytes() - U32{sizeof(EthHdr) + sizeof(Ip6Hdr)};
  if (found->payloadLen() > present) {
    KIV_TRACE(trace, 3) << "IPv6 payload length is larger than the actual packet size. " << present << " vs. "
                        << found->payloadLen();
    return badIp6PayloadLen;
  }
  return noError;
}

PktErrors checkIcmp6CheckSum(Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr) {
  icmp6Hdr = nullptr;
  KIV_TRACE(trace, 8) << "checkIcmp6CheckSum";
  if (!isIcmp6(*ip6Hdr)) return nextHdrIsNotIcmp6;
  if (ip6Hdr->payloadLen() < kMinIcmp6Bytes) {
    KIV_TRACE(trace, 3) << "IP6 payload is too small to contain Icmp6";
    return badIp6PayloadLen;
  }
  icmp6Hdr = hdrAt<Icmp6Hdr>(ip6Hdr, sizeof(Ip6Hdr));
  const IpChecksum saved = icmp6Hdr->checksum();
  icmp6Hdr->checksumU16Is(0);
  if (icmp6Checksum(*ip6Hdr, icmp6Hdr) != saved) {
    KIV_TRACE(trace, 3) << "Icmp6 checksum is invalid";
    return badIcmp6Checksum;
  }
  return noError;
}

PktErrors setIcmp6CheckSum(Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr) {
  KIV_TRACE(trace, 8) << "setIcmp6CheckSum";
  if (!isIcmp6(*ip6Hdr)) return nextHdrIsNotIcmp6;
  icmp6Hdr->checksumU16Is(0);
  icmp6Hdr->checksumIs(icmp6Checksum(*ip6Hdr, icmp6Hdr));
  return noError;
}

PktErrors getIcmp6Opt(Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr, Icmp6OptionCommonHdr*& option,
                      Icmp6OptionTypeNumber type) {
  option = nullptr;
  KIV_TRACE(trace, 8) << "getIcmp6Opt";
  const auto lenExceeds = [] {
    KIV_TRACE(trace, 3) << "Option length exceeds pkt length.";
    return icmp6OptLenExceedPayloadLen;
  };
  const U32 offset = optionsOffset(icmp6Hdr->type());
  if (offset == 0) {
    KIV_TRACE(trace, 3) << "Icmp6 type is not supported: " << icmp6Hdr->type();
    return icmp6TypeNotSupported;
  }
  const U32 payload = ip6Hdr->payloadLen();
  U32 remaining = payload > offset ? payload - offset : 0;
  Icmp6OptionCommonHdr* last = nullptr;
  for (auto* at = hdrAt<Icmp6OptionCommonHdr>(icmp6Hdr, offset); remaining >= sizeof(*at);
       at = hdrAt<Icmp6OptionCommonHdr>(at, at->bytes())) {
    if (at->bytes() > remaining) return lenExceeds();
    if (at->len() == 0) {
      KIV_TRACE(trace, 3) << "Option length cannot be zero.";
      return icmp6OptLenZero;
    }
    KIV_TRACE(trace, 8) << "Found option: " << unsigned{at->type()};
    if (at->type() == type) last = at;
    remaining -= at->bytes();
    if (remaining == sizeof(*at)) return lenExceeds();
  }
  option = last;
  return noError;
}

PktErrors checkIpAhHdr(IpHdr* ipHdr, AhHdr*& ahHdr) {
  ahHdr = nullptr;
  KIV_TRACE(trace, 8) << "checkIpAhHdr";
  if (ipHdr->protocol() != ipProtoAh) {
    KIV_TRACE(trace, 3) << "Next header is not AH";
    return nextHdrIsNotAh;
  }
  const U16 payload = ipHdr->payloadLen();
  if (payload < sizeof(AhHdr)) {
    KIV_TRACE(trace, 3) << "packet is too short to contain an AH header.";
    return badAhLen;
  }
  AhHdr* const found = hdrAt<AhHdr>(ipHdr, ipHdr->headerBytes());
  if (found->headerBytes() >= payload) {
    KIV_TRACE(trace, 3) << "packet is too short to contain Authentication Data.";
    return badAhLen;
  }
  ahHdr = found;
  return noError;
}

PktErrors getNextProtoHdr(Ip6Hdr* ip6Hdr, U32 bytes, char** hdr, U32 protocol) {
  *hdr = nullptr;
  KIV_TRACE(trace, 8) << "getNextProtoHdr";
  if (bytes < sizeof(Ip6Hdr)) return tooShort(bytes, " of an IPv6 datagram");
  const U32 end = std::min(bytes, U32{sizeof(Ip6Hdr)} + ip6Hdr->payloadLen());
  U8 next = ip6Hdr->protocol();
  U32 at = sizeof(Ip6Hdr);
  U32 hdrBytes = 0;
  for (;; at += hdrBytes) {
    if (next == ipProtoIpv6NoNxt) return noError;
    if (next == protocol) {
      if (at == end) return tooShort(end, " of an IPv6 datagram");
      *hdr = hdrAt<char>(ip6Hdr, at);
      return noError;
    }
    if (next != ipProtoIpv6HopByHop && next != ipProtoIpv6Route && next != ipProtoIpv6Frag &&
        next != ipProtoIpv6Opts && next != ipProtoAh) {
      return noError;
    }
    if (end - at < kOptionUnit) return tooShort(end, " of an IPv6 datagram");
    const U8* const octets = hdrAt<U8>(ip6Hdr, at);
    const bool isFragment = next == ipProtoIpv6Frag;
    if (isFragment) {
      hdrBytes = kOptionUnit;
      const U16 fragmentOffset = static_cast<U16>(octets[2] << 8 | octets[3]) >> 3;
      if (fragmentOffset != 0) return noError;
    } else {
      hdrBytes = next == ipProtoAh ? (octets[1] + 2u) * 4 : (octets[1] + 1u) * 8;
    }
    if (hdrBytes > end - at) return tooShort(end, " of an IPv6 datagram");
    next = octets[0];
  }
}

// With the packet.

PktErrors checkIcmp6CheckSum(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr) {
  icmp6Hdr = nullptr;
  return inFirstPiece(*pkt, ip6Hdr) ? checkIcmp6CheckSum(ip6Hdr, icmp6Hdr) : pktTooShort;
}

PktErrors setIcmp6CheckSum(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr) {
  // The message is as long as the payload, wherever it begins, and has its checksum field in any case.
  const U32 bytes = std::max(U32{ip6Hdr->payloadLen()}, U32{sizeof(Icmp6Hdr)});
  return inFirstPiece(*pkt, icmp6Hdr, bytes) ? setIcmp6CheckSum(ip6Hdr, icmp6Hdr) : pktTooShort;
}

PktErrors getIcmp6Opt(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr, Icmp6OptionCommonHdr*& option,
                      Icmp6OptionTypeNumber type) {
  option = nullptr;
  const U32 bytes = std::max(U32{ip6Hdr->payloadLen()}, U32{sizeof(Icmp6Hdr)});
  return inFirstPiece(*pkt, icmp6Hdr, bytes) ? getIcmp6Opt(ip6Hdr, icmp6Hdr, option, type) : pktTooShort;
}

PktErrors checkIpAhHdr(const Pkt::Ptr& pkt, IpHdr* ipHdr, AhHdr*& ahHdr) {
  ahHdr = nullptr;
  return inFirstPiece(*pkt, ipHdr) ? checkIpAhHdr(ipHdr, ahHdr) : pktTooShort;
}

}  // namespace Wirl
