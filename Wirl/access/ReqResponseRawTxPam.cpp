// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/ReqResponseRawTxPam.h"

#include "Kiv/Assert.h"

namespace Wirl {

ReqResponseRawTxPam::~ReqResponseRawTxPam() = default;

Kiv::Ptr<PamFdSm> ReqResponseRawTxPam::newFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& opened) {
  return ReqResponsePamFdSmIs(opened, this);
}

void ReqResponseRawTxPam::requestWritable() {
  if (fd() >= 0) fileDesc()->notifyOnWritableIs(true);
}

Kiv::Ptr<ReqResponsePamFdSm> ReqResponsePamFdSmIs(const Kiv::Ptr<Kiv::FileDescriptor>& fd, Pam* pam) {
  KIV_ASSERT_AS(dynamic_cast<ReqResponseRawTxPam*>(pam), "dynamic_cast<ReqResponseRawTxPam*>(pam)",
                pam->name());
  Kiv::Ptr<ReqResponsePamFdSm> sm(new ReqResponsePamFdSm(fd, pam));
  sm->hasNotificationActiveIs(true);
  return sm;
}

Kiv::Ptr<ReqResponseRawTxPam> reqResponseRawTxPamFactory(Kiv::String name, const NamespaceName& netNs) {
  return Kiv::makePtr<ReqResponseRawTxPam>(std::move(name), netNs);
}

}  // namespace Wirl
