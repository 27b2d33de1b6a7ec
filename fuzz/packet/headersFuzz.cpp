// SPDX-License-Identifier: Apache-2.0
#include <sstream>

#include "Wirl/packet/VlanOffload.h"
#include "fuzz/packet/FuzzPkt.h"
#include "tests/packet/PktHeaders.h"

namespace {

using namespace fuzz;

/// A setter writes its bits and no other, over any octets and at any address; the getter reads them.
void checkField(const hdr::Header& header, Input& input, const std::string& octets) {
  if (header.table.fields.empty()) return;
  const HdrField& field = header.table.fields[input.octet() % header.table.fields.size()];
  const std::size_t offset = input.octet() % 8;
  const U64 value = input.number<U64>();
  hdr::Octets memory(octets.begin(), octets.end());
  memory.resize(offset + header.table.bytes);
  const hdr::Octets expected = hdr::withField(memory, offset, field, value);
  field.set(memory.data() + offset, value);
  KIV_ASSERT(memory == expected);
  KIV_ASSERT(field.get(memory.data() + offset) == hdr::fieldValue(field, value));
}

/// Where an IP header begins behind an Ethernet header (with `at` 12) or a tag (2), as the type there says.
U32 plainIpHdrOffset(const std::string& octets, std::size_t at) {
  for (; at + 2 <= octets.size(); at += 4) {
    const U16 type = word(octets, at);
    if (type == 0x0800 || type == 0x86dd) return static_cast<U32>(at + 2);
    if (type != 0x8100) return 0;
  }
  return 0;
}

template <typename T>
void checkText(const T& value) {
  T again;
  again.stringValueIs(value.stringValue());
  KIV_ASSERT(again == value);
}

void checkViews(const Pkt::Ptr& pkt, U32 offset) {
  for (const auto& header : hdr::headers()) {
    if (!header.bind || U64{offset} + header.table.bytes > pkt->frontBytes()) continue;
    KIV_ASSERT(header.bind(pkt, offset) == pkt->front() + offset);
  }
  const std::string first(pkt->front(), pkt->front() + pkt->frontBytes());
  const std::string there = offset < first.size() ? first.substr(offset) : "";
  std::ostringstream out;
  if (there.size() >= sizeof(EthHdr)) {
    const auto eth = ethHdrWrapperFactory(pkt, offset);
    KIV_ASSERT(eth->ipHdrOffset() == plainIpHdrOffset(there, 12));
    KIV_ASSERT(eth->ethType() == ethTypeUnknown || eth->ethType() == word(there, 12));
  }
  if (there.size() >= sizeof(Eth8021QHdr)) {
    const auto tag = eth8021QHdrWrapperFactory(pkt, offset);
    KIV_ASSERT(tag->ipHdrOffset() == plainIpHdrOffset(there, 2));
    KIV_ASSERT(tag->ethType() == ethTypeUnknown || tag->ethType() == word(there, 2));
    checkText(tag->header()->tagControl());
  }
  if (there.size() >= sizeof(IpHdr)) {
    const IpHdr& ip = *ipHdrWrapperFactory(pkt, offset)->header();
    out << ip;
    checkText(ip.versionAndHeaderLen());
    checkText(ip.fragmentOffsetAndFlags());
    KIV_ASSERT(ip.payloadLen() <= ip.totalLenU16());
    if (there.size() >= ip.headerBytes()) {
      KIV_ASSERT(ip.computedChecksumU16() == plainChecksum(there.substr(0, ip.headerBytes())));
    }
  }
  if (there.size() >= sizeof(Ip6Hdr)) {
    const Ip6Hdr& ip6 = *ip6HdrWrapperFactory(pkt, offset)->header();
    out << ip6;
    checkText(ip6.versionTrafficClassAndFlowLabel());
  }
}

void checkVlanOffload(const Pkt::Ptr& pkt) {
  const std::string frame = pkt->stringValue();
  const std::string onWire = pkt->stringValueMaybeWithVlan();
  const U16 type = frame.size() >= 18 ? word(frame, 12) : U16{0};
  const bool moves = !pkt->tciPresent() && (type == 0x8100 || type == 0x88a8 || type == 0x9100);
  KIV_ASSERT(hasVlanTagToOffload(*pkt) == moves);
  KIV_ASSERT(maybeOffloadAnyVlanTag(pkt) == moves);
  KIV_ASSERT(pkt->stringValueMaybeWithVlan() == onWire);
  if (moves) {
    KIV_ASSERT(pkt->stringValue() == frame.substr(0, 12) + frame.substr(16));
    KIV_ASSERT(pkt->vlanTpid() == type && pkt->tciField() == word(frame, 14));
  }
  if (maybeRestoreVlanTag(pkt)) {
    KIV_ASSERT(!pkt->tciPresent() && pkt->stringValue() == onWire);
  } else {
    KIV_ASSERT(!moves && pkt->stringValue() == frame);
  }
  pkt->checkMagic();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  Input input(data, size);
  const hdr::Header& header = hdr::headers()[input.octet() % hdr::headers().size()];
  Input frameInput = input;
  checkField(header, input, input.rest());

  const U32 offset = frameInput.octet() % 80;
  Input shape = frameInput;
  frameInput.number<U16>();
  const auto pkt = packet(shape, frameInput.rest());
  checkViews(pkt, offset);
  checkVlanOffload(pkt);
  return 0;
}
