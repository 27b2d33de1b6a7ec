// SPDX-License-Identifier: Apache-2.0
#include "tests/support/FaultInjection.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <mutex>
#include <utility>
#include <vector>

namespace {

std::mutex mutex;
std::vector<Fault*> faults;
std::atomic<bool> any{false};

}  // namespace

/// What is to become of one call.
struct Verdict {
  int error = 0;
  std::size_t limit = ~std::size_t{0};

  explicit Verdict(Call call) {
    if (!any.load(std::memory_order_acquire)) return;
    std::function<void()> before;
    {
      const std::lock_guard lock(mutex);
      const Fault* striking = nullptr;
      for (Fault* fault : faults) {
        if (fault->call_ != call) continue;
        const unsigned index = ++fault->calls_;
        if (!striking && index >= fault->nth_ && index - fault->nth_ < fault->times_) striking = fault;
      }
      if (!striking) return;
      if (striking->decide_) {
        const Mishap mishap = striking->decide_();
        error = mishap.error;
        limit = mishap.limit;
        return;
      }
      error = striking->error_;
      limit = striking->limit_;
      before = striking->before_;
    }
    if (before) before();
  }

  /// The failure of a call that returns -1 and sets errno.
  int failure() const {
    errno = error;
    return -1;
  }

  bool isShort() const { return limit != ~std::size_t{0}; }

  /// The pieces cut to the limit.
  std::vector<iovec> shortened(const iovec* pieces, std::size_t count) const {
    std::vector<iovec> result(pieces, pieces + count);
    std::size_t left = limit;
    for (iovec& piece : result) left -= piece.iov_len = std::min(piece.iov_len, left);
    return result;
  }
};

namespace {

void add(Fault* fault) {
  const std::lock_guard lock(mutex);
  faults.push_back(fault);
  any.store(true, std::memory_order_release);
}

}  // namespace

Fault::Fault(Call call, unsigned nth, int error, unsigned times)
    : call_(call), nth_(nth), times_(times), error_(error) {
  add(this);
}

Fault::Fault(Call call, unsigned nth, ShortCount count, unsigned times)
    : call_(call), nth_(nth), times_(times), limit_(count.count) {
  add(this);
}

Fault::Fault(Call call, unsigned nth, std::function<void()> before)
    : call_(call), nth_(nth), times_(1), before_(std::move(before)) {
  add(this);
}

Fault::Fault(Call call, std::function<Mishap()> decide)
    : call_(call), nth_(1), times_(kForEver), decide_(std::move(decide)) {
  add(this);
}

Fault::~Fault() {
  const std::lock_guard lock(mutex);
  std::erase(faults, this);
  any.store(!faults.empty(), std::memory_order_release);
}

// Declares the real call and its wrapper, and begins the wrapper.
#define WRAPPER(result, name, ...)              \
  extern "C" result __real_##name(__VA_ARGS__); \
  extern "C" result __wrap_##name(__VA_ARGS__); \
  extern "C" result __wrap_##name(__VA_ARGS__)

// A call that fails or does not; what it moves is cut to the limit in its arguments.
#define PLAIN(result, name, parameters, arguments) \
  WRAPPER(result, name, UNPACK parameters) {       \
    const Verdict verdict(Call::name);             \
    if (verdict.error) return verdict.failure();   \
    return __real_##name arguments;                \
  }
#define UNPACK(...) __VA_ARGS__

