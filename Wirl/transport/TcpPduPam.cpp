// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpPduPam.h"

#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/transport/detail/PduBuffers.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("TcpPduPam");

constexpr std::array<const char*, 4> kModeNames = {"tcpEnableModeNone", "tcpEnableModeReadWrite",
                                                   "tcpEnableModeReadOnly", "tcpEnableModeWriteOnly"};
constexpr std::array<const char*, 4> kResultNames = {"error", "readMoreData", "waitForMoreData",
                                                     "fullPduRead"};

constexpr const char* kClosedByPeer = "Connection closed by peer";

/// Queued packets that are sent by one call.
constexpr unsigned kGather = detail::SendQueue::kKept;

void assertMode(TcpPduPamEnableMode mode) {
  KIV_ASSERT_AS(mode <= tcpEnableModeWriteOnly, "0 && \"Unexpected value\"");
}

std::string hexOf(const Pkt& pkt) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const U8 octet : pkt.bytesValue()) {
    text += kDigits[octet >> 4];
    text += kDigits[octet & 0xf];
  }
  return text;
}

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

std::ostream& operator<<(std::ostream& out, TcpPduPamEnableMode mode) {
  assertMode(mode);
  return out << kModeNames[mode];
}

std::ostream& operator<<(std::ostream& out, const TcpPduPamReadReturn& outcome) {
  return out << "result=" << kResultNames[outcome.result] << " reason=" << outcome.reason;
}

// The base: descriptor, registration and their counts
// ----------------------------------------------------------------------

TcpPduFdSm::TcpPduFdSm(TcpFileDescriptorEventRegistration& fd, TcpPduPamBase& pam)
    : fd_(fd), pam_(pam), onReadable_(fd.readableCount, [this] { pam_.socketReadableCountInc(1); }) {}

TcpPduFdSm::~TcpPduFdSm() = default;

void TcpPduFdSm::writableIsWatched() {
  if (onWritable_.registered()) return;
  onWritable_ = Kiv::Reactor(fd_.writableCount, [this] { pam_.socketWritableCountInc(1); });
}

TcpPduPamBase::TcpPduPamBase(const TcpFileDescriptor::PtrConst& descriptor,
                             const Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>& factory)
    : Pam("TcpPduPam"), fileDescriptor_(descriptor), fdFactory_(factory) {
  KIV_ASSERT_AS(fileDescriptor_, "fileDescriptor");
  KIV_ASSERT_AS(fdFactory_, "fdFactory");
  const auto registration = fdFactory_->createEventRegistration(fileDescriptor_);
  KIV_ASSERT_AS(registration, "fd");
  fdIs(registration);
}

TcpPduPamBase::~TcpPduPamBase() {
  fdIs(nullptr);
}

void TcpPduPamBase::fdIs(const Kiv::Ptr<TcpFileDescriptorEventRegistration>& fd) {
  tcpPduFdSm_ = nullptr;
  if (const auto former = std::exchange(fd_, nullptr)) former->handleDel();
  if (!fd) return;
  tcpPduFdSm_ = Kiv::makePtr<TcpPduFdSm>(*fd, *this);
  fd_ = fd;
}

// Beginning and end
// -------------------------------------------------------------------------------------------

TcpPduPam::TcpPduPam(const TcpFileDescriptor::PtrConst& descriptor,
                     const Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>& factory)
    : TcpPduPamBase(descriptor, factory) {
  fd()->enabledIs(true);
  handleInitialized();
}

TcpPduPam::~TcpPduPam() {
  drop();
}

void TcpPduPam::handleInitialized() {
  initialized.set(true);
}

void TcpPduPam::cleanup() {
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  drop();
  initialized.set(false);
  readableSet(false);
  writableSet(false);
}

void TcpPduPam::drop() noexcept {
  fdIs(nullptr);
  pendingMode_ = tcpEnableModeNone;
  rxPktHolderShadow_ = nullptr;
  rxRemainingLength_ = 0;
  ahead_.clear();
  txPktHolderShadow_ = nullptr;
  txBuffer_ = nullptr;
  txIov_ = {};
  txQueue_.clear();
  txRemaining_ = 0;
  txBlocked_ = false;
}

