// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <limits>
#include <span>
#include <string_view>

#include "Wirl/packet/HdrView.h"
#include "Wirl/wire/WireErrors.h"

namespace Wirl {

namespace detail {
struct Message;
}

/// What a layer is.
enum class LayerKind : U8 {
  none,
  eth,
  vlan,
  mim,  ///< MAC-in-MAC: service tag, and the Ethernet header behind it (IEEE 802.1ah).
  tag,  ///< Tag of another kind, with an EtherType at its end: HSR, R-TAG, E-TAG, VN-Tag and their like.
  isl,  ///< Inter-switch link: in place of the outer Ethernet header.
  trill,
  macsec,  ///< IEEE 802.1AE; what is behind it is seen where it is not encrypted.
  llc,
  snap,
  pppoe,
  ppp,
  mpls,
  pwcw,
  pwach,
  arp,
  ip,
  ip6,
  ip6opts,  ///< Hop-by-hop or destination options.
  ip6routing,
  ip6frag,
  ip6ext,  ///< Extension header of another kind: shim6.
  ah,
  esp,
  icmp,
  icmp6,
  igmp,
  dvmrp,  ///< In a message of IGMP.
  tcp,
  udp,
  sctp,
  gre,
  erspan,
  etherip,  ///< RFC 3378.
  vxlan,
  geneve,
  nsh,     ///< RFC 8300.
  gtp,     ///< User plane, versions 0 and 1.
  teredo,  ///< RFC 4380: what is in front of the IPv6 header, if anything.
  l2tp,    ///< RFC 2661, data.
  lisp,    ///< RFC 6830, data.
  pim,
  vrrp,
  bfd,
  ipfix,
  lldp,
};
/// As it is in JSON: "ip6opts".
KIV_API std::string_view layerKindText(LayerKind kind) noexcept;

/// A layer of a packet, as `layers()` finds it. It refers to the packet's bytes.
struct Layer {
  LayerKind kind = LayerKind::none;
  /// Tunnels that it lies in.
  U8 tunnels = 0;
  /// The bytes end inside of the header because the capture has cut the packet; that is no error.
  bool cut = false;
  /// A header with another form: of VXLAN with the extension that says what it carries (VXLAN-GPE), of PIM
  /// version 1, which IGMP carries, of ARP for ATM.
  bool generic = false;
  /// What is wrong with it; `noError` also where the capture has cut what a check needs.
  PktCode error;
  /// A second thing that is wrong with it: an IPv4 header may have a bad length and a bad checksum.
  PktCode further;
  /// From the front of the packet.
  U32 offset = 0;
  /// Its header with options; as much of that as is there.
  std::span<const U8> header;
  /// What is behind its header, as far as this layer's length and those of the outer layers go, and as lies
  /// in one piece of the packet.
  std::span<const U8> payload;
  /// As on the wire, in all pieces.
  U32 payloadBytes = 0;

  /// The header as a view; null for one that is not there whole, and for a shorter one.
  template <typename Hdr>
  HdrView<const Hdr> as() const noexcept {
    return viewAt<Hdr>(bytes());
  }
  /// Header and payload, the latter where it lies behind the header and not in another piece.
  std::span<const U8> bytes() const noexcept {
    const bool behind = header.data() + header.size() == payload.data();
    return {header.data(), header.size() + (behind ? payload.size() : 0)};
  }
};

/// How `layers` walks.
struct LayerOptions {
  /// What the bytes begin with: `eth`, `ip` (by its version also `ip6`) or any other.
  LayerKind start = LayerKind::eth;
  /// Length of the packet on the wire, where a capture has cut it; less than it has counts as what it has.
  U32 wireBytes = 0;
  /// Look at the checksums of what IP carries. That of the IPv4 header is looked at in any case.
  bool checksums = true;
};

/// Walks over the layers of a packet from the outermost one. Each step looks at one header, and at the bytes
/// that its checksum covers; the first one at those of Ethernet, IP and TCP. Nothing is allocated or written,
/// and nothing outside of the packet is read. The walk ends behind a layer whose header is not there or
/// cannot be trusted, at a fragment that is not the first one, at what is encrypted, and at protocols that
/// have no kind. The datagram in an ICMP error is no layer, nor is one in another message that reports about
/// it.
class LayerIterator {
 public:
  using iterator_concept = std::input_iterator_tag;
  using iterator_category = std::input_iterator_tag;
  using value_type = Layer;
  using difference_type = std::ptrdiff_t;
  using pointer = const Layer*;
  using reference = const Layer&;

