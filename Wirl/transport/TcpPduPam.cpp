// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpPduPam.h"

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
constexpr const char* kNotWatched = "Readable notification failed with ";

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

}  // namespace

std::ostream& operator<<(std::ostream& out, TcpPduPamEnableMode mode) {
  assertMode(mode);
  return out << kModeNames[mode];
}

std::ostream& operator<<(std::ostream& out, const TcpPduPamReadReturn& outcome) {
  return out << "result=" << kResultNames[outcome.result] << " reason=" << outcome.reason;
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
  txIov_ = nullptr;
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
    const bool news = tcpOptErrorReason.store(Kiv::String(std::string("setsockopt() error while setting ") +
                                                          name + ": " + Kiv::errorText(error).c_str()));
    tcpOptErrorsInc(1);
    if (news) tcpOptErrorReason.notifiees().notify();
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
                        << ", probetime: " << options.probeCount();
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
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
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
  const bool change = mode != enableMode();
  if (change) {
    modeStore(mode);
  } else {
    pendingMode_ = tcpEnableModeNone;
  }
  modeTell(change);
}

void TcpPduPam::pendingModeApply() {
  const TcpPduPamEnableMode mode = pendingMode_;
  KIV_TRACE(trace, 5) << (mode == tcpEnableModeReadOnly
                              ? "pending txPkt complete, setting enabledMode to readOnly"
                              : "pending rxPkt complete, setting enabledMode to writeOnly");
  try {
    modeStore(mode);
  } catch (const Kiv::ErrnoException& failure) {
    pendingMode_ = tcpEnableModeNone;
    if (mode == tcpEnableModeReadOnly) return handleWriteError(failure.error());
    return handleReadError({TcpPduPamReadReturn::error, failure.error(), kNotWatched});
  }
  modeTell(true);
}

void TcpPduPam::pendingWriteOnlyApply() {
  if (pendingMode_ == tcpEnableModeWriteOnly && !receiving()) pendingModeApply();
}

/// All or nothing: throws with everything as it was when the loop refuses.
void TcpPduPam::modeStore(TcpPduPamEnableMode mode) {
  KIV_TRACE(trace, 5) << "Setting enabled to " << mode;
  const TcpPduPamEnableMode former = enableMode();
  enableMode.store(mode);
  try {
    readNotificationSet();
    writeNotificationSet();
  } catch (const Kiv::ErrnoException&) {
    enableMode.store(former);
    try {
      readNotificationSet();  // the one that was not refused
      writeNotificationSet();
    } catch (const Kiv::ErrnoException&) {
    }
    throw;
  }
  pendingMode_ = tcpEnableModeNone;
}

/// Tells of the mode and begins with what it allows.
void TcpPduPam::modeTell(bool change) {
  const TcpPduPamEnableMode mode = enableMode();
  if (change) {
    const bool enabledChanged = enabled.store(mode != tcpEnableModeNone);
    enableMode.notifiees().notify();
    if (enabledChanged) enabled.notifiees().notify();
    // Each of these may have led on to another mode, or to the end.
    if (enableMode() != mode || !fd()) return;
  }
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
  // What is in flight is finished in any mode; what is queued waits for one that writes.
  const bool queued = txBlocked_ || (!txQueue_.empty() && !inReadEvent_);
  const bool on = inFlight() || (writeModeEnabled() && queued);
  if (on) tcpPduFdSm()->writableIsWatched();
  fd()->notifyOnWritableIs(on);
}

// Outside of a setter nobody could do anything with an exception: a refusal counts as a failure of the
// direction. `anew`, an edge-triggered loop reports once more what it has reported.

void TcpPduPam::readNotificationUpdate(bool anew) {
  if (!fd()) return;
  try {
    if (anew) fd()->notifyOnReadableIs(false);
    readNotificationSet();
  } catch (const Kiv::ErrnoException& failure) {
    handleReadError({TcpPduPamReadReturn::error, failure.error(), kNotWatched});
  }
}

void TcpPduPam::writeNotificationUpdate(bool anew) {
  if (!fd()) return;
  try {
    if (anew) fd()->notifyOnWritableIs(false);
    writeNotificationSet();
  } catch (const Kiv::ErrnoException& failure) {
    handleWriteError(failure.error());
  }
}

// The callers of these keep the Pam alive.

void TcpPduPam::readableSet(bool value) {
  if (!readable.store(value)) return;
  // In an event the user is about to pull: the registration learns what is left of it at the end.
  if (!inReadEvent_) readNotificationUpdate();
  handleReadable();
  readable.notifiees().notify();
}

