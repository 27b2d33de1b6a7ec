// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Optra {

/// The state of the feature toggle `name` in the JSON file `file` (as "Wirl.json"), an object of flags. The
/// file is looked for in the directory that the environment variable `OPTRA_DIR` names, by default
/// "/etc/optra". An absent or broken file, or a toggle that is not in it or is no flag, gives `byDefault`,
/// with a trace.
KIV_API bool getToggleState(const Kiv::String& name, const Kiv::String& file, bool byDefault);

}  // namespace Optra
