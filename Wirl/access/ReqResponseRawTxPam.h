// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/RawTxPam.h"

namespace Wirl {

/// A `RawTxPam` whose clients ask when they may send: after `requestWritable`, `writableCount` goes up once
/// as soon as the socket has room. A client that lost a packet to a full socket (`txDrops`) asks, and sends
/// again in its reactor to `writableCount`.
class KIV_API ReqResponseRawTxPam final : public RawTxPam {
 public:
  ReqResponseRawTxPam(Kiv::String name, const NamespaceName& ns) : RawTxPam(std::move(name), ns) {}
  ~ReqResponseRawTxPam() override;

  /// Asks for one writable event; asking twice gives one. Does nothing while disabled: enabling counts
  /// `writableCount` up anyway.
  void requestWritable();

 protected:
  Kiv::Ptr<PamFdSm> newFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& fd) override;
};

KIV_API Kiv::Ptr<ReqResponseRawTxPam> reqResponseRawTxPamFactory(Kiv::String name,
                                                                 const NamespaceName& netNs);

}  // namespace Wirl
