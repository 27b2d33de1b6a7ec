// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Optra {

/// The state of the feature toggle `name` in the JSON file `file` (as "Wirl.json"), an object of flags as in
/// {"Ipv4Routable240ClassE": true}. The file is looked for in the directory that the environment variable
/// `OPTRA_DIR` names, by default "/etc/optra"; a file name with a slash in it is refused. A file that is
/// absent, broken, no regular file or larger than a mebibyte, or a toggle that is not in it or is no flag,
/// gives `byDefault`, with a trace of handle "Optra". Reads the file on every call: callers keep what they
/// got.
KIV_API bool getToggleState(const Kiv::String& name, const Kiv::String& file, bool byDefault);

}  // namespace Optra
