// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/FileDescriptor.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reactor.h"
#include "Wirl/access/Pam.h"

namespace Wirl {

/// Ties a descriptor to a Pam: each readable event counts the Pam's `readableCount` up by one, each writable
/// event its `writableCount`. The constructor counts both up once, in that order.
///
/// The Pam owns its state machine; the state machine does not own the Pam. Anything that a count sets off may
/// drop the state machine.
class KIV_API PamFdSm : public Kiv::PtrInterface {
 public:
  ~PamFdSm() override;

  Pam* pam() const noexcept { return pam_; }  ///< The Pam that it counts for.
  /// Stops reacting to the descriptor and returns it; null if there was none.
  Kiv::Ptr<Kiv::FileDescriptor> fileDescDel();
  /// Whether this object reacts to events of the descriptor.
  bool hasNotificationActive() const noexcept { return active_; }
  void hasNotificationActiveIs(bool active);

 protected:
  /// Watches `fd` for `pam`; null: nothing to watch.
  PamFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam);

  /// What it watches; null once it was taken.
  const Kiv::Ptr<Kiv::FileDescriptor>& fileDesc() const noexcept { return fileDesc_; }
  virtual void handleReadable();
  virtual void handleWritable();

 private:
  friend KIV_API Kiv::Ptr<PamFdSm> PamFdSmIs(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam);

  Kiv::Ptr<Kiv::FileDescriptor> fileDesc_;
  Kiv::Reactor onReadable_;
  Kiv::Reactor onWritable_;
  Pam* const pam_;
  bool active_ = false;
};

/// Makes a state machine for `fd` (null: nothing to react to) and `pam`, and activates it.
KIV_API Kiv::Ptr<PamFdSm> PamFdSmIs(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam);

/// Counts one writable event for each time that the descriptor's writable notification is switched on: the
/// event switches the notification off before it counts. The Pam arms it again.
class KIV_API ReqResponsePamFdSm final : public PamFdSm {
 public:
  ~ReqResponsePamFdSm() override;

 protected:
  void handleWritable() override;

 private:
  using PamFdSm::PamFdSm;
  friend KIV_API Kiv::Ptr<ReqResponsePamFdSm> ReqResponsePamFdSmIs(const Kiv::Ptr<Kiv::FileDescriptor>& fd,
                                                                   Pam* pam);
};

/// The same for a `ReqResponseRawTxPam`. A Pam of another class ends the process.
KIV_API Kiv::Ptr<ReqResponsePamFdSm> ReqResponsePamFdSmIs(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam);

}  // namespace Wirl
