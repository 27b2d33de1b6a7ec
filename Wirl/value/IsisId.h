// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <span>

#include "Wirl/value/EthAddr.h"
#include "Wirl/value/detail/Number.h"

namespace Wirl {

namespace detail {

/// Reads pairs of hexadecimal digits, with or without a full stop between two pairs, up to the first
/// character that fits neither. Returns the number of characters; `count` is 0 for no octets or more than
/// `max`.
constexpr std::size_t takeHexPairs(std::string_view text, Kiv::U8* octets, unsigned max,
                                   unsigned& count) noexcept {
  const auto isPair = [&](std::size_t at) {
    return at + 1 < text.size() && hexValue(text[at]) != kNoDigit && hexValue(text[at + 1]) != kNoDigit;
  };
  std::size_t at = 0;
  count = 0;
  while (true) {
    const std::size_t pair = at > 0 && at < text.size() && text[at] == '.' ? at + 1 : at;
    if (!isPair(pair)) return at;
    if (count == max) {
      count = 0;
      return at;
    }
    octets[count++] = static_cast<Kiv::U8>(hexValue(text[pair]) << 4 | hexValue(text[pair + 1]));
    at = pair + 2;
  }
}

/// Writes octets in hexadecimal, with a full stop in front of octet i if bit i of `stops` is set. Returns the
/// end.
inline char* putHexPairs(char* out, std::span<const Kiv::U8> octets, unsigned stops) noexcept {
  constexpr char kDigits[] = "0123456789abcdef";
  for (unsigned i = 0; i < octets.size(); ++i) {
    if ((stops >> i & 1) != 0) *out++ = '.';
    *out++ = kDigits[octets[i] >> 4];
    *out++ = kDigits[octets[i] & 15];
  }
  *out = '\0';
  return out;
}

}  // namespace detail

/// IS-IS system identifier (ISO/IEC 10589): six octets, as 1921.6800.1001. Reads twelve hexadecimal digits
/// with full stops between any two octets, or none.
class KIV_API IsisSystemId : public detail::Octets<IsisSystemId, 6> {
 public:
  static constexpr unsigned kTextMax = 14;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IsisSystemId";

  using Octets::Octets;
  /// Of a MAC address.
  constexpr explicit IsisSystemId(const EthAddr& mac) noexcept : Octets(mac.octets()) {}

  static constexpr Kiv::ParseError parse(std::string_view& text, IsisSystemId& out) noexcept {
    IsisSystemId read;
    unsigned count = 0;
    // Look at no more than six octets need: what follows belongs to another parser.
    const std::string_view front = text.substr(0, lengthOfSix(text));
    const std::size_t length = detail::takeHexPairs(front, read.octets_.data(), 6, count);
    if (count != 6) return kTrailingText;
    out = read;
    text.remove_prefix(length);
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    return static_cast<unsigned>(detail::putHexPairs(out, octets_, 0b01'0100) - out);
  }

 private:
  static constexpr std::size_t lengthOfSix(std::string_view text) noexcept {
    std::size_t at = 0;
    for (unsigned digits = 0; at < text.size() && digits < 12; ++at) digits += text[at] != '.';
    return at;
  }
};

/// IS-IS area address (ISO/IEC 10589): one to thirteen octets, as 49.0001. Reads pairs of hexadecimal digits
/// with full stops between any two octets, or none. Default 00. Ordered octet by octet.
class KIV_API IsisAreaId : public detail::TextForms<IsisAreaId> {
 public:
  static constexpr unsigned maxSize = 13;  ///< The most octets it has.
  static constexpr unsigned kTextMax = 2 * maxSize + 6;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IsisAreaId";

  constexpr IsisAreaId() noexcept = default;
  /// No octet, or more than 13, throw `Kiv::RangeException`.
  constexpr explicit IsisAreaId(std::span<const Kiv::U8> octets)
      : size_(static_cast<Kiv::U8>(octets.size())) {
    if (octets.empty() || octets.size() > maxSize) detail::throwRange(kTrailingText);
    std::copy(octets.begin(), octets.end(), octets_.begin());
  }
  /// From text; throws `Kiv::RangeException`.
  constexpr explicit IsisAreaId(std::string_view text) { stringValueIs(text); }
  explicit IsisAreaId(std::nullptr_t) = delete;

  constexpr std::span<const Kiv::U8> octets() const noexcept { return {octets_.data(), size_}; }

  static constexpr Kiv::ParseError parse(std::string_view& text, IsisAreaId& out) noexcept {
    IsisAreaId read;
    unsigned count = 0;
    const std::size_t length = detail::takeHexPairs(text, read.octets_.data(), maxSize, count);
    if (count == 0) return kTrailingText;
    read.size_ = static_cast<Kiv::U8>(count);
    out = read;
    text.remove_prefix(length);
    return nullptr;
  }
  /// A full stop behind the first octet and then behind every second one.
  unsigned writeText(char* out) const noexcept {
    return static_cast<unsigned>(detail::putHexPairs(out, octets(), 0b1'0101'0101'0101'0101'0101 << 1) - out);
  }

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    Kiv::SeededHash hash(seed);
    for (const Kiv::U8 octet : octets()) hash.add(octet);
    return hash.value();
  }
  friend constexpr auto operator<=>(const IsisAreaId& a, const IsisAreaId& b) noexcept {
    const auto order = a.octets_ <=> b.octets_;
    return order != 0 ? order : a.size_ <=> b.size_;
  }
  friend constexpr bool operator==(const IsisAreaId&, const IsisAreaId&) noexcept = default;
  /// The number of octets in one octet, then the octets.
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IsisAreaId& area) {
    log << area.size_;
    for (const Kiv::U8 octet : area.octets()) log << octet;
    return log;
  }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IsisAreaId& area) {
    IsisAreaId read;
    log >> read.size_;
    if (read.size_ == 0 || read.size_ > maxSize) detail::throwRange(kTrailingText);
    for (unsigned i = 0; i < read.size_; ++i) log >> read.octets_[i];
    area = read;
    return log;
  }

 private:
  std::array<Kiv::U8, maxSize> octets_{};  // zero behind the last one
  Kiv::U8 size_ = 1;
};

static_assert(std::is_trivially_copyable_v<IsisSystemId> && sizeof(IsisSystemId) == 6);
static_assert(std::is_trivially_copyable_v<IsisAreaId> && sizeof(IsisAreaId) == 14);

}  // namespace Wirl

WIRL_STD_HASH(Wirl::IsisSystemId)
WIRL_STD_HASH(Wirl::IsisAreaId)