void TcpPduPam::handleKeepaliveOptions() {
  const TcpKeepaliveOptions options = keepaliveOpts();
  const auto set = [this](int level, int option, const char* name, U32 value) {
    const int argument = static_cast<int>(value);
    if (setsockopt(fileDescriptor()->descriptor(), level, option, &argument, sizeof(argument)) == 0)
      return true;
    const int error = errno;
    KIV_TRACE(trace, 0) << "Setsockopt failed with " << error;
    tcpOptErrorReason.store(Kiv::String(std::string("setsockopt() error while setting ") + name + ": " +
                                        Kiv::errorText(error).c_str()));
    tcpOptErrorsInc(1);
    tcpOptErrorReason.notifiees().notify();
    return false;
  };
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  if (!options.enabled()) {
    if (set(SOL_SOCKET, SO_KEEPALIVE, "SO_KEEPALIVE", 0)) {
      KIV_TRACE(trace, 5) << "Setsockopt(): TCP Keepalive disabled";
    }
    return;
  }
  if (set(SOL_SOCKET, SO_KEEPALIVE, "SO_KEEPALIVE", 1) &&
      set(IPPROTO_TCP, TCP_KEEPIDLE, "TCP_KEEPIDLE", options.idleTime()) &&
      set(IPPROTO_TCP, TCP_KEEPINTVL, "TCP_KEEPINTVL", options.probeInterval()) &&
      set(IPPROTO_TCP, TCP_KEEPCNT, "TCP_KEEPCNT", options.probeCount())) {
    KIV_TRACE(trace, 5) << "Setsockopt(): TCP Keepalive enabled "
                        << "( idletime: " << options.idleTime()
                        << ", probeinterval: " << options.probeInterval()
                        << ", probetime: " << options.probeCount() << " )";
  }
}

// Modes
// -------------------------------------------------------------------------------------------------------

void TcpPduPam::enabledIs(bool on) {
  if (on != enabled()) enableModeIs(on ? tcpEnableModeReadWrite : tcpEnableModeNone);
}

void TcpPduPam::enableModeIs(TcpPduPamEnableMode mode) {
  assertMode(mode);
  KIV_ASSERT_AS(mode != tcpEnableModeReadOnly || pendingMode_ != mode,
                "pendingEnableReadOnlyOrWriteOnlyMode_ != TcpPduPamEnableMode::tcpEnableModeReadOnly_");
  KIV_ASSERT_AS(mode != tcpEnableModeWriteOnly || pendingMode_ != mode,
                "pendingEnableReadOnlyOrWriteOnlyMode_ != TcpPduPamEnableMode::tcpEnableModeWriteOnly_");
  if (mode == tcpEnableModeReadOnly && writeModeEnabled() && sending()) {
    KIV_TRACE(trace, 5) << "Waiting for txPkt before setting enabled to " << mode;
    pendingMode_ = mode;
    writableSet(false);
    return;
  }
  if (mode == tcpEnableModeWriteOnly && readModeEnabled() && receiving()) {
    KIV_TRACE(trace, 5) << "Waiting for rxPkt before setting enabled to " << mode;
    pendingMode_ = mode;
    return;
  }
  pendingMode_ = tcpEnableModeNone;
  modeSet(mode);
}

void TcpPduPam::pendingModeApply() {
  const TcpPduPamEnableMode mode = std::exchange(pendingMode_, tcpEnableModeNone);
  KIV_TRACE(trace, 5) << (mode == tcpEnableModeReadOnly
                              ? "pending txPkt complete, setting enabledMode to readOnly"
                              : "pending rxPkt complete, setting enabledMode to writeOnly");
  modeSet(mode);
}

void TcpPduPam::modeSet(TcpPduPamEnableMode mode) {
  const TcpPduPamEnableMode former = enableMode();
  if (mode == former) {
    writableSet(roomToSend());  // a request that was pending may have been withdrawn
    return;
  }
  KIV_TRACE(trace, 5) << "Setting enabled to " << mode;
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  enableMode.store(mode);
  try {
    readNotificationSet();
    writeNotificationSet();
  } catch (...) {
    enableMode.store(former);
    throw;
  }
  const bool enabledChanged = enabled.store(mode != tcpEnableModeNone);
  enableMode.notifiees().notify();
  if (enabledChanged) enabled.notifiees().notify();
  // Each of these may have led on to another mode, or to the end.
  if (enableMode() != mode || !fd()) return;
  writableSet(roomToSend());
  if (enableMode() != mode || !fd() || !fd()->notifyOnReadable()) return;
  if (edgeTriggered()) {
    KIV_TRACE(trace, 5) << "Additional edgeTriggered notification";
    handleSocketReadable();
  } else if (!ahead_.empty()) {
    handleSocketReadable();  // the socket will not remind of what was read ahead
  }
}

