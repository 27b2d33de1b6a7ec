// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "Kiv/Trace.h"
#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/value/Prefix.h"
#include "Wirl/wire/WireErrors.h"
#include "Wirl/wire/detail/PseudoHdr.h"

namespace Wirl::detail {

// The rules for messages that IP and Ethernet carry. The checks and `layers()` both ask these, so that a
// message has the same code in both.

extern Kiv::TraceHandle checksTrace;
/// Returns the code, and traces why.
[[gnu::noinline, gnu::cold]] PktCode failed(PktCode code, const char* text);

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

inline U16 wordAt(std::span<const U8> octets, std::size_t at) noexcept {
  return static_cast<U16>(octets[at] << 8 | octets[at + 1]);
}

/// Folded sum of octets in one piece.
[[gnu::always_inline]] inline U16 sumOf(std::span<const U8> octets, U32 start) {
  constexpr std::size_t kMost = 0xfffe;
  const auto* data = reinterpret_cast<const char*>(octets.data());
  std::size_t bytes = octets.size();
  for (; bytes > kMost; bytes -= kMost, data += kMost) start = folded(ipChecksumChunk(data, kMost, start));
  return static_cast<U16>(~ipChecksumCalc(data, static_cast<U16>(bytes), start).value());
}
U16 sumOf(const Message& message, U32 start);

/// The sum of a message whose checksum is right, the checksum included.
constexpr U16 kRight = 0xffff;

// Sums of the pseudo-header are those of addresses, protocol and length.

constexpr U32 kTcpBytes = 20;
constexpr std::size_t kSctpBytes = 12;
constexpr std::size_t kIgmpBytes = 8;
constexpr std::size_t kArpBytes = 28;
constexpr std::size_t kSctpChecksumAt = 8;

/// `addrs`: sum of the addresses in the pseudo-header.
PktCode udpCode(bool over6, U32 addrs, const Message& message);
PktCode tcpCode(U32 addrs, const Message& message);
/// Of a message with a sum that is not right: whether it lacks just what a device fills in.
PktCode sumCode(U16 checksum, U32 pseudoHdr, PktCode partial, PktCode bad);
/// Whether a UDP length of 0 is that of a jumbogram (RFC 2675).
constexpr bool isUdpJumbo(std::size_t messageBytes) noexcept {
  return messageBytes > 0xffff;
}
U32 sctpCrc(const Message& message);
PktCode sctpCode(const Message& message);
PktCode icmpCode(const Message& message);
PktCode icmp6Code(U32 addrs, const Message& message);

/// Fixed bytes of a neighbour-discovery message; 0 for other types of ICMPv6.
std::size_t ndBytes(U8 type) noexcept;
/// Neighbour discovery: the hop limit, and all that comes behind the checksum.
PktCode ndHopLimitCode(const Ip6Hdr& ip6);
PktCode ndRules(const Ip6Hdr& ip6, std::span<const U8> message);
bool isMld(U8 type) noexcept;
/// Listener discovery, but for the checksum. `Alert`: whether a router alert is among the hop-by-hop options.
enum class Alert : U8 { present, missing, unknown };
PktCode mldRules(const Ip6Hdr& ip6, Alert alert, std::span<const U8> message);
PktCode igmpSumCode(std::span<const U8> message);
PktCode igmpRules(const IpHdr& ip, std::span<const U8> message);
/// The checksum of version 3 over IPv4 may be with or without a pseudo-header.
bool vrrpIsSummed(bool over6, U32 addrs, unsigned version, const Message& message);
PktCode vrrpCode(const EthHdr* ethHdr, const IpHdr& ip, std::span<const U8> message);
PktCode vrrpCode(const EthHdr* ethHdr, const Ip6Hdr& ip6, std::span<const U8> message);
PktCode arpCode(const EthHdr* ethHdr, std::span<const U8> message, const Prefix* connected);

}  // namespace Wirl::detail
