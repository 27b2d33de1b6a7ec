// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/PamFdSm.h"

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Wirl/access/ReqResponseRawTxPam.h"

namespace Wirl {

namespace {

Kiv::TraceHandle reqResponseTrace("ReqResponsePamFdSm");

}  // namespace

PamFdSm::PamFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam) : fileDesc_(fd), pam_(pam) {
  const Kiv::Ptr<Pam> alive(pam_->references() > 0 ? pam_ : nullptr);  // whatever the first count sets off
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
  pam_->readableCountInc(1);
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
  // Reactors to the switch may close or drop the Pam, and this with it.
  const Kiv::Ptr<ReqResponsePamFdSm> alive(this);
  const Kiv::Ptr<Pam> pamAlive(pam()->references() > 0 ? pam() : nullptr);
  const Kiv::Ptr<Kiv::FileDescriptor> fd = static_cast<ReqResponseRawTxPam*>(pam())->fileDesc();
  if (fd) fd->notifyOnWritableIs(false);
  if (hasFileDesc()) PamFdSm::handleWritable();
}

Kiv::Ptr<ReqResponsePamFdSm> ReqResponsePamFdSmIs(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam) {
  KIV_ASSERT_AS(dynamic_cast<ReqResponseRawTxPam*>(pam), "dynamic_cast<ReqResponseRawTxPam*>(pam)");
  Kiv::Ptr<ReqResponsePamFdSm> sm(new ReqResponsePamFdSm(fd, pam));
  sm->hasNotificationActiveIs(true);
  return sm;
}

}  // namespace Wirl
