// SPDX-License-Identifier: Apache-2.0
// Whatever a packet says: the walk stays in its bytes and within its bounds, and what is printed is
// well-formed.
#include <string>

#include "Wirl/wire/BfdHdr.h"
#include "Wirl/wire/Ip6ExtHdr.h"
#include "Wirl/wire/IpfixHdr.h"
#include "Wirl/wire/LayerFields.h"
#include "Wirl/wire/PimHdr.h"
#include "Wirl/wire/PktLog.h"
#include "Wirl/wire/PktText.h"
#include "Wirl/wire/SctpHdr.h"
#include "fuzz/packet/FuzzPkt.h"

using namespace Wirl;

namespace {

template <typename List>
std::size_t itemBytes(const List& list) {
  std::size_t bytes = 0;
  for (const WireOption& item : list) bytes += item.bytes.size();
  return bytes;
}

/// Lists that a layer may carry beside its items, read whatever the layer is.
void lists(std::span<const U8> octets) {
  KIV_ASSERT(itemBytes(PimHelloOptions(octets)) <= octets.size());
  KIV_ASSERT(itemBytes(SctpParameters(octets)) <= octets.size());
  for (const WireOption& set : IpfixSets(octets)) {
    const auto first = viewAt<IpfixTemplateHdr>(set.data());
    KIV_ASSERT(!first || first.payload().size() + sizeof(IpfixTemplateHdr) == set.data().size());
  }
  if (const auto bfd = viewAt<BfdHdr>(octets)) {
    const auto authentication = viewAt<BfdAuthenticationHdr>(bfd.options());
    KIV_ASSERT(!authentication || authentication->length() <= 255);
  }
  std::size_t addrs = 0;
  for (const Ip6Addr& addr : Ip6RouteAddrs(octets, Ip6Addr())) addrs += addr.isUnspecified() ? 0u : 1u;
  KIV_ASSERT(addrs <= octets.size());
  KIV_ASSERT(itemBytes(Ip6SegmentTlvs(segmentTlvBytes(octets))) <= octets.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto kinds = static_cast<unsigned>(LayerKind::lldp) + 1;
  LayerOptions options;
  const U8 start = input.octet();
  if (start >= 128) options.start = static_cast<LayerKind>(start % kinds);
  options.wireBytes = input.octet() * 16u;
  const auto pkt = fuzz::packet(input, input.rest());

  U32 end = 0, count = 0;
  for (const Layer& layer : layers(pkt, options)) {
    KIV_ASSERT(++count <= LayerIterator::kMaxLayers + 1 && layer.tunnels <= LayerIterator::kMaxTunnels);
    KIV_ASSERT(layer.offset >= end);
    end = layer.offset + static_cast<U32>(layer.header.size());
    KIV_ASSERT(end + layer.payload.size() <= pkt->bytes());
    std::size_t items = 0;
    forEachItem(layer, [&](const LayerItem& item) { items += item.option.bytes.size(); });
    KIV_ASSERT(items <= layer.header.size() + layer.payload.size());
    lists(layer.header);
    lists(layer.payload);
  }
  // The quick way through what most frames begin with finds what the steps find.
  const std::string whole(pkt->stringValue());
  const std::span<const U8> octets(reinterpret_cast<const U8*>(whole.data()), whole.size());
  auto stepwise = Layers({}, octets, options).begin();
  for (const Layer& layer : layers(octets, options)) {
    KIV_ASSERT(layer.kind == stepwise->kind && layer.offset == stepwise->offset);
    KIV_ASSERT(layer.error == stepwise->error && layer.further == stepwise->further);
    KIV_ASSERT(layer.cut == stepwise->cut && layer.payloadBytes == stepwise->payloadBytes);
    KIV_ASSERT(layer.header.size() == stepwise->header.size() &&
               layer.payload.size() == stepwise->payload.size());
    ++stepwise;
  }
  KIV_ASSERT(stepwise == std::default_sentinel);
  static PktLog log({.maxEntries = 8, .keyBytes = 64});
  log.pktIs(*pkt, noError, Kiv::Time());
  KIV_ASSERT(!log.pktIs(*pkt, noError, Kiv::Time()) && log.entries() <= 8);
  std::string text(pktLine(pkt, options));
  KIV_ASSERT(text.find('\n') == std::string::npos);
  text = std::string(pktFields(pkt, options)) + std::string(pktHex(pkt, options));
  text = std::string(pktJson(pkt, 1, options));
  // Braces and quotes pair off, and no octet is left that JSON forbids.
  long depth = 0;
  bool quoted = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    KIV_ASSERT(static_cast<U8>(text[i]) >= 0x20);
    if (quoted && text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      quoted = !quoted;
    } else if (!quoted) {
      depth += text[i] == '{' || text[i] == '[' ? 1 : text[i] == '}' || text[i] == ']' ? -1 : 0;
      KIV_ASSERT(depth >= 0);
    }
  }
  KIV_ASSERT(depth == 0 && !quoted);
  return 0;
}
