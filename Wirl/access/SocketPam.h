// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <ostream>
#include <string_view>
#include <vector>

#include "Kiv/FileDescriptor.h"
#include "Wirl/access/Pam.h"
#include "Wirl/access/PamFdSm.h"
#include "Wirl/value/NamespaceName.h"

namespace Kiv {
class TraceHandle;
}

namespace Wirl {

namespace detail {
class RxBatch;
class TxMessage;
class TxBatch;
class TxSource;
struct Received;
struct SocketOption;
}  // namespace detail

using Kiv::U64;

/// Which receive times a socket asks the kernel for.
enum class RxTimestamps : U8 {
  off,
  /// When the kernel got the packet from the device.
  kernel,
  /// Also when the device got it, by the device's clock, if the device was told to keep these times
  /// (SIOCSHWTSTAMP).
  hardware
};
KIV_API std::ostream& operator<<(std::ostream& out, RxTimestamps which);

/// When a packet was received, in nanoseconds; 0 if not known.
struct RxTimes {
  U64 kernel = 0;    ///< Since 1970.
  U64 hardware = 0;  ///< Of the device's clock.

  friend bool operator==(const RxTimes&, const RxTimes&) = default;
};
KIV_API std::ostream& operator<<(std::ostream& out, const RxTimes& times);

/// Base of all Pams that own a socket: opens and closes it, tells reactors, counts, and names itself in
/// errors.
///
///     reopen(on, kind, ns)    closes ──> forget()          receive(got, room) ──> receiveFailed()
///                             opens ───> setUp()           send(message) ───────> lossOf()
///                                   ───> newFdSm()
///
/// A derived class calls `reopen` with what to open, sets the socket up in `setUp`, overrides `doGetRxPkt`
/// and `txPktIsImpl` with the help of `receive` and `send`, and calls `closeSocket` in its destructor.
///
/// Reactors find the Pam open or closed, never in between. They may open or close it again: the newest call
/// wins, and the outer one returns without doing more.
///
/// Options of every socket, unset by default; they apply to each socket that the Pam opens and at once to an
/// open one. If the kernel refuses a value then, the setter throws `Kiv::ErrnoException` with the option in
/// its message, and neither the socket nor the attribute changes.
///
///     rxBufBytes, txBufBytes   room for packets, as SO_RCVBUF and SO_SNDBUF count it, past the system's
///                              limit where that is permitted (ENOBUFS if not); 0: what the socket has
///     rxTimestamps             `rxTimes` tells when the last packet was received
///
/// `txFailures` counts every send that failed, those included that count nowhere else.
class KIV_API SocketPam : public Pam {
 public:
  KIV_ENTITY(SocketPam, Pam)
  KIV_ATTR_RARE_READ(U32, rxBufBytes, U32{0})
  KIV_ATTR_RARE_READ(U32, txBufBytes, U32{0})
  KIV_ATTR_RARE_READ(RxTimestamps, rxTimestamps, RxTimestamps::off)
  KIV_ATTR_READ(RxTimes, rxTimes)  ///< When the last packet was received.
  KIV_ATTR_COUNTER(U32, txFailures)
  Kiv::Attr<Kiv::Ptr<Kiv::FileDescriptor>, SocketPam> fileDesc;  ///< The open descriptor; null: closed.
  /// The state machine that counts its events; null: closed.
  Kiv::Attr<Kiv::Ptr<PamFdSm>, SocketPam> fdSm;

  ~SocketPam() override;

  void rxBufBytesIs(U32 octets);
  void txBufBytesIs(U32 octets);
  void rxTimestampsIs(RxTimestamps which);

  /// Packets lost on receive: the kernel's count, over all sockets that this Pam has had.
  U32 rxDrops() const override;
  void rxDropsIs(U32 value) override;

 protected:
  /// As for socket(2).
  struct Kind {
    int domain, type, protocol;  ///< The arguments of socket(2).
  };
  /// How a failed send counts.
  enum class Loss {
    uncounted,
    drop,
    error,
    sent  ///< Counts as sent: the error is about an earlier packet.
  };

