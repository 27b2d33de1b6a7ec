// SPDX-License-Identifier: Apache-2.0
// The walk over layers and the text of packets, on the frames of frames.pcap (made by makeFrames.py), which
// tsharkCompare.py holds against tshark: here is what must hold whatever is in a packet.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "Wirl/packet/Pkt.h"
#include "Wirl/wire/LayerFields.h"
#include "Wirl/wire/PktText.h"
#include "tests/support/AllocationCounter.h"
#include "tests/wire/Guarded.h"

namespace {

using namespace Wirl;

std::vector<std::string> frames() {
  std::ifstream file(WIRL_FRAMES, std::ios::binary);
  const std::string all{std::istreambuf_iterator<char>(file), {}};
  std::vector<std::string> found;
  for (std::size_t at = 24; at + 16 <= all.size();) {
    U32 bytes = 0;
    std::memcpy(&bytes, all.data() + at + 8, sizeof(bytes));
    found.push_back(all.substr(at + 16, bytes));
    at += 16 + bytes;
  }
  return found;
}

std::span<const U8> octets(const std::string& text) {
  return {reinterpret_cast<const U8*>(text.data()), text.size()};
}

/// Walks over and prints; each layer must lie in the bytes, behind the one before.
void look(std::span<const U8> bytes, LayerOptions options) {
  std::size_t end = 0;
  unsigned count = 0;
  // A packet whose first piece is empty is walked over step by step.
  auto stepwise = Layers({}, bytes, options).begin();
  for (const Layer& layer : layers(bytes, options)) {
    const auto seen = [](const Layer& l) {
      return std::tuple(l.kind, l.tunnels, l.cut, l.generic, l.error.value(), l.further.value(), l.offset,
                        l.header.size(), l.payload.size(), l.payloadBytes);
    };
    ASSERT_EQ(seen(layer), seen(*stepwise));
    ++stepwise;
    ASSERT_LE(++count, LayerIterator::kMaxLayers + 1);
    ASSERT_LE(layer.tunnels, LayerIterator::kMaxTunnels);
    ASSERT_GE(layer.offset, end);
    end = layer.offset + layer.header.size();
    ASSERT_LE(end + layer.payload.size(), bytes.size());
    if (!layer.header.empty()) {
      ASSERT_EQ(layer.header.data(), bytes.data() + layer.offset);
    }
    std::size_t items = 0;
    forEachItem(layer, [&](const LayerItem& item) { items += item.option.bytes.size(); });
    ASSERT_LE(items, layer.header.size() + layer.payload.size());
  }
  std::string text;
  const Layers found = layers(bytes, options);
  appendPktLine(text, found);
  ASSERT_EQ(text.find('\n'), std::string::npos);
  appendPktFields(text, found);
  appendPktHex(text, found);
  std::string json;
  appendPktJson(json, found, 7);
  const auto object = nlohmann::json::parse(json, nullptr, false);
  ASSERT_FALSE(object.is_discarded()) << json;
  ASSERT_EQ(object.at("frame"), 7);
}

/// Cut anywhere, damaged anywhere, from any start: nothing behind the end is read, and JSON stays JSON.
TEST(Layers, ReadNothingBehindTheEnd) {
  const auto all = frames();
  ASSERT_GT(all.size(), 200u);
  const Guarded memory(65536);
  std::mt19937 engine(1);
  const auto random = [&engine] { return static_cast<U32>(engine()); };
  for (unsigned trial = 0; trial < 20000; ++trial) {
    std::string frame = all[random() % all.size()];
    for (unsigned damage = random() % 4; damage > 0 && !frame.empty(); --damage) {
      const unsigned kind = random() % 3;
      frame[random() % std::min<std::size_t>(frame.size(), 90)] = static_cast<char>(kind == 0   ? 0
                                                                                    : kind == 1 ? 255
                                                                                                : random());
    }
    const auto wire = static_cast<U32>(frame.size());
    if (random() % 2 == 0) frame.resize(random() % (frame.size() + 1));
    SCOPED_TRACE(testing::Message() << "trial " << trial);
    const auto start = trial % 4 == 0
                           ? static_cast<LayerKind>(1 + random() % static_cast<U8>(LayerKind::lldp))
                           : LayerKind::eth;
    look(memory.copy(frame), {.start = start, .wireBytes = trial % 2 == 0 ? wire : 0});
    if (HasFatalFailure()) return;
  }
}

TEST(Layers, OfEachFrameCutAnywhereReadNothingBehindTheCut) {
  const Guarded memory(65536);
  for (const std::string& frame : frames()) {
    for (std::size_t bytes = 0; bytes < std::min<std::size_t>(frame.size(), 200); ++bytes) {
      std::size_t end = 0;
      for (const Layer& layer :
           layers(memory.copy(frame.substr(0, bytes)), {.wireBytes = static_cast<U32>(frame.size())})) {
        end = layer.offset + layer.header.size();
      }
      ASSERT_LE(end, bytes);
    }
  }
}

/// In two pieces there are the same layers, with the same codes, up to a header that lies in both.
TEST(Layers, OfTwoPiecesAreThoseOfOne) {
  for (const std::string& frame : frames()) {
    for (U32 split = 1; split < std::min<std::size_t>(frame.size(), Pkt::privateBufferSize_); ++split) {
      const auto pkt = globalPktManager()->newPkt();
      pkt->stringValueIs(frame.substr(split));
      std::memcpy(pkt->newPrivateHeadData(split), frame.data(), split);
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
  const auto all = frames();
  std::string text;
  text.reserve(1 << 16);
  const AllocationCounter counter;
  for (const std::string& frame : all) {
    if (std::string_view(frame).substr(std::min<std::size_t>(frame.size(), 12), 2) == "\x88\xcc")
      continue;  // the identifiers of LLDP become strings
    text.clear();
    appendPktLine(text, layers(octets(frame)));
  }
  EXPECT_EQ(counter.allocations(), 0u);
}

}  // namespace
