// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <libmnl/libmnl.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "Kiv/Types.h"
#include "Wirl/value/IpGenAddr.h"

// Netlink messages, read and written with libmnl. Nothing here trusts a length.
namespace Wirl::detail {

using Kiv::S32;
using Kiv::U16;
using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

/// Lengths in messages are padded to multiples of 4.
constexpr std::size_t padded(std::size_t length) noexcept {
  return (length + 3) & ~std::size_t{3};
}

/// One attribute. A value is read only if the attribute is long enough for it; else it reads as zero.
class Attr {
 public:
  explicit Attr(const nlattr* attr) noexcept : attr_(attr) {}

  U16 type() const noexcept { return mnl_attr_get_type(attr_); }
  std::string_view octets() const noexcept {
    return {static_cast<const char*>(mnl_attr_get_payload(attr_)), mnl_attr_get_payload_len(attr_)};
  }
  template <typename T>
  T as() const noexcept {
    static_assert(std::is_trivially_copyable_v<T>);
    T value{};
    const std::string_view from = octets();
    if (from.size() >= sizeof(T)) std::memcpy(&value, from.data(), sizeof(T));
    return value;
  }
  /// Up to the first NUL.
  std::string_view text() const noexcept {
    const std::string_view from = octets();
    return from.substr(0, from.find('\0'));
  }
  /// Of the unknown family when it is neither 4 nor 16 octets long.
  IpGenAddr address() const noexcept { return addressOf(octets()); }
  static IpGenAddr addressOf(std::string_view octets) noexcept {
    if (octets.size() == 4) {
      U32 word;
      std::memcpy(&word, octets.data(), 4);
      return IpAddr::fromNetOrder(word);
    }
    if (octets.size() != 16) return IpGenAddr();
    Ip6Addr address;
    address.copyFromBuffer(reinterpret_cast<const unsigned char*>(octets.data()));
    return address;
  }

 private:
  const nlattr* attr_;
};

/// Attributes in a row: `for (const Attr attr : Attrs(octets))`. Stops at the first that does not fit.
/// The octets are aligned to 4.
class Attrs {
 public:
  explicit Attrs(std::string_view octets) noexcept
      : at_(octets.data()), left_(static_cast<int>(octets.size())) {}
  /// What follows a fixed part of `fixed` octets in a message.
  Attrs(const nlmsghdr& message, std::size_t fixed) noexcept {
    const std::size_t payload = mnl_nlmsg_get_payload_len(&message);
    const std::size_t skipped = padded(fixed);
    if (payload <= skipped) return;
    at_ = static_cast<const char*>(mnl_nlmsg_get_payload_offset(&message, fixed));
    left_ = static_cast<int>(payload - skipped);
  }

  struct End {};
  class Iterator {
   public:
    Iterator(const char* at, int left) noexcept : at_(at), left_(left) {}
    Attr operator*() const noexcept { return Attr(attr()); }
    Iterator& operator++() noexcept {
      const auto step = static_cast<int>(padded(attr()->nla_len));
      at_ += step;
      left_ -= step;
      return *this;
    }
    bool operator!=(End) const noexcept { return mnl_attr_ok(attr(), left_); }

   private:
    const nlattr* attr() const noexcept { return static_cast<const nlattr*>(static_cast<const void*>(at_)); }
    const char* at_;
    int left_;
  };
  Iterator begin() const noexcept { return {at_, left_}; }
  End end() const noexcept { return {}; }

 private:
  const char* at_ = nullptr;
  int left_ = 0;
};

/// The fixed part of a message's payload; null if the message is too short for it.
template <typename Fixed>
const Fixed* fixedOf(const nlmsghdr& message) noexcept {
  if (mnl_nlmsg_get_payload_len(&message) < sizeof(Fixed)) return nullptr;
  return static_cast<const Fixed*>(mnl_nlmsg_get_payload(&message));
}

/// What an NLMSG_ERROR or NLMSG_DONE says: 0 or an errno, and the kernel's text if there is one.
struct Ack {
  int error = 0;
  std::string_view text;
};
Ack ackOf(const nlmsghdr& message) noexcept;

/// Calls `take(message)` for each whole message of a datagram, whose octets are aligned to 4. False if octets
/// remain that are no message.
template <typename Take>
bool forEachMessage(std::string_view datagram, Take take) {
  // libmnl's own walk takes a length of 2 GB or more for a negative one.
  while (datagram.size() >= sizeof(nlmsghdr)) {
    const auto& message = *static_cast<const nlmsghdr*>(static_cast<const void*>(datagram.data()));
    const std::size_t length = message.nlmsg_len;
    if (length < sizeof(nlmsghdr) || length > datagram.size()) return false;
    take(message);
    datagram.remove_prefix(std::min(padded(length), datagram.size()));
  }
  return datagram.empty();
}

/// A message that is being written. What does not fit in a message ends the process: callers bound what they
/// put.
class Request {
 public:
  template <typename Fixed>
  Request(U16 type, U16 flags, const Fixed& fixed) : Request(type, flags) {
    std::memcpy(mnl_nlmsg_put_extra_header(header(), sizeof(Fixed)), &fixed, sizeof(Fixed));
  }

  void put(U16 type, std::string_view octets);
  void putText(U16 type, std::string_view text) { put(type, std::string(text) + '\0'); }
  template <typename T>
  requires std::is_arithmetic_v<T>
  void put(U16 type, T value) { put(type, {reinterpret_cast<const char*>(&value), sizeof(T)}); }
  void put(U16 type, const IpGenAddr& address) {
    const std::string octets = address.bytes();
    put(type, std::string_view(octets));
  }
  /// Octets without an attribute around them, padded; returns where they are.
  std::size_t putRaw(std::string_view octets);
  /// Sets the length of a record (an rtnexthop) that `putRaw` began.
  void rawLengthIs(std::size_t place);

  /// Attributes put by `fill` stand inside one of `type`.
  template <typename Fill>
  void nest(U16 type, Fill fill) {
    nlattr* const start = mnl_attr_nest_start(header(), type);
    fill();
    mnl_attr_nest_end(header(), start);
  }

  std::string_view octets() const noexcept { return {buffer_, header()->nlmsg_len}; }
  std::string text() const { return std::string(octets()); }

 private:
  Request(U16 type, U16 flags);
  nlmsghdr* header() const noexcept {
    return static_cast<nlmsghdr*>(static_cast<void*>(const_cast<char*>(buffer_)));
  }

  alignas(8) char buffer_[16384];
};

}  // namespace Wirl::detail
