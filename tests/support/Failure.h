// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>

#include "Kiv/Exception.h"

/// The message of the `Kiv::Exception` that `action` throws, for a failed call with its errno; empty for
/// none.
inline std::string failureOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const Kiv::ErrnoException& failure) {
    return failure.message() + " " + std::to_string(failure.error());
  } catch (const Kiv::Exception& failure) {
    return failure.message();
  }
  return "";
}
