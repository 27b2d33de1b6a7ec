// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/ActivityLoop.h"
#include "Kiv/Entity.h"

namespace Kiv {

/// A descriptor watched by the activity loop of the thread that made this object.
///
/// `readableCount` goes up by one for each readable event (data, end of file, an error or a hang-up to fetch)
/// while `notifyOnReadable` is on, `writableCount` for each writable one while `notifyOnWritable` is. With
/// both off nothing is watched, errors included. Level-triggered, an event repeats in every pass for as long
/// as the descriptor stays ready; edge-triggered it comes once for each change, and switching a notification
/// on asks anew.
///
/// The descriptor belongs to whoever opened it; this class closes nothing. Set it to -1 here before closing
/// it. If it is closed without that, it is no longer reported, and its number can be watched again, by
/// another object or by this one after -1. But if a duplicate of it exists (dup, fork), the kernel goes on
/// watching that one, and nothing can stop it. Only one object at a time can watch a descriptor.
class KIV_API FileDescriptor : public Entity {
 public:
  KIV_ENTITY(FileDescriptor, Entity)
  KIV_ATTR_READ(S32, descriptor, -1)
  KIV_ATTR_READ(bool, nonBlocking, false)  ///< Whether the descriptors that are set become non-blocking.
  KIV_ATTR_READ(bool, notifyOnReadable, true)
  KIV_ATTR_READ(bool, notifyOnWritable, false)
  KIV_ATTR_READ(bool, edgeTriggered, false)  ///< Whether events come once for each change.
  KIV_ATTR_COUNTER(U32, readableCount)
  KIV_ATTR_COUNTER(U32, writableCount)

  explicit FileDescriptor(String name);
  ~FileDescriptor() override;

  /// Watches `fd`, or nothing for -1. Applies `nonBlocking` to it. Throws `ErrnoException`
  /// "fcntl(O_NONBLOCK)" or "epoll_ctl" when the kernel refuses (EBADF; EPERM: not pollable, as a regular
  /// file; EEXIST: watched already); what was watched before then still is.
  void descriptorIs(S32 fd);
  /// Makes the descriptor, and those set later, non-blocking or blocking.
  void nonBlockingIs(bool on);
  void notifyOnReadableIs(bool on);
  void notifyOnWritableIs(bool on);
  void edgeTriggeredIs(bool on);

  /// Counts `readableCount` up in the loop's next pass as well, without asking the kernel, if a descriptor is
  /// still set and `notifyOnReadable` on then. Until then no other readable event is counted, so call it as
  /// often as you like. For a reader that stops before the kernel has no more, or that has read ahead: an
  /// edge-triggered descriptor would not be reported again. Other descriptors and the clocks that are due get
  /// their turn first. Takes no memory and no system call. Does nothing while no descriptor is watched.
  void readableAgain() noexcept;

 private:
  friend class ActivityLoop;

  void interestIs(bool readable, bool writable, bool edge);

  const Ptr<ActivityLoop> loop_;
  U32 slot_ = ActivityLoop::kNoSlot;
};

}  // namespace Kiv
