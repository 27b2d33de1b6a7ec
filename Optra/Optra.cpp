// SPDX-License-Identifier: Apache-2.0
#include "Optra/Optra.h"

namespace Optra {

bool getToggleState(const Kiv::String&, const Kiv::String&, bool byDefault) { return byDefault; }

}  // namespace Optra
