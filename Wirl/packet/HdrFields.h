// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>

#include "Wirl/packet/HdrNumber.h"
#include "Wirl/packet/NetInt.h"

/// Headers as lists of fields. A header is a class over octets; each field of it is one line:
///
///     /// User datagram header (RFC 768).
///     class UdpHdr : public HdrImage<8> {
///      public:
///       WIRL_HDR(UdpHdr, "udp");
///       WIRL_FIELD(U16, srcPort, 0, 16);
///       WIRL_FIELD(U16, dstPort, 16, 16);
///       WIRL_FIELD(U16, len, 32, 16, .key = "length");
///       WIRL_FIELD(IpChecksum, checksum, 48, 16);
///     };
///     static_assert(isHeaderImage<UdpHdr, 8>);
///
/// The line gives the accessor `T field() const`, the setter `void fieldIs(T)` and a row of
/// `hdrFields<UdpHdr>`, from which printing, JSON and tests follow. Bits are counted as the drawings in RFCs
/// do: from the most significant one of octet 0. Numbers are in host order; a setter cuts a number to its
/// field and leaves the neighbouring bits alone. A header that begins as another one does derives from
/// `HdrImage<bytes, Other>`.
///
/// T is an unsigned integer, bool, an enumeration, an address, or a class of one number as `HdrNumber`, whose
/// setter takes the plain number. `HdrFieldOptions` are what may follow the number of bits. No two fields
/// stand on one line of a file.

namespace Wirl {

/// How the value of a field is shown. JSON shows addresses as text, everything else as a number.
enum class HdrKind : Kiv::U8 {
  byType,  ///< As its type says: a number, a flag, an address.
  number,
  hex,
  flag,
  mac,
  ip,
  ip6,
  hidden,  ///< Not shown: another view of bits that other fields show.
};

/// What a line of `WIRL_FIELD` may say beyond the place of the field.
struct HdrFieldOptions {
  HdrKind kind = HdrKind::byType;
  const char* key = nullptr;  ///< Its name in print and JSON, where that is not the accessor's.
  Kiv::U16 scale = 1;         ///< What the number in the field is a multiple of: 4 for words shown as bytes.
  std::string_view (*text)(Kiv::U64 value) = nullptr;  ///< Name of a value, empty for one without.
};

/// A row of a header's table.
struct HdrField {
  const char* name;  ///< The accessor's.
  const char* key;
  HdrKind kind;
  Kiv::U16 firstBit, bits;  ///< Where the field is, counted from the header's first bit.
  Kiv::U16 scale;           ///< By how much the number in the header is multiplied to be shown.
  std::string_view (*text)(Kiv::U64 value);  ///< The name of a value; null: it has none.
  /// The accessor and the setter, as numbers. Of an IPv6 address this is the lower half; setting makes the
  /// upper half its complement.
  Kiv::U64 (*get)(const void* hdr) noexcept;
  void (*set)(void* hdr, Kiv::U64 value) noexcept;  ///< Sets the field.
};

namespace detail {

struct NoHdr {};
template <int>
struct HdrLine {};
/// The fields of a header stand on as many lines.
inline constexpr int kHdrLines = 160;

template <typename T>
inline constexpr bool isHdrNumber = false;
template <FixedText Name, typename Int, unsigned Bits>
inline constexpr bool isHdrNumber<HdrNumber<Name, Int, Bits>> = true;

/// Whether a value is the octets of its field, as addresses and checksums are.
template <typename T>
concept OctetImage = std::is_class_v<T> && alignof(T) == 1 && std::is_trivially_copyable_v<T> &&
                     (
                         requires(T t) { t.octets(); } || requires(T t) { t.net(); });

template <typename T>
struct FieldArgOf {
  using type = std::conditional_t<(sizeof(T) > 8), const T&, T>;
};
template <typename T>
requires isHdrNumber<T>
struct FieldArgOf<T> {
  using type = decltype(T().value());
};
template <typename T>
using FieldArg = typename FieldArgOf<T>::type;

template <unsigned FirstBit, unsigned Bits>
struct BitField {
  static_assert(Bits > 0 && Bits <= 64);
  static constexpr unsigned kFirst = FirstBit / 8;
  static constexpr unsigned kBytes = (FirstBit + Bits - 1) / 8 - kFirst + 1;
  static_assert(kBytes <= 8);
  static constexpr unsigned kShift = (kFirst + kBytes) * 8 - (FirstBit + Bits);
  using Word = std::conditional_t<
      kBytes == 1, Kiv::U8,
      std::conditional_t<kBytes == 2, Kiv::U16, std::conditional_t<kBytes <= 4, Kiv::U32, Kiv::U64>>>;
  static constexpr Word kMask = static_cast<Word>(~Kiv::U64{0} >> (64 - Bits));

