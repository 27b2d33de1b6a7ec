// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktBuilder.h"

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Wirl/wire/Crc32.h"
#include "Wirl/wire/WireChecks.h"
#include "Wirl/wire/detail/MessageChecks.h"
#include "Wirl/wire/detail/PseudoHdr.h"
#include "Wirl/wire/detail/RoutedAddrs.h"

namespace Wirl {

namespace {

constexpr U32 kWord = 4;  // of IPv4 and TCP headers
constexpr U32 kUnit = 8;  // of IPv6 extension headers

/// A length as a header says it.
U16 lengthField(U32 bytes) {
  if (bytes > 0xffff) throw Kiv::RangeException("PktBuilder: length > 65535 not allowed");
  return static_cast<U16>(bytes);
}

template <typename Hdr>
Hdr& hdrAt(U8* at) noexcept {
  return *reinterpret_cast<Hdr*>(at);
}

/// What options take in words, padding included.
U32 wordsOf(std::span<const U8> options) {
  constexpr std::size_t kMost = 40;
  KIV_ASSERT_AS(options.size() <= kMost, "options.size() <= 40");
  return static_cast<U32>((options.size() + kWord - 1) / kWord);
}

/// Whether a fragment header is that of one of several fragments.
bool isPart(U8* fragmentHdr) noexcept {
  return (hdrAt<NetU16>(fragmentHdr + 2) & 0xfff9) != 0;
}

// The fields were just written. A load of several of them at once would have to wait until they are in the
// cache, so that they are added up one by one.

void fillChecksum(IpHdr& hdr) {
  hdr.checksumU16Is(0);
  if (hdr.hasOptions()) return hdr.checksumIs(hdr.computedChecksum());
  const U32 sum = (U32{hdr.versionAndHeaderLen().value()} << 8 | hdr.tos()) + U32{hdr.totalLenU16()} +
                  hdr.idU16() + hdr.fragmentOffsetAndFlags().value() +
                  (U32{hdr.ttl().value()} << 8 | hdr.protocol()) + detail::halves(hdr.src().hostOrder()) +
                  detail::halves(hdr.dst().hostOrder());
  hdr.checksumU16Is(static_cast<U16>(~detail::folded(sum)));
}

template <typename Ip>
void fillChecksum(const Ip& ip, UdpHdr& hdr, std::size_t bytes) {
  const U32 start = detail::pseudoHdrSum(ip, bytes, ipProtoUdp) + hdr.srcPort() + hdr.dstPort() + hdr.len();
  const IpChecksum sum =
      ipChecksumCalc(reinterpret_cast<const char*>(&hdr + 1), static_cast<U16>(bytes - sizeof(hdr)), start);
  hdr.checksumIs(sum == IpChecksum() ? IpChecksum(U16{0xffff}) : sum);
}

}  // namespace

PktBuilder& PktBuilder::push(std::span<const U8> octets, BuilderLayer layer) {
  KIV_ASSERT_AS(octets.size() <= Pkt::maxBufferBytes_, "octets.size() <= maxBufferBytes_");
  U8* const at = grow(static_cast<U32>(octets.size()), layer);
  if (!octets.empty()) std::memcpy(at, octets.data(), octets.size());
  return *this;
}

PktBuilder& PktBuilder::llc(U8 dsap, U8 ssap, U8 control) {
  Eth8022LlcHdr hdr;
  hdr.dsapIs(dsap);
  hdr.ssapIs(ssap);
  hdr.controlIs(control);
  return push(hdr);
}

PktBuilder& PktBuilder::snap() {
  return push(Eth8022SnapHdr()).llc(Eth8022LlcHdr::snapSap, Eth8022LlcHdr::snapSap);
}

PktBuilder& PktBuilder::mpls(U32 label, U8 trafficClass, U8 ttl) {
  MplsHdr hdr;
  hdr.labelIs(label);
  hdr.trafficClassIs(trafficClass);
  hdr.ttlIs(ttl);
  return push(hdr);
}

U8* PktBuilder::growForOptions(U32 hdrBytes, std::span<const U8> options, BuilderLayer layer) {
  const auto used = static_cast<U32>(hdrBytes + options.size());
  const U32 bytes = wordsOf(options) * kWord + hdrBytes;
  U8* const at = grow(bytes, layer);
  if (!options.empty()) std::memcpy(at + hdrBytes, options.data(), options.size());
  std::memset(at + used, 0, bytes - used);
  return at;
}

PktBuilder& PktBuilder::ip(IpHdr hdr, std::span<const U8> options) {
  hdr.versionIs(IpHdr::ipVersion4);
  hdr.headerLenIs(static_cast<U8>(sizeof(IpHdr) / kWord + wordsOf(options)));
  std::memcpy(growForOptions(sizeof(hdr), options, builderLayer<IpHdr>), &hdr, sizeof(hdr));
  return *this;
}

PktBuilder& PktBuilder::tcp(TcpHdr hdr, std::span<const U8> options) {
  hdr.dataOffsetIs(static_cast<U8>(sizeof(TcpHdr) / kWord + wordsOf(options)));
  std::memcpy(growForOptions(sizeof(hdr), options, builderLayer<TcpHdr>), &hdr, sizeof(hdr));
  return *this;
}

PktBuilder& PktBuilder::ip6Options(IpProtocolNumber which, std::span<const U8> options) {
  constexpr std::size_t kMost = 256 * kUnit - sizeof(Ip6HdrOptionCommon);
  KIV_ASSERT_AS(options.size() <= kMost, "options.size() <= 2046");
  const auto used = static_cast<U32>(sizeof(Ip6HdrOptionCommon) + options.size());
  const U32 bytes = (used + kUnit - 1) / kUnit * kUnit;
  U8* const at = grow(bytes, {Fill::ip6Ext, 0, which});
  hdrAt<Ip6HdrOptionCommon>(at) = {};
  if (!options.empty()) std::memcpy(at + sizeof(Ip6HdrOptionCommon), options.data(), options.size());
  std::memset(at + used, 0, bytes - used);  // Pad1, of which one is just that
  if (bytes - used >= sizeof(Ip6HdrPadN)) {
    Ip6HdrPadN pad;
    pad.lengthIs(static_cast<U8>(bytes - used - sizeof(pad)));
    std::memcpy(at + used, &pad, sizeof(pad));
  }
  return *this;
}

PktBuilder& PktBuilder::ip6Fragment(U32 id, U16 offset, bool more) {
  KIV_ASSERT_AS(offset % kUnit == 0, "(offset % 8) == 0");
  Ip6FragHdr hdr;
  hdr.offsetIs(static_cast<U16>(offset / kUnit));
  hdr.moreIs(more);
  hdr.idIs(id);
  return push(hdr);
}

PktBuilder& PktBuilder::ip6Routing(U8 type, std::span<const Ip6Addr> addrs, U8 segmentsLeft) {
  constexpr std::size_t kMost = 127;
  KIV_ASSERT_AS(addrs.size() <= kMost, "addrs.size() <= 127");
  const auto addrBytes = static_cast<U32>(addrs.size() * sizeof(Ip6Addr));
  U8* const at = grow(U32{sizeof(Ip6SegmentRoutingHdr)} + addrBytes, {Fill::ip6Ext, 0, ipProtoIpv6Route});
  Ip6SegmentRoutingHdr hdr;
  hdr.typeIs(type);
  hdr.segmentsLeftIs(segmentsLeft);
  if (type == Ip6RoutingHdr::segments && !addrs.empty()) hdr.lastEntryIs(static_cast<U8>(addrs.size() - 1));
  std::memcpy(at, &hdr, sizeof(hdr));
  if (!addrs.empty()) std::memcpy(at + sizeof(hdr), addrs.data(), addrBytes);
  return *this;
}

PktBuilder& PktBuilder::icmp(U8 type, U8 code, U32 rest) {
  const NetU32 words[] = {NetU32(U32{type} << 24 | U32{code} << 16), NetU32(rest)};
  return push({reinterpret_cast<const U8*>(words), sizeof(words)}, {Fill::icmp, 0, ipProtoIcmp});
}

PktBuilder& PktBuilder::icmp6(Icmp6TypeNumber type, U8 code, U32 rest) {
  const NetU32 words[] = {NetU32(U32{type} << 24 | U32{code} << 16), NetU32(rest)};
  return push({reinterpret_cast<const U8*>(words), sizeof(words)}, builderLayer<Icmp6Hdr>);
}

PktBuilder& PktBuilder::gre() {
  return push(GreHdr());
}

PktBuilder& PktBuilder::gre(U32 key) {
  GreHdr hdr;
  hdr.keyPresentIs(true);
  GreKeyField field;
  field.keyIs(key);
  U8* const at = grow(sizeof(hdr) + sizeof(field), builderLayer<GreHdr>);
  std::memcpy(at, &hdr, sizeof(hdr));
  std::memcpy(at + sizeof(hdr), &field, sizeof(field));
  return *this;
}

PktBuilder& PktBuilder::gre(const GreHdr& hdr, U32 key, U32 seqNum) {
  U8* const at = grow(hdr.headerBytes(), builderLayer<GreHdr>);
  std::memset(at, 0, hdr.headerBytes());
  std::memcpy(at, &hdr, sizeof(hdr));
  const NetU32 fields[] = {NetU32(key), NetU32(seqNum)};
  if (hdr.keyPresent()) std::memcpy(at + hdr.keyOffset(), &fields[0], sizeof(NetU32));
  if (hdr.seqPresent()) std::memcpy(at + hdr.seqOffset(), &fields[1], sizeof(NetU32));
  return *this;
}

PktBuilder& PktBuilder::vxlan(U32 vni) {
  VxlanHdr hdr;
  hdr.vniValidIs(true);
  hdr.vniIs(vni);
  return push(hdr);
}

bool PktBuilder::isExtension(U32 layer) const noexcept {
  const Fill fill = layers_[layer].fill;
  return fill == Fill::ip6Ext || fill == Fill::ip6Frag || fill == Fill::ah;
}

/// Gives `ip` the addresses that the pseudo-header has.
inline void PktBuilder::route(U32, const U8*, IpHdr& ip, std::span<const U8> options) const {
  if (const auto dst = detail::finalDst(options)) ip.dstIs(*dst);
}
void PktBuilder::route(U32 layer, const U8* hdr, Ip6Hdr& ip, std::span<const U8>) const {
  const std::span<const U8> octets(hdr, bytesOf(layer));
  if (layers_[layer].ipProtocol == ipProtoIpv6Route) {
    if (const auto dst = detail::finalDst(octets, ip.dst())) ip.dstIs(*dst);
  } else if (layers_[layer].ipProtocol == ipProtoIpv6Opts) {
    if (const auto home = detail::homeAddr(octets.subspan(sizeof(Ip6ExtHdr)))) ip.srcIs(*home);
  }
}

template <typename Ip>
void PktBuilder::fillUpper(U32 ipLayer, U8* end, const Ip& hdr) {
  U32 layer = ipLayer;
  Ip routed;
  const Ip* seen = &hdr;
  const auto routedBy = [&](U32 by, std::span<const U8> options) {
    if (seen == &hdr) routed = hdr;
    seen = &routed;
    route(by, end - layers_[by].bytes, routed, options);
  };
  if constexpr (std::is_same_v<Ip, IpHdr>) {
    if (hdr.hasOptions()) {
      const U8* const options = reinterpret_cast<const U8*>(&hdr + 1);
      routedBy(ipLayer, {options, bytesOf(ipLayer) - U32{sizeof(hdr)}});
    }
  }
  do {
    if (layer-- == 0) return;
    if (layers_[layer].fill == Fill::ip6Frag && isPart(end - layers_[layer].bytes)) return;
    if (!isExtension(layer)) break;
    if (std::is_same_v<Ip, Ip6Hdr> && layers_[layer].fill == Fill::ip6Ext) routedBy(layer, {});
  } while (true);
  const Ip& ip = *seen;
  const std::span<U8> message(end - layers_[layer].bytes, layers_[layer].bytes);
  switch (layers_[layer].fill) {
    case Fill::udp:
      return fillChecksum(ip, hdrAt<UdpHdr>(message.data()), message.size());
    case Fill::tcp:
      return setTcpChecksum(ip, message);
    case Fill::icmp6:
      if constexpr (std::is_same_v<Ip, Ip6Hdr>) setIcmp6Checksum(ip, message);
      return;
    case Fill::pim:
      return setPimChecksum(ip, message);
    case Fill::vrrp:
      return setVrrpChecksum(ip, message);
    default:
      return;
  }
}

[[gnu::always_inline]] inline void PktBuilder::fillIn(U32 layer, U8* at) {
  const U32 bytes = layers_[layer].bytes;
  const Layer next = layer > 0 ? layers_[layer - 1] : Layer{Fill::nothing, 0, -1, 0};
  const bool hasType = next.etherType != 0;
  const bool hasProtocol = next.ipProtocol >= 0;
  const std::span<U8> message(at, bytes);
  switch (layers_[layer].fill) {
    case Fill::nothing:
      return;
    case Fill::eth:
    case Fill::tag: {
      // Both have it in their last two octets. What no EtherType announces, and none was pushed for, is LLC.
      auto& field = hdrAt<NetU16>(at + bytesOf(layer) - sizeof(NetU16));
      if (hasType) {
        field = next.etherType;
      } else if (layer > 0 && field.value() == 0) {
        const U16 length = lengthField(bytes - bytesOf(layer));
        if (!isLlcLength(length))
          throw Kiv::RangeException("PktBuilder: IEEE 802.3 length > 1535 not allowed");
        field = length;
      }
      return;
    }
    case Fill::snap: {
      auto& hdr = hdrAt<Eth8022SnapHdr>(at);
      if (hasType && hdr.orgCode() == 0) hdr.localCodeIs(next.etherType);
      return;
    }
    case Fill::mpls:
      return hdrAt<MplsHdr>(at).bottomIs(next.fill != Fill::mpls);
    case Fill::gre: {
      constexpr U16 kEthernetBridging = 0x6558;
      auto& hdr = hdrAt<GreHdr>(at);
      if (hasType) hdr.protocolIs(next.etherType);
      if (next.fill == Fill::eth) hdr.protocolIs(kEthernetBridging);
      if (hdr.checksumPresent() && bytesOf(layer) >= 2 * sizeof(hdr)) {
        hdrAt<IpChecksum>(at + sizeof(hdr)) = IpChecksum();
        const auto sum = static_cast<U16>(~detail::sumOf(message, 0));
        hdrAt<IpChecksum>(at + sizeof(hdr)) = IpChecksum(sum);
      }
      return;
    }
    case Fill::ip: {
      auto& hdr = hdrAt<IpHdr>(at);
      hdr.totalLenIs(lengthField(bytes));
      if (hasProtocol) hdr.protocolIs(static_cast<U8>(next.ipProtocol));
      fillChecksum(hdr);
      // The upper layer's checksum covers what is in other fragments.
      if (!hdr.moreFrag() && hdr.fragmentOffset() == 0) fillUpper(layer, at + bytes, hdr);
      return;
    }
    case Fill::ip6: {
      auto& hdr = hdrAt<Ip6Hdr>(at);
      hdr.payloadLenIs(lengthField(bytes - U32{sizeof(Ip6Hdr)}));
      if (hasProtocol) hdr.protocolIs(static_cast<U8>(next.ipProtocol));
      return fillUpper(layer, at + bytes, hdr);
    }
    case Fill::ip6Ext:
      hdrAt<Ip6HdrOptionCommon>(at).hdrExtLenIs(static_cast<U8>(bytesOf(layer) / kUnit - 1));
      break;
    case Fill::ip6Frag:
      break;
    case Fill::ah:
      hdrAt<AhHdr>(at).payloadLenIs(static_cast<U8>(bytesOf(layer) / 4 - 2));
      break;
    case Fill::udp:
    case Fill::udpPlain:
      hdrAt<UdpHdr>(at).lenIs(lengthField(bytes));
      return;
    case Fill::sctp:
      return setSctpChecksum(message);
    case Fill::icmp:
      return setIcmpChecksum(message);
    case Fill::tcp:
    case Fill::icmp6:
    case Fill::pim:
    case Fill::vrrp:
      return;  // with the IP header in front
  }
  if (hasProtocol) *at = static_cast<U8>(next.ipProtocol);
}

/// A bit for each upper layer whose length and checksum cover what is in other fragments.
inline U32 PktBuilder::upperLayersOfFragments(U8* end) const noexcept {
  U32 parts = 0;
  for (U32 layer = 1; layer < count_; ++layer) {
    U8* const at = end - layers_[layer].bytes;
    switch (layers_[layer].fill) {
      case Fill::ip:
        if ((hdrAt<NetU16>(at + 6) & 0x3fff) == 0) continue;
        break;
      case Fill::ip6Frag:
        if (!isPart(at)) continue;
        break;
      default:
        continue;
    }
    U32 upper = layer - 1;
    while (upper > 0 && isExtension(upper)) --upper;
    parts |= 1u << upper;
  }
  return parts;
}

const Pkt::Ptr& PktBuilder::finish() {
  U8* const end = pkt_->front() + pkt_->bytes();
  const U32 parts = upperLayersOfFragments(end);
  for (U32 layer = 0; layer < count_; ++layer) {
    if ((parts >> layer & 1) == 0) fillIn(layer, end - layers_[layer].bytes);
  }
  if (const U32 bytes = pkt_->bytes(); bytes < padTo_) {
    std::memset(pkt_->newSharedTailData(padTo_ - bytes), 0, padTo_ - bytes);
  }
  if (fcs_) {
    const U32 crc = __builtin_bswap32(crc32({pkt_->front(), pkt_->bytes()}));
    const NetU32 lowestFirst(crc);
    std::memcpy(pkt_->newSharedTailData(sizeof(lowestFirst)), &lowestFirst, sizeof(lowestFirst));
  }
  return pkt_;
}

}  // namespace Wirl
