// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/WireChecks.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Wirl/wire/Crc32.h"
#include "Wirl/wire/PimHdr.h"
#include "Wirl/wire/detail/Ip6Chain.h"
#include "Wirl/wire/detail/PseudoHdr.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("WireChecks");

[[gnu::noinline, gnu::cold]] PktCode failed(PktCode code, const char* text) {
  KIV_TRACE(trace, 3) << text;
  return code;
}

/// Octets of a message, of which the first ones, and at least the header, lie in one piece.
struct Message {
  std::span<const U8> first;
  std::span<const U8> second{};

  std::size_t bytes() const noexcept { return first.size() + second.size(); }
  Message upTo(std::size_t bytes) const noexcept {
    if (bytes <= first.size()) return {first.first(bytes)};
    return {first, second.first(bytes - first.size())};
  }
};

U16 wordAt(std::span<const U8> octets, std::size_t at) noexcept {
  return static_cast<U16>(octets[at] << 8 | octets[at + 1]);
}

template <typename T>
T valueAt(std::span<const U8> octets, std::size_t at) noexcept {
  T value;
  std::memcpy(&value, &octets[at], sizeof(value));
  return value;
}

// Checksums.

using detail::folded;
using detail::halves;
using detail::pseudoHdrSum;

/// Folded sum of octets in one piece.
[[gnu::always_inline]] inline U16 sumOf(std::span<const U8> octets, U32 start) {
  constexpr std::size_t kMost = 0xfffe;
  const auto* data = reinterpret_cast<const char*>(octets.data());
  std::size_t bytes = octets.size();
  for (; bytes > kMost; bytes -= kMost, data += kMost) start = folded(ipChecksumChunk(data, kMost, start));
  return static_cast<U16>(~ipChecksumCalc(data, static_cast<U16>(bytes), start).value());
}

U16 sumOf(const Message& message, U32 start) {
  const U16 first = sumOf(message.first, start);
  if (message.second.empty()) [[likely]]
    return first;
  // Behind an odd number of octets the others stand in the other half of their words.
  const U16 second = sumOf(message.second, 0);
  const bool odd = message.first.size() % 2 != 0;
  return folded(U32{first} + (odd ? __builtin_bswap16(second) : second));
}

// Whether the message is summed up right with its checksum field as it stands.

constexpr U16 kRight = 0xffff;

PktCode summedWithPseudoHdr(const Message& message, U32 pseudoHdr, U16 checksum, PktCode partial,
                            PktCode bad) {
  if (sumOf(message, pseudoHdr) == kRight) [[likely]]
    return noError;
  if (checksum == folded(pseudoHdr)) return failed(partial, "checksum is not filled in yet");
  return failed(bad, "checksum is invalid");
}

// The messages.

template <typename Ip>
constexpr bool kIsIp6 = std::is_same_v<Ip, Ip6Hdr>;

template <typename Ip>
PktCode udp(const Ip& ip, const Message& message) {
  const std::size_t present = message.bytes();
  if (present < sizeof(UdpHdr)) return failed(badUdpLen, "packet is too short to contain a UDP header");
  std::size_t bytes = wordAt(message.first, 4);
  if (kIsIp6<Ip> && bytes == 0 && present > 0xffff) bytes = present;  // a jumbogram (RFC 2675)
  if (bytes < sizeof(UdpHdr) || bytes > present) {
    return failed(badUdpLen, "UDP length does not fit the packet");
  }
  const U16 checksum = wordAt(message.first, 6);
  if (checksum == 0) return kIsIp6<Ip> ? failed(noUdpChecksum, "no UDP checksum over IPv6") : PktCode();
  return summedWithPseudoHdr(message.upTo(bytes), pseudoHdrSum(ip, bytes, ipProtoUdp), checksum,
                             partialUdpChecksum, badUdpChecksum);
}

constexpr std::size_t kTcpBytes = sizeof(TcpHdr);

