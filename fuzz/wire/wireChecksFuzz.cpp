// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/WireChecks.h"

#include <vector>

#include "fuzz/packet/FuzzPkt.h"

// Every check over a packet in one or two pieces, and over octets alone; UDP and TCP against a second
// opinion.

namespace {

using namespace fuzz;

/// What is to be said of a message over IPv4 or IPv6, whose first octets are `ip`.
PktCode plainUdpOrTcp(const std::string& ip, const std::string& message, bool isIp6, bool isTcp) {
  const U8 protocol = isTcp ? 6 : 17;
  const std::size_t present = message.size();
  if (present < (isTcp ? 20u : 8u)) return isTcp ? badTcpLen : badUdpLen;
  std::size_t bytes = present;
  if (isTcp) {
    const std::size_t offset = (static_cast<U8>(message[12]) >> 4) * 4u;
    if (offset < 20 || offset > present) return badTcpLen;
  } else {
    bytes = word(message, 4);
    if (bytes < 8 || bytes > present) return badUdpLen;
    if (word(message, 6) == 0) return isIp6 ? PktCode(noUdpChecksum) : PktCode();
  }
  std::string pseudoHdr = isIp6 ? ip.substr(8, 32) : ip.substr(12, 8);
  pseudoHdr +=
      std::string{0, static_cast<char>(protocol), static_cast<char>(bytes >> 8), static_cast<char>(bytes)};
  if (plainChecksum(pseudoHdr + message.substr(0, bytes)) == 0) return noError;
  const auto partial = static_cast<U16>(~plainChecksum(pseudoHdr));
  if (word(message, isTcp ? 16 : 6) == partial) return isTcp ? partialTcpChecksum : partialUdpChecksum;
  return isTcp ? badTcpChecksum : badUdpChecksum;
}

template <typename Ip>
void addCodes(std::vector<PktCode>& codes, const Pkt::Ptr& pkt, Ip* ip) {
  UdpHdr* udp = nullptr;
  TcpHdr* tcp = nullptr;
  SctpHdr* sctp = nullptr;
  VrrpHdr* vrrp = nullptr;
  codes.push_back(checkUdp(pkt, ip, udp));
  KIV_ASSERT(codes.back() != noError || udp);
  codes.push_back(checkTcp(pkt, ip, tcp));
  KIV_ASSERT(codes.back() != noError || tcp);
  codes.push_back(checkSctp(pkt, ip, sctp));
  codes.push_back(checkVrrp(pkt, reinterpret_cast<EthHdr*>(pkt->front()), ip, vrrp));
}

/// What every check says of a frame, whatever is in it.
std::vector<PktCode> codesOf(const Pkt::Ptr& pkt) {
  auto* const ip = reinterpret_cast<IpHdr*>(pkt->front() + sizeof(EthHdr));
  auto* const ip6 = reinterpret_cast<Ip6Hdr*>(ip);
  EthHdr* eth = nullptr;
  EthArpHdr* arp = nullptr;
  IcmpHdr* icmp = nullptr;
  Icmp6Hdr* icmp6 = nullptr;
  Icmp6NsHdr* ns = nullptr;
  Icmp6NaHdr* na = nullptr;
  IgmpHdr* igmp = nullptr;
  std::vector<PktCode> codes = {checkArp(pkt, eth, arp),  checkIcmp(pkt, ip, icmp),
                                checkIgmp(pkt, ip, igmp), checkIcmp6(pkt, ip6, icmp6),
                                checkNd(pkt, ip6, icmp6), checkNs(pkt, ip6, ns),
                                checkNa(pkt, ip6, na),    checkMld(pkt, ip6, icmp6)};
  addCodes(codes, pkt, ip);
  addCodes(codes, pkt, ip6);
  return codes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  Input input(data, size);
  Input shape = input;
  input.number<U16>();
  const std::string frame = input.rest();
  const Pkt::Ptr pkt = packet(shape, frame);
  if (pkt->frontBytes() >= sizeof(EthHdr)) {
    // A packet in two pieces is as good or bad as in one, or not looked at.
    Input inOnePiece(nullptr, 0);
    const auto codes = codesOf(packet(inOnePiece, frame));
    const auto ofPieces = codesOf(pkt);
    for (std::size_t i = 0; i < codes.size(); ++i) {
      KIV_ASSERT(ofPieces[i] == codes[i] || ofPieces[i] == pktTooShort);
      KIV_ASSERT(PktCode::ofValue(codes[i].value()) == codes[i] &&
                 PktCode::ofText(codes[i].text()) == codes[i]);
    }
    KIV_ASSERT(pkt->stringValue() == frame);
  }
  if (frame.size() >= sizeof(Ip6Hdr)) {
    const auto& ip = *reinterpret_cast<const IpHdr*>(frame.data());
    const auto& ip6 = *reinterpret_cast<const Ip6Hdr*>(frame.data());
    const std::string message = frame.substr(sizeof(Ip6Hdr));
    const std::span<const U8> octets(reinterpret_cast<const U8*>(message.data()), message.size());
    if (message.size() <= 0xffff) {
      KIV_ASSERT(checkUdp(ip, octets) == plainUdpOrTcp(frame, message, false, false));
      KIV_ASSERT(checkUdp(ip6, octets) == plainUdpOrTcp(frame, message, true, false));
      KIV_ASSERT(checkTcp(ip, octets) == plainUdpOrTcp(frame, message, false, true));
      KIV_ASSERT(checkTcp(ip6, octets) == plainUdpOrTcp(frame, message, true, true));
    }
    checkNd(ip6, octets);
    checkMld(ip6, octets);
    checkIgmp(ip, octets);
    checkVrrp(nullptr, ip, octets);
    checkVrrp(nullptr, ip6, octets);
  }
  return 0;
}
