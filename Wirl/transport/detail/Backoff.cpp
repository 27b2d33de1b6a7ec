// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/detail/Backoff.h"

#include <chrono>
#include <random>

namespace Wirl::detail {

Kiv::Time jittered(Kiv::Time delay, Kiv::U8 percent) noexcept {
  // Processes that start together differ in where their memory lies, if not in the time.
  static thread_local std::minstd_rand random(static_cast<std::minstd_rand::result_type>(
      reinterpret_cast<std::uintptr_t>(&random) ^
      static_cast<std::uintptr_t>(std::chrono::steady_clock::now().time_since_epoch().count())));
  const double part = static_cast<double>(random()) / static_cast<double>(std::minstd_rand::max());
  const double most = static_cast<double>(delay.count()) * std::min<Kiv::U8>(percent, 100) / 100;
  return delay - Kiv::Time(static_cast<Kiv::Time::rep>(most * part));
}

}  // namespace Wirl::detail
