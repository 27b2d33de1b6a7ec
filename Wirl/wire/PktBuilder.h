// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstring>
#include <span>

#include "Wirl/packet/AhHdr.h"
#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/packet/Pkt.h"
#include "Wirl/packet/UdpHdr.h"
#include "Wirl/wire/ArpHdr.h"
#include "Wirl/wire/EspHdr.h"
#include "Wirl/wire/GreHdr.h"
#include "Wirl/wire/IcmpHdr.h"
#include "Wirl/wire/IgmpHdr.h"
#include "Wirl/wire/Ip6ExtHdr.h"
#include "Wirl/wire/MplsHdr.h"
#include "Wirl/wire/PimHdr.h"
#include "Wirl/wire/SctpHdr.h"
#include "Wirl/wire/TcpHdr.h"
#include "Wirl/wire/VrrpHdr.h"
#include "Wirl/wire/VxlanHdr.h"

namespace Wirl {

/// What a builder knows of a layer: the numbers by which the layer in front announces it, and what of it
/// depends on the layers around it.
struct BuilderLayer {
  /// What `finish` fills in.
  enum class Fill : U8 {
    nothing,
    eth,      ///< Type or IEEE 802.3 length.
    tag,      ///< Type or length of what follows an 802.1Q tag.
    snap,     ///< Type, where the organisation is 0.
    mpls,     ///< Bottom of the stack.
    gre,      ///< Protocol type, and the checksum where there is one.
    ip,       ///< Total length, protocol, checksum, and the checksum of an upper layer that covers addresses.
    ip6,      ///< Payload length, next header, the same checksum.
    ip6Ext,   ///< Next header, header length.
    ip6Frag,  ///< Next header.
    ah,       ///< Next header, payload length.
    udp,      ///< Length, checksum.
    udpPlain,  ///< Length; the checksum stays 0, as tunnels over IPv4 have it.
    tcp,       ///< Checksum.
    sctp,      ///< CRC-32.
    icmp,      ///< Checksum over the message alone: ICMP, IGMP.
    icmp6,     ///< Checksum with a pseudo-header: ICMPv6.
    pim,       ///< Checksum, over IPv6 with a pseudo-header, of a register over 8 bytes.
    vrrp,      ///< Checksum.
  };

