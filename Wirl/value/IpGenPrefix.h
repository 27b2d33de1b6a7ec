// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Wirl/value/Ip6Prefix.h"
#include "Wirl/value/IpGenAddr.h"
#include "Wirl/value/Prefix.h"
#include "Wirl/value/detail/GenTextForms.h"
#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

/// The common part of generic prefixes: an address, a length, and the questions about them.
///
/// Ordered by family, then by address as a number, then by length, the shorter first: 10.0.0.0/8 sorts before
/// 10.0.0.0/16. Deliberately not the order of `Prefix` and `Ip6Prefix`.
class KIV_API IpGenPrefixBase : public detail::GenPrintForms<IpGenPrefixBase> {
 public:
  static constexpr unsigned kTextMax = Ip6Addr::kTextMax + 11;

  constexpr AddressFamily af() const noexcept { return address_.af(); }
  constexpr const IpGenAddr& ipGenAddr() const noexcept { return address_; }
  /// 0.0.0.0 and :: when the family is another one.
  constexpr IpAddr v4Addr() const noexcept { return address_.v4Addr(); }
  constexpr Ip6Addr v6Addr() const noexcept { return address_.v6Addr(); }
  constexpr Kiv::U32 len() const noexcept { return len_; }

  /// A length of 32 for `ipv4`, of 128 for `ipv6`.
  constexpr bool isHost() const noexcept {
    return af() != AddressFamily::ipunknown && len_ == address_.size() * 8;
  }
  bool isReserved() const noexcept { return address_.isReserved(); }
  constexpr bool isMulticast() const noexcept { return address_.isMulticast(); }
  constexpr bool isLoopback() const noexcept { return address_.isLoopback(); }
  constexpr bool isLinkLocal() const noexcept { return address_.isLinkLocal(); }
  constexpr bool isRoutableMulticast() const noexcept { return address_.isRoutableMulticast(); }
  constexpr bool isUnspecified() const noexcept { return address_.isUnspecified(); }
  /// Whether an address has the same family and the same first `len()` bits. False if the length is longer
  /// than an address of the family.
  constexpr bool contains(const IpGenAddr& address) const noexcept {
    return address.af() == af() && len_ <= address_.size() * 8 &&
           address_.longestCommonPrefix(address) >= len_;
  }

  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    Kiv::SeededHash hash(seed);
    return hash.add(static_cast<Kiv::U32>(af())).add(address_.storage().hash()).add(len_).value();
  }
  friend constexpr auto operator<=>(const IpGenPrefixBase&, const IpGenPrefixBase&) noexcept = default;

 protected:
  constexpr IpGenPrefixBase() noexcept = default;
  constexpr IpGenPrefixBase(const IpGenAddr& address, Kiv::U32 len) noexcept : address_(address), len_(len) {}

  static constexpr Kiv::ParseError parse(std::string_view& text, IpGenPrefixBase& out) noexcept {
    const AddressFamily af = detail::familyOfText(text);
    if (af == AddressFamily::ipv4) {
      Prefix prefix;
      if (const Kiv::ParseError error = Prefix::parse(text, prefix)) return error;
      out = IpGenPrefixBase(prefix.address(), prefix.len());
      return nullptr;
    }
    if (af == AddressFamily::ipv6) {
      Ip6Addr address;
      Kiv::U32 len = 0;
      const Kiv::ParseError error = detail::takeIp6AddrAndLen(text, address, len, detail::kLenExpected);
      if (error) return error;
      out = IpGenPrefixBase(address, len);
      return nullptr;
    }
    return "Invalid prefix";
  }

 private:
  IpGenAddr address_;
  Kiv::U32 len_ = 0;
};

