// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

#include "Kiv/ActivityLoop.h"

/// Open descriptors of the process, without the one that counting takes; those of the thread's loop among
/// them whether or not it was there before.
inline std::size_t openDescriptors() {
  Kiv::activityLoop();
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all))) - 1;
}
