// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/Types.h"

/// Named network namespaces of the kernel: those that stand under /run/netns, where `ip netns` keeps them.
///
/// The kernel gives each thread a network namespace of its own choice, and a socket belongs for good to the
/// one that its maker was in. So a socket in another namespace is opened by going there and coming back:
///
///     open the named, open own --> [signals held back: setns there, socket, setns own] --> close both
///
/// The invariant: a call that opens a socket ends in the namespace where it began, or the process ends. The
/// call tests the permission to come back before it leaves, so a lack of it is an ordinary error. No signal
/// handler runs in the other namespace, and no cancellation acts there.
///
/// A name is one component below /run/netns. The empty name, null and "default" stand for the namespace that
/// the calling thread was in before `netnsEnter` first moved it. Namespaces may come and go at any time. A
/// name without a namespace gives ENOENT, or EINVAL if only the file of a deleted one remains. Descriptors
/// and sockets keep their namespace alive.
///
/// Every function may be called from any thread, holds no lock and allocates nothing. Failure is a negative
/// result with the errno of the step that failed: of open(2), setns(2) or socket(2), ENAMETOOLONG for a
/// name longer than a file name, EINVAL for ".", ".." and a name with a slash.
namespace Nimbo {

/// Like socket(2) in the namespace `name`, with SOCK_CLOEXEC added to `type`. Returns the descriptor, which
/// the caller owns.
KIV_API int netnsSocketAt(int family, int type, int protocol, const char* name) noexcept;

/// Like open(2) of `path` in the namespace `name`, with O_CLOEXEC added to `flags`: for device files that
/// belong to the namespace of their opener, such as /dev/net/tun. Returns the descriptor, which the caller
/// owns.
KIV_API int netnsFileAt(const char* path, int flags, const char* name) noexcept;

/// Moves the calling thread into the namespace `name` for good; "default" brings it back. Keeps one
/// descriptor for each thread that was moved. Returns 0.
KIV_API int netnsEnter(const char* name) noexcept;

/// Opens the namespace `name` itself, for setns(2) or a netlink request. Returns the descriptor,
/// close-on-exec, which the caller owns.
KIV_API int netnsOpen(const char* name) noexcept;

/// What failed last on the calling thread, as in "open /run/netns/ns-red: No such file or directory"; empty
/// before the first failure. Valid, and unchanged, until the next failure on this thread.
KIV_API const char* netnsGetTracebuffer() noexcept;

}  // namespace Nimbo