template <typename Ip>
PktCode tcp(const Ip& ip, const Message& message) {
  const std::size_t present = message.bytes();
  if (present < kTcpBytes) return failed(badTcpLen, "packet is too short to contain a TCP header");
  const std::size_t bytes = (message.first[12] >> 4) * 4u;
  if (bytes < kTcpBytes || bytes > present)
    return failed(badTcpLen, "TCP data offset does not fit the packet");
  return summedWithPseudoHdr(message, pseudoHdrSum(ip, present, ipProtoTcp), wordAt(message.first, 16),
                             partialTcpChecksum, badTcpChecksum);
}

constexpr std::size_t kSctpBytes = 12;
constexpr std::size_t kSctpChecksumAt = 8;

U32 sctpCrc(const Message& message) {
  constexpr U8 kNone[4] = {};
  U32 crc = crc32c(message.first.first(kSctpChecksumAt));
  crc = crc32c(kNone, crc);
  return crc32c(message.second, crc32c(message.first.subspan(kSctpBytes), crc));
}

PktCode sctp(const Message& message) {
  if (message.bytes() < kSctpBytes) {
    return failed(badSctpLen, "packet is too short to contain an SCTP header");
  }
  const U32 checksum = __builtin_bswap32(valueAt<NetU32>(message.first, kSctpChecksumAt));
  return checksum == sctpCrc(message) ? PktCode() : failed(badSctpChecksum, "SCTP checksum is invalid");
}

PktCode icmp(const Message& message) {
  if (message.bytes() < 8) return failed(badIcmpLen, "packet is too short to contain an ICMP header");
  return sumOf(message, 0) == kRight ? PktCode() : failed(badIcmpChecksum, "ICMP checksum is invalid");
}

PktCode icmp6(const Ip6Hdr& ip6, const Message& message) {
  if (message.bytes() < sizeof(Icmp6Hdr)) {
    return failed(icmp6PayloadLenTooShortForHdr, "packet is too short to contain an Icmp6 header");
  }
  const U32 start = pseudoHdrSum(ip6, message.bytes(), ipProtoIcmpv6);
  return sumOf(message, start) == kRight ? PktCode() : failed(badIcmp6Checksum, "Icmp6 checksum is invalid");
}

// Neighbour discovery.

/// Which options a message has, of those that its check asks for.
struct NdOptions {
  bool srcLinkLayerAddr = false;
};

PktCode ndOptions(std::span<const U8> octets, NdOptions& found) {
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

constexpr std::size_t kRedirectBytes = 40;

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
      return kRedirectBytes;
    default:
      return 0;
  }
}

bool isSolicitedNode(const Ip6Addr& addr) noexcept {
  constexpr U8 kPrefix[] = {0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xff};
  return std::memcmp(&addr, kPrefix, sizeof(kPrefix)) == 0;
}

