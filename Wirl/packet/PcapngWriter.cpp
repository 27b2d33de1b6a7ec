// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/PcapngWriter.h"

#include <algorithm>
#include <cstring>

#include "Kiv/Assert.h"

namespace Wirl {

namespace {

// Block types and options of the format.
constexpr U32 kSection = 0x0a0d0d0a, kInterface = 1, kStatistics = 5, kPacket = 6;
constexpr U32 kByteOrder = 0x1a2b3c4d;
constexpr U16 kComment = 1, kFlags = 2, kDrops = 4;
constexpr U16 kName = 2, kResolution = 9;
constexpr U16 kReceived = 4, kDropped = 5;

void putOctets(std::vector<U8>& body, const void* octets, std::size_t count) {
  const auto* const begin = static_cast<const U8*>(octets);
  body.insert(body.end(), begin, begin + count);
}
template <typename T>
void put(std::vector<U8>& body, T number) {
  putOctets(body, &number, sizeof number);
}
void pad(std::vector<U8>& body) {
  body.resize((body.size() + 3) / 4 * 4, 0);
}
void putTime(std::vector<U8>& body, S64 time) {
  put(body, static_cast<U32>(static_cast<U64>(time) >> 32));
  put(body, static_cast<U32>(time));
}
void putOption(std::vector<U8>& body, U16 code, const void* octets, std::size_t count) {
  const auto length = static_cast<U16>(std::min<std::size_t>(count, 0xffff));
  put(body, code);
  put(body, length);
  putOctets(body, octets, length);
  pad(body);
}
template <typename T>
void putOption(std::vector<U8>& body, U16 code, T number) {
  putOption(body, code, &number, sizeof number);
}

}  // namespace

PcapngWriter::PcapngWriter(std::ostream& out) : out_(out) {
  put(body_, kByteOrder);
  put(body_, U16{1});  // version 1.0
  put(body_, U16{0});
  put(body_, ~U64{0});  // the section's length is not known yet
  block(kSection, body_);
}

void PcapngWriter::block(U32 type, std::span<const U8> body) {
  const auto length = static_cast<U32>(body.size() + 12);
  const auto write = [this](const void* octets, std::size_t count) {
    out_.write(static_cast<const char*>(octets), static_cast<std::streamsize>(count));
  };
  write(&type, sizeof type);
  write(&length, sizeof length);
  write(body.data(), body.size());
  write(&length, sizeof length);
}

U32 PcapngWriter::interfaceIs(std::string_view name, LinkType linkType, U32 snapLength) {
  body_.clear();
  put(body_, static_cast<U16>(linkType));
  put(body_, U16{0});
  put(body_, snapLength);
  putOption(body_, kName, name.data(), name.size());
  putOption(body_, kResolution, U8{9});  // times in nanoseconds
  put(body_, U32{0});
  block(kInterface, body_);
  return interfaces_++;
}

void PcapngWriter::pktIs(const CapturedPkt& pkt) {
  KIV_ASSERT_AS(pkt.interface < interfaces_, "pkt.interface < interfaces_");
  body_.clear();
  put(body_, pkt.interface);
  putTime(body_, pkt.time);
  put(body_, static_cast<U32>(pkt.octets.size()));
  put(body_, pkt.bytes);
  putOctets(body_, pkt.octets.data(), pkt.octets.size());
  pad(body_);
  if (!pkt.comment.empty()) putOption(body_, kComment, pkt.comment.data(), pkt.comment.size());
  if (pkt.way != CapturedPkt::Way::unknown) putOption(body_, kFlags, static_cast<U32>(pkt.way));
  if (pkt.drops != 0) putOption(body_, kDrops, pkt.drops);
  put(body_, U32{0});
  block(kPacket, body_);
}

void PcapngWriter::statisticsIs(U32 interface, S64 time, U64 received, U64 dropped) {
  KIV_ASSERT_AS(interface < interfaces_, "interface < interfaces_");
  body_.clear();
  put(body_, interface);
  putTime(body_, time);
  putOption(body_, kReceived, received);
  putOption(body_, kDropped, dropped);
  put(body_, U32{0});
  block(kStatistics, body_);
}

}  // namespace Wirl