  static constexpr unsigned kMaxLayers = 128;  ///< The most layers that a frame is taken apart into.
  static constexpr unsigned kMaxTunnels = 8;   ///< The most tunnels in tunnels.

  LayerIterator() noexcept { layer().kind = LayerKind::none; }
  KIV_API LayerIterator(std::span<const U8> first, std::span<const U8> second,
                        const LayerOptions& options) noexcept;

  const Layer& operator*() const noexcept { return found_[at_]; }
  const Layer* operator->() const noexcept { return &found_[at_]; }
  LayerIterator& operator++() noexcept {
    if (at_ != kLast) {
      ++at_;
    } else if (next_ == LayerKind::none) {
      layer().kind = LayerKind::none;
    } else {
      step();
    }
    return *this;
  }
  void operator++(int) noexcept { ++*this; }
  bool operator==(std::default_sentinel_t) const noexcept { return found_[kLast].kind == LayerKind::none; }

 private:
  KIV_API void step() noexcept;
  /// Ethernet, perhaps a tag, IP, and TCP without a fault, at once; false, with nothing changed, when there
  /// is anything else in front.
  bool ethIp() noexcept;
  template <typename Ip, U32 kTags>
  bool ethIp() noexcept;
  template <typename Ip>
  bool isGoodTcp(const U8* segment, U32 bytes) const noexcept;
  /// The layer at work.
  Layer& layer() noexcept { return found_[kLast]; }
  const Layer& layer() const noexcept { return found_[kLast]; }

  /// Bytes from here on, in one piece and within the limit.
  U32 here() const noexcept { return std::min(end_, pieceEnd_) - pos_; }
  const U8* at() const noexcept { return piece_ + (pos_ - pieceStart_); }
  void skip(U32 bytes) noexcept {
    pos_ += bytes;
    if (pos_ == pieceEnd_) secondPiece();
  }
  /// Bytes of the wire from here on, within the limit.
  U32 wire() const noexcept { return wireEnd_ - pos_; }
  bool whole() const noexcept { return end_ == wireEnd_; }
  /// Makes the layer of a header of `bytes` bytes, and goes behind it. False, with its error, when that is
  /// not there.
  bool take(U32 bytes) noexcept;
  bool takeCut(U32 bytes) noexcept;
  void secondPiece() noexcept;
  void fail(PktCode code) noexcept {
    PktCode& place = layer().error == noError ? layer().error : layer().further;
    if (place == noError) place = code;
  }
  /// Ends the walk with what is there of a header of `bytes` bytes.
  void stop(U32 bytes, PktCode code) noexcept;
  /// What remains is `bytes` long on the wire; the limit only ever shrinks.
  void limit(U32 bytes) noexcept;
  void next(LayerKind kind) noexcept { next_ = kind; }
  void tunnel(LayerKind inner) noexcept;
  void ethType(U16 type) noexcept;
  void typeOrLength(U16 typeOrLen) noexcept;
  void ipProtocol(U8 protocol) noexcept;
  void mplsPayload(U32 label) noexcept;
  void pppProtocol() noexcept;
  /// The next bytes, which may lie in two pieces.
  detail::Message message(U32 bytes) const noexcept;
  U16 foldedSum(U32 bytes, U32 start) const noexcept;
  /// Sum of the addresses of a pseudo-header.
  U32 addrsSum() const noexcept;
  U32 pseudoSum(U32 bytes, U8 protocol) const noexcept;
  /// Of the next `bytes`.
  bool transportSumIsGood(U32 bytes, U8 protocol) const noexcept;
  /// Why it is not good, with `stored` as the checksum.
  PktCode transportSumCode(U32 bytes, U8 protocol, U16 stored) const noexcept;
  bool mayCheck(U32 bytes) const noexcept;
  /// The message whose header is the layer at work, where all of it is there in one piece; else empty.
  std::span<const U8> wholeMessage() const noexcept;