  Fill fill = Fill::nothing;  ///< What is filled in.
  U16 etherType = 0;          ///< 0: nothing announces it by an EtherType.
  S16 ipProtocol = -1;        ///< -1: nothing announces it by a protocol number.
};

/// What `finish` expects of a layer: that it begins with a header of so many bytes.
constexpr U32 leastBytes(BuilderLayer::Fill fill) noexcept {
  using enum BuilderLayer::Fill;
  switch (fill) {
    case nothing:
      return 0;
    case eth:
      return sizeof(EthHdr);
    case tag:
    case mpls:
    case gre:
    case icmp:
    case icmp6:
    case pim:
      return 4;
    case snap:
      return sizeof(Eth8022SnapHdr);
    case ip:
    case tcp:
      return sizeof(IpHdr);
    case ip6:
      return sizeof(Ip6Hdr);
    case ip6Ext:
    case ip6Frag:
    case udp:
    case udpPlain:
    case vrrp:
      return sizeof(UdpHdr);
    case ah:
    case sctp:
      return sizeof(AhHdr);
  }
  return 0;
}

/// The layer that a header image begins; one line for each image that can be pushed.
template <typename Hdr>
inline constexpr BuilderLayer builderLayer{};
/// What the builder fills in.
template <typename Hdr>
requires std::derived_from<Hdr, Icmp6Hdr>
inline constexpr BuilderLayer builderLayer<Hdr>{BuilderLayer::Fill::icmp6, 0, ipProtoIcmpv6};
template <typename Hdr>
requires std::derived_from<Hdr, IcmpHdr>
inline constexpr BuilderLayer builderLayer<Hdr>{BuilderLayer::Fill::icmp, 0, ipProtoIcmp};
template <typename Hdr>
requires std::derived_from<Hdr, IgmpHdr> || std::same_as<Hdr, Igmp3ReportHdr>
inline constexpr BuilderLayer builderLayer<Hdr>{BuilderLayer::Fill::icmp, 0, ipProtoIgmp};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<EthHdr>{BuilderLayer::Fill::eth};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<Eth8021QHdr>{BuilderLayer::Fill::tag, ethTypeDot1Q};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<Eth8022SnapHdr>{BuilderLayer::Fill::snap};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<IpHdr>{BuilderLayer::Fill::ip, ethTypeIp, 4};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<Ip6Hdr>{BuilderLayer::Fill::ip6, ethTypeIp6, 41};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<Ip6FragHdr>{BuilderLayer::Fill::ip6Frag, 0, ipProtoIpv6Frag};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<MplsHdr>{BuilderLayer::Fill::mpls, ethTypeMpls, 137};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<GreHdr>{BuilderLayer::Fill::gre, 0, ipProtoGre};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<EspHdr>{BuilderLayer::Fill::nothing, 0, ipProtoEsp};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<SctpHdr>{BuilderLayer::Fill::sctp, 0, ipProtoSctp};
template <typename Hdr>
requires std::derived_from<Hdr, PimHdr>
inline constexpr BuilderLayer builderLayer<Hdr>{BuilderLayer::Fill::pim, 0, ipProtoPim};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<EthArpHdr>{BuilderLayer::Fill::nothing, ethTypeArpIp};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<AhHdr>{BuilderLayer::Fill::ah, 0, ipProtoAh};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<UdpHdr>{BuilderLayer::Fill::udp, 0, ipProtoUdp};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<TcpHdr>{BuilderLayer::Fill::tcp, 0, ipProtoTcp};
/// What the builder fills in.
template <>
inline constexpr BuilderLayer builderLayer<VrrpHdr>{BuilderLayer::Fill::vrrp, 0, ipProtoVrrp};

/// Puts headers in front of a payload, the innermost first, and fills in what they say of one another:
///
///     pkt->stringValueIs("hello");
///     PktBuilder(pkt).udp(4000, 4001).ip6(src, dst).vlan(100).eth(dstMac, srcMac).pad().finish();
///
/// A header goes into the headroom of the packet's shared buffer; nothing is copied while that lasts.
/// `finish` fills in lengths, next-protocol fields and checksums from the innermost layer on, over what
/// headers say by then: fields that depend on no other layer are those of the pushed image, and can be set
/// until `finish` through the views of the packet. What the layer in front cannot announce (a payload of no
/// known kind, EtherType 0) leaves that field as it was pushed. Behind an IP header of a fragment, length and
/// checksum of the upper layer stay as pushed: they cover what is in other fragments.
///
/// The packet must have a shared buffer and no private head data. Where other packets show the same buffer,
/// ask for `keepShownData` first, and do not `pad`. More than `kMostLayers` layers end the process, and so
/// does a layer that is shorter than its header.
class KIV_API PktBuilder {
 public:
  static constexpr U32 kMostLayers = 32;  ///< The most layers of one packet.
  /// Shortest Ethernet frame, without the frame check sequence (IEEE 802.3).
  static constexpr U32 kShortestFrame = 60;

  /// The packet's bytes are the payload.
  explicit PktBuilder(Pkt::Ptr pkt) : pkt_(std::move(pkt)) {
    KIV_ASSERT_AS(pkt_, "pkt != 0");
    KIV_ASSERT_AS(pkt_->numIovecs() == 1 && pkt_->sharedBuffer(), "pkt has shared data only");
  }

  /// A header image, any that `builderLayer` has a line for; others are octets to the layer in front.
  template <typename Hdr>
  PktBuilder& push(const Hdr& hdr) {
    return push(hdr, builderLayer<Hdr>);
  }
  template <typename Hdr>
  PktBuilder& push(const Hdr& hdr, BuilderLayer layer) {
    static_assert(isHeaderImage<Hdr, sizeof(Hdr)>);
    std::memcpy(grow(sizeof(Hdr), layer), &hdr, sizeof(Hdr));
    return *this;
  }
  /// Octets of any layer.
  PktBuilder& push(std::span<const U8> octets, BuilderLayer layer = {});