void TcpPduPam::writableSet(bool value) {
  if (!writable.store(value)) return;
  if (value) writableCountInc(1);
  handleWritable();
  writable.notifiees().notify();
}

bool TcpPduPam::writeLengthStore(std::size_t length) {
  return writeLength.store(static_cast<U16>(std::min<std::size_t>(length, 0xffff)));
}

void TcpPduPam::writeLengthTell() {
  handleWriteLength();
  writeLength.notifiees().notify();
}

void TcpPduPam::handleReadable() {}

void TcpPduPam::handleWritable() {}

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
    const Pkt::Ptr& pkt = rxPktHolderShadow_ = detail::newPduPkt(room);
    KIV_ASSERT_AS(pkt->maxSharedData() >= maxPduLength(), "pkt->maxSharedData() >= maxPduLength()");
    rxRemainingLength_ = getPduSize();
    KIV_ASSERT_AS(rxRemainingLength_ > 0, "getPduSize() > 0");
    // The data is to grow at its tail, from a place behind which all of it fits.
    const U32 reserved = std::max<U32>(room, rxRemainingLength_);
    pkt->newSharedHeadData(reserved);
    pkt->delSharedTailData(reserved);
  } catch (const std::bad_alloc&) {
    rxPktHolderShadow_ = nullptr;  // the read will say so
    rxRemainingLength_ = 0;
  }
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
  if (readable()) return true;
  KIV_ASSERT_AS(fd() && fd()->notifyOnReadable(), "fd()->notifyOnReadable()");
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
  const bool whole = readPdu();
  pendingWriteOnlyApply();
  return whole;
}

TcpPduPamReadReturn TcpPduPam::readFromSocket() {
  return readOnce().value();
}

void TcpPduPam::handleSocketReadable() {
  if (!initialized() || fileDescriptor()->descriptor() < 0 || !rxErrorReason().empty()) return;
  if (inReadEvent_) {
    readAgain_ = true;
    return;
  }
  if (readable()) {
    KIV_ASSERT_AS(edgeTriggered(), "edgeTriggered()");
    return;
  }
  const Kiv::Ptr<TcpPduPam> alive(references() > 0 ? this : nullptr);
  const auto end = [this] {
    inReadEvent_ = false;
    readNotificationUpdate();
    if (!txQueue_.empty()) txFlush();
  };
  inReadEvent_ = true;
  try {
    // Once, but for reactors that make it possible to read on: by pulling one PDU of those that were read
    // ahead, by switching reading off and on. The socket may not remind of what they left.
    do {
      readAgain_ = false;
      if (readPdu() && fd()) readableCountInc(1);
      pendingWriteOnlyApply();
    } while (fd() && fd()->notifyOnReadable() && !readable() && (readAgain_ || !ahead_.empty()));
  } catch (...) {
    end();
    throw;
  }
  end();
}

void TcpPduPam::handleReadError(const ReadOutcome& outcome) {
  if (!rxErrorReason().empty()) return;
  const Kiv::String reason = outcome.value().reason;
  KIV_TRACE(trace, 0) << reason;
  if (receiving()) {
    rxPktHolderShadow_ = nullptr;
    rxRemainingLength_ = 0;
  }
  ahead_.clear();
  rxErrorReason.store(reason);
  readNotificationUpdate();
  if (outcome.reason != kClosedByPeer) rxErrorsInc(1);
  rxErrorReason.notifiees().notify();
}

inline void TcpPduPam::readOn() {
  if (!fd() || readable() || !readModeEnabled() || pendingMode_ == tcpEnableModeWriteOnly) return;
  if (!fd()->notifyOnReadable()) readNotificationUpdate();
  if (!rxErrorReason().empty()) return;
  if (!readOnePktOnly()) {
    readPdu();
  } else if (!ahead_.empty()) {
    handleSocketReadable();
  } else if (edgeTriggered()) {
    readNotificationUpdate(true);  // what waits behind it was reported already
  }
}

void TcpPduPam::doGetRxPkt() {
  if (inPull_) return;  // a reactor that pulls inside a pull would be given the later PDU first
  const bool kept = pulled_ != nullptr;
  if (!kept && !readable()) return;
  inPull_ = true;
  const struct End {
    bool& inPull;
    ~End() { inPull = false; }
  } end{inPull_};
  if (!kept) {
    pulled_ = std::exchange(rxPktHolderShadow_, nullptr);
    rxRemainingLength_ = 0;
    readableSet(false);
  }
  readOn();
  rxPktHolderIs(std::exchange(pulled_, nullptr));
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
