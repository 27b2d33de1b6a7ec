// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstring>
#include <new>
#include <type_traits>
#include <vector>

#include "Wirl/packet/AhHdr.h"
#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/packet/UdpHdr.h"

/// The header views as tables: which bits of its header each field is, written down apart from the code.
namespace hdr {

using namespace Wirl;
using Octets = std::vector<U8>;

/// Its bits are counted from the most significant one of octet 0, as the drawings in RFCs do.
struct Field {
  const char* name;
  unsigned firstBit, bits;
  /// Of an IPv6 address, `value` is the lower half; the upper one is its complement.
  void (*set)(void* hdr, U64 value);
  U64 (*get)(const void* hdr);  // null where a getter says less than the setter takes
};

struct Header {
  const char* name;
  U32 bytes;
  Octets made;  // by the default constructor
  std::vector<Field> fields;
  const void* (*bind)(const Pkt::Ptr&, U32 offset);  // null for a header without a wrapper
};

namespace detail {

template <typename Hdr, typename T>
T argumentOf(void (Hdr::*)(T) noexcept);

template <typename Arg>
auto made(U64 value) {
  using T = std::remove_cvref_t<Arg>;
  if constexpr (std::is_same_v<T, bool>) {
    return (value & 1) != 0;
  } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
    return static_cast<T>(value);  // more than the field has: it is cut to it
  } else if constexpr (requires(T t) { t.octets(); }) {
    auto octets = T().octets();
    for (std::size_t i = octets.size(), bit = 0; i-- > 0; bit += 8) {
      octets[i] = static_cast<U8>(bit < 64 ? value >> bit : ~value >> (bit - 64));
    }
    return T(octets);
  } else if constexpr (std::is_same_v<T, IpDscp>) {
    return IpDscp(static_cast<U8>(value & IpDscp::maxValue));
  } else {
    return T(static_cast<decltype(T().value())>(value));
  }
}

template <typename T>
U64 number(const T& value) {
  if constexpr (requires { value.octets(); }) {
    U64 sum = 0;
    for (const U8 octet : value.octets()) sum = sum << 8 | octet;
    return sum;
  } else if constexpr (requires { value.value(); }) {
    return value.value();
  } else {
    return U64{value};
  }
}

/// Made over a pattern, so that a forgotten octet shows.
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

}  // namespace detail

