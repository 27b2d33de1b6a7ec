// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/Layers.h"

#include <algorithm>
#include <type_traits>

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/EthType.h"
#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/IpProtocolNumber.h"
#include "Wirl/wire/ArpHdr.h"
#include "Wirl/wire/BfdHdr.h"
#include "Wirl/wire/Crc32.h"
#include "Wirl/wire/GreHdr.h"
#include "Wirl/wire/IgmpHdr.h"
#include "Wirl/wire/Ip6ExtHdr.h"
#include "Wirl/wire/IpOptions.h"
#include "Wirl/wire/IpfixHdr.h"
#include "Wirl/wire/LldpTlvs.h"
#include "Wirl/wire/MplsHdr.h"
#include "Wirl/wire/NdHdr.h"
#include "Wirl/wire/PimHdr.h"
#include "Wirl/wire/SctpHdr.h"
#include "Wirl/wire/TcpHdr.h"
#include "Wirl/wire/VrrpHdr.h"
#include "Wirl/wire/VxlanHdr.h"
#include "Wirl/wire/detail/PseudoHdr.h"

namespace Wirl {

namespace {

// Numbers that the enumerations of EtherTypes and protocols have no names for.
constexpr U16 kMplsMulticast = 0x8848;
constexpr U16 kPppoeSession = 0x8864;
constexpr U16 kRarp = 0x8035;
constexpr U16 kTransparentEthernet = 0x6558;
constexpr U16 kPppInGre = 0x880b;
constexpr U16 kWccp = 0x883e;
constexpr U16 kVxlanGpePort = 4790;
constexpr U8 kIpInIp = 4;
constexpr U8 kIp6InIp = 41;
constexpr U8 kEtherIp = 97;
constexpr U8 kMplsInIp = 137;
constexpr U8 kEthernet = 143;

constexpr U16 kLongest8023 = 1500;

U16 word(const U8* at) noexcept {
  return static_cast<U16>(at[0] << 8 | at[1]);
}

/// The sum of octets as big-endian words, folded; an odd last one is a high octet.
U16 folded(U64 sum) noexcept {
  while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<U16>(sum);
}

inline U16 sumOf(std::span<const U8> bytes, U32 start) noexcept {
  if (bytes.size() <= 0xffff) [[likely]] {
    const auto* const at = reinterpret_cast<const char*>(bytes.data());
    return static_cast<U16>(~ipChecksumCalc(at, static_cast<U16>(bytes.size()), start).value());
  }
  U64 sum = start;
  while (bytes.size() > 0xfffe) {
    const auto* const at = reinterpret_cast<const char*>(bytes.data());
    sum += static_cast<U16>(~ipChecksumCalc(at, 0xfffe, 0).value());
    bytes = bytes.subspan(0xfffe);
  }
  const auto* const at = reinterpret_cast<const char*>(bytes.data());
  return static_cast<U16>(~ipChecksumCalc(at, static_cast<U16>(bytes.size()), folded(sum)).value());
}

}  // namespace

std::string_view layerKindText(LayerKind kind) noexcept {
  static constexpr std::string_view kTexts[] = {
      "none",   "eth",     "vlan",  "mim",    "llc",   "snap",    "pppoe",      "ppp",     "mpls",
      "pwcw",   "pwach",   "arp",   "ip",     "ip6",   "ip6opts", "ip6routing", "ip6frag", "ah",
      "esp",    "icmp",    "icmp6", "igmp",   "dvmrp", "tcp",     "udp",        "sctp",    "gre",
      "erspan", "etherip", "vxlan", "geneve", "pim",   "vrrp",    "bfd",        "ipfix",   "lldp"};
  static_assert(std::size(kTexts) == static_cast<std::size_t>(LayerKind::lldp) + 1);
  return kTexts[static_cast<U8>(kind)];
}

/// What most packets begin with. Each step of its own says the same. `kTags`: bytes between Ethernet and IP.
template <typename Ip, U32 kTags>
[[gnu::always_inline]] inline bool LayerIterator::ethIp() noexcept {
  constexpr bool kIs4 = std::is_same_v<Ip, IpHdr>;
  constexpr U32 kEth = sizeof(EthHdr), kAt = kEth + kTags, kBehind = kAt + sizeof(Ip);
  const U8* const frame = piece_;
  const U8* const hdr = frame + kAt;
  const U32 present = end_, wireBytes = wireEnd_;
  if (present < kBehind || (kIs4 ? hdr[0] != 0x45 : hdr[0] >> 4 != 6)) return false;
  const U32 length = word(hdr + (kIs4 ? 2 : 4));
  if (kIs4 && (length < sizeof(Ip) || (word(hdr + 6) & 0x3fff) != 0)) return false;
  if (!kIs4 && length == 0) return false;
  const U32 bytes = kIs4 ? length - U32{sizeof(Ip)} : length;
  if (bytes > wireBytes - kBehind) return false;
  const auto found = [frame](Layer& layer, LayerKind kind, U32 offset, U32 behind, U32 end, U32 wireEnd) {
    layer.kind = kind;
    layer.tunnels = 0;
    layer.cut = false;
    layer.error = noError;
    layer.further = noError;
    layer.offset = offset;
    layer.header = {frame + offset, behind - offset};
    layer.payload = {frame + behind, end - behind};
    layer.payloadBytes = wireEnd - behind;
  };
  constexpr U8 kFirst = kTags != 0 ? 0 : 1;
  found(found_[kFirst], LayerKind::eth, 0, kEth, present, wireBytes);
  if constexpr (kTags != 0) found(found_[1], LayerKind::vlan, kEth, kAt, present, wireBytes);
  const U32 wireEnd = kBehind + bytes, end = std::min(present, wireEnd);
  found(layer(), kIs4 ? LayerKind::ip : LayerKind::ip6, kAt, kBehind, end, wireEnd);
  if (kIs4 && ipChecksumCalc(reinterpret_cast<const char*>(hdr), sizeof(Ip), 0).value() != 0) {
    layer().error = badIpHdrChecksum;
  }
  pos_ = kBehind;
  end_ = end;
  wireEnd_ = wireEnd;
  ip_ = hdr;
  ipVersion_ = kIs4 ? 4 : 6;
  at_ = kFirst;
  count_ = kLast + 1 - kFirst;
  const U8 protocol = hdr[kIs4 ? 9 : 6];
  next_ = protocol == ipProtoTcp ? LayerKind::tcp : LayerKind::none;
  if (protocol != ipProtoTcp) ipProtocol(protocol);
  return true;
}

[[gnu::always_inline]] inline bool LayerIterator::ethIp() noexcept {
  if (end_ < sizeof(EthHdr) + sizeof(Eth8021QHdr)) return false;
  switch (word(piece_ + 12)) {
    case ethTypeIp:
      return ethIp<IpHdr, 0>();
    case ethTypeIp6:
      return ethIp<Ip6Hdr, 0>();
    case ethTypeDot1Q:
    case ethTypeDot1ad:
    case ethTypeQinQ: {
      const U16 type = word(piece_ + 16);
      if (type == ethTypeIp) return ethIp<IpHdr, sizeof(Eth8021QHdr)>();
      return type == ethTypeIp6 && ethIp<Ip6Hdr, sizeof(Eth8021QHdr)>();
    }
    default:
      return false;
  }
}

LayerIterator::LayerIterator(std::span<const U8> first, std::span<const U8> second,
                             const LayerOptions& options) noexcept
    : pieces_{first, second},
      piece_(first.data()),
      pieceEnd_(static_cast<U32>(first.size())),
      end_(static_cast<U32>(first.size() + second.size())),
      wireEnd_(std::max(end_, options.wireBytes)),
      next_(options.start),
      checksums_(options.checksums) {
  if (next_ == LayerKind::eth && second.empty() && ethIp()) return;
  layer().kind = LayerKind::none;
  layer().payload = {};
  if (pieceEnd_ == 0) secondPiece();
  step();
}

[[gnu::always_inline]] inline bool LayerIterator::take(U32 bytes) noexcept {
  layer().kind = next_;
  layer().tunnels = tunnels_;
  layer().offset = pos_;
  layer().error = noError;
  layer().further = noError;
  next_ = LayerKind::none;
  const U32 present = here();
  if (bytes > present) return takeCut(bytes);
  const U8* const hdr = at();
  layer().cut = false;
  layer().header = {hdr, bytes};
  layer().payload = {hdr + bytes, present - bytes};
  pos_ += bytes;
  layer().payloadBytes = wireEnd_ - pos_;
  if (pos_ == pieceEnd_) secondPiece();
  return true;
}

[[gnu::cold]] bool LayerIterator::takeCut(U32 bytes) noexcept {
  const U32 present = here();
  layer().cut = end_ < wireEnd_ && bytes <= wire() && present == end_ - pos_;
  if (!layer().cut) fail(pktTooShort);
  layer().header = {at(), present};
  layer().payload = {};
  layer().payloadBytes = 0;
  return false;
}

/// At the end of the first piece, and in the second one where there is one.
void LayerIterator::secondPiece() noexcept {
  const auto firstBytes = static_cast<U32>(pieces_[0].size());
  if (pos_ < firstBytes || pieces_[1].empty() || pieceEnd_ > firstBytes) return;
  piece_ = pieces_[1].data();
  pieceStart_ = firstBytes;
  pieceEnd_ = firstBytes + static_cast<U32>(pieces_[1].size());
  layer().payload = {at(), here()};
}

void LayerIterator::limit(U32 bytes) noexcept {
  if (bytes >= wire()) return;
  wireEnd_ = pos_ + bytes;
  end_ = std::min(end_, wireEnd_);
  layer().payload = layer().payload.first(std::min<std::size_t>(layer().payload.size(), here()));
  layer().payloadBytes = bytes;
}

void LayerIterator::tunnel(LayerKind inner) noexcept {
  if (tunnels_ == kMaxTunnels) return fail(tooManyLayers);
  ++tunnels_;
  next_ = inner;
}

void LayerIterator::step() noexcept {
  if (count_ == kMaxLayers) {  // told once, of a layer without bytes
    take(0);
    fail(tooManyLayers);
    return;
  }
  ++count_;
  if (next_ == LayerKind::tcp) return tcp();
  switch (next_) {
    case LayerKind::none:
      return;
    case LayerKind::eth:
      return eth();
    case LayerKind::vlan:
      if (take(sizeof(Eth8021QHdr))) typeOrLength(word(layer().header.data() + 2));
      return;
    case LayerKind::mim:
      if (take(18)) typeOrLength(word(layer().header.data() + 16));
      return;
    case LayerKind::llc:
      return llc();
    case LayerKind::snap:
      if (take(sizeof(Eth8022SnapHdr))) {
        const U8* const snap = layer().header.data();
        const U32 oui = U32{snap[0]} << 16 | word(snap + 1);
        const U16 type = word(snap + 3);
        if (oui == 0 || oui == 0x0000f8) ethType(type);
        if (oui == 0x0080c2 && (type == 1 || type == 7) && here() >= 2) {  // padding to words first
          skip(2);
          tunnel(LayerKind::eth);
        }
      }
      return;
    case LayerKind::pppoe:
      if (take(6)) {
        limit(word(layer().header.data() + 4));
        if (layer().header[1] == 0) next_ = LayerKind::ppp;
      }
      return;
    case LayerKind::ppp:
      return pppProtocol();
    case LayerKind::mpls:
      if (take(sizeof(MplsHdr))) {
        const auto mpls = layer().as<MplsHdr>();
        if (mpls->bottom()) return mplsPayload(mpls->label());
        next_ = LayerKind::mpls;
      }
      return;
    case LayerKind::pwcw:
      if (take(sizeof(PwControlWord))) tunnel(LayerKind::eth);
      return;
    case LayerKind::pwach:
      if (take(sizeof(PwAssociatedChannelHdr))) {
        const U16 channel = word(layer().header.data() + 2);
        if (channel == 0x21) tunnel(LayerKind::ip);
        if (channel == 0x57) tunnel(LayerKind::ip6);
        if (channel == 7 || channel == 0x22 || channel == 0x23) next_ = LayerKind::bfd;
      }
      return;
    case LayerKind::arp:
      if (here() < sizeof(ArpHdr)) {
        take(sizeof(ArpHdr));
      } else {
        const ArpHdr* const arp = viewAt<ArpHdr>({at(), here()}).get();
        if (arp->packetBytes() > wire()) {
          take(here());
          fail(badArpPkt);
        } else {
          take(arp->packetBytes());
        }
        next_ = LayerKind::none;
      }
      return;
    case LayerKind::ip:
      return ip();
    case LayerKind::ip6:
      return ip6();
    case LayerKind::ip6opts:
      return ip6Options();
    case LayerKind::ip6routing:
      if (here() >= 2 && (at()[1] + 1u) * 8 > wire()) {
        take(std::min(here(), 8u));
        return fail(badIp6ExtHdr), void(next_ = LayerKind::none);
      }
      if (take(here() < 2 ? 8 : (at()[1] + 1u) * 8)) ipProtocol(layer().header[0]);
      return;
    case LayerKind::ip6frag:
      if (take(sizeof(Ip6FragHdr))) {
        const auto frag = layer().as<Ip6FragHdr>();
        if (frag->more() || frag->offset() != 0) fragment_ = true;
        if (frag->offset() == 0) ipProtocol(frag->nextHeader());
      }
      return;
    case LayerKind::ah:
      return ah();
    case LayerKind::esp:
      return void(take(8));
    case LayerKind::icmp:
      return icmp();
    case LayerKind::icmp6:
      return icmp6();
    case LayerKind::igmp:
      return igmp();
    case LayerKind::tcp:
      return tcp();
    case LayerKind::udp:
      return udp();
    case LayerKind::sctp:
      return sctp();
    case LayerKind::gre:
      return gre();
    case LayerKind::erspan:
      return erspan();
    case LayerKind::vxlan:
      if (take(sizeof(VxlanHdr))) {
        if (!layer().as<VxlanHdr>()->vniValid()) fail(badVxlanFlags);
        const U8 inner = vxlanGpe_ ? layer().header[3] : U8{3};
        if (inner <= 3 && inner > 0) {
          tunnel(inner == 1 ? LayerKind::ip : inner == 2 ? LayerKind::ip6 : LayerKind::eth);
        }
      }
      return;
    case LayerKind::etherip:
      if (take(2)) tunnel(LayerKind::eth);
      return;
    case LayerKind::dvmrp:
      return void(take(sizeof(IgmpHdr)));
    case LayerKind::geneve:
      if (take(here() < 1 ? 8 : 8 + (at()[0] & 0x3fu) * 4)) {
        const U16 type = word(layer().header.data() + 2);
        if (type == kTransparentEthernet) {
          tunnel(LayerKind::eth);
        } else {
          const bool follow = tunnels_ < kMaxTunnels;
          tunnel(LayerKind::none);
          if (follow) ethType(type);
        }
      }
      return;
    case LayerKind::pim:
      return pim();
    case LayerKind::vrrp:
      return vrrp();
    case LayerKind::bfd:
      return bfd();
    case LayerKind::ipfix:
      if (take(sizeof(IpfixHdr)) && !IpfixSets(layer().payload).whole() && whole()) fail(pktTooShort);
      return;
    case LayerKind::lldp:
      return lldp();
  }
}

void LayerIterator::eth() noexcept {
  if (take(sizeof(EthHdr))) typeOrLength(word(layer().header.data() + 12));
}

/// What a type or length field leads to: behind a length LLC, unless the first octets are those of the oldest
/// frames without it.
void LayerIterator::typeOrLength(U16 typeOrLen) noexcept {
  if (typeOrLen > kLongest8023) return ethType(typeOrLen);
  if (typeOrLen > wire()) fail(badEthLen);
  limit(typeOrLen);
  if (here() >= 2 && word(at()) == 0xffff) return;
  next_ = LayerKind::llc;
}

void LayerIterator::ethType(U16 type) noexcept {
  switch (type) {
    case ethTypeIp:
      next_ = LayerKind::ip;
      break;
    case ethTypeIp6:
      next_ = LayerKind::ip6;
      break;
    case ethTypeArpIp:
    case kRarp:
      next_ = LayerKind::arp;
      break;
    case ethTypeDot1Q:
    case ethTypeQinQ:
    case ethTypeDot1ad:
      next_ = LayerKind::vlan;
      break;
    case ethTypeDot1ah:
      next_ = LayerKind::mim;
      break;
    case ethTypeMpls:
    case kMplsMulticast:
      next_ = LayerKind::mpls;
      break;
    case kPppoeSession:
      next_ = LayerKind::pppoe;
      break;
    case kTransparentEthernet:
      tunnel(LayerKind::eth);
      break;
    case ethTypeLldp:
      next_ = LayerKind::lldp;
      break;
    default:
      next_ = LayerKind::none;
  }
}

void LayerIterator::llc() noexcept {
  // A control field of one octet is that of an unnumbered frame, others have two.
  const U32 bytes = here() >= 3 && (at()[2] & 3) != 3 ? 4 : 3;
  if (!take(bytes) || bytes != 3) return;
  const U8* const hdr = layer().header.data();
  if (hdr[0] == Eth8022LlcHdr::snapSap && hdr[1] == Eth8022LlcHdr::snapSap) {
    next_ = LayerKind::snap;
  } else if (hdr[0] == 0x06 && (hdr[2] & 0xef) == Eth8022LlcHdr::pduControl) {
    next_ = LayerKind::ip;
  }
}

void LayerIterator::pppProtocol() noexcept {
  // Address and control may be left out, and the first octet of the protocol where it is 0.
  const U8* const ppp = at();
  U32 bytes = here() >= 2 && ppp[0] == 0xff && ppp[1] == 3 ? 2 : 0;
  bytes += here() > bytes && (ppp[bytes] & 1) != 0 ? 1u : 2u;
  if (!take(bytes)) return;
  const U8* const end = layer().header.data() + bytes;
  const U16 protocol = bytes % 2 != 0 ? end[-1] : word(end - 2);
  switch (protocol) {
    case 0x0021:
      return tunnel(LayerKind::ip);
    case 0x0057:
      return tunnel(LayerKind::ip6);
    case 0x0281:
    case 0x0283:
      return tunnel(LayerKind::mpls);
    default:
      return;
  }
}

/// Nothing says what the bottom of the stack carries but the first bits of it (RFC 4385, RFC 4928).
void LayerIterator::mplsPayload(U32 label) noexcept {
  if (here() == 0) return;
  const unsigned nibble = at()[0] >> 4;
  if (label == MplsHdr::associatedChannel || nibble == 1) {
    next_ = LayerKind::pwach;
  } else if (nibble == 4) {
    tunnel(LayerKind::ip);
  } else if (nibble == 6) {
    tunnel(LayerKind::ip6);
  } else if (nibble == 0 && here() > sizeof(PwControlWord)) {
    next_ = LayerKind::pwcw;
  } else if (here() >= sizeof(EthHdr) && word(at() + 12) > kLongest8023) {
    tunnel(LayerKind::eth);
  }
}

void LayerIterator::ip() noexcept {
  const U8* const hdr = at();
  const U32 present = here();
  if (present > 0 && hdr[0] >> 4 == 6) {
    next_ = LayerKind::ip6;
    return ip6();
  }
  if (present > 0 && hdr[0] >> 4 != 4) {
    take(std::min(present, 20u));
    next_ = LayerKind::none;
    return fail(nonIpHdr);
  }
  const U32 bytes = present > 0 ? (hdr[0] & 0x0fu) * 4 : 20;
  if (bytes < 20) {
    take(std::min(present, 20u));
    next_ = LayerKind::none;
    return fail(badIpHdrLen);
  }
  if (present >= 4) {
    const U32 total = word(hdr + 2);
    // A length of 0 is that of a segment that the device is to cut.
    if (total != 0 && total < bytes) {
      take(std::min(present, bytes));
      next_ = LayerKind::none;
      return fail(badIpPayloadLen);
    }
    const bool tooLong = total > wire();
    if (total != 0 && !tooLong) {
      wireEnd_ = pos_ + total;
      end_ = std::min(end_, wireEnd_);
    }
    if (!take(bytes)) {
      if (tooLong) fail(badIpPayloadLen);
      return;
    }
    if (tooLong) fail(badIpPayloadLen);
  } else if (!take(bytes)) {
    return;
  }
  if (ipChecksumCalc(reinterpret_cast<const char*>(hdr), static_cast<U16>(bytes), 0).value() != 0) {
    fail(badIpHdrChecksum);
  }
  if (bytes > 20 && !IpOptions(layer().header.subspan(20)).whole()) fail(badIpOptions);
  ip_ = hdr;
  ipVersion_ = 4;
  const U16 fragment = word(hdr + 6);
  fragment_ = (fragment & 0x3fff) != 0;
  jumbo_ = false;
  if ((fragment & 0x1fff) == 0) ipProtocol(hdr[9]);
}

void LayerIterator::ip6() noexcept {
  const U8* const hdr = at();
  const U32 present = here();
  if (present > 0 && hdr[0] >> 4 != 6) {
    take(std::min(present, 40u));
    next_ = LayerKind::none;
    return fail(nonIp6Hdr);
  }
  if (!take(40)) return;
  const U32 bytes = word(hdr + 4);
  if (bytes > wire()) fail(badIp6PayloadLen);
  // The length of a jumbogram is in an option.
  jumbo_ = bytes == 0 && hdr[6] == ipProtoIpv6HopByHop;
  if (!jumbo_) limit(bytes);
  ip_ = hdr;
  ipVersion_ = 6;
  fragment_ = false;
  ipProtocol(hdr[6]);
}

void LayerIterator::ip6Options() noexcept {
  const U32 bytes = here() < 2 ? 8 : (at()[1] + 1u) * 8;
  if (bytes > wire()) {
    take(std::min(here(), 8u));
    next_ = LayerKind::none;
    return fail(badIp6ExtHdr);
  }
  if (!take(bytes)) return;
  const Ip6Options options(layer().header.subspan(2));
  if (!options.whole()) fail(badIp6ExtHdr);
  if (jumbo_) {
    if (const auto jumbo = options.find<Ip6JumboOption>()) {
      // It counts from the IPv6 header on, and so these options too.
      const U32 payload = jumbo->payloadLength();
      if (payload <= 0xffff || payload < bytes || payload - bytes > wire()) {
        fail(badIp6PayloadLen);
      } else {
        limit(payload - bytes);
      }
    }
  }
  ipProtocol(layer().header[0]);
}

void LayerIterator::ipProtocol(U8 protocol) noexcept {
  switch (protocol) {  // some senders put extension headers of IPv6 behind an IPv4 header, too
    case ipProtoIpv6HopByHop:
    case ipProtoIpv6Opts:
      return next(LayerKind::ip6opts);
    case ipProtoIpv6Route:
      return next(LayerKind::ip6routing);
    case ipProtoIpv6Frag:
      return next(LayerKind::ip6frag);
    case ipProtoIcmp:
      return next(LayerKind::icmp);
    case ipProtoIgmp:
      return next(LayerKind::igmp);
    case kIpInIp:
      return tunnel(LayerKind::ip);
    case ipProtoTcp:
      return next(LayerKind::tcp);
    case ipProtoUdp:
      return next(LayerKind::udp);
    case kIp6InIp:
      return tunnel(LayerKind::ip6);
    case ipProtoGre:
      return next(LayerKind::gre);
    case ipProtoEsp:
      return next(LayerKind::esp);
    case ipProtoAh:
      return next(LayerKind::ah);
    case ipProtoIcmpv6:
      return next(LayerKind::icmp6);
    case kEtherIp:
      return next(LayerKind::etherip);
    case ipProtoPim:
      return next(LayerKind::pim);
    case ipProtoVrrp:
      return next(LayerKind::vrrp);
    case ipProtoSctp:
      return next(LayerKind::sctp);
    case kMplsInIp:
      return tunnel(LayerKind::mpls);
    case kEthernet:
      return tunnel(LayerKind::eth);
    default:
      return;
  }
}

void LayerIterator::ah() noexcept {
  const U32 bytes = here() < 2 ? 12 : at()[1] * 4u + 8;
  if (bytes < 12 || bytes > wire()) {
    take(std::min(here(), 12u));
    next_ = LayerKind::none;
    return fail(wire() + layer().header.size() < 12 ? pktTooShort : badAhLen);
  }
  if (take(bytes)) ipProtocol(layer().header[0]);
}

// Checksums.

/// Of the next bytes, which may lie in two pieces.
U16 LayerIterator::foldedSum(U32 bytes, U32 start) const noexcept {
  const U32 first = std::min(bytes, here());
  const U16 sum = sumOf({at(), first}, start);
  if (first == bytes) return sum;
  const std::span<const U8> rest = pieces_[1].first(bytes - first);
  const U16 second = sumOf(rest, 0);
  // Behind an odd octet the words of the rest are the other way round.
  return folded(U64{sum} + (first % 2 == 0 ? second : static_cast<U16>(second << 8 | second >> 8)));
}

[[gnu::always_inline]] inline U32 LayerIterator::pseudoSum(U32 bytes, U8 protocol) const noexcept {
  return ipVersion_ == 6 ? detail::pseudoHdrSum(*reinterpret_cast<const Ip6Hdr*>(ip_), bytes, protocol)
                         : detail::pseudoHdrSum(*reinterpret_cast<const IpHdr*>(ip_), bytes, protocol);
}

/// Whether all of the message is there that the innermost IP header says.
[[gnu::always_inline]] inline bool LayerIterator::mayCheck(U32 bytes) const noexcept {
  return checksums_ && !fragment_ && ip_ && bytes <= end_ - pos_;
}

[[gnu::always_inline]] inline bool LayerIterator::transportSumIsGood(U32 bytes, U8 protocol,
                                                                     U16 stored) const noexcept {
  const U32 pseudo = pseudoSum(bytes, protocol);
  if (bytes <= here() && bytes <= 0xffff) [[likely]] {
    const auto* const octets = reinterpret_cast<const char*>(at());
    if (ipChecksumCalc(octets, static_cast<U16>(bytes), pseudo).value() == 0) return true;
  } else if (foldedSum(bytes, folded(pseudo)) == 0xffff) {
    return true;
  }
  // Left to the device: the sum of the pseudo-header, which it then adds to.
  return stored == folded(pseudo);
}

void LayerIterator::tcp() noexcept {
  const U8* const hdr = at();
  const U32 present = here();
  const U32 wireBytes = wire();
  const U32 bytes = present < 20 ? 20 : (hdr[12] >> 4) * 4u;
  if (bytes < 20 || (bytes > wireBytes && wireBytes >= 20)) {
    take(std::min(present, 20u));
    next_ = LayerKind::none;
    return fail(fragment_ && bytes >= 20 ? PktCode(noError) : PktCode(badTcpLen));
  }
  const bool good =
      present < bytes || !mayCheck(wireBytes) || transportSumIsGood(wireBytes, ipProtoTcp, word(hdr + 16));
  if (!take(bytes)) return;
  if (!good) fail(badTcpChecksum);
  if (bytes > 20 && !TcpOptions(layer().header.subspan(20)).whole()) fail(badTcpOptions);
}

void LayerIterator::udp() noexcept {
  const U8* const hdr = at();
  const U32 wireBytes = wire();
  if (here() < 8) return void(take(8));
  U32 length = word(hdr + 4);
  if (length == 0 && ipVersion_ == 6) length = wireBytes;  // a jumbogram (RFC 2675)
  if (length < 8) {
    take(8);
    return fail(badUdpLen);
  }
  const bool tooLong = length > wireBytes;
  const U16 stored = word(hdr + 6), src = word(hdr), dst = word(hdr + 2);
  bool good = true;
  if (!tooLong && stored != 0 && mayCheck(length)) good = transportSumIsGood(length, ipProtoUdp, stored);
  take(8);
  if (tooLong && !fragment_) fail(badUdpLen);
  limit(length - 8);
  if (!good) fail(badUdpChecksum);
  udpPayload(src, dst);
  // Tunnels may leave it out (RFC 6935).
  if (stored == 0 && ipVersion_ == 6 && next_ == LayerKind::none) fail(noUdpChecksum);
}

/// The lower port says first what is inside.
void LayerIterator::udpPayload(U16 src, U16 dst) noexcept {
  if (wire() == 0) return;
  for (const U16 port : {std::min(src, dst), std::max(src, dst)}) {
    switch (port) {
      case VxlanHdr::udpPort:
      case kVxlanGpePort:
        vxlanGpe_ = port == kVxlanGpePort;
        return next(LayerKind::vxlan);
      case 6081:
        next_ = LayerKind::geneve;
        return;
      case 6635:
        tunnel(LayerKind::mpls);
        return;
      case BfdHdr::singleHopPort:
      case BfdHdr::multihopPort:
      case BfdHdr::lagPort:
      case 7784:
        next_ = LayerKind::bfd;
        return;
      case IpfixHdr::port:
        if (here() >= 2 && word(at()) == IpfixHdr::ipfixVersion) next_ = LayerKind::ipfix;
        return;
      case 4500:  // IPsec through address translation (RFC 3948): zeros begin a message of key exchange
        if (here() >= 8 && (at()[0] | at()[1] | at()[2] | at()[3]) != 0) next_ = LayerKind::esp;
        return;
      default:
        break;
    }
  }
}

void LayerIterator::sctp() noexcept {
  const U8* const hdr = at();
  const U32 bytes = wire();
  bool good = true;
  if (here() >= sizeof(SctpHdr) && mayCheck(bytes) && here() == bytes) {
    static constexpr U8 kZeros[4] = {};
    const U32 crc = crc32c({hdr + 12, bytes - 12}, crc32c(kZeros, crc32c({hdr, 8})));
    const U32 stored = hdr[8] | U32{hdr[9]} << 8 | U32{hdr[10]} << 16 | U32{hdr[11]} << 24;
    good = crc == stored;
  }
  if (!take(sizeof(SctpHdr))) return;
  if (!good) fail(badSctpChecksum);
  if (!fragment_ && whole() && layer().payload.size() == layer().payloadBytes &&
      !SctpChunks(layer().payload).whole()) {
    fail(badSctpLen);
  }
}

void LayerIterator::icmp() noexcept {
  const U32 bytes = wire();
  const bool good = !mayCheck(bytes) || foldedSum(bytes, 0) == 0xffff;
  if (!take(4)) return;
  if (bytes < 8) fail(badIcmpLen);
  if (!good) fail(badIcmpChecksum);
}

void LayerIterator::icmp6() noexcept {
  const U32 bytes = wire();
  const bool good =
      !mayCheck(bytes) || bytes < 4 || foldedSum(bytes, folded(pseudoSum(bytes, ipProtoIcmpv6))) == 0xffff;
  if (!take(4)) return;
  if (!good) fail(badIcmp6Checksum);
  U32 fixed = 0;
  switch (layer().header[0]) {
    case icmp6TypeRouterSolicitation:
      fixed = sizeof(Icmp6RsHdr);
      break;
    case icmp6TypeRouterAdvertisement:
      fixed = sizeof(Icmp6RaHdr);
      break;
    case icmp6TypeNeighborSolicitation:
      fixed = sizeof(Icmp6NsHdr);
      break;
    case icmp6TypeNeighborAdvertisement:
      fixed = sizeof(Icmp6NaHdr);
      break;
    case icmp6TypeRedirect:
      fixed = sizeof(Icmp6RedirectHdr);
      break;
    default:
      return;
  }
  if (fragment_ || !whole()) return;
  if (bytes < fixed) return fail(icmp6PayloadLenTooShortForHdr);
  if (layer().payload.size() < layer().payloadBytes) return;
  const NdOptions options(layer().payload.subspan(fixed - 4));
  auto option = options.begin();
  std::size_t taken = 0;
  for (; option != options.end(); ++option) taken += option->bytes.size();
  if (option.whole()) return;
  const auto rest = layer().payload.subspan(fixed - 4 + taken);
  fail(rest.size() >= 2 && rest[1] == 0 ? icmp6OptLenZero : icmp6OptLenExceedPayloadLen);
}

void LayerIterator::igmp() noexcept {
  const U32 bytes = wire();
  const bool good = !mayCheck(bytes) || foldedSum(bytes, 0) == 0xffff;
  const bool query3 = here() > 0 && at()[0] == IgmpHdr::query && bytes >= sizeof(Igmp3QueryHdr);
  // Other protocols whose messages are types of IGMP.
  if (here() > 0 && at()[0] == Pim1Hdr::igmpType) next_ = LayerKind::pim;
  if (here() > 0 && at()[0] == IgmpHdr::dvmrp) next_ = LayerKind::dvmrp;
  if (!take(query3 ? sizeof(Igmp3QueryHdr) : sizeof(IgmpHdr))) return;
  if (!good) fail(badIgmpChecksum);
  if (layer().header[0] == IgmpHdr::reportV3 && whole() && !fragment_) {
    U32 count = 0;
    for ([[maybe_unused]] const WireOption& record : IgmpRecords(layer().payload)) ++count;
    if (count < word(layer().header.data() + 6)) fail(badIgmpLen);
  }
}

void LayerIterator::pim() noexcept {
  const U8* const hdr = at();
  const U32 bytes = wire();
  const bool isRegister = here() >= 8 && (hdr[0] & 0x0f) == pimRegister;
  // Neither the datagram in a register nor its length is summed (RFC 7761, 4.9); some senders sum both.
  bool good = true;
  if (here() >= 4 && mayCheck(bytes)) {
    const auto sumFits = [&](U32 covered) {
      const U32 start = ipVersion_ == 6 ? folded(pseudoSum(covered, ipProtoPim)) : 0;
      return foldedSum(covered, start) == 0xffff;
    };
    good = sumFits(bytes) || (isRegister && sumFits(8));
  }
  if (!take(isRegister ? sizeof(PimRegisterHdr) : sizeof(PimHdr))) return;
  if (hdr[0] >> 4 != 2) fail(badPimVersion);
  if (!good) fail(badPimChecksum);
  if (isRegister && hdr[0] >> 4 == 2 && here() > 0) {
    const unsigned version = at()[0] >> 4;
    if (version == 4) tunnel(LayerKind::ip);
    if (version == 6) tunnel(LayerKind::ip6);
  }
}

void LayerIterator::vrrp() noexcept {
  const U8* const hdr = at();
  const U32 bytes = wire();
  bool good = true;
  if (here() >= 8 && mayCheck(bytes)) {
    const bool alone = ipVersion_ == 4 && foldedSum(bytes, 0) == 0xffff;
    good = alone || (hdr[0] >> 4 == 3 && foldedSum(bytes, folded(pseudoSum(bytes, ipProtoVrrp))) == 0xffff);
  }
  if (!take(sizeof(VrrpHdr))) return;
  const auto vrrp = layer().as<VrrpHdr>();
  if (vrrp->version() != 2 && vrrp->version() != 3) return fail(badVrrpVersion);
  const U32 addresses = vrrp->addressCount() * (ipVersion_ == 6 ? 16u : 4u);
  if (layer().payloadBytes < addresses + (vrrp->version() == 2 ? VrrpHdr::authBytes : 0u)) fail(badVrrpLen);
  if (!good) fail(badVrrpChecksum);
}

void LayerIterator::gre() noexcept {
  const U8* const hdr = at();
  if (here() < sizeof(GreHdr)) return void(take(sizeof(GreHdr)));
  const auto* const gre = reinterpret_cast<const GreHdr*>(hdr);
  const U32 present = here();
  U32 bytes = gre->headerBytes();
  if (gre->routingPresent()) {  // entries of family, offset, length, to one of zeros
    for (bool last = false; !last && bytes + 4 <= present;) {
      last = word(hdr + bytes) == 0 && hdr[bytes + 3] == 0;
      bytes += 4u + hdr[bytes + 3];
    }
  }
  const bool good =
      !gre->hasChecksum() || !gre->checksumPresent() || !mayCheck(wire()) || foldedSum(wire(), 0) == 0xffff;
  const U16 protocol = gre->protocol();
  const bool seq = gre->seqPresent();
  const bool versionIsBad = gre->version() > 1;
  if (!take(bytes)) return;
  if (versionIsBad) fail(badGreVersion);
  if (!good) fail(badGreChecksum);
  if (wire() == 0) return;
  switch (protocol) {
    case kPppInGre:
      return tunnel(LayerKind::ppp);
    case ErspanHdr::greProtocol:  // type I has no header, and no sequence number
      if (!seq) return tunnel(LayerKind::eth);
      [[fallthrough]];
    case ErspanHdr::greProtocol3:
      next_ = LayerKind::erspan;
      return;
    case kWccp:  // with a header of its own in front of the datagram, or without
      if (here() > 4 && at()[0] >> 4 != 4) skip(4);
      return tunnel(LayerKind::ip);
    case ethTypeIp:
      return tunnel(LayerKind::ip);
    case ethTypeIp6:
      return tunnel(LayerKind::ip6);
    case ethTypeArpIp:
      return tunnel(LayerKind::arp);
    case ethTypeMpls:
    case kMplsMulticast:
      return tunnel(LayerKind::mpls);
    case kTransparentEthernet:
      return tunnel(LayerKind::eth);
    default:
      return;
  }
}

void LayerIterator::erspan() noexcept {
  const U8* const hdr = at();
  const U32 present = here();
  U32 bytes = sizeof(ErspanHdr);
  if (present > 0 && hdr[0] >> 4 == 2) {
    // Type III, with another 8 bytes where its last bit says so.
    bytes = present >= 12 && (hdr[11] & 1) != 0 ? 20 : 12;
  }
  if (take(bytes)) tunnel(LayerKind::eth);
}

void LayerIterator::bfd() noexcept {
  const U8* const hdr = at();
  const U32 bytes = here() >= 4 ? hdr[3] : sizeof(BfdHdr);
  const U32 wireBytes = wire();
  const bool lengthIsBad = bytes < sizeof(BfdHdr) || bytes > wireBytes;
  if (!take(lengthIsBad ? sizeof(BfdHdr) : bytes)) {
    if (lengthIsBad && wireBytes >= 4 && whole()) layer().error = badBfdLen;
    return;
  }
  if (hdr[0] >> 5 != 1) fail(badBfdVersion);
  if (lengthIsBad) fail(badBfdLen);
}

void LayerIterator::lldp() noexcept {
  const LldpTlvs tlvs({at(), here()});
  U32 bytes = 0;
  unsigned next = lldpChassisId;
  auto tlv = tlvs.begin();
  for (; tlv != tlvs.end(); ++tlv) {
    if (next <= lldpTtl && tlv->type == next) ++next;
    bytes += static_cast<U32>(tlv->bytes.size());
    if (tlv->type == lldpEnd) break;
  }
  const bool ended = tlv != tlvs.end() || bytes == here();
  const bool wasWhole = whole() && here() == end_ - pos_;
  take(ended ? bytes : here());
  next_ = LayerKind::none;
  if (wasWhole && (!ended || next <= lldpTtl)) fail(badLldpTlv);
}

Layers layers(const Pkt::Ptr& pkt, const LayerOptions& options) noexcept {
  std::span<const U8> pieces[Pkt::maxIovecs_];
  const struct ::iovec* const vector = pkt->iovecs();
  unsigned count = 0;
  for (U32 i = 0; i < pkt->numIovecs(); ++i) {
    if (vector[i].iov_len == 0) continue;
    pieces[count++] = {static_cast<const U8*>(vector[i].iov_base), vector[i].iov_len};
  }
  return Layers(pieces[0], pieces[1], options);
}

}  // namespace Wirl
