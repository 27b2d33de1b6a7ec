// SPDX-License-Identifier: Apache-2.0
#include "tests/support/FaultInjection.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

namespace {

std::mutex mutex;
std::vector<Fault*> faults;
std::atomic<bool> any{false};

}  // namespace

/// Decides one call.
struct Verdict : Mishap {
  explicit Verdict(Call call) {
    if (!any.load(std::memory_order_acquire)) return;
    {
      const std::lock_guard lock(mutex);
      for (Fault* fault : faults) {
        if (fault->call_ != call) continue;
        ++fault->calls_;
        Mishap mishap = fault->decide_();
        const bool struck = error != 0 || limit != kNoLimit || before;
        if (!struck) static_cast<Mishap&>(*this) = std::move(mishap);
      }
    }
    if (before) before();
  }
  /// For calls that report failure by -1 and errno.
  int failure() const {
    errno = error;
    return -1;
  }
  std::size_t limited(std::size_t size) const { return std::min(size, limit); }
};

Fault::Fault(Call call, std::function<Mishap()> decide) : call_(call), decide_(std::move(decide)) {
  const std::lock_guard lock(mutex);
  faults.push_back(this);
  any.store(true, std::memory_order_release);
}

Fault::Fault(Call call, unsigned nth, Mishap mishap, unsigned times)
    : Fault(call, [this, nth, mishap = std::move(mishap), times] {
        return calls_ >= nth && calls_ - nth < times ? mishap : Mishap();
      }) {}

Fault::~Fault() {
  const std::lock_guard lock(mutex);
  std::erase(faults, this);
  any.store(!faults.empty(), std::memory_order_release);
}

// Declares the real call and its wrapper, and begins the wrapper. Optional arguments are passed on as they
// are found; the real call ignores those that its caller left out.
#define WRAPPER(result, name, ...)              \
  extern "C" result __real_##name(__VA_ARGS__); \
  extern "C" result __wrap_##name(__VA_ARGS__); \
  extern "C" result __wrap_##name(__VA_ARGS__)

// A call that reports failure by -1 and errno.
#define CALL(result, name, parameters, ...)                                     \
  WRAPPER(result, name, UNPACK parameters) {                                    \
    const Verdict verdict(Call::name);                                          \
    return verdict.error != 0 ? verdict.failure() : __real_##name(__VA_ARGS__); \
  }
#define UNPACK(...) __VA_ARGS__

CALL(int, accept4, (int fd, sockaddr* peer, socklen_t* length, int flags), fd, peer, length, flags)
CALL(int, bind, (int fd, const sockaddr* address, socklen_t length), fd, address, length)
CALL(int, connect, (int fd, const sockaddr* address, socklen_t length), fd, address, length)
CALL(int, epoll_create1, (int flags), flags)
CALL(int, epoll_wait, (int fd, epoll_event* events, int count, int timeout), fd, events, count, timeout)
CALL(int, fcntl, (int fd, int command, void* argument), fd, command, argument)
CALL(int, getsockopt, (int fd, int level, int option, void* value, socklen_t* length), fd, level, option,
     value, length)
CALL(int, ioctl, (int fd, unsigned long request, void* argument), fd, request, argument)
CALL(int, open, (const char* path, int flags, mode_t mode), path, flags, mode)
CALL(int, setns, (int fd, int type), fd, type)
CALL(int, setsockopt, (int fd, int level, int option, const void* value, socklen_t length), fd, level, option,
     value, length)
CALL(int, socket, (int family, int type, int protocol), family, type, protocol)
CALL(int, timerfd_create, (int clock, int flags), clock, flags)
CALL(ssize_t, read, (int fd, void* data, std::size_t size), fd, data, verdict.limited(size))
CALL(ssize_t, recv, (int fd, void* data, std::size_t size, int flags), fd, data, verdict.limited(size), flags)
CALL(ssize_t, recvmsg, (int fd, msghdr* message, int flags), fd, message, flags)
CALL(ssize_t, writev, (int fd, const iovec* pieces, int count), fd, pieces, count)
CALL(ssize_t, send, (int fd, const void* data, std::size_t size, int flags), fd, data, verdict.limited(size),
     flags)
CALL(int, recvmmsg, (int fd, mmsghdr* messages, unsigned count, int flags, timespec* timeout), fd, messages,
     static_cast<unsigned>(verdict.limited(count)), flags, timeout)
CALL(int, sendmmsg, (int fd, mmsghdr* messages, unsigned count, int flags), fd, messages,
     static_cast<unsigned>(verdict.limited(count)), flags)

WRAPPER(void*, mmap, void* at, std::size_t size, int protection, int flags, int fd, off_t offset) {
  const Verdict verdict(Call::mmap);
  if (verdict.error == 0) return __real_mmap(at, size, protection, flags, fd, offset);
  verdict.failure();
  return MAP_FAILED;
}

// EPOLL_CTL_DEL is never refused: it needs nothing that the kernel could lack.
WRAPPER(int, epoll_ctl, int fd, int operation, int watched, epoll_event* event) {
  if (operation == EPOLL_CTL_DEL) return __real_epoll_ctl(fd, operation, watched, event);
  const Verdict verdict(Call::epoll_ctl);
  return verdict.error != 0 ? verdict.failure() : __real_epoll_ctl(fd, operation, watched, event);
}

WRAPPER(int, close, int fd) {
  const Verdict verdict(Call::close);
  if (const int from = copiesOfClosedPacketSockets; fd < from) {
    int domain = 0;
    socklen_t length = sizeof(domain);
    __real_getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length);
    const auto number = static_cast<std::intptr_t>(from);
    if (domain == AF_PACKET) __real_fcntl(fd, F_DUPFD_CLOEXEC, reinterpret_cast<void*>(number));
  }
  const int result = __real_close(fd);
  return verdict.error != 0 && result == 0 ? verdict.failure() : result;
}

WRAPPER(int, pthread_create, pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
        void* argument) {
  const Verdict verdict(Call::pthread_create);
  return verdict.error != 0 ? verdict.error : __real_pthread_create(thread, attributes, run, argument);
}

WRAPPER(ssize_t, sendmsg, int fd, const msghdr* message, int flags) {
  const Verdict verdict(Call::sendmsg);
  if (verdict.error != 0) return verdict.failure();
  if (verdict.limit == Mishap::kNoLimit) return __real_sendmsg(fd, message, flags);
  std::vector<iovec> pieces(message->msg_iov, message->msg_iov + message->msg_iovlen);
  std::size_t left = verdict.limit;
  for (iovec& piece : pieces) left -= piece.iov_len = std::min(piece.iov_len, left);
  msghdr sent = *message;
  sent.msg_iov = pieces.data();
  return __real_sendmsg(fd, &sent, flags);
}