PktCode ndByType(const Ip6Hdr& ip6, std::span<const U8> message, const NdOptions& options) {
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

PktCode nd(const Ip6Hdr& ip6, std::span<const U8> message) {
  if (message.size() < sizeof(Icmp6Hdr)) return icmp6(ip6, {message});
  const std::size_t bytes = ndBytes(message[0]);
  if (bytes == 0) return failed(notNdType, "Icmp6 type is not of neighbour discovery");
  if (ip6.hopLimit().value() != 255) return failed(badNdHopLimit, "hop limit is not 255");
  if (const PktCode code = icmp6(ip6, {message}); code != noError) return code;
  if (message[1] != 0) return failed(badNdCode, "Icmp6 code is not 0");
  if (message.size() < bytes)
    return failed(icmp6PayloadLenTooShortForHdr, "packet is too short for its type");
  NdOptions options;
  const PktCode code = ndOptions(message.subspan(bytes), options);
  return code == noError ? ndByType(ip6, message, options) : code;
}

// Groups. Sources and records are counted by 16 bits.

/// Whether `octets` have room for what version 3 of IGMP or version 2 of MLD counts, with addresses of
/// `addrBytes`, the groups being those that `isGroup` takes: 0 where one does not fit.
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

PktCode mld(const Ip6Hdr& ip6, std::span<const U8> message) {
  if (const PktCode code = icmp6(ip6, {message}); code != noError) return code;
  const U8 type = message[0];
  const bool isReport2 = type == icmp6TypeMldv2Report;
  if (!isReport2 && type != icmp6TypeMldQuery && type != icmp6TypeMldReport && type != icmp6TypeMldDone) {
    return failed(icmp6TypeNotSupported, "Icmp6 type is not of multicast listener discovery");
  }
  if (ip6.hopLimit().value() != 1) return failed(badMldHopLimit, "hop limit is not 1");
  const bool maySayNothing = isReport2 || type == icmp6TypeMldReport;
  if (!ip6.src().isLinkLocalUnicast2() && !(maySayNothing && ip6.src().isUnspecified())) {
    return failed(mldSrcNotLinkLocal, "source is not link-local");
  }
  const auto tooShort = [] { return failed(badMldLen, "packet is too short for what it counts"); };
  if (message.size() < (isReport2 ? 8 : kMldBytes)) return tooShort();
  if (isReport2) {
    return groupRecords<Ip6Addr>(message, wordAt(message, 6)) == Records::tooLong ? tooShort() : PktCode();
  }
  if (type != icmp6TypeMldQuery || message.size() == kMldBytes) return noError;
  if (message.size() < kMldv2QueryBytes ||
      message.size() - kMldv2QueryBytes < wordAt(message, 26) * sizeof(Ip6Addr)) {
    return tooShort();
  }
  return noError;
}

enum IgmpType : U8 { query = 0x11, report1 = 0x12, report2 = 0x16, leave = 0x17, report3 = 0x22 };
constexpr std::size_t kIgmpBytes = 8;
constexpr std::size_t kIgmp3QueryBytes = 12;

PktCode igmp(const IpHdr& ip, std::span<const U8> message) {
  if (message.size() < kIgmpBytes) return failed(badIgmpLen, "packet is too short to contain an IGMP header");
  if (sumOf(message, 0) != kRight) return failed(badIgmpChecksum, "IGMP checksum is invalid");
  const U8 type = message[0];
  if (type != query && type != report1 && type != report2 && type != leave && type != report3) return noError;
  const auto tooShort = [] { return failed(badIgmpLen, "packet is too short for what it counts"); };
  const auto noGroup = [] { return failed(badIgmpGroup, "group is not a multicast address"); };
  if (ip.ttl().value() != 1) return failed(badIgmpTtl, "time to live is not 1");
  if (type == report3) {
    const Records records = groupRecords<IpAddr>(message, wordAt(message, 6));
    return records == Records::good ? PktCode() : records == Records::tooLong ? tooShort() : noGroup();
  }
  const IpAddr group = valueAt<IpAddr>(message, 4);
  if (!group.isMulticast() && !(type == query && group.isZero())) return noGroup();
  if (type == query && message.size() > kIgmpBytes &&
      (message.size() < kIgmp3QueryBytes ||
       message.size() - kIgmp3QueryBytes < wordAt(message, 10) * sizeof(IpAddr))) {
    return tooShort();
  }
  return noError;
}

// VRRP.

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
bool vrrpSummed(const Ip& ip, std::span<const U8> message, U8 version) {
  const U32 start = pseudoHdrSum(ip, message.size(), ipProtoVrrp);
  if (version == 3 && sumOf(message, start) == kRight) return true;
  return !kIsIp6<Ip> && sumOf(message, 0) == kRight;
}

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
  if (!vrrpSummed<Over>(ip, message, version)) return failed(badVrrpChecksum, "VRRP checksum is invalid");
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

PktCode vrrp(const EthHdr* ethHdr, const IpHdr& ip, std::span<const U8> message) {
  return vrrp<VrrpOver4>(ethHdr, ip, ip.ttl().value(), message);
}
PktCode vrrp(const EthHdr* ethHdr, const Ip6Hdr& ip6, std::span<const U8> message) {
  return vrrp<VrrpOver6>(ethHdr, ip6, ip6.hopLimit().value(), message);
}

// ARP.

constexpr std::size_t kArpBytes = sizeof(EthArpHdr);

PktCode arp(const EthHdr* ethHdr, std::span<const U8> message, const Prefix* connected) {
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

// In packets.

/// The bytes of a packet from the IP header on, which begins in its first piece.
struct Datagram {
  std::span<const U8> first;   // from the IP header on
  std::span<const U8> second;  // the other piece
  std::size_t bytes() const noexcept { return first.size() + second.size(); }
};

/// False where the first piece has no whole `Ip` there.
template <typename Ip>
[[gnu::always_inline]] inline bool locate(const Pkt& pkt, const Ip* ip, Datagram& datagram) {
  const auto front = reinterpret_cast<std::uintptr_t>(pkt.front());
  const auto from = reinterpret_cast<std::uintptr_t>(ip);
  const U32 present = pkt.frontBytes();
  if (from < front || from - front > present || present - (from - front) < sizeof(Ip)) return false;
  datagram.first = {reinterpret_cast<const U8*>(ip), present - (from - front)};
  if (pkt.numIovecs() == 2) [[unlikely]] {
    const struct ::iovec piece = pkt.iovec(1);
    datagram.second = {static_cast<const U8*>(piece.iov_base), piece.iov_len};
  }
  return true;
}

PktCode tooShort() {
  return failed(pktTooShort, "packet is too short, or has less than needed in its first piece");
}

/// Finds the message of a protocol, the first `hdrBytes` of which lie in the first piece where it is that
/// long.
[[gnu::always_inline]] inline PktCode messageIn(const Pkt& pkt, const IpHdr* ip, U8 protocol,
                                                PktCode otherProtocol, std::size_t hdrBytes,
                                                Message& message) {
  Datagram datagram;
  if (!locate(pkt, ip, datagram)) return tooShort();
  const std::size_t ipBytes = ip->headerBytes();
  const std::size_t bytes = ip->totalLenU16();
  if (ipBytes < sizeof(IpHdr) || ipBytes > bytes) return failed(badIpHdrLen, "IPv4 header length is invalid");
  if (bytes > datagram.bytes())
    return failed(badIpPayloadLen, "IPv4 payload length is larger than the packet");
  if (ip->protocol() != protocol) return failed(otherProtocol, "IPv4 protocol is another one");
  if (ip->moreFrag() || ip->fragmentOffset() != 0) return failed(ipFragment, "packet is a fragment");
  if (ipBytes + std::min(hdrBytes, bytes - ipBytes) > datagram.first.size()) return tooShort();
  message = Message{datagram.first, datagram.second}.upTo(bytes);
  message.first = message.first.subspan(ipBytes);
  return noError;
}

PktCode messageIn(const Pkt& pkt, const Ip6Hdr* ip6, U8 protocol, PktCode otherProtocol, std::size_t hdrBytes,
                  Message& message) {
  Datagram datagram;
  if (!locate(pkt, ip6, datagram)) return tooShort();
  const std::size_t bytes = sizeof(Ip6Hdr) + ip6->payloadLen();
  if (bytes > datagram.bytes())
    return failed(badIp6PayloadLen, "IPv6 payload length is larger than the packet");
  message = Message{datagram.first, datagram.second}.upTo(bytes);
  detail::Ip6Chain chain(message.first);
  while (chain.next() != protocol && chain.atExtension()) {
    const detail::Ip6Chain before = chain;
    if (!chain.step()) {
      return message.second.empty() ? failed(badIp6ExtHdr, "extension header runs past the end") : tooShort();
    }
    if (before.next() == ipProtoIpv6Frag && before.isPart())
      return failed(ipFragment, "packet is a fragment");
  }
  if (chain.next() != protocol) return failed(otherProtocol, "IPv6 next header is another one");
  if (chain.at() + std::min(hdrBytes, bytes - chain.at()) > message.first.size()) return tooShort();
  message.first = message.first.subspan(chain.at());
  return noError;
}

/// Runs `check` over the message that the packet carries, once it is found. `kWhole`: all of it has to be in
/// the first piece.
template <bool kWhole, typename Ip, typename Hdr, typename Check>
[[gnu::always_inline]] inline PktCode inPacket(const char* name, const Pkt::Ptr& pkt, Ip* ip, U8 protocol,
                                               PktCode otherProtocol, std::size_t hdrBytes, Hdr*& hdr,
                                               Check check) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  KIV_ASSERT_AS(ip, "ipHdr != 0");
  KIV_TRACE(trace, 8) << name;
  hdr = nullptr;
  Message message;
  if (const PktCode code = messageIn(*pkt, ip, protocol, otherProtocol, hdrBytes, message); code != noError) {
    return code;
  }
  if (kWhole && !message.second.empty()) return tooShort();
  if (message.first.size() >= hdrBytes) {
    hdr = reinterpret_cast<Hdr*>(reinterpret_cast<U8*>(ip) +
                                 (message.first.data() - reinterpret_cast<const U8*>(ip)));
  }
  return check(message);
}

/// The message of a datagram that lies in the packet's first piece, in no fragment and behind no extension
/// header, as nearly all do; empty for others. Nothing is said of it: the long way finds out what is wrong.
template <typename Ip>
[[gnu::always_inline]] inline std::span<U8> plainMessage(const Pkt::Ptr& pkt, Ip* ip, U8 protocol) {
  if (!pkt || !ip || trace.enabled(8)) [[unlikely]]
    return {};
  const auto at = reinterpret_cast<std::uintptr_t>(ip) - reinterpret_cast<std::uintptr_t>(pkt->front());
  const std::size_t present = pkt->frontBytes();
  if (at > present || present - at < sizeof(Ip) || ip->protocol() != protocol) return {};
  std::size_t hdrBytes = sizeof(Ip);
  std::size_t bytes;
  if constexpr (kIsIp6<Ip>) {
    bytes = sizeof(Ip) + ip->payloadLen();
  } else {
    hdrBytes = ip->headerBytes();
    bytes = ip->totalLenU16();
    if (hdrBytes < sizeof(Ip) || hdrBytes > bytes || ip->moreFrag() || ip->fragmentOffset() != 0) return {};
  }
  if (bytes > present - at) return {};
  return {reinterpret_cast<U8*>(ip) + hdrBytes, bytes - hdrBytes};
}

template <typename Ip>
[[gnu::always_inline]] inline bool isSummed(const Ip& ip, std::span<const U8> message, U8 protocol) {
  const auto bytes = static_cast<U16>(message.size());
  const U32 pseudoHdr = detail::addrsSum(ip) + protocol + bytes;
  return ipChecksumCalc(reinterpret_cast<const char*>(message.data()), bytes, pseudoHdr) == IpChecksum();
}

template <typename Ip>
[[gnu::noinline]] PktCode udpTheLongWay(const Pkt::Ptr& pkt, Ip* ip, UdpHdr*& udpHdr) {
  return inPacket<false>("checkUdp", pkt, ip, ipProtoUdp, nonUdpProto, sizeof(UdpHdr), udpHdr,
                         [ip](const Message& message) { return udp(*ip, message); });
}
template <typename Ip>
[[gnu::always_inline]] inline PktCode udpInPacket(const Pkt::Ptr& pkt, Ip* ip, UdpHdr*& udpHdr) {
  const auto message = plainMessage(pkt, ip, ipProtoUdp);
  if (message.size() >= sizeof(UdpHdr)) [[likely]] {
    auto* const found = reinterpret_cast<UdpHdr*>(message.data());
    if (found->len() == message.size() && found->checksumU16() != 0) {
      udpHdr = found;  // before the call, so that it need not be kept over it
      if (isSummed(*ip, message, ipProtoUdp)) [[likely]]
        return noError;
    }
  }
  return udpTheLongWay(pkt, ip, udpHdr);
}

template <typename Ip>
[[gnu::noinline]] PktCode tcpTheLongWay(const Pkt::Ptr& pkt, Ip* ip, TcpHdr*& tcpHdr) {
  return inPacket<false>("checkTcp", pkt, ip, ipProtoTcp, nonTcpProto, kTcpBytes, tcpHdr,
                         [ip](const Message& message) { return tcp(*ip, message); });
}
template <typename Ip>
[[gnu::always_inline]] inline PktCode tcpInPacket(const Pkt::Ptr& pkt, Ip* ip, TcpHdr*& tcpHdr) {
  const auto message = plainMessage(pkt, ip, ipProtoTcp);
  if (message.size() >= kTcpBytes) [[likely]] {
    auto* const found = reinterpret_cast<TcpHdr*>(message.data());
    const U16 bytes = found->headerBytes();
    if (bytes >= kTcpBytes && bytes <= message.size()) {
      tcpHdr = found;
      if (isSummed(*ip, message, ipProtoTcp)) [[likely]]
        return noError;
    }
  }
  return tcpTheLongWay(pkt, ip, tcpHdr);
}
template <typename Ip>
PktCode sctpInPacket(const Pkt::Ptr& pkt, Ip* ip, SctpHdr*& sctpHdr) {
  return inPacket<false>("checkSctp", pkt, ip, ipProtoSctp, nonSctpProto, kSctpBytes, sctpHdr, sctp);
}
template <typename Ip>
PktCode vrrpInPacket(const Pkt::Ptr& pkt, EthHdr* ethHdr, Ip* ip, VrrpHdr*& vrrpHdr) {
  return inPacket<true>("checkVrrp", pkt, ip, ipProtoVrrp, nonVrrpProto, 8, vrrpHdr,
                        [&](const Message& message) { return vrrp(ethHdr, *ip, message.first); });
}
template <typename Hdr>
PktCode ndInPacket(const char* name, const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Hdr*& hdr, U8 type,
                   PktCode otherType) {
  return inPacket<true>(name, pkt, ip6Hdr, ipProtoIcmpv6, nextHdrIsNotIcmp6, sizeof(Hdr), hdr,
                        [&](const Message& message) {
                          if (type != 0 && !message.first.empty() && message.first[0] != type) {
                            return failed(otherType, "Icmp6 type is another one");
                          }
                          return nd(*ip6Hdr, message.first);
                        });
}

}  // namespace

