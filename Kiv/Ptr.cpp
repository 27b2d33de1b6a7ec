// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Ptr.h"

namespace Kiv {

namespace detail {
constinit bool ptrThreadSafe = false;
}  // namespace detail

void ptrThreadSafeIs(bool on) noexcept {
  detail::ptrThreadSafe = on;
}

PtrInterface::~PtrInterface() = default;

void PtrInterface::onZeroReferences() const noexcept {
  delete this;
}

}  // namespace Kiv