// clang-format off
#define SETTER(field, firstBit, bits)                                                                     \
  hdr::Field{#field, firstBit, bits,                                                                      \
             [](void* hdr, U64 value) {                                                                   \
               using Arg = decltype(hdr::detail::argumentOf(&H::field##Is));                              \
               static_cast<H*>(hdr)->field##Is(hdr::detail::made<Arg>(value));                            \
             },                                                                                           \
             nullptr}
#define FIELD(field, firstBit, bits)                                                                      \
  [] {                                                                                                    \
    hdr::Field made = SETTER(field, firstBit, bits);                                                      \
    made.get = [](const void* hdr) { return hdr::detail::number(static_cast<const H*>(hdr)->field()); };  \
    return made;                                                                                          \
  }()
// A header with its wrapper's factory, and one without.
#define BOUND(type, factory, ...)                                                                         \
  [] { using H = type;                                                                                    \
       return hdr::Header{#type, sizeof(H), hdr::detail::image<H>(), {__VA_ARGS__}, hdr::detail::bind<factory>}; }()
#define UNBOUND(type, ...)                                                                                \
  [] { using H = type;                                                                                    \
       return hdr::Header{#type, sizeof(H), hdr::detail::image<H>(), {__VA_ARGS__}, nullptr}; }()

inline const std::vector<Header>& headers() {
  static const std::vector<Header> all = {
      BOUND(EthHdr, ethHdrWrapperFactory, FIELD(dst, 0, 48), FIELD(src, 48, 48), FIELD(typeOrLen, 96, 16)),
      BOUND(Eth8021QHdr, eth8021QHdrWrapperFactory, FIELD(tagControl, 0, 16), FIELD(typeOrLen, 16, 16)),
      BOUND(Eth8022LlcHdr, eth8022LlcHdrWrapperFactory,
            FIELD(dsap, 0, 8), FIELD(ssap, 8, 8), FIELD(control, 16, 8)),
      BOUND(Eth8022SnapHdr, eth8022SnapHdrWrapperFactory, FIELD(orgCode, 0, 24), FIELD(localCode, 24, 16)),
      BOUND(MimHdr, mimHdrWrapperFactory,
            FIELD(serviceIntfEthType, 0, 16), FIELD(serviceIntfTag, 16, 32), FIELD(reserved, 16, 8),
            FIELD(isid, 24, 24)),
      BOUND(IpHdr, ipHdrWrapperFactory,
            FIELD(version, 0, 4), FIELD(headerLen, 4, 4), FIELD(tos, 8, 8), FIELD(dscp, 8, 6), FIELD(ecn, 14, 2),
            FIELD(totalLen, 16, 16), FIELD(idU16, 32, 16), FIELD(fragmentOffsetAndFlags, 48, 16),
            FIELD(reservedFragFlag, 48, 1), FIELD(dontFrag, 49, 1), FIELD(moreFrag, 50, 1),
            FIELD(fragmentOffset, 51, 13), FIELD(ttl, 64, 8), FIELD(protocol, 72, 8), SETTER(protocolNum, 72, 8),
            FIELD(checksum, 80, 16), FIELD(checksumU16, 80, 16), FIELD(src, 96, 32), FIELD(dst, 128, 32)),
      BOUND(IpHdrOptionCommon, ipHdrOptionCommonWrapperFactory,
            FIELD(type, 0, 8), FIELD(copied, 0, 1), FIELD(optionClass, 1, 2), FIELD(number, 3, 5)),
      BOUND(IpHdrRouterAlertOption, ipHdrRouterAlertOptionWrapperFactory,
            FIELD(length, 8, 8), FIELD(value, 16, 16)),
      BOUND(Ip6Hdr, ip6HdrWrapperFactory,
            FIELD(versionTrafficClassAndFlowLabel, 0, 32), FIELD(version, 0, 4), FIELD(trafficClass, 4, 8),
            FIELD(flowLabel, 12, 20), FIELD(payloadLen, 32, 16), FIELD(protocol, 48, 8),
            SETTER(protocolNum, 48, 8), FIELD(hopLimit, 56, 8), FIELD(src, 64, 128), FIELD(dst, 192, 128)),
      BOUND(Ip6HdrOptionCommon, ip6HdrOptionCommonWrapperFactory,
            FIELD(nextHdr, 0, 8), SETTER(nextHdrNum, 0, 8), FIELD(hdrExtLen, 8, 8)),
      BOUND(Ip6HdrRouterAlertOption, ip6HdrRouterAlertOptionWrapperFactory,
            FIELD(type, 16, 8), FIELD(length, 24, 8), FIELD(value, 32, 16)),
      BOUND(Ip6HdrPad1, ip6HdrPad1WrapperFactory),
      BOUND(Ip6HdrPadN, ip6HdrPadNWrapperFactory, FIELD(length, 8, 8)),
      BOUND(UdpHdr, udpHdrWrapperFactory,
            FIELD(srcPort, 0, 16), FIELD(dstPort, 16, 16), FIELD(len, 32, 16), FIELD(checksum, 48, 16),
            FIELD(checksumU16, 48, 16)),
      BOUND(AhHdr, ahHdrWrapperFactory,
            FIELD(nextHdr, 0, 8), SETTER(nextHdrNum, 0, 8), FIELD(payloadLen, 8, 8), FIELD(reserved, 16, 16), FIELD(spi, 32, 32),
            FIELD(sequenceNum, 64, 32)),
      BOUND(Icmp6Hdr, icmp6HdrWrapperFactory,
            FIELD(type, 0, 8), FIELD(code, 8, 8), FIELD(checksum, 16, 16), FIELD(checksumU16, 16, 16)),
      BOUND(Icmp6OptionCommonHdr, icmp6OptionCommonHdrWrapperFactory, FIELD(type, 0, 8), FIELD(len, 8, 8)),
      UNBOUND(Icmp6RsHdr, FIELD(type, 0, 8)),
      UNBOUND(Icmp6RaHdr,
              FIELD(checksumU16, 16, 16), FIELD(curHopLimit, 32, 8), FIELD(managed, 40, 1),
              FIELD(otherConfig, 41, 1), FIELD(routerLifetime, 48, 16), FIELD(reachableTime, 64, 32),
              FIELD(retransTimer, 96, 32)),
      UNBOUND(Icmp6NsHdr, FIELD(target, 64, 128)),
      UNBOUND(Icmp6NaHdr,
              FIELD(router, 32, 1), FIELD(solicited, 33, 1), FIELD(override, 34, 1), FIELD(target, 64, 128)),
      UNBOUND(Icmp6LinkLayerAddrOptionHdr, FIELD(type, 0, 8), FIELD(addr, 16, 48)),
      UNBOUND(Icmp6PrefixInfoOptionHdr,
              FIELD(prefixLen, 16, 8), FIELD(onLink, 24, 1), FIELD(autonomous, 25, 1),
              FIELD(validLifetime, 32, 32), FIELD(preferredLifetime, 64, 32), FIELD(prefix, 128, 128)),
      UNBOUND(Icmp6MtuOptionHdr, FIELD(mtu, 32, 32)),
  };
  return all;
}
// clang-format on
#undef FIELD
#undef SETTER
#undef BOUND
#undef UNBOUND

/// `memory`, which has the header at `offset`, as it is to be once the field has the lowest bits of `value`.
inline Octets withField(Octets memory, std::size_t offset, const Field& field, U64 value) {
  for (unsigned i = 0; i < field.bits; ++i) {  // from the least significant bit
    const std::size_t bit = offset * 8 + field.firstBit + field.bits - 1 - i;
    const U8 mask = static_cast<U8>(0x80 >> bit % 8);
    const bool set = ((i < 64 ? value >> i : ~value >> (i - 64)) & 1) != 0;
    memory[bit / 8] = static_cast<U8>(set ? memory[bit / 8] | mask : memory[bit / 8] & ~mask);
  }
  return memory;
}

/// What the field's getter says then.
inline U64 fieldValue(const Field& field, U64 value) {
  return field.bits < 64 ? value & ((U64{1} << field.bits) - 1) : value;
}

}  // namespace hdr
