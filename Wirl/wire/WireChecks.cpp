// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/WireChecks.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Wirl/wire/PimHdr.h"
#include "Wirl/wire/detail/Ip6Chain.h"
#include "Wirl/wire/detail/MessageChecks.h"
#include "Wirl/wire/detail/RoutedAddrs.h"

namespace Wirl {

namespace {

using namespace detail;

template <typename Ip>
constexpr bool kIsIp6 = std::is_same_v<Ip, Ip6Hdr>;

/// What is checked of a packet or of a message alone.
struct Found {
  Message message;
  U32 addrs = 0;  ///< Sum of the addresses in the pseudo-header.
  Alert alert = Alert::unknown;
};

template <typename Ip>
PktCode udp(const Ip&, const Found& found) {
  return udpCode(kIsIp6<Ip>, found.addrs, found.message);
}
template <typename Ip>
PktCode tcp(const Ip&, const Found& found) {
  return tcpCode(found.addrs, found.message);
}
PktCode sctp(const IpHdr&, const Found& found) {
  return sctpCode(found.message);
}
PktCode sctp(const Ip6Hdr&, const Found& found) {
  return sctpCode(found.message);
}
PktCode icmp(const IpHdr&, const Found& found) {
  return icmpCode(found.message);
}
PktCode icmp6(const Ip6Hdr&, const Found& found) {
  return icmp6Code(found.addrs, found.message);
}
PktCode nd(const Ip6Hdr& ip6, const Found& found) {
  const auto message = found.message.first;
  if (message.size() < sizeof(Icmp6Hdr)) return icmp6(ip6, found);
  if (ndBytes(message[0]) == 0) return failed(notNdType, "Icmp6 type is not of neighbour discovery");
  if (const PktCode code = ndHopLimitCode(ip6); code != noError) return code;
  if (const PktCode code = icmp6(ip6, found); code != noError) return code;
  return ndRules(ip6, message);
}
PktCode mld(const Ip6Hdr& ip6, const Found& found) {
  if (const PktCode code = icmp6(ip6, found); code != noError) return code;
  return mldRules(ip6, found.alert, found.message.first);
}
PktCode igmp(const IpHdr& ip, const Found& found) {
  if (const PktCode code = igmpSumCode(found.message.first); code != noError) return code;
  return igmpRules(ip, found.message.first);
}

/// A message without the packet that it came in.
template <typename Ip>
Found alone(const Ip& ip, std::span<const U8> message) {
  return {{message}, addrsSum(ip)};
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
                                                PktCode otherProtocol, std::size_t hdrBytes, Found& found) {
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
  found.message = Message{datagram.first, datagram.second}.upTo(bytes);
  found.addrs = addrsSum(*ip);
  if (ipBytes > sizeof(IpHdr)) {
    if (const auto dst = finalDst(datagram.first.subspan(sizeof(IpHdr), ipBytes - sizeof(IpHdr)))) {
      found.addrs += sumChange(ip->dst(), *dst);
    }
  }
  found.message.first = found.message.first.subspan(ipBytes);
  return noError;
}

PktCode messageIn(const Pkt& pkt, const Ip6Hdr* ip6, U8 protocol, PktCode otherProtocol, std::size_t hdrBytes,
                  Found& found) {
  Datagram datagram;
  if (!locate(pkt, ip6, datagram)) return tooShort();
  const std::size_t bytes = sizeof(Ip6Hdr) + ip6->payloadLen();
  if (bytes > datagram.bytes())
    return failed(badIp6PayloadLen, "IPv6 payload length is larger than the packet");
  Message& message = found.message = Message{datagram.first, datagram.second}.upTo(bytes);
  found.addrs = addrsSum(*ip6);
  found.alert = Alert::missing;
  Ip6Chain chain(message.first);
  while (chain.next() != protocol && chain.atExtension()) {
    const Ip6Chain before = chain;
    if (!chain.step()) {
      return message.second.empty() ? failed(badIp6ExtHdr, "extension header runs past the end") : tooShort();
    }
    const auto hdr = message.first.subspan(before.at(), chain.at() - before.at());
    switch (before.next()) {
      case ipProtoIpv6Frag:
        if (before.isPart()) return failed(ipFragment, "packet is a fragment");
        break;
      case ipProtoIpv6HopByHop:
        if (Ip6Options(hdr.subspan(sizeof(Ip6ExtHdr))).find<Ip6RouterAlertOption>())
          found.alert = Alert::present;
        break;
      case ipProtoIpv6Opts:
        if (const auto home = homeAddr(hdr.subspan(sizeof(Ip6ExtHdr)))) {
          found.addrs += sumChange(ip6->src(), *home);
        }
        break;
      case ipProtoIpv6Route:
        if (const auto dst = finalDst(hdr, ip6->dst())) found.addrs += sumChange(ip6->dst(), *dst);
        break;
      default:
        break;
    }
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
  KIV_TRACE(checksTrace, 8) << name;
  hdr = nullptr;
  Found found;
  if (const PktCode code = messageIn(*pkt, ip, protocol, otherProtocol, hdrBytes, found); code != noError) {
    return code;
  }
  const Message& message = found.message;
  if (kWhole && !message.second.empty()) return tooShort();
  if (message.first.size() >= hdrBytes) {
    hdr = reinterpret_cast<Hdr*>(reinterpret_cast<U8*>(ip) +
                                 (message.first.data() - reinterpret_cast<const U8*>(ip)));
  }
  return check(std::as_const(*ip), found);
}

/// The message of a datagram that lies in the packet's first piece, in no fragment and behind no options or
/// extension headers, as nearly all do; empty for others. Nothing is said of it: the long way finds out what
/// is wrong.
template <typename Ip>
[[gnu::always_inline]] inline std::span<U8> plainMessage(const Pkt::Ptr& pkt, Ip* ip, U8 protocol) {
  if (!pkt || !ip || checksTrace.enabled(8)) [[unlikely]]
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
    if (hdrBytes != sizeof(Ip) || hdrBytes > bytes || ip->moreFrag() || ip->fragmentOffset() != 0) return {};
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
  return inPacket<false>("checkUdp", pkt, ip, ipProtoUdp, nonUdpProto, sizeof(UdpHdr), udpHdr, udp<Ip>);
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
  return inPacket<false>("checkTcp", pkt, ip, ipProtoTcp, nonTcpProto, kTcpBytes, tcpHdr, tcp<Ip>);
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
  return inPacket<false>("checkSctp", pkt, ip, ipProtoSctp, nonSctpProto, kSctpBytes, sctpHdr,
                         [](const Ip& hdr, const Found& found) { return sctp(hdr, found); });
}
template <typename Ip>
PktCode vrrpInPacket(const Pkt::Ptr& pkt, EthHdr* ethHdr, Ip* ip, VrrpHdr*& vrrpHdr) {
  return inPacket<true>(
      "checkVrrp", pkt, ip, ipProtoVrrp, nonVrrpProto, 8, vrrpHdr,
      [&](const Ip& hdr, const Found& found) { return vrrpCode(ethHdr, hdr, found.message.first); });
}
template <typename Hdr>
PktCode ndInPacket(const char* name, const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Hdr*& hdr, U8 type,
                   PktCode otherType) {
  return inPacket<true>(name, pkt, ip6Hdr, ipProtoIcmpv6, nextHdrIsNotIcmp6, sizeof(Hdr), hdr,
                        [&](const Ip6Hdr& ip6, const Found& found) {
                          const auto message = found.message.first;
                          if (type != 0 && !message.empty() && message[0] != type) {
                            return failed(otherType, "Icmp6 type is another one");
                          }
                          return nd(ip6, found);
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
  KIV_TRACE(checksTrace, 8) << "checkUdp";
  return udp(ipHdr, alone(ipHdr, message));
}
PktCode checkUdp(const Ip6Hdr& ip6Hdr, std::span<const U8> message) {
  KIV_TRACE(checksTrace, 8) << "checkUdp";
  return udp(ip6Hdr, alone(ip6Hdr, message));
}

PktCode checkTcp(const Pkt::Ptr& pkt, IpHdr* ipHdr, TcpHdr*& tcpHdr) {
  return tcpInPacket(pkt, ipHdr, tcpHdr);
}
PktCode checkTcp(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, TcpHdr*& tcpHdr) {
  return tcpInPacket(pkt, ip6Hdr, tcpHdr);
}
PktCode checkTcp(const IpHdr& ipHdr, std::span<const U8> message) {
  KIV_TRACE(checksTrace, 8) << "checkTcp";
  return tcp(ipHdr, alone(ipHdr, message));
}
PktCode checkTcp(const Ip6Hdr& ip6Hdr, std::span<const U8> message) {
  KIV_TRACE(checksTrace, 8) << "checkTcp";
  return tcp(ip6Hdr, alone(ip6Hdr, message));
}

PktCode checkSctp(const Pkt::Ptr& pkt, IpHdr* ipHdr, SctpHdr*& sctpHdr) {
  return sctpInPacket(pkt, ipHdr, sctpHdr);
}
PktCode checkSctp(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, SctpHdr*& sctpHdr) {
  return sctpInPacket(pkt, ip6Hdr, sctpHdr);
}
PktCode checkSctp(std::span<const U8> message) {
  KIV_TRACE(checksTrace, 8) << "checkSctp";
  return sctpCode({message});
}

PktCode checkIcmp(const Pkt::Ptr& pkt, IpHdr* ipHdr, IcmpHdr*& icmpHdr) {
  return inPacket<false>("checkIcmp", pkt, ipHdr, ipProtoIcmp, nonIcmpProto, 8, icmpHdr, icmp);
}
PktCode checkIcmp(std::span<const U8> message) {
  KIV_TRACE(checksTrace, 8) << "checkIcmp";
  return icmpCode({message});
}

PktCode checkIcmp6(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr) {
  return inPacket<false>("checkIcmp6", pkt, ip6Hdr, ipProtoIcmpv6, nextHdrIsNotIcmp6, sizeof(Icmp6Hdr),
                         icmp6Hdr, icmp6);
}
PktCode checkIcmp6(const Ip6Hdr& ip6Hdr, std::span<const U8> message) {
  KIV_TRACE(checksTrace, 8) << "checkIcmp6";
  return icmp6(ip6Hdr, alone(ip6Hdr, message));
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
  KIV_TRACE(checksTrace, 8) << "checkNd";
  return nd(ip6Hdr, alone(ip6Hdr, message));
}
PktCode checkMld(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr) {
  return inPacket<true>("checkMld", pkt, ip6Hdr, ipProtoIcmpv6, nextHdrIsNotIcmp6, sizeof(Icmp6Hdr), icmp6Hdr,
                        mld);
}
PktCode checkMld(const Ip6Hdr& ip6Hdr, std::span<const U8> message) {
  KIV_TRACE(checksTrace, 8) << "checkMld";
  return mld(ip6Hdr, alone(ip6Hdr, message));
}

PktCode checkIgmp(const Pkt::Ptr& pkt, IpHdr* ipHdr, IgmpHdr*& igmpHdr) {
  return inPacket<true>("checkIgmp", pkt, ipHdr, ipProtoIgmp, nonIgmpProto, kIgmpBytes, igmpHdr, igmp);
}
PktCode checkIgmp(const IpHdr& ipHdr, std::span<const U8> message) {
  KIV_TRACE(checksTrace, 8) << "checkIgmp";
  return igmp(ipHdr, alone(ipHdr, message));
}

PktCode checkVrrp(const Pkt::Ptr& pkt, EthHdr* ethHdr, IpHdr* ipHdr, VrrpHdr*& vrrpHdr) {
  return vrrpInPacket(pkt, ethHdr, ipHdr, vrrpHdr);
}
PktCode checkVrrp(const Pkt::Ptr& pkt, EthHdr* ethHdr, Ip6Hdr* ip6Hdr, VrrpHdr*& vrrpHdr) {
  return vrrpInPacket(pkt, ethHdr, ip6Hdr, vrrpHdr);
}
PktCode checkVrrp(const EthHdr* ethHdr, const IpHdr& ipHdr, std::span<const U8> message) {
  KIV_TRACE(checksTrace, 8) << "checkVrrp";
  return vrrpCode(ethHdr, ipHdr, message);
}
PktCode checkVrrp(const EthHdr* ethHdr, const Ip6Hdr& ip6Hdr, std::span<const U8> message) {
  KIV_TRACE(checksTrace, 8) << "checkVrrp";
  return vrrpCode(ethHdr, ip6Hdr, message);
}

PktCode checkArp(const Pkt::Ptr& pkt, EthHdr*& ethHdr, EthArpHdr*& arpHdr, const Prefix* connected) {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  KIV_TRACE(checksTrace, 8) << "checkArp";
  ethHdr = nullptr;
  arpHdr = nullptr;
  if (pkt->frontBytes() < sizeof(EthHdr) + kArpBytes) return tooShort();
  U8* const front = pkt->front();
  auto* const found = reinterpret_cast<EthHdr*>(front);
  if (found->typeOrLen() != ethTypeArpIp) return failed(wrongEthType, "EtherType is not ARP");
  ethHdr = found;
  arpHdr = reinterpret_cast<EthArpHdr*>(front + sizeof(EthHdr));
  return arpCode(ethHdr, {front + sizeof(EthHdr), kArpBytes}, connected);
}
PktCode checkArp(const EthHdr* ethHdr, std::span<const U8> message, const Prefix* connected) {
  KIV_TRACE(checksTrace, 8) << "checkArp";
  return arpCode(ethHdr, message, connected);
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
