// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <optional>
#include <span>

#include "Wirl/value/detail/Number.h"

namespace Wirl {

/// MPLS label (RFC 3032): a number of 20 bits.
class KIV_API MplsLabel : public detail::Number<MplsLabel, Kiv::U32, 0xf'ffff> {
 public:
  static constexpr Kiv::ParseError kTrailingText = "Invalid MplsLabel";
  static constexpr Kiv::ParseError kTooLarge = "MplsLabel::value > 1048575 not allowed";

  using Number::Number;

  /// 0 to 15, whose meaning is fixed (RFC 3032, RFC 7274).
  constexpr bool isReserved() const noexcept { return value_ < 16; }
};

inline constexpr MplsLabel mplsIp4ExplicitNull(0);
inline constexpr MplsLabel mplsRouterAlert(1);
inline constexpr MplsLabel mplsIp6ExplicitNull(2);
/// Means "no label" in signalling; never in a packet.
inline constexpr MplsLabel mplsImplicitNull(3);
/// RFC 6790, RFC 5586.
inline constexpr MplsLabel mplsEntropyLabelIndicator(7);
inline constexpr MplsLabel mplsGenericAssociatedChannel(13);

/// The labels of a packet, the top one first: at most 16. Its text is the labels joined by slashes, as
/// 100/200; that of no labels is empty. Ordered label by label.
class KIV_API MplsLabelStack : public detail::TextForms<MplsLabelStack> {
 public:
  static constexpr unsigned maxLabels = 16;
  static constexpr unsigned kTextMax = maxLabels * 8 - 1;
  static constexpr Kiv::ParseError kTrailingText = "Invalid MplsLabelStack";
  static constexpr Kiv::ParseError kTooMany = "MplsLabelStack::labels > 16 not allowed";

  constexpr MplsLabelStack() noexcept = default;
  /// The top one first; more than 16 throw `Kiv::RangeException`.
  constexpr explicit MplsLabelStack(std::span<const MplsLabel> labels) {
    if (labels.size() > maxLabels) detail::throwRange(kTooMany);
    for (const MplsLabel label : labels) labels_[size_++] = label;
  }
  /// From text; throws `Kiv::RangeException`.
  constexpr explicit MplsLabelStack(std::string_view text) { stringValueIs(text); }
  explicit MplsLabelStack(std::nullptr_t) = delete;

  constexpr unsigned size() const noexcept { return size_; }
  constexpr bool empty() const noexcept { return size_ == 0; }
  constexpr const MplsLabel* begin() const noexcept { return labels_.data(); }
  constexpr const MplsLabel* end() const noexcept { return labels_.data() + size_; }
  /// Puts a label on top. False, and nothing done, where there are 16.
  constexpr bool push(MplsLabel label) noexcept {
    if (size_ == maxLabels) return false;
    std::copy_backward(labels_.begin(), labels_.begin() + size_, labels_.begin() + size_ + 1);
    labels_[0] = label;
    ++size_;
    return true;
  }
  /// Takes the top label off; nothing where there is none.
  constexpr std::optional<MplsLabel> pop() noexcept {
    if (size_ == 0) return std::nullopt;
    const MplsLabel top = labels_[0];
    std::copy(labels_.begin() + 1, labels_.begin() + size_, labels_.begin());
    labels_[--size_] = MplsLabel();
    return top;
  }

  /// Octets on the wire.
  constexpr unsigned wireSize() const noexcept { return 4 * size_; }
  /// Writes the `wireSize()` octets, every entry with the traffic class (3 bits) and the time to live.
  constexpr void copyToBuffer(unsigned char* out, unsigned trafficClass, Kiv::U8 ttl) const noexcept {
    for (unsigned i = 0; i < size_; ++i) {
      const Kiv::U32 entry =
          labels_[i].value() << 12 | (trafficClass & 7) << 9 | Kiv::U32{i + 1u == size_} << 8 | ttl;
      for (unsigned k = 0; k < 4; ++k) out[4 * i + k] = static_cast<unsigned char>(entry >> (24 - 8 * k));
    }
  }
  /// The labels up to the bottom of the stack; nothing where the octets end before it, or behind 16 labels.
  static constexpr std::optional<MplsLabelStack> fromWire(std::span<const unsigned char> octets) noexcept {
    MplsLabelStack stack;
    for (; octets.size() >= 4 && stack.size_ < maxLabels; octets = octets.subspan(4)) {
      stack.labels_[stack.size_++] =
          MplsLabel(Kiv::U32{octets[0]} << 12 | Kiv::U32{octets[1]} << 4 | Kiv::U32{octets[2]} >> 4);
      if ((octets[2] & 1) != 0) return stack;
    }
    return std::nullopt;
  }

  static constexpr Kiv::ParseError parse(std::string_view& text, MplsLabelStack& out) noexcept {
    MplsLabelStack read;
    std::string_view rest = text;
    for (bool more = !rest.empty() && rest[0] >= '0' && rest[0] <= '9'; more;) {
      if (read.size_ == maxLabels) return kTooMany;
      if (const Kiv::ParseError error = MplsLabel::parse(rest, read.labels_[read.size_])) return error;
      ++read.size_;
      more = Kiv::takeLiteral(rest, "/");
    }
    out = read;
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    char* at = out;
    for (const MplsLabel label : *this) {
      if (at != out) *at++ = '/';
      at = detail::putDecimal(at, label.value());
    }
    *at = '\0';
    return static_cast<unsigned>(at - out);
  }

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    Kiv::SeededHash hash(seed);
    for (const MplsLabel label : *this) hash.add(label.value());
    return hash.value();
  }
  friend constexpr bool operator==(const MplsLabelStack& a, const MplsLabelStack& b) noexcept {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }
  friend constexpr std::strong_ordering operator<=>(const MplsLabelStack& a,
                                                    const MplsLabelStack& b) noexcept {
    for (unsigned i = 0; i < a.size_ && i < b.size_; ++i) {
      if (const auto order = a.labels_[i] <=> b.labels_[i]; order != 0) return order;
    }
    return a.size_ <=> b.size_;
  }
  /// The number of labels in one octet, then the labels.
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const MplsLabelStack& stack) {
    log << stack.size_;
    for (const MplsLabel label : stack) log << label;
    return log;
  }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, MplsLabelStack& stack) {
    MplsLabelStack read;
    Kiv::U8 size = 0;
    log >> size;
    if (size > maxLabels) detail::throwRange(kTooMany);
    for (; read.size_ < size; ++read.size_) log >> read.labels_[read.size_];
    stack = read;
    return log;
  }

 private:
  std::array<MplsLabel, maxLabels> labels_{};  // zero behind the last one
  Kiv::U8 size_ = 0;
};

static_assert(std::is_trivially_copyable_v<MplsLabelStack> && sizeof(MplsLabelStack) == 68);

}  // namespace Wirl

WIRL_STD_HASH(Wirl::MplsLabel)
WIRL_STD_HASH(Wirl::MplsLabelStack)
