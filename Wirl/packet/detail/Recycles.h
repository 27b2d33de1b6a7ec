// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace Wirl::detail {

/// Whether released packets and buffers are kept for the next ones. Not under AddressSanitizer: it sees the
/// use of released memory only if that goes back to the heap at once.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kRecycles = false;
#elif defined(__has_feature)
inline constexpr bool kRecycles = !__has_feature(address_sanitizer);
#else
inline constexpr bool kRecycles = true;
#endif

}  // namespace Wirl::detail
