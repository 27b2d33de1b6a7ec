// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <memory>

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
struct Received;
}  // namespace detail

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
class KIV_API SocketPam : public Pam {
 public:
  Kiv::Attr<Kiv::Ptr<Kiv::FileDescriptor>, SocketPam> fileDesc;
  Kiv::Attr<Kiv::Ptr<PamFdSm>, SocketPam> fdSm;

  ~SocketPam() override;

  /// Packets lost on receive: the kernel's count, over all sockets that this Pam has had.
  U32 rxDrops() const override;
  void rxDropsIs(U32 value) override;

 protected:
  /// As for socket(2).
  struct Kind {
    int domain, type, protocol;
  };
  /// How a failed send counts.
  enum class Loss { uncounted, drop, error };

  /// `close` closes a socket: close(2) or `deferClose`.
  explicit SocketPam(Kiv::String name, int (*close)(int) = ::close);

  // For derived classes to define ---------------------------------------------------------------------------

  /// Sets up the new socket `fd()`: options, bind(2), attributes that depend on the socket. Nothing is
  /// watched yet, and reactors are told afterwards, of `changes` as well. May throw.
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

  /// Receives one packet of at most `room` octets. False if there is none, if the event's budget is spent, or
  /// if the slot still holds a packet.
  bool receive(detail::Received& got, U32 room);
  /// Puts the packet into the slot, then tells the changes. If a reactor throws, the next pull gets the
  /// packet.
  void deliver(Pkt::Ptr pkt, Change& changes);
  /// Receives up to `limit` packets into `savedPacket` and returns how many.
  S32 receiveBatch(U16 limit, U32 room);
  /// What the kernel told about slot `index` of the latest batch; null for a slot without a packet.
  const detail::RxBatch* batchWith(U16 index) const noexcept;

  /// Sends one message and returns 0, or counts the loss and returns the errno.
  int send(const detail::TxMessage& message, int flags = 0);
  /// Counts an error for a packet that is refused before any system call.
  void refuse(int error);

  void fileDescIs(const Kiv::Ptr<Kiv::FileDescriptor>& made) { fileDesc.set(made); }
  /// Closes and tells nobody: for destructors of classes that open.
  void closeSocket() noexcept;

 private:
  void openSocket(const Change& turn, const Kind& kind, const NamespaceName& ns);
  Kiv::Ptr<Kiv::FileDescriptor> newSocket(const Kind& kind, const NamespaceName& ns);
  void closeSocket(Change& changes) noexcept;
  void closeDescriptor(const Kiv::Ptr<Kiv::FileDescriptor>& closing, Change& changes) noexcept;
  void offerRest() noexcept;
  void lost(int error, Loss loss);
  void collectDrops() const;

  int (*const close_)(int);
  U32 turn_ = 0;        // of opening and closing
  bool shown_ = false;  // whether reactors know of the present socket
  int domain_ = 0;
  NamespaceName ns_;
  mutable U32 dropsSeen_ = 0;  // of the present socket
  Pkt::Ptr spare_;             // for the next receive, if nobody else holds it then
  std::unique_ptr<detail::RxBatch> batch_;
};

}  // namespace Wirl