/// An IPv4 or an IPv6 prefix, tagged by its family. Default `ipunknown` with length 0.
class KIV_API IpGenPrefix : public IpGenPrefixBase,
                            public detail::ReadForms<IpGenPrefix>,
                            public detail::PrefixReckoning<IpGenPrefix, IpGenAddr> {
 public:
  using IpGenPrefixBase::kTextMax;
  static constexpr Kiv::ParseError kTrailingText = "Invalid prefix";

  constexpr IpGenPrefix() noexcept = default;
  /// A length that the family does not have, or a bit behind the length, throws `Kiv::RangeException`. The
  /// unknown family has the lengths of IPv6.
  constexpr IpGenPrefix(IpAddr address, Kiv::U64 len) : IpGenPrefix(IpGenAddr(address), len) {}
  constexpr IpGenPrefix(const Ip6Addr& address, Kiv::U64 len) : IpGenPrefix(IpGenAddr(address), len) {}
  constexpr IpGenPrefix(const IpGenAddr& address, Kiv::U64 len)
      : IpGenPrefixBase(address, static_cast<Kiv::U32>(len)) {
    const bool v4 = af() == AddressFamily::ipv4;
    if (len > address.size() * 8) [[unlikely]]
      detail::throwRange(v4 ? "Invalid IPv4 Prefix Length" : "Invalid IPv6 Prefix Length");
    if (address.storage().ip6AddrMaskedByLength(this->len()) != address.storage()) [[unlikely]]
      detail::throwRange("Invalid prefix - Non-zero after prefix length");
  }
  /// Without a check: the prefix may be one without length, or have host bits.
  constexpr IpGenPrefix(const Prefix& prefix) noexcept : IpGenPrefixBase(prefix.address(), prefix.len()) {}
  constexpr IpGenPrefix(const Ip6Prefix& prefix) noexcept : IpGenPrefixBase(prefix.address(), prefix.len()) {}
  /// From the sixteen stored octets as four numbers in host order; octet 0 is the most significant octet of
  /// the first number. Checked as above; octets that the family does not have count as host bits.
  constexpr IpGenPrefix(AddressFamily af, Kiv::U64 len, const std::array<Kiv::U32, 4>& words)
      : IpGenPrefix(addressOfWords(af, words), len) {}
  /// From text as 10.1.0.0/16 or 2001:db8::/32; throws `Kiv::RangeException`.
  constexpr explicit IpGenPrefix(std::string_view text) { stringValueIs(text); }
  explicit IpGenPrefix(std::nullptr_t) = delete;

  constexpr const IpGenAddr& baseAddress() const noexcept { return ipGenAddr(); }
  using IpGenPrefixBase::contains;
  using detail::PrefixReckoning<IpGenPrefix, IpGenAddr>::contains;
  /// Whether the family is known, has the length, and no bit behind the length is set.
  constexpr bool validAsPrefix() const noexcept {
    return af() != AddressFamily::ipunknown && hasLength() &&
           ipGenAddr().maskedByLength(len()) == ipGenAddr();
  }
  /// Whether one contains the other.
  constexpr bool overlaps(const IpGenPrefix& other) const noexcept {
    return contains(other) || other.contains(*this);
  }

  /// The prefix of a family, or 0.0.0.0/0 and ::/0 when the family is another one.
  constexpr Prefix v4Prefix() const {
    return af() == AddressFamily::ipv4 ? Prefix(v4Addr(), len()) : Prefix();
  }
  constexpr Ip6Prefix v6Prefix() const noexcept {
    return af() == AddressFamily::ipv6 ? Ip6Prefix(v6Addr(), len()) : Ip6Prefix();
  }

  /// What `Prefix` or `Ip6Prefix` reads, by the family of the address: host bits are refused in IPv4 only.
  static constexpr Kiv::ParseError parse(std::string_view& text, IpGenPrefix& out) noexcept {
    return IpGenPrefixBase::parse(text, out);
  }

  friend constexpr auto operator<=>(const IpGenPrefix&, const IpGenPrefix&) noexcept = default;

 private:
  static constexpr IpGenAddr addressOfWords(AddressFamily af, const std::array<Kiv::U32, 4>& words) {
    const auto half = [&](unsigned i) { return Kiv::U64{words[i]} << 32 | words[i + 1]; };
    const Ip6Addr storage(half(0), half(2));
    IpGenAddr address(af);
    if (af == AddressFamily::ipv4) address = IpAddr::fromHostOrder(words[0]);
    if (af == AddressFamily::ipv6) address = storage;
    if (address.storage() != storage) [[unlikely]]
      detail::throwRange("Invalid prefix - Non-zero after prefix length");
    return address;
  }
};

static_assert(std::is_trivially_copyable_v<IpGenPrefix> && sizeof(IpGenPrefix) == 24);

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpGenPrefixBase& value);
/// Throws `Kiv::RangeException` for a value that is not a `Prefix` or `Ip6Prefix` of the family, and for host
/// bits in the unknown family.
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpGenPrefix& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::IpGenPrefixBase> {
  std::size_t operator()(const Wirl::IpGenPrefixBase& value) const noexcept { return value.hash(); }
};
template <>
struct std::hash<Wirl::IpGenPrefix> {
  std::size_t operator()(const Wirl::IpGenPrefix& value) const noexcept {
    const Wirl::U128 number = value.ipGenAddr().storage().number();
    return Wirl::detail::stdHash(
        number.high(), number.low() + (Kiv::U64{value.len()} << 32 | static_cast<Kiv::U32>(value.af())));
  }
};