  void eth() noexcept;
  void llc() noexcept;
  void ip() noexcept;
  void ip6() noexcept;
  void ip6Options() noexcept;
  void ip6Routing() noexcept;
  void arp() noexcept;
  void vxlan() noexcept;
  void nsh() noexcept;
  void gtp() noexcept;
  void l2tp() noexcept;
  void teredo() noexcept;
  void macsec() noexcept;
  void ipfix() noexcept;
  void etherTypeTag() noexcept;
  void ah() noexcept;
  void tcp() noexcept;
  void udp() noexcept;
  void udpPayload(U16 src, U16 dst) noexcept;
  bool udpPort(U16 port) noexcept;
  void sctp() noexcept;
  void icmp() noexcept;
  void icmp6() noexcept;
  void igmp() noexcept;
  void pim() noexcept;
  void vrrp() noexcept;
  void gre() noexcept;
  void erspan() noexcept;
  void lldp() noexcept;
  void bfd() noexcept;

  static constexpr U8 kLast = 3;

  std::span<const U8> pieces_[2];
  const U8* piece_ = nullptr;  ///< At work, from `pieceStart_` to `pieceEnd_` of the packet.
  U32 pieceStart_ = 0;
  U32 pieceEnd_ = 0;
  U32 pos_ = 0;
  U32 end_ = 0;      ///< Of what is there.
  U32 wireEnd_ = 0;  ///< Of what was on the wire.
  LayerKind next_ = LayerKind::none;
  bool checksums_ = true;
  bool fragment_ = false;  ///< The innermost datagram is not whole.
  bool jumbo_ = false;     ///< Its length is in an option.
  bool unsized_ = false;   ///< Nothing says its length.
  bool alert_ = false;     ///< It has a router alert.
  /// Of the next header: VXLAN-GPE; IP by its EtherType; PPP in Ethernet; SNAP that carries nothing.
  bool variant_ = false;
  U8 ipVersion_ = 0;
  U8 tunnels_ = 0;
  U8 count_ = 0;
  U8 at_ = kLast;
  U16 tagType_ = 0;            ///< EtherType of the next header.
  U32 addrsChange_ = 0;        ///< What routing adds to the sum of the addresses in the IP header.
  const U8* ip_ = nullptr;     ///< The innermost IP header.
  const U8* frame_ = nullptr;  ///< The Ethernet header around it; null behind a tunnel without one.
  /// The last is at work; those in front of it were found before and wait for their turn. What is not in use
  /// has no value: to give it one would take as long as a header does.
  union {
    Layer found_[kLast + 1];
  };
};

/// The layers of a packet, to iterate over.
class Layers {
 public:
  /// Of a frame in two pieces.
  Layers(std::span<const U8> first, std::span<const U8> second, const LayerOptions& options) noexcept
      : pieces_{first, second}, options_(options) {}

  LayerIterator begin() const noexcept { return LayerIterator(pieces_[0], pieces_[1], options_); }
  std::default_sentinel_t end() const noexcept { return {}; }
  /// The bytes from an offset on, as far as they are in one piece; none behind the end.
  std::span<const U8> pieceAt(std::size_t offset) const noexcept {
    if (offset < pieces_[0].size()) return pieces_[0].subspan(offset);
    return pieces_[1].subspan(std::min(offset - pieces_[0].size(), pieces_[1].size()));
  }

 private:
  std::span<const U8> pieces_[2];
  LayerOptions options_;
};

/// `for (const Layer& layer : layers(bytes))`. At most 2^32 - 1 bytes are looked at.
inline Layers layers(std::span<const U8> bytes, const LayerOptions& options = {}) noexcept {
  return Layers(bytes.first(std::min<std::size_t>(bytes.size(), std::numeric_limits<U32>::max())), {},
                options);
}
/// Of a packet in one or two pieces. A header that lies in both gives `pktTooShort` and ends the walk;
/// checksums are taken over both.
KIV_API Layers layers(const Pkt::Ptr& pkt, const LayerOptions& options = {}) noexcept;

}  // namespace Wirl
