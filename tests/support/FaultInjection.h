// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <utility>

/// Unless 0, a packet socket that is closed keeps a copy with at least this number, which the test closes
/// when it suits it: the kernel needs milliseconds for each.
inline std::atomic<int> copiesOfClosedPacketSockets{0};

/// The system calls that can be made to fail, in the library and in the test program itself, on any thread.
// clang-format off
enum class Call {
  accept, accept4, bind, close, connect, epoll_create1, epoll_ctl, epoll_pwait2, epoll_wait, fcntl,
  getsockopt, ioctl, mmap, open, openat, pthread_create, read, recv, recvmmsg, recvmsg, send, sendmmsg,
  sendmsg, setns, setsockopt, socket, timerfd_create, timerfd_settime, writev
};
// clang-format on

/// A count of octets (of messages with recvmmsg) that a call is not to exceed, whatever it is asked for.
/// Applies to the calls that move data; the others ignore it.
struct ShortCount {
  std::size_t count;
};

/// What happens to one call: it fails with `error`, else moves no more than `limit` octets. `before` runs
/// first.
struct Mishap {
  static constexpr std::size_t kNoLimit = ~std::size_t{0};
  int error = 0;
  std::size_t limit = kNoLimit;
  std::function<void()> before = nullptr;
};

/// While it lives, calls of one kind go wrong:
///
///     Fault fault(Call::sendmsg, 1, ENOBUFS);          // the next sendmsg fails
///     Fault fault(Call::writev, 2, ShortCount{5});     // the second writev takes at most 5 octets
///     Fault fault(Call::setns, 1, [&] { ns.del(); });  // before the next setns, this happens
///
/// A failing call does nothing but set errno, except that a failing close closes, as the kernel's does.
/// Several may live at once; each counts for itself, and of those that strike the same call the oldest wins.
class Fault {
 public:
  static constexpr unsigned kForEver = ~0u;

  /// Only counts.
  explicit Fault(Call call) : Fault(call, 0, 0, 0) {}
  /// Makes the `nth` call from now (1: the next) fail with `error`, and those behind it up to `times`.
  Fault(Call call, unsigned nth, int error, unsigned times = 1) : Fault(call, nth, Mishap{error}, times) {}
  Fault(Call call, unsigned nth, ShortCount count, unsigned times = 1)
      : Fault(call, nth, Mishap{0, count.count}, times) {}
  /// Runs `before` on the thread of the `nth` call, then makes the call.
  Fault(Call call, unsigned nth, std::function<void()> before)
      : Fault(call, nth, Mishap{0, Mishap::kNoLimit, std::move(before)}, 1) {}
  /// Has `decide` say for each call what happens to it; it must not make such calls itself.
  Fault(Call call, std::function<Mishap()> decide);
  ~Fault();
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

  /// Calls seen so far, the failed ones included.
  unsigned calls() const noexcept { return calls_; }

 private:
  friend struct Verdict;
  Fault(Call call, unsigned nth, Mishap mishap, unsigned times);

  const Call call_;
  const std::function<Mishap()> decide_;
  std::atomic<unsigned> calls_{0};
};
