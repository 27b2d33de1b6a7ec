// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>

#include "Kiv/Types.h"

namespace Wirl {

/// Counters of the deferred closer, for the whole process; they wrap at 2^32. Each may be read from any
/// thread at any time; `enqueued` - `closed` is the number of descriptors that wait.
struct DeferCloseStats {
  /// Descriptors ever handed to the closer thread.
  std::atomic<Kiv::U32> enqueued{0};
  /// Descriptors ever closed by the closer thread.
  std::atomic<Kiv::U32> closed{0};
  /// Descriptors closed by the caller, because 512 were waiting already (or no thread could be started).
  std::atomic<Kiv::U32> closedInline{0};
};
static_assert(sizeof(DeferCloseStats) == 3 * sizeof(Kiv::U32));

/// Closes `fd` on a thread of its own, for descriptors whose close takes time that an activity loop does not
/// have (that of a packet socket waits until the kernel's receive path has let go of it). Takes over the
/// descriptor in any case. Returns 0; when so many descriptors are waiting that this one is closed at once,
/// the result of close(2). To be called from one thread of the process only.
KIV_API int deferClose(int fd);

/// Never null; lives as long as the process.
KIV_API const DeferCloseStats* deferCloseStats() noexcept;

}  // namespace Wirl
