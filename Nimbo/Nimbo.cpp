// SPDX-License-Identifier: Apache-2.0
#include "Nimbo/Nimbo.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

namespace Nimbo {

namespace {

constexpr std::string_view kDirectory = "/run/netns/";
constexpr const char* kOwn = "/proc/thread-self/ns/net";

// Holds a step, the longest path and the text of an error.
thread_local char lastFailure[512];

/// Notes the failed step for `netnsGetTracebuffer()`. Returns -1 and leaves errno alone.
[[gnu::cold]] int failed(const char* step, const char* name) noexcept {
  const int error = errno;
  char text[64];
  std::snprintf(lastFailure, sizeof(lastFailure), "%s%.280s: %s", step, name,
                strerror_r(error, text, sizeof(text)));
  errno = error;
  return -1;
}

[[noreturn, gnu::cold]] void cannotReturn(const char* name) noexcept {
  std::fprintf(stderr, "Nimbo: cannot return from network namespace %s: %s\n", name, std::strerror(errno));
  std::abort();
}

/// Closes at the end of its scope and leaves errno alone.
class ScopedDescriptor {
 public:
  explicit ScopedDescriptor(int descriptor) noexcept : descriptor_(descriptor) {}
  ~ScopedDescriptor() {
    if (descriptor_ < 0) return;
    const int error = errno;
    ::close(descriptor_);
    errno = error;
  }
  ScopedDescriptor(const ScopedDescriptor&) = delete;
  ScopedDescriptor& operator=(const ScopedDescriptor&) = delete;

  int get() const noexcept { return descriptor_; }

 private:
  const int descriptor_;
};

/// open(2) and close(2) are cancellation points: a thread cancelled there would leave descriptors behind.
class CancellationHeldBack {
 public:
  CancellationHeldBack() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~CancellationHeldBack() { pthread_setcancelstate(before_, nullptr); }
  CancellationHeldBack(const CancellationHeldBack&) = delete;
  CancellationHeldBack& operator=(const CancellationHeldBack&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

/// A handler that runs in the wrong namespace would open its sockets there, or jump out and never come back.
class SignalsHeldBack {
 public:
  SignalsHeldBack() noexcept {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsHeldBack() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsHeldBack(const SignalsHeldBack&) = delete;
  SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;

 private:
  sigset_t before_;
};

/// The namespace that the thread was in before `netnsEnter` moved it: what "default" stands for. -1 for a
/// thread that was never moved, which is there. Trivial, since all calls look at it.
constinit thread_local int home = -1;

/// Sees to it that the thread's home is closed when the thread ends. Returns 0 or the errno: a `thread_local`
/// with a destructor would end the process where there is no memory for it.
int closeHomeAtThreadEnd() noexcept {
  static pthread_key_t key;
  static const int failure = pthread_key_create(&key, [](void*) { ::close(std::exchange(home, -1)); });
  return failure != 0 ? failure : pthread_setspecific(key, &home);
}

bool isDefault(const char* name) noexcept {
  return !name || !*name || std::string_view(name) == "default";
}

/// Whether the thread is known to be in the namespace `name`, without a system call.
bool isOwn(const char* name) noexcept {
  return isDefault(name) && home < 0;
}

int openOwn() noexcept {
  const int descriptor = ::open(kOwn, O_RDONLY | O_CLOEXEC);
  return descriptor >= 0 ? descriptor : failed("open ", kOwn);
}

int openNamed(const char* name) noexcept {
  if (isDefault(name)) {
    const int descriptor = ::fcntl(home, F_DUPFD_CLOEXEC, 0);
    return descriptor >= 0 ? descriptor : failed("dup ", "default");
  }
  const std::string_view component = name;
  char path[kDirectory.size() + NAME_MAX + 1];
  if (component == "." || component == ".." || component.find('/') != std::string_view::npos) {
    errno = EINVAL;
    return failed("namespace name ", name);
  }
  if (component.size() > NAME_MAX) {
    errno = ENAMETOOLONG;
    return failed("namespace name ", name);
  }
  std::memcpy(path, kDirectory.data(), kDirectory.size());
  std::memcpy(path + kDirectory.size(), name, component.size() + 1);
  const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
  return descriptor >= 0 ? descriptor : failed("open ", path);
}

/// Opens a descriptor by `open` in the namespace. `what` is for the text of a failure.
template <typename Open>
int openedAt(const char* what, const char* name, Open open) noexcept {
  if (isOwn(name)) {
    const int opened = open();
    return opened >= 0 ? opened : failed(what, "");
  }

  const CancellationHeldBack cancellation;
  const ScopedDescriptor there(openNamed(name));
  if (there.get() < 0) return -1;
  const ScopedDescriptor own(openOwn());
  if (own.get() < 0) return -1;

  const SignalsHeldBack signals;
  // In a user namespace a thread may be allowed to leave but not to return: find out before leaving.
  if (::setns(own.get(), CLONE_NEWNET) != 0) return failed("setns ", kOwn);
  if (::setns(there.get(), CLONE_NEWNET) != 0) return failed("setns ", name);
  const int opened = open();
  const int error = errno;
  if (::setns(own.get(), CLONE_NEWNET) != 0) cannotReturn(name);
  errno = error;
  return opened >= 0 ? opened : failed(what, name);
}

}  // namespace

int netnsSocketAt(int family, int type, int protocol, const char* name) noexcept {
  const bool own = isOwn(name);
  return openedAt(own ? "socket" : "socket in ", name,
                  [&] { return ::socket(family, type | SOCK_CLOEXEC, protocol); });
}

int netnsFileAt(const char* path, int flags, const char* name) noexcept {
  const CancellationHeldBack cancellation;
  const bool own = isOwn(name);
  return openedAt(own ? "open" : "open in ", name, [&] { return ::open(path, flags | O_CLOEXEC); });
}

int netnsEnter(const char* name) noexcept {
  if (isOwn(name)) return 0;
  const CancellationHeldBack cancellation;
  const ScopedDescriptor there(openNamed(name));
  if (there.get() < 0) return -1;
  const int before = home >= 0 ? -1 : openOwn();
  if (before < 0 && home < 0) return -1;
  const int unkept = closeHomeAtThreadEnd();
  if (unkept != 0 || ::setns(there.get(), CLONE_NEWNET) != 0) {
    const int error = unkept != 0 ? unkept : errno;
    if (before >= 0) ::close(before);
    errno = error;
    return failed("setns ", name);
  }
  if (before >= 0) home = before;
  return 0;
}

int netnsOpen(const char* name) noexcept {
  const CancellationHeldBack cancellation;
  return isOwn(name) ? openOwn() : openNamed(name);
}

const char* netnsGetTracebuffer() noexcept {
  return lastFailure;
}

}  // namespace Nimbo
