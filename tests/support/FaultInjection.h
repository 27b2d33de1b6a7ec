// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <utility>

/// The kernel needs milliseconds to close a packet socket. Unless this is 0, each one that is closed leaves a
/// duplicate, numbered from here on, which the test closes later.
inline std::atomic<int> copiesOfClosedPacketSockets{0};

/// The system calls that can be made to fail: those of the library and of the test program, on any thread.
// clang-format off
enum class Call {
  accept4, bind, close, connect, epoll_create1, epoll_ctl, epoll_wait, fcntl, getsockopt, ioctl, mmap, open,
  pthread_create, read, recv, recvmmsg, recvmsg, send, sendmmsg, sendmsg, setns, setsockopt, socket,
  timerfd_create, writev
};
// clang-format on

/// A read, recv, send or sendmsg moves at most `count` octets, a recvmmsg or sendmmsg at most `count`
/// messages. Other calls ignore it.
struct ShortCount {
  std::size_t count;
};

/// What happens to one call: `before` runs, then the call fails with `error`, or moves at most `limit`
/// octets.
struct Mishap {
  static constexpr std::size_t kNoLimit = ~std::size_t{0};
  int error = 0;
  std::size_t limit = kNoLimit;
  std::function<void()> before = nullptr;
};

/// While it lives, calls of one kind go wrong:
///
///     Fault fault(Call::sendmsg, 1, ENOBUFS);          // the next sendmsg fails
///     Fault fault(Call::send, 2, ShortCount{5});       // the second send takes at most 5 octets
///     Fault fault(Call::setns, 1, [&] { ns.del(); });  // before the next setns, this happens
///
/// A failing call only sets errno, except that a failing close closes, as the kernel's does. Several faults
/// may live at once. Each counts for itself; if several strike the same call, the oldest wins.
class Fault {
 public:
  static constexpr unsigned kForEver = ~0u;

  /// Only counts.
  explicit Fault(Call call) : Fault(call, 0, 0, 0) {}
  /// The `nth` call from now (1: the next) fails with `error`, as do the next ones, `times` calls in all.
  Fault(Call call, unsigned nth, int error, unsigned times = 1) : Fault(call, nth, Mishap{error}, times) {}
  Fault(Call call, unsigned nth, ShortCount count, unsigned times = 1)
      : Fault(call, nth, Mishap{0, count.count}, times) {}
  /// Runs `before` on the thread of the `nth` call, just before the call.
  Fault(Call call, unsigned nth, std::function<void()> before)
      : Fault(call, nth, Mishap{0, Mishap::kNoLimit, std::move(before)}, 1) {}
  /// Asks `decide` about each call. It must not make such calls itself.
  Fault(Call call, std::function<Mishap()> decide);
  ~Fault();
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

  /// Calls so far, failed ones included.
  unsigned calls() const noexcept { return calls_; }

 private:
  friend struct Verdict;
  Fault(Call call, unsigned nth, Mishap mishap, unsigned times);

  const Call call_;
  const std::function<Mishap()> decide_;
  std::atomic<unsigned> calls_{0};
};
