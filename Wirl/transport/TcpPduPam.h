// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/uio.h>

#include <memory>
#include <ostream>
#include <vector>

#include "Wirl/transport/TcpKeepaliveOptions.h"
#include "Wirl/transport/TcpPduPamBase.h"
#include "Wirl/transport/detail/ReadAhead.h"
#include "Wirl/transport/detail/SendQueue.h"

namespace Wirl {

/// A piece of memory to be sent, as writev(2) has it.
using SocketIovec = struct ::iovec;

/// In which directions a connection is used.
enum TcpPduPamEnableMode : U8 {
  tcpEnableModeNone = 0,
  tcpEnableModeReadWrite = 1,
  tcpEnableModeReadOnly = 2,
  tcpEnableModeWriteOnly = 3,
};

KIV_API std::ostream& operator<<(std::ostream& out, TcpPduPamEnableMode mode);

/// What became of one read.
struct KIV_API TcpPduPamReadReturn {
  enum Result : U8 { error = 0, readMoreData = 1, waitForMoreData = 2, fullPduRead = 3 };

  Result result = error;
  Kiv::String reason;  // of an error

  explicit operator bool() const noexcept { return result == fullPduRead; }
  friend KIV_API std::ostream& operator<<(std::ostream& out, const TcpPduPamReadReturn& outcome);
};

/// Carries PDUs, messages that tell their own length, over one TCP connection: cuts the received stream into
/// whole PDUs and sends whole packets. Derive from it and say where the length stands, in `getPduSize()`.
///
///     socket ──readable──> [ header | body ... ]      recv() of what the PDU is known to lack, no octet more
///                                   │ whole
///                                   v
///                          held for the user ──> readableCount + 1 ──> rxPkt() until null, in the reactor
///
///     txPktIs(pkt) ──> send() ──> all taken: done
///                        └─> a part: `writable` off, the rest kept, sent from that octet on at the next
///                            writable event ──> `writable` on, writableCount + 1
///
/// Begin: `maxPduLengthIs` (0, as it is at first, accepts nothing), register reactors, then `enableModeIs`.
///
/// Receiving. One readable event announces one PDU; the others that are there by then come with it. So a
/// client pulls with `rxPkt()` until it gets null, inside its reactor to `readableCount`. Who stops earlier
/// is told again only after the next null. `readOnePktOnly` is for clients that want one PDU an event. A PDU
/// whose length field is below what the header takes is delivered as the header alone, and the next one
/// begins behind it. One above `maxPduLength` ends the connection: the stream cannot be cut any more.
///
/// Sending. Allowed while `writable()`; sending at another time ends the process. A packet handed over
/// belongs to the Pam: its bytes must not be changed until `writable()` again and, with `txQueueLimit`,
/// `txQueued()` is 0. With `txQueueLimit` set, packets are queued up to that many, and go out together: at
/// the end of the readable event in whose reactor they were sent, else when the socket is next reported
/// writable; `txFlush()` does it at once. `writable()` then tells whether the queue takes another one.
///
/// Failures throw nothing. The end of the stream and a failed read set `rxErrorReason`, and reading is over,
/// while sending may go on; a PDU that was not whole is not delivered. A failed send sets `txErrorReason` and
/// tears everything down, as `cleanup()` does; packets sent after it count as `txErrors`. The owner of the
/// connection reacts to these attributes, and replaces the Pam.
///
/// What the loop refuses (memory to watch the socket with) is a failure of the direction, but for
/// `enableModeIs`, which throws it and changes nothing.
///
/// Modes. Switching to read-only while a packet is being sent waits until it is sent; to write-only while a
/// PDU is being received, until it is there. No PDU is cut in two, also by switching to none: what was begun
/// goes on when the direction is enabled again, and a packet in flight is finished in any mode.
///
/// Memory. A Pam between two PDUs holds no packet and no buffer.
///
/// Reactors may switch modes, send, clean up or let go of the Pam at any point. What one throws leaves
/// through the caller or the loop, and no PDU is lost: pull on until null. Single-threaded, on the loop that
/// watches the socket.
class KIV_API TcpPduPam : public TcpPduPamBase {
 public:
  KIV_ENTITY(TcpPduPam, TcpPduPamBase)
  KIV_ATTR_READ(bool, enabled, false)
  KIV_ATTR_READ(TcpPduPamEnableMode, enableMode, tcpEnableModeNone)
  KIV_ATTR_DERIVED(TcpPduPamEnableMode, pendingEnableReadOnlyOrWriteOnlyMode)
  KIV_ATTR_READ(bool, initialized, false)
  KIV_ATTR_HOOK(TcpKeepaliveOptions, keepaliveOpts, keepaliveDisabled, handleKeepaliveOptions)
  KIV_ATTR(U16, maxPduLength, 0)
  KIV_ATTR(bool, readOnePktOnly, false)
  KIV_ATTR(bool, readAhead, false)
  KIV_ATTR_HOOK(U32, txQueueLimit, 0, handleTxQueueLimit)
  KIV_ATTR_READ(bool, readable, false)  // a whole PDU is held
  KIV_ATTR_READ(bool, writable, false)  // a packet may be sent
  KIV_ATTR_RARE_READ(Kiv::String, rxErrorReason)
  KIV_ATTR_RARE_READ(Kiv::String, txErrorReason)
  KIV_ATTR_RARE_READ(Kiv::String, tcpOptErrorReason)
  KIV_ATTR_COUNTER(U32, tcpOptErrors)
  KIV_ATTR_DERIVED(Pkt::Ptr, rxPktHolderShadow)
  KIV_ATTR_DERIVED(U16, rxRemainingLength)
  KIV_ATTR_DERIVED(Pkt::Ptr, txPktHolderShadow)
  KIV_ATTR_DERIVED(U16, txIovLenHolderShadow)
  KIV_ATTR_DERIVED(U32, txQueued)
  KIV_ATTR_DERIVED(U16, txRemainingLength)
  KIV_ATTR_READ(U16, writeLength, 0)