PktCode checkUdp(const Pkt::Ptr& pkt, IpHdr* ipHdr, UdpHdr*& udpHdr) {
  return udpInPacket(pkt, ipHdr, udpHdr);
}
PktCode checkUdp(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, UdpHdr*& udpHdr) {
  return udpInPacket(pkt, ip6Hdr, udpHdr);
}
PktCode checkUdp(const IpHdr& ipHdr, std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkUdp";
  return udp(ipHdr, {message});
}
PktCode checkUdp(const Ip6Hdr& ip6Hdr, std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkUdp";
  return udp(ip6Hdr, {message});
}

PktCode checkTcp(const Pkt::Ptr& pkt, IpHdr* ipHdr, TcpHdr*& tcpHdr) {
  return tcpInPacket(pkt, ipHdr, tcpHdr);
}
PktCode checkTcp(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, TcpHdr*& tcpHdr) {
  return tcpInPacket(pkt, ip6Hdr, tcpHdr);
}
PktCode checkTcp(const IpHdr& ipHdr, std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkTcp";
  return tcp(ipHdr, {message});
}
PktCode checkTcp(const Ip6Hdr& ip6Hdr, std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkTcp";
  return tcp(ip6Hdr, {message});
}

PktCode checkSctp(const Pkt::Ptr& pkt, IpHdr* ipHdr, SctpHdr*& sctpHdr) {
  return sctpInPacket(pkt, ipHdr, sctpHdr);
}
PktCode checkSctp(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, SctpHdr*& sctpHdr) {
  return sctpInPacket(pkt, ip6Hdr, sctpHdr);
}
PktCode checkSctp(std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkSctp";
  return sctp({message});
}

