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
template <typename Hdr, auto... factory>
Header header(const char* type) {
  const void* (*bind)(const Pkt::Ptr&, U32) = nullptr;
  ((bind = [](const Pkt::Ptr& pkt, U32 offset) -> const void* { return factory(pkt, offset)->header(); }),
   ...);
  return {type, hdrDescription<Hdr>, image<Hdr>(), bind};
}

inline const std::vector<Header>& headers() {
  static const std::vector<Header> all = {
      header<EthHdr, ethHdrWrapperFactory>("EthHdr"),
      header<Eth8021QHdr, eth8021QHdrWrapperFactory>("Eth8021QHdr"),
      header<Eth8022LlcHdr, eth8022LlcHdrWrapperFactory>("Eth8022LlcHdr"),
      header<Eth8022SnapHdr, eth8022SnapHdrWrapperFactory>("Eth8022SnapHdr"),
      header<MimHdr, mimHdrWrapperFactory>("MimHdr"),
      header<IpHdr, ipHdrWrapperFactory>("IpHdr"),
      header<IpHdrOptionCommon, ipHdrOptionCommonWrapperFactory>("IpHdrOptionCommon"),
      header<IpHdrRouterAlertOption, ipHdrRouterAlertOptionWrapperFactory>("IpHdrRouterAlertOption"),
      header<Ip6Hdr, ip6HdrWrapperFactory>("Ip6Hdr"),
      header<Ip6HdrOptionCommon, ip6HdrOptionCommonWrapperFactory>("Ip6HdrOptionCommon"),
      header<Ip6HdrRouterAlertOption, ip6HdrRouterAlertOptionWrapperFactory>("Ip6HdrRouterAlertOption"),
      header<Ip6HdrPad1, ip6HdrPad1WrapperFactory>("Ip6HdrPad1"),
      header<Ip6HdrPadN, ip6HdrPadNWrapperFactory>("Ip6HdrPadN"),
      header<UdpHdr, udpHdrWrapperFactory>("UdpHdr"),
      header<AhHdr, ahHdrWrapperFactory>("AhHdr"),
      header<Icmp6Hdr, icmp6HdrWrapperFactory>("Icmp6Hdr"),
      header<Icmp6OptionCommonHdr, icmp6OptionCommonHdrWrapperFactory>("Icmp6OptionCommonHdr"),
      header<Icmp6RsHdr>("Icmp6RsHdr"),
      header<Icmp6RaHdr>("Icmp6RaHdr"),
      header<Icmp6NsHdr>("Icmp6NsHdr"),
      header<Icmp6NaHdr>("Icmp6NaHdr"),
      header<Icmp6LinkLayerAddrOptionHdr>("Icmp6LinkLayerAddrOptionHdr"),
      header<Icmp6PrefixInfoOptionHdr>("Icmp6PrefixInfoOptionHdr"),
      header<Icmp6MtuOptionHdr>("Icmp6MtuOptionHdr")};
  return all;
}

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