  /// For a connected socket; attaches it to the factory's loop. Throws `Kiv::ErrnoException` when that
  /// refuses.
  TcpPduPam(const TcpFileDescriptor::PtrConst& descriptor,
            const Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>& factory);
  ~TcpPduPam() override;

 protected:
  virtual void sendPkt(const Pkt::Ptr& pkt);
  virtual void sendIov(const SocketIovec* iov, U16 iovLen);
  /// Reactors of `readable`, `writable` and `writeLength`, before those from outside. Empty here.
  virtual void handleReadable();
  virtual void handleWritable();
  virtual void handleWriteLength();

 public:
  /// Names the class in `dumpState`.
  virtual Kiv::String formatDerivedType() const;
  /// Octets that the current PDU needs, by what has arrived of it in `rxPktHolderShadow()`: its length, or
  /// what it takes to tell (the header's length). Asked before anything has arrived, and again after each
  /// read. A derived class supplies it; it must be above 0 at first.
  virtual U16 getPduSize();
  virtual void dumpDerivedState(std::ostream& out) const;

  /// Switches the directions; see above. A value that is no mode, and a read-only or write-only request while
  /// the same one is pending, end the process. Throws `Kiv::ErrnoException`, with nothing changed, when the
  /// loop refuses to watch the socket.
  void enableModeIs(TcpPduPamEnableMode mode);
  TcpPduPamEnableMode pendingEnableReadOnlyOrWriteOnlyMode() const noexcept { return pendingMode_; }
  /// True for any mode but none. Setting it enables both directions, unless one is enabled already, or none.
  void enabledIs(bool on);
  bool readModeEnabled() const noexcept {
    return enableMode() == tcpEnableModeReadWrite || enableMode() == tcpEnableModeReadOnly;
  }
  bool writeModeEnabled() const noexcept {
    return enableMode() == tcpEnableModeReadWrite || enableMode() == tcpEnableModeWriteOnly;
  }

  /// Sends the gathered pieces as one stretch of the stream, of any length, under the rules of `txPktIs`.
  /// When `writable()` is off on return, the memory of the pieces (not `iov` itself) must stay as it is until
  /// it is on again; with `txQueueLimit` they are copied.
  void txIovIs(const SocketIovec* iov, U16 iovLen);
  /// Sends what is queued, as far as the socket takes it.
  void txFlush();

  /// Reads until a PDU is whole and held (true), or there is nothing more to read.
  bool readNextPdu();
  /// Reads once.
  TcpPduPamReadReturn readFromSocket();

