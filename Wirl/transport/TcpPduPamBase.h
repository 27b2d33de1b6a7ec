// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/Reactor.h"
#include "Wirl/access/Pam.h"
#include "Wirl/transport/TcpFd.h"

namespace Wirl {

class TcpPduPamBase;

/// Turns the events of a registration into calls of its Pam.
class KIV_API TcpPduFdSm final : public Kiv::PtrInterface {
 public:
  /// Counts the events of the registration for the Pam.
  TcpPduFdSm(TcpFileDescriptorEventRegistration& fd, TcpPduPamBase& pam);
  ~TcpPduFdSm() override;

  /// Reacts to writable events from now on. Most connections never ask for one and save the reactor.
  void writableIsWatched();

 private:
  TcpPduPamBase& pam_;
  Kiv::Reactor onReadable_;
  Kiv::Reactor onWritable_;
};

/// A Pam over a connected, non-blocking TCP socket, on whatever event loop the factory stands for.
///
///     loop ──> registration: readableCount ──> TcpPduFdSm ──> handleSocketReadable()
class KIV_API TcpPduPamBase : public Pam {
 public:
  KIV_ENTITY(TcpPduPamBase, Pam)
  KIV_ATTR_DERIVED(TcpFileDescriptor::PtrConst, fileDescriptor)
  KIV_ATTR_DERIVED(Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>, fdFactory)
  KIV_ATTR_DERIVED(Kiv::Ptr<TcpFileDescriptorEventRegistration>, fd)
  KIV_ATTR_DERIVED(Kiv::Ptr<TcpPduFdSm>, tcpPduFdSm)
  KIV_ATTR_READ(U32, socketReadableCount, 0)  ///< Readable events of the socket.
  KIV_ATTR_READ(U32, socketWritableCount, 0)  ///< Writable events of the socket.

  ~TcpPduPamBase() override;

  /// The socket.
  const TcpFileDescriptor::PtrConst& fileDescriptor() const noexcept { return fileDescriptor_; }
  const Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>& fdFactory() const noexcept { return fdFactory_; }
  /// The registration; null once the connection is torn down.
  const Kiv::Ptr<TcpFileDescriptorEventRegistration>& fd() const noexcept { return fd_; }
  /// The state machine that counts the events.
  const Kiv::Ptr<TcpPduFdSm>& tcpPduFdSm() const noexcept { return tcpPduFdSm_; }
  /// Whether events repeat for as long as the socket stays ready.
  bool levelTriggered() const noexcept { return !edgeTriggered(); }
  /// Whether events come once for each change.
  bool edgeTriggered() const noexcept { return fileDescriptor_->edgeTriggered(); }

  /// The socket has something to read, or may have: the registration's events.
  virtual void handleSocketReadable() = 0;
  virtual void handleSocketWritable() = 0;

 protected:
  /// For the socket, whose events a registration of the factory reports.
  TcpPduPamBase(const TcpFileDescriptor::PtrConst& descriptor,
                const Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>& factory, Kiv::String name);

  /// Replaces the registration and what reacts to it; null lets go of both.
  void fdIs(const Kiv::Ptr<TcpFileDescriptorEventRegistration>& fd);

 private:
  friend class TcpPduFdSm;

  void socketReadable();
  void socketWritable();

  const TcpFileDescriptor::PtrConst fileDescriptor_;
  const Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory_;
  Kiv::Ptr<TcpFileDescriptorEventRegistration> fd_;
  Kiv::Ptr<TcpPduFdSm> tcpPduFdSm_;
};

}  // namespace Wirl