  // Ethernet and what may stand between it and IP.

  PktBuilder& eth(EthAddr dst, EthAddr src) {
    auto& hdr = grow<EthHdr>();
    hdr.dstIs(dst);
    hdr.srcIs(src);
    hdr.typeOrLenIs(0);
    return *this;
  }
  /// An 802.1Q tag; `type` announces it in the layer in front.
  PktBuilder& vlan(U16 vlanId, U8 priority = 0, EthType type = ethTypeDot1Q) {
    Eth8021QHdr hdr;
    hdr.tagControlIs(Eth8021QTagControl(priority, false, vlanId));
    return push(hdr, {BuilderLayer::Fill::tag, type});
  }
  PktBuilder& llc(U8 dsap, U8 ssap, U8 control = Eth8022LlcHdr::pduControl);
  /// LLC and SNAP (RFC 1042), with the EtherType of what follows.
  PktBuilder& snap();
  /// An entry of a label stack (RFC 3032); the innermost one becomes the bottom.
  PktBuilder& mpls(U32 label, U8 trafficClass = 0, U8 ttl = 64);

  // IP. Options are padded to the unit of the header's length, with octets of 0 over IPv4; at most 40 bytes
  // there.

  PktBuilder& ip(IpAddr src, IpAddr dst, U8 ttl = 64) {
    auto& hdr = grow<IpHdr>();
    hdr = IpHdr();
    hdr.versionIs(IpHdr::ipVersion4);
    hdr.headerBytesIs(sizeof(IpHdr));
    hdr.ttlIs(IpTtl(ttl));
    hdr.srcIs(src);
    hdr.dstIs(dst);
    return *this;
  }
  /// Version and header length are filled in, all else is the caller's.
  PktBuilder& ip(IpHdr hdr) {
    hdr.versionIs(IpHdr::ipVersion4);
    hdr.headerBytesIs(sizeof(IpHdr));
    return push(hdr);
  }
  PktBuilder& ip(IpHdr hdr, std::span<const U8> options);
  PktBuilder& ip6(const Ip6Addr& src, const Ip6Addr& dst, U8 hopLimit = 64) {
    auto& hdr = grow<Ip6Hdr>();
    hdr = Ip6Hdr();
    hdr.versionIs(Ip6Hdr::ipVersion6);
    hdr.hopLimitIs(IpTtl(hopLimit));
    hdr.srcIs(src);
    hdr.dstIs(dst);
    return *this;
  }
  PktBuilder& ip6(Ip6Hdr hdr) {
    hdr.versionIs(Ip6Hdr::ipVersion6);
    return push(hdr);
  }
  /// Hop-by-hop or destination options (RFC 8200), padded; at most 2,046 bytes of options.
  PktBuilder& ip6Options(IpProtocolNumber which, std::span<const U8> options);
  /// A routing header (RFC 8200) with the addresses as they stand in it: of type 4 (RFC 8754) the last one of
  /// the route first. Checksums behind it are for the end of the route. At most 127 addresses.
  PktBuilder& ip6Routing(U8 type, std::span<const Ip6Addr> addrs, U8 segmentsLeft);
  /// A fragment header, for an atomic fragment unless the offset, in bytes, or `more` say otherwise.
  PktBuilder& ip6Fragment(U32 id, U16 offset = 0, bool more = false);

  // What IP carries.

  /// UDP; length and checksum are filled in.
  PktBuilder& udp(U16 srcPort, U16 dstPort) { return udp(srcPort, dstPort, builderLayer<UdpHdr>); }
  /// Without a checksum, for tunnels.
  PktBuilder& udpWithoutChecksum(U16 srcPort, U16 dstPort) {
    return udp(srcPort, dstPort, {BuilderLayer::Fill::udpPlain, 0, ipProtoUdp});
  }
  /// TCP (RFC 9293): the data offset is filled in. Options are padded with octets of 0; at most 40 bytes.
  PktBuilder& tcp(TcpHdr hdr, std::span<const U8> options = {});
  /// ICMP (RFC 792) with the four bytes behind its checksum, as identifier and sequence number.
  PktBuilder& icmp(U8 type, U8 code, U32 rest = 0);
  /// ICMPv6 (RFC 4443), the same; longer messages are pushed as images.
  PktBuilder& icmp6(Icmp6TypeNumber type, U8 code, U32 rest = 0);

