// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/SocketPam.h"

#include <linux/sock_diag.h>

#include <cerrno>
#include <new>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/Receive.h"
#include "Wirl/access/detail/Socket.h"
#include "Wirl/access/socketAt.h"

namespace Wirl {

using detail::Printed;

namespace {

Kiv::TraceHandle trace("SocketPam");

}  // namespace

SocketPam::SocketPam(Kiv::String name, int (*close)(int)) : Pam(std::move(name)), close_(close) {}

SocketPam::~SocketPam() = default;

void SocketPam::setUp(Change&) {}

void SocketPam::forget(Change&) noexcept {}

void SocketPam::openFailed(Change&) noexcept {}

Kiv::Ptr<PamFdSm> SocketPam::newFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& opened) {
  return PamFdSmIs(opened, this);
}

const Kiv::TraceHandle& SocketPam::traceHandle() const {
  return trace;
}

// Opening and closing
// ----------------------------------------------------------------------------------------

void SocketPam::reopen(bool on, const Kind& kind, const NamespaceName& ns) {
  Change turn(this, turn_);
  try {
    closeSocket(turn);
    turn.tell();
    if (on && turn.newest()) openSocket(turn, kind, ns);
  } catch (...) {
    if (turn.newest()) {
      Change failed(this);
      closeSocket(failed);
      openFailed(failed);
      try {
        failed.tell();
      } catch (...) {
      }
    }
    throw;
  }
}

void SocketPam::openSocket(const Change& turn, const Kind& kind, const NamespaceName& ns) {
  Change opening(this);
  const Kiv::Ptr<Kiv::FileDescriptor> opened = newSocket(kind, ns);
  setUp(opening);
  opening.changed(fileDesc);
  if (receives()) opened->notifyOnReadableIs(true);
  shown_ = true;
  opening.tell();
  if (!turn.newest()) return;
  const Kiv::Ptr<PamFdSm> sm = newFdSm(opened);
  if (turn.newest()) fdSm.set(sm);
}

Kiv::Ptr<Kiv::FileDescriptor> SocketPam::newSocket(const Kind& kind, const NamespaceName& ns) {
  KIV_ASSERT_AS(!fileDesc(), "!fileDesc()", name());
  domain_ = kind.domain;
  ns_ = ns;
  spare_ = nullptr;
  batch_ = nullptr;
  dropsSeen_ = 0;
  // Make the owner first: without memory there is no socket to lose.
  auto opened = Kiv::makePtr<Kiv::FileDescriptor>(name());
  opened->notifyOnReadableIs(false);
  const int socket = socketAt(kind.domain, kind.type, kind.protocol, ns);
  if (socket < 0) fail(errno, "socket");
  fileDesc.store(opened);
  try {
    opened->descriptorIs(socket);
    opened->nonBlockingIs(true);
  } catch (const Kiv::ErrnoException& failure) {
    if (opened->descriptor() < 0) close_(socket);
    fail(failure.error(), failure.message().c_str());
  } catch (...) {
    if (opened->descriptor() < 0) close_(socket);
    throw;
  }
  KIV_TRACE(trace, 5) << name() << ": socket fd is " << socket;
  return opened;
}

void SocketPam::closeSocket(Change& changes) noexcept {
  collectDrops();  // the kernel's count goes with the socket
  const Kiv::Ptr<PamFdSm> sm = fdSm();
  const Kiv::Ptr<Kiv::FileDescriptor> closing = fileDesc();
  changes.put(fdSm, Kiv::Ptr<PamFdSm>());
  fileDesc.store(nullptr);
  if (std::exchange(shown_, false)) changes.changed(fileDesc);
  forget(changes);
  if (sm)
    sm->fileDescDel();  // others may still hold the state machine, but it must stop counting for this Pam
  closeDescriptor(closing, changes);
}

/// The descriptor object stays and reads -1.
void SocketPam::closeDescriptor(const Kiv::Ptr<Kiv::FileDescriptor>& closing, Change& changes) noexcept {
  if (!closing) return;
  const int open = closing->descriptor();
  changes.run([&closing] { closing->descriptorIs(-1); });
  if (open >= 0) close_(open);
}

void SocketPam::closeSocket() noexcept {
  Change nobodyIsTold(this);
  closeSocket(nobodyIsTold);
}

void SocketPam::fail(int error, const char* text) const {
  throw Kiv::ErrnoException(error, text, std::string(place()) + " in " + std::string(ns_.stringValue()));
}

void SocketPam::closeAndFail(int error, const char* text, const char* complaint, int other) {
  Change nobodyIsTold(this);  // if a reactor to the descriptor throws, the original error leaves
  collectDrops();
  if (other == fd()) other = -1;
  closeDescriptor(Kiv::Ptr<Kiv::FileDescriptor>(fileDesc()), nobodyIsTold);
  if (other >= 0) close_(other);
  if (complaint) {
    KIV_TRACE(traceHandle(), 0) << Printed{[this] { return who(); }} << ": " << complaint
                                << ", errno: " << error;
  } else {
    KIV_TRACE(traceHandle(), 0) << Printed{[this] { return who(); }} << ": " << text
                                << " failed, errno: " << error;
  }
  fail(error, text);
}

