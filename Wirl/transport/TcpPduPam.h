// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>

#include "Kiv/Clock.h"
#include "Wirl/transport/TcpKeepaliveOptions.h"
#include "Wirl/transport/TcpPduPamBase.h"
#include "Wirl/transport/TcpPduPamReadReturn.h"
#include "Wirl/transport/detail/PduReader.h"
#include "Wirl/transport/detail/PduWriter.h"
#include "Wirl/value/IpGenAddr.h"

namespace Wirl {

/// A piece of memory to send, as writev(2) takes it.
using SocketIovec = struct ::iovec;

/// The directions in which a connection is used.
enum TcpPduPamEnableMode : U8 {
  tcpEnableModeNone = 0,
  tcpEnableModeReadWrite = 1,
  tcpEnableModeReadOnly = 2,
  tcpEnableModeWriteOnly = 3,
};

KIV_API std::ostream& operator<<(std::ostream& out, TcpPduPamEnableMode mode);

/// Carries PDUs, messages that state their own length, over one TCP connection: cuts the received stream into
/// whole PDUs and sends whole packets. Derive from it and implement `getPduSize()`.
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
/// To start: set `maxPduLength` (0, the default, accepts nothing), register reactors, then `enableModeIs`.
///
/// Receiving. One readable event announces one PDU; the others that have arrived come with it. So a client
/// pulls with `rxPkt()` until it gets null, inside its reactor to `readableCount`. A client that stops
/// earlier is told again only after the next null. `readOnePktOnly` gives one PDU per event. After `rxBudget`
/// PDUs of one event the pull gives null as well, and the next event comes in the loop's next pass. (On a
/// loop without `readableAgain`, octets that were read ahead are exempt.) A PDU whose length field is below
/// the header's length is delivered as the header alone, and the next one starts behind it. One above
/// `maxPduLength` ends the connection, because the stream cannot be cut any more.
///
/// Sending. Allowed while `writable()`; otherwise it ends the process. A packet handed over belongs to the
/// Pam: its bytes must not change until `writable()` is on again and, with `txQueueLimit`, `txQueued()` is 0.
/// With `txQueueLimit` set, up to that many packets are queued and go out together: at the end of the
/// readable event in whose reactor they were sent, otherwise when the socket is next reported writable;
/// `txFlush()` sends them at once. `writable()` then tells whether the queue has room.
///
/// Failures throw nothing. The end of the stream and a failed read set `rxErrorReason`. All PDUs that arrived
/// before are handed over first: the reason is set behind the reactor to `readableCount`, when the client has
/// pulled them all. Reading is over then, while sending may go on; an incomplete PDU is not delivered. A
/// failed send sets `txErrorReason` and tears everything down, as `cleanup()` does; packets sent later count
/// in `txErrors`. The owner of the connection reacts to these attributes and replaces the Pam. `rxErrno` and
/// `txErrno` have the errno: 0 if the peer closed, EMSGSIZE for "PDU length too big". What had arrived of a
/// PDU that is too big stays in `rxPktHolderShadow()` until `cleanup()`, so that the peer can be told of it.
///
/// End in order. `close()` sends what is queued and in flight, then tells the peer that no more follows, and
/// the Pam goes on receiving until the peer has closed, too. Then `closed` is on, and the Pam may be dropped:
/// nothing was lost in either direction. `allSentCount` goes up each time that the socket has taken the last
/// of what had to wait for it (a packet that it takes at once does not count).
///
/// Deadlines, off when zero. Reading fails with ETIMEDOUT if nothing arrived for `idleTimeout` while reading
/// was enabled. Sending fails with ETIMEDOUT if a full socket took nothing for `writeTimeout`. If the peer
/// does not close within `closeTimeout` of `close()`, the direction that is still open fails. They are clocks
/// of the thread's activity loop, also if another loop watches the socket.
///
/// If the loop cannot watch the socket (no memory), the direction fails; `enableModeIs` throws instead and
/// changes nothing.
///
/// Modes. A switch to read-only waits until the packet in flight is sent, a switch to write-only until the
/// PDU in reception is complete. No PDU is cut in two, not even by a switch to none: the rest follows when
/// the direction is enabled again, and a packet in flight is finished in any mode.
///
/// Memory. A Pam between two PDUs holds no packet and no buffer. With `readAhead` a PDU is a slice of the 64
/// KiB that were read (`Pkt::Manager::newSlice`), and keeps them in use; `ownSharedData()` on it ends that. A
/// thread has at most 16 such buffers: while its clients keep PDUs of all of them, PDUs are copied.
///
/// Where the activity loop watches the socket level-triggered and nobody pulls a PDU for 10 s, a trace says
/// so.
///
/// Re-entrancy. Reactors may switch modes, send, clean up or drop the Pam at any point, and so may
/// `getPduSize()`. An exception from a reactor leaves through the caller or the loop, and no PDU is lost:
/// pull until null. Single-threaded, on the loop that watches the socket.
class KIV_API TcpPduPam : public TcpPduPamBase {
 public:
  KIV_ENTITY(TcpPduPam, TcpPduPamBase)
  KIV_ATTR_READ(bool, enabled, false)
  KIV_ATTR_READ(TcpPduPamEnableMode, enableMode, tcpEnableModeNone)  ///< Which ways are open.
  KIV_ATTR_DERIVED(TcpPduPamEnableMode, pendingEnableReadOnlyOrWriteOnlyMode)
  /// Whether the class that knows the framing has made itself ready.
  KIV_ATTR_READ(bool, initialized, false)
  /// When the kernel probes a silent peer.
  KIV_ATTR_RARE_READ(TcpKeepaliveOptions, keepaliveOpts, keepaliveDisabled)
  KIV_ATTR_RARE_READ(bool, noDelay, true)  ///< Whether small segments are sent at once.
  KIV_ATTR(U16, maxPduLength, 0)
  KIV_ATTR(bool, readOnePktOnly, false)
  KIV_ATTR(bool, readAhead, false)
  KIV_ATTR_HOOK(U32, txQueueLimit, 0, handleTxQueueLimit)
  KIV_ATTR_READ(bool, readable, false)  // a whole PDU is held
  KIV_ATTR_READ(bool, writable, false)  // a packet may be sent
  KIV_ATTR_RARE_READ(Kiv::String, rxErrorReason)
  KIV_ATTR_DERIVED(S32, rxErrno)
  KIV_ATTR_RARE_READ(Kiv::String, txErrorReason)
  KIV_ATTR_RARE_READ(Kiv::String, tcpOptErrorReason)  ///< Which socket option failed last, and why.
  KIV_ATTR_RARE_READ(U32, tcpOptErrors)               ///< Socket options that failed.
  KIV_ATTR_DERIVED(Pkt::Ptr, rxPktHolderShadow)
  KIV_ATTR_DERIVED(U16, rxRemainingLength)
  KIV_ATTR_DERIVED(Pkt::Ptr, txPktHolderShadow)
  KIV_ATTR_DERIVED(U16, txIovLenHolderShadow)
  KIV_ATTR_DERIVED(U32, txQueued)
  KIV_ATTR_DERIVED(U16, txRemainingLength)
  KIV_ATTR_READ(U16, writeLength, 0)  ///< Octets that the last write was given, 65535 at most.
  KIV_ATTR_RARE_READ(U32, allSentCount)
  KIV_ATTR_DERIVED(Kiv::Time, idleTimeout)
  KIV_ATTR_DERIVED(Kiv::Time, writeTimeout)
  KIV_ATTR_DERIVED(Kiv::Time, closeTimeout)
  KIV_ATTR_DERIVED(bool, closing)
  KIV_ATTR_RARE_READ(bool, closed)
  KIV_ATTR_DERIVED(IpGenAddr, peerAddr)
  KIV_ATTR_DERIVED(U16, peerPort)

