// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/PacketPam.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "Kiv/Assert.h"
#include "Wirl/access/deferClose.h"
#include "Wirl/access/detail/Socket.h"

namespace Wirl {

namespace {

constexpr std::size_t kAddresses = 12;  // octets in front of a tag

/// The pieces of a frame on the wire: those of the packet, with its separate tag inserted.
class FramePieces {
 public:
  explicit FramePieces(const Pkt& pkt) noexcept {
    if (!pkt.tciPresent()) {
      count_ = pkt.numIovecs();
      std::copy_n(pkt.iovecs(), count_, pieces_);
      return;
    }
    const U16 words[] = {pkt.vlanTpid(), pkt.tciField()};
    for (int i = 0; i < 4; ++i) tag_[i] = static_cast<U8>(words[i / 2] >> (i % 2 == 0 ? 8 : 0));
    std::size_t before = kAddresses;
    for (U32 i = 0; i < pkt.numIovecs(); ++i) {
      const iovec& piece = pkt.iovecs()[i];
      const std::size_t front = std::min(before, piece.iov_len);
      if (front > 0) add(static_cast<U8*>(piece.iov_base), front);
      if (before > 0 && front == before) add(tag_, sizeof(tag_));
      before -= front;
      if (front < piece.iov_len) add(static_cast<U8*>(piece.iov_base) + front, piece.iov_len - front);
    }
  }

  iovec* pieces() noexcept { return pieces_; }
  std::size_t count() const noexcept { return count_; }

 private:
  void add(U8* base, std::size_t length) noexcept { pieces_[count_++] = {base, length}; }

  U8 tag_[4];
  iovec pieces_[Pkt::maxIovecs_ + 2];
  std::size_t count_ = 0;
};

}  // namespace

PacketPam::PacketPam(Kiv::String name, const NamespaceName& ns)
    : SocketPam(std::move(name), deferClose), netNs(ns) {}

PacketPam::~PacketPam() {
  closeSocket();
}

void PacketPam::enabledIsImpl(bool on) {
  // Protocol 0: receives nothing before bind().
  enabledIsWith(enabled, on, {AF_PACKET, SOCK_RAW, 0}, netNs());
}

void PacketPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(pkt, "pkt", name());
  sendPkt(pkt);
}

void PacketPam::sendFrame(const Pkt::Ptr& pkt, const sockaddr_ll* to) {
  if (fd() < 0) return refuse(EBADF);
  if (pkt->tciPresent() && pkt->bytes() < kAddresses) return refuse(EINVAL);
  FramePieces frame(*pkt);
  detail::TxMessage message(pkt);
  message.piecesAre(frame.pieces(), frame.count());
  if (to) message.toIs(*to);
  if (send(message, MSG_DONTWAIT) == 0) txPktCountInc(1);
}

}  // namespace Wirl
