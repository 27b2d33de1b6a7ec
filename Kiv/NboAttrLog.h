// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <span>
#include <string_view>
#include <type_traits>

#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Kiv {

/// An append-only record of attribute values in network byte order. Readers get the values in the order in
/// which they were written. An integer takes its own width; a string is its length in 32 bits, then its
/// octets. Each value type defines its own `operator<<` and `operator>>`.
class KIV_API NboAttrLog {
 public:
  NboAttrLog() = default;
  /// A log to read from.
  explicit NboAttrLog(Bytes bytes) : bytes_(std::move(bytes)) {}

  const Bytes& bytes() const noexcept { return bytes_; }
  /// Number of octets not yet read.
  std::size_t bytesLeft() const noexcept { return bytes_.size() - position_; }
  /// Starts reading again at the first value.
  void rewind() noexcept { position_ = 0; }

  template <std::integral T>
  NboAttrLog& operator<<(T value) {
    auto bits = static_cast<U64>(static_cast<std::make_unsigned_t<Stored<T>>>(value));
    for (int shift = static_cast<int>(sizeof(T)) * 8 - 8; shift >= 0; shift -= 8) {
      bytes_.push_back(static_cast<U8>(bits >> shift));
    }
    return *this;
  }
  /// A read past the end throws `RangeException` "NboAttrLog: read past the end" and consumes nothing.
  template <std::integral T>
  NboAttrLog& operator>>(T& value) {
    U64 bits = 0;
    for (U8 octet : take(sizeof(T))) bits = bits << 8 | octet;
    value = static_cast<T>(bits);
    return *this;
  }

  NboAttrLog& operator<<(const String& text);
  NboAttrLog& operator>>(String& text);

  /// Octets without their length: the reader must know how many there are.
  void octetsIs(std::span<const U8> octets);
  void octets(std::span<U8> out);

 private:
  // make_unsigned refuses bool.
  template <typename T>
  using Stored = std::conditional_t<std::same_as<T, bool>, U8, T>;

  std::span<const U8> take(std::size_t count);

  Bytes bytes_;
  std::size_t position_ = 0;
};

}  // namespace Kiv