  /// Lets go of the registration, of what is being received and sent, and of the state machine. The socket
  /// stays open for as long as someone holds the descriptor.
  void cleanup();

  void handleSocketReadable() override;
  void handleSocketWritable() override;

  /// Writes all attributes, and what a derived class adds.
  void dumpState(std::ostream& out) const;

  /// The PDU in reception; while `readable()`, whole.
  const Pkt::Ptr& rxPktHolderShadow() const noexcept { return rxPktHolderShadow_; }
  /// Octets that the PDU in reception is known to lack.
  U16 rxRemainingLength() const noexcept { return rxRemainingLength_; }
  /// The packet that was sent in part.
  const Pkt::Ptr& txPktHolderShadow() const noexcept { return txPktHolderShadow_; }
  /// The rest of the pieces that were sent in part; null when there is none.
  const SocketIovec* txIovHolderShadow() const noexcept { return txIov_ ? txIov_->data() : nullptr; }
  U16 txIovLenHolderShadow() const noexcept { return txIov_ ? static_cast<U16>(txIov_->size()) : 0; }
  U32 txQueued() const noexcept { return txQueue_.size(); }
  /// Octets that the packet or the pieces sent in part lack; 65535 when there are more.
  U16 txRemainingLength() const noexcept {
    return txRemaining_ > 0xffff ? U16{0xffff} : static_cast<U16>(txRemaining_);
  }

 protected:
  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  void doGetRxPkt() override;

 private:
  void handleInitialized();
  void handleKeepaliveOptions();
  void handleTxQueueLimit();

  void modeStore(TcpPduPamEnableMode mode);
  void modeTell(bool change);
  void pendingModeApply();
  void pendingWriteOnlyApply();
  void readNotificationSet();
  void writeNotificationSet();
  void readNotificationUpdate(bool anew = false);
  void writeNotificationUpdate(bool anew = false);
  void readableSet(bool value);
  void writableSet(bool value);
  bool writeLengthStore(std::size_t length);
  void writeLengthTell();

  /// What one read came to; `reason` is null unless it failed, `error` an errno behind it.
  struct ReadOutcome {
    TcpPduPamReadReturn::Result result;
    int error = 0;
    const char* reason = nullptr;
    TcpPduPamReadReturn value() const;
  };
  void traceOutcome(const ReadOutcome& outcome) const;
  void traceRead(U16 total, ssize_t count) const;
  void traceSize(U16 total) const;
  void tracePdu() const;
  bool readPdu();
  ReadOutcome readOnce();
  void startPdu();
  void readOn();
  ssize_t receive(U8* to, U16 length);
  bool receiving() const noexcept { return rxPktHolderShadow_ && !readable(); }
  void handleReadError(const ReadOutcome& outcome);

  bool inFlight() const noexcept { return txPktHolderShadow_ || txIov_; }
  bool blocked() const noexcept { return txBlocked_ || inFlight(); }
  bool sending() const noexcept { return blocked() || !txQueue_.empty(); }
  bool roomToSend() const noexcept;
  void sendRestOfPkt();
  void sendRestOfIov(const SocketIovec* iov, std::size_t count);
  int sendPieces(const SocketIovec* iov, std::size_t iovLen);
  void enqueue(const Pkt& pkt);
  void writeCompleteAndSpaceAvailable();
  void spaceAvailable();
  void outOfWriteSpace();
  void handleWriteError(int error);
  void drop() noexcept;

  Pkt::Ptr rxPktHolderShadow_;
  Pkt::Ptr pulled_;  // kept here while it is on its way, should a reactor throw
  detail::ReadAhead ahead_;
  Pkt::Ptr txPktHolderShadow_;
  Pkt::SharedBuffer::Ptr txBuffer_;  // of that packet, whatever its holders do with it
  const U8* txNext_ = nullptr;       // in there
  std::unique_ptr<std::vector<SocketIovec>> txIov_;
  detail::SendQueue txQueue_;
  std::size_t txRemaining_ = 0;
  U16 rxRemainingLength_ = 0;
  TcpPduPamEnableMode pendingMode_ = tcpEnableModeNone;
  bool inReadEvent_ = false;
  bool readAgain_ = false;  // before that is over
  bool inPull_ = false;
  bool txBlocked_ = false;  // the queue has met a full socket
};

}  // namespace Wirl
