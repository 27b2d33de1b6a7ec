// SPDX-License-Identifier: Apache-2.0
// The half of `TcpPduPam` that sends.
#include <limits.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/transport/TcpPduPam.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("TcpPduPam");

/// Queued packets that are sent by one call.
constexpr unsigned kGather = detail::SendQueue::kKept;

/// send(2) of gathered pieces: writev(2) with the flags that keep a broken connection from raising SIGPIPE. A
/// full socket is a write of 0 octets.
ssize_t sendGathered(int fd, const SocketIovec* iov, std::size_t count) {
  msghdr message{};
  message.msg_iov = const_cast<SocketIovec*>(iov);  // sendmsg() only reads it
  message.msg_iovlen = count;
  ssize_t sent;
  do {
    sent = sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 && errno == EAGAIN ? 0 : sent;
}

}  // namespace

bool TcpPduPam::roomToSend() const noexcept {
  if (!fd() || !writeModeEnabled() || pendingMode_ == tcpEnableModeReadOnly) return false;
  if (txQueueLimit() == 0) return !sending();
  if (inFlight()) return false;
  // Once full, the queue takes more when half of it is gone.
  return txQueue_.size() < (writable() ? txQueueLimit() : txQueueLimit() / 2 + 1);
}

void TcpPduPam::handleTxQueueLimit() {
  writableSet(roomToSend());
}

void TcpPduPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  KIV_ASSERT_AS(pkt && pkt->sharedBuffer() && pkt->sharedBuffer()->dataBytes() <= maxPduLength() &&
                    pkt->bytes() <= maxPduLength(),
                "pkt->sharedBuffer()->dataBytes() <= maxPduLength()");
  if (!txErrorReason().empty()) {
    txErrorsInc(1);
    return;
  }
  sendPkt(pkt);
}

void TcpPduPam::txIovIs(const SocketIovec* iov, U16 iovLen) {
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  if (!txErrorReason().empty()) {
    txErrorsInc(1);
    return;
  }
  sendIov(iov, iovLen);
}

void TcpPduPam::sendPkt(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(!txPktHolderShadow(), "!txPktHolderShadow()");
  KIV_ASSERT_AS(writable(), "writable()");
  KIV_ASSERT_AS(pkt->numIovecs() == 1, "pkt->numIovecs() == 1");
  if (txQueueLimit() > 0) {
    enqueue(*pkt);
    return;
  }
  txPktHolderShadow_ = pkt;
  txBuffer_ = pkt->sharedBuffer();
  txNext_ = pkt->front();
  txRemaining_ = pkt->frontBytes();
  sendRestOfPkt();
}

// A send is over, with all its bookkeeping, before anyone is told of its length: reactors may send as well.

