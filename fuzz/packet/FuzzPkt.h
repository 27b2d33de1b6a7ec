// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Kiv/Assert.h"
#include "Wirl/packet/Pkt.h"

namespace fuzz {

using namespace Wirl;

/// What the fuzzer gives, from the front; zeros when it has run out.
class Input {
 public:
  Input(const unsigned char* data, std::size_t size) : data_(data), size_(size) {}
  U8 octet() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }
  template <typename T>
  T number() {
    T number = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) number = static_cast<T>(U64{number} << 8 | octet());
    return number;
  }
  std::string rest() const { return std::string(data_, data_ + size_); }

 private:
  const unsigned char* data_;
  std::size_t size_;
};

/// A packet of `frame`, whose first octets may lie in the private area, and whose others end where a buffer
/// of the heap ends, so that a sanitizer sees a read past them; at any alignment, with or without a separate
/// tag.
inline Pkt::Ptr packet(Input& input, const std::string& frame) {
  const U8 shape = input.octet();
  const U8 split = input.octet();
  const auto bytes = static_cast<U32>(frame.size());
  const auto& manager = globalPktManager();
  const bool noBuffer = (shape & 0xc0) == 0xc0 && bytes <= Pkt::privateBufferSize_;
  const U32 inPrivate = noBuffer ? bytes : (shape & 0x40) == 0 ? 0 : std::min(bytes, split % 65u);
  const auto pkt = noBuffer ? manager->newPkt(nullptr)
                            : manager->newPkt(manager->newSharedBuffer(bytes - inPrivate + (shape & 7)));
  if (!noBuffer) pkt->stringValueIs(frame.substr(inPrivate));
  if (inPrivate > 0) {
    std::memcpy(pkt->newPrivateHeadData(inPrivate), frame.data(), inPrivate);
  } else if ((shape & 0x20) != 0) {  // a first piece that became empty
    pkt->newPrivateHeadData(1);
    pkt->delPrivateHeadData(1);
  }
  if ((shape & 0x10) != 0) pkt->newSeparateVlanTag(split, 0x8100);
  KIV_ASSERT(pkt->bytes() == bytes && pkt->stringValue() == frame);
  return pkt;
}

/// The checksum as the textbook has it.
inline U16 plainChecksum(const std::string& data, U32 start = 0) {
  U64 sum = start;
  for (std::size_t i = 0; i < data.size(); ++i) {
    sum += U64{static_cast<U8>(data[i])} << (i % 2 == 0 ? 8 : 0);
  }
  while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<U16>(~sum);
}

inline U16 word(const std::string& octets, std::size_t at) {
  return static_cast<U16>(static_cast<U8>(octets[at]) << 8 | static_cast<U8>(octets[at + 1]));
}
inline void wordIs(std::string& octets, std::size_t at, std::size_t value) {
  octets[at] = static_cast<char>(value >> 8);
  octets[at + 1] = static_cast<char>(value);
}

}  // namespace fuzz
