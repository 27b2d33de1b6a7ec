// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/detail/MessageChecks.h"

#include <array>
#include <cstring>
#include <type_traits>

#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/IpProtocolNumber.h"
#include "Wirl/packet/UdpHdr.h"
#include "Wirl/wire/ArpHdr.h"
#include "Wirl/wire/Crc32.h"
#include "Wirl/wire/IgmpHdr.h"
#include "Wirl/wire/Ip6ExtHdr.h"
#include "Wirl/wire/IpOptions.h"
#include "Wirl/wire/NdHdr.h"
#include "Wirl/wire/PimHdr.h"
#include "Wirl/wire/SctpHdr.h"
#include "Wirl/wire/TcpHdr.h"

namespace Wirl::detail {

Kiv::TraceHandle checksTrace("WireChecks");

PktCode failed(PktCode code, const char* text) {
  KIV_TRACE(checksTrace, 3) << text;
  return code;
}

namespace {

template <typename T>
T valueAt(std::span<const U8> octets, std::size_t at) noexcept {
  T value;
  std::memcpy(&value, &octets[at], sizeof(value));
  return value;
}

template <typename Ip>
constexpr bool kIsIp6 = std::is_same_v<Ip, Ip6Hdr>;

/// Which options a message has, of those that its check asks for.
struct NdOptionsFound {
  bool srcLinkLayerAddr = false;
};

}  // namespace

U16 sumOf(const Message& message, U32 start) {
  const U16 first = sumOf(message.first, start);
  if (message.second.empty()) [[likely]]
    return first;
  // Behind an odd number of octets the others stand in the other half of their words.
  const U16 second = sumOf(message.second, 0);
  const bool odd = message.first.size() % 2 != 0;
  return folded(U32{first} + (odd ? __builtin_bswap16(second) : second));
}

PktCode sumCode(U16 checksum, U32 pseudoHdr, PktCode partial, PktCode bad) {
  if (checksum == folded(pseudoHdr)) return failed(partial, "checksum is not filled in yet");
  return failed(bad, "checksum is invalid");
}

// The messages.

PktCode udpCode(bool over6, U32 addrs, const Message& message) {
  const std::size_t present = message.bytes();
  if (present < sizeof(UdpHdr)) return failed(badUdpLen, "packet is too short to contain a UDP header");
  std::size_t bytes = wordAt(message.first, 4);
  if (over6 && bytes == 0 && isUdpJumbo(present)) bytes = present;
  if (bytes < sizeof(UdpHdr) || bytes > present) {
    return failed(badUdpLen, "UDP length does not fit the packet");
  }
  const U16 checksum = wordAt(message.first, 6);
  if (checksum == 0) return over6 ? failed(noUdpChecksum, "no UDP checksum over IPv6") : PktCode();
  const U32 pseudoHdr = addrs + ipProtoUdp + halves(static_cast<U32>(bytes));
  if (sumOf(message.upTo(bytes), pseudoHdr) == kRight) [[likely]]
    return noError;
  return sumCode(checksum, pseudoHdr, partialUdpChecksum, badUdpChecksum);
}

PktCode tcpCode(U32 addrs, const Message& message) {
  const std::size_t present = message.bytes();
  if (present < kTcpBytes) return failed(badTcpLen, "packet is too short to contain a TCP header");
  const std::size_t bytes = (message.first[12] >> 4) * 4u;
  if (bytes < kTcpBytes || bytes > present)
    return failed(badTcpLen, "TCP data offset does not fit the packet");
  const U32 pseudoHdr = addrs + ipProtoTcp + halves(static_cast<U32>(present));
  if (sumOf(message, pseudoHdr) == kRight) [[likely]]
    return noError;
  return sumCode(wordAt(message.first, 16), pseudoHdr, partialTcpChecksum, badTcpChecksum);
}

U32 sctpCrc(const Message& message) {
  constexpr U8 kNone[4] = {};
  U32 crc = crc32c(message.first.first(kSctpChecksumAt));
  crc = crc32c(kNone, crc);
  return crc32c(message.second, crc32c(message.first.subspan(kSctpBytes), crc));
}

PktCode sctpCode(const Message& message) {
  if (message.bytes() < kSctpBytes) {
    return failed(badSctpLen, "packet is too short to contain an SCTP header");
  }
  const U32 checksum = __builtin_bswap32(valueAt<NetU32>(message.first, kSctpChecksumAt));
  return checksum == sctpCrc(message) ? PktCode() : failed(badSctpChecksum, "SCTP checksum is invalid");
}

PktCode icmpCode(const Message& message) {
  if (message.bytes() < 8) return failed(badIcmpLen, "packet is too short to contain an ICMP header");
  return sumOf(message, 0) == kRight ? PktCode() : failed(badIcmpChecksum, "ICMP checksum is invalid");
}

PktCode icmp6Code(U32 addrs, const Message& message) {
  if (message.bytes() < sizeof(Icmp6Hdr)) {
    return failed(icmp6PayloadLenTooShortForHdr, "packet is too short to contain an Icmp6 header");
  }
  const U32 start = addrs + ipProtoIcmpv6 + halves(static_cast<U32>(message.bytes()));
  return sumOf(message, start) == kRight ? PktCode() : failed(badIcmp6Checksum, "Icmp6 checksum is invalid");
}

// Neighbour discovery.

namespace {

PktCode ndOptions(std::span<const U8> octets, NdOptionsFound& found) {
  while (!octets.empty()) {
    if (octets.size() < 2) return failed(icmp6OptLenExceedPayloadLen, "Option length exceeds pkt length.");
    const std::size_t bytes = octets[1] * 8u;
    if (bytes == 0) return failed(icmp6OptLenZero, "Option length cannot be zero.");
    if (bytes > octets.size()) {
      return failed(icmp6OptLenExceedPayloadLen, "Option length exceeds pkt length.");
    }
    const U8 type = octets[0];
    if (type == icmp6OptPrefixInfo && bytes != sizeof(Icmp6PrefixInfoOptionHdr)) {
      return failed(badNdOptLen, "Prefix option has another length");
    }
    if (type == icmp6OptMtu && bytes != sizeof(Icmp6MtuOptionHdr)) {
      return failed(badNdOptLen, "MTU option has another length");
    }
    found.srcLinkLayerAddr |= type == icmp6OptSrcLinkLayerAddr;
    octets = octets.subspan(bytes);
  }
  return noError;
}

}  // namespace

std::size_t ndBytes(U8 type) noexcept {
  switch (type) {
    case icmp6TypeRouterSolicitation:
      return sizeof(Icmp6RsHdr);
    case icmp6TypeRouterAdvertisement:
      return sizeof(Icmp6RaHdr);
    case icmp6TypeNeighborSolicitation:
      return sizeof(Icmp6NsHdr);
    case icmp6TypeNeighborAdvertisement:
      return sizeof(Icmp6NaHdr);
    case icmp6TypeRedirect:
      return sizeof(Icmp6RedirectHdr);
    default:
      return 0;
  }
}

namespace {

bool isSolicitedNode(const Ip6Addr& addr) noexcept {
  constexpr U8 kPrefix[] = {0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xff};
  return std::memcmp(&addr, kPrefix, sizeof(kPrefix)) == 0;
}

PktCode ndByType(const Ip6Hdr& ip6, std::span<const U8> message, const NdOptionsFound& options) {
  const Ip6Addr src = ip6.src();
  const bool unspecified = src.isUnspecified();
  switch (message[0]) {
    case icmp6TypeNeighborSolicitation:
      if (valueAt<Ip6Addr>(message, 8).isMulticast())
        return failed(icmp6NsTgtMcast, "NS target is multicast");
      if (unspecified && !isSolicitedNode(ip6.dst())) {
        return failed(unspecifiedSrcAddrAndNotSolicitedNodeDst,
                      "NS from the unspecified address to no solicited-node address");
      }
      if (!unspecified && ip6.dst().isMulticast() && !options.srcLinkLayerAddr) {
        return failed(noSrcLinkLayerOptInMcastNs, "multicast NS without source link-layer address");
      }
      [[fallthrough]];
    case icmp6TypeRouterSolicitation:
      if (unspecified && options.srcLinkLayerAddr) {
        return failed(unspecSrcAddrSrcLinkLayerAddr, "source link-layer address of the unspecified address");
      }
      return noError;
    case icmp6TypeNeighborAdvertisement:
      if (valueAt<Ip6Addr>(message, 8).isMulticast())
        return failed(icmp6NaTgtMcast, "NA target is multicast");
      if (ip6.dst().isMulticast() && (message[4] & 0x40) != 0) {
        return failed(icmp6McastDstIpAndNonZeroSolicitation, "multicast NA is solicited");
      }
      return noError;
    default:
      break;
  }
  if (!src.isLinkLocalUnicast2()) return failed(ndSrcNotLinkLocal, "source is not link-local");
  if (message[0] != icmp6TypeRedirect) return noError;
  const Ip6Addr target = valueAt<Ip6Addr>(message, 8);
  const Ip6Addr dst = valueAt<Ip6Addr>(message, 24);
  if (dst.isMulticast()) return failed(redirectDstMcast, "redirected destination is multicast");
  if (!target.isLinkLocalUnicast2() && target != dst) {
    return failed(redirectBadTarget, "redirect target is neither link-local nor the destination");
  }
  return noError;
}

}  // namespace

PktCode ndHopLimitCode(const Ip6Hdr& ip6) {
  return ip6.hopLimit().value() == 255 ? PktCode() : failed(badNdHopLimit, "hop limit is not 255");
}

PktCode ndRules(const Ip6Hdr& ip6, std::span<const U8> message) {
  if (message[1] != 0) return failed(badNdCode, "Icmp6 code is not 0");
  const std::size_t bytes = ndBytes(message[0]);
  if (message.size() < bytes)
    return failed(icmp6PayloadLenTooShortForHdr, "packet is too short for its type");
  NdOptionsFound options;
  const PktCode code = ndOptions(message.subspan(bytes), options);
  return code == noError ? ndByType(ip6, message, options) : code;
}

// Groups. Sources and records are counted by 16 bits.

namespace {

/// Whether a report of version 3 of IGMP or version 2 of MLD has room for its `count` records.
enum class Records { good, tooLong, noGroup };
template <typename Addr>
Records groupRecords(std::span<const U8> message, std::size_t count) {
  std::span<const U8> octets = message.subspan(8);
  constexpr std::size_t kFixed = 4 + sizeof(Addr);
  for (; count > 0; --count) {
    if (octets.size() < kFixed) return Records::tooLong;
    const std::size_t bytes = kFixed + wordAt(octets, 2) * sizeof(Addr) + octets[1] * 4u;
    if (bytes > octets.size()) return Records::tooLong;
    if (!valueAt<Addr>(octets, 4).isMulticast()) return Records::noGroup;
    octets = octets.subspan(bytes);
  }
  return Records::good;
}

constexpr std::size_t kMldBytes = 24;
constexpr std::size_t kMldv2QueryBytes = 28;

}  // namespace

bool isMld(U8 type) noexcept {
  return type == icmp6TypeMldv2Report || type == icmp6TypeMldQuery || type == icmp6TypeMldReport ||
         type == icmp6TypeMldDone;
}

PktCode mldRules(const Ip6Hdr& ip6, Alert alert, std::span<const U8> message) {
  const U8 type = message[0];
  if (!isMld(type)) return failed(icmp6TypeNotSupported, "Icmp6 type is not of multicast listener discovery");
  const bool isReport2 = type == icmp6TypeMldv2Report;
  if (ip6.hopLimit().value() != 1) return failed(badMldHopLimit, "hop limit is not 1");
  const bool maySayNothing = isReport2 || type == icmp6TypeMldReport;
  if (!ip6.src().isLinkLocalUnicast2() && !(maySayNothing && ip6.src().isUnspecified())) {
    return failed(mldSrcNotLinkLocal, "source is not link-local");
  }
  const auto tooShort = [] { return failed(badMldLen, "packet is too short for what it counts"); };
  const auto noGroup = [] { return failed(badMldGroup, "group is not a multicast address"); };
  const auto alerted = [alert] {
    return alert == Alert::missing ? failed(noMldRouterAlert, "no router alert in front of the message")
                                   : PktCode();
  };
  if (message.size() < (isReport2 ? 8 : kMldBytes)) return tooShort();
  if (isReport2) {
    const Records records = groupRecords<Ip6Addr>(message, wordAt(message, 6));
    if (records != Records::good) return records == Records::tooLong ? tooShort() : noGroup();
    return alerted();
  }
  const auto group = valueAt<Ip6Addr>(message, 8);
  if (!group.isMulticast() && !(type == icmp6TypeMldQuery && group.isUnspecified())) return noGroup();
  if (type != icmp6TypeMldQuery || message.size() == kMldBytes) return alerted();
  if (message.size() < kMldv2QueryBytes ||
      message.size() - kMldv2QueryBytes < wordAt(message, 26) * sizeof(Ip6Addr)) {
    return tooShort();
  }
  return alerted();
}

PktCode igmpSumCode(std::span<const U8> message) {
  if (message.size() < kIgmpBytes) return failed(badIgmpLen, "packet is too short to contain an IGMP header");
  return sumOf(message, 0) == kRight ? PktCode() : failed(badIgmpChecksum, "IGMP checksum is invalid");
}

PktCode igmpRules(const IpHdr& ip, std::span<const U8> message) {
  const U8 type = message[0];
  const bool query = type == IgmpHdr::query;
  if (!query && type != IgmpHdr::reportV1 && type != IgmpHdr::reportV2 && type != IgmpHdr::leave &&
      type != IgmpHdr::reportV3) {
    return noError;
  }
  const auto tooShort = [] { return failed(badIgmpLen, "packet is too short for what it counts"); };
  const auto noGroup = [] { return failed(badIgmpGroup, "group is not a multicast address"); };
  if (ip.ttl().value() != 1) return failed(badIgmpTtl, "time to live is not 1");
  if (type == IgmpHdr::reportV3) {
    const Records records = groupRecords<IpAddr>(message, wordAt(message, 6));
    return records == Records::good ? PktCode() : records == Records::tooLong ? tooShort() : noGroup();
  }
  const IpAddr group = valueAt<IpAddr>(message, 4);
  if (!group.isMulticast() && !(query && group.isZero())) return noGroup();
  constexpr std::size_t kQuery3 = sizeof(Igmp3QueryHdr);
  if (query && message.size() > kIgmpBytes &&
      (message.size() < kQuery3 || message.size() - kQuery3 < wordAt(message, 10) * sizeof(IpAddr))) {
    return tooShort();
  }
  return noError;
}

// VRRP.

bool vrrpIsSummed(bool over6, U32 addrs, unsigned version, const Message& message) {
  if (version == 3) {
    const U32 pseudoHdr = addrs + ipProtoVrrp + halves(static_cast<U32>(message.bytes()));
    if (sumOf(message, pseudoHdr) == kRight) return true;
  }
  return (version != 3 || !over6) && sumOf(message, 0) == kRight;
}

namespace {

struct VrrpOver4 {
  using Addr = IpAddr;
  static constexpr EthAddr kDstMac{0x01, 0, 0x5e, 0, 0, 18};
  static constexpr IpAddr kDst{224, 0, 0, 18};
  static constexpr U8 kSrcMac = 1;  // 00:00:5e:00:01:id
};
struct VrrpOver6 {
  using Addr = Ip6Addr;
  static constexpr EthAddr kDstMac{0x33, 0x33, 0, 0, 0, 18};
  static constexpr Ip6Addr kDst{std::array<U8, 16>{0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 18}};
  static constexpr U8 kSrcMac = 2;
};

template <typename Over, typename Ip>
PktCode vrrp(const EthHdr* ethHdr, const Ip& ip, U8 ttl, std::span<const U8> message) {
  constexpr std::size_t kFixed = 8;
  constexpr std::size_t kAuthBytes = 8;
  constexpr U8 kText = 1;
  if (ethHdr && ethHdr->dst() != Over::kDstMac) return failed(nonVrrpMac, "destination MAC is not VRRP's");
  if (ip.dst() != Over::kDst) return failed(nonVrrpDstAddr, "destination address is not VRRP's");
  if (ttl != 255) return failed(badVrrpTtl, "time to live is not 255");
  const auto badLen = [] { return failed(badVrrpLen, "VRRP length does not fit what is counted"); };
  if (message.size() < kFixed) return badLen();
  const U8 version = message[0] >> 4;
  if (version != 3 && (kIsIp6<Ip> || version != 2)) return failed(badVrrpVersion, "bad VRRP version");
  if ((message[0] & 0x0f) != 1) return failed(badVrrpType, "VRRP message is no advertisement");
  const U8 routerId = message[1];
  if (routerId == 0) return failed(badVrrpVrid, "virtual router id is 0");
  const std::size_t count = message[3];
  const std::size_t bytes = kFixed + count * sizeof(typename Over::Addr) + (version == 2 ? kAuthBytes : 0);
  if (count == 0 || message.size() < bytes) return badLen();
  if (!vrrpIsSummed(kIsIp6<Ip>, addrsSum(ip), version, {message}))
    return failed(badVrrpChecksum, "VRRP checksum is invalid");
  if (ethHdr && ethHdr->src() != EthAddr(0, 0, 0x5e, 0, Over::kSrcMac, routerId)) {
    return failed(vrrpVridMacMismatch, "virtual router id does not match the MAC");
  }
  if (version == 2 && message[4] > kText) return failed(badVrrpAuth, "VRRP authentication is not known");
  if constexpr (kIsIp6<Ip>) {
    if (!ip.src().isLinkLocalUnicast2() || !valueAt<Ip6Addr>(message, kFixed).isLinkLocalUnicast2()) {
      return failed(badVrrpLinkLocal, "VRRP address is not link-local");
    }
  }
  return noError;
}

}  // namespace

PktCode vrrpCode(const EthHdr* ethHdr, const IpHdr& ip, std::span<const U8> message) {
  return vrrp<VrrpOver4>(ethHdr, ip, ip.ttl().value(), message);
}
PktCode vrrpCode(const EthHdr* ethHdr, const Ip6Hdr& ip6, std::span<const U8> message) {
  return vrrp<VrrpOver6>(ethHdr, ip6, ip6.hopLimit().value(), message);
}

// ARP.

PktCode arpCode(const EthHdr* ethHdr, std::span<const U8> message, const Prefix* connected) {
  constexpr U8 kEthernetAndIp[] = {0, 1, 8, 0, 6, 4};
  if (message.size() < kArpBytes) return failed(pktTooShort, "packet is too short to contain ARP");
  if (std::memcmp(message.data(), kEthernetAndIp, sizeof(kEthernetAndIp)) != 0) {
    return failed(badArpPkt, "ARP is not for IPv4 over Ethernet");
  }
  const U16 operation = wordAt(message, 6);
  if (operation != 1 && operation != 2) return failed(badArpOperation, "ARP is no request and no reply");
  const auto senderMac = valueAt<EthAddr>(message, 8);
  const auto sender = valueAt<IpAddr>(message, 14);
  if (!senderMac.isUnicast() || sender.isMulticast() || sender.isBroadcast() || sender.isLoopback()) {
    return failed(badArpSender, "ARP sender is no single station");
  }
  if (connected && !sender.isZero() && !connected->contains(sender)) {
    return failed(nonOnLink, "ARP sender is not on the link");
  }
  if (ethHdr && ethHdr->src() != senderMac) {
    return failed(arpSrcMacMismatch, "ARP sender is not the frame's source");
  }
  return noError;
}

}  // namespace Wirl::detail