PktCode checkIcmp(const Pkt::Ptr& pkt, IpHdr* ipHdr, IcmpHdr*& icmpHdr) {
  return inPacket<false>("checkIcmp", pkt, ipHdr, ipProtoIcmp, nonIcmpProto, 8, icmpHdr, icmp);
}
PktCode checkIcmp(std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkIcmp";
  return icmp({message});
}

PktCode checkIcmp6(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr) {
  return inPacket<false>("checkIcmp6", pkt, ip6Hdr, ipProtoIcmpv6, nextHdrIsNotIcmp6, sizeof(Icmp6Hdr),
                         icmp6Hdr, [ip6Hdr](const Message& message) { return icmp6(*ip6Hdr, message); });
}
PktCode checkIcmp6(const Ip6Hdr& ip6Hdr, std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkIcmp6";
  return icmp6(ip6Hdr, {message});
}

PktCode checkNd(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr) {
  return ndInPacket("checkNd", pkt, ip6Hdr, icmp6Hdr, 0, noError);
}
PktCode checkNs(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6NsHdr*& nsHdr) {
  return ndInPacket("checkNs", pkt, ip6Hdr, nsHdr, icmp6TypeNeighborSolicitation, notIcmp6NsType);
}
PktCode checkNa(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6NaHdr*& naHdr) {
  return ndInPacket("checkNa", pkt, ip6Hdr, naHdr, icmp6TypeNeighborAdvertisement, notIcmp6NaType);
}
PktCode checkNd(const Ip6Hdr& ip6Hdr, std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkNd";
  return nd(ip6Hdr, message);
}
PktCode checkMld(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr) {
  return inPacket<true>("checkMld", pkt, ip6Hdr, ipProtoIcmpv6, nextHdrIsNotIcmp6, sizeof(Icmp6Hdr), icmp6Hdr,
                        [ip6Hdr](const Message& message) { return mld(*ip6Hdr, message.first); });
}
PktCode checkMld(const Ip6Hdr& ip6Hdr, std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkMld";
  return mld(ip6Hdr, message);
}

