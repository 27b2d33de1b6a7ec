// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Wirl/access/Pam.h"

// What the receive paths of the Pams that own a socket share.
namespace Wirl::detail {

/// A packet whose data is `room` octets, contents undefined, to receive into; null when there is no memory.
KIV_API Pkt::Ptr newRxPkt(U32 room) noexcept;

/// A control message's data, whose alignment and length nobody promises.
template <typename T>
T dataOf(const cmsghdr& message) {
  T data{};
  const std::size_t length = message.cmsg_len - CMSG_LEN(0);
  std::memcpy(&data, CMSG_DATA(&message), std::min(sizeof(T), length));
  return data;
}

/// Room for what one receive tells beside the packet.
struct RxSide {
  alignas(sockaddr_storage) unsigned char peer[32];  // a sockaddr of IP or of a packet socket
  alignas(cmsghdr) unsigned char control[216];

  /// Makes `message` deliver into `piece` and here.
  void prepare(msghdr& message, iovec& piece) noexcept {
    message.msg_name = peer;
    message.msg_namelen = sizeof(peer);
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    message.msg_flags = 0;
  }
  template <typename SockAddr>
  SockAddr peerAs() const noexcept {
    static_assert(sizeof(SockAddr) <= sizeof(peer));
    SockAddr address;
    std::memcpy(&address, peer, sizeof(address));
    return address;
  }
};

/// One non-blocking recvmsg of at most `room` octets, with what was told beside them in `side`, as `message`
/// has it. Null when it fails, with errno, which is 0 where no packet could be had. `spare` is for the next
/// receive: a packet that was made in vain, or one too large for others to recycle, if it is free by then.
KIV_API Pkt::Ptr receivePkt(Pkt::Ptr& spare, int fd, U32 room, msghdr& message, RxSide& side) noexcept;

/// Batch receive into the saved packets of a Pam.
///
/// The packets of the slots are used again and again, without a look at the heap. A packet (or its buffer)
/// that someone holds beside the slot is left to him: the slot gets a fresh one before the next batch. So
/// clients may keep what they received for as long as they like.
class KIV_API RxBatch {
 public:
  /// One non-blocking recvmmsg of at most `limit` packets of at most `room` octets. Returns its result, with
  /// errno: the number of packets received, and 0, without a call, where no packet could be had. They stand,
  /// cut to their lengths, in the slots from 0 on, whose `savedPacketRx` is true, as that of no other slot
  /// is.
  S32 receive(Pam& pam, int fd, U16 limit, U32 room);
  /// Packets in the latest batch.
  U16 received() const noexcept { return received_; }
  /// What was told beside the packet in slot `index` of the latest batch.
  msghdr& message(U16 index) noexcept { return messages_[index].msg_hdr; }
  const RxSide& side(U16 index) const noexcept { return sides_[index]; }

 private:
  bool prepare(Pam& pam, U16 index, U32 room);

  std::vector<mmsghdr> messages_;
  std::vector<iovec> pieces_;
  std::vector<RxSide> sides_;
  U16 received_ = 0;
  U16 stale_ = 0;  // end of the slots that were received into and not made ready again
};

}  // namespace Wirl::detail
