// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/Layers.h"

#include <algorithm>
#include <limits>
#include <type_traits>

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/EthType.h"
#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/IpProtocolNumber.h"
#include "Wirl/wire/ArpHdr.h"
#include "Wirl/wire/BfdHdr.h"
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
#include "Wirl/wire/detail/MessageChecks.h"
#include "Wirl/wire/detail/RoutedAddrs.h"

namespace Wirl {

namespace {

// Numbers that the enumerations of EtherTypes and protocols have no names for.
constexpr U16 kMplsMulticast = 0x8848;
constexpr U16 kPppoeSession = 0x8864;
constexpr U16 kRarp = 0x8035;
constexpr U16 kTransparentEthernet = 0x6558;
constexpr U16 kTrill = 0x22f3;
constexpr U16 kJumboLlc = 0x8870;
constexpr U16 kMacsec = 0x88e5;
constexpr U16 kMetaData = 0x8909;
constexpr U16 kVnTag = 0x8926;
constexpr U16 kHsr = 0x892f;
constexpr U16 kETag = 0x893f;
constexpr U16 kLldpToo = 0x8942;
constexpr U16 kNsh = 0x894f;
constexpr U16 kRTag = 0xf1c1;
constexpr U16 kWccp = 0x883e;  // in GRE
constexpr U16 kEoip = 0x6400;  // in GRE
constexpr U8 kIpInIp = 4;
constexpr U8 kIp6InIp = 41;
constexpr U8 kEtherIp = 97;
constexpr U8 kMplsInIp = 137;
constexpr U8 kShim6 = 140;
constexpr U8 kEthernet = 143;
constexpr U16 kL2tpPort = 1701;
constexpr U16 kGtpPort = 2152;
constexpr U16 kTeredoPort = 3544;
constexpr U16 kLispPort = 4341;
constexpr U16 kIpsecPort = 4500;
constexpr U16 kGrePort = 4754;
constexpr U16 kVxlanGpePort = 4790;
constexpr U16 kGenevePort = 6081;
constexpr U16 kMplsPort = 6635;
constexpr U16 kSeamlessBfdPort = 7784;

/// UDP ports of other well-known protocols, as far as they are below one that the walk follows. The lower one
/// of two ports says what is inside, so that an answer from 53 to 4789 is one of DNS.
constexpr U16 kOtherPorts[] = {
    7,    13,   19,   37,   49,   53,   67,   68,   69,   88,   111,  123,  137,  138,  161,  162,  173,
    177,  213,  269,  319,  320,  389,  427,  434,  464,  473,  496,  500,  502,  513,  514,  520,  521,
    524,  525,  539,  546,  547,  573,  623,  631,  654,  664,  698,  699,  701,  750,  853,  854,  910,
    921,  925,  1001, 1044, 1052, 1069, 1089, 1090, 1091, 1101, 1113, 1153, 1194, 1293, 1547, 1628, 1629,
    1645, 1646, 1700, 1718, 1719, 1745, 1755, 1812, 1813, 1900, 1985, 2029, 2048, 2055, 2067, 2099, 2123,
    2157, 2190, 2221, 2222, 2231, 2246, 2268, 2269, 2313, 2345, 2424, 2427, 2428, 2727, 2887, 2944, 2945,
    2948, 2949, 2960, 3000, 3121, 3130, 3205, 3222, 3250, 3333, 3343, 3357, 3386, 3389, 3452, 3455, 3478,
    3483, 3503, 3540, 3567, 3622, 3671, 3785, 3792, 3799, 3804, 3819, 3863, 3956, 4000, 4011, 4058, 4305,
    4306, 4307, 4342, 4533, 4534, 4551, 4555, 4556, 4569, 4665, 4672, 4713, 4729, 4791, 4991, 5000, 5001,
    5031, 5050, 5060, 5072, 5094, 5246, 5247, 5264, 5265, 5350, 5351, 5353, 5355, 5404, 5405, 5436, 5555,
    5567, 5678, 5683, 5684, 5868, 6060, 6073, 6084, 6087, 6118, 6160, 6343, 6543, 6666, 6696, 6970, 7000,
    7001, 7002, 7003, 7004, 7005, 7006, 7007, 7008, 7009, 7010, 7021, 7074, 7075, 7255, 7275};
static_assert(std::is_sorted(std::begin(kOtherPorts), std::end(kOtherPorts)), "searched by halves");

constexpr U16 kLongest8023 = 1500;

U16 word(const U8* at) noexcept {
  return static_cast<U16>(at[0] << 8 | at[1]);
}

/// Whether an EtherType or a length of 802.3 may stand there, the header of a frame of `bytes` being over.
bool isLikelyType(U16 type, U32 bytes) noexcept {
  switch (type) {
    case ethTypeIp:
    case ethTypeIp6:
    case ethTypeArpIp:
    case ethTypeDot1Q:
    case ethTypeDot1ad:
    case ethTypeQinQ:
    case ethTypeMpls:
    case kMplsMulticast:
    case kPppoeSession:
    case kPppoeSession - 1:
    case ethTypeLldp:
      return true;
    default:
      return type > 2 && type <= kLongest8023 && (type == bytes || (type < bytes && bytes == 46));
  }
}

/// Whether others name the layer even where it has no bytes.
bool showsEmpty(LayerKind kind) noexcept {
  switch (kind) {
    case LayerKind::icmp6:
    case LayerKind::ip6:
    case LayerKind::ip6routing:
    case LayerKind::esp:
      return true;
    default:
      return false;
  }
}

}  // namespace

std::string_view layerKindText(LayerKind kind) noexcept {
  static constexpr std::string_view kTexts[] = {
      "none",    "eth",    "vlan",   "mim",     "tag",   "isl",    "trill", "macsec", "llc",     "snap",
      "pppoe",   "ppp",    "mpls",   "pwcw",    "pwach", "arp",    "ip",    "ip6",    "ip6opts", "ip6routing",
      "ip6frag", "ip6ext", "ah",     "esp",     "icmp",  "icmp6",  "igmp",  "dvmrp",  "tcp",     "udp",
      "sctp",    "gre",    "erspan", "etherip", "vxlan", "geneve", "nsh",   "gtp",    "teredo",  "l2tp",
      "lisp",    "pim",    "vrrp",   "bfd",     "ipfix", "lldp"};
  static_assert(std::size(kTexts) == static_cast<std::size_t>(LayerKind::lldp) + 1);
  return kTexts[static_cast<U8>(kind)];
}

/// Whether a segment in one piece behind an IP header without options, with a header of a length that can be,
/// has nothing wrong with it.
template <typename Ip>
[[gnu::always_inline]] inline bool LayerIterator::isGoodTcp(const U8* segment, U32 bytes) const noexcept {
  const U32 hdrBytes = (segment[12] >> 4) * 4u;
  if (hdrBytes > detail::kTcpBytes &&
      !TcpOptions({segment + detail::kTcpBytes, hdrBytes - detail::kTcpBytes}).whole()) {
    return false;
  }
  if (!checksums_) return true;
  // The addresses lie in front of the segment: one sum is taken over both.
  constexpr U32 kAddrs = sizeof(Ip) == sizeof(IpHdr) ? 8 : 32;
  if (bytes > std::numeric_limits<U16>::max() - kAddrs)
    return false;  // its own step adds them up in two parts
  return ipChecksumCalc(reinterpret_cast<const char*>(segment - kAddrs), static_cast<U16>(kAddrs + bytes),
                        ipProtoTcp + bytes)
             .value() == 0;
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
    layer.generic = false;
    layer.offset = offset;
    layer.header = {frame + offset, behind - offset};
    layer.payload = {frame + behind, end - behind};
    layer.payloadBytes = wireEnd - behind;
  };
  const U32 wireEnd = kBehind + bytes, end = std::min(present, wireEnd);
  const U8 protocol = hdr[kIs4 ? 9 : 6];
  const U8* const tcp = frame + kBehind;
  U32 tcpBytes = 0;
  if (protocol == ipProtoTcp && end == wireEnd && bytes >= detail::kTcpBytes) {
    tcpBytes = (tcp[12] >> 4) * 4u;
    if (tcpBytes < detail::kTcpBytes || tcpBytes > bytes || !isGoodTcp<Ip>(tcp, bytes)) {
      tcpBytes = 0;
    }
  }
  ip_ = hdr;
  ipVersion_ = kIs4 ? 4 : 6;
  end_ = end;
  wireEnd_ = wireEnd;
  // In places that the compiler knows, which takes less time than to count.
  const auto layersFrom = [&]<U8 kFirst>(std::integral_constant<U8, kFirst>) {
    at_ = kFirst;
    count_ = kLast + 1 - kFirst;
    found(found_[kFirst], LayerKind::eth, 0, kEth, present, wireBytes);
    if constexpr (kTags != 0) found(found_[kFirst + 1], LayerKind::vlan, kEth, kAt, present, wireBytes);
    Layer& ip = found_[kFirst + (kTags != 0 ? 2 : 1)];
    found(ip, kIs4 ? LayerKind::ip : LayerKind::ip6, kAt, kBehind, end, wireEnd);
    if (kIs4 && ipChecksumCalc(reinterpret_cast<const char*>(hdr), sizeof(Ip), 0).value() != 0) {
      ip.error = badIpHdrChecksum;
    }
  };
  constexpr U8 kIpLast = kLast - (kTags != 0 ? 2 : 1);
  if (tcpBytes != 0) {
    layersFrom(std::integral_constant<U8, kIpLast - 1>());
    found(layer(), LayerKind::tcp, kBehind, kBehind + tcpBytes, end, wireEnd);
    next_ = LayerKind::none;
    return true;
  }
  layersFrom(std::integral_constant<U8, kIpLast>());
  frame_ = frame;
  pos_ = kBehind;
  next_ = LayerKind::none;
  ipProtocol(protocol);
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
  layer().generic = false;
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
  if (!layer().cut && !unsized_) fail(pktTooShort);
  layer().header = {at(), present};
  layer().payload = {};
  layer().payloadBytes = 0;
  return false;
}