PktCode checkIgmp(const Pkt::Ptr& pkt, IpHdr* ipHdr, IgmpHdr*& igmpHdr) {
  return inPacket<true>("checkIgmp", pkt, ipHdr, ipProtoIgmp, nonIgmpProto, kIgmpBytes, igmpHdr,
                        [ipHdr](const Message& message) { return igmp(*ipHdr, message.first); });
}
PktCode checkIgmp(const IpHdr& ipHdr, std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkIgmp";
  return igmp(ipHdr, message);
}

PktCode checkVrrp(const Pkt::Ptr& pkt, EthHdr* ethHdr, IpHdr* ipHdr, VrrpHdr*& vrrpHdr) {
  return vrrpInPacket(pkt, ethHdr, ipHdr, vrrpHdr);
}
PktCode checkVrrp(const Pkt::Ptr& pkt, EthHdr* ethHdr, Ip6Hdr* ip6Hdr, VrrpHdr*& vrrpHdr) {
  return vrrpInPacket(pkt, ethHdr, ip6Hdr, vrrpHdr);
}
PktCode checkVrrp(const EthHdr* ethHdr, const IpHdr& ipHdr, std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkVrrp";
  return vrrp(ethHdr, ipHdr, message);
}
PktCode checkVrrp(const EthHdr* ethHdr, const Ip6Hdr& ip6Hdr, std::span<const U8> message) {
  KIV_TRACE(trace, 8) << "checkVrrp";
  return vrrp(ethHdr, ip6Hdr, message);
}

