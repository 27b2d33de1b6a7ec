// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>
#include <type_traits>

#include "Kiv/Assert.h"
#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Wirl/value/AddressFamily.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/detail/GenTextForms.h"
#include "Wirl/value/detail/Reckoning.h"

namespace Wirl {

/// An IPv4 or an IPv6 address, tagged by its family; default `ipunknown`, which holds ::. Ordered by family,
/// then as a number.
///
/// Each predicate asks the address of the current family. Predicates that only IPv4 has are false for the
/// other families. For the rest, `ipunknown` answers as the IPv6 address :: does.
class KIV_API IpGenAddr : public detail::GenTextForms<IpGenAddr>, public detail::AddressReckoning<IpGenAddr> {
 public:
  static constexpr unsigned kTextMax = Ip6Addr::kTextMax;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IpGenAddr";

  constexpr IpGenAddr() noexcept = default;
  /// The zero address of a family. A number that is no family ends the process.
  constexpr explicit IpGenAddr(AddressFamily af) noexcept : af_(af) {
    KIV_ASSERT_AS(af <= AddressFamily::ipv6, "af <= AddressFamily::ipv6");
  }
  constexpr IpGenAddr(IpAddr address) noexcept
      : af_(AddressFamily::ipv4), storage_(Kiv::U64{address.hostOrder()} << 32, 0) {}
  constexpr IpGenAddr(const Ip6Addr& address) noexcept : af_(AddressFamily::ipv6), storage_(address) {}
  /// From text; an empty one gives `ipunknown`. Throws `Kiv::RangeException`.
  constexpr explicit IpGenAddr(std::string_view text) {
    if (!text.empty()) stringValueIs(text);
  }
  explicit IpGenAddr(std::nullptr_t) = delete;

  constexpr AddressFamily af() const noexcept { return af_; }
  /// 0.0.0.0 when the family is another one.
  constexpr IpAddr v4Addr() const noexcept {
    // An `ipv4` address has zeros behind its four octets; the other families may have any octets there.
    return isV4() ? IpAddr::fromHostOrder(static_cast<Kiv::U32>(storage_.u64(0) >> 32)) : IpAddr();
  }
  /// :: when the family is another one.
  constexpr Ip6Addr v6Addr() const noexcept { return isV6() ? storage_ : Ip6Addr(); }
  /// Sixteen octets: of `ipv4` the first four are the address, and the rest are zero.
  constexpr const Ip6Addr& storage() const noexcept { return storage_; }

  /// Octets of the address: 4 for `ipv4`, otherwise 16, also for `ipunknown`.
  constexpr unsigned size() const noexcept { return isV4() ? 4 : 16; }
  /// The `size()` octets in network order.
  Kiv::String bytes() const;
  constexpr void copyToBuffer(unsigned char* buf) const noexcept {
    for (unsigned i = 0; i < size(); ++i) buf[i] = storage_.octets()[i];
  }

  /// The Ethernet group of a group; zero for other addresses.
  constexpr EthAddr mcastEtherAddress() const noexcept {
    return isV4() ? v4Addr().mcastEtherAddress() : storage_.mcastEtherAddress();
  }
  /// Number of leading bits in which the two agree, up to the size of this one's family. If `other` has
  /// another family, compares with the zero address.
  constexpr unsigned longestCommonPrefix(const IpGenAddr& other) const noexcept {
    return isV4() ? v4Addr().longestCommonPrefix(other.v4Addr())
                  : v6Addr().longestCommonPrefix(other.v6Addr());
  }

  /// The address with all bits behind the first `len` cleared; unchanged with a length of its family
  /// or more.
  constexpr IpGenAddr maskedByLength(Kiv::U64 len) const noexcept {
    IpGenAddr masked = *this;
    masked.storage_ = storage_.maskedByLength(len);
    return masked;
  }
  /// 32 for `ipv4`, 128 for `ipv6`, 0 for `ipunknown`, which has one address.
  constexpr unsigned bits() const noexcept { return isV4() ? 32 : isV6() ? 128 : 0; }
  constexpr U128 number() const noexcept { return isV4() ? v4Addr().number() : storage_.number(); }
  /// Another address of the family.
  constexpr IpGenAddr withNumber(const U128& number) const noexcept {
    if (isV4()) return IpAddr::withNumber(number);
    if (isV6()) return Ip6Addr::withNumber(number);
    return *this;
  }

  /// The `ipv4` address in an IPv4-mapped `ipv6` one (::ffff:0:0/96); `ipunknown` for any other address.
  static constexpr IpGenAddr getMappedV4Addr(const IpGenAddr& a) noexcept {
    if (!a.isV6() || !a.storage_.isV4MappedV6()) return IpGenAddr();
    return IpAddr::fromHostOrder(static_cast<Kiv::U32>(a.storage_.u64(1)));
  }
  /// The IPv4-mapped `ipv6` address of an `ipv4` one; `ipunknown` for any other address.
  static constexpr IpGenAddr getV4MappedV6Addr(const IpGenAddr& a) noexcept {
    if (!a.isV4()) return IpGenAddr();
    return Ip6Addr(0, Kiv::U64{0xffff'0000'0000} | a.v4Addr().hostOrder());
  }

