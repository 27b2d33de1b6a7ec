// SPDX-License-Identifier: Apache-2.0
#include <optional>

#include "Kiv/Trace.h"
#include "Wirl/packet/PktChecks.h"
#include "fuzz/packet/FuzzPkt.h"

// Every check of packets against a second one that reads octets of a string.

namespace {

using namespace fuzz;

U8 octet(const std::string& octets, std::size_t at) {
  return static_cast<U8>(octets[at]);
}

/// The octets of the packet's first piece.
std::string firstPiece(const Pkt& pkt) {
  return std::string(pkt.front(), pkt.front() + pkt.frontBytes());
}

PktErrors plainEthIp(const std::string& frame, std::size_t first) {
  if (frame.size() < 34 || first < 34) return pktTooShort;
  if (word(frame, 12) != 0x0800) return wrongEthType;
  if (octet(frame, 14) >> 4 != 4) return nonIpHdr;
  const std::size_t bytes = (octet(frame, 14) & 15) * 4u;
  if (word(frame, 16) > frame.size() - 14) return badIpPayloadLen;
  if (first - 14 < bytes) return pktTooShort;
  std::string header = frame.substr(14, 60);
  wordIs(header, 10, 0);
  return plainChecksum(header.substr(0, bytes)) == word(frame, 24) ? noError : badIpHdrChecksum;
}

PktErrors plainEthIp6(const std::string& frame, std::size_t first) {
  if (frame.size() < 54 || first < 54) return pktTooShort;
  if (word(frame, 12) != 0x86dd) return wrongEthType;
  if (octet(frame, 14) >> 4 != 6) return nonIp6Hdr;
  return word(frame, 18) > frame.size() - 54 ? badIp6PayloadLen : noError;
}

/// Of the message in the datagram, with its checksum field at 0.
U16 plainIcmp6Checksum(std::string datagram) {
  wordIs(datagram, 42, 0);
  const std::string pseudoHdr =
      datagram.substr(8, 32) + std::string(2, '\0') + datagram.substr(4, 2) + std::string(3, '\0') + '\x3a';
  return plainChecksum(pseudoHdr + datagram.substr(40, word(datagram, 4)));
}

/// The code, and where in the message the option begins.
std::pair<PktErrors, std::optional<std::size_t>> plainIcmp6Opt(const std::string& message, U8 type) {
  const U8 messageType = octet(message, 0);
  std::size_t at = messageType == 135 || messageType == 136 ? 24 : messageType == 133 ? 8 : 0;
  if (at == 0) return {icmp6TypeNotSupported, {}};
  std::optional<std::size_t> found;
  if (at + 2 > message.size()) return {noError, {}};
  while (at + 2 <= message.size()) {
    const std::size_t bytes = octet(message, at + 1) * 8u;
    if (bytes > message.size() - at) return {icmp6OptLenExceedPayloadLen, found};
    if (bytes == 0) return {icmp6OptLenZero, found};
    if (octet(message, at) == type) found = at;
    at += bytes;
    if (message.size() - at == 2) return {icmp6OptLenExceedPayloadLen, found};
  }
  return {noError, found};
}

std::pair<PktErrors, std::optional<std::size_t>> plainNextProtoHdr(const std::string& datagram, U8 next,
                                                                   std::size_t at, U32 protocol) {
  if (next == 59) return {noError, {}};
  const bool some = at < datagram.size();
  if (next == protocol)
    return some ? std::pair{noError, std::optional(at)}
                : std::pair{pktTooShort, std::optional<std::size_t>()};
  if (next != 0 && next != 43 && next != 44 && next != 51 && next != 60) return {noError, {}};
  if (at + 8 > datagram.size()) return {pktTooShort, {}};
  if (next == 44 && word(datagram, at + 2) >> 3 != 0) return {noError, {}};
  const std::size_t bytes = next == 44   ? 8
                            : next == 51 ? octet(datagram, at + 1) * 4u + 8
                                         : octet(datagram, at + 1) * 8u + 8;
  if (at + bytes > datagram.size()) return {pktTooShort, {}};
  return plainNextProtoHdr(datagram, octet(datagram, at), at + bytes, protocol);
}

void checkIp4(const Pkt::Ptr& pkt, std::string frame) {
  EthHdr* ethHdr = reinterpret_cast<EthHdr*>(&frame);  // stale ones
  IpHdr* ipHdr = reinterpret_cast<IpHdr*>(&frame);
  const PktErrors code = checkEthIpHdr(pkt, ethHdr, ipHdr);
  KIV_ASSERT(code == plainEthIp(frame, pkt->frontBytes()));
  if (code == badIpHdrChecksum) wordIs(frame, 24, 0);
  KIV_ASSERT(pkt->stringValue() == frame);
  const bool hasEth = pkt->frontBytes() >= 34 && word(frame, 12) == 0x0800;
  const bool hasIp =
      hasEth && octet(frame, 14) >> 4 == 4 && pkt->frontBytes() >= 14 + (octet(frame, 14) & 15) * 4u;
  KIV_ASSERT(reinterpret_cast<U8*>(ethHdr) == (hasEth ? pkt->front() : nullptr));
  KIV_ASSERT(reinterpret_cast<U8*>(ipHdr) == (hasIp ? pkt->front() + 14 : nullptr));
  if (!ipHdr) return;

  AhHdr* ahHdr = reinterpret_cast<AhHdr*>(&frame);
  const PktErrors ahCode = checkIpAhHdr(pkt, ipHdr, ahHdr);
  const std::string datagram = firstPiece(*pkt).substr(14);
  const std::size_t header = ipHdr->headerBytes();
  const std::size_t total = ipHdr->totalLenU16();
  PktErrors expected = noError;
  if (std::max(total, header) > datagram.size()) {
    expected = pktTooShort;
  } else if (octet(datagram, 9) != 51) {
    expected = nextHdrIsNotAh;
  } else if (total < header + 12 || octet(datagram, header + 1) * 4u + 8 >= total - header) {
    expected = badAhLen;
  }
  KIV_ASSERT(ahCode == expected);
  const bool hasHdr = ahCode == noError || (ahCode == badAhLen && total >= header + 12);
  KIV_ASSERT((ahHdr != nullptr) == hasHdr);
  KIV_ASSERT(!ahHdr || reinterpret_cast<U8*>(ahHdr) == pkt->front() + 14 + header);
}

void checkIp6(const Pkt::Ptr& pkt, std::string frame, U8 optionType, U32 protocol) {
  EthHdr* ethHdr = reinterpret_cast<EthHdr*>(&frame);
  Ip6Hdr* ip6Hdr = reinterpret_cast<Ip6Hdr*>(&frame);
  const PktErrors code = checkEthIp6Hdr(pkt, ethHdr, ip6Hdr);
  KIV_ASSERT(code == plainEthIp6(frame, pkt->frontBytes()));
  const bool hasEth = pkt->frontBytes() >= 54 && word(frame, 12) == 0x86dd;
  KIV_ASSERT(reinterpret_cast<U8*>(ethHdr) == (hasEth ? pkt->front() : nullptr));
  KIV_ASSERT(reinterpret_cast<U8*>(ip6Hdr) ==
             (hasEth && octet(frame, 14) >> 4 == 6 ? pkt->front() + 14 : nullptr));
  if (!ip6Hdr) return;

  const std::string piece = firstPiece(*pkt);
  std::string datagram = piece.substr(14);
  char* hdr = reinterpret_cast<char*>(ip6Hdr);
  const std::size_t payload = word(datagram, 4);
  const auto next = plainNextProtoHdr(datagram.substr(0, 40 + payload), octet(datagram, 6), 40, protocol);
  KIV_ASSERT(getNextProtoHdr(ip6Hdr, static_cast<U32>(datagram.size()), &hdr, protocol) == next.first);
  KIV_ASSERT(hdr == (next.second ? reinterpret_cast<char*>(ip6Hdr) + *next.second : nullptr));

  const bool whole = datagram.size() >= 40 + payload;
  Icmp6Hdr* icmp6Hdr = reinterpret_cast<Icmp6Hdr*>(&frame);
  const PktErrors icmpCode = checkIcmp6CheckSum(pkt, ip6Hdr, icmp6Hdr);
  if (!whole || octet(datagram, 6) != 58 || payload < 4) {
    KIV_ASSERT(icmpCode == (!whole                     ? pktTooShort
                            : octet(datagram, 6) != 58 ? nextHdrIsNotIcmp6
                                                       : badIp6PayloadLen));
    KIV_ASSERT(!icmp6Hdr && pkt->stringValue() == frame);
    // Sets the field of a payload however short; whatever the code, it writes nothing else.
    icmp6Hdr = reinterpret_cast<Icmp6Hdr*>(pkt->front() + 54);
    const bool fits = datagram.size() >= 40 + std::max(payload, sizeof(Icmp6Hdr));
    const PktErrors setCode = setIcmp6CheckSum(pkt, ip6Hdr, icmp6Hdr);
    KIV_ASSERT(setCode == (!fits ? pktTooShort : octet(datagram, 6) != 58 ? nextHdrIsNotIcmp6 : noError));
    std::string left = pkt->stringValue();
    if (setCode == noError) left.replace(56, 2, frame, 56, 2);
    KIV_ASSERT(left == frame);
    return;
  }
  const U16 right = plainIcmp6Checksum(datagram);
  KIV_ASSERT(icmpCode == (word(datagram, 42) == right ? noError : badIcmp6Checksum));
  KIV_ASSERT(reinterpret_cast<U8*>(icmp6Hdr) == pkt->front() + 54);
  wordIs(frame, 56, 0);
  KIV_ASSERT(pkt->stringValue() == frame);

  Icmp6OptionCommonHdr* option = reinterpret_cast<Icmp6OptionCommonHdr*>(&frame);
  const auto expected = plainIcmp6Opt(datagram.substr(40, payload), optionType);
  KIV_ASSERT(getIcmp6Opt(pkt, ip6Hdr, icmp6Hdr, option, static_cast<Icmp6OptionTypeNumber>(optionType)) ==
             expected.first);
  KIV_ASSERT(reinterpret_cast<U8*>(option) ==
             (expected.second ? pkt->front() + 54 + *expected.second : nullptr));

  KIV_ASSERT(setIcmp6CheckSum(pkt, ip6Hdr, icmp6Hdr) == noError);
  wordIs(frame, 56, right);
  KIV_ASSERT(pkt->stringValue() == frame);
  KIV_ASSERT(checkIcmp6CheckSum(ip6Hdr, icmp6Hdr) == noError);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  Input input(data, size);
  const U8 mend = input.octet();
  const U8 optionType = input.octet();
  const U32 protocol = input.octet() | ((mend & 16) != 0 ? 0x100u : 0u);
  // What is traced of a hostile frame is made, and thrown away.
  static bool traced = false;
  if (traced != ((mend & 32) != 0)) {
    traced = !traced;
    Kiv::traceSinkIs([](auto...) {});
    Kiv::traceIs(traced ? "*/0-9" : "");
  }
  Input shape = input;
  input.number<U16>();
  std::string frame = input.rest();

  // What a fuzzer would hardly hit: the EtherType, lengths that fit, a checksum that is right.
  if (frame.size() >= 54) {
    if ((mend & 1) != 0) wordIs(frame, 12, octet(frame, 14) >> 4 == 6 ? 0x86dd : 0x0800);
    const bool isIp6 = word(frame, 12) == 0x86dd;
    const std::size_t bytes = (octet(frame, 14) & 15) * 4u;
    if ((mend & 2) != 0) {
      wordIs(frame, isIp6 ? 18 : 16, isIp6 ? frame.size() - 54 : frame.size() - 14);
    }
    if ((mend & 4) != 0 && !isIp6 && frame.size() >= 14 + bytes) {
      wordIs(frame, 24, 0);
      wordIs(frame, 24, plainChecksum(frame.substr(14, bytes)));
    }
    if ((mend & 8) != 0 && isIp6 && frame.size() >= 58) {
      wordIs(frame, 56, plainIcmp6Checksum(frame.substr(14)));
    }
  }
  Input again = shape;
  checkIp4(packet(shape, frame), frame);
  checkIp6(packet(again, frame), frame, optionType, protocol);
  return 0;
}
