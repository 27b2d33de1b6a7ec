// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/wire/BfdHdr.h"
#include "Wirl/wire/IpfixHdr.h"
#include "Wirl/wire/Layers.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

/// The fields of a layer's header: of messages with a type those of that type, where their bytes are there.
/// They may reach into the payload. Nothing for a layer without fields.
KIV_API HdrDescription layerFields(const Layer& layer) noexcept;
/// Octets that the fields lie in: header and payload.
inline std::span<const U8> layerBytes(const Layer& layer) noexcept {
  return layer.bytes();
}

/// An item that a layer has besides its fields: an option, a record, a chunk, a TLV.
struct LayerItem {
  HdrDescription fields;  ///< The fields of the option's header.
  WireOption option;      ///< The option.
};
/// Calls `each(const LayerItem&)` for the items of a layer that fit.
template <typename Each>
void forEachItem(const Layer& layer, Each each);

namespace detail {
enum class ItemKind : U8 {
  none,
  ip,
  tcp,
  ip6,
  segment,
  nd,
  sctp,
  igmp,
  mld,
  router,
  pim,
  bfd,
  ipfixSet,
  ipfixTemplate,
  ipfixOptionsTemplate,
  ipfixField,
  lldp
};
/// What items a layer has, and where.
KIV_API ItemKind itemsOf(const Layer& layer, std::span<const U8>& where) noexcept;
KIV_API HdrDescription itemFields(ItemKind kind, const WireOption& option) noexcept;
template <typename Format, typename Each>
void forEachItemOf(ItemKind kind, std::span<const U8> where, Each& each) {
  for (const WireOption& option : OptionList<Format>(where))
    each(LayerItem{itemFields(kind, option), option});
}
/// Sets, each before its templates, and each of these before its fields.
template <typename Each>
void forEachIpfixItem(std::span<const U8> where, Each& each) {
  const auto item = [&each](ItemKind kind, WireOption option, bool hasItems) {
    if (hasItems) option.bytes = option.bytes.first(option.hdrBytes);  // the rest is told by them
    each(LayerItem{itemFields(kind, option), option});
  };
  const auto templates = [&]<typename Format>(ItemKind kind, const WireOption& set, Format) {
    for (const WireOption& one : OptionList<Format>(set.data())) {
      item(kind, one, true);
      forEachItemOf<IpfixFieldFormat>(ItemKind::ipfixField, one.data(), each);
    }
  };
  for (const WireOption& set : IpfixSets(where)) {
    const bool plain = set.type == IpfixTemplateHdr::setId;
    const bool options = set.type == IpfixOptionsTemplateHdr::setId;
    item(ItemKind::ipfixSet, set, plain || options);
    if (plain) templates(ItemKind::ipfixTemplate, set, IpfixTemplateFormat<IpfixTemplateHdr>());
    if (options)
      templates(ItemKind::ipfixOptionsTemplate, set, IpfixTemplateFormat<IpfixOptionsTemplateHdr>());
  }
}
}  // namespace detail

template <typename Each>
void forEachItem(const Layer& layer, Each each) {
  using detail::ItemKind;
  std::span<const U8> where;
  switch (const ItemKind kind = detail::itemsOf(layer, where)) {
    case ItemKind::none:
      return;
    case ItemKind::ip:
    case ItemKind::tcp:
      return detail::forEachItemOf<IpOptionFormat>(kind, where, each);
    case ItemKind::ip6:
    case ItemKind::segment:
      return detail::forEachItemOf<Ip6OptionFormat>(kind, where, each);
    case ItemKind::nd:
      return detail::forEachItemOf<NdOptionFormat>(kind, where, each);
    case ItemKind::sctp:
      return detail::forEachItemOf<SctpChunkFormat>(kind, where, each);
    case ItemKind::igmp:
      return detail::forEachItemOf<GroupRecordFormat<4>>(kind, where, each);
    case ItemKind::mld:
      return detail::forEachItemOf<GroupRecordFormat<16>>(kind, where, each);
    case ItemKind::router:
      return detail::forEachItemOf<EntryFormat<8>>(kind, where, each);
    case ItemKind::pim:
      return detail::forEachItemOf<TlvFormat>(kind, where, each);
    case ItemKind::bfd:
      return detail::forEachItemOf<BfdAuthenticationFormat>(kind, where, each);
    case ItemKind::ipfixSet:
    case ItemKind::ipfixTemplate:
    case ItemKind::ipfixOptionsTemplate:
    case ItemKind::ipfixField:
      return detail::forEachIpfixItem(where, each);
    case ItemKind::lldp:
      return detail::forEachItemOf<LldpTlvFormat>(kind, where, each);
  }
}

}  // namespace Wirl
