// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/PktChecks.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#include "Kiv/Assert.h"
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

/// `code`, and the trace that `say` writes.
template <typename Say>
[[gnu::noinline, gnu::cold]] PktErrors failed(PktErrors code, Say say) {
  if (trace.enabled(3)) {
    Kiv::TraceStream out(trace, 3);
    say(out);
  }
  return code;
}

PktErrors failed(PktErrors code, const char* text) {
  return failed(code, [text](auto& out) { out << text; });
}

PktErrors tooShort(U32 bytes, const char* which) {
  return failed(pktTooShort, [bytes, which](auto& out) {
    out << "Packet has " << bytes << " bytes" << which << " which is less than needed";
  });
}

/// What the checks of a frame look at.
struct Frame {
  U8* front;
  U32 frontBytes;
  U32 bytes;
};

PktErrors tooShort(const Frame& frame, U32 needed) {
  if (frame.bytes < needed) return tooShort(frame.bytes, "");
  return tooShort(frame.frontBytes, " in its first piece");
}

/// Checks that the frame has an Ethernet header of the type and a whole header of type `Next` behind it, then
/// runs `checkNext` on that. `kTraced`: also writes the traces of level 8. `checkNext` is a parameter rather
/// than code after the call, so that every failure is a tail jump and good packets save no registers.
template <bool kTraced, typename Next, typename CheckNext>
[[gnu::always_inline]] inline PktErrors checkEthHdr(const Frame& frame, EthType type, EthHdr*& ethHdr,
                                                    CheckNext checkNext) {
  constexpr U32 kNeeded = sizeof(EthHdr) + sizeof(Next);
  if (frame.frontBytes < kNeeded) return tooShort(frame, kNeeded);
  EthHdr* const found = hdrAt<EthHdr>(frame.front, 0);
  const U16 typeOrLen = found->typeOrLen();
  if (typeOrLen != type) {
    return failed(wrongEthType, [typeOrLen](auto& out) { out << "Type: " << std::hex << typeOrLen; });
  }
  if constexpr (kTraced) {
    KIV_TRACE(trace, 8) << "Got required Type: " << std::hex << typeOrLen << " src MAC: " << found->src()
                        << " dst MAC: " << found->dst();
  }
  ethHdr = found;
  return checkNext(hdrAt<Next>(frame.front, sizeof(EthHdr)));
}

// Both tell whether the checksum field equals the checksum of the header with that field at 0. A one's
// complement sum does not depend on the byte order, as long as both sides have the same one.

/// For a header of any length. A wrong checksum leaves the field at 0.
[[gnu::noinline]] PktErrors checkIpChecksum(IpHdr* ipHdr) {
  constexpr U32 kChecksumWord = 8;  // offset of the word whose second half is the checksum
  const U8* const octets = reinterpret_cast<const U8*>(ipHdr);
  U16 half[2];
  std::memcpy(half, octets + kChecksumWord, sizeof(half));
  U64 sum = 0;
  for (U32 i = 0; i < ipHdr->headerBytes(); i += 4) sum += i == kChecksumWord ? half[0] : wordAt(octets + i);
  while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
  if (half[1] == (sum ^ 0xffff)) return noError;
  ipHdr->checksumU16Is(0);
  return failed(badIpHdrChecksum, "IPv4 header checksum is invalid");
}

/// For a header of 20 bytes that does not begin with 0.
[[gnu::always_inline]] inline bool ipChecksumIsRight(const IpHdr* ipHdr) noexcept {
  // The sum of a good header, field included, is all ones. A correct field is never all ones, because the
  // other words are not all 0.
  const U8* const octets = reinterpret_cast<const U8*>(ipHdr);
  const U64 sum = U64{wordAt(octets)} + wordAt(octets + 4) + wordAt(octets + 8) + wordAt(octets + 12) +
                  wordAt(octets + 16);
  // sum + rotl(sum, 16) leaves the folded one's complement sum, carry included, in the upper half.
  const auto half = static_cast<U32>((sum + std::rotl(sum, 32)) >> 32);
  return (half + std::rotl(half, 16)) >> 16 == 0xffff && ipHdr->checksumU16() != 0xffff;
}

