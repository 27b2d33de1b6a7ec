// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpPduPamBase.h"

#include <utility>

#include "Kiv/Assert.h"
#include "Wirl/access/detail/doBoth.h"

namespace Wirl {

TcpPduFdSm::TcpPduFdSm(TcpFileDescriptorEventRegistration& fd, TcpPduPamBase& pam)
    : pam_(pam), onReadable_(fd.readableCount, [this] { pam_.socketReadable(); }) {}

TcpPduFdSm::~TcpPduFdSm() = default;

void TcpPduFdSm::writableIsWatched() {
  if (onWritable_.registered()) return;
  onWritable_ = Kiv::Reactor(pam_.fd()->writableCount, [this] { pam_.socketWritable(); });
}

TcpPduPamBase::TcpPduPamBase(const TcpFileDescriptor::PtrConst& descriptor,
                             const Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>& factory,
                             Kiv::String name)
    : Pam(std::move(name)), fileDescriptor_(descriptor), fdFactory_(factory) {
  KIV_ASSERT_AS(fileDescriptor_, "fileDescriptor");
  KIV_ASSERT_AS(fdFactory_, "fdFactory");
  const auto registration = fdFactory_->createEventRegistration(fileDescriptor_);
  KIV_ASSERT_AS(registration, "fd");
  fdIs(registration);
}

TcpPduPamBase::~TcpPduPamBase() {
  fdIs(nullptr);
}

void TcpPduPamBase::socketReadable() {
  const auto alive = Kiv::keepAlive(this);
  socketReadableCount.store(socketReadableCount() + 1);
  handleSocketReadable();
  socketReadableCount.notifiees().notify();
}

void TcpPduPamBase::socketWritable() {
  const auto alive = Kiv::keepAlive(this);
  socketWritableCount.store(socketWritableCount() + 1);
  handleSocketWritable();
  socketWritableCount.notifiees().notify();
}

void TcpPduPamBase::fdIs(const Kiv::Ptr<TcpFileDescriptorEventRegistration>& fd) {
  tcpPduFdSm_ = nullptr;
  if (const auto former = std::exchange(fd_, nullptr)) {
    detail::doQuietly([&former] { former->handleDel(); });  // nobody reacts to it any more
  }
  if (!fd) return;
  tcpPduFdSm_ = Kiv::makePtr<TcpPduFdSm>(*fd, *this);
  fd_ = fd;
}

}  // namespace Wirl
