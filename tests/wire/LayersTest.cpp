// SPDX-License-Identifier: Apache-2.0
// The walk over layers and the text of packets, on the frames of frames.pcap (made by makeFrames.py), which
// tsharkCompare.py holds against tshark. What must hold whatever is in a packet is up to the fuzz target
// layersFuzz.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Wirl/packet/Pkt.h"
#include "Wirl/wire/PktText.h"
#include "tests/packet/Frames.h"
#include "tests/support/AllocationCounter.h"

namespace {

using namespace Wirl;

const std::vector<std::string> kFrames = frames::ofCapture(WIRL_FRAMES);

std::span<const U8> octets(const std::string& text) {
  return {reinterpret_cast<const U8*>(text.data()), text.size()};
}

TEST(Layers, OfEachFrameCutAnywhereReadNothingBehindTheCut) {
  ASSERT_GT(kFrames.size(), 200u);
  for (const std::string& frame : kFrames) {
    for (std::size_t bytes = 0; bytes < std::min<std::size_t>(frame.size(), 200); ++bytes) {
      std::size_t end = 0;
      const std::vector<U8> cut(frame.begin(), frame.begin() + static_cast<long>(bytes));
      for (const Layer& layer : layers(cut, {.wireBytes = static_cast<U32>(frame.size())})) {
        end = layer.offset + layer.header.size();
      }
      ASSERT_LE(end, bytes);
    }
  }
}

/// In two pieces there are the same layers, with the same codes, up to a header that lies in both.
TEST(Layers, OfTwoPiecesAreThoseOfOne) {
  for (const std::string& frame : kFrames) {
    for (U32 split = 1; split < std::min<std::size_t>(frame.size(), Pkt::privateBufferSize_); ++split) {
      const auto pkt = frames::packet(frame, split);
      auto whole = layers(octets(frame)).begin();
      for (const Layer& layer : layers(pkt)) {
        if (whole == std::default_sentinel) {  // its first octets, in both pieces, say that it is none
          ASSERT_EQ(layer.error, pktTooShort);
          break;
        }
        ASSERT_EQ(layer.offset, whole->offset);
        const bool split2 = layer.offset < split && layer.offset + whole->header.size() > split;
        if (split2) break;
        ASSERT_EQ(layer.kind, whole->kind);
        ASSERT_EQ(layer.payloadBytes, whole->payloadBytes);
        // What needs the message in one piece is not asked of others.
        const bool needs = layer.kind == LayerKind::icmp6 || layer.kind == LayerKind::sctp ||
                           layer.kind == LayerKind::igmp || layer.kind == LayerKind::ipfix ||
                           layer.kind == LayerKind::vrrp;
        if (!needs || layer.bytes().size() == layer.header.size() + layer.payloadBytes) {
          ASSERT_EQ(layer.error, whole->error) << layerKindText(layer.kind) << " split at " << split;
        }
        ++whole;
      }
    }
  }
}

/// Of a megabyte of tags, labels or tunnels the walk sees no more than its bounds.
TEST(Layers, AreBounded) {
  const std::string macs(12, '\2');
  const std::string ip("\x45\0\0\0\0\0\0\0\x40\x04\0\0\xc0\0\2\1\xc0\0\2\2", 20);
  for (const std::string& unit : {std::string("\x81\0\0\1", 4), ip}) {
    std::string frame = macs + (unit == ip ? std::string("\x08\0", 2) : "");
    while (frame.size() < 1 << 20) frame += unit;
    unsigned count = 0;
    PktCode last;
    for (const Layer& layer : layers(octets(frame))) {
      ++count;
      last = layer.error == tooManyLayers ? layer.error : layer.further;
    }
    EXPECT_EQ(last, tooManyLayers);
    EXPECT_LE(count, LayerIterator::kMaxLayers + 1);
  }
}

TEST(Layers, AllocateNothing) {
  std::string text;
  text.reserve(1 << 16);
  const AllocationCounter counter;
  for (const std::string& frame : kFrames) {
    if (std::string_view(frame).substr(std::min<std::size_t>(frame.size(), 12), 2) == "\x88\xcc")
      continue;  // the identifiers of LLDP become strings
    text.clear();
    appendPktLine(text, layers(octets(frame)));
  }
  EXPECT_EQ(counter.allocations(), 0u);
}

}  // namespace
