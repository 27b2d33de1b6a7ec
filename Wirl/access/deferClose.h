// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>

#include "Kiv/Types.h"

namespace Wirl {

/// Counters of the deferred closer, for the whole process. They wrap at 2^32 and may be read from any thread
/// at any time. `enqueued` - `closed` descriptors are waiting.
struct DeferCloseStats {
  /// Descriptors ever handed to the closer thread.
  std::atomic<Kiv::U32> enqueued{0};
  /// Descriptors ever closed by the closer thread.
  std::atomic<Kiv::U32> closed{0};
  /// Descriptors closed by the caller because 512 were waiting or the thread could not be started.
  std::atomic<Kiv::U32> closedInline{0};
};
static_assert(sizeof(DeferCloseStats) == 3 * sizeof(Kiv::U32));

/// Closes `fd` on a thread of its own, for descriptors whose close takes longer than an activity loop can
/// wait: closing a packet socket waits until the kernel's receive path has let go of it. Takes over the
/// descriptor in any case. Returns 0; if 512 descriptors are waiting, closes this one at once and returns the
/// result of close(2). May be called from any number of threads.
KIV_API int deferClose(int fd);

/// Never null; lives as long as the process.
KIV_API const DeferCloseStats* deferCloseStats() noexcept;

}  // namespace Wirl