  static Word word(const Kiv::U8* hdr) noexcept {
    const Kiv::U8* const at = hdr + kFirst;
    if constexpr (kBytes == sizeof(Word) && (kBytes == 2 || kBytes == 4)) {
      NetInt<Word> net;
      std::memcpy(&net, at, sizeof(net));
      return net;
    } else {
      Word sum = 0;
      for (unsigned i = 0; i < kBytes; ++i) sum = static_cast<Word>(Kiv::U64{sum} << 8 | at[i]);
      return sum;
    }
  }
  static Word get(const Kiv::U8* hdr) noexcept { return static_cast<Word>(word(hdr) >> kShift) & kMask; }
  static void set(Kiv::U8* hdr, Word value) noexcept {
    constexpr Word kPlace = static_cast<Word>(kMask << kShift);
    const auto kept = static_cast<Word>(kPlace == static_cast<Word>(~Word{0}) ? 0 : word(hdr) & ~kPlace);
    auto made = static_cast<Word>(kept | (static_cast<Word>(value << kShift) & kPlace));
    for (unsigned i = kBytes; i-- > 0; made = static_cast<Word>(Kiv::U64{made} >> 8)) {
      hdr[kFirst + i] = static_cast<Kiv::U8>(made);
    }
  }
};

template <typename T, unsigned FirstBit, unsigned Bits>
T fieldOf(const void* hdr) noexcept {
  const auto* const octets = static_cast<const Kiv::U8*>(hdr);
  if constexpr (OctetImage<T>) {
    static_assert(FirstBit % 8 == 0 && Bits == sizeof(T) * 8, "an address takes whole octets");
    T value;
    std::memcpy(&value, octets + FirstBit / 8, sizeof(T));
    return value;
  } else {
    const auto number = BitField<FirstBit, Bits>::get(octets);
    if constexpr (std::is_same_v<T, bool>) {
      static_assert(Bits == 1);
      return number != 0;
    } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
      static_assert(Bits <= sizeof(T) * 8, "the type is too small for the field");
      return static_cast<T>(number);
    } else {
      return T(static_cast<decltype(T().value())>(number));
    }
  }
}

template <typename T, unsigned FirstBit, unsigned Bits>
void fieldIs(void* hdr, const std::remove_cvref_t<T>& value) noexcept {
  auto* const octets = static_cast<Kiv::U8*>(hdr);
  using V = std::remove_cvref_t<T>;
  if constexpr (OctetImage<V>) {
    std::memcpy(octets + FirstBit / 8, &value, sizeof(V));
  } else {
    using Field = BitField<FirstBit, Bits>;
    if constexpr (requires { value.value(); }) {
      Field::set(octets, static_cast<typename Field::Word>(value.value()));
    } else {
      Field::set(octets, static_cast<typename Field::Word>(value));
    }
  }
}

template <typename T>
Kiv::U64 numberOf(const T& value) noexcept {
  if constexpr (requires { value.octets(); }) {
    Kiv::U64 sum = 0;
    for (const Kiv::U8 octet : value.octets()) sum = sum << 8 | octet;
    return sum;
  } else if constexpr (requires { value.value(); }) {
    return value.value();
  } else {
    return static_cast<Kiv::U64>(value);
  }
}

template <typename T>
T valueOf(Kiv::U64 number) noexcept {
  if constexpr (requires(T t) { t.octets(); }) {
    auto octets = T().octets();
    for (std::size_t i = octets.size(), bit = 0; i-- > 0; bit += 8) {
      octets[i] = static_cast<Kiv::U8>(bit < 64 ? number >> bit : ~number >> (bit - 64));
    }
    return T(octets);
  } else if constexpr (std::is_same_v<T, bool>) {
    return (number & 1) != 0;
  } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
    return static_cast<T>(number);
  } else if constexpr (requires { T::maxValue; }) {
    return T(static_cast<decltype(T().value())>(number & T::maxValue));
  } else {
    return T(static_cast<decltype(T().value())>(number));
  }
}

template <typename T>
constexpr HdrKind kindOf() noexcept {
  if constexpr (std::is_same_v<T, bool>) return HdrKind::flag;
  if constexpr (requires(T t) { t.net(); }) return HdrKind::hex;  // a checksum
  if constexpr (requires(T t) { t.octets(); }) {
    return sizeof(T) == 4 ? HdrKind::ip : sizeof(T) == 6 ? HdrKind::mac : HdrKind::ip6;
  }
  return HdrKind::number;
}