  /// For a connected socket; attaches it to the factory's loop. Traces print the name. Throws
  /// `Kiv::ErrnoException` if the loop cannot watch the socket.
  TcpPduPam(const TcpFileDescriptor::PtrConst& descriptor,
            const Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>& factory,
            Kiv::String name = "TcpPduPam");
  ~TcpPduPam() override;

 protected:
  virtual void sendPkt(const Pkt::Ptr& pkt);
  /// Sends the pieces, as far as there is room.
  virtual void sendIov(const SocketIovec* iov, U16 iovLen);
  /// Reactors of `readable`, `writable` and `writeLength`, before those from outside. Empty here.
  virtual void handleReadable();
  virtual void handleWritable();
  virtual void handleWriteLength();

 public:
  /// Names the class in `dumpState`.
  virtual Kiv::String formatDerivedType() const;
  /// Octets that the current PDU needs, judging by what `rxPktHolderShadow()` holds of it: its length, or the
  /// header's length while that is not known. Asked before anything has arrived and again after each read.
  /// With `readAhead` the holder may show octets behind the PDU, too, and is asked once. A derived class
  /// implements it, and returns more than 0 at first. Return `pduSize(...)` where the length field is wider
  /// than 16 bits.
  virtual U16 getPduSize();
  virtual void dumpDerivedState(std::ostream& out) const;  ///< What a derived class adds to `dump`.

