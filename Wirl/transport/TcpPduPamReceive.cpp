// SPDX-License-Identifier: Apache-2.0
// The receiving half of `TcpPduPam`: events, pulls and the end of the stream.
#include <algorithm>
#include <cerrno>
#include <new>
#include <string>
#include <utility>

#include "Kiv/Assert.h"
#include "Wirl/access/detail/Socket.h"
#include "Wirl/transport/TcpPduPam.h"
#include "Wirl/transport/detail/TcpPduPamTrace.h"

namespace Wirl {

using detail::PduReader;
using detail::Printed;
using detail::tcpPduPamTrace;
using Result = TcpPduPamReadReturn::Result;

namespace {

/// Readable events without a pull after which a trace asks where the reactor is. Level-triggered there are no
/// events while a PDU is held; a clock asks then (`handleDeadline`).
constexpr U32 kEventsNotPulled = 1000;

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

void TcpPduPam::handleReadable() {}

U16 TcpPduPam::getPduSize() {
  KIV_ASSERT_AS(false, "0 && \"Need to implement getRemainingLength in a derived class\"", name());
}

U16 TcpPduPam::pduSize(std::uint64_t length, U16 header) noexcept {
  if (length <= 0xffffu - header) return static_cast<U16>(header + length);
  reader_.tooBig();
  return 0xffff;
}

/// The caller keeps the Pam alive.
void TcpPduPam::readableSet(bool value) {
  if (!readable.store(value)) return;
  // At the end of an event, or of a pull outside of one, the registration is set for what is left then.
  if (!inReadEvent_ && !inPull_) readNotificationUpdate();
  handleReadable();
  readable.notifiees().notify();
}

// Reading
// -----------------------------------------------------------------------------------------------------

/// `lacked`: octets that the PDU lacked before.
[[gnu::cold]] void TcpPduPam::traceRead(const Outcome& outcome, U16 lacked) const {
  if (outcome.received > 0) {
    KIV_TRACE(tcpPduPamTrace, 8) << "pduTotalLength " << outcome.total << " ,dataRead " << outcome.received
                                 << " rxRemainingLength=" << lacked - outcome.received << *this;
    if (!outcome.reason) {
      KIV_TRACE(tcpPduPamTrace, 8) << "PDU size: " << outcome.total << " Remaining: " << reader_.lacks()
                                   << *this;
    }
  }
  KIV_TRACE(tcpPduPamTrace, 8) << Printed{[&outcome] { return outcome.value(); }} << *this;
  if (outcome.result == Result::fullPduRead) {
    KIV_TRACE(tcpPduPamTrace, 9) << "PktData: 0x" << Printed{[this] { return hexOf(*reader_.pdu()); }}
                                 << *this;
  }
}

inline PduReader::Take TcpPduPam::howToRead() const noexcept {
  // With one PDU per event the later ones must stay in the socket, so that it reports them.
  return !readAhead() || readOnePktOnly() ? PduReader::Take::needed
         : edgeTriggered()                ? PduReader::Take::aheadToEnd
                                          : PduReader::Take::ahead;
}

[[gnu::cold]] void TcpPduPam::traceSlice() const {
  const U16 total = static_cast<U16>(reader_.pdu()->bytes());
  traceRead({Result::fullPduRead, 0, nullptr, total, total}, total);
}

[[gnu::always_inline]] inline TcpPduPam::Outcome TcpPduPam::readOnce() {
  const U16 lacked = reader_.lacks();
  const Outcome outcome = reader_.read(fileDescriptor()->descriptor(), howToRead(), maxPduLength(),
                                       [this] { return getPduSize(); });
  heard_ |= outcome.received > 0;
  if (tcpPduPamTrace.enabled(8)) [[unlikely]]
    traceRead(outcome, lacked);
  return outcome;
}

/// Reads once for the PDU in reception, which it begins.
[[gnu::always_inline]] inline TcpPduPam::Outcome TcpPduPam::readExactly() {
  reader_.begin(
      maxPduLength(), [this] { return getPduSize(); }, name());
  return fd() ? readOnce() : Outcome{Result::waitForMoreData};
}

// One call of readExactly(), so that the compiler takes it in: see PduReader::read().
[[gnu::always_inline]] inline TcpPduPam::Outcome TcpPduPam::readNext() {
  const auto take = howToRead();
  if (take != PduReader::Take::needed && !reader_.pdu()) [[unlikely]] {
    if (!reader_.hasMore()) {
      const Outcome outcome = reader_.fill(
          fileDescriptor()->descriptor(), take, [this] { return getPduSize(); }, name());
      heard_ |= outcome.received > 0;
      if (outcome.error != ENOMEM || !fd()) return outcome;
    } else if (reader_.slice(maxPduLength(), [this] { return getPduSize(); })) {
      if (tcpPduPamTrace.enabled(8)) [[unlikely]]
        traceSlice();
      return {Result::fullPduRead};
    } else if (!fd()) {
      return {Result::waitForMoreData};
    }
  }
  return readExactly();
}

/// The caller keeps the Pam alive.
[[gnu::always_inline]] inline bool TcpPduPam::readPdu() {
  if (readable()) return true;
  if (end_ || reader_.asking()) return false;
  for (;;) {
    const Outcome outcome = readNext();
    if (!fd()) return false;  // the framing has cleaned up
    switch (outcome.result) {
      case Result::readMoreData:
        break;
      case Result::fullPduRead:
        readableSet(true);
        return true;
      case Result::waitForMoreData:
        // A connection between two PDUs holds no packet.
        if (reader_.pdu() && reader_.pdu()->empty()) reader_.take();
        return false;
      case Result::error:
        handleReadError(outcome);
        return false;
    }
  }
}

bool TcpPduPam::readNextPdu() {
  const auto alive = Kiv::keepAlive(this);
  KIV_ASSERT_AS(readable() || (fd() && fd()->notifyOnReadable()), "fd()->notifyOnReadable()", name());
  const bool whole = readPdu();
  pendingWriteOnlyApply();
  return whole;
}

TcpPduPamReadReturn TcpPduPam::readFromSocket() {
  return readOnce().value();
}

// Events
// ------------------------------------------------------------------------------------------------------

void TcpPduPam::handleSocketReadable() {
  if (!initialized() || fileDescriptor()->descriptor() < 0 || !rxErrorReason().empty()) return;
  if (inReadEvent_ || reader_.asking()) {
    readAgain_ = true;
    return;
  }
  if (readable()) {
    KIV_ASSERT_AS(edgeTriggered(), "edgeTriggered()", name());
    traceNotPulled();
    return;
  }
  const auto alive = Kiv::keepAlive(this);
  Kiv::FirstFailure failure;
  inReadEvent_ = true;
  pdusOfEvent_ = 0;
  failure.run([this] { readEvent(); });
  inReadEvent_ = false;
  if (heard_ && deadlines_) heardNow();
  failure.run([this] { readNotificationUpdate(); });
  failure.run([this] {
    if (writer_.queued() > 0) txFlush();
  });
  if (readable() && !edgeTriggered()) heldNow();
  // Behind what the client had to send.
  failure.run([this] {
    if (end_ && !pulled_ && !readable()) endTell();
  });
  failure.rethrow();
}

void TcpPduPam::readEvent() {
  // Normally one iteration. Repeat if a reactor re-enabled reading or left octets that were read ahead: the
  // loop may not report them.
  do {
    readAgain_ = false;
    if (readPdu() && fd()) readableCountInc(1);
    pendingWriteOnlyApply();
    if (!fd() || !fd()->notifyOnReadable() || readable() || end_) return;
  } while ((readAgain_ || reader_.hasMore()) && (withinBudget() || !offerRest()));
}

/// Has the loop report the socket in its next pass. False if it cannot report the octets that were read
/// ahead.
bool TcpPduPam::offerRest() {
  if (!edgeTriggered() && !reader_.hasMore()) return true;  // the kernel does
  if (fd()->readableAgain()) return true;
  if (reader_.hasMore()) return false;
  readNotificationUpdate(true);
  return true;
}

[[gnu::cold]] void TcpPduPam::traceNotPulled() {
  if (eventsNotPulled_ >= kEventsNotPulled || ++eventsNotPulled_ < kEventsNotPulled) return;
  KIV_TRACE(tcpPduPamTrace, 0) << kEventsNotPulled << " readable events and nobody called rxPkt()" << *this;
}

// The end of the stream, or of its use
// ------------------------------------------------------------------------------------------------------

void TcpPduPam::handleReadError(const Outcome& outcome) {
  if (readingIsOver()) return;
  KIV_TRACE(tcpPduPamTrace, 0) << Printed{[&outcome] { return outcome.value().reason; }} << *this;
  if (receiving()) outcome.error == EMSGSIZE ? reader_.giveUp() : reader_.clear();
  readingOver_ = true;
  end_ = outcome.reason;
  endError_ = outcome.error;
  // The client still has PDUs to take in an event, in a pull and while one is held: tell it behind them.
  if (!inReadEvent_ && !inPull_ && !readable()) return endTell();
  if (!inReadEvent_ && fd()) fd()->readableAgain();
}

void TcpPduPam::endTell() {
  Change change(this);
  try {
    rxErrorReason.store(Outcome{Result::error, endError_, end_}.value().reason);
  } catch (const std::bad_alloc&) {
    if (fd() && fd()->readableAgain()) return;  // later
    throw;
  }
  if (std::exchange(end_, nullptr) != PduReader::kClosedByPeer) change.put(rxErrors, rxErrors() + 1);
  change.changed(rxErrorReason);
  if (shutDown_) change.put(closed, true);
  readNotificationUpdate();
  change.tell();
}

// Pulls
// ------------------------------------------------------------------------------------------------------

/// Looks for the PDU behind the one that is handed over.
inline void TcpPduPam::readOn() {
  if (!fd() || readingIsOver() || !readModeEnabled() || pendingMode_ == tcpEnableModeWriteOnly) return;
  if (readOnePktOnly()) {
    if (!offerRest()) handleSocketReadable();
  } else if (withinBudget() || !offerRest()) {
    readPdu();
  }
}

/// Looks for that PDU among what was read ahead, before `readable` goes off: it stays on from one PDU to the
/// next.
[[gnu::always_inline]] inline bool TcpPduPam::sliceNext() {
  if (!reader_.hasMore() || readOnePktOnly() || readingOver_ || pendingMode_ == tcpEnableModeWriteOnly ||
      !readModeEnabled() || !withinBudget() || reader_.asking()) {
    return false;
  }
  try {
    if (!reader_.slice(maxPduLength(), [this] { return getPduSize(); })) return false;
  } catch (...) {
    readable.store(false);
    throw;
  }
  if (tcpPduPamTrace.enabled(8)) [[unlikely]]
    traceSlice();
  return true;
}

void TcpPduPam::doGetRxPkt() {
  if (inPull_) return;  // refuse re-entrant pulls: the inner one would return the later PDU first
  if (!pulled_ && !readable()) {
    // Outside of an event the loop tells of the end; where it cannot, this pull does.
    const auto offered = [this] { return fd() && fd()->notifyOnReadable() && fd()->readableAgain(); };
    if (end_ && !inReadEvent_ && !offered()) endTell();
    return;
  }
  inPull_ = true;
  const struct End {
    bool& inPull;
    ~End() { inPull = false; }
  } end{inPull_};
  const auto watch = [this] {
    if (!inReadEvent_) readNotificationUpdate();
  };
  try {
    if (!pulled_) {
      pulled_ = reader_.take();
      ++pdusOfEvent_;
      eventsNotPulled_ = 0;
      if (!sliceNext()) readableSet(false);
    }
    if (!readable()) readOn();
  } catch (...) {
    watch();
    throw;
  }
  watch();
  rxPktHolderIs(std::exchange(pulled_, nullptr));
}

}  // namespace Wirl
