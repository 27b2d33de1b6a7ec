// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "Wirl/access/Pam.h"

namespace Wirl::detail {

class PamsOfThread {
 public:
  /// Shows the Pams of the calling thread, the newest first. `visitor` only reads: it neither makes nor
  /// destroys Pams.
  static void visit(const std::function<void(const Pam&)>& visitor);
};

}  // namespace Wirl::detail