  /// Switches the directions; see above. A value that is no mode, and a read-only or write-only request while
  /// the same one is pending, end the process. Throws `Kiv::ErrnoException`, with nothing changed, if the
  /// loop cannot watch the socket.
  void enableModeIs(TcpPduPamEnableMode mode);
  /// What is asked for and waits until the other way is at rest.
  TcpPduPamEnableMode pendingEnableReadOnlyOrWriteOnlyMode() const noexcept { return pendingMode_; }
  /// Applies the options to the socket. A failure counts in `tcpOptErrors`.
  void keepaliveOptsIs(TcpKeepaliveOptions options);
  /// Whether small PDUs go out at once (TCP_NODELAY) or wait for the peer's acknowledgment. A Pam switches it
  /// on when it is made. A failure of this setter counts in `tcpOptErrors`.
  void noDelayIs(bool on);
  /// True for any mode but none. Setting it enables both directions, unless one is enabled already, or none.
  void enabledIs(bool on);
  /// Whether PDUs are received.
  bool readModeEnabled() const noexcept {
    return enableMode() == tcpEnableModeReadWrite || enableMode() == tcpEnableModeReadOnly;
  }
  /// Whether PDUs are sent.
  bool writeModeEnabled() const noexcept {
    return enableMode() == tcpEnableModeReadWrite || enableMode() == tcpEnableModeWriteOnly;
  }

  /// Sends the gathered pieces as one stretch of the stream, of any length, under the rules of `txPktIs`. If
  /// `writable()` is off on return, the memory of the pieces (not `iov` itself) must stay as it is until it
  /// is on again; with `txQueueLimit` they are copied.
  void txIovIs(const SocketIovec* iov, U16 iovLen);
  /// Sends queued packets, as many as the socket takes.
  void txFlush();

  /// Reads until a PDU is whole and held (true), or there is nothing more to read.
  bool readNextPdu();
  /// Reads once.
  TcpPduPamReadReturn readFromSocket();

  /// Ends in order; see above. `writable()` is off from here on. Does nothing the second time, and nothing
  /// after `cleanup()`. What is queued in a mode that does not write waits for one that does.
  void close();
  /// Whether `close()` waits for the rest to be sent.
  bool closing() const noexcept { return closing_ && !closed(); }
  /// The defaults are 0, 0 and 5 s. The setters throw `Kiv::RangeException` for a negative time.
  Kiv::Time idleTimeout() const noexcept;
  /// How long a PDU may wait to be sent; infinite: as long as it takes.
  Kiv::Time writeTimeout() const noexcept;
  Kiv::Time closeTimeout() const noexcept;  ///< How long `close()` waits.
  void idleTimeoutIs(Kiv::Time time);
  void writeTimeoutIs(Kiv::Time time);
  void closeTimeoutIs(Kiv::Time time);

  /// Drops the registration, the PDUs and packets in reception and in flight, and the state machine. The
  /// socket stays open for as long as someone holds the descriptor.
  void cleanup();

  void handleSocketReadable() override;
  void handleSocketWritable() override;

  /// Writes all attributes and the additions of a derived class.
  void dumpState(std::ostream& out) const;

  /// The errno of `rxErrorReason`, 0 if it has none.
  S32 rxErrno() const noexcept { return rxErrorReason().empty() ? 0 : endError_; }
  /// The PDU in reception; while `readable()`, whole. After "PDU length too big", what arrived of that one.
  const Pkt::Ptr& rxPktHolderShadow() const noexcept { return reader_.pdu(); }
  /// Octets that the PDU in reception is known to lack.
  U16 rxRemainingLength() const noexcept { return reader_.lacks(); }
  /// The packet that was sent in part.
  const Pkt::Ptr& txPktHolderShadow() const noexcept { return writer_.pkt(); }
  /// The rest of the pieces that were sent in part; null when there is none.
  const SocketIovec* txIovHolderShadow() const noexcept {
    return writer_.pieces() ? writer_.pieces()->data() : nullptr;
  }
  /// The number of pieces left to be sent.
  U16 txIovLenHolderShadow() const noexcept {
    return writer_.pieces() ? static_cast<U16>(writer_.pieces()->size()) : U16{0};
  }
  U32 txQueued() const noexcept { return writer_.queued(); }  ///< PDUs that wait to be sent.
  /// Octets that are left of the packet or the pieces sent in part; 65535 if there are more.
  U16 txRemainingLength() const noexcept {
    return writer_.remaining() > 0xffff ? U16{0xffff} : static_cast<U16>(writer_.remaining());
  }
  /// The other end, as it was when the Pam was made; `ipunknown` if the socket had none. The port is in host
  /// order.
  const IpGenAddr& peerAddr() const noexcept { return peerAddr_; }
  /// The peer's port, host order; 0 where it is not known.
  U16 peerPort() const noexcept { return peerPort_; }