void TcpPduPam::readNotificationSet() {
  if (!fd()) return;
  // Level-triggered, a held PDU would be reminded of for as long as more is waiting behind it.
  fd()->notifyOnReadableIs(readModeEnabled() && rxErrorReason().empty() && (edgeTriggered() || !readable()));
}

void TcpPduPam::writeNotificationSet() {
  if (!fd()) return;
  const bool on = writeModeEnabled() && (blocked() || (!txQueue_.empty() && !inReadEvent_));
  if (on) tcpPduFdSm()->writableIsWatched();
  fd()->notifyOnWritableIs(on);
}

/// The caller keeps the Pam alive: this runs twice a PDU.
void TcpPduPam::readableSet(bool value) {
  if (!readable.store(value)) return;
  handleReadable();
  readable.notifiees().notify();
}

void TcpPduPam::writableSet(bool value) {
  if (!writable.store(value)) return;
  Kiv::detail::hookAndNotify(this, writable.notifiees(), [this] { handleWritable(); });
}

void TcpPduPam::writeLengthSet(std::size_t length) {
  if (!writeLength.store(static_cast<U16>(std::min<std::size_t>(length, 0xffff)))) return;
  Kiv::detail::hookAndNotify(this, writeLength.notifiees(), [this] { handleWriteLength(); });
}

void TcpPduPam::handleReadable() {
  // In an event the user is about to pull: the registration learns what is left of it at the end.
  if (!inReadEvent_) readNotificationSet();
}

void TcpPduPam::handleWritable() {
  if (writable()) writableCountInc(1);
}

void TcpPduPam::handleWriteLength() {}

// Receiving
// ---------------------------------------------------------------------------------------------------

U16 TcpPduPam::getPduSize() {
  KIV_ASSERT_AS(false, "0 && \"Need to implement getRemainingLength in a derived class\"");
}

TcpPduPamReadReturn TcpPduPam::ReadOutcome::value() const {
  if (!reason) return {result, {}};
  return {result, error == 0 ? Kiv::String(reason) : Kiv::String(reason + std::to_string(error))};
}

// Traces of what happens with each read stand apart: the code around them is to stay small.

[[gnu::cold]] void TcpPduPam::traceOutcome(const ReadOutcome& outcome) const {
  KIV_TRACE(trace, 8) << outcome.value();
}

[[gnu::cold]] void TcpPduPam::tracePdu() const {
  KIV_TRACE(trace, 9) << "PktData: 0x" << hexOf(*rxPktHolderShadow_);
}

[[gnu::cold]] void TcpPduPam::traceRead(U16 total, ssize_t count) const {
  KIV_TRACE(trace, 8) << "pduTotalLength " << total << " ,dataRead " << count
                      << " rxRemainingLength=" << rxRemainingLength_;
}

[[gnu::cold]] void TcpPduPam::traceSize(U16 total) const {
  KIV_TRACE(trace, 8) << "PDU size: " << total << " Remaining: " << rxRemainingLength_;
}

void TcpPduPam::startPdu() {
  const U32 room = maxPduLength();
  try {
    rxPktHolderShadow_ = detail::newPduPkt(room);
  } catch (const std::bad_alloc&) {
    return;  // the read will say so
  }
  const Pkt::Ptr& pkt = rxPktHolderShadow_;
  KIV_ASSERT_AS(pkt->maxSharedData() >= maxPduLength(), "pkt->maxSharedData() >= maxPduLength()");
  rxRemainingLength_ = getPduSize();
  KIV_ASSERT_AS(rxRemainingLength_ > 0, "getPduSize() > 0");
  // The data is to grow at its tail, from a place behind which all of it fits.
  const U32 reserved = std::max<U32>(room, rxRemainingLength_);
  pkt->newSharedHeadData(reserved);
  pkt->delSharedTailData(reserved);
}

// Inline: the processor no longer foretells returns that come behind a system call, and each of them costs.