  constexpr bool isUnicast() const noexcept { return isV4() ? v4Addr().isUnicast() : storage_.isUnicast(); }
  constexpr bool isMulticast() const noexcept {
    return isV4() ? v4Addr().isMulticast() : storage_.isMulticast();
  }
  constexpr bool isLinkLocalUnicast() const noexcept {
    return isV4() ? v4Addr().isLinkLocalUnicast() : storage_.isLinkLocalUnicast();
  }
  constexpr bool isLinkLocal() const noexcept {
    return isV4() ? v4Addr().isLinkLocal() : storage_.isLinkLocal();
  }
  constexpr bool isLoopback() const noexcept {
    return isV4() ? v4Addr().isLoopback() : storage_.isLoopback();
  }
  constexpr bool isLoopbackBase() const noexcept { return isV4() && v4Addr().isLoopbackBase(); }
  constexpr bool isUnspecified() const noexcept {
    return isV4() ? v4Addr().isUnspecified() : storage_.isUnspecified();
  }
  constexpr bool isPimRouters() const noexcept {
    return isV4() ? v4Addr().isPimRouters() : storage_.isPimRouters();
  }
  constexpr bool isRoutableMulticast() const noexcept {
    return isV4() ? v4Addr().isRoutableMulticast() : storage_.isRoutableMulticast();
  }
  constexpr bool isLinkLocalMulticast() const noexcept {
    return isV4() ? v4Addr().isLinkLocalMulticast() : storage_.isLinkLocalMulticast();
  }
  /// 0.0.0.0, and never ::.
  constexpr bool isAny() const noexcept { return isV4() && v4Addr().isAny(); }
  bool isReserved() const noexcept { return isV4() && v4Addr().isReserved(); }
  constexpr bool isThisNetwork() const noexcept { return isV4() && v4Addr().isThisNetwork(); }
  constexpr bool isBroadcast() const noexcept { return isV4() && v4Addr().isBroadcast(); }
  constexpr bool isV4LinkLocal() const noexcept { return isV4() && v4Addr().isLinkLocal(); }
  constexpr bool isV6LinkLocal() const noexcept { return isV6() && storage_.isLinkLocal(); }

  /// An IPv6 address when its first colon is before its first full stop, else an IPv4 address.
  static constexpr Kiv::ParseError parse(std::string_view& text, IpGenAddr& out) noexcept {
    const auto read = [&](auto address) {
      const Kiv::ParseError error = decltype(address)::parse(text, address);
      if (!error) out = address;
      return error;
    };
    switch (detail::familyOfText(text)) {
      case AddressFamily::ipv4:
        return read(IpAddr());
      case AddressFamily::ipv6:
        return read(Ip6Addr());
      case AddressFamily::ipunknown:
        break;
    }
    return kTrailingText;
  }
  /// Like `parse`, but does not find out why a text is refused: that takes as long as several addresses.
  static constexpr std::optional<IpGenAddr> fromText(std::string_view text) noexcept {
    switch (detail::familyOfText(text)) {
      case AddressFamily::ipv4:
        return IpAddr::fromText(text);
      case AddressFamily::ipv6:
        return Ip6Addr::fromText(text);
      case AddressFamily::ipunknown:
        break;
    }
    return std::nullopt;
  }
  static std::optional<IpGenAddr> fromText(std::nullptr_t) = delete;
  /// The text of the family; :: for `ipunknown`.
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(static_cast<Kiv::U32>(af_)).add(storage_.hash()).value();
  }
  friend constexpr auto operator<=>(const IpGenAddr&, const IpGenAddr&) noexcept = default;

 private:
  constexpr bool isV4() const noexcept { return af_ == AddressFamily::ipv4; }
  constexpr bool isV6() const noexcept { return af_ == AddressFamily::ipv6; }

  AddressFamily af_ = AddressFamily::ipunknown;
  Ip6Addr storage_;
};

static_assert(std::is_trivially_copyable_v<IpGenAddr> && sizeof(IpGenAddr) == 20);

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpGenAddr& value);
/// A family that there is not, or octets that a family does not have, throw `Kiv::RangeException`.
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpGenAddr& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::IpGenAddr> {
  std::size_t operator()(const Wirl::IpGenAddr& value) const noexcept {
    return Wirl::detail::stdHash(value.storage().number().high(),
                                 value.storage().number().low() + static_cast<Kiv::U32>(value.af()));
  }
};