 protected:
  /// For `getPduSize()`: `header` + `length` octets, as a length field of any width says. More than 65,535
  /// end the connection with "PDU length too big", like anything above `maxPduLength`.
  U16 pduSize(std::uint64_t length, U16 header = 0) noexcept;

  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  void doGetRxPkt() override;

 private:
  using Outcome = detail::PduReader::Outcome;
  friend std::ostream& operator<<(std::ostream& out, const TcpPduPam& pam);

  // TcpPduPam.cpp: beginning and end, modes.
  void handleInitialized();
  void handleKeepaliveOptions();
  bool tcpOptionIs(int level, int option, S32 value, const char* name);
  void drop() noexcept;
  void tearDown(Change& change);
  void modeStore(Change& change, TcpPduPamEnableMode mode);
  void modeTell(Change& change);
  void pendingModeApply();
  void pendingWriteOnlyApply();
  void readNotificationSet();
  void writeNotificationSet();
  void readNotificationUpdate(bool anew = false);
  void writeNotificationUpdate(bool anew = false);

  // TcpPduPamReceive.cpp
  bool withinBudget() const noexcept { return rxBudget() == 0 || pdusOfEvent_ < rxBudget(); }
  bool readingIsOver() const noexcept { return readingOver_; }
  bool receiving() const noexcept { return reader_.pdu() && !readable() && !readingIsOver(); }
  void readableSet(bool value);
  detail::PduReader::Take howToRead() const noexcept;
  Outcome readOnce();
  Outcome readExactly();
  Outcome readNext();
  bool readPdu();
  bool sliceNext();
  void readOn();
  void readEvent();
  bool offerRest();
  void handleReadError(const Outcome& outcome);
  void endTell();
  void traceRead(const Outcome& outcome, U16 lacked) const;
  void traceSlice() const;
  void traceNotPulled();

  // TcpPduPamEnd.cpp
  struct Deadlines;
  struct DeadlinesDelete {
    void operator()(Deadlines* deadlines) const noexcept;
  };
  Deadlines& deadlines();
  Kiv::Time idleDue() const noexcept;
  Kiv::Time writeDue() const noexcept;
  Kiv::Time closeDue() const noexcept;
  void deadlinesSet() noexcept;
  void heardNow() noexcept;
  void blockedNow(bool some) noexcept;
  void unblockedNow() noexcept;
  Kiv::Time heldDue() const noexcept;
  void heldNow() noexcept;
  void handleDeadline();
  void closeSending();

  // TcpPduPamSend.cpp
  bool roomToSend() const noexcept;
  void handleTxQueueLimit();
  void writableSet(bool value);
  void sendRest();
  void follow(const detail::PduWriter::Sent& sent, const char* rest, std::size_t left);
  void enqueue(const Pkt& pkt);
  void writeCompleteAndSpaceAvailable();
  void spaceAvailable();
  void allSent();
  void handleWriteError(int error);

  detail::PduReader reader_;
  detail::PduWriter writer_;
  Pkt::Ptr pulled_;            // kept here while it is on its way, in case a reactor throws
  const char* end_ = nullptr;  // why reading is over, while nobody has been told
  S32 endError_ = 0;           // errno
  std::unique_ptr<Deadlines, DeadlinesDelete> deadlines_;
  IpGenAddr peerAddr_;
  U16 peerPort_ = 0;
  TcpPduPamEnableMode pendingMode_ = tcpEnableModeNone;
  bool inReadEvent_ = false;
  bool readAgain_ = false;  // before that is over
  bool inPull_ = false;
  bool readingOver_ = false;
  bool heard_ = false;  // octets came since the idle time began
  bool txFailed_ = false;
  bool txWaited_ = false;  // something had to wait for the socket since all was sent
  bool closing_ = false;
  bool shutDown_ = false;    // the peer was told that no more follows
  U32 modeTurn_ = 0;         // of switching modes
  U32 pdusOfEvent_ = 0;      // handed over since the last readable event
  U32 eventsNotPulled_ = 0;  // while a PDU was held
};

}  // namespace Wirl
