// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <concepts>
#include <cstring>
#include <ostream>
#include <string_view>

#include "Kiv/Exception.h"
#include "Wirl/access/SocketPam.h"
#include "Wirl/packet/Pkt.h"
#include "Wirl/value/IpGenAddr.h"

// What every socket of the library needs: addresses, control messages both ways, interfaces, group
// membership.
namespace Wirl::detail {

using Kiv::S32;
using Kiv::U16;
using Kiv::U32;
using Kiv::U8;

inline IpAddr addressOf(const in_addr& address) noexcept {
  return IpAddr::fromNetOrder(address.s_addr);
}
inline Ip6Addr addressOf(const in6_addr& octets) noexcept {
  Ip6Addr address;
  address.copyFromBuffer(octets.s6_addr);
  return address;
}

/// A text for a trace, made while it is printed. So where there is no memory for it, the trace is dropped,
/// and the traced code goes on.
template <std::invocable Make>
struct Printed {
  Make make;
  friend std::ostream& operator<<(std::ostream& out, const Printed& text) { return out << text.make(); }
};
template <typename Make>
Printed(Make) -> Printed<Make>;

/// The text of an errno, for a trace.
inline auto errorPrinted(int error) noexcept {
  return Printed{[error] { return Kiv::errorText(error); }};
}

/// An address and a port of either family, in the form of the system calls.
class SockAddr {
 public:
  /// Room for an address from the kernel.
  SockAddr() noexcept = default;
  /// `port` is in host order. `scope` is the interface index for a link-local IPv6 address or any IPv6 group;
  /// the kernel looks at it where the group's own scope asks for it.
  SockAddr(const IpGenAddr& address, U16 port, U32 scope) noexcept {
    if (address.af() == AddressFamily::ipv4) {
      v4_.sin_family = AF_INET;
      v4_.sin_port = htons(port);
      v4_.sin_addr.s_addr = address.v4Addr().netOrder();
      length_ = sizeof(v4_);
    } else {
      v6_.sin6_family = AF_INET6;
      v6_.sin6_port = htons(port);
      address.copyToBuffer(v6_.sin6_addr.s6_addr);
      if (address.isLinkLocalUnicast() || address.isMulticast()) v6_.sin6_scope_id = scope;
    }
  }

  const sockaddr* get() const noexcept { return reinterpret_cast<const sockaddr*>(&v6_); }
  sockaddr* get() noexcept { return reinterpret_cast<sockaddr*>(&v6_); }
  socklen_t length() const noexcept { return length_; }
  socklen_t& length() noexcept { return length_; }

  /// `ipunknown` if the kernel gave no address.
  IpGenAddr address() const noexcept {
    if (v6_.sin6_family == AF_INET) return addressOf(v4_.sin_addr);
    if (v6_.sin6_family != AF_INET6) return IpGenAddr();
    return addressOf(v6_.sin6_addr);
  }
  /// In host order.
  U16 port() const noexcept { return ntohs(v6_.sin6_port); }  // at the same offset in both families

 private:
  union {
    sockaddr_in6 v6_{};
    sockaddr_in v4_;
  };
  socklen_t length_ = sizeof(v6_);
};

/// Packet information for a send: the source address, unspecified for any, and the interface, 0 for any.
in_pktinfo pktInfo4(const IpGenAddr& from, U32 ifIndex) noexcept;
in6_pktinfo pktInfo6(const IpGenAddr& from, U32 ifIndex) noexcept;

/// One message for sendmsg(2). Keeps the packet, since a reactor may drop the caller's pointer.
class TxMessage {
 public:
  explicit TxMessage(const Pkt::Ptr& pkt) noexcept : pkt_(pkt) {
    message_.msg_iov = const_cast<iovec*>(pkt_->iovecs());  // sendmsg() only reads it
    message_.msg_iovlen = pkt_->numIovecs();
  }
  TxMessage(const TxMessage&) = delete;
  TxMessage& operator=(const TxMessage&) = delete;

