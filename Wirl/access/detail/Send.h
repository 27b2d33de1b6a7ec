// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <cstring>

#include "Wirl/access/detail/Socket.h"

// Sending of many packets with few system calls.
namespace Wirl::detail {

/// Messages for one sendmmsg(2). Holds no packet: the caller's must stay until they are sent.
class KIV_API TxBatch {
 public:
  static constexpr U32 kMessages = 64;
  static constexpr U32 kPieces = 512;

  void clear() noexcept { messageCount_ = pieceCount_ = 0; }
  U32 messages() const noexcept { return messageCount_; }
  /// Whether there is room for one more message of that many pieces.
  bool hasRoomFor(U32 pieces) const noexcept {
    return messageCount_ < kMessages && pieceCount_ + pieces <= kPieces;
  }

  /// Begins a message of `packets` packets. There must be room for it.
  void begin(U32 packets) noexcept;
  // Of the message that was begun last; two control messages at most, one of them packet information.
  void add(const iovec* pieces, std::size_t count) noexcept;
  void toIs(const SockAddr& address) noexcept { toIs(address.get(), address.length()); }
  void toIs(const void* address, std::size_t length) noexcept;
  void fromIs(const IpGenAddr& from, U32 ifIndex) noexcept;
  template <typename T>
  void control(int level, int type, const T& data) noexcept {
    Message& message = messages_[messageCount_ - 1];
    msghdr& header = headers_[messageCount_ - 1].msg_hdr;
    static_assert(sizeof(T) <= sizeof(in6_pktinfo));
    unsigned char* const at = message.control + header.msg_controllen;
    std::memset(at, 0, CMSG_SPACE(sizeof(T)));
    cmsghdr what{};
    what.cmsg_level = level;
    what.cmsg_type = type;
    what.cmsg_len = CMSG_LEN(sizeof(T));
    std::memcpy(at, &what, sizeof(what));
    std::memcpy(at + CMSG_LEN(0), &data, sizeof(T));
    header.msg_control = message.control;
    header.msg_controllen += CMSG_SPACE(sizeof(T));
  }

  /// Returns how many messages were sent, from the first on, or -1 with errno if the first was refused.
  int send(int fd, int flags) noexcept;
  /// Packets of a message.
  U32 packets(U32 message) const noexcept { return messages_[message].packets; }

 private:
  struct Message {
    U32 packets;
    alignas(sockaddr_storage) unsigned char to[sizeof(sockaddr_in6)];
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(U16))];
  };

  U32 messageCount_ = 0;
  U32 pieceCount_ = 0;
  mmsghdr headers_[kMessages];
  Message messages_[kMessages];
  iovec pieces_[kPieces];
};

/// What a bulk send sends: `SocketPam::sendBatch` asks for it message by message.
class TxSource {
 public:
  virtual ~TxSource() = default;
  /// Puts a message that begins with packet `at` into the batch, and returns how many packets it has, one if
  /// `alone`. 0: there is no room for it. The negative of an errno: the packet is refused.
  virtual S32 put(TxBatch& batch, U32 at, bool alone) = 0;
  /// The kernel refused a message of several packets, but sends the first of them alone.
  virtual void refused(int) {}
};

}  // namespace Wirl::detail