template <bool kTraced>
[[gnu::always_inline]] inline PktErrors checkEthIp(const Frame& frame, EthHdr*& ethHdr, IpHdr*& ipHdr) {
  return checkEthHdr<kTraced, IpHdr>(frame, ethTypeIp, ethHdr, [&frame, &ipHdr](IpHdr* found) {
    const U32 headerBytes = found->headerBytes();
    if (found->version() != IpHdr::ipVersion4) return failed(nonIpHdr, "Ip hdr is not IPv4");
    const bool whole = headerBytes <= frame.frontBytes - U32{sizeof(EthHdr)};
    if (whole) [[likely]]
      ipHdr = found;
    const U32 present = frame.bytes - U32{sizeof(EthHdr)};
    const U32 claimed = found->totalLenU16();
    if (claimed > present) {
      return failed(badIpPayloadLen, [present, claimed](auto& out) {
        out << "IPv4 payload length is larger than the actual packet size" << present << " vs. " << claimed;
      });
    }
    // Only the checksum asks for the options.
    if (!whole) return tooShort(frame.frontBytes, " in its first piece");
    // The sum is taken without setting the field to 0: a good packet is not written to.
    if (headerBytes == sizeof(IpHdr) && ipChecksumIsRight(found)) [[likely]]
      return noError;
    return checkIpChecksum(found);
  });
}

template <bool kTraced>
[[gnu::always_inline]] inline PktErrors checkEthIp6(const Frame& frame, EthHdr*& ethHdr, Ip6Hdr*& ip6Hdr) {
  return checkEthHdr<kTraced, Ip6Hdr>(frame, ethTypeIp6, ethHdr, [&frame, &ip6Hdr](Ip6Hdr* found) {
    if (found->version() != Ip6Hdr::ipVersion6) return failed(nonIp6Hdr, "Ip hdr is not IPv6");
    ip6Hdr = found;
    const U32 present = frame.bytes - U32{sizeof(EthHdr) + sizeof(Ip6Hdr)};
    const U32 claimed = found->payloadLen();
    if (claimed > present) {
      return failed(badIp6PayloadLen, [present, claimed](auto& out) {
        out << "IPv6 payload length is larger than the actual packet size. " << present << " vs. " << claimed;
      });
    }
    return noError;
  });
}

Frame frameOf(Pkt& pkt) {
  return {pkt.front(), pkt.frontBytes(), pkt.bytes()};
}

// Out of line, so that the public functions hold only the path of good packets with tracing off.

[[gnu::noinline, gnu::cold]] PktErrors tracedCheckEthIp(Pkt& pkt, EthHdr*& ethHdr, IpHdr*& ipHdr) {
  KIV_TRACE(trace, 8) << "checkEthIpHdr";
  return checkEthIp<true>(frameOf(pkt), ethHdr, ipHdr);
}

[[gnu::noinline, gnu::cold]] PktErrors tracedCheckEthIp6(Pkt& pkt, EthHdr*& ethHdr, Ip6Hdr*& ip6Hdr) {
  KIV_TRACE(trace, 8) << "checkEthIp6Hdr";
  return checkEthIp6<true>(frameOf(pkt), ethHdr, ip6Hdr);
}

U32 icmp6PseudoHdrSum(const Ip6Hdr& ip6Hdr) {
  return ip6Hdr.pseudoHdrSum(ip6Hdr.payloadLen(), ipProtoIcmpv6);
}

