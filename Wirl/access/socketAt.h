// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/Types.h"
#include "Wirl/value/NamespaceName.h"

/// Sockets and interfaces in named network namespaces. A name is that of a namespace under /run/netns, as
/// `L3::VrfName::nsName()` gives it. "default", the empty name and null stand for the namespace that the
/// calling thread was in before `setNsByName` moved it. Failures return a negative value with errno set, and
/// the handle "socketAt" traces them at level 0. Nothing throws.
namespace Wirl {

/// Opens a socket in the namespace `ns` as socket(2) does, close-on-exec. Returns the descriptor, which the
/// caller owns. The calling thread stays in its namespace. ENOENT if there is no such namespace.
KIV_API int socketAt(int family, int type, int protocol, const char* ns);

/// The same; EINVAL for a name with a NUL in it, which the kernel would read as another name.
KIV_API int socketAt(int family, int type, int protocol, const NamespaceName& ns);

/// Moves the calling thread, and no other, into the namespace `ns`. Returns 0.
KIV_API int setNsByName(const char* ns);

/// Moves the network interface `intf` from the calling thread's namespace into `ns`. It arrives switched off
/// and without addresses. Returns 0. ENODEV if there is no such interface, EEXIST if `ns` has one of that
/// name, EINVAL for an interface that cannot leave (the loopback).
KIV_API int moveIntfNetNs(const char* intf, const char* ns);

}  // namespace Wirl

// The same for C, and for callers that look symbols up by name.
extern "C" {
KIV_API int socket_at(int family, int type, int protocol, const char* ns);
KIV_API int setns_by_name(const char* ns);
KIV_API int move_intf_netns(const char* intf, const char* ns);
}
