// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <concepts>
#include <optional>
#include <utility>

#include "Wirl/value/U128.h"
#include "Wirl/value/ValueRange.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl::detail {

/// Arithmetic of addresses, made of three members of each type:
///
///     constexpr unsigned bits() const noexcept;      // 32 or 128; 0 for an address without neighbours
///     constexpr U128 number() const noexcept;        // the address as a number
///     constexpr T withNumber(const U128&) const noexcept;  // another address of the family
///
/// Nothing wraps at the ends of a family's addresses: there the named forms return nothing, and the operators
/// throw `Kiv::RangeException` and change nothing.
template <typename T>
class AddressReckoning {
 public:
  /// The address `n` behind this one.
  constexpr std::optional<T> after(const U128& n) const noexcept {
    if (self().bits() == 0 || n > last() - self().number()) return std::nullopt;
    return self().withNumber(self().number() + n);
  }
  /// The address `n` in front of this one.
  constexpr std::optional<T> before(const U128& n) const noexcept {
    if (self().bits() == 0 || n > self().number()) return std::nullopt;
    return self().withNumber(self().number() - n);
  }
  /// A negative `n` counts in the other direction.
  template <std::signed_integral N>
  constexpr std::optional<T> after(N n) const noexcept {
    return n < 0 ? before(U128() - U128(n)) : after(U128(n));
  }
  template <std::signed_integral N>
  constexpr std::optional<T> before(N n) const noexcept {
    return n < 0 ? after(U128() - U128(n)) : before(U128(n));
  }
  constexpr std::optional<T> next() const noexcept { return after(1); }
  constexpr std::optional<T> previous() const noexcept { return before(1); }
  /// The absolute difference of the two as numbers. Nothing if the families differ.
  constexpr std::optional<U128> distance(const T& other) const noexcept {
    if (self().bits() != other.bits() || other.bits() == 0) return std::nullopt;
    const U128 a = self().number();
    const U128 b = other.number();
    return a < b ? b - a : a - b;
  }

  friend constexpr T operator+(const T& a, const U128& n) { return existing(a.after(n)); }
  friend constexpr T operator-(const T& a, const U128& n) { return existing(a.before(n)); }
  template <std::signed_integral N>
  friend constexpr T operator+(const T& a, N n) {
    return existing(a.after(n));
  }
  template <std::signed_integral N>
  friend constexpr T operator-(const T& a, N n) {
    return existing(a.before(n));
  }
  template <typename N>
  friend constexpr auto operator+=(T& a, const N& n) -> decltype(a = a + n) {
    return a = a + n;
  }
  template <typename N>
  friend constexpr auto operator-=(T& a, const N& n) -> decltype(a = a - n) {
    return a = a - n;
  }
  template <typename N>
  friend constexpr auto operator&=(T& a, const N& n) -> decltype(a = a & n) {
    return a = a & n;
  }
  template <typename N>
  friend constexpr auto operator|=(T& a, const N& n) -> decltype(a = a | n) {
    return a = a | n;
  }
  friend constexpr T& operator++(T& a) { return a = existing(a.next()); }
  friend constexpr T& operator--(T& a) { return a = existing(a.previous()); }
  friend constexpr T operator++(T& a, int) { return std::exchange(a, existing(a.next())); }
  friend constexpr T operator--(T& a, int) { return std::exchange(a, existing(a.previous())); }

  friend constexpr auto operator<=>(const AddressReckoning&, const AddressReckoning&) noexcept = default;

 private:
  constexpr const T& self() const noexcept { return static_cast<const T&>(*this); }
  constexpr U128 last() const noexcept { return ~U128() >> (128 - self().bits()); }
  static constexpr T existing(const std::optional<T>& address) {
    if (!address) throwRange("Address out of range");
    return *address;
  }
};

/// Arithmetic of prefixes. Host bits are ignored. A length longer than the address counts as that of a host.
template <typename T, typename Address>
class PrefixReckoning {
 public:
  /// The first and the last address.
  constexpr Address first() const noexcept { return self().baseAddress().maskedByLength(length()); }
  constexpr Address last() const noexcept {
    return first().withNumber(first().number() | ~(~U128() << (first().bits() - length())));
  }
  /// Number of addresses. For ::/0, which has 2^128, it is 2^128 - 1.
  constexpr U128 addressCount() const noexcept {
    const unsigned open = first().bits() - length();
    return open == 128 ? ~U128() : U128::powerOfTwo(open);
  }
  /// Number of addresses that a host may have: without the first (network, or subnet-router anycast, RFC
  /// 4291) and, in IPv4, the last (broadcast). In prefixes of one or two addresses, hosts may have all of
  /// them (RFC 3021, RFC 6164).
  constexpr U128 hostCount() const noexcept {
    const unsigned open = first().bits() - length();
    if (open <= 1) return addressCount();
    return first().bits() == 32 ? addressCount() - U128(2) : ~U128() >> (128 - open);
  }
  /// The broadcast address of an IPv4 prefix. Nothing for IPv6, and for prefixes of one or two addresses.
  constexpr std::optional<Address> broadcast() const noexcept {
    if (first().bits() != 32 || length() > 30) return std::nullopt;
    return last();
  }
  /// All addresses in order.
  constexpr ValueRange<Address> addresses() const noexcept { return {first(), last()}; }
  /// All prefixes of the given length in this one, in order; for its own length, itself. A shorter length, or
  /// one that the family does not have, throws `Kiv::RangeException`.
  constexpr ValueRange<T> subnets(unsigned len) const {
    if (len < length() || len > first().bits()) throwRange("Invalid subnet length");
    return {T(first(), len), T(last().maskedByLength(len), len)};
  }
  /// The prefix of a length that covers this one; nothing for a longer length.
  constexpr std::optional<T> supernet(unsigned len) const noexcept {
    if (len > length()) return std::nullopt;
    return T(first().maskedByLength(len), len);
  }
  /// The neighbours of the same length.
  constexpr std::optional<T> next() const noexcept {
    const auto address = last().next();
    return address ? std::optional(T(*address, length())) : std::nullopt;
  }
  constexpr std::optional<T> previous() const noexcept {
    const auto address = first().previous();
    return address ? std::optional(T(address->maskedByLength(length()), length())) : std::nullopt;
  }
  /// Whether all addresses of `other` are in this one. False if a length is longer than the address.
  constexpr bool contains(const T& other) const noexcept {
    return hasLength() && other.hasLength() && self().len() <= other.len() &&
           self().contains(other.baseAddress());
  }

  friend constexpr auto operator<=>(const PrefixReckoning&, const PrefixReckoning&) noexcept = default;

 protected:
  constexpr bool hasLength() const noexcept { return self().len() <= self().baseAddress().bits(); }

 private:
  constexpr const T& self() const noexcept { return static_cast<const T&>(*this); }
  constexpr unsigned length() const noexcept {
    const unsigned bits = self().baseAddress().bits();
    return self().len() < bits ? self().len() : bits;
  }
};

}  // namespace Wirl::detail
