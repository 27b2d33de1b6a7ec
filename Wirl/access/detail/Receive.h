// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <cstring>
#include <vector>

#include "Wirl/access/Pam.h"

// The receive path of Pams that own a socket.
namespace Wirl::detail {

/// A packet with `room` octets of undefined contents to receive into; null without memory.
KIV_API Pkt::Ptr newRxPkt(U32 room) noexcept;

/// Room for what the kernel tells beside a packet: the peer's address and control messages.
struct RxSide {
  alignas(sockaddr_storage) unsigned char peer[32];  // enough for IP, packet and netlink sockets
  alignas(cmsghdr) unsigned char control[320];

  /// Makes `message` receive into `piece` and this object.
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

/// One received packet and what the kernel told about it.
struct Received {
  Pkt::Ptr pkt;
  msghdr message;
  RxSide side;
};

/// One non-blocking recvmsg(2) of at most `room` octets into `got`. False if it fails, with errno; 0 there
/// means that there was no memory for a packet. `spare` keeps a packet for the next call: one that was not
/// filled, or one whose buffer is too large for the packet manager to recycle.
KIV_API bool receivePkt(Received& got, Pkt::Ptr& spare, int fd, U32 room) noexcept;

/// Batch receive into a row of packets.
///
/// The packets are reused without touching the heap. If somebody else holds a packet or its buffer, the slot
/// gets a fresh packet before the next batch; so clients may keep what they received.
class KIV_API RxBatch {
 public:
  /// One non-blocking recvmmsg(2) of at most `limit` packets of at most `room` octets each. Returns its
  /// result, with errno; 0, without a call, means that there was no memory for a packet. The packets stand in
  /// `slots` from 0 on, cut to their lengths; the row grows as needed. Always the same row.
  S32 receive(std::vector<Pkt::Ptr>& slots, int fd, U16 limit, U32 room);
  /// Packets that the latest batch asked for, and got.
  U16 asked() const noexcept { return asked_; }
  U16 received() const noexcept { return received_; }
  /// What the kernel told about the packet in slot `index` of the latest batch.
  const msghdr& message(U16 index) const noexcept { return messages_[index].msg_hdr; }
  const RxSide& side(U16 index) const noexcept { return sides_[index]; }
  /// Its octets as they were received.
  U32 bytes(U16 index) const noexcept { return messages_[index].msg_len; }

 private:
  bool prepare(std::vector<Pkt::Ptr>& slots, U16 index, U32 room);

  std::vector<mmsghdr> messages_;
  std::vector<iovec> pieces_;
  std::vector<RxSide> sides_;
  U16 asked_ = 0;
  U16 received_ = 0;
  U16 stale_ = 0;  // slots below this one were received into and not made ready again
};

/// A datagram that the kernel merged from several, cut up again: each slice is a packet over its one buffer.
class KIV_API Slices {
 public:
  /// Takes over the packet, whose bytes lie in its shared buffer.
  void start(Pkt::Ptr merged, U32 segmentBytes) noexcept;
  bool empty() const noexcept { return !merged_; }
  /// The next slice, cut to `most` octets; null, with the slice kept, without memory.
  Pkt::Ptr next(U32 most) noexcept;

 private:
  Pkt::Ptr merged_;
  U32 segmentBytes_ = 0;
  U32 at_ = 0, end_ = 0;  // in the buffer
};

}  // namespace Wirl::detail
