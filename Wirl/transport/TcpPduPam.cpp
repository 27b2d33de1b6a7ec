// SPDX-License-Identifier: Apache-2.0
// The beginning and end of a `TcpPduPam`, and its modes.
#include "Wirl/transport/TcpPduPam.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <sstream>
#include <string>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Wirl/access/detail/Socket.h"
#include "Wirl/transport/detail/TcpPduPamTrace.h"

namespace Wirl {

namespace detail {

Kiv::TraceHandle tcpPduPamTrace("TcpPduPam");

}  // namespace detail

using detail::tcpPduPamTrace;

namespace {

constexpr std::array<const char*, 4> kModeNames = {"tcpEnableModeNone", "tcpEnableModeReadWrite",
                                                   "tcpEnableModeReadOnly", "tcpEnableModeWriteOnly"};

constexpr const char* kNotWatched = "Readable notification failed with ";

constexpr const char* kNoMode = "0 && \"Unexpected value\"";

}  // namespace

std::ostream& operator<<(std::ostream& out, TcpPduPamEnableMode mode) {
  KIV_ASSERT_AS(mode <= tcpEnableModeWriteOnly, kNoMode);
  return out << kModeNames[mode];
}

/// What stands behind each trace.
std::ostream& operator<<(std::ostream& out, const TcpPduPam& pam) {
  out << " [" << pam.name();
  if (pam.peerPort_ != 0) out << ", peer " << pam.peerAddr_ << " port " << pam.peerPort_;
  return out << ']';
}

// Beginning and end
// -------------------------------------------------------------------------------------------

TcpPduPam::TcpPduPam(const TcpFileDescriptor::PtrConst& descriptor,
                     const Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>& factory, Kiv::String name)
    : TcpPduPamBase(descriptor, factory, std::move(name)) {
  // Asked now: a connection that failed has no peer any more.
  detail::SockAddr peer;
  if (getpeername(descriptor->descriptor(), peer.get(), &peer.length()) == 0 &&
      peer.address().af() != AddressFamily::ipunknown) {
    peerAddr_ = peer.address();
    peerPort_ = peer.port();
  }
  // Refused only by what is no TCP socket.
  const int on = 1;
  setsockopt(descriptor->descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
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
  Change change(this);
  tearDown(change);
  change.tell();
}

void TcpPduPam::tearDown(Change& change) {
  drop();
  change.put(initialized, false);
  if (closing_) change.put(closed, true);
  deadlinesSet();  // to none
  if (change.put(readable, false)) change.run([this] { handleReadable(); });
  if (change.put(writable, false)) change.run([this] { handleWritable(); });
}

void TcpPduPam::drop() noexcept {
  fdIs(nullptr);
  pendingMode_ = tcpEnableModeNone;
  reader_.clear();
  writer_.clear();
  end_ = nullptr;
}

void TcpPduPam::keepaliveOptsIs(TcpKeepaliveOptions options) {
  if (!keepaliveOpts.store(options)) return;
  Kiv::detail::hookAndNotify(this, keepaliveOpts.notifiees(), [this] { handleKeepaliveOptions(); });
}

void TcpPduPam::noDelayIs(bool on) {
  if (!noDelay.store(on)) return;
  Kiv::detail::hookAndNotify(this, noDelay.notifiees(),
                             [this] { tcpOptionIs(IPPROTO_TCP, TCP_NODELAY, noDelay(), "TCP_NODELAY"); });
}

/// Sets a socket option; counts and explains a failure, and returns false then.
bool TcpPduPam::tcpOptionIs(int level, int option, S32 value, const char* name) {
  if (setsockopt(fileDescriptor()->descriptor(), level, option, &value, sizeof(value)) == 0) return true;
  const int error = errno;
  KIV_TRACE(tcpPduPamTrace, 0) << "Setsockopt failed with " << error << *this;
  const bool news = tcpOptErrorReason.store(Kiv::String(std::string("setsockopt() error while setting ") +
                                                        name + ": " + Kiv::errorText(error).c_str()));
  tcpOptErrors.set(tcpOptErrors() + 1);
  if (news) tcpOptErrorReason.notifiees().notify();
  return false;
}

/// Sets one option after the other, until one fails.
void TcpPduPam::handleKeepaliveOptions() {
  const TcpKeepaliveOptions options = keepaliveOpts();
  const struct {
    int level, option;
    const char* name;
    U32 value;
  } all[] = {{SOL_SOCKET, SO_KEEPALIVE, "SO_KEEPALIVE", options.enabled() ? 1u : 0u},
             {IPPROTO_TCP, TCP_KEEPIDLE, "TCP_KEEPIDLE", options.idleTime()},
             {IPPROTO_TCP, TCP_KEEPINTVL, "TCP_KEEPINTVL", options.probeInterval()},
             {IPPROTO_TCP, TCP_KEEPCNT, "TCP_KEEPCNT", options.probeCount()}};
  for (const auto& each : all) {
    if (!tcpOptionIs(each.level, each.option, static_cast<S32>(each.value), each.name)) return;
    if (!options.enabled()) {
      KIV_TRACE(tcpPduPamTrace, 5) << "Setsockopt(): TCP Keepalive disabled" << *this;
      return;
    }
  }
  KIV_TRACE(tcpPduPamTrace, 5) << "Setsockopt(): TCP Keepalive enabled "
                               << "( idletime: " << options.idleTime()
                               << ", probeinterval: " << options.probeInterval()
                               << ", probetime: " << options.probeCount() << *this;
}

// Modes
// -------------------------------------------------------------------------------------------------------

void TcpPduPam::enabledIs(bool on) {
  if (on != enabled()) enableModeIs(on ? tcpEnableModeReadWrite : tcpEnableModeNone);
}

void TcpPduPam::enableModeIs(TcpPduPamEnableMode mode) {
  KIV_ASSERT_AS(mode <= tcpEnableModeWriteOnly, kNoMode, name());
  KIV_ASSERT_AS(mode != tcpEnableModeReadOnly || pendingMode_ != mode,
                "pendingEnableReadOnlyOrWriteOnlyMode_ != TcpPduPamEnableMode::tcpEnableModeReadOnly_",
                name());
  KIV_ASSERT_AS(mode != tcpEnableModeWriteOnly || pendingMode_ != mode,
                "pendingEnableReadOnlyOrWriteOnlyMode_ != TcpPduPamEnableMode::tcpEnableModeWriteOnly_",
                name());
  if (mode == tcpEnableModeReadOnly && writeModeEnabled() && !writer_.idle()) {
    KIV_TRACE(tcpPduPamTrace, 5) << "Waiting for txPkt before setting enabled to " << mode << *this;
    pendingMode_ = mode;
    const auto alive = Kiv::keepAlive(this);
    writableSet(false);
    return;
  }
  if (mode == tcpEnableModeWriteOnly && readModeEnabled() && receiving()) {
    KIV_TRACE(tcpPduPamTrace, 5) << "Waiting for rxPkt before setting enabled to " << mode << *this;
    pendingMode_ = mode;
    return;
  }
  Change change(this, modeTurn_);
  modeStore(change, mode);
  modeTell(change);
}

void TcpPduPam::pendingModeApply() {
  const TcpPduPamEnableMode mode = pendingMode_;
  KIV_TRACE(tcpPduPamTrace, 5) << (mode == tcpEnableModeReadOnly
                                       ? "pending txPkt complete, setting enabledMode to readOnly"
                                       : "pending rxPkt complete, setting enabledMode to writeOnly")
                               << *this;
  Change change(this, modeTurn_);
  try {
    modeStore(change, mode);
  } catch (const Kiv::ErrnoException& failure) {
    pendingMode_ = tcpEnableModeNone;
    if (mode == tcpEnableModeReadOnly) return handleWriteError(failure.error());
    return handleReadError({TcpPduPamReadReturn::error, failure.error(), kNotWatched});
  }
  modeTell(change);
}

void TcpPduPam::pendingWriteOnlyApply() {
  if (pendingMode_ == tcpEnableModeWriteOnly && !receiving()) pendingModeApply();
}

/// Throws, with everything as it was, if the loop cannot watch the socket.
void TcpPduPam::modeStore(Change& change, TcpPduPamEnableMode mode) {
  const TcpPduPamEnableMode former = enableMode();
  if (mode != former) {
    KIV_TRACE(tcpPduPamTrace, 5) << "Setting enabled to " << mode << *this;
    enableMode.store(mode);
    try {
      readNotificationSet();
      writeNotificationSet();
    } catch (const Kiv::ErrnoException& failure) {
      enableMode.store(former);
      readNotificationUpdate();  // one of the two was set
      writeNotificationUpdate();
      std::ostringstream context;
      context << peerAddr() << " port " << peerPort();
      throw Kiv::ErrnoException(failure.error(), failure.message(), context.str());
    }
    change.changed(enableMode);
    change.put(enabled, mode != tcpEnableModeNone);
    heardNow();
    deadlinesSet();
  }
  pendingMode_ = tcpEnableModeNone;
}

/// Notifies of the mode, then starts what it allows, unless a reactor chose another mode or cleaned up.
void TcpPduPam::modeTell(Change& change) {
  change.tell();
  if (!change.newest() || !fd()) return;
  writableSet(roomToSend());
  if (!change.newest() || !fd() || !fd()->notifyOnReadable()) return;
  if (edgeTriggered()) {
    KIV_TRACE(tcpPduPamTrace, 5) << "Additional edgeTriggered notification" << *this;
    handleSocketReadable();
  } else if (reader_.hasMore() || end_) {
    handleSocketReadable();  // the kernel does not report what was read already
  }
}

void TcpPduPam::readNotificationSet() {
  if (!fd()) return;
  // Level-triggered, the socket would be reported in every pass while a PDU is held.
  fd()->notifyOnReadableIs(readModeEnabled() && rxErrorReason().empty() && (edgeTriggered() || !readable()));
}

void TcpPduPam::writeNotificationSet() {
  if (!fd()) return;
  // A packet in flight is finished in any mode; the queue waits for a mode that writes.
  const bool queued = writer_.queueIsBlocked() || (writer_.queued() > 0 && !inReadEvent_);
  const bool on = writer_.inFlight() || (writeModeEnabled() && queued);
  if (on) tcpPduFdSm()->writableIsWatched();
  fd()->notifyOnWritableIs(on);
}

// There is no caller to throw to here: if the loop refuses, this direction fails. `anew`: re-arm, so that an
// edge-triggered loop reports again.

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
