// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <new>
#include <vector>

#include "Wirl/packet/AhHdr.h"
#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/packet/UdpHdr.h"

/// The headers of the room, for tests that follow from their tables.
namespace hdr {

using namespace Wirl;
using Octets = std::vector<U8>;

struct Header {
  const char* type;
  HdrDescription table;
  Octets made;                                       // by the default constructor, over a pattern
  const void* (*bind)(const Pkt::Ptr&, U32 offset);  // null for a header without a wrapper
};

template <typename Hdr>
Octets image() {
  Octets memory(sizeof(Hdr), 0xaa);
  new (memory.data()) Hdr;
  return memory;
}
template <auto factory>
const void* bind(const Pkt::Ptr& pkt, U32 offset) {
  return factory(pkt, offset)->header();
}

#define BOUND(type, factory)                                        \
  Header {                                                          \
#type, hdrDescription < type>, image < type>(), bind < factory> \
  }
#define UNBOUND(type)                                       \
  Header {                                                  \
#type, hdrDescription < type>, image < type>(), nullptr \
  }
inline const std::vector<Header>& headers() {
  static const std::vector<Header> all = {
      BOUND(EthHdr, ethHdrWrapperFactory),
      BOUND(Eth8021QHdr, eth8021QHdrWrapperFactory),
      BOUND(Eth8022LlcHdr, eth8022LlcHdrWrapperFactory),
      BOUND(Eth8022SnapHdr, eth8022SnapHdrWrapperFactory),
      BOUND(MimHdr, mimHdrWrapperFactory),
      BOUND(IpHdr, ipHdrWrapperFactory),
      BOUND(IpHdrOptionCommon, ipHdrOptionCommonWrapperFactory),
      BOUND(IpHdrRouterAlertOption, ipHdrRouterAlertOptionWrapperFactory),
      BOUND(Ip6Hdr, ip6HdrWrapperFactory),
      BOUND(Ip6HdrOptionCommon, ip6HdrOptionCommonWrapperFactory),
      BOUND(Ip6HdrRouterAlertOption, ip6HdrRouterAlertOptionWrapperFactory),
      BOUND(Ip6HdrPad1, ip6HdrPad1WrapperFactory),
      BOUND(Ip6HdrPadN, ip6HdrPadNWrapperFactory),
      BOUND(UdpHdr, udpHdrWrapperFactory),
      BOUND(AhHdr, ahHdrWrapperFactory),
      BOUND(Icmp6Hdr, icmp6HdrWrapperFactory),
      BOUND(Icmp6OptionCommonHdr, icmp6OptionCommonHdrWrapperFactory),
      UNBOUND(Icmp6RsHdr),
      UNBOUND(Icmp6RaHdr),
      UNBOUND(Icmp6NsHdr),
      UNBOUND(Icmp6NaHdr),
      UNBOUND(Icmp6LinkLayerAddrOptionHdr),
      UNBOUND(Icmp6PrefixInfoOptionHdr),
      UNBOUND(Icmp6MtuOptionHdr)};
  return all;
}
#undef BOUND
#undef UNBOUND

/// `memory`, which has the header at `offset`, with the lowest bits of `value` in the field, bit by bit; of a
/// wide field the upper half is the complement.
inline Octets withField(Octets memory, std::size_t offset, const HdrField& field, U64 value) {
  for (unsigned i = 0; i < field.bits; ++i) {
    const std::size_t bit = offset * 8 + field.firstBit + field.bits - 1u - i;
    const U8 mask = static_cast<U8>(0x80 >> bit % 8);
    const bool set = ((i < 64 ? value >> i : ~value >> (i - 64)) & 1) != 0;
    memory[bit / 8] = static_cast<U8>(set ? memory[bit / 8] | mask : memory[bit / 8] & ~mask);
  }
  return memory;
}

/// What the accessor says then.
inline U64 fieldValue(const HdrField& field, U64 value) {
  return field.bits < 64 ? value & ((U64{1} << field.bits) - 1) : value;
}

}  // namespace hdr
