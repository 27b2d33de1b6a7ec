// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <iterator>
#include <optional>

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/value/Ip6Addr.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

/// What hop-by-hop options, destination options and routing headers begin with (RFC 8200).
class Ip6ExtHdr : public HdrImage<2> {
 public:
  WIRL_HDR(Ip6ExtHdr, "ip6opts");
  WIRL_FIELD(U8, nextHeader, 0, 8);
  /// In units of 8 bytes behind the first 8.
  WIRL_FIELD(U8, length, 8, 8);

  /// Of the whole extension header.
  U16 headerBytes() const noexcept { return static_cast<U16>((length() + 1) * 8); }
};
static_assert(isHeaderImage<Ip6ExtHdr, 2>);

/// Options of a hop-by-hop or destination options header: `Ip6Options(viewAt<Ip6ExtHdr>(bytes).options())`.
using Ip6Options = OptionList<Ip6OptionFormat>;

/// What options of more than one octet begin with.
class Ip6OptionHdr : public HdrImage<2> {
 public:
  WIRL_HDR(Ip6OptionHdr, "option");
  /// What a node does that does not know the option.
  WIRL_FIELD(U8, action, 0, 2, .kind = hidden);
  WIRL_FIELD(bool, mayChange, 2, 1, .kind = hidden);
  WIRL_FIELD(U8, type, 0, 8, .kind = hex);
  /// In bytes, of what follows.
  WIRL_FIELD(U8, length, 8, 8);
};

/// RFC 2711.
class Ip6RouterAlertOption : public HdrImage<4, Ip6OptionHdr> {
 public:
  static constexpr U8 kType = 0x05;
  WIRL_HDR(Ip6RouterAlertOption, "routerAlert");
  WIRL_FIELD(U16, value, 16, 16);
};
/// RFC 2675.
class Ip6JumboOption : public HdrImage<6, Ip6OptionHdr> {
 public:
  static constexpr U8 kType = 0xc2;
  WIRL_HDR(Ip6JumboOption, "jumbo");
  /// In bytes, above 65,535: in place of the header's payload length.
  WIRL_FIELD(U32, payloadLength, 16, 32);
};
/// RFC 2473.
class Ip6TunnelLimitOption : public HdrImage<3, Ip6OptionHdr> {
 public:
  static constexpr U8 kType = 0x04;
  WIRL_HDR(Ip6TunnelLimitOption, "tunnelLimit");
  WIRL_FIELD(U8, limit, 16, 8);
};
/// RFC 6275.
class Ip6HomeAddressOption : public HdrImage<18, Ip6OptionHdr> {
 public:
  static constexpr U8 kType = 0xc9;
  WIRL_HDR(Ip6HomeAddressOption, "homeAddress");
  WIRL_FIELD(Ip6Addr, home, 16, 128);
};

/// Fragment header (RFC 8200).
class Ip6FragHdr : public HdrImage<8> {
 public:
  WIRL_HDR(Ip6FragHdr, "ip6frag");
  WIRL_FIELD(U8, nextHeader, 0, 8);
  /// In units of 8 bytes.
  WIRL_FIELD(U16, offset, 16, 13);
  WIRL_FIELD(bool, more, 31, 1);
  WIRL_FIELD(U32, id, 32, 32, .kind = hex);
};
static_assert(isHeaderImage<Ip6FragHdr, 8>);

/// What all routing headers begin with; of types 0 and 2 the addresses begin at 8.
class Ip6RoutingHdr : public HdrImage<4> {
 public:
  static constexpr U8 sourceRoute = 0;  ///< Deprecated (RFC 5095).
  static constexpr U8 mobility = 2;     ///< RFC 6275.
  static constexpr U8 segments = 4;     ///< RFC 8754.

  WIRL_HDR(Ip6RoutingHdr, "ip6routing");
  WIRL_FIELD(U8, nextHeader, 0, 8);
  WIRL_FIELD(U8, length, 8, 8);
  WIRL_FIELD(U8, type, 16, 8);
  WIRL_FIELD(U8, segmentsLeft, 24, 8);

  U16 headerBytes() const noexcept { return static_cast<U16>((length() + 1) * 8); }
};
static_assert(isHeaderImage<Ip6RoutingHdr, 4>);