inline ssize_t TcpPduPam::receive(U8* to, U16 length) {
  if (!ahead_.empty()) return ahead_.take(to, length);
  const int socket = fileDescriptor()->descriptor();
  // One PDU an event means that the socket must keep the others, to remind of them.
  if (readAhead() && !readOnePktOnly()) return ahead_.receive(socket, to, length, edgeTriggered());
  return recv(socket, to, length, MSG_DONTWAIT);
}

[[gnu::always_inline]] inline TcpPduPam::ReadOutcome TcpPduPam::readOnce() {
  if (!rxPktHolderShadow_) return {TcpPduPamReadReturn::error, 0, "Failed to allocate packet"};
  Pkt& pkt = *rxPktHolderShadow_;
  const U16 wanted = rxRemainingLength_;
  const ssize_t received = receive(pkt.newSharedTailData(wanted), wanted);
  if (received != wanted) [[unlikely]] {
    const int error = errno;
    pkt.delSharedTailData(received > 0 ? static_cast<U32>(wanted - received) : U32{wanted});
    if (received == 0) return {TcpPduPamReadReturn::error, 0, kClosedByPeer};
    if (received < 0) {
      if (error == EINTR) return {TcpPduPamReadReturn::readMoreData};
      if (error == EAGAIN) return {TcpPduPamReadReturn::waitForMoreData};
      return {TcpPduPamReadReturn::error, error, "Recv failed with "};
    }
  }
  rxRemainingLength_ = static_cast<U16>(wanted - received);
  const U16 total = getPduSize();
  const bool traced = trace.enabled(8);
  if (traced) [[unlikely]]
    traceRead(total, received);
  // Neither the length nor what is here already: a header that is itself too long has any length field.
  const U32 here = pkt.frontBytes();
  if (std::max<U32>(total, here) > maxPduLength()) [[unlikely]]
    return {TcpPduPamReadReturn::error, 0, "PDU length too big"};
  rxRemainingLength_ = total > here ? static_cast<U16>(total - here) : U16{0};
  if (traced) [[unlikely]]
    traceSize(total);
  return {rxRemainingLength_ > 0 ? TcpPduPamReadReturn::readMoreData : TcpPduPamReadReturn::fullPduRead};
}

/// The caller keeps the Pam alive.
[[gnu::always_inline]] inline bool TcpPduPam::readPdu() {
  KIV_ASSERT_AS(fd() && fd()->notifyOnReadable(), "fd()->notifyOnReadable()");
  if (readable()) return true;
  for (;;) {
    if (!rxPktHolderShadow_) startPdu();
    const ReadOutcome outcome = readOnce();
    if (trace.enabled(8)) [[unlikely]]
      traceOutcome(outcome);
    switch (outcome.result) {
      case TcpPduPamReadReturn::readMoreData:
        break;
      case TcpPduPamReadReturn::fullPduRead:
        if (trace.enabled(9)) [[unlikely]]
          tracePdu();
        readableSet(true);
        return true;
      case TcpPduPamReadReturn::waitForMoreData:
        // A connection with nothing under way holds no packet.
        if (rxPktHolderShadow_->empty()) {
          rxPktHolderShadow_ = nullptr;
          rxRemainingLength_ = 0;
        }
        return false;
      case TcpPduPamReadReturn::error:
        handleReadError(outcome);
        return false;
    }
  }
}

bool TcpPduPam::readNextPdu() {
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  return readPdu();
}

TcpPduPamReadReturn TcpPduPam::readFromSocket() {
  return readOnce().value();
}

void TcpPduPam::handleSocketReadable() {
  if (!initialized() || fileDescriptor()->descriptor() < 0 || inReadEvent_) return;
  if (readable()) {
    KIV_ASSERT_AS(edgeTriggered(), "edgeTriggered()");
    return;
  }
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  const auto end = [this] {
    inReadEvent_ = false;
    readNotificationSet();
    if (!txQueue_.empty() && !blocked()) txFlush();
  };
  inReadEvent_ = true;
  try {
    if (readPdu() && fd()) readableCountInc(1);
    if (pendingMode_ == tcpEnableModeWriteOnly && !receiving()) pendingModeApply();
  } catch (...) {
    end();
    throw;
  }
  end();
  // Reading that was switched off and on in between left octets of which the socket will not remind.
  if (fd() && fd()->notifyOnReadable() && !readable() && !ahead_.empty()) handleSocketReadable();
}

