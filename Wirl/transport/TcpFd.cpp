// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpFd.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Wirl/access/socketAt.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("TcpFd");

/// Null, with the descriptor closed and errno set, without memory.
TcpFileDescriptor::PtrConst owned(int fd, bool edgeTriggered) {
  const TcpFileDescriptor::PtrConst owner(new (std::nothrow) TcpFileDescriptor(fd, edgeTriggered));
  if (!owner) {
    close(fd);
    errno = ENOMEM;
  }
  return owner;
}

}  // namespace

TcpFileDescriptor::~TcpFileDescriptor() {
  if (descriptor_ >= 0) close(descriptor_);
}

TcpFileDescriptor::PtrConst TcpFileDescriptor::socket(AddressFamily af, const NamespaceName& ns,
                                                      bool edgeTriggered) {
  KIV_ASSERT_AS(af == AddressFamily::ipv4 || af == AddressFamily::ipv6,
                "af == AddressFamily::ipv4 || af == AddressFamily::ipv6");
  const int fd = socketAt(af == AddressFamily::ipv4 ? AF_INET : AF_INET6, SOCK_STREAM, 0, ns);
  if (fd < 0) return nullptr;
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    const int error = errno;
    close(fd);
    errno = error;
    return nullptr;
  }
  KIV_TRACE(trace, 5) << "Socket: af=" << af << " networkNamespace=" << ns << " descriptor=" << fd
                      << " edgeTriggered=" << edgeTriggered;
  return owned(fd, edgeTriggered);
}

TcpFileDescriptor::PtrConst TcpFileDescriptor::socketAccept(const PtrConst& serverFd, AddressFamily af,
                                                            const NamespaceName& ns, bool edgeTriggered) {
  KIV_ASSERT(serverFd);
  const int fd = accept4(serverFd->descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) return nullptr;
  KIV_TRACE(trace, 5) << "Accept: serverFileDescriptor=" << serverFd->descriptor() << " af=" << af
                      << " networkNamespace=" << ns << " descriptor=" << fd
                      << " edgeTriggered=" << edgeTriggered;
  return owned(fd, edgeTriggered);
}

TcpFileDescriptorEventRegistration::TcpFileDescriptorEventRegistration(
    const TcpFileDescriptor::PtrConst& fileDescriptor)
    : Entity("tcpFdEvents"), fileDescriptor_(fileDescriptor) {
  KIV_ASSERT(fileDescriptor_);
}

TcpFileDescriptorEventRegistration::~TcpFileDescriptorEventRegistration() = default;

void TcpFileDescriptorEventRegistration::handleReadable() {
  KIV_ASSERT_AS(enabled(), "enabled()", name());
  KIV_ASSERT_AS(notifyOnReadable(), "notifyOnReadable()", name());
  readableCountInc(1);
}

void TcpFileDescriptorEventRegistration::handleWritable() {
  KIV_ASSERT_AS(enabled(), "enabled()", name());
  KIV_ASSERT_AS(notifyOnWritable(), "notifyOnWritable()", name());
  writableCountInc(1);
}

std::ostream& operator<<(std::ostream& out, const TcpFileDescriptorEventRegistration& registration) {
  return out << "descriptor=" << registration.fileDescriptor()->descriptor()
             << ";enabled=" << registration.enabled() << ";read=" << registration.notifyOnReadable()
             << ";write=" << registration.notifyOnWritable();
}

TcpFileDescriptorEventRegistrationFactory::~TcpFileDescriptorEventRegistrationFactory() = default;

}  // namespace Wirl
