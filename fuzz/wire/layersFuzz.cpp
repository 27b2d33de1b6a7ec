// SPDX-License-Identifier: Apache-2.0
// Whatever a packet says: the walk stays in its bytes and within its bounds, and what is printed is
// well-formed.
#include <string>

#include "Wirl/wire/LayerFields.h"
#include "Wirl/wire/PktText.h"
#include "fuzz/packet/FuzzPkt.h"

using namespace Wirl;

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
  }
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