  /// `close` closes a socket: close(2) or `deferClose`.
  explicit SocketPam(Kiv::String name, int (*close)(int) = ::close);

  // For derived classes to define ---------------------------------------------------------------------------

  /// Opens the descriptor. Returns it, or a negative number with errno and the `step` that failed. Here: a
  /// socket in the namespace.
  virtual int openDescriptor(const Kind& kind, const NamespaceName& ns, const char*& step);
  /// Sets up the new socket `fd()`: options, bind(2), attributes that depend on the socket. Nothing is
  /// watched yet, and reactors are told afterwards, of `changes` as well. May throw. Here: the options that
  /// attributes ask for (`applySocketOptions`).
  virtual void setUp(Change& changes);
  /// Whether the socket is watched for packets.
  virtual bool receives() const { return true; }
  /// Makes the state machine, which counts; null for none.
  virtual Kiv::Ptr<PamFdSm> newFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& fd);
  /// Resets what the class knows of the socket that is being closed.
  virtual void forget(Change& changes) noexcept;
  /// Stores that the Pam is not open, because opening or closing failed, and has `changes` tell it.
  virtual void openFailed(Change& changes) noexcept;
  /// What the socket is bound to, for `what()` of errors: a device, an address and port.
  virtual Kiv::String place() const { return name(); }
  /// Here: EAGAIN is a drop, everything else an error.
  virtual Loss lossOf(int error) const;
  /// Counts and traces a receive that failed with `error`, or without memory for a packet (0). `batch`:
  /// whether it was recvmmsg(2). Here: EAGAIN, which says only that the socket is empty, leaves no mark.
  virtual void receiveFailed(bool batch, int error);
  /// Packets that the kernel lost since it was asked last. Here: those for which the socket had no room.
  virtual U32 newDrops() const;
  /// For traces.
  virtual const Kiv::TraceHandle& traceHandle() const;
  virtual Kiv::String who() const { return name(); }

  // For derived classes to use ------------------------------------------------------------------------------

  /// The open socket, or -1.
  S32 fd() const noexcept { return fileDesc() ? fileDesc()->descriptor() : -1; }
  /// Its domain, whatever attributes say by now.
  int domain() const noexcept { return domain_; }

  /// Closes the socket, if there is one, and opens another one if `on`. If that throws, there is no socket.
  /// Exceptions of reactors that are told of a failure are dropped in favour of the original error.
  void reopen(bool on, const Kind& kind, const NamespaceName& ns);
  /// The setter of an attribute `enabled`.
  template <typename Enabled>
  void enabledIsWith(Enabled& enabled, bool on, const Kind& kind, const NamespaceName& ns) {
    if (!storeAttr(enabled, on)) return;
    Kiv::detail::hookAndNotify(this, enabled.notifiees(), [&] { reopen(on, kind, ns); });
  }

  /// Throws `Kiv::ErrnoException` with the message `text`; `what()` adds name, namespace and place.
  [[noreturn]] void fail(int error, const char* text) const;
  /// The same, but closes the socket first: its descriptor object, if there is one, stays and reads -1. Also
  /// closes `other`, if that is another descriptor. `complaint` is for the trace.
  [[noreturn]] void closeAndFail(int error, const char* text, const char* complaint = nullptr,
                                 int other = -1);
  /// Sets an option; if the kernel refuses, closes the socket and throws (`closeAndFail`).
  void setOption(int level, int option, const void* value, socklen_t length, const char* text,
                 const char* complaint = nullptr);
  void setOption(int level, int option, int value, const char* text, const char* complaint = nullptr) {
    setOption(level, option, &value, sizeof(value), text, complaint);
  }

