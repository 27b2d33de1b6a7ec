// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/Entity.h"
#include "Kiv/FileDescriptor.h"

namespace Kiv {

/// Counts `receivedCount` up when the process gets a signal, as an event of the loop of the thread that made
/// this object. So a reactor to it may do everything, unlike a signal handler.
///
///     auto interrupt = Kiv::makePtr<Kiv::Signal>("interrupt", SIGINT);
///     Kiv::Reactor onInterrupt(interrupt->receivedCount, [] { Kiv::activityLoop().stop(); });
///
/// The first object for a signal replaces the handler of the process, with SA_RESTART; the last one that goes
/// brings the former handler back. Several objects may wait for one signal, in any threads: each counts.
/// Signals that come close together may be counted as one change of the attribute. No thread needs a signal
/// mask for it, and a child of fork that runs exec starts without.
class KIV_API Signal : public Entity {
 public:
  KIV_ENTITY(Signal, Entity)
  KIV_ATTR_READ(S32, number, 0)
  KIV_ATTR_COUNTER(U32, receivedCount)

  /// Throws `ErrnoException` "sigaction" for what is no signal or cannot be handled (EINVAL), and where the
  /// process has 64 such objects already (EAGAIN); "eventfd" or "epoll_ctl" when the kernel refuses.
  Signal(String name, S32 number);
  ~Signal() override;

 private:
  const Ptr<FileDescriptor> event_;
  Reactor onEvent_;
  unsigned place_ = 0;
};

}  // namespace Kiv
