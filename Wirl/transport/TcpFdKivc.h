// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/FileDescriptor.h"
#include "Kiv/Reactor.h"
#include "Wirl/transport/TcpFd.h"

namespace Wirl {

class TcpFileDescriptorEventRegistrationKivc;

/// Turns the counts of a `Kiv::FileDescriptor` into events of a registration, which owns it.
class KIV_API TcpFileDescriptorEventRegistrationKivcSm final : public Kiv::PtrInterface {
 public:
  /// Counts the events of `fileDesc` for the registration.
  TcpFileDescriptorEventRegistrationKivcSm(Kiv::FileDescriptor& fileDesc,
                                           TcpFileDescriptorEventRegistrationKivc& registration);
  ~TcpFileDescriptorEventRegistrationKivcSm() override;

  /// Reacts to writable events from now on. Most registrations never ask for one and save the reactor.
  void writableIsWatched(Kiv::FileDescriptor& fileDesc);

 private:
  TcpFileDescriptorEventRegistrationKivc& registration_;
  Kiv::Reactor onReadable_;
  Kiv::Reactor onWritable_;
};

/// A registration on the activity loop of the thread that enables it. Enabling and switching throw
/// `Kiv::ErrnoException`, with nothing changed, if the kernel refuses to watch the socket.
class KIV_API TcpFileDescriptorEventRegistrationKivc final : public TcpFileDescriptorEventRegistration {
 public:
  KIV_ENTITY(TcpFileDescriptorEventRegistrationKivc, TcpFileDescriptorEventRegistration)
  KIV_ATTR_READ(Kiv::Ptr<Kiv::FileDescriptor>, fileDesc)  // while enabled

  /// Registers for the events of a socket, in this thread's loop.
  explicit TcpFileDescriptorEventRegistrationKivc(const TcpFileDescriptor::PtrConst& fileDescriptor);
  ~TcpFileDescriptorEventRegistrationKivc() override;

  bool readableAgain() override;

  /// The state machine; null while the registration is disabled.
  const Kiv::Ptr<TcpFileDescriptorEventRegistrationKivcSm>& sm() const noexcept { return sm_; }

 protected:
  void handleEnabled() override;
  void handleNotifyOnReadable() override;
  void handleNotifyOnWritable() override;

 private:
  void attach();

  Kiv::Ptr<TcpFileDescriptorEventRegistrationKivcSm> sm_;
};

/// Makes registrations with the loop of the thread.
class KIV_API TcpFileDescriptorEventRegistrationFactoryKivc final
    : public TcpFileDescriptorEventRegistrationFactory {
 public:
  ~TcpFileDescriptorEventRegistrationFactoryKivc() override;
  Kiv::Ptr<TcpFileDescriptorEventRegistration> createEventRegistration(
      const TcpFileDescriptor::PtrConst& descriptor) override;
};

/// Makes the factory of registrations on the activity loop.
KIV_API Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>
tcpFileDescriptorEventRegistrationFactoryKivcFactory();

}  // namespace Wirl
