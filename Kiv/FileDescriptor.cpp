// SPDX-License-Identifier: Apache-2.0
#include "Kiv/FileDescriptor.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <cerrno>

#include "Kiv/Exception.h"

namespace Kiv {

namespace {

U32 eventsOf(bool readable, bool writable, bool edge) {
  if (!readable && !writable) return 0;
  return (readable ? static_cast<U32>(EPOLLIN | EPOLLRDHUP) : 0) | (writable ? EPOLLOUT : 0u) |
         (edge ? EPOLLET : 0u);
}

void makeNonBlocking(int fd, bool on) {
  const int flags = fcntl(fd, F_GETFL);
  const int wanted = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
  if (flags < 0 || (wanted != flags && fcntl(fd, F_SETFL, wanted) < 0)) {
    throw ErrnoException(errno, "fcntl(O_NONBLOCK)");
  }
}

}  // namespace

FileDescriptor::FileDescriptor(String name) : Entity(std::move(name)), loop_(&activityLoop()) {}

FileDescriptor::~FileDescriptor() {
  if (slot_ != ActivityLoop::kNoSlot) loop_->slotDel(slot_);
}

void FileDescriptor::descriptorIs(S32 fd) {
  if (fd == descriptor()) return;
  const U32 before = slot_;
  U32 fresh = ActivityLoop::kNoSlot;
  if (fd >= 0) {
    if (nonBlocking()) makeNonBlocking(fd, true);
    fresh = loop_->slotIs(*this, fd, eventsOf(notifyOnReadable(), notifyOnWritable(), edgeTriggered()));
  }
  slot_ = fresh;
  if (before != ActivityLoop::kNoSlot) loop_->slotDel(before);
  descriptor.set(fd < 0 ? -1 : fd);
}

void FileDescriptor::nonBlockingIs(bool on) {
  if (on == nonBlocking()) return;
  if (descriptor() >= 0) makeNonBlocking(descriptor(), on);
  nonBlocking.set(on);
}

void FileDescriptor::notifyOnReadableIs(bool on) {
  if (on == notifyOnReadable()) return;
  interestIs(on, notifyOnWritable(), edgeTriggered());
  notifyOnReadable.set(on);
}

void FileDescriptor::notifyOnWritableIs(bool on) {
  if (on == notifyOnWritable()) return;
  interestIs(notifyOnReadable(), on, edgeTriggered());
  notifyOnWritable.set(on);
}

void FileDescriptor::edgeTriggeredIs(bool on) {
  if (on == edgeTriggered()) return;
  interestIs(notifyOnReadable(), notifyOnWritable(), on);
  edgeTriggered.set(on);
}

void FileDescriptor::readableAgain() noexcept {
  if (slot_ != ActivityLoop::kNoSlot) loop_->againIs(slot_);
}

void FileDescriptor::interestIs(bool readable, bool writable, bool edge) {
  if (slot_ != ActivityLoop::kNoSlot) loop_->eventsIs(slot_, eventsOf(readable, writable, edge));
}

}  // namespace Kiv