PktCode checkArp(const Pkt::Ptr& pkt, EthHdr*& ethHdr, EthArpHdr*& arpHdr, const Prefix* connected) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  KIV_TRACE(trace, 8) << "checkArp";
  ethHdr = nullptr;
  arpHdr = nullptr;
  if (pkt->frontBytes() < sizeof(EthHdr) + kArpBytes) return tooShort();
  U8* const front = pkt->front();
  auto* const found = reinterpret_cast<EthHdr*>(front);
  if (found->typeOrLen() != ethTypeArpIp) return failed(wrongEthType, "EtherType is not ARP");
  ethHdr = found;
  arpHdr = reinterpret_cast<EthArpHdr*>(front + sizeof(EthHdr));
  return arp(ethHdr, {front + sizeof(EthHdr), kArpBytes}, connected);
}
PktCode checkArp(const EthHdr* ethHdr, std::span<const U8> message, const Prefix* connected) {
  KIV_TRACE(trace, 8) << "checkArp";
  return arp(ethHdr, message, connected);
}

// Checksums for who sends.

namespace {

void checksumIs(std::span<U8> message, std::size_t at, U32 start, U16 insteadOfZero = 0) {
  const NetU16 none;
  KIV_ASSERT_AS(message.size() >= at + sizeof(none), "message has a header");
  std::memcpy(&message[at], &none, sizeof(none));
  const auto sum = static_cast<U16>(~sumOf(message, start));
  const NetU16 checksum(sum == 0 ? insteadOfZero : sum);
  std::memcpy(&message[at], &checksum, sizeof(checksum));
}

constexpr std::size_t kUdpChecksumAt = 6;
constexpr std::size_t kTcpChecksumAt = 16;
constexpr std::size_t kIcmpChecksumAt = 2;
constexpr std::size_t kVrrpChecksumAt = 6;

}  // namespace

