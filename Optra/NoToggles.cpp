// SPDX-License-Identifier: Apache-2.0
// In place of Optra.cpp where the library is built without toggle files: every toggle has its default.
#include "Kiv/Trace.h"
#include "Optra/Optra.h"

namespace Optra {

namespace {
Kiv::TraceHandle trace("Optra");
}  // namespace

bool getToggleState(const Kiv::String& name, const Kiv::String& file, bool byDefault) noexcept {
  KIV_TRACE(trace, 3) << "toggle " << name << " in " << file
                      << ": built without toggle files, using the default " << (byDefault ? "on" : "off");
  return byDefault;
}

}  // namespace Optra
