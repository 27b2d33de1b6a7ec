// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/PacketPam.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "Kiv/Assert.h"
#include "Wirl/access/deferClose.h"
#include "Wirl/access/detail/FramePieces.h"
#include "Wirl/access/detail/Send.h"

namespace Wirl {

using detail::FramePieces;

PacketPam::PacketPam(Kiv::String name, const NamespaceName& ns)
    : SocketPam(std::move(name), deferClose), netNs(ns) {}

PacketPam::~PacketPam() {
  closeSocket();
}

void PacketPam::enabledIsImpl(bool on) {
  enabledIsWith(enabled, on, kind(), netNs());
}

PacketPam::Kind PacketPam::kind() noexcept {
  return {AF_PACKET, SOCK_RAW, 0};
}

void PacketPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(pkt, "pkt", name());
  sendPkt(pkt);
}

void PacketPam::sendFrame(const Pkt::Ptr& pkt, const sockaddr_ll* to) {
  if (fd() < 0) return refuse(EBADF);
  if (pkt->tciPresent() && pkt->bytes() < FramePieces::kAddresses) return refuse(EINVAL);
  FramePieces frame;
  frame.frameIs(*pkt, wantsOffloadHeader());
  detail::TxMessage message(pkt);
  message.piecesAre(frame.pieces(), frame.count());
  if (to) message.toIs(*to);
  Change changes(this);
  const int error = send(message, MSG_DONTWAIT, changes);
  if (error == 0) changes.put(txPktCount, txPktCount() + 1);
  if (error != 0 && error != EAGAIN) sendFailed(error, changes);
  changes.tell();
}

namespace {

/// The frames of a bulk send.
class FrameSource final : public detail::TxSource {
 public:
  FrameSource(std::span<const Pkt::Ptr> pkts, const sockaddr_ll* to, bool headed)
      : pkts_(pkts), to_(to), headed_(headed) {}

  S32 put(detail::TxBatch& batch, U32 at, bool) override {
    const Pkt& pkt = *pkts_[at];
    if (!batch.hasRoomFor(FramePieces::kMost)) return 0;
    if (pkt.tciPresent() && pkt.bytes() < FramePieces::kAddresses) return -EINVAL;
    FramePieces& frame = frames_[batch.messages()];  // with the tag, until the batch is sent
    frame.frameIs(pkt, headed_);
    batch.begin(1);
    batch.add(frame.pieces(), frame.count());
    if (to_) batch.toIs(to_, sizeof(*to_));
    return 1;
  }

 private:
  const std::span<const Pkt::Ptr> pkts_;
  const sockaddr_ll* const to_;
  const bool headed_;
  FramePieces frames_[detail::TxBatch::kMessages];
};

}  // namespace

U32 PacketPam::sendFrames(std::span<const Pkt::Ptr> pkts, const sockaddr_ll* to) {
  if (fd() < 0) return Pam::doTxPktBulk(pkts);  // refuses one after the other
  for (const Pkt::Ptr& pkt : pkts) KIV_ASSERT_AS(pkt, "pkt", name());
  FrameSource source(pkts, to, wantsOffloadHeader());
  Change changes(this);
  U64 sent = 0;
  const U32 failed = txErrors();
  const U32 taken = sendBatch(source, static_cast<U32>(pkts.size()), MSG_DONTWAIT, sent, changes);
  if (sent > 0) changes.put(txPktCount, txPktCount() + sent);
  if (txErrors() != failed) sendFailed(txErrno(), changes);
  changes.tell();
  return taken;
}

}  // namespace Wirl
