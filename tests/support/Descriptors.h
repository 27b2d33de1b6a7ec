// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

#include "Kiv/ActivityLoop.h"

/// The main thread's loop is there, with its descriptors, before a test counts any.
inline const Kiv::ActivityLoop& loopOfTheTests = Kiv::activityLoop();

/// Open descriptors of the process, without the one that counting takes.
inline std::size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all))) - 1;
}
