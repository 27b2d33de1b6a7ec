// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpFdKivc.h"

namespace Wirl {

using KivcSm = TcpFileDescriptorEventRegistrationKivcSm;

KivcSm::TcpFileDescriptorEventRegistrationKivcSm(Kiv::FileDescriptor& fileDesc,
                                                 TcpFileDescriptorEventRegistrationKivc& registration)
    : registration_(registration),
      onReadable_(fileDesc.readableCount, [this] { registration_.handleReadable(); }) {
  if (fileDesc.notifyOnWritable()) writableIsWatched(fileDesc);
}

KivcSm::~TcpFileDescriptorEventRegistrationKivcSm() = default;

void KivcSm::writableIsWatched(Kiv::FileDescriptor& fileDesc) {
  if (onWritable_.registered()) return;
  onWritable_ = Kiv::Reactor(fileDesc.writableCount, [this] { registration_.handleWritable(); });
}

TcpFileDescriptorEventRegistrationKivc::TcpFileDescriptorEventRegistrationKivc(
    const TcpFileDescriptor::PtrConst& fileDescriptor)
    : TcpFileDescriptorEventRegistration(fileDescriptor) {}

TcpFileDescriptorEventRegistrationKivc::~TcpFileDescriptorEventRegistrationKivc() {
  handleDel();
}

void TcpFileDescriptorEventRegistrationKivc::handleEnabled() {
  if (enabled()) {
    try {
      attach();
    } catch (...) {
      enabledIs(false);
      throw;
    }
    return;
  }
  sm_ = nullptr;
  if (const Kiv::Ptr<Kiv::FileDescriptor> watching = fileDesc()) {
    watching->descriptorIs(-1);
    fileDesc.set(nullptr);
  }
}

void TcpFileDescriptorEventRegistrationKivc::attach() {
  const auto watching = Kiv::makePtr<Kiv::FileDescriptor>("tcpFd");
  watching->edgeTriggeredIs(fileDescriptor()->edgeTriggered());
  watching->notifyOnReadableIs(notifyOnReadable());
  watching->notifyOnWritableIs(notifyOnWritable());
  watching->descriptorIs(fileDescriptor()->descriptor());
  sm_ = Kiv::makePtr<KivcSm>(*watching, *this);
  fileDesc.set(watching);
}

void TcpFileDescriptorEventRegistrationKivc::handleNotifyOnReadable() {
  if (!fileDesc()) return;
  const bool on = notifyOnReadable();
  try {
    fileDesc()->notifyOnReadableIs(on);
  } catch (...) {
    notifyOnReadableIs(!on);
    throw;
  }
}

void TcpFileDescriptorEventRegistrationKivc::handleNotifyOnWritable() {
  if (!fileDesc()) return;
  const bool on = notifyOnWritable();
  try {
    if (on) sm_->writableIsWatched(*fileDesc());
    fileDesc()->notifyOnWritableIs(on);
  } catch (...) {
    notifyOnWritableIs(!on);
    throw;
  }
}

bool TcpFileDescriptorEventRegistrationKivc::readableAgain() {
  if (!fileDesc()) return false;
  fileDesc()->readableAgain();
  return true;
}

TcpFileDescriptorEventRegistrationFactoryKivc::~TcpFileDescriptorEventRegistrationFactoryKivc() = default;

Kiv::Ptr<TcpFileDescriptorEventRegistration>
TcpFileDescriptorEventRegistrationFactoryKivc::createEventRegistration(
    const TcpFileDescriptor::PtrConst& descriptor) {
  return Kiv::makePtr<TcpFileDescriptorEventRegistrationKivc>(descriptor);
}

Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory> tcpFileDescriptorEventRegistrationFactoryKivcFactory() {
  return Kiv::makePtr<TcpFileDescriptorEventRegistrationFactoryKivc>();
}

}  // namespace Wirl