/// Of the message with its checksum field as it stands.
IpChecksum icmp6Checksum(const Ip6Hdr& ip6Hdr, const Icmp6Hdr* icmp6Hdr) {
  return ipChecksumCalc(reinterpret_cast<const char*>(icmp6Hdr), ip6Hdr.payloadLen(),
                        icmp6PseudoHdrSum(ip6Hdr));
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

/// Whether `bytes` from `begin` on all lie in the packet's first piece. If not, `check` ends here.
bool inFirstPiece(const char* check, const Pkt& pkt, const void* begin, U32 bytes) {
  const auto front = reinterpret_cast<std::uintptr_t>(pkt.front());
  const auto from = reinterpret_cast<std::uintptr_t>(begin);
  const U32 present = pkt.frontBytes();
  if (from >= front && from - front <= present && bytes <= present - (from - front)) return true;
  KIV_TRACE(trace, 8) << check;
  tooShort(present, " in its first piece");
  return false;
}

bool inFirstPiece(const char* check, const Pkt& pkt, const Ip6Hdr* ip6Hdr) {
  return inFirstPiece(check, pkt, ip6Hdr, sizeof(*ip6Hdr)) &&
         inFirstPiece(check, pkt, ip6Hdr, U32{sizeof(*ip6Hdr)} + ip6Hdr->payloadLen());
}

/// The message counts as long as the payload, wherever it begins, but at least as long as its fixed header.
bool inFirstPiece(const char* check, const Pkt& pkt, const Ip6Hdr* ip6Hdr, const Icmp6Hdr* icmp6Hdr) {
  return inFirstPiece(check, pkt, ip6Hdr, sizeof(*ip6Hdr)) &&
         inFirstPiece(check, pkt, icmp6Hdr, std::max(U32{ip6Hdr->payloadLen()}, U32{sizeof(*icmp6Hdr)}));
}

bool inFirstPiece(const char* check, const Pkt& pkt, const IpHdr* ipHdr) {
  return inFirstPiece(check, pkt, ipHdr, sizeof(*ipHdr)) &&
         inFirstPiece(check, pkt, ipHdr, U32{std::max(ipHdr->totalLenU16(), ipHdr->headerBytes())});
}

}  // namespace

PktErrors checkEthIpHdr(const Pkt::Ptr& pkt, EthHdr*& ethHdr, IpHdr*& ipHdr) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  ethHdr = nullptr;
  ipHdr = nullptr;
  if (trace.enabled(8)) [[unlikely]]
    return tracedCheckEthIp(*pkt, ethHdr, ipHdr);
  return checkEthIp<false>(frameOf(*pkt), ethHdr, ipHdr);
}

PktErrors checkEthIp6Hdr(const Pkt::Ptr& pkt, EthHdr*& ethHdr, Ip6Hdr*& ip6Hdr) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  ethHdr = nullptr;
  ip6Hdr = nullptr;
  if (trace.enabled(8)) [[unlikely]]
    return tracedCheckEthIp6(*pkt, ethHdr, ip6Hdr);
  return checkEthIp6<false>(frameOf(*pkt), ethHdr, ip6Hdr);
}

PktErrors checkIcmp6CheckSum(Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr) {
  KIV_ASSERT_AS(ip6Hdr, "ip6Hdr != 0");
  icmp6Hdr = nullptr;
  KIV_TRACE(trace, 8) << "checkIcmp6CheckSum";
  if (ip6Hdr->protocol() != ipProtoIcmpv6) return failed(nextHdrIsNotIcmp6, "Next header is not Icmp6");
  if (ip6Hdr->payloadLen() < kMinIcmp6Bytes) {
    return failed(badIp6PayloadLen, "IP6 payload is too small to contain Icmp6");
  }
  icmp6Hdr = hdrAt<Icmp6Hdr>(ip6Hdr, sizeof(Ip6Hdr));
  const IpChecksum saved = icmp6Hdr->checksum();
  icmp6Hdr->checksumU16Is(0);
  if (icmp6Checksum(*ip6Hdr, icmp6Hdr) != saved) {
    return failed(badIcmp6Checksum, "Icmp6 checksum is invalid");
  }
  return noError;
}

PktErrors setIcmp6CheckSum(Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr) {
  KIV_ASSERT_AS(ip6Hdr, "ip6Hdr != 0");
  KIV_ASSERT_AS(icmp6Hdr, "icmp6Hdr != 0");
  KIV_TRACE(trace, 8) << "setIcmp6CheckSum";
  if (ip6Hdr->protocol() != ipProtoIcmpv6) return failed(nextHdrIsNotIcmp6, "Next header is not Icmp6");
  icmp6Hdr->checksumU16Is(0);
  icmp6Hdr->checksumIs(icmp6Checksum(*ip6Hdr, icmp6Hdr));
  return noError;
}

