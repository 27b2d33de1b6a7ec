// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/PamFdSm.h"

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"

namespace Wirl {

namespace {

Kiv::TraceHandle reqResponseTrace("ReqResponsePamFdSm");

}  // namespace

PamFdSm::PamFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam) : fileDesc_(fd), pam_(pam) {
  // Keep the Pam alive: a reactor to the first count may drop it.
  const auto alive = Kiv::keepAlive(pam_);
  pam_->listed_.move();  // it now belongs to the thread whose loop watches the descriptor
  pam_->readableCountInc(1);
  pam_->writableCountInc(1);
}

PamFdSm::~PamFdSm() = default;

Kiv::Ptr<Kiv::FileDescriptor> PamFdSm::fileDescDel() {
  onReadable_.drop();
  onWritable_.drop();
  return std::exchange(fileDesc_, nullptr);
}

void PamFdSm::hasNotificationActiveIs(bool active) {
  if (active == active_) return;
  if (!active) {
    onReadable_.drop();
    onWritable_.drop();
  } else if (fileDesc_) {
    Kiv::Reactor readable(fileDesc_->readableCount, [this] { handleReadable(); });
    onWritable_ = Kiv::Reactor(fileDesc_->writableCount, [this] { handleWritable(); });
    onReadable_ = std::move(readable);
  }
  active_ = active;
}

void PamFdSm::handleReadable() {
  pam_->readableEvent();
}

void PamFdSm::handleWritable() {
  pam_->writableCountInc(1);
}

Kiv::Ptr<PamFdSm> PamFdSmIs(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam) {
  Kiv::Ptr<PamFdSm> sm(new PamFdSm(fd, pam));
  sm->hasNotificationActiveIs(true);
  return sm;
}

ReqResponsePamFdSm::~ReqResponsePamFdSm() = default;

void ReqResponsePamFdSm::handleWritable() {
  KIV_TRACE(reqResponseTrace, 0) << "ReqResponsePamFdSm::handleWritable";
  // A reactor to the switch may close the Pam, which detaches this object, or drop both.
  const auto alive = Kiv::keepAlive(this);
  const auto pamAlive = Kiv::keepAlive(pam());
  const Kiv::Ptr<Kiv::FileDescriptor> fd = fileDesc();
  if (fd) fd->notifyOnWritableIs(false);
  if (fileDesc()) PamFdSm::handleWritable();
}

}  // namespace Wirl
