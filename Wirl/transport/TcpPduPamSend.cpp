// SPDX-License-Identifier: Apache-2.0
// The sending half of `TcpPduPam`.
#include <limits.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Wirl/transport/TcpPduPam.h"
#include "Wirl/transport/detail/TcpPduPamTrace.h"

namespace Wirl {

using detail::PduWriter;
using detail::tcpPduPamTrace;

void TcpPduPam::handleWritable() {}

void TcpPduPam::handleWriteLength() {}

bool TcpPduPam::roomToSend() const noexcept {
  if (!fd() || closing_ || !writeModeEnabled() || pendingMode_ == tcpEnableModeReadOnly) return false;
  if (txQueueLimit() == 0) return writer_.idle();
  if (writer_.inFlight()) return false;
  // Once full, the queue takes more when half of it is gone.
  return writer_.queued() < (writable() ? txQueueLimit() : txQueueLimit() / 2 + 1);
}

/// The caller keeps the Pam alive.
void TcpPduPam::writableSet(bool value) {
  if (!writable.store(value)) return;
  if (value) writableCountInc(1);
  handleWritable();
  writable.notifiees().notify();
}

void TcpPduPam::handleTxQueueLimit() {
  writableSet(roomToSend());
}

void TcpPduPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  const auto alive = Kiv::keepAlive(this);
  KIV_ASSERT_AS(pkt && pkt->sharedBuffer() && pkt->sharedBuffer()->dataBytes() <= maxPduLength() &&
                    pkt->bytes() <= maxPduLength(),
                "pkt->sharedBuffer()->dataBytes() <= maxPduLength()", name());
  if (txFailed_) {
    txErrorsInc(1);
    return;
  }
  sendPkt(pkt);
}

void TcpPduPam::txIovIs(const SocketIovec* iov, U16 iovLen) {
  const auto alive = Kiv::keepAlive(this);
  if (txFailed_) {
    txErrorsInc(1);
    return;
  }
  sendIov(iov, iovLen);
}

void TcpPduPam::sendPkt(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(!txPktHolderShadow(), "!txPktHolderShadow()", name());
  KIV_ASSERT_AS(writable(), "writable()", name());
  KIV_ASSERT_AS(pkt->numIovecs() == 1, "pkt->numIovecs() == 1", name());
  if (txQueueLimit() > 0) {
    enqueue(*pkt);
    return;
  }
  writer_.pktIs(pkt);
  sendRest();
}

void TcpPduPam::sendIov(const SocketIovec* iov, U16 iovLen) {
  KIV_ASSERT_AS(!txIovHolderShadow(), "!txIovHolderShadow()", name());
  KIV_TRACE(tcpPduPamTrace, 8) << "iovLen: " << iovLen << *this;
  std::size_t total = 0;
  for (U16 i = 0; i < iovLen; ++i) {
    KIV_ASSERT_AS(iov[i].iov_len <= SSIZE_MAX - total, "iov[ i ].iov_len <= SSIZE_MAX - total", name());
    total += iov[i].iov_len;
  }
  if (total == 0) {
    KIV_TRACE(tcpPduPamTrace, 8) << "Nothing to send" << *this;
    return;
  }
  KIV_ASSERT_AS(writable(), "writable()", name());
  if (txQueueLimit() > 0) {
    KIV_ASSERT_AS(total <= Pkt::maxBufferBytes_, "total <= Pkt::maxBufferBytes_", name());
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
  const PduWriter::Sent sent = writer_.piecesAre(fileDescriptor()->descriptor(), iov, iovLen, total, name());
  follow(sent, "Curr iovec: ", sent.piece);
}

/// Sends the rest of the packet or the pieces in flight.
void TcpPduPam::sendRest() {
  const bool isPkt = writer_.pkt() != nullptr;
  const PduWriter::Sent sent = writer_.resume(fileDescriptor()->descriptor(), name());
  isPkt ? follow(sent, "Remaining to send ", writer_.remaining()) : follow(sent, "Curr iovec: ", sent.piece);
}

/// Follows a system call: first all bookkeeping, then `writeLength` is told, since its reactors may send,
/// too. `rest` names `left` in the trace of a partial write.
void TcpPduPam::follow(const PduWriter::Sent& sent, const char* rest, std::size_t left) {
  const bool news = writeLength.store(static_cast<U16>(std::min<std::size_t>(sent.asked, 0xffff)));
  if (sent.error != 0) {
    handleWriteError(sent.error);
  } else if (!sent.all) {
    KIV_TRACE(tcpPduPamTrace, 8) << "Partial send " << sent.bytes << " bytes. " << rest << left << *this;
    txWaited_ = true;
    blockedNow(sent.bytes > 0);
    // The socket may have room again already, or have taken less than it had room for: ask for the edge anew.
    writeNotificationUpdate(edgeTriggered());
    writableSet(roomToSend());
  } else {
    KIV_TRACE(tcpPduPamTrace, 8) << "Sent " << sent.bytes << " bytes" << *this;
    if (!sent.queue) writeCompleteAndSpaceAvailable();
  }
  if (!news) return;
  handleWriteLength();
  writeLength.notifiees().notify();
}

void TcpPduPam::enqueue(const Pkt& pkt) {
  writer_.push(pkt);
  txWaited_ = true;
  if (writer_.queued() >= std::min<U32>(PduWriter::kGather, txQueueLimit())) {
    txFlush();
  } else if (!inReadEvent_) {
    writeNotificationUpdate();
  }
  writableSet(roomToSend());
}

void TcpPduPam::txFlush() {
  const auto alive = Kiv::keepAlive(this);
  while (fd() && writeModeEnabled() && !writer_.blocked() && writer_.queued() > 0) {
    const PduWriter::Sent sent = writer_.flush(fileDescriptor()->descriptor());
    follow(sent, "Queued packets: ", writer_.queued());
  }
  if (!writer_.blocked()) spaceAvailable();
}

void TcpPduPam::writeCompleteAndSpaceAvailable() {
  writer_.queued() == 0 ? spaceAvailable() : txFlush();
}

void TcpPduPam::spaceAvailable() {
  if (!fd()) return;
  const auto ending = [this] { return pendingMode_ == tcpEnableModeReadOnly && writer_.queued() == 0; };
  writableSet(ending() || roomToSend());
  // Re-arm for packets that its reactors have queued: the edge is spent.
  writeNotificationUpdate(edgeTriggered());
  if (ending()) pendingModeApply();
  if (!writer_.blocked()) unblockedNow();
  if (!writer_.idle()) return;
  if (std::exchange(txWaited_, false)) allSent();
  closeSending();
}

void TcpPduPam::allSent() {
  try {
    allSentCount.store(allSentCount() + 1);
  } catch (const std::bad_alloc&) {
    return;  // only of a first count that nobody watches
  }
  allSentCount.notifiees().notify();
}

void TcpPduPam::handleSocketWritable() {
  if (!initialized() || fileDescriptor()->descriptor() < 0 || !fd()) return;
  const auto alive = Kiv::keepAlive(this);
  writer_.unblockQueue();
  writer_.inFlight() ? sendRest() : txFlush();
}

void TcpPduPam::handleWriteError(int error) {
  KIV_TRACE(tcpPduPamTrace, 0) << "Send failed with " << error << *this;
  Change change(this);
  txFailed_ = true;
  change.run([&] { txErrorReason.store(Kiv::errorText(error)); });
  tearDown(change);
  change.put(txErrno, error);
  change.put(txErrors, txErrors() + 1);
  change.run([&] { change.changed(txErrorReason); });
  change.tell();
}

}  // namespace Wirl
