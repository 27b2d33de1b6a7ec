// SPDX-License-Identifier: Apache-2.0
#include "Kiv/NboAttrLog.h"

#include <algorithm>

#include "Kiv/Exception.h"

namespace Kiv {

NboAttrLog& NboAttrLog::operator<<(const String& text) {
  if (text.bytes() > 0xffffffffu) throw RangeException("NboAttrLog: string too long");
  *this << static_cast<U32>(text.bytes());
  bytes_.insert(bytes_.end(), text.begin(), text.end());
  return *this;
}

NboAttrLog& NboAttrLog::operator>>(String& text) {
  const std::size_t start = position_;
  U32 length = 0;
  *this >> length;
  if (length > bytesLeft()) {
    position_ = start;
    throw RangeException("NboAttrLog: read past the end");
  }
  const auto octets = take(length);
  text = String(std::string(octets.begin(), octets.end()));
  return *this;
}

void NboAttrLog::octetsIs(std::span<const U8> octets) {
  bytes_.insert(bytes_.end(), octets.begin(), octets.end());
}

void NboAttrLog::octets(std::span<U8> out) {
  std::ranges::copy(take(out.size()), out.begin());
}

std::span<const U8> NboAttrLog::take(std::size_t count) {
  if (count > bytesLeft()) throw RangeException("NboAttrLog: read past the end");
  const auto taken = std::span<const U8>(bytes_).subspan(position_, count);
  position_ += count;
  return taken;
}

}  // namespace Kiv