void setUdpChecksum(const IpHdr& ipHdr, std::span<U8> message) {
  checksumIs(message, kUdpChecksumAt, pseudoHdrSum(ipHdr, message.size(), ipProtoUdp), 0xffff);
}
void setUdpChecksum(const Ip6Hdr& ip6Hdr, std::span<U8> message) {
  checksumIs(message, kUdpChecksumAt, pseudoHdrSum(ip6Hdr, message.size(), ipProtoUdp), 0xffff);
}
void setTcpChecksum(const IpHdr& ipHdr, std::span<U8> message) {
  checksumIs(message, kTcpChecksumAt, pseudoHdrSum(ipHdr, message.size(), ipProtoTcp));
}
void setTcpChecksum(const Ip6Hdr& ip6Hdr, std::span<U8> message) {
  checksumIs(message, kTcpChecksumAt, pseudoHdrSum(ip6Hdr, message.size(), ipProtoTcp));
}
void setSctpChecksum(std::span<U8> message) {
  KIV_ASSERT_AS(message.size() >= kSctpBytes, "message has a header");
  const NetU32 crc(__builtin_bswap32(sctpCrc({message})));
  std::memcpy(&message[kSctpChecksumAt], &crc, sizeof(crc));
}
void setIcmpChecksum(std::span<U8> message) {
  checksumIs(message, kIcmpChecksumAt, 0);
}
namespace {

std::span<U8> summedPim(std::span<U8> message) {
  const bool isRegister =
      !message.empty() && (message[0] & 0x0f) == pimRegister && message.size() >= sizeof(PimRegisterHdr);
  return isRegister ? message.first(sizeof(PimRegisterHdr)) : message;
}

}  // namespace

void setPimChecksum(const IpHdr&, std::span<U8> message) {
  checksumIs(summedPim(message), kIcmpChecksumAt, 0);
}
void setPimChecksum(const Ip6Hdr& ip6Hdr, std::span<U8> message) {
  const std::span<U8> summed = summedPim(message);
  checksumIs(summed, kIcmpChecksumAt, pseudoHdrSum(ip6Hdr, summed.size(), ipProtoPim));
}
void setVrrpChecksum(const IpHdr& ipHdr, std::span<U8> message) {
  const bool withPseudoHdr = !message.empty() && message[0] >> 4 == 3;
  const U32 start = withPseudoHdr ? pseudoHdrSum(ipHdr, message.size(), ipProtoVrrp) : 0;
  checksumIs(message, kVrrpChecksumAt, start);
}
void setVrrpChecksum(const Ip6Hdr& ip6Hdr, std::span<U8> message) {
  checksumIs(message, kVrrpChecksumAt, pseudoHdrSum(ip6Hdr, message.size(), ipProtoVrrp));
}
void setIcmp6Checksum(const Ip6Hdr& ip6Hdr, std::span<U8> message) {
  checksumIs(message, kIcmpChecksumAt, pseudoHdrSum(ip6Hdr, message.size(), ipProtoIcmpv6));
}

}  // namespace Wirl