  /// The same for an option of the table; without a complaint.
  void setOption(const detail::SocketOption& option, int value);
  void setOption(const detail::SocketOption& option, std::string_view value);
  /// Sets the options that attributes of this class ask for. A derived class adds its own, and calls this in
  /// `setUp`, before bind(2).
  virtual void applySocketOptions();
  /// The setter of an attribute that is an option of the table, with the value that the kernel is to get.
  template <typename AnyAttr, typename Value, typename KernelValue>
  void optionIs(AnyAttr& attr, const Value& value, const detail::SocketOption& option, KernelValue asked) {
    const auto former = attr();
    if (!storeAttr(attr, value)) return;
    if (const int error = optionWhileOpen(option, asked); error != 0) {
      storeAttr(attr, former);
      failOption(error, option);
    }
    attr.notifiees().notify();
  }

  /// Receives one packet of at most `room` octets. False if there is none, if the event's budget is spent, or
  /// if the slot still holds a packet.
  bool receive(detail::Received& got, U32 room);
  /// Puts the packet into the slot, then tells the changes. If a reactor throws, the next pull gets the
  /// packet.
  void deliver(Pkt::Ptr pkt, Change& changes);
  /// Receives up to `limit` packets into `savedPacket` and returns how many.
  S32 receiveBatch(U16 limit, U32 room);
  /// The same into packets of the caller's, without a budget.
  S32 receiveInto(std::vector<Pkt::Ptr>& slots, U16 limit, U32 room);
  /// What the kernel told about the latest batch; null before the first.
  const detail::RxBatch* batch() const noexcept { return batch_.get(); }
  /// What the kernel told about slot `index` of the latest batch; null for a slot without a packet.
  const detail::RxBatch* batchWith(U16 index) const noexcept;

  /// Sends one message and returns 0, or counts the loss and returns the errno.
  int send(const detail::TxMessage& message, int flags = 0);
  /// The same, for the caller to tell of what changes.
  int send(const detail::TxMessage& message, int flags, Change& changes);
  /// Sends `count` packets of `source` with few system calls. Returns how many it took: all, unless the
  /// socket had no room (EAGAIN) or there was no memory (ENOMEM), which `txErrno` shows; the rest is counted
  /// nowhere. A packet that is refused for another reason is lost and counted, and the next ones are sent.
  /// Adds those sent to `sent`.
  U32 sendBatch(detail::TxSource& source, U32 count, int flags, U64& sent, Change& changes);
  /// Counts an error for a packet that is refused before any system call.
  void refuse(int error);
  /// Counts packets whose send failed.
  void lost(int error, Loss loss, U32 packets, Change& changes);

  /// Has an event come in the loop's next pass, for what is left.
  void offerRest() noexcept;

  void fileDescIs(const Kiv::Ptr<Kiv::FileDescriptor>& made) { fileDesc.set(made); }
  /// Closes and tells nobody: for destructors of classes that open.
  void closeSocket() noexcept;

 private:
  void openSocket(const Change& turn, const Kind& kind, const NamespaceName& ns);
  Kiv::Ptr<Kiv::FileDescriptor> newSocket(const Kind& kind, const NamespaceName& ns);
  void closeSocket(Change& changes) noexcept;
  void closeDescriptor(const Kiv::Ptr<Kiv::FileDescriptor>& closing, Change& changes) noexcept;
  void collectDrops() const;
  /// Sets an option of the open socket, if there is one; 0 or the errno.
  int optionWhileOpen(const detail::SocketOption& option, int value) const;
  int optionWhileOpen(const detail::SocketOption& option, std::string_view value) const;
  [[noreturn]] void failOption(int error, const detail::SocketOption& option) const;

  int (*const close_)(int);
  U32 turn_ = 0;        // of opening and closing
  bool shown_ = false;  // whether reactors know of the present socket
  int domain_ = 0;
  NamespaceName ns_;
  mutable U32 dropsSeen_ = 0;  // of the present socket
  Pkt::Ptr spare_;             // for the next receive, if nobody else holds it then
  std::unique_ptr<detail::RxBatch> batch_;
  std::unique_ptr<detail::TxBatch> txBatch_;
};

}  // namespace Wirl
