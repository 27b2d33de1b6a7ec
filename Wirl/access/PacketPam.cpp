// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/PacketPam.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/deferClose.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("PacketPam");

constexpr std::size_t kAddresses = 12;  // octets of a frame in front of a tag

/// The pieces of a frame as it goes out: those of the packet, with its separate tag put in between.
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
  if (!enabled.store(on)) return;
  const auto open = [this] {
    openSocket(
        AF_PACKET, 0, netNs(), [this] { configure(); },
        [this](const Kiv::Ptr<Kiv::FileDescriptor>& opened) { return newFdSm(opened); });
  };
  const auto failed = [this] {
    enabled.store(false);
    enabled.notifiees().notify();
  };
  Kiv::detail::hookAndNotify(this, enabled.notifiees(), [&] { reopen(on, open, failed); });
}

Kiv::Ptr<PamFdSm> PacketPam::newFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& opened) {
  return PamFdSmIs(opened, this);
}

void PacketPam::refuse(int error) {
  txErrnoIs(error);
  KIV_TRACE(trace, 3) << name() << ": packet refused with " << error << " (" << Kiv::errorText(error) << ") ";
  txErrorsInc(1);
}

void PacketPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(pkt, "pkt");
  // A reactor to what follows may let go of the caller's pointer.
  const Pkt::Ptr sending = pkt;
  sendPkt(sending);
}

void PacketPam::sendFrame(const Pkt& pkt, const sockaddr_ll* to) {
  if (fd() < 0) return refuse(EBADF);
  if (pkt.tciPresent() && pkt.bytes() < kAddresses) return refuse(EINVAL);
  FramePieces frame(pkt);
  msghdr message{};
  message.msg_iov = frame.pieces();
  message.msg_iovlen = frame.count();
  if (to) {
    message.msg_name = const_cast<sockaddr_ll*>(to);  // sendmsg() only reads it
    message.msg_namelen = sizeof(*to);
  }
  if (sendmsg(fd(), &message, MSG_DONTWAIT) >= 0) {
    txPktCountInc(1);
    return;
  }
  const int error = errno;
  txErrnoIs(error);
  KIV_TRACE(trace, 0) << name() << ": sendmsg failed with " << error << " (" << Kiv::errorText(error) << ") ";
  if (error == EAGAIN) {
    txDropsInc(1);
  } else {
    txErrorsInc(1);
  }
}

}  // namespace Wirl
