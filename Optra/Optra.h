// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Optra {

/// The state of the feature toggle `name` in the JSON file `file` (as "Wirl.json"), an object of flags such
/// as {"Ipv4Routable240ClassE": true}. The environment variable `OPTRA_DIR` names the file's directory;
/// without it that is "/etc/optra". Returns `byDefault`, with a trace of handle "Optra", when
///
/// - `file` is empty or contains a slash or a NUL,
/// - the file is absent, unreadable, not regular, larger than a mebibyte, or not JSON,
/// - the toggle is not in it, or is not true or false, or
/// - there is no memory.
///
/// If the file names the toggle twice, the last one counts. Reads the file on every call, so keep the result.
KIV_API bool getToggleState(const Kiv::String& name, const Kiv::String& file, bool byDefault) noexcept;

}  // namespace Optra