void TcpPduPam::sendRestOfPkt() {
  const bool news = writeLengthStore(txRemaining_);
  ssize_t sent;
  do {
    sent = send(fileDescriptor()->descriptor(), txNext_, txRemaining_, MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0 && errno == EAGAIN) sent = 0;
  const std::size_t count = static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
  if (sent < 0) {
    handleWriteError(errno);
  } else if (count >= txRemaining_) {
    KIV_ASSERT_AS(count == txRemaining_, "ret == txRemainingLength()");
    KIV_TRACE(trace, 8) << "Sent " << count << " bytes";
    writeCompleteAndSpaceAvailable();
  } else {
    txNext_ += count;
    txRemaining_ -= count;
    KIV_TRACE(trace, 8) << "Partial send " << count << " bytes. Remaining to send " << txRemaining_;
    outOfWriteSpace();
  }
  if (news) writeLengthTell();
}

void TcpPduPam::sendIov(const SocketIovec* iov, U16 iovLen) {
  KIV_ASSERT_AS(!txIovHolderShadow(), "!txIovHolderShadow()");
  KIV_TRACE(trace, 8) << "iovLen: " << iovLen;
  std::size_t total = 0;
  for (U16 i = 0; i < iovLen; ++i) {
    KIV_ASSERT_AS(iov[i].iov_len <= SSIZE_MAX - total, "iov[ i ].iov_len <= SSIZE_MAX - total");
    total += iov[i].iov_len;
  }
  if (total == 0) {
    KIV_TRACE(trace, 8) << "Nothing to send";
    return;
  }
  KIV_ASSERT_AS(writable(), "writable()");
  if (txQueueLimit() > 0) {
    KIV_ASSERT_AS(total <= Pkt::maxBufferBytes_, "total <= Pkt::maxBufferBytes_");
    const Pkt::Manager::Ptr& manager = globalPktManager();
    const Pkt::Ptr copy = manager->newPkt(manager->newSharedBuffer(static_cast<U32>(total)));
    U8* to = copy->newSharedHeadData(static_cast<U32>(total));
    for (U16 i = 0; i < iovLen; ++i) {
      if (iov[i].iov_len > 0) std::memcpy(to, iov[i].iov_base, iov[i].iov_len);
      to += iov[i].iov_len;
    }
    enqueue(*copy);
    return;
  }
  txRemaining_ = total;
  sendRestOfIov(iov, iovLen);
}

void TcpPduPam::sendRestOfIov(const SocketIovec* iov, std::size_t count) {
  const bool news = writeLengthStore(txRemaining_);
  const int error = sendPieces(iov, count);
  if (error != 0) {
    handleWriteError(error);
  } else if (txRemaining_ == 0) {
    writeCompleteAndSpaceAvailable();
  } else {
    outOfWriteSpace();
  }
  if (news) writeLengthTell();
}

/// Returns 0 with what was not sent in `txIov_`, else the errno. `iov` may be what is there.
int TcpPduPam::sendPieces(const SocketIovec* iov, std::size_t iovLen) {
  for (std::size_t curr = 0;;) {
    const std::size_t batch = std::min<std::size_t>(iovLen - curr, IOV_MAX);
    std::size_t asked = 0;
    for (std::size_t i = curr; i < curr + batch; ++i) asked += iov[i].iov_len;
    const ssize_t sent = sendGathered(fileDescriptor()->descriptor(), iov + curr, batch);
    if (sent < 0) return errno;
    std::size_t offset = static_cast<std::size_t>(sent);
    txRemaining_ -= offset;
    if (txRemaining_ == 0) {
      KIV_TRACE(trace, 8) << "Sent " << sent << " bytes";
      return 0;
    }
    if (offset == asked) {
      curr += batch;
      continue;
    }
    while (offset >= iov[curr].iov_len) {
      offset -= iov[curr].iov_len;
      ++curr;
      KIV_ASSERT_AS(curr < iovLen, "curr < iovLen");
    }
    KIV_TRACE(trace, 8) << "Partial send " << sent << " bytes. Curr iovec: " << curr;
    try {
      auto rest = std::make_unique<std::vector<SocketIovec>>(iov + curr, iov + iovLen);
      SocketIovec& first = rest->front();
      first.iov_base = static_cast<U8*>(first.iov_base) + offset;
      first.iov_len -= offset;
      txIov_ = std::move(rest);
    } catch (const std::bad_alloc&) {
      return ENOMEM;  // a part is out, and the rest cannot be remembered
    }
    return 0;
  }
}

void TcpPduPam::enqueue(const Pkt& pkt) {
  txQueue_.push(pkt);
  if (txQueue_.size() >= std::min<U32>(kGather, txQueueLimit())) {
    txFlush();
  } else if (!inReadEvent_) {
    writeNotificationUpdate();
  }
  writableSet(roomToSend());
}

void TcpPduPam::txFlush() {
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  while (fd() && writeModeEnabled() && !blocked() && !txQueue_.empty()) {
    SocketIovec pieces[kGather];
    std::size_t asked = 0;
    const unsigned count = txQueue_.gather(pieces, kGather, asked);
    const bool news = writeLengthStore(asked);
    const ssize_t sent = sendGathered(fileDescriptor()->descriptor(), pieces, count);
    if (sent < 0) {
      handleWriteError(errno);
    } else {
      txQueue_.sent(static_cast<std::size_t>(sent));
      if (static_cast<std::size_t>(sent) == asked) {
        KIV_TRACE(trace, 8) << "Sent " << sent << " bytes";
      } else {
        KIV_TRACE(trace, 8) << "Partial send " << sent << " bytes. Queued packets: " << txQueue_.size();
        txBlocked_ = true;
        outOfWriteSpace();
      }
    }
    if (news) writeLengthTell();
  }
  if (!blocked()) spaceAvailable();
}

void TcpPduPam::outOfWriteSpace() {
  // The socket may have got room since, or have taken less than it had room for: ask for the edge anew.
  writeNotificationUpdate(edgeTriggered());
  writableSet(roomToSend());
}

void TcpPduPam::writeCompleteAndSpaceAvailable() {
  txPktHolderShadow_ = nullptr;
  txBuffer_ = nullptr;
  txNext_ = nullptr;
  txIov_ = nullptr;
  txRemaining_ = 0;
  txQueue_.empty() ? spaceAvailable() : txFlush();
}

void TcpPduPam::spaceAvailable() {
  if (!fd()) return;
  const auto ending = [this] { return pendingMode_ == tcpEnableModeReadOnly && txQueue_.empty(); };
  writableSet(ending() || roomToSend());
  writeNotificationUpdate(edgeTriggered());  // anew for what its reactors have queued: the edge is spent
  if (ending()) pendingModeApply();
}

void TcpPduPam::handleSocketWritable() {
  if (!initialized() || fileDescriptor()->descriptor() < 0 || !fd()) return;
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  txBlocked_ = false;
  if (txPktHolderShadow_) {
    sendRestOfPkt();
  } else if (txIov_) {
    sendRestOfIov(txIov_->data(), txIov_->size());
  } else {
    txFlush();
  }
}

void TcpPduPam::handleWriteError(int error) {
  KIV_TRACE(trace, 0) << "Send failed with " << error;
  txErrorReason.store(Kiv::errorText(error));  // before anyone hears of it and sends more
  cleanup();
  txErrnoIs(error);
  txErrorsInc(1);
  txErrorReason.notifiees().notify();
}

}  // namespace Wirl