PLAIN(int, accept, (int fd, sockaddr* peer, socklen_t* length), (fd, peer, length))
PLAIN(int, accept4, (int fd, sockaddr* peer, socklen_t* length, int flags), (fd, peer, length, flags))
PLAIN(int, bind, (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
PLAIN(int, connect, (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
PLAIN(int, epoll_create1, (int flags), (flags))
PLAIN(int, epoll_ctl, (int fd, int operation, int watched, epoll_event* event),
      (fd, operation, watched, event))
PLAIN(int, epoll_pwait2,
      (int fd, epoll_event* events, int count, const timespec* timeout, const sigset_t* mask),
      (fd, events, count, timeout, mask))
PLAIN(int, epoll_wait, (int fd, epoll_event* events, int count, int timeout), (fd, events, count, timeout))
PLAIN(int, getsockopt, (int fd, int level, int option, void* value, socklen_t* length),
      (fd, level, option, value, length))
PLAIN(int, setns, (int fd, int type), (fd, type))
PLAIN(int, setsockopt, (int fd, int level, int option, const void* value, socklen_t length),
      (fd, level, option, value, length))
PLAIN(int, socket, (int family, int type, int protocol), (family, type, protocol))
PLAIN(int, timerfd_create, (int clock, int flags), (clock, flags))
PLAIN(int, timerfd_settime, (int fd, int flags, const itimerspec* value, itimerspec* old),
      (fd, flags, value, old))

WRAPPER(int, pthread_create, pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
        void* argument) {
  const Verdict verdict(Call::pthread_create);
  return verdict.error ? verdict.error : __real_pthread_create(thread, attributes, run, argument);
}

// A call whose last argument may be missing; an int, too, takes one slot.
#define WITH_ARGUMENT(name, type)                \
  WRAPPER(int, name, int fd, type what, ...) {   \
    const Verdict verdict(Call::name);           \
    if (verdict.error) return verdict.failure(); \
    va_list list;                                \
    va_start(list, what);                        \
    void* const argument = va_arg(list, void*);  \
    va_end(list);                                \
    return __real_##name(fd, what, argument);    \
  }
WITH_ARGUMENT(fcntl, int)
WITH_ARGUMENT(ioctl, unsigned long)

WRAPPER(int, close, int fd) {
  const Verdict verdict(Call::close);
  if (const int from = copiesOfClosedPacketSockets; fd < from) {
    int domain = 0;
    socklen_t length = sizeof(domain);
    __real_getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length);
    if (domain == AF_PACKET) __real_fcntl(fd, F_DUPFD_CLOEXEC, from);
  }
  const int result = __real_close(fd);
  return verdict.error && result == 0 ? verdict.failure() : result;
}

WRAPPER(int, open, const char* path, int flags, ...) {
  const Verdict verdict(Call::open);
  if (verdict.error) return verdict.failure();
  va_list list;
  va_start(list, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? va_arg(list, mode_t) : 0;
  va_end(list);
  return __real_open(path, flags, mode);
}

WRAPPER(int, openat, int directory, const char* path, int flags, ...) {
  const Verdict verdict(Call::openat);
  if (verdict.error) return verdict.failure();
  va_list list;
  va_start(list, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? va_arg(list, mode_t) : 0;
  va_end(list);
  return __real_openat(directory, path, flags, mode);
}

PLAIN(ssize_t, read, (int fd, void* data, std::size_t size), (fd, data, std::min(size, verdict.limit)))
PLAIN(ssize_t, send, (int fd, const void* data, std::size_t size, int flags),
      (fd, data, std::min(size, verdict.limit), flags))
PLAIN(ssize_t, recv, (int fd, void* data, std::size_t size, int flags),
      (fd, data, std::min(size, verdict.limit), flags))

WRAPPER(ssize_t, sendmsg, int fd, const msghdr* message, int flags) {
  const Verdict verdict(Call::sendmsg);
  if (verdict.error) return verdict.failure();
  if (!verdict.isShort()) return __real_sendmsg(fd, message, flags);
  std::vector<iovec> pieces = verdict.shortened(message->msg_iov, message->msg_iovlen);
  msghdr less = *message;
  less.msg_iov = pieces.data();
  return __real_sendmsg(fd, &less, flags);
}

WRAPPER(ssize_t, recvmsg, int fd, msghdr* message, int flags) {
  const Verdict verdict(Call::recvmsg);
  if (verdict.error) return verdict.failure();
  if (!verdict.isShort()) return __real_recvmsg(fd, message, flags);
  std::vector<iovec> pieces = verdict.shortened(message->msg_iov, message->msg_iovlen);
  iovec* const whole = std::exchange(message->msg_iov, pieces.data());
  const ssize_t result = __real_recvmsg(fd, message, flags);
  message->msg_iov = whole;
  return result;
}

PLAIN(int, recvmmsg, (int fd, mmsghdr* messages, unsigned count, int flags, timespec* timeout),
      (fd, messages, static_cast<unsigned>(std::min<std::size_t>(count, verdict.limit)), flags, timeout))

WRAPPER(ssize_t, writev, int fd, const iovec* pieces, int count) {
  const Verdict verdict(Call::writev);
  if (verdict.error) return verdict.failure();
  if (!verdict.isShort()) return __real_writev(fd, pieces, count);
  const std::vector<iovec> less = verdict.shortened(pieces, static_cast<std::size_t>(count));
  return __real_writev(fd, less.data(), count);
}