/// Segment routing header (RFC 8754): the segments follow, the last one first, then TLVs.
class Ip6SegmentRoutingHdr : public HdrImage<8, Ip6RoutingHdr> {
 public:
  WIRL_HDR(Ip6SegmentRoutingHdr, "ip6routing");
  WIRL_FIELD(U8, lastEntry, 32, 8);
  WIRL_FIELD(U8, flags, 40, 8, .kind = hex);
  WIRL_FIELD(U16, tag, 48, 16);
};
static_assert(isHeaderImage<Ip6SegmentRoutingHdr, 8>);

/// The addresses of a routing header, in the order of the route, whichever its type: those of types 0 and 2
/// as they stand, the compressed ones of type 3 (RFC 6554) in full, the segments of type 4 from the last
/// entry to the first. None for other types, and for a header that is too short for what it says.
///
///     for (const Ip6Addr& addr : Ip6RouteAddrs(view.header(), ip6->dst())) ...
class Ip6RouteAddrs {
 public:
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Ip6Addr;
    using difference_type = std::ptrdiff_t;
    using pointer = const Ip6Addr*;
    using reference = Ip6Addr;

    Iterator() noexcept = default;
    /// Stands for address `at`.
    Iterator(const Ip6RouteAddrs& addrs, unsigned at) noexcept : addrs_(&addrs), at_(at) {}
    Ip6Addr operator*() const noexcept { return (*addrs_)[at_]; }
    Iterator& operator++() noexcept { return ++at_, *this; }
    Iterator operator++(int) noexcept { return Iterator(*addrs_, at_++); }
    bool operator==(const Iterator& other) const noexcept { return at_ == other.at_; }

   private:
    const Ip6RouteAddrs* addrs_ = nullptr;
    unsigned at_ = 0;
  };

  /// `header` begins with a routing header; `dst` completes compressed addresses.
  KIV_API Ip6RouteAddrs(std::span<const U8> header, const Ip6Addr& dst) noexcept;

  unsigned size() const noexcept { return count_; }
  /// `at` is less than `size()`.
  KIV_API Ip6Addr operator[](unsigned at) const noexcept;
  Iterator begin() const noexcept { return Iterator(*this, 0); }
  Iterator end() const noexcept { return Iterator(*this, count_); }
  std::optional<Ip6Addr> last() const noexcept {
    if (count_ == 0) return std::nullopt;
    return (*this)[count_ - 1];
  }
  /// False where the header has less room than its addresses need.
  bool whole() const noexcept { return whole_; }

 private:
  std::span<const U8> header_;
  Ip6Addr dst_;
  unsigned count_ = 0;
  unsigned prefixBytes_ = 0;      ///< Taken from the destination, of all addresses but the last.
  unsigned lastPrefixBytes_ = 0;  ///< Of the last one.
  bool backwards_ = false;
  bool whole_ = true;
};

/// What a TLV of a segment routing header begins with, unless it is one octet of padding.
class Ip6SegmentTlvHdr : public HdrImage<2> {
 public:
  WIRL_HDR(Ip6SegmentTlvHdr, "tlv");
  WIRL_FIELD(U8, type, 0, 8);
  /// In bytes, of what follows.
  WIRL_FIELD(U8, length, 8, 8);
};
/// The code that authenticates the header follows (RFC 8754 section 2.1.2).
class Ip6SegmentHmacTlv : public HdrImage<8, Ip6SegmentTlvHdr> {
 public:
  static constexpr U8 kType = 5;
  WIRL_HDR(Ip6SegmentHmacTlv, "hmac");
  /// The destination is not verified against the segments.
  WIRL_FIELD(bool, dstUnverified, 16, 1);
  WIRL_FIELD(U32, keyId, 32, 32);
};

/// TLVs behind the segments of a segment routing header (RFC 8754 section 2.1): `Ip6SegmentTlvs` of these
/// bytes.
using Ip6SegmentTlvs = OptionList<Ip6OptionFormat>;
/// Where they are; empty where there are none.
KIV_API std::span<const U8> segmentTlvBytes(std::span<const U8> header) noexcept;

}  // namespace Wirl
