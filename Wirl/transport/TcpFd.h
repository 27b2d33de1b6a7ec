// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Wirl/value/AddressFamily.h"
#include "Wirl/value/NamespaceName.h"

namespace Wirl {

using Kiv::S32;
using Kiv::U16;
using Kiv::U32;

/// One TCP socket, and how its readiness is reported. Immutable and shared: the socket closes when the last
/// pointer is dropped, whatever happens to those that watch it.
class KIV_API TcpFileDescriptor : public Kiv::PtrInterface {
 public:
  using PtrConst = Kiv::Ptr<const TcpFileDescriptor>;

  /// Owns `descriptor` from here on; -1 means none.
  TcpFileDescriptor(int descriptor, bool edgeTriggered) noexcept
      : descriptor_(descriptor), edgeTriggered_(edgeTriggered) {}
  ~TcpFileDescriptor() override;

  S32 descriptor() const noexcept { return descriptor_; }  ///< The socket, or -1.
  /// Whether readiness is reported once for each change (new data, new room) instead of for as long as it
  /// lasts.
  bool edgeTriggered() const noexcept { return edgeTriggered_; }

  /// Opens a stream socket of the family in the namespace, non-blocking and close-on-exec. Null with errno
  /// set when the kernel refuses. A family other than `ipv4` and `ipv6` ends the process.
  static PtrConst socket(AddressFamily af, const NamespaceName& ns, bool edgeTriggered);
  /// The next connection that waits at the listening socket `serverFd`, non-blocking and close-on-exec. Null
  /// with errno set when there is none (EAGAIN) or the kernel refuses. Family and namespace, those of the
  /// listening socket, are for the trace.
  static PtrConst socketAccept(const PtrConst& serverFd, AddressFamily af, const NamespaceName& ns,
                               bool edgeTriggered);

 private:
  const S32 descriptor_;
  const bool edgeTriggered_;
};

/// Watches one TCP socket for its owner, on any event loop: the interface between endpoints and loops. While
/// `notifyOnReadable` is on, each readable event increments `readableCount`; the same holds for
/// `notifyOnWritable` and `writableCount`. Owners react to the counts.
///
/// Disabled when new. Enabling attaches it to its loop, disabling detaches it; neither touches the socket.
/// While it is disabled, or a switch is off, no events are counted.
///
/// To put it on another loop, as `TcpFileDescriptorEventRegistrationKivc` does on the activity loop:
///
/// - Implement the three `handle...` reactors; call `handleReadable()` and `handleWritable()` for events.
/// - Errors, hang-ups and the end of the stream count as readable and as writable.
/// - With `TcpFileDescriptor::edgeTriggered`, switching a notification on re-arms it: a socket that is ready
///   then is reported as if it had just become so.
/// - Owners may do anything when they are told of a count, even drop the last pointer to the registration:
///   touch nothing afterwards.
/// - Call `handleDel()` in the destructor.
class KIV_API TcpFileDescriptorEventRegistration : public Kiv::Entity {
 public:
  KIV_ENTITY(TcpFileDescriptorEventRegistration, Kiv::Entity)
  KIV_ATTR_DERIVED(TcpFileDescriptor::PtrConst, fileDescriptor)
  KIV_ATTR_HOOK(bool, enabled, false, handleEnabled)  ///< Whether events are counted.
  KIV_ATTR_HOOK(bool, notifyOnReadable, false, handleNotifyOnReadable)
  KIV_ATTR_HOOK(bool, notifyOnWritable, false, handleNotifyOnWritable)
  KIV_ATTR_COUNTER(U32, readableCount)
  KIV_ATTR_COUNTER(U32, writableCount)

  /// Registers for the events of a socket.
  explicit TcpFileDescriptorEventRegistration(const TcpFileDescriptor::PtrConst& fileDescriptor);
  ~TcpFileDescriptorEventRegistration() override;

  /// The socket that is watched.
  const TcpFileDescriptor::PtrConst& fileDescriptor() const noexcept { return fileDescriptor_; }

  /// Count one event. An event while disabled, or one that was not asked for, ends the process.
  void handleReadable();
  void handleWritable();
  /// Disables the registration.
  void handleDel() { enabledIs(false); }

  /// Counts one readable event in the loop's next pass, whatever the kernel says, if `notifyOnReadable` is
  /// still on then. For owners that stop before they have read everything. False if the loop cannot do that,
  /// as here.
  virtual bool readableAgain() { return false; }

 protected:
  virtual void handleEnabled() = 0;
  virtual void handleNotifyOnReadable() = 0;
  virtual void handleNotifyOnWritable() = 0;

 private:
  const TcpFileDescriptor::PtrConst fileDescriptor_;
};

/// "descriptor=7;enabled=1;read=1;write=0".
KIV_API std::ostream& operator<<(std::ostream& out, const TcpFileDescriptorEventRegistration& registration);

/// Makes the registrations of one event loop.
class KIV_API TcpFileDescriptorEventRegistrationFactory : public Kiv::PtrInterface {
 public:
  ~TcpFileDescriptorEventRegistrationFactory() override;
  /// A new registration, disabled.
  virtual Kiv::Ptr<TcpFileDescriptorEventRegistration> createEventRegistration(
      const TcpFileDescriptor::PtrConst& descriptor) = 0;
};

}  // namespace Wirl