  // Tunnels.

  /// GRE (RFC 2784), of what follows.
  PktBuilder& gre();
  /// With a key (RFC 2890).
  PktBuilder& gre(U32 key);
  /// With the optional fields that `hdr` says are there; its checksum is filled in.
  PktBuilder& gre(const GreHdr& hdr, U32 key, U32 seqNum);
  /// VXLAN (RFC 7348); a UDP header comes in front.
  PktBuilder& vxlan(U32 vni);

  /// Octets of 0 behind the packet, which no length covers, up to so many bytes in all. A packet without
  /// tailroom moves to a new buffer.
  PktBuilder& pad(U32 bytes = kShortestFrame) {
    padTo_ = bytes;
    return *this;
  }
  /// The frame check sequence of Ethernet behind all.
  PktBuilder& fcs() {
    fcs_ = true;
    return *this;
  }

  /// Fills in all that was pushed and returns the packet; to be called once. Throws `Kiv::RangeException`
  /// "PktBuilder: length > 65535 not allowed" or "PktBuilder: IEEE 802.3 length > 1535 not allowed" where a
  /// length field cannot hold what is behind, with the inner layers filled in.
  const Pkt::Ptr& finish();

 private:
  using Fill = BuilderLayer::Fill;
  /// A `BuilderLayer` without initial values, so that those not used cost nothing.
  struct Layer {
    Fill fill;
    U16 etherType;
    S16 ipProtocol;
    U32 bytes;  // of it and all behind it
  };

  U8* grow(U32 bytes, BuilderLayer layer) {
    KIV_ASSERT_AS(count_ < kMostLayers, "layers < kMostLayers");
    KIV_ASSERT_AS(bytes >= leastBytes(layer.fill), "the layer has a header");
    U8* const front = pkt_->newSharedHeadData(bytes);
    bytes_ += bytes;
    layers_[count_++] = {layer.fill, layer.etherType, layer.ipProtocol, bytes_};
    return front;
  }
  /// A header of undefined contents, for what is written in place: a copy of it would wait for its parts.
  template <typename Hdr>
  Hdr& grow(BuilderLayer layer = builderLayer<Hdr>) {
    return *reinterpret_cast<Hdr*>(grow(sizeof(Hdr), layer));
  }
  U8* growForOptions(U32 hdrBytes, std::span<const U8> options, BuilderLayer layer);
  PktBuilder& udp(U16 srcPort, U16 dstPort, BuilderLayer layer) {
    auto& hdr = grow<UdpHdr>(layer);
    hdr.srcPortIs(srcPort);
    hdr.dstPortIs(dstPort);
    hdr.lenIs(0);
    hdr.checksumU16Is(0);
    return *this;
  }
  U32 bytesOf(U32 layer) const noexcept {
    return layers_[layer].bytes - (layer == 0 ? payloadBytes_ : layers_[layer - 1].bytes);
  }
  void fillIn(U32 layer, U8* at);
  bool isExtension(U32 layer) const noexcept;
  U32 upperLayersOfFragments(U8* end) const noexcept;
  void route(U32 layer, const U8* hdr, IpHdr& ip, std::span<const U8> options) const;
  void route(U32 layer, const U8* hdr, Ip6Hdr& ip, std::span<const U8> options) const;
  template <typename Ip>
  void fillUpper(U32 ipLayer, U8* end, const Ip& hdr);

  const Pkt::Ptr pkt_;
  const U32 payloadBytes_ = pkt_->bytes();
  U32 bytes_ = payloadBytes_;
  U32 count_ = 0;
  U32 padTo_ = 0;
  bool fcs_ = false;
  Layer layers_[kMostLayers];  // the innermost first
};

}  // namespace Wirl