void TcpPduPam::handleReadError(const ReadOutcome& outcome) {
  const Kiv::String reason = outcome.value().reason;
  KIV_TRACE(trace, 0) << reason;
  rxPktHolderShadow_ = nullptr;
  rxRemainingLength_ = 0;
  ahead_.clear();
  rxErrorReason.store(reason);
  readNotificationSet();
  if (outcome.reason != kClosedByPeer) rxErrorsInc(1);
  rxErrorReason.notifiees().notify();
}

inline void TcpPduPam::readOn() {
  readableSet(false);
  if (!fd() || readable() || !readModeEnabled() || pendingMode_ == tcpEnableModeWriteOnly ||
      !rxErrorReason().empty()) {
    return;
  }
  if (readOnePktOnly() && ahead_.empty()) {
    if (edgeTriggered()) {
      // What waits behind it was reported already: ask for it anew.
      fd()->notifyOnReadableIs(false);
      readNotificationSet();
    }
    return;
  }
  if (!fd()->notifyOnReadable()) readNotificationSet();
  readPdu();
}

void TcpPduPam::doGetRxPkt() {
  if (inPull_) return;  // a reactor that pulls inside a pull would be given the later PDU first
  if (!pulled_) {
    if (!readable()) return;
    pulled_ = std::exchange(rxPktHolderShadow_, nullptr);
    rxRemainingLength_ = 0;
    inPull_ = true;
    const struct End {
      bool& inPull;
      ~End() { inPull = false; }
    } end{inPull_};
    readOn();
  }
  rxPktHolderIs(std::exchange(pulled_, nullptr));
}

// Sending
// -----------------------------------------------------------------------------------------------------

bool TcpPduPam::roomToSend() const noexcept {
  if (!fd() || !writeModeEnabled() || pendingMode_ == tcpEnableModeReadOnly) return false;
  if (txQueueLimit() == 0) return !sending();
  if (txPktHolderShadow_ || !txIov_.empty()) return false;
  // Once full, the queue takes more when half of it is gone.
  return txQueue_.size() < (writable() ? txQueueLimit() : txQueueLimit() / 2 + 1);
}

void TcpPduPam::handleTxQueueLimit() {
  writableSet(roomToSend());
}

