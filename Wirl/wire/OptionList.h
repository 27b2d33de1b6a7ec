// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <span>

#include "Wirl/packet/HdrView.h"

namespace Wirl {

/// An option, a TLV, a chunk or a record: one item of a list that a header carries. All of its bytes are
/// there.
struct WireOption {
  U16 type = 0;
  std::span<const U8> bytes;  ///< From its type on.
  unsigned hdrBytes = 0;      ///< What of them comes before its data.

  std::span<const U8> data() const noexcept { return bytes.subspan(hdrBytes); }
  /// As a kind of option that has its type in `kType`; null for another type, and for one that is shorter.
  template <typename Hdr>
  HdrView<const Hdr> as() const noexcept {
    return type == Hdr::kType ? HdrView<const Hdr>(bytes) : nullptr;
  }
};

/// What of a list comes next: its bytes, with the padding behind it that belongs to no item.
struct OptionStep {
  WireOption option;     ///< The option.
  std::size_t skip = 0;  ///< To the next item; 0: this one does not fit.
  bool last = false;     ///< It ends the list, as an end-of-options octet does.
};

/// The items of a list, in their order, without memory of its own. `Format` has `static OptionStep
/// next(std::span<const U8>)`, asked for as long as there are bytes. Iterating ends in front of an item that
/// does not fit; `whole()` says whether there is one.
template <typename Format>
class OptionList {
 public:
  class Iterator {
   public:
    using iterator_concept = std::forward_iterator_tag;
    using iterator_category = std::input_iterator_tag;
    using value_type = WireOption;
    using difference_type = std::ptrdiff_t;
    using pointer = const WireOption*;
    using reference = const WireOption&;

    Iterator() noexcept = default;
    explicit Iterator(std::span<const U8> rest) noexcept : rest_(rest) { look(); }

    const WireOption& operator*() const noexcept { return step_.option; }
    const WireOption* operator->() const noexcept { return &step_.option; }
    Iterator& operator++() noexcept {
      rest_ = step_.last ? std::span<const U8>() : rest_.subspan(std::min(step_.skip, rest_.size()));
      look();
      return *this;
    }
    Iterator operator++(int) noexcept {
      const Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator& other) const noexcept { return rest_.data() == other.rest_.data(); }
    bool operator==(std::default_sentinel_t) const noexcept { return step_.skip == 0; }
    /// At the end of the list: whether it ended with its bytes, or with an item that ends it.
    bool whole() const noexcept { return rest_.empty(); }

   private:
    void look() noexcept { step_ = rest_.empty() ? OptionStep() : Format::next(rest_); }

    std::span<const U8> rest_;
    OptionStep step_;
  };

  OptionList() noexcept = default;
  explicit OptionList(std::span<const U8> bytes) noexcept : bytes_(bytes) {}

  Iterator begin() const noexcept { return Iterator(bytes_); }
  std::default_sentinel_t end() const noexcept { return {}; }
  /// Whether every item fits.
  bool whole() const noexcept {
    if constexpr (requires { Format::whole(bytes_); }) return Format::whole(bytes_);
    Iterator at = begin();
    while (at != end()) ++at;
    return at.whole();
  }
  /// The first item of that kind; null when there is none.
  template <typename Hdr>
  HdrView<const Hdr> find() const noexcept {
    for (const WireOption& option : *this) {
      if (const auto found = option.as<Hdr>()) return found;
    }
    return nullptr;
  }

