// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/LayerFields.h"

#include "Wirl/packet/AhHdr.h"
#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/packet/UdpHdr.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/wire/ArpHdr.h"
#include "Wirl/wire/BfdHdr.h"
#include "Wirl/wire/EspHdr.h"
#include "Wirl/wire/GreHdr.h"
#include "Wirl/wire/IcmpHdr.h"
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

namespace Wirl {

namespace {

// Headers whose fields are shown in another shape than their views have.

class MimShown : public HdrImage<18> {
 public:
  WIRL_HDR(MimShown, "mim");
  WIRL_FIELD(U8, priority, 0, 3);
  WIRL_FIELD(U32, isid, 8, 24);
  WIRL_FIELD(EthAddr, dst, 32, 48);
  WIRL_FIELD(EthAddr, src, 80, 48);
  WIRL_FIELD(U16, type, 128, 16, .kind = hex);
};
class LlcLongShown : public HdrImage<4> {
 public:
  WIRL_HDR(LlcLongShown, "llc");
  WIRL_FIELD(U8, dsap, 0, 8, .kind = hex);
  WIRL_FIELD(U8, ssap, 8, 8, .kind = hex);
};
class PppoeShown : public HdrImage<6> {
 public:
  WIRL_HDR(PppoeShown, "pppoe");
  WIRL_FIELD(U8, code, 8, 8);
  WIRL_FIELD(U16, session, 16, 16);
  WIRL_FIELD(U16, length, 32, 16);
};
/// The first octet of a header whose version is wrong: no field of it means anything.
class VersionShown : public HdrImage<1> {
 public:
  WIRL_HDR(VersionShown, "ip");
  WIRL_FIELD(U8, version, 0, 4);
};
class GeneveShown : public HdrImage<8> {
 public:
  WIRL_HDR(GeneveShown, "geneve");
  WIRL_FIELD(U8, version, 0, 2);
  WIRL_FIELD(U16, protocol, 16, 16, .kind = hex);
  WIRL_FIELD(U32, vni, 32, 24);
};
class VxlanGpeShown : public HdrImage<8> {
 public:
  WIRL_HDR(VxlanGpeShown, "vxlan");
  WIRL_FIELD(U8, flags, 0, 8, .kind = hex);
  WIRL_FIELD(U8, nextProtocol, 24, 8);
  WIRL_FIELD(U32, vni, 32, 24);
};
class NshShown : public HdrImage<8> {
 public:
  WIRL_HDR(NshShown, "nsh");
  WIRL_FIELD(U8, version, 0, 2);
  WIRL_FIELD(U8, ttl, 4, 6);
  WIRL_FIELD(U8, mdType, 20, 4);
  WIRL_FIELD(U8, nextProtocol, 24, 8);
  WIRL_FIELD(U32, servicePath, 32, 24);
  WIRL_FIELD(U8, serviceIndex, 56, 8);
};
class GtpShown : public HdrImage<8> {
 public:
  WIRL_HDR(GtpShown, "gtp");
  WIRL_FIELD(U8, version, 0, 3);
  WIRL_FIELD(U8, type, 8, 8);
  WIRL_FIELD(U16, length, 16, 16);
};
class DvmrpShown : public HdrImage<8> {
 public:
  WIRL_HDR(DvmrpShown, "dvmrp");
  WIRL_FIELD(U8, code, 8, 8);
  WIRL_FIELD(IpChecksum, checksum, 16, 16);
};
class Vrrp2Shown : public HdrImage<8> {
 public:
  WIRL_HDR(Vrrp2Shown, "vrrp");
  WIRL_FIELD(U8, version, 0, 4);
  WIRL_FIELD(U8, type, 4, 4);
  WIRL_FIELD(U8, vrid, 8, 8);
  WIRL_FIELD(U8, priority, 16, 8);
  WIRL_FIELD(U8, addressCount, 24, 8);
  WIRL_FIELD(U8, authType, 32, 8);
  WIRL_FIELD(U8, advertisementSeconds, 40, 8);
  WIRL_FIELD(IpChecksum, checksum, 48, 16);
};

template <typename Hdr>
constexpr const HdrDescription& of = hdrDescription<Hdr>;

const HdrDescription& icmpFields(U8 type) noexcept {
  switch (type) {
    case icmpTypeEchoReply:
    case icmpTypeEchoRequest:
    case icmpTypeInformationRequest:
    case icmpTypeInformationReply:
      return of<IcmpEchoHdr>;
    case icmpTypeTimestampRequest:
    case icmpTypeTimestampReply:
      return of<IcmpTimestampHdr>;
    case icmpTypeAddressMaskRequest:
    case icmpTypeAddressMaskReply:
      return of<IcmpAddressMaskHdr>;
    case icmpTypeDstUnreachable:
    case icmpTypeTimeExceeded:
    case icmpTypeSourceQuench:
      return of<IcmpUnreachableHdr>;
    case icmpTypeRedirect:
      return of<IcmpRedirectHdr>;
    case icmpTypeParameterProblem:
      return of<IcmpParameterProblemHdr>;
    case icmpTypeRouterAdvertisement:
      return of<IcmpRouterAdvertisementHdr>;
    default:
      return of<IcmpHdr>;
  }
}

const HdrDescription& icmp6Fields(U8 type, std::size_t bytes) noexcept {
  switch (type) {
    case icmp6TypePacketTooBig:
      return of<Icmp6PacketTooBigHdr>;
    case icmp6TypeParameterProblem:
      return of<Icmp6ParameterProblemHdr>;
    case icmp6TypeEchoRequest:
    case icmp6TypeEchoReply:
      return of<Icmp6EchoHdr>;
    case icmp6TypeMldQuery:
      return bytes >= sizeof(Mld2QueryHdr) ? of<Mld2QueryHdr> : of<MldHdr>;
    case icmp6TypeMldReport:
    case icmp6TypeMldDone:
      return of<MldHdr>;
    case icmp6TypeMldv2Report:
      return of<Mld2ReportHdr>;
    case icmp6TypeRouterAdvertisement:
      return of<Icmp6RaHdr>;
    case icmp6TypeNeighborSolicitation:
      return of<Icmp6NsHdr>;
    case icmp6TypeNeighborAdvertisement:
      return of<Icmp6NaHdr>;
    case icmp6TypeRedirect:
      return of<Icmp6RedirectHdr>;
    default:
      return of<Icmp6Hdr>;
  }
}

}  // namespace

namespace {

/// PIM in IGMP begins with the type that IGMP has for it, which is no version and type of PIM's own.
bool isPim1(const Layer& layer) noexcept {
  const auto bytes = layerBytes(layer);
  return layer.generic && !bytes.empty() && bytes[0] == Pim1Hdr::igmpType;
}

}  // namespace

HdrDescription layerFields(const Layer& layer) noexcept {
  const auto bytes = layerBytes(layer);
  const U8 first = bytes.empty() ? U8{0} : bytes[0];
  switch (layer.kind) {
    case LayerKind::none:
    case LayerKind::ppp:
    case LayerKind::etherip:
    case LayerKind::tag:
    case LayerKind::isl:
    case LayerKind::trill:
    case LayerKind::macsec:
    case LayerKind::ip6ext:
    case LayerKind::teredo:
    case LayerKind::l2tp:
    case LayerKind::lisp:
      return {};
    case LayerKind::eth:
      return of<EthHdr>;
    case LayerKind::vlan:
      return of<Eth8021QHdr>;
    case LayerKind::mim:
      return of<MimShown>;
    case LayerKind::llc:
      return layer.header.size() == 4 ? of<LlcLongShown> : of<Eth8022LlcHdr>;
    case LayerKind::snap:
      return of<Eth8022SnapHdr>;
    case LayerKind::pppoe:
      return of<PppoeShown>;
    case LayerKind::mpls:
      return of<MplsHdr>;
    case LayerKind::pwcw:
      return of<PwControlWord>;
    case LayerKind::pwach:
      return of<PwAssociatedChannelHdr>;
    case LayerKind::arp: {
      const auto arp = viewAt<ArpHdr>(bytes);
      return arp && arp->isIpOverEthernet() ? of<EthArpHdr> : of<ArpHdr>;
    }
    case LayerKind::ip:
      return layer.error == nonIpHdr ? of<VersionShown> : of<IpHdr>;
    case LayerKind::ip6:
      return layer.error == nonIp6Hdr ? of<VersionShown> : of<Ip6Hdr>;
    case LayerKind::ip6opts:
      return of<Ip6ExtHdr>;
    case LayerKind::ip6routing:
      return bytes.size() > 2 && bytes[2] == Ip6RoutingHdr::segments ? of<Ip6SegmentRoutingHdr>
                                                                     : of<Ip6RoutingHdr>;
    case LayerKind::ip6frag:
      return of<Ip6FragHdr>;
    case LayerKind::ah:
      return of<AhHdr>;
    case LayerKind::esp:
      return of<EspHdr>;
    case LayerKind::icmp:
      return icmpFields(first);
    case LayerKind::icmp6:
      return icmp6Fields(first, bytes.size());
    case LayerKind::igmp:
      if (first >= 1 && first <= 8) return of<Igmp0Hdr>;
      if (first == IgmpHdr::reportV3) return of<Igmp3ReportHdr>;
      return layer.header.size() == sizeof(Igmp3QueryHdr) ? of<Igmp3QueryHdr> : of<IgmpHdr>;
    case LayerKind::dvmrp:
      return of<DvmrpShown>;
    case LayerKind::tcp:
      return of<TcpHdr>;
    case LayerKind::udp:
      return of<UdpHdr>;
    case LayerKind::sctp:
      return of<SctpHdr>;
    case LayerKind::gre:
      return of<GreHdr>;
    case LayerKind::erspan:
      return of<ErspanHdr>;
    case LayerKind::vxlan:
      return layer.generic ? of<VxlanGpeShown> : of<VxlanHdr>;
    case LayerKind::nsh:
      return of<NshShown>;
    case LayerKind::gtp:
      return of<GtpShown>;
    case LayerKind::geneve:
      return of<GeneveShown>;
    case LayerKind::pim:
      if (isPim1(layer)) return of<Pim1Hdr>;
      return (first & 0x0f) == pimRegister ? of<PimRegisterHdr> : of<PimHdr>;
    case LayerKind::vrrp:
      return first >> 4 == 2 ? of<Vrrp2Shown> : of<VrrpHdr>;
    case LayerKind::bfd:
      return of<BfdHdr>;
    case LayerKind::ipfix:
      return of<IpfixHdr>;
    case LayerKind::lldp:
      return {"lldp", 0, {}};
  }
  return {};
}

detail::ItemKind detail::itemsOf(const Layer& layer, std::span<const U8>& where) noexcept {
  const auto bytes = layerBytes(layer);
  const auto behind = [&](std::size_t fixed) {
    if (layer.header.size() > fixed) where = layer.header.subspan(fixed);
  };
  const auto inMessage = [&](std::size_t fixed) {
    if (bytes.size() > fixed) where = bytes.subspan(fixed);
  };
  switch (layer.kind) {
    case LayerKind::ip:
      return behind(20), layer.error == nonIpHdr ? ItemKind::none : ItemKind::ip;
    case LayerKind::tcp:
      return behind(sizeof(TcpHdr)), ItemKind::tcp;
    case LayerKind::ip6opts:
      return behind(sizeof(Ip6ExtHdr)), ItemKind::ip6;
    case LayerKind::ip6routing:
      return where = segmentTlvBytes(layer.header), ItemKind::segment;
    case LayerKind::sctp:
      return inMessage(sizeof(SctpHdr)), ItemKind::sctp;
    case LayerKind::pim:
      if (isPim1(layer) || bytes.empty() || (bytes[0] & 0x0f) != pimHello) return ItemKind::none;
      return inMessage(sizeof(PimHdr)), ItemKind::pim;
    case LayerKind::bfd: {
      const auto bfd = viewAt<BfdHdr>(layer.header);
      if (!bfd || !bfd->authenticationPresent()) return ItemKind::none;
      return behind(sizeof(BfdHdr)), ItemKind::bfd;
    }
    case LayerKind::ipfix:
      return inMessage(sizeof(IpfixHdr)), ItemKind::ipfixSet;
    case LayerKind::icmp: {
      const auto routers = viewAt<IcmpRouterAdvertisementHdr>(bytes);
      if (!routers || routers->type() != icmpTypeRouterAdvertisement || routers->entryWords() != 2) {
        return ItemKind::none;
      }
      inMessage(sizeof(IcmpRouterAdvertisementHdr));
      where = where.first(std::min(where.size(), routers->addressCount() * sizeof(IcmpRouterAddress)));
      return ItemKind::router;
    }
    case LayerKind::lldp:
      return where = layer.header, ItemKind::lldp;
    case LayerKind::igmp:
      if (bytes.empty() || bytes[0] != IgmpHdr::reportV3) return ItemKind::none;
      return inMessage(sizeof(Igmp3ReportHdr)), ItemKind::igmp;
    case LayerKind::icmp6: {
      if (bytes.empty()) return ItemKind::none;
      if (bytes[0] == icmp6TypeMldv2Report) return inMessage(sizeof(Mld2ReportHdr)), ItemKind::mld;
      const std::size_t fixed = detail::ndBytes(bytes[0]);
      if (fixed == 0) return ItemKind::none;
      return inMessage(fixed), ItemKind::nd;
    }
    default:
      return ItemKind::none;
  }
}

HdrDescription detail::itemFields(ItemKind kind, const WireOption& option) noexcept {
  const auto typed = [&]<typename... Hdrs>(HdrDescription fallback, std::type_identity<Hdrs>...) {
    ((Hdrs::kType == option.type ? void(fallback = of<Hdrs>) : void()), ...);
    return fallback;
  };
#define ID(type) \
  std::type_identity<type> {}
  switch (kind) {
    case ItemKind::none:
      return {};
    case ItemKind::ip:
      return typed(of<IpOptionHdr>, ID(IpRecordRouteOption), ID(IpLooseSourceRouteOption),
                   ID(IpStrictSourceRouteOption), ID(IpTimestampOption), ID(IpStreamIdOption),
                   ID(IpRouterAlertOption));
    case ItemKind::tcp:
      return typed(of<TcpOptionHdr>, ID(TcpMssOption), ID(TcpWindowScaleOption), ID(TcpTimestampsOption),
                   ID(TcpUserTimeoutOption), ID(TcpAuthenticationOption));
    case ItemKind::ip6:
      return typed(of<Ip6OptionHdr>, ID(Ip6RouterAlertOption), ID(Ip6JumboOption), ID(Ip6TunnelLimitOption),
                   ID(Ip6HomeAddressOption));
    case ItemKind::nd:
      return typed(of<Icmp6OptionCommonHdr>, ID(NdSrcLinkLayerAddrOption), ID(NdTgtLinkLayerAddrOption),
                   ID(NdPrefixInfoOption), ID(NdMtuOption), ID(NdRedirectedHdrOption), ID(NdNonceOption),
                   ID(NdRouteInfoOption), ID(NdRdnssOption), ID(NdDnsslOption), ID(NdPref64Option));
    case ItemKind::segment:
      return option.hdrBytes < sizeof(Ip6SegmentTlvHdr) ? HdrDescription{"padding", 0, {}}
                                                        : typed(of<Ip6SegmentTlvHdr>, ID(Ip6SegmentHmacTlv));
    case ItemKind::router:
      return of<IcmpRouterAddress>;
    case ItemKind::pim:
      return typed(of<PimOptionHdr>, ID(PimHoldtimeOption), ID(PimLanPruneDelayOption),
                   ID(PimDrPriorityOption), ID(PimGenerationIdOption));
    case ItemKind::bfd:
      return option.type >= 2 && option.type <= 5 ? of<BfdKeyedAuthenticationHdr> : of<BfdAuthenticationHdr>;
    case ItemKind::ipfixSet:
      return of<IpfixSetHdr>;
    case ItemKind::ipfixTemplate:
      return of<IpfixTemplateHdr>;
    case ItemKind::ipfixOptionsTemplate:
      return option.bytes.size() < sizeof(IpfixOptionsTemplateHdr) ? of<IpfixTemplateHdr>
                                                                   : of<IpfixOptionsTemplateHdr>;
    case ItemKind::ipfixField:
      return option.bytes.size() < sizeof(IpfixEnterpriseFieldSpecifier) ? of<IpfixFieldSpecifier>
                                                                         : of<IpfixEnterpriseFieldSpecifier>;
    case ItemKind::sctp:
      return typed(of<SctpChunkHdr>, ID(SctpDataChunk), ID(SctpInitChunk), ID(SctpInitAckChunk),
                   ID(SctpSackChunk), ID(SctpShutdownChunk));
    case ItemKind::igmp:
      return of<IgmpRecordHdr>;
    case ItemKind::mld:
      return of<MldRecordHdr>;
    case ItemKind::lldp:
      return typed(of<LldpTlvHdr>, ID(LldpChassisIdTlv), ID(LldpPortIdTlv), ID(LldpTtlTlv),
                   ID(LldpCapabilitiesTlv), ID(LldpOrganizationTlv));
  }
#undef ID
  return {};
}

}  // namespace Wirl
