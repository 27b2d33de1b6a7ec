// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "Kiv/String.h"
#include "Wirl/wire/Layers.h"

namespace Wirl {

// Packets as text. What is printed comes from the tables of the headers' fields; bytes that a header lacks
// are left out, and what is wrong with a layer stands in brackets. Each function appends to `out`, so that a
// loop over many packets reuses its memory.

/// One line, without its end, the layers from the outside in:
/// "vlan 7, IP 192.0.2.1.40000 > 192.0.2.2.53: UDP, length 18".
KIV_API void appendPktLine(std::string& out, const Layers& layers);
/// A line for each layer, and below it one for each field, option and record; of what an item carries behind
/// its fields the first 64 octets.
KIV_API void appendPktFields(std::string& out, const Layers& layers);
/// Octets in hexadecimal and as characters, 16 in a row, with their offsets, a new row for each layer with
/// its name beside it.
KIV_API void appendPktHex(std::string& out, const Layers& layers);
/// An object in one line: {"frame":7,"layers":[{"layer":"eth","dst":"...",...},...],"errors":["badUdpLen"]}.
/// Numbers and flags are numbers, addresses canonical text. A field that is not whole there is left out, and
/// so is a layer of which nothing is there. "cut":true is in a layer that the capture has cut.
KIV_API void appendPktJson(std::string& out, const Layers& layers, Kiv::U64 frame);

inline Kiv::String pktLine(const Pkt::Ptr& pkt, LayerOptions options = {}) {
  std::string text;
  appendPktLine(text, layers(pkt, options));
  return text;
}
inline Kiv::String pktFields(const Pkt::Ptr& pkt, LayerOptions options = {}) {
  std::string text;
  appendPktFields(text, layers(pkt, options));
  return text;
}
inline Kiv::String pktHex(const Pkt::Ptr& pkt, LayerOptions options = {}) {
  std::string text;
  appendPktHex(text, layers(pkt, options));
  return text;
}
inline Kiv::String pktJson(const Pkt::Ptr& pkt, Kiv::U64 frame, LayerOptions options = {}) {
  std::string text;
  appendPktJson(text, layers(pkt, options), frame);
  return text;
}

}  // namespace Wirl