PktErrors getIcmp6Opt(Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr, Icmp6OptionCommonHdr*& option,
                      Icmp6OptionTypeNumber type) {
  KIV_ASSERT_AS(ip6Hdr, "ip6Hdr != 0");
  KIV_ASSERT_AS(icmp6Hdr, "icmp6Hdr != 0");
  option = nullptr;
  KIV_TRACE(trace, 8) << "getIcmp6Opt";
  const auto lenExceeds = [] {
    return failed(icmp6OptLenExceedPayloadLen, "Option length exceeds pkt length.");
  };
  const U32 offset = optionsOffset(icmp6Hdr->type());
  if (offset == 0) {
    return failed(icmp6TypeNotSupported,
                  [icmp6Hdr](auto& out) { out << "Icmp6 type is not supported: " << icmp6Hdr->type(); });
  }
  const U32 payload = ip6Hdr->payloadLen();
  U32 remaining = payload > offset ? payload - offset : 0;
  for (auto* at = hdrAt<Icmp6OptionCommonHdr>(icmp6Hdr, offset); remaining >= sizeof(*at);
       at = hdrAt<Icmp6OptionCommonHdr>(at, at->bytes())) {
    if (at->bytes() > remaining) return lenExceeds();
    if (at->len() == 0) {
      return failed(icmp6OptLenZero, "Option length cannot be zero.");
    }
    KIV_TRACE(trace, 8) << "Found option: " << unsigned{at->type()};
    if (at->type() == type) option = at;
    remaining -= at->bytes();
    if (remaining == sizeof(*at)) return lenExceeds();
  }
  return noError;
}

PktErrors checkIpAhHdr(IpHdr* ipHdr, AhHdr*& ahHdr) {
  KIV_ASSERT_AS(ipHdr, "ipHdr != 0");
  ahHdr = nullptr;
  KIV_TRACE(trace, 8) << "checkIpAhHdr";
  if (ipHdr->protocol() != ipProtoAh) {
    return failed(nextHdrIsNotAh, "Next header is not AH");
  }
  const U16 payload = ipHdr->payloadLen();
  if (payload < sizeof(AhHdr)) {
    return failed(badAhLen, "packet is too short to contain an AH header.");
  }
  ahHdr = hdrAt<AhHdr>(ipHdr, ipHdr->headerBytes());
  if (ahHdr->headerBytes() >= payload) {
    return failed(badAhLen, "packet is too short to contain Authentication Data.");
  }
  return noError;
}

PktErrors getNextProtoHdr(Ip6Hdr* ip6Hdr, U32 bytes, char** hdr, U32 protocol) {
  KIV_ASSERT_AS(ip6Hdr, "ip6Hdr != 0");
  KIV_ASSERT_AS(hdr, "hdr != 0");
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
  KIV_ASSERT_AS(pkt, "pkt != 0");
  KIV_ASSERT_AS(ip6Hdr, "ip6Hdr != 0");
  icmp6Hdr = nullptr;
  return inFirstPiece("checkIcmp6CheckSum", *pkt, ip6Hdr) ? checkIcmp6CheckSum(ip6Hdr, icmp6Hdr)
                                                          : pktTooShort;
}

PktErrors setIcmp6CheckSum(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  KIV_ASSERT_AS(ip6Hdr, "ip6Hdr != 0");
  KIV_ASSERT_AS(icmp6Hdr, "icmp6Hdr != 0");
  return inFirstPiece("setIcmp6CheckSum", *pkt, ip6Hdr, icmp6Hdr) ? setIcmp6CheckSum(ip6Hdr, icmp6Hdr)
                                                                  : pktTooShort;
}

PktErrors getIcmp6Opt(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr, Icmp6OptionCommonHdr*& option,
                      Icmp6OptionTypeNumber type) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  KIV_ASSERT_AS(ip6Hdr, "ip6Hdr != 0");
  KIV_ASSERT_AS(icmp6Hdr, "icmp6Hdr != 0");
  option = nullptr;
  return inFirstPiece("getIcmp6Opt", *pkt, ip6Hdr, icmp6Hdr) ? getIcmp6Opt(ip6Hdr, icmp6Hdr, option, type)
                                                             : pktTooShort;
}

PktErrors checkIpAhHdr(const Pkt::Ptr& pkt, IpHdr* ipHdr, AhHdr*& ahHdr) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  KIV_ASSERT_AS(ipHdr, "ipHdr != 0");
  ahHdr = nullptr;
  return inFirstPiece("checkIpAhHdr", *pkt, ipHdr) ? checkIpAhHdr(ipHdr, ahHdr) : pktTooShort;
}

}  // namespace Wirl