[[gnu::cold]] void LayerIterator::stop(U32 bytes, PktCode code) noexcept {
  take(std::min(here(), bytes));
  next_ = LayerKind::none;
  fail(code);
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
  frame_ = nullptr;
  variant_ = false;
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
      if (take(sizeof(Eth8021QHdr))) {
        const U16 type = word(layer().header.data() + 2);
        // A service tag announces types alone.
        if (tagType_ == ethTypeDot1ad && type <= kLongest8023) return;
        typeOrLength(type);
      }
      return;
    case LayerKind::mim:
      if (take(18)) {
        if (const U16 type = word(layer().header.data() + 16); type > kLongest8023) ethType(type);
      }
      return;
    case LayerKind::tag:
      return etherTypeTag();
    case LayerKind::isl:
      if (take(26)) tunnel(LayerKind::eth);
      return;
    case LayerKind::trill:
      if (take(here() < 2 ? 6 : 6 + ((at()[0] & 7u) << 2 | at()[1] >> 6) * 4)) tunnel(LayerKind::eth);
      return;
    case LayerKind::macsec:
      return macsec();
    case LayerKind::llc:
      return llc();
    case LayerKind::snap:
      if (take(sizeof(Eth8022SnapHdr))) {
        const U8* const snap = layer().header.data();
        const U32 oui = U32{snap[0]} << 16 | word(snap + 1);
        const U16 type = word(snap + 3);
        if (variant_) return;
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
        next_ = LayerKind::ppp;
        variant_ = true;
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
      return arp();
    case LayerKind::ip:
      return ip();
    case LayerKind::ip6:
      return ip6();
    case LayerKind::ip6opts:
      return ip6Options();
    case LayerKind::ip6routing:
      return ip6Routing();
    case LayerKind::ip6ext:
      if (here() >= 2 && (at()[1] + 1u) * 8 > wire()) return stop(8, badIp6ExtHdr);
      if (take(here() < 2 ? 8 : (at()[1] + 1u) * 8)) ipProtocol(layer().header[0]);
      return;
    case LayerKind::ip6frag:
      if (take(sizeof(Ip6FragHdr))) {
        const auto frag = layer().as<Ip6FragHdr>();
        if (frag->more() || frag->offset() != 0) fragment_ = true;
        if (jumbo_) fail(badIp6Jumbo);
        if (frag->offset() == 0 || ipVersion_ == 4) ipProtocol(frag->nextHeader());
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
      return vxlan();
    case LayerKind::nsh:
      return nsh();
    case LayerKind::gtp:
      return gtp();
    case LayerKind::teredo:
      return teredo();
    case LayerKind::l2tp:
      return l2tp();
    case LayerKind::lisp:
      if (take(8) && here() > 0) {
        const unsigned version = at()[0] >> 4;
        if (version == 4) tunnel(LayerKind::ip);
        if (version == 6) tunnel(LayerKind::ip6);
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
      return ipfix();
    case LayerKind::lldp:
      return lldp();
  }
}

void LayerIterator::eth() noexcept {
  constexpr U8 kIslAddr[] = {0x00, 0x0c, 0x00, 0x00};
  const U8* const hdr = at();
  if (here() >= 26 && (hdr[0] | 2) == 3 && std::equal(kIslAddr, kIslAddr + 4, hdr + 1)) {
    next_ = LayerKind::isl;
    return step();
  }
  if (!take(sizeof(EthHdr))) return;
  frame_ = hdr;
  tagType_ = 0;
  typeOrLength(word(hdr + 12));
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
  tagType_ = type;
  switch (type) {
    case ethTypeIp:
      next_ = LayerKind::ip;
      variant_ = true;
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
    case kLldpToo:
      next_ = LayerKind::lldp;
      break;
    case kMetaData:
    case kVnTag:
    case kHsr:
    case kETag:
    case kRTag:
      next_ = LayerKind::tag;
      break;
    case kTrill:
      next_ = LayerKind::trill;
      break;
    case kJumboLlc:
      next_ = LayerKind::llc;
      break;
    case kMacsec:
      next_ = LayerKind::macsec;
      break;
    case kNsh:
      next_ = LayerKind::nsh;
      break;
    default:
      next_ = LayerKind::none;
  }
}

void LayerIterator::etherTypeTag() noexcept {
  const U32 bytes = tagType_ == kETag || tagType_ == kMetaData ? 8 : 6;
  if (!take(bytes)) return;
  const U16 type = word(layer().header.data() + bytes - 2);
  if (type > kLongest8023) ethType(type);
}

void LayerIterator::macsec() noexcept {
  constexpr U32 kIcv = 16;
  constexpr U8 kHasSci = 0x20, kEncrypted = 0x08, kChanged = 0x04;
  const U8 control = here() > 0 ? at()[0] : U8{0};
  const U32 bytes = (control & kHasSci) != 0 ? 14 : 6;
  if ((control & (kEncrypted | kChanged)) != 0 || wire() < bytes + 2 + kIcv) return void(take(bytes));
  if (!take(bytes + 2)) return;
  limit(wire() - kIcv);
  if (const U16 type = word(layer().header.data() + bytes); type > kLongest8023) ethType(type);
}

void LayerIterator::llc() noexcept {
  // A control field of one octet is that of an unnumbered frame, others have two.
  const U8 control = here() >= 3 ? at()[2] : Eth8022LlcHdr::pduControl;
  if (!take((control & 3) != 3 ? 4 : 3)) return;
  const U8* const hdr = layer().header.data();
  // Only frames with information carry another protocol.
  const bool carries = control == Eth8022LlcHdr::pduControl || (control & 1) == 0;
  if (hdr[0] == Eth8022LlcHdr::snapSap && hdr[1] == Eth8022LlcHdr::snapSap) {
    next_ = LayerKind::snap;
    variant_ = !carries;
  } else if (hdr[0] == 0x06 && carries) {
    next_ = LayerKind::ip;
    variant_ = false;
  }
}

void LayerIterator::pppProtocol() noexcept {
  // Address and control may be left out, and the first octet of the protocol where it is 0.
  const U8* const ppp = at();
  U32 bytes = !variant_ && here() >= 2 && ppp[0] == 0xff && ppp[1] == 3 ? 2 : 0;
  bytes += here() > bytes && (ppp[bytes] & 1) != 0 ? 1u : 2u;
  if (!take(bytes)) return;
  const U8* const end = layer().header.data() + bytes;
  const U16 protocol = bytes % 2 != 0 ? end[-1] : word(end - 2);
  switch (protocol) {
    case 0x0021:
    case ethTypeIp:
      return tunnel(LayerKind::ip);
    case 0x0057:
    case ethTypeIp6:
      return tunnel(LayerKind::ip6);
    case 0x004b:
      return tunnel(LayerKind::llc);
    case 0x0031:  // bridging (RFC 3518): flags, the kind of network, and for some an identifier first
      if (here() >= 2 && (at()[1] == 1 || at()[1] == 0x81)) {
        skip((at()[0] & 0x40) != 0 && here() >= 6 ? 6 : 2);
        tunnel(LayerKind::eth);
      }
      return;
    case 0x0281:
    case 0x0283:
      return tunnel(LayerKind::mpls);
    default:
      return;
  }
}

/// Nothing says what the bottom of the stack carries but the first bits of it (RFC 4385, RFC 4928).
void LayerIterator::mplsPayload(U32 label) noexcept {
  constexpr U32 kOamAlert = 14;  // RFC 3429
  if (here() == 0 || label == kOamAlert) return;
  const unsigned nibble = at()[0] >> 4;
  if (label == MplsHdr::associatedChannel || nibble == 1) {
    next_ = LayerKind::pwach;
  } else if (nibble == 4) {
    tunnel(LayerKind::ip);
  } else if (nibble == 6) {
    tunnel(LayerKind::ip6);
  } else if (nibble == 0 && here() > sizeof(PwControlWord)) {
    // A control word, or none, and an address that begins with 0.
    constexpr U32 kWord = sizeof(PwControlWord), kHdr = sizeof(EthHdr);
    const auto octet = [this](U32 offset) {
      return offset < here() ? at()[offset] : pieces_[1][offset - here()];
    };
    const auto isFrame = [&](U32 offset) {
      if (end_ - pos_ < offset + kHdr) return false;
      const auto type = static_cast<U16>(octet(offset + 12) << 8 | octet(offset + 13));
      return isLikelyType(type, wire() - offset - kHdr);
    };
    if (isFrame(0) && !isFrame(kWord)) {
      tunnel(LayerKind::eth);
    } else {
      next_ = LayerKind::pwcw;
    }
  }
}

void LayerIterator::ip() noexcept {
  const U8* const hdr = at();
  const U32 present = here();
  if (present > 0 && hdr[0] >> 4 == 6) {
    if (variant_ && count_ > 1) {  // announced as IPv4, which it is not
      take(0);
      fail(nonIpHdr);
      return next(LayerKind::ip6);
    }
    next_ = LayerKind::ip6;
    return ip6();
  }
  if (present > 0 && hdr[0] >> 4 != 4) return stop(20, nonIpHdr);
  const U32 bytes = present > 0 ? (hdr[0] & 0x0fu) * 4 : 20;
  if (bytes < 20) return stop(20, badIpHdrLen);
  if (present >= 4) {
    const U32 total = word(hdr + 2);
    // A length of 0 is that of a segment that the device is to cut.
    if (total != 0 && total < bytes) {
      return stop(bytes, badIpPayloadLen);
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
    if (ipChecksumCalc(reinterpret_cast<const char*>(hdr), static_cast<U16>(bytes), 0).value() != 0) {
      fail(badIpHdrChecksum);
    }
  } else {
    return void(take(bytes));
  }
  addrsChange_ = 0;
  if (bytes > 20) {
    const auto options = layer().header.subspan(20);
    if (!IpOptions(options).whole()) fail(badIpOptions);
    const auto dst = detail::finalDst(options);
    if (dst) addrsChange_ = detail::sumChange(reinterpret_cast<const IpHdr*>(hdr)->dst(), *dst);
  }
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
  if (present > 0 && hdr[0] >> 4 != 6) return stop(40, nonIp6Hdr);
  if (!take(40)) return;
  const U32 bytes = word(hdr + 4);
  if (bytes > wire()) fail(badIp6PayloadLen);
  ip_ = hdr;
  ipVersion_ = 6;
  fragment_ = false;
  alert_ = false;
  addrsChange_ = 0;
  jumbo_ = false;
  unsized_ = false;
  if (bytes == 0 && hdr[6] == ipProtoIpv6HopByHop && here() >= 2) {
    // The length of a jumbogram is in an option.
    const auto hopByHop = layer().payload.first(std::min(here(), (at()[1] + 1u) * 8)).subspan(2);
    jumbo_ = Ip6Options(hopByHop).find<Ip6JumboOption>() != nullptr;
  }
  // What the device is to cut into segments has no length either; nothing says where it ends.
  constexpr U32 kMostPadding = 6;
  if (bytes == 0 && !jumbo_ && wire() > kMostPadding && hdr[6] != ipProtoIpv6NoNxt) {
    limit(0);
    ipProtocol(hdr[6]);
    if (!showsEmpty(next_)) next_ = LayerKind::none;
    unsized_ = true;
    return;
  }
  if (!jumbo_) limit(bytes);
  ipProtocol(hdr[6]);
}

void LayerIterator::ip6Options() noexcept {
  const U32 bytes = here() < 2 ? 8 : (at()[1] + 1u) * 8;
  if (bytes > wire()) return stop(8, badIp6ExtHdr);
  if (!take(bytes)) return;
  const Ip6Options options(layer().header.subspan(2));
  auto option = options.begin();
  std::size_t end = 2;
  for (; option != options.end(); ++option) end += option->bytes.size();
  if (!option.whole()) {
    // The header's own length says where the next one begins, unless the option goes on behind the packet.
    const std::size_t present = bytes + here();
    if (end + 1 >= present || end + 2 + layer().header.data()[end + 1] > present) return;
  }
  if (options.find<Ip6RouterAlertOption>()) alert_ = true;
  if (const auto jumbo = options.find<Ip6JumboOption>()) {
    // It counts from the IPv6 header on, and so these options too.
    const U32 payload = jumbo->payloadLength();
    if (!jumbo_ || payload <= 0xffff) {
      fail(badIp6Jumbo);
    } else if (payload < bytes || payload - bytes > wire()) {
      fail(badIp6PayloadLen);
    } else {
      limit(payload - bytes);
    }
  }
  const auto home = detail::homeAddr(layer().header.subspan(2));
  if (home && ipVersion_ == 6) {
    addrsChange_ += detail::sumChange(reinterpret_cast<const Ip6Hdr*>(ip_)->src(), *home);
  }
  ipProtocol(layer().header[0]);
}

void LayerIterator::ip6Routing() noexcept {
  const U32 bytes = here() < 2 ? 8 : (at()[1] + 1u) * 8;
  if (bytes > wire()) return stop(8, badIp6ExtHdr);
  if (!take(bytes)) return;
  const bool over6 = ipVersion_ == 6 && ip_;
  const Ip6Addr dst = over6 ? reinterpret_cast<const Ip6Hdr*>(ip_)->dst() : Ip6Addr();
  if (!Ip6RouteAddrs(layer().header, dst).whole()) return fail(badIp6ExtHdr);
  if (over6) {
    if (const auto last = detail::finalDst(layer().header, dst))
      addrsChange_ += detail::sumChange(dst, *last);
  }
  ipProtocol(layer().header[0]);
}

void LayerIterator::arp() noexcept {
  if (here() < sizeof(ArpHdr)) return void(take(sizeof(ArpHdr)));
  const ArpHdr* const arp = viewAt<ArpHdr>({at(), here()}).get();
  if (arp->packetBytes() > wire()) return stop(here(), badArpPkt);
  const bool isArp =
      tagType_ == ethTypeArpIp && arp->isIpOverEthernet() && arp->hardwareType() == ArpHdr::ethernet;
  const U16 hardware = arp->hardwareType();
  const bool taken = take(arp->packetBytes());
  layer().generic = hardware == ArpHdr::atm;
  if (!taken || !isArp) return;
  fail(detail::arpCode(reinterpret_cast<const EthHdr*>(frame_), layer().header, nullptr));
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
    case kShim6:
      return next(LayerKind::ip6ext);
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
  if (bytes < 12 || bytes > wire()) return stop(12, wire() < 12 ? PktCode(pktTooShort) : PktCode(badAhLen));
  if (take(bytes)) ipProtocol(layer().header[0]);
}

// Checksums.

detail::Message LayerIterator::message(U32 bytes) const noexcept {
  const U32 first = std::min(bytes, here());
  return {{at(), first}, first == bytes ? std::span<const U8>() : pieces_[1].first(bytes - first)};
}
U16 LayerIterator::foldedSum(U32 bytes, U32 start) const noexcept {
  return detail::sumOf(message(bytes), start);
}

[[gnu::always_inline]] inline U32 LayerIterator::addrsSum() const noexcept {
  return addrsChange_ + (ipVersion_ == 6 ? detail::addrsSum(*reinterpret_cast<const Ip6Hdr*>(ip_))
                                         : detail::addrsSum(*reinterpret_cast<const IpHdr*>(ip_)));
}

[[gnu::always_inline]] inline U32 LayerIterator::pseudoSum(U32 bytes, U8 protocol) const noexcept {
  return addrsSum() + protocol + detail::halves(bytes);
}

std::span<const U8> LayerIterator::wholeMessage() const noexcept {
  const auto bytes = layer().bytes();
  if (fragment_ || layer().cut || bytes.size() - layer().header.size() != layer().payloadBytes) return {};
  return bytes;
}

/// Whether all of the message is there that the innermost IP header says.
[[gnu::always_inline]] inline bool LayerIterator::mayCheck(U32 bytes) const noexcept {
  return checksums_ && !fragment_ && ip_ && bytes <= end_ - pos_;
}

[[gnu::always_inline]] inline bool LayerIterator::transportSumIsGood(U32 bytes, U8 protocol) const noexcept {
  const U32 pseudo = pseudoSum(bytes, protocol);
  if (bytes <= here() && bytes <= 0xffff) [[likely]] {
    const auto* const octets = reinterpret_cast<const char*>(at());
    return ipChecksumCalc(octets, static_cast<U16>(bytes), pseudo).value() == 0;
  }
  return foldedSum(bytes, detail::folded(pseudo)) == detail::kRight;
}

[[gnu::cold]] PktCode LayerIterator::transportSumCode(U32 bytes, U8 protocol, U16 stored) const noexcept {
  const U32 pseudo = pseudoSum(bytes, protocol);
  return protocol == ipProtoUdp ? detail::sumCode(stored, pseudo, partialUdpChecksum, badUdpChecksum)
                                : detail::sumCode(stored, pseudo, partialTcpChecksum, badTcpChecksum);
}

void LayerIterator::tcp() noexcept {
  const U8* const hdr = at();
  const U32 present = here();
  const U32 wireBytes = wire();
  const U32 bytes = present < 20 ? 20 : (hdr[12] >> 4) * 4u;
  if (bytes < 20 || (wireBytes < 20 && wireBytes >= 18) || (bytes > wireBytes && wireBytes >= 20)) {
    const bool summed = present < 18 || !mayCheck(wireBytes) || transportSumIsGood(wireBytes, ipProtoTcp);
    stop(detail::kTcpBytes, fragment_ && bytes >= 20 ? PktCode(noError) : PktCode(badTcpLen));
    if (!summed) fail(badTcpChecksum);
    return;
  }
  const bool good = present < bytes || !mayCheck(wireBytes) || transportSumIsGood(wireBytes, ipProtoTcp);
  PktCode code;
  if (!good) [[unlikely]]
    code = transportSumCode(wireBytes, ipProtoTcp, word(hdr + 16));
  if (!take(bytes)) return;
  if (!good) [[unlikely]]
    fail(code);
  if (bytes > 20 && !TcpOptions(layer().header.subspan(20)).whole()) fail(badTcpOptions);
}

void LayerIterator::udp() noexcept {
  const U8* const hdr = at();
  const U32 wireBytes = wire();
  if (here() < 8) return void(take(8));
  U32 length = word(hdr + 4);
  // What is behind a length of 0 is looked at all the same, which only a jumbogram may have (RFC 2675).
  const bool noLength = length == 0 && ipVersion_ == 6;
  if (noLength) length = wireBytes;
  if (length < 8) {
    take(8);
    return fail(badUdpLen);
  }
  const bool lengthIsBad = noLength ? !detail::isUdpJumbo(wireBytes) : length > wireBytes && !fragment_;
  const U16 stored = word(hdr + 6), src = word(hdr), dst = word(hdr + 2);
  PktCode code;
  if (length <= wireBytes && stored != 0 && mayCheck(length) && !transportSumIsGood(length, ipProtoUdp)) {
    code = transportSumCode(length, ipProtoUdp, stored);
  }
  take(8);
  if (lengthIsBad) fail(badUdpLen);
  limit(length - 8);
  if (code != noError) fail(code);
  udpPayload(src, dst);
  if (stored != 0 || ipVersion_ != 6) return;
  switch (next_) {  // tunnels may leave it out (RFC 6935)
    case LayerKind::none:
    case LayerKind::bfd:
    case LayerKind::ipfix:
      return fail(noUdpChecksum);
    default:
      return;
  }
}

/// The lower port says first what is inside.
void LayerIterator::udpPayload(U16 src, U16 dst) noexcept {
  const U16 low = std::min(src, dst), high = std::max(src, dst);
  if (wire() == 0 || high < kL2tpPort || udpPort(low) || low == high) return;
  if (!std::binary_search(std::begin(kOtherPorts), std::end(kOtherPorts), low)) udpPort(high);
}

/// Whether it is the port of something that the walk follows, and that this may be.
bool LayerIterator::udpPort(U16 port) noexcept {
  switch (port) {
    case VxlanHdr::udpPort:
    case kVxlanGpePort:
      variant_ = port == kVxlanGpePort;
      next_ = LayerKind::vxlan;
      return true;
    case kGenevePort:
      next_ = LayerKind::geneve;
      return true;
    case kMplsPort:
      tunnel(LayerKind::mpls);
      return true;
    case kGrePort:
      next_ = LayerKind::gre;
      return true;
    case kLispPort:
      next_ = LayerKind::lisp;
      return true;
    case kL2tpPort:
      if (here() < 2 || (word(at()) & 0x0e) != 2) return false;
      next_ = LayerKind::l2tp;
      return true;
    case kGtpPort:
      // Version 0 or 1, and not what charging uses.
      if (here() == 0 || (at()[0] & 0xd0) != 0x10) return false;
      next_ = LayerKind::gtp;
      return true;
    case kTeredoPort:
      next_ = LayerKind::teredo;
      return true;
    case BfdHdr::singleHopPort:
    case BfdHdr::multihopPort:
    case BfdHdr::lagPort:
    case kSeamlessBfdPort:
      next_ = LayerKind::bfd;
      return true;
    case IpfixHdr::port:
      if (here() < 2 || word(at()) != IpfixHdr::ipfixVersion) return false;
      next_ = LayerKind::ipfix;
      return true;
    case kIpsecPort:  // through address translation (RFC 3948): zeros begin a message of key exchange
      if (here() >= 4 && (at()[0] | at()[1] | at()[2] | at()[3]) != 0) next_ = LayerKind::esp;
      return true;
    default:
      return false;
  }
}

void LayerIterator::vxlan() noexcept {
  const bool generic = variant_;
  if (!take(sizeof(VxlanHdr))) return void(layer().generic = generic);
  layer().generic = generic;
  if (!layer().as<VxlanHdr>()->vniValid()) fail(badVxlanFlags);
  switch (generic ? layer().header[3] : U8{3}) {
    case 1:
      return tunnel(LayerKind::ip);
    case 2:
      return tunnel(LayerKind::ip6);
    case 3:
      return tunnel(LayerKind::eth);
    case 4:
      return next(LayerKind::nsh);
    case 5:
      return tunnel(LayerKind::mpls);
    default:
      return;
  }
}

void LayerIterator::nsh() noexcept {
  constexpr U32 kLeast = 8;
  if (!take(here() < 2 ? kLeast : std::max(kLeast, (at()[1] & 0x3fu) * 4))) return;
  switch (layer().header[3]) {
    case 1:
      return tunnel(LayerKind::ip);
    case 2:
      return tunnel(LayerKind::ip6);
    case 3:
      return tunnel(LayerKind::eth);
    case 4:
      return next(LayerKind::nsh);
    case 5:
      return tunnel(LayerKind::mpls);
    default:
      return;
  }
}

void LayerIterator::gtp() noexcept {
  constexpr U8 kUserData = 255, kNotPrime = 0x10, kMore = 7, kExtension = 4;
  const U8* const hdr = at();
  const U32 present = here();
  if (present < 8) return void(take(8));
  const unsigned version = hdr[0] >> 5;
  U32 bytes = version == 0 ? 20 : (hdr[0] & kMore) != 0 ? 12 : 8;
  const U32 end = (version == 0 ? 20u : 8u) + word(hdr + 2);
  if (version == 1 && (hdr[0] & kExtension) != 0) {
    while (bytes <= present && hdr[bytes - 1] != 0) {
      if (bytes == present || hdr[bytes] == 0) break;
      bytes += hdr[bytes] * 4u;
    }
  }
  const bool isData = version <= 1 && (hdr[0] & kNotPrime) != 0 && hdr[1] == kUserData;
  if (!take(bytes) || !isData) return;
  if (end >= bytes) limit(end - bytes);
  if (here() == 0) return;
  const unsigned nibble = at()[0] >> 4;
  if (nibble == 4) tunnel(LayerKind::ip);
  if (nibble == 6) tunnel(LayerKind::ip6);
}

/// Data of version 2; control messages and other versions carry no packets.
void LayerIterator::l2tp() noexcept {
  constexpr U16 kControl = 0x8000, kLength = 0x4000, kSeq = 0x0800, kOffset = 0x0200;
  const U8* const hdr = at();
  const U32 present = here();
  if (present < 2) return void(take(6));
  const U16 flags = word(hdr);
  if ((flags & kControl) != 0 || (flags & 0x0f) != 2) return void(take(std::min(present, 6u)));
  U32 bytes = 6u + ((flags & kLength) != 0 ? 2u : 0u) + ((flags & kSeq) != 0 ? 4u : 0u);
  if ((flags & kOffset) != 0) bytes += 2u + (present >= bytes + 2 ? word(hdr + bytes) : 0u);
  const U32 length = (flags & kLength) != 0 && present >= 4 ? std::max(bytes, U32{word(hdr + 2)}) : ~U32{0};
  if (!take(bytes)) return;
  limit(length - bytes);
  if (wire() > 0) tunnel(LayerKind::ppp);
}

/// What servers and relays put in front of IPv6 in UDP (RFC 4380); mostly nothing.
void LayerIterator::teredo() noexcept {
  constexpr U32 kOrigin = 8;
  const U8* const hdr = at();
  const U32 present = here();
  U32 bytes = present >= 4 && word(hdr) == 1 ? 4u + hdr[2] + hdr[3] + 9 : 0;
  const bool origin = present >= bytes + 2 && word(hdr + bytes) == 0;
  if (origin) bytes += kOrigin;
  if (take(bytes) && wire() > 1) tunnel(LayerKind::ip6);
}

void LayerIterator::ipfix() noexcept {
  const U32 bytes = here() >= 4 ? word(at() + 2) : 0, wireBytes = wire();
  if (!take(sizeof(IpfixHdr))) return;
  if (bytes < sizeof(IpfixHdr) || bytes > wireBytes) return fail(badIpfixLen);
  limit(bytes - U32{sizeof(IpfixHdr)});
  const auto sets = layer().payload;
  if (sets.size() == layer().payloadBytes && !IpfixSets(sets).whole()) fail(badIpfixLen);
}

void LayerIterator::sctp() noexcept {
  const U32 bytes = wire();
  bool good = true;
  if (here() >= sizeof(SctpHdr) && mayCheck(bytes)) good = detail::sctpCode(message(bytes)) == noError;
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
  PktCode code;
  if (mayCheck(bytes) && bytes >= sizeof(Icmp6Hdr) && here() >= sizeof(Icmp6Hdr)) {
    code = detail::icmp6Code(addrsSum(), message(bytes));
  }
  if (!take(sizeof(Icmp6Hdr))) return;
  if (code != noError) fail(code);
  const auto whole = wholeMessage();
  if (whole.empty() || ipVersion_ != 6 || !ip_) return;
  const auto& ip6 = *reinterpret_cast<const Ip6Hdr*>(ip_);
  if (detail::ndBytes(whole[0]) != 0) {
    const PktCode limitCode = detail::ndHopLimitCode(ip6);
    fail(limitCode);
    fail(detail::ndRules(ip6, whole));
  } else if (detail::isMld(whole[0])) {
    fail(detail::mldRules(ip6, alert_ ? detail::Alert::present : detail::Alert::missing, whole));
  }
}

void LayerIterator::igmp() noexcept {
  const U32 bytes = wire();
  const bool good = !mayCheck(bytes) || foldedSum(bytes, 0) == 0xffff;
  const bool query3 = here() > 0 && at()[0] == IgmpHdr::query && bytes >= sizeof(Igmp3QueryHdr);
  // Other protocols whose messages are types of IGMP.
  const bool pim1 = here() > 0 && at()[0] == Pim1Hdr::igmpType;
  if (pim1) next_ = LayerKind::pim;
  if (here() > 0 && at()[0] == IgmpHdr::dvmrp) next_ = LayerKind::dvmrp;
  const bool taken = take(query3 ? sizeof(Igmp3QueryHdr) : sizeof(IgmpHdr));
  layer().generic = pim1;
  if (!good) fail(pim1 ? badPimChecksum : badIgmpChecksum);
  if (!taken) return;
  const auto whole = wholeMessage();
  if (!whole.empty() && ipVersion_ == 4 && ip_) {
    fail(detail::igmpRules(*reinterpret_cast<const IpHdr*>(ip_), whole));
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
      const U32 start = ipVersion_ == 6 ? detail::folded(pseudoSum(covered, ipProtoPim)) : 0;
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
  const U32 bytes = wire();
  bool good = true;
  if (here() >= sizeof(VrrpHdr) && mayCheck(bytes)) {
    good = detail::vrrpIsSummed(ipVersion_ == 6, addrsSum(), at()[0] >> 4, message(bytes));
  }
  if (!take(sizeof(VrrpHdr))) return;
  if (!good) fail(badVrrpChecksum);
  const unsigned version = layer().header[0] >> 4;
  if (version != 2 && version != 3) return fail(badVrrpVersion);
  const auto whole = wholeMessage();
  if (whole.empty() || !ip_) return;
  const auto* const ethHdr = reinterpret_cast<const EthHdr*>(frame_);
  const PktCode code =
      (ipVersion_ == 6 ? detail::vrrpCode(ethHdr, *reinterpret_cast<const Ip6Hdr*>(ip_), whole)
                       : detail::vrrpCode(ethHdr, *reinterpret_cast<const IpHdr*>(ip_), whole));
  if (code != badVrrpChecksum) fail(code);
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
  const bool taken = take(bytes);
  if (!good) fail(badGreChecksum);
  if (!taken) return;
  if (versionIsBad) fail(badGreVersion);
  if (wire() == 0) return;
  switch (protocol) {
    case GreHdr::ppp:
      return tunnel(LayerKind::ppp);
    case kNsh:
      return next(LayerKind::nsh);
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
    case kEoip:
      return tunnel(LayerKind::eth);
    default:
      return;
  }
}

void LayerIterator::erspan() noexcept {
  const U8* const hdr = at();
  const U32 present = here();
  U32 bytes = sizeof(ErspanHdr);
  if (present > 0 && hdr[0] >> 4 != 1 && hdr[0] >> 4 != 2) return void(take(bytes));
  if (present > 0 && hdr[0] >> 4 == 2) {
    // Type III, with another 8 bytes where its last bit says so.
    bytes = present >= 12 && (hdr[11] & 1) != 0 ? 20 : 12;
  }
  if (!take(bytes)) return;
  const unsigned frameType = bytes == sizeof(ErspanHdr) ? 0 : hdr[10] >> 2 & 0x1f;
  if (frameType == 0) tunnel(LayerKind::eth);
  if (frameType == 2) tunnel(LayerKind::ip);
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
  const bool open = tlv == tlvs.end();
  take(ended ? bytes : here());
  next_ = LayerKind::none;
  if (open && !whole()) layer().cut = true;
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
