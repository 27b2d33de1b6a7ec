// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/SocketPam.h"

#include <linux/net_tstamp.h>
#include <linux/sock_diag.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/Receive.h"
#include "Wirl/access/detail/Send.h"
#include "Wirl/access/detail/Socket.h"
#include "Wirl/access/detail/SocketOption.h"
#include "Wirl/access/socketAt.h"

namespace Wirl {

using detail::Printed;

namespace {

Kiv::TraceHandle trace("SocketPam");

int asInt(U32 octets) {
  return static_cast<int>(std::min<U32>(octets, INT_MAX));
}

/// For SO_TIMESTAMPING.
int flagsOf(RxTimestamps which) {
  constexpr int kKernel = SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
  constexpr int kHardware = SOF_TIMESTAMPING_RX_HARDWARE | SOF_TIMESTAMPING_RAW_HARDWARE;
  if (which == RxTimestamps::off) return 0;
  return which == RxTimestamps::kernel ? kKernel : kKernel | kHardware;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, RxTimestamps which) {
  constexpr const char* kNames[] = {"off", "kernel", "hardware"};
  return out << kNames[static_cast<U8>(which)];
}

std::ostream& operator<<(std::ostream& out, const RxTimes& times) {
  return out << times.kernel << " ns, device " << times.hardware << " ns";
}

SocketPam::SocketPam(Kiv::String name, int (*close)(int)) : Pam(std::move(name)), close_(close) {}

SocketPam::~SocketPam() = default;

int SocketPam::openDescriptor(const Kind& kind, const NamespaceName& ns, const char*&) {
  return socketAt(kind.domain, kind.type, kind.protocol, ns);
}

void SocketPam::setUp(Change&) {
  applySocketOptions();
}

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
  const char* step = "socket";
  const int socket = openDescriptor(kind, ns, step);
  if (socket < 0) fail(errno, step);
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

void SocketPam::setOption(const detail::SocketOption& option, int value) {
  const int error = optionWhileOpen(option, value);
  if (error != 0) closeAndFail(error, option.textOf(domain()));
}

void SocketPam::setOption(const detail::SocketOption& option, std::string_view value) {
  const int error = optionWhileOpen(option, value);
  if (error != 0) closeAndFail(error, option.textOf(domain()));
}

int SocketPam::optionWhileOpen(const detail::SocketOption& option, int value) const {
  return fd() < 0 ? 0 : detail::socketOptionIs(fd(), domain(), option, value);
}

int SocketPam::optionWhileOpen(const detail::SocketOption& option, std::string_view value) const {
  return fd() < 0 ? 0 : detail::socketOptionIs(fd(), domain(), option, value);
}

void SocketPam::failOption(int error, const detail::SocketOption& option) const {
  fail(error, option.textOf(domain()));
}

void SocketPam::rxBufBytesIs(U32 octets) {
  if (octets == 0) return rxBufBytes.set(octets);
  optionIs(rxBufBytes, octets, detail::options::rxBuffer, asInt(octets));
}

void SocketPam::txBufBytesIs(U32 octets) {
  if (octets == 0) return txBufBytes.set(octets);
  optionIs(txBufBytes, octets, detail::options::txBuffer, asInt(octets));
}

void SocketPam::rxTimestampsIs(RxTimestamps which) {
  optionIs(rxTimestamps, which, detail::options::rxTimestamps, flagsOf(which));
}

void SocketPam::applySocketOptions() {
  if (rxBufBytes() != 0) setOption(detail::options::rxBuffer, asInt(rxBufBytes()));
  if (txBufBytes() != 0) setOption(detail::options::txBuffer, asInt(txBufBytes()));
  if (rxTimestamps() != RxTimestamps::off) setOption(detail::options::rxTimestamps, flagsOf(rxTimestamps()));
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
  const auto allowed = static_cast<U16>(rxAllowance(limit));
  if (allowed == 0) {
    if (fd() >= 0) offerRest();
    return 0;
  }
  if (!saveableIs(limit)) {
    receiveFailed(true, 0);
    return 0;
  }
  const S32 received = receiveInto(savedSlots(), allowed, room);
  rxPulled(static_cast<U32>(received));
  savedReceived(static_cast<U16>(received));
  return received;
}

S32 SocketPam::receiveInto(std::vector<Pkt::Ptr>& slots, U16 limit, U32 room) {
  if (fd() < 0) return 0;
  if (!batch_) batch_.reset(new (std::nothrow) detail::RxBatch);
  const S32 received = batch_ ? batch_->receive(slots, fd(), limit, room) : 0;
  const int error = received < 0 ? errno : 0;
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
  Change changes(this);
  const int error = send(message, flags, changes);
  changes.tell();
  return error;
}

int SocketPam::send(const detail::TxMessage& message, int flags, Change& changes) {
  if (sendmsg(fd(), &message.get(), flags) >= 0) return 0;
  const int error = errno;
  KIV_TRACE(traceHandle(), 0) << Printed{[this] { return who(); }} << ": sendmsg failed with " << error
                              << " (" << detail::errorPrinted(error) << ") ";
  lost(error, lossOf(error), 1, changes);
  return error;
}

void SocketPam::refuse(int error) {
  KIV_TRACE(traceHandle(), 3) << Printed{[this] { return who(); }} << ": packet refused with " << error
                              << " (" << detail::errorPrinted(error) << ") ";
  Change changes(this);
  lost(error, Loss::error, 1, changes);
  changes.tell();
}

void SocketPam::lost(int error, Loss loss, U32 packets, Change& changes) {
  changes.put(txErrno, error);
  if (loss == Loss::drop) changes.put(txDrops, txDrops() + packets);
  if (loss == Loss::error) changes.put(txErrors, txErrors() + packets);
  changes.put(txFailures, txFailures() + packets);
}

U32 SocketPam::sendBatch(detail::TxSource& source, U32 count, int flags, U64& sent, Change& changes) {
  if (!txBatch_) txBatch_.reset(new (std::nothrow) detail::TxBatch);
  if (!txBatch_) {
    changes.put(txErrno, ENOMEM);
    return 0;
  }
  detail::TxBatch& batch = *txBatch_;
  const auto lose = [&](int error) {
    KIV_TRACE(traceHandle(), 0) << Printed{[this] { return who(); }} << ": sendmmsg failed with " << error
                                << " (" << detail::errorPrinted(error) << ") ";
    const Loss loss = lossOf(error);
    if (loss == Loss::sent) ++sent;
    lost(error, loss, 1, changes);
  };
  U32 at = 0, aloneUntil = 0;
  int refusal = 0;  // of several packets in one message
  while (at < count) {
    batch.clear();
    S32 put = 0;
    for (U32 next = at; next < count && (put = source.put(batch, next, next < aloneUntil)) > 0;) {
      next += static_cast<U32>(put);
    }
    if (batch.messages() == 0) {
      lose(-put);
      ++at;
      continue;
    }
    const int messages = batch.send(fd(), flags);
    const int error = messages < 0 ? errno : 0;
    // If the first of them fails alone, too, that they were several was not the reason.
    if (const int former = std::exchange(refusal, 0); former != 0 && error == 0) source.refused(former);
    for (int message = 0; message < messages; ++message) {
      at += batch.packets(static_cast<U32>(message));
      sent += batch.packets(static_cast<U32>(message));
    }
    if (error == EAGAIN) {
      changes.put(txErrno, error);
      break;
    }
    if (error != 0 && batch.packets(0) > 1) {
      aloneUntil = at + batch.packets(0);
      refusal = error;
    } else if (error != 0) {
      lose(error);
      ++at;
    }
  }
  return at;
}

// The kernel's count
// -----------------------------------------------------------------------------------------

U32 SocketPam::newDrops() const {
  U32 info[SK_MEMINFO_VARS] = {};
  socklen_t length = sizeof(info);
  if (fd() < 0 || getsockopt(fd(), SOL_SOCKET, SO_MEMINFO, info, &length) < 0) return 0;
  const U32 drops = info[SK_MEMINFO_DROPS] - dropsSeen_;
  dropsSeen_ += drops;
  return drops;
}

/// Reads the kernel's count, which costs the receive path nothing.
void SocketPam::collectDrops() const {
  const U32 drops = newDrops();
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