template <typename Hdr, int Line>
concept HasFieldOnLine = requires {
  Hdr::hdrField(HdrLine<Line>{}).firstBit;
};

template <typename Hdr, typename Take>
constexpr void forEachField(Take& take) {
  if constexpr (requires { Hdr::HdrParent::kHdrLine; }) {
    forEachField<typename Hdr::HdrParent>(take);
  }
  [&]<int... lines>(std::integer_sequence<int, lines...>) {
    const auto line = [&]<int at>(HdrLine<at> tag) {
      if constexpr (HasFieldOnLine<Hdr, at>) take(Hdr::hdrField(tag));
    };
    (line(HdrLine<Hdr::kHdrLine + 1 + lines>{}), ...);
  }
  (std::make_integer_sequence<int, kHdrLines>{});
}

template <typename Hdr>
constexpr auto collectedFields() {
  constexpr std::size_t count = [] {
    std::size_t found = 0;
    auto take = [&](const HdrField&) { ++found; };
    forEachField<Hdr>(take);
    return found;
  }();
  std::array<HdrField, count> fields{};
  std::size_t next = 0;
  auto take = [&](const HdrField& field) { fields[next++] = field; };
  forEachField<Hdr>(take);
  return fields;
}

}  // namespace detail

/// The octets of a header, those of the header that it begins with first; zero as constructed.
template <unsigned Bytes, typename Parent = detail::NoHdr>
class HdrImage : public Parent {
 public:
  using HdrParent = Parent;

 private:
  Kiv::U8 octets_[Bytes - (std::is_empty_v<Parent> ? 0 : sizeof(Parent))]{};
};

/// The table of a header, in the order of its lines.
template <typename Hdr>
inline constexpr auto hdrFields = detail::collectedFields<Hdr>();

/// What is known of a header at run time.
struct HdrDescription {
  const char* name = nullptr;        ///< Of the layer: "udp".
  unsigned bytes = 0;                ///< Without what may follow, as options.
  std::span<const HdrField> fields;  ///< The fields, in the order of their lines.
};

/// The description of a header's class.
template <typename Hdr>
inline constexpr HdrDescription hdrDescription{Hdr::kHdrName, sizeof(Hdr), hdrFields<Hdr>};

}  // namespace Wirl

/// Begins the list of the fields of class `type`; `layer` is its name in print and JSON.
#define WIRL_HDR(type, layer)                                          \
  using HdrType = type;                                                \
  static constexpr const char* kHdrName = layer;                       \
  static constexpr int kHdrLine = __LINE__;                            \
  static constexpr void hdrField(Wirl::detail::HdrLine<0>) noexcept {} \
  static_assert(true)

/// A field: WIRL_FIELD(type, accessor, first bit, bits, options of `HdrFieldOptions` as in .kind = hex).
#define WIRL_FIELD(type, field, firstBit, bits, ...)                                                   \
  type field() const noexcept {                                                                        \
    return Wirl::detail::fieldOf<type, firstBit, bits>(this);                                          \
  }                                                                                                    \
  void field##Is(Wirl::detail::FieldArg<type> value) noexcept {                                        \
    Wirl::detail::fieldIs<Wirl::detail::FieldArg<type>, firstBit, bits>(this, value);                  \
  }                                                                                                    \
  static constexpr Wirl::HdrField hdrField(Wirl::detail::HdrLine<__LINE__>) noexcept {                 \
    using enum Wirl::HdrKind;                                                                          \
    static_assert((firstBit) + (bits) <= sizeof(HdrType) * 8, "the field lies outside of its header"); \
    constexpr Wirl::HdrFieldOptions options{__VA_ARGS__};                                              \
    return {#field,                                                                                    \
            options.key ? options.key : #field,                                                        \
            options.kind == byType ? Wirl::detail::kindOf<type>() : options.kind,                      \
            firstBit,                                                                                  \
            bits,                                                                                      \
            options.scale,                                                                             \
            options.text,                                                                              \
            [](const void* hdr) noexcept {                                                             \
              return Wirl::detail::numberOf(static_cast<const HdrType*>(hdr)->field());                \
            },                                                                                         \
            [](void* hdr, Kiv::U64 value) noexcept {                                                   \
              using Arg = std::remove_cvref_t<Wirl::detail::FieldArg<type>>;                           \
              static_cast<HdrType*>(hdr)->field##Is(Wirl::detail::valueOf<Arg>(value));                \
            }};                                                                                        \
  }                                                                                                    \
  static_assert(__LINE__ - kHdrLine <= Wirl::detail::kHdrLines, "the list of fields is too long")