  const Pkt& pkt() const noexcept { return *pkt_; }
  const msghdr& get() const noexcept { return message_; }

  /// Sends these pieces in place of the packet's; they must outlive the message.
  void piecesAre(iovec* pieces, std::size_t count) noexcept {
    message_.msg_iov = pieces;
    message_.msg_iovlen = count;
  }
  template <typename Address>
  void toIs(const Address& address) noexcept {
    toIs(&address, sizeof(address));
  }
  void toIs(const SockAddr& address) noexcept { toIs(address.get(), address.length()); }
  /// Adds packet information: the source address, unspecified for any, and the interface, 0 for any. `from`
  /// is of the socket's family.
  void fromIs(const IpGenAddr& from, U32 ifIndex) noexcept;
  template <typename T>
  void control(int level, int type, const T& data) noexcept {
    static_assert(CMSG_SPACE(sizeof(T)) <= sizeof(control_));
    cmsghdr header{};
    header.cmsg_level = level;
    header.cmsg_type = type;
    header.cmsg_len = CMSG_LEN(sizeof(T));
    std::memset(control_, 0, CMSG_SPACE(sizeof(T)));
    std::memcpy(control_, &header, sizeof(header));
    std::memcpy(control_ + CMSG_LEN(0), &data, sizeof(T));
    message_.msg_control = control_;
    message_.msg_controllen = CMSG_SPACE(sizeof(T));
  }

 private:
  void toIs(const void* address, std::size_t length) noexcept {
    std::memcpy(to_, address, std::min(length, sizeof(to_)));
    message_.msg_name = to_;
    message_.msg_namelen = static_cast<socklen_t>(length);
  }

  const Pkt::Ptr pkt_;
  msghdr message_{};
  alignas(sockaddr_storage) unsigned char to_[sizeof(sockaddr_in6)];
  alignas(cmsghdr) unsigned char control_[CMSG_SPACE(sizeof(in6_pktinfo))];
};

/// The data of a control message. Neither its alignment nor its length can be trusted.
template <typename T>
T dataOf(const cmsghdr& message) noexcept {
  T data{};
  const std::size_t length = message.cmsg_len - CMSG_LEN(0);
  if (length >= sizeof(T)) [[likely]] {
    std::memcpy(&data, CMSG_DATA(&message), sizeof(T));  // of a known length: no call
  } else {
    std::memcpy(&data, CMSG_DATA(&message), length);
  }
  return data;
}

/// Calls `take` for each control message.
template <typename Take>
void eachControl(const msghdr& message, Take take) {
  auto* const all = const_cast<msghdr*>(&message);  // the macros only read it
  for (cmsghdr* each = CMSG_FIRSTHDR(all); each; each = CMSG_NXTHDR(all, each)) take(*each);
}

/// What the control messages of an IP socket tell about one packet.
struct IpControl {
  IpGenAddr dstIpAddr, origDstIpAddr;  // `ipunknown` if not told
  U32 ifIndex = 0;
  bool pktInfo = false;  // whether the two below were told: dstIpAddr and ifIndex
  S32 tos = -1, ttl = -1;
  U32 segmentBytes = 0;  // of datagrams that the kernel merged
  RxTimes times;
};
IpControl ipControlOf(const msghdr& message) noexcept;

/// Takes the receive times, if the message tells them.
void takeTimes(const cmsghdr& each, RxTimes& times) noexcept;

/// Asks for a device by name: `request` is an ioctl(2) such as SIOCGIFINDEX. The socket looks in its own
/// namespace. False with errno set if that fails; ENODEV for a name that is too long.
bool deviceIs(int fd, unsigned long request, std::string_view name, ifreq& device) noexcept;

/// Joins or leaves a multicast group on an interface (0: the system's choice). Returns 0 or an errno.
int membershipIs(int fd, const IpGenAddr& group, bool join, U32 ifIndex) noexcept;

}  // namespace Wirl::detail