 private:
  std::span<const U8> bytes_;
};

/// Options of IPv4 (RFC 791) and TCP (RFC 9293): 0 ends the list, 1 is one octet of padding, others have a
/// length that counts type and length too.
struct IpOptionFormat {
  /// The same as by `next`, in less time: of every packet with options somebody asks.
  static bool whole(std::span<const U8> bytes) noexcept {
    for (std::size_t at = 0; at < bytes.size() && bytes[at] != 0;) {
      if (bytes[at] == 1) {
        ++at;
      } else if (at + 1 == bytes.size() || bytes[at + 1] < 2 || bytes[at + 1] > bytes.size() - at) {
        return false;
      } else {
        at += bytes[at + 1];
      }
    }
    return true;
  }
  static OptionStep next(std::span<const U8> rest) noexcept {
    if (rest[0] <= 1) return {{rest[0], rest.first(1), 1}, 1, rest[0] == 0};
    if (rest.size() < 2 || rest[1] < 2 || rest[1] > rest.size()) return {};
    return {{rest[0], rest.first(rest[1]), 2}, rest[1]};
  }
};

/// Options of hop-by-hop and destination options headers (RFC 8200): 0 is one octet of padding, others have a
/// length of their data.
struct Ip6OptionFormat {
  static OptionStep next(std::span<const U8> rest) noexcept {
    if (rest[0] == 0) return {{0, rest.first(1), 1}, 1};
    if (rest.size() < 2 || rest[1] > rest.size() - 2) return {};
    return {{rest[0], rest.first(rest[1] + 2u), 2}, rest[1] + 2u};
  }
};

/// Options of neighbour discovery (RFC 4861): the length counts units of 8 octets, and 0 is none.
struct NdOptionFormat {
  static OptionStep next(std::span<const U8> rest) noexcept {
    if (rest.size() < 2 || rest[1] == 0 || rest[1] * 8u > rest.size()) return {};
    return {{rest[0], rest.first(rest[1] * 8u), 2}, rest[1] * 8u};
  }
};

/// A type, a flag octet, and a length of 16 bits that counts these and the data, but not the padding to 4
/// octets behind it: chunks of SCTP (RFC 9260).
struct SctpChunkFormat {
  static OptionStep next(std::span<const U8> rest) noexcept {
    if (rest.size() < 4) return {};
    const std::size_t bytes = rest[2] * 256u + rest[3];
    if (bytes < 4 || bytes > rest.size()) return {};
    return {{rest[0], rest.first(bytes), 4}, (bytes + 3) / 4 * 4};
  }
};

/// A type and a length of 16 bits each, the length counting both and the data; `kPadded`: with padding to 4
/// octets behind it. Parameters of SCTP, sets of IPFIX (RFC 7011).
template <bool kPadded>
struct LongOptionFormat {
  static OptionStep next(std::span<const U8> rest) noexcept {
    if (rest.size() < 4) return {};
    const std::size_t bytes = rest[2] * 256u + rest[3];
    if (bytes < 4 || bytes > rest.size()) return {};
    return {{static_cast<U16>(rest[0] << 8 | rest[1]), rest.first(bytes), 4},
            kPadded ? (bytes + 3) / 4 * 4 : bytes};
  }
};

/// A type and a length of 16 bits each, the length that of the data: options of a hello of PIM (RFC 7761).
struct TlvFormat {
  static OptionStep next(std::span<const U8> rest) noexcept {
    if (rest.size() < 4) return {};
    const std::size_t bytes = 4 + rest[2] * 256u + rest[3];
    if (bytes > rest.size()) return {};
    return {{static_cast<U16>(rest[0] << 8 | rest[1]), rest.first(bytes), 4}, bytes};
  }
};

/// Entries of the same length that have no type.
template <unsigned kBytes>
struct EntryFormat {
  static OptionStep next(std::span<const U8> rest) noexcept {
    if (rest.size() < kBytes) return {};
    return {{0, rest.first(kBytes), 0}, kBytes};
  }
};

/// TLVs of LLDP (IEEE 802.1AB): 7 bits of type and 9 of length, of the data; type 0 ends the list.
struct LldpTlvFormat {
  static OptionStep next(std::span<const U8> rest) noexcept {
    if (rest.size() < 2) return {};
    const std::size_t bytes = 2 + ((rest[0] & 1u) << 8 | rest[1]);
    if (bytes > rest.size()) return {};
    const auto type = static_cast<U16>(rest[0] >> 1);
    return {{type, rest.first(bytes), 2}, bytes, type == 0};
  }
};

/// Records of multicast reports: type, words of auxiliary data, number of sources (16 bits), the group, the
/// sources. `kAddressBytes`: 4 for IGMPv3 (RFC 3376), 16 for MLDv2 (RFC 3810).
template <unsigned kAddressBytes>
struct GroupRecordFormat {
  static OptionStep next(std::span<const U8> rest) noexcept {
    constexpr unsigned kFixed = 4 + kAddressBytes;
    if (rest.size() < kFixed) return {};
    const std::size_t bytes = kFixed + rest[1] * 4u + (rest[2] * 256u + rest[3]) * std::size_t{kAddressBytes};
    if (bytes > rest.size()) return {};
    return {{rest[0], rest.first(bytes), kFixed}, bytes};
  }
};

}  // namespace Wirl
