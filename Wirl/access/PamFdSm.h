// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/FileDescriptor.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reactor.h"
#include "Wirl/access/Pam.h"

namespace Wirl {

/// Ties a descriptor to a Pam: each readable event counts the Pam's `readableCount` up by one, each writable
/// one its `writableCount`. Being made counts both up once, in that order.
///
/// The Pam owns its state machine and is not owned by it. The state machine may be dropped from anything that
/// its counting sets off.
class KIV_API PamFdSm : public Kiv::PtrInterface {
 public:
  ~PamFdSm() override;

  Pam* pam() const noexcept { return pam_; }
  /// Lets go of the descriptor, which is no longer reacted to, and returns it; null if there was none.
  Kiv::Ptr<Kiv::FileDescriptor> fileDescDel();
  /// Whether events of the descriptor are reacted to.
  bool hasNotificationActive() const noexcept { return active_; }
  void hasNotificationActiveIs(bool active);

 protected:
  PamFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam);

  bool hasFileDesc() const noexcept { return fileDesc_ != nullptr; }
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

/// Makes a state machine for `fd` (null: none to react to) and `pam`, and activates it.
KIV_API Kiv::Ptr<PamFdSm> PamFdSmIs(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam);

/// Reports one writable event for each time that the descriptor's writable notification is switched on: the
/// event switches it off again before it is counted. Arming it again is up to the Pam.
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

/// The same for a `ReqResponseRawTxPam`, through which the descriptor is reached; another Pam ends the process.
KIV_API Kiv::Ptr<ReqResponsePamFdSm> ReqResponsePamFdSmIs(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam);

}  // namespace Wirl