void SocketPam::setOption(int level, int option, const void* value, socklen_t length, const char* text,
                          const char* complaint) {
  if (setsockopt(fd(), level, option, value, length) < 0) closeAndFail(errno, text, complaint);
}

// Receiving
// --------------------------------------------------------------------------------------------------

bool SocketPam::receive(detail::Received& got, U32 room) {
  if (rxPktHeld() || fd() < 0) return false;
  if (rxAllowance(1) == 0) {
    offerRest();
    return false;
  }
  const bool received = detail::receivePkt(got, spare_, fd(), room);
  rxPulled(received);
  if (!received) {
    const int error = errno;
    if (error != EAGAIN) offerRest();  // more may wait behind a failure
    receiveFailed(false, error);
  }
  return received;
}

void SocketPam::deliver(Pkt::Ptr pkt, Change& changes) {
  rxPktHolderIs(std::move(pkt));
  changes.tell();
}

S32 SocketPam::receiveBatch(U16 limit, U32 room) {
  savedPacketRxDelAll();
  if (fd() < 0) return 0;
  const auto allowed = static_cast<U16>(rxAllowance(limit));
  if (allowed == 0) {
    offerRest();
    return 0;
  }
  if (!batch_) batch_.reset(new (std::nothrow) detail::RxBatch);
  const S32 received = batch_ ? batch_->receive(*this, fd(), allowed, room) : 0;
  const int error = received < 0 ? errno : 0;
  rxPulled(static_cast<U32>(std::max(received, 0)));
  if (received > 0) return received;
  if (error != EAGAIN) offerRest();
  receiveFailed(true, error);
  return 0;
}

const detail::RxBatch* SocketPam::batchWith(U16 index) const noexcept {
  return batch_ && savedPacketRx(index) && index < batch_->received() ? batch_.get() : nullptr;
}

/// A level-triggered descriptor is reported again anyway.
void SocketPam::offerRest() noexcept {
  if (fileDesc()->edgeTriggered()) fileDesc()->readableAgain();
}

void SocketPam::receiveFailed(bool batch, int error) {
  if (error == EAGAIN) return;
  if (error == 0) {
    KIV_TRACE(traceHandle(), 0) << Printed{[this] { return who(); }}
                                << ": Failed to obtain new packet object";
    return;
  }
  KIV_TRACE(traceHandle(), 0) << Printed{[this] { return who(); }} << ": " << (batch ? "recvmmsg" : "recvmsg")
                              << " failed with " << error << " (" << detail::errorPrinted(error) << ") ";
  rxErrorsInc(1);
}

// Sending
// ----------------------------------------------------------------------------------------------------

SocketPam::Loss SocketPam::lossOf(int error) const {
  return error == EAGAIN ? Loss::drop : Loss::error;
}

int SocketPam::send(const detail::TxMessage& message, int flags) {
  if (sendmsg(fd(), &message.get(), flags) >= 0) return 0;
  const int error = errno;
  KIV_TRACE(traceHandle(), 0) << Printed{[this] { return who(); }} << ": sendmsg failed with " << error
                              << " (" << detail::errorPrinted(error) << ") ";
  lost(error, lossOf(error));
  return error;
}

void SocketPam::refuse(int error) {
  KIV_TRACE(traceHandle(), 3) << Printed{[this] { return who(); }} << ": packet refused with " << error
                              << " (" << detail::errorPrinted(error) << ") ";
  lost(error, Loss::error);
}

void SocketPam::lost(int error, Loss loss) {
  Change changes(this);
  changes.put(txErrno, error);
  if (loss == Loss::drop) changes.put(txDrops, txDrops() + 1);
  if (loss == Loss::error) changes.put(txErrors, txErrors() + 1);
  changes.tell();
}

// The kernel's count
// -----------------------------------------------------------------------------------------

/// Reads the kernel's count of packets that found no room, which costs the receive path nothing.
void SocketPam::collectDrops() const {
  U32 info[SK_MEMINFO_VARS] = {};
  socklen_t length = sizeof(info);
  if (fd() < 0 || getsockopt(fd(), SOL_SOCKET, SO_MEMINFO, info, &length) < 0) return;
  const U32 drops = info[SK_MEMINFO_DROPS] - dropsSeen_;
  dropsSeen_ += drops;
  // const_cast: moves the kernel's count into the stored one; the total that rxDrops() reports stays the
  // same.
  if (drops != 0) const_cast<SocketPam*>(this)->Pam::rxDropsIs(Pam::rxDrops() + drops);
}

U32 SocketPam::rxDrops() const {
  collectDrops();
  return Pam::rxDrops();
}

void SocketPam::rxDropsIs(U32 value) {
  collectDrops();
  Pam::rxDropsIs(value);
}

}  // namespace Wirl