void TcpPduPam::txPktIsImpl(const Pkt::Ptr& pkt) {
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

void TcpPduPam::sendRestOfPkt() {
  writeLengthSet(txRemaining_);
  if (!txPktHolderShadow_) return;  // a reactor has cleaned up
  ssize_t sent;
  do {
    sent = send(fileDescriptor()->descriptor(), txNext_, txRemaining_, MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0 && errno == EAGAIN) sent = 0;
  if (sent < 0) {
    handleWriteError(errno);
    return;
  }
  const std::size_t count = static_cast<std::size_t>(sent);
  if (count >= txRemaining_) {
    KIV_ASSERT_AS(count == txRemaining_, "ret == txRemainingLength()");
    KIV_TRACE(trace, 8) << "Sent " << count << " bytes";
    writeCompleteAndSpaceAvailable();
  } else {
    txNext_ += count;
    txRemaining_ -= count;
    KIV_TRACE(trace, 8) << "Partial send " << count << " bytes. Remaining to send " << txRemaining_;
    outOfWriteSpace();
  }
}

void TcpPduPam::sendIov(const SocketIovec* iov, U16 iovLen) {
  KIV_ASSERT_AS(!txIovHolderShadow(), "!txIovHolderShadow()");
  KIV_ASSERT_AS(writable(), "writable()");
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
  sendPieces(iov, iovLen);
}

void TcpPduPam::sendPieces(const SocketIovec* iov, std::size_t count) {
  writeLengthSet(txRemaining_);
  if (txRemaining_ == 0) return;  // a reactor has cleaned up
  const std::size_t iovLen = count;
  for (std::size_t curr = 0;;) {
    const std::size_t batch = std::min<std::size_t>(iovLen - curr, IOV_MAX);
    std::size_t asked = 0;
    for (std::size_t i = curr; i < curr + batch; ++i) asked += iov[i].iov_len;
    const ssize_t sent = sendGathered(fileDescriptor()->descriptor(), iov + curr, batch);
    if (sent < 0) {
      handleWriteError(errno);
      return;
    }
    std::size_t offset = static_cast<std::size_t>(sent);
    txRemaining_ -= offset;
    if (txRemaining_ == 0) {
      KIV_TRACE(trace, 8) << "Sent " << sent << " bytes";
      writeCompleteAndSpaceAvailable();
      return;
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
    std::vector<SocketIovec> rest(iov + curr, iov + iovLen);
    rest[0].iov_base = static_cast<U8*>(rest[0].iov_base) + offset;
    rest[0].iov_len -= offset;
    txIov_ = std::move(rest);
    outOfWriteSpace();
    return;
  }
}

void TcpPduPam::enqueue(const Pkt& pkt) {
  txQueue_.push(pkt);
  const U32 enough = std::min<U32>(kGather, txQueueLimit());
  if (txQueue_.size() >= enough && !blocked()) {
    txFlush();
  } else if (!inReadEvent_ && !blocked()) {
    try {
      writeNotificationSet();
    } catch (const Kiv::ErrnoException& failure) {
      handleWriteError(failure.error());
    }
  }
  writableSet(roomToSend());
}

void TcpPduPam::txFlush() {
  if (!fd() || !writeModeEnabled() || blocked()) return;
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  while (!txQueue_.empty()) {
    SocketIovec pieces[kGather];
    std::size_t asked = 0;
    txQueue_.gather(pieces, kGather, asked);
    writeLengthSet(asked);
    if (!fd() || !writeModeEnabled() || blocked()) return;  // a reactor's doing
    const unsigned count = txQueue_.gather(pieces, kGather, asked);
    const ssize_t sent = sendGathered(fileDescriptor()->descriptor(), pieces, count);
    if (sent < 0) {
      handleWriteError(errno);
      return;
    }
    txQueue_.sent(static_cast<std::size_t>(sent));
    if (static_cast<std::size_t>(sent) < asked) {
      KIV_TRACE(trace, 8) << "Partial send " << sent << " bytes. Queued packets: " << txQueue_.size();
      txBlocked_ = true;
      outOfWriteSpace();
      return;
    }
    KIV_TRACE(trace, 8) << "Sent " << sent << " bytes";
  }
  writeCompleteAndSpaceAvailable();
}

void TcpPduPam::outOfWriteSpace() {
  try {
    // The socket may have got room since, or have taken less than it had room for: ask for the edge anew.
    if (edgeTriggered() && fd()) fd()->notifyOnWritableIs(false);
    writeNotificationSet();
  } catch (const Kiv::ErrnoException& failure) {
    handleWriteError(failure.error());
    return;
  }
  writableSet(roomToSend());
}

void TcpPduPam::writeCompleteAndSpaceAvailable() {
  txPktHolderShadow_ = nullptr;
  txBuffer_ = nullptr;
  txNext_ = nullptr;
  txIov_ = {};
  txRemaining_ = 0;
  if (!txQueue_.empty()) {
    txFlush();  // what was queued behind it
    return;
  }
  writeNotificationSet();
  if (pendingMode_ == tcpEnableModeReadOnly) {
    pendingModeApply();
  } else {
    writableSet(roomToSend());
  }
}

void TcpPduPam::handleSocketWritable() {
  if (!initialized() || fileDescriptor()->descriptor() < 0 || !fd()) return;
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  txBlocked_ = false;
  if (txPktHolderShadow_) {
    sendRestOfPkt();
  } else if (!txIov_.empty()) {
    sendPieces(txIov_.data(), txIov_.size());
  } else {
    txFlush();
  }
}

void TcpPduPam::handleWriteError(int error) {
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  KIV_TRACE(trace, 0) << "Send failed with " << error;
  txErrorReason.store(Kiv::errorText(error));  // before anyone hears of it and sends more
  cleanup();
  txErrnoIs(error);
  txErrorsInc(1);
  txErrorReason.notifiees().notify();
}

// The rest
// ----------------------------------------------------------------------------------------------------

Kiv::String TcpPduPam::formatDerivedType() const {
  return "TcpPduPam";
}

void TcpPduPam::dumpState(std::ostream& out) const {
  out << formatDerivedType() << '\n';
  Kiv::dump(out, *this);
  if (fd()) out << *fd() << '\n';
  dumpDerivedState(out);
}

void TcpPduPam::dumpDerivedState(std::ostream&) const {}

}  // namespace Wirl
