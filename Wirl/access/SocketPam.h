// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <exception>

#include "Kiv/FileDescriptor.h"
#include "Wirl/access/Pam.h"
#include "Wirl/access/PamFdSm.h"
#include "Wirl/access/detail/SocketDrops.h"
#include "Wirl/access/detail/closeDescriptor.h"
#include "Wirl/value/NamespaceName.h"

namespace Wirl {

/// What the Pams that own a socket share: its descriptor object and state machine, how it is opened and
/// closed, and the kernel's count of what it had no room for.
///
/// Opening and closing is done before anybody is told: reactors to `fileDesc` and `fdSm`, and to the first
/// counts, find the Pam open or closed, never in between. They may close or open it themselves. Theirs is the
/// newer turn then, and what was going on when they were told ends there.
class KIV_API SocketPam : public Pam {
 public:
  Kiv::Attr<Kiv::Ptr<Kiv::FileDescriptor>, SocketPam> fileDesc;
  Kiv::Attr<Kiv::Ptr<PamFdSm>, SocketPam> fdSm;

  ~SocketPam() override;

  /// Packets lost on receive: what the kernel counted for the sockets that this Pam has had.
  U32 rxDrops() const override;
  void rxDropsIs(U32 value) override;

 protected:
  /// `close` closes a socket: close(2), or what stands in for it.
  SocketPam(Kiv::String name, int (*close)(int)) : Pam(std::move(name)), close_(close) {}

  /// -1 without a socket.
  S32 fd() const noexcept { return fileDesc() ? fileDesc()->descriptor() : -1; }

  /// Closes the socket, if there is one, and if `on` says so has `open` open another. Where that throws there
  /// is none, and `failed` is to put on record, and tell, that the Pam is not open. What reactors throw then
  /// gives way to the failure.
  template <std::invocable Open, std::invocable Failed>
  void reopen(bool on, Open open, Failed failed) {
    const U32 turn = ++turn_;
    try {
      tell(closeSocket());
      if (on && turn == turn_) open();
    } catch (...) {
      if (turn == turn_) {
        const Closed closed = closeSocket();
        detail::doQuietly(failed);
        detail::doQuietly([&] { tell(closed); });
      }
      throw;
    }
  }

  /// For `open`: opens a raw socket, has `configure` set it up, and makes the state machine, which counts,
  /// with `newFdSm`. Nothing is watched before `configure` switches it on, so that no event precedes the
  /// first count.
  template <std::invocable Configure, std::invocable<const Kiv::Ptr<Kiv::FileDescriptor>&> NewFdSm>
  void openSocket(int domain, int protocol, const NamespaceName& ns, Configure configure, NewFdSm newFdSm) {
    const U32 turn = turn_;
    const Kiv::Ptr<Kiv::FileDescriptor> opened = newSocket(domain, protocol, ns);
    configure();
    if (turn == turn_) fileDesc.notifiees().notify();
    if (turn != turn_) return;
    const Kiv::Ptr<PamFdSm> sm = newFdSm(opened);
    if (turn == turn_) fdSm.set(sm);
  }

  /// Sets an option, or closes the socket and throws `Kiv::ErrnoException` with `text`.
  void setOption(int level, int option, const void* value, socklen_t length, const char* text);
  void setOption(int level, int option, int value, const char* text) {
    setOption(level, option, &value, sizeof(value), text);
  }
  /// The descriptor object, if there is one, stays, and reads -1. Closes `other`, too, if it is another one.
  [[noreturn]] void closeAndThrow(int error, const char* text, int other = -1);

  void fileDescIs(const Kiv::Ptr<Kiv::FileDescriptor>& made) { fileDesc.set(made); }

  /// What there was to close, and so is to be told of.
  struct Closed {
    bool fileDesc, fdSm;
    std::exception_ptr thrown;  // by a reactor to the descriptor object
  };
  /// Closes without a word to the reactors of the Pam. The destructor of a class that opens does so.
  Closed closeSocket() noexcept;

 private:
  Kiv::Ptr<Kiv::FileDescriptor> newSocket(int domain, int protocol, const NamespaceName& ns);
  void tell(const Closed& closed);
  void collectDrops() const;

  int (*const close_)(int);
  U32 turn_ = 0;  // of opening and closing
  mutable detail::SocketDrops drops_;
};

}  // namespace Wirl
