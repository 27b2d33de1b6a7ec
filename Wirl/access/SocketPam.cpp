// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/SocketPam.h"

#include <sys/socket.h>

#include <cerrno>

#include "Kiv/ActivityLoop.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/socketAt.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("SocketPam");

}  // namespace

SocketPam::~SocketPam() = default;

// Opening and closing
// ----------------------------------------------------------------------------------------

Kiv::Ptr<Kiv::FileDescriptor> SocketPam::newSocket(int domain, int protocol, const NamespaceName& ns) {
  Kiv::activityLoop();  // made, if it was not, before there is a socket to lose
  const int socket = socketAt(domain, SOCK_RAW, protocol, ns);
  if (socket < 0) throw Kiv::ErrnoException(errno, "socket");
  auto opened = Kiv::makePtr<Kiv::FileDescriptor>(name());
  opened->notifyOnReadableIs(false);
  try {
    opened->descriptorIs(socket);
  } catch (...) {
    close_(socket);
    throw;
  }
  fileDesc.store(opened);
  opened->nonBlockingIs(true);
  KIV_TRACE(trace, 5) << name() << ": socket fd is " << socket;
  return opened;
}

SocketPam::Closed SocketPam::closeSocket() noexcept {
  collectDrops();  // the kernel's count goes with the socket
  drops_.reset();
  const Kiv::Ptr<PamFdSm> sm = fdSm();
  const Kiv::Ptr<Kiv::FileDescriptor> closing = fileDesc();
  fdSm.store(nullptr);
  fileDesc.store(nullptr);
  if (sm) sm->fileDescDel();  // whoever else holds it: it counts for this Pam no more
  return {closing != nullptr, sm != nullptr, detail::closeDescriptor(closing, close_)};
}

void SocketPam::tell(const Closed& closed) {
  const auto tellFdSm = [&] {
    if (closed.fdSm) fdSm.notifiees().notify();
  };
  detail::doBoth(tellFdSm, [&] {
    if (closed.fileDesc) fileDesc.notifiees().notify();
  });
  if (closed.thrown) std::rethrow_exception(closed.thrown);
}

void SocketPam::setOption(int level, int option, const void* value, socklen_t length, const char* text) {
  if (setsockopt(fd(), level, option, value, length) < 0) closeAndThrow(errno, text);
}

void SocketPam::closeAndThrow(int error, const char* text, int other) {
  // Reactors to the descriptor may let go of the Pam. What they throw gives way to the failure.
  const Kiv::Ptr<SocketPam> alive(references() > 0 ? this : nullptr);
  collectDrops();
  drops_.reset();
  if (other == fd()) other = -1;
  detail::closeDescriptor(Kiv::Ptr<Kiv::FileDescriptor>(fileDesc()), close_);
  if (other >= 0) close_(other);
  KIV_TRACE(trace, 0) << name() << ": " << text << " failed, errno: " << error;
  throw Kiv::ErrnoException(error, text);
}

// The kernel's count
// -----------------------------------------------------------------------------------------

void SocketPam::collectDrops() const {
  const U32 drops = drops_.sinceLast(fd());
  // What changes is where the sum is kept, not the sum.
  if (drops != 0) const_cast<SocketPam*>(this)->Pam::rxDropsIs(Pam::rxDrops() + drops);
}

U32 SocketPam::rxDrops() const {
  collectDrops();
  return Pam::rxDrops();
}

void SocketPam::rxDropsIs(U32 value) {
  collectDrops();
  Pam::rxDropsIs(value);
}

}  // namespace Wirl
