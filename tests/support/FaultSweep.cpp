// SPDX-License-Identifier: Apache-2.0
#include "tests/support/FaultSweep.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <future>
#include <list>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Kiv/ActivityLoop.h"
#include "Kiv/Trace.h"
#include "Wirl/access/deferClose.h"
#include "Wirl/packet/Pkt.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/NetNs.h"

namespace {

struct Kind {
  Call call;
  const char* name;
  std::array<int, 3>
      errors;  // the most frequent ones of a daemon's life; only the first also strikes for ever
};
constexpr Kind kMemory = {{}, "allocation", {ENOMEM}};
constexpr Kind kKinds[] = {{Call::accept4, "accept4", {EMFILE, ECONNABORTED, ENOBUFS}},
                           {Call::bind, "bind", {EADDRINUSE, EACCES}},
                           {Call::close, "close", {EIO}},
                           {Call::connect, "connect", {ECONNREFUSED, ENETUNREACH, EINTR}},
                           {Call::epoll_create1, "epoll_create1", {EMFILE}},
                           {Call::epoll_ctl, "epoll_ctl", {ENOMEM, ENOSPC}},
                           {Call::epoll_wait, "epoll_wait", {ENOMEM, EINTR}},
                           {Call::fcntl, "fcntl", {EMFILE}},
                           {Call::getsockopt, "getsockopt", {ENOBUFS}},
                           {Call::ioctl, "ioctl", {ENODEV}},
                           {Call::mmap, "mmap", {ENOMEM}},
                           {Call::open, "open", {EMFILE, ENOENT}},
                           {Call::read, "read", {EIO, EINTR}},
                           {Call::recv, "recv", {ECONNRESET, EINTR, ENOMEM}},
                           {Call::recvmmsg, "recvmmsg", {ENETDOWN, EINTR, ENOMEM}},
                           {Call::recvmsg, "recvmsg", {ECONNREFUSED, EINTR, ENOMEM}},
                           {Call::send, "send", {EAGAIN, ENOBUFS, EPIPE}},
                           {Call::sendmmsg, "sendmmsg", {EAGAIN, EINVAL, ENOBUFS}},
                           {Call::sendmsg, "sendmsg", {EAGAIN, ENOBUFS, EPERM}},
                           {Call::setns, "setns", {EPERM, ENOMEM}},
                           {Call::setsockopt, "setsockopt", {ENOPROTOOPT, ENOMEM}},
                           {Call::socket, "socket", {EMFILE, ENOBUFS, EACCES}},
                           {Call::timerfd_create, "timerfd_create", {EMFILE}},
                           {Call::writev, "writev", {EAGAIN, EPIPE, ENOBUFS}}};

constexpr int kSecondsOfAPoint = 30;
char point[256];  // the current one

/// Names the point at which the process ends.
void tellPoint(int signal) {
  const char* const parts[] = {"\nfault sweep: signal ", sigabbrev_np(signal), " at ", point, "\n"};
  for (const char* part : parts) static_cast<void>(!write(STDERR_FILENO, part, std::strlen(part)));
  std::signal(signal, SIG_DFL);
  raise(signal);
}

class Sweep {
 public:
  Sweep(const char* name, const std::function<Scenario()>& make, Memory memory, bool ownThread)
      : name_(name), make_(make), memory_(memory), ownThread_(ownThread), home_(currentNetNs()) {
    for (const int signal : {SIGABRT, SIGSEGV, SIGALRM}) std::signal(signal, tellPoint);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    Wirl::Pkt::Manager::cacheLimitIs(0);  // every packet is an allocation
    copiesOfClosedPacketSockets = kCopies;
  }
  ~Sweep() {
    Kiv::traceIs("");
    Kiv::traceSinkIs(nullptr);
    closeCopies();
    copiesOfClosedPacketSockets = 0;
    for (const int signal : {SIGABRT, SIGSEGV, SIGALRM}) std::signal(signal, SIG_DFL);
    alarm(0);
  }

  void all() {
    Kiv::traceSinkIs([](auto...) {});
    for (const bool traced : {false, true}) {
      Kiv::traceIs(traced ? "*/0-9" : "");
      traced_ = traced;
      sweepKind(kMemory);
      for (const Kind& kind : kKinds) sweepKind(kind);
    }
    std::printf("fault sweep: %-24s %6u points of memory, %6u of system calls\n", name_, memoryPoints_,
                callPoints_);
  }

 private:
  static constexpr int kCopies = 1000;

  void sweepKind(const Kind& kind) {
    for (int i = 0; i < 2; ++i) at(kind, 0, 0, 0);  // caches fill the first time
    const std::uint64_t all = seen_;
    for (unsigned nth = 1; nth <= all; ++nth) {
      for (const int error : kind.errors) {
        const bool first = error == kind.errors[0];
        if (error == 0 || (traced_ && !first)) continue;
        for (const unsigned times : {1u, ~0u}) {
          if (times > 1 && (traced_ || !first)) continue;
          at(kind, nth, error, times);
          (&kind == &kMemory ? memoryPoints_ : callPoints_) += struck_;
        }
      }
    }
  }

  /// Runs one point; a second time if blocks are left, since the first run may have filled a cache.
  void at(const Kind& kind, unsigned nth, int error, unsigned times) {
    std::snprintf(point, sizeof(point), "%s: %s %u (%s), %s, %s", name_, kind.name, nth,
                  error != 0 ? strerrorname_np(error) : "none", times > 1 ? "for ever" : "once",
                  traced_ ? "traces on" : "traces off");
    for (int attempt = 0; attempt < 2; ++attempt) {
      alarm(kSecondsOfAPoint);
      *wrong_ = '\0';
      const std::size_t descriptors = ownDescriptors();
      const std::int64_t blocks = AllocationCounter::live();
      runOnce(kind, nth, error, times);
      const std::int64_t lost = AllocationCounter::live() - blocks;
      EXPECT_STREQ(wrong_, "") << point;
      EXPECT_EQ(currentNetNs(), home_) << point;
      EXPECT_EQ(ownDescriptors(), descriptors) << point;
      if (lost == 0) break;
      EXPECT_EQ(attempt, 0) << point << ": " << lost << " blocks of memory are left";
    }
    if (copies_ > 500) closeCopies();
  }

  void runOnce(const Kind& kind, unsigned nth, int error, unsigned times) {
    const Scenario scenario = make_();
    const auto run = [&] {
      &kind == &kMemory ? lacking(scenario, nth, times) : failing(scenario, kind, nth, error, times);
    };
    ownThread_ ? std::thread(run).join() : run();
    guarded("usable", false, scenario.usable);
  }
  void lacking(const Scenario& scenario, unsigned nth, unsigned times) {
    const AllocationCounter counter;
    {
      const AllocationRefusal refusal(nth, times, memory_ == Memory::ofNew);
      guarded("run", times > 0, [&] { return scenario.run(), true; });
    }
    seen_ = counter.allocations();
    struck_ = AllocationRefusal::refused() > 0;
  }
  void failing(const Scenario& scenario, const Kind& kind, unsigned nth, int error, unsigned times) {
    seen_ = 0;
    struck_ = false;
    const Fault fault(kind.call, [&, thread = std::this_thread::get_id()] {
      if (std::this_thread::get_id() != thread) return Mishap{};
      const bool now = ++seen_ >= nth && seen_ - nth < times;
      // The way back from a namespace does not fail: that ends the process.
      const bool strikes = now && (kind.call != Call::setns || currentNetNs() == home_);
      struck_ |= strikes;
      return strikes ? Mishap{error} : Mishap{};
    });
    guarded("run", times > 0, [&] { return scenario.run(), true; });
  }
  /// Records a failure in `wrong_`, which takes no memory.
  template <typename Action>
  void guarded(const char* what, bool mayThrow, const Action& action) {
    try {
      if (!action()) std::snprintf(wrong_, sizeof(wrong_), "%s: no", what);
    } catch (const std::exception& failure) {
      if (!mayThrow) std::snprintf(wrong_, sizeof(wrong_), "%s: %s", what, failure.what());
    }
  }

  /// Open descriptors, once the deferred closer has nothing left to close.
  std::size_t ownDescriptors() {
    const auto& stats = *Wirl::deferCloseStats();
    while (stats.enqueued != stats.closed) std::this_thread::yield();
    Kiv::activityLoop();
    std::size_t own = 0;
    copies_ = 0;
    for (const auto& each : std::filesystem::directory_iterator("/proc/self/fd")) {
      ++(std::stoi(each.path().filename()) < kCopies ? own : copies_);
    }
    return own;
  }

  /// The kernel needs milliseconds to close a packet socket, but closes many at the same time.
  void closeCopies() {
    std::vector<std::future<void>> closers;
    for (int first = 0; first < 64; ++first) {
      closers.push_back(std::async(std::launch::async, [&, first] {
        for (std::size_t i = 0; i < copies_ / 64 + 2; ++i) close(kCopies + first + static_cast<int>(i) * 64);
      }));
    }
  }

  const char* const name_;
  const std::function<Scenario()>& make_;
  const Memory memory_;
  const bool ownThread_;
  const unsigned long long home_;
  bool traced_ = false;
  // Of the current run: how many calls or allocations, whether one failed, and what went wrong.
  std::uint64_t seen_ = 0;
  bool struck_ = false;
  char wrong_[200] = "";
  std::size_t copies_ = 0;
  unsigned memoryPoints_ = 0, callPoints_ = 0;
};

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer hides half of the allocations from the counter; it looks for other faults.
constexpr bool kSweeps = false;
#else
constexpr bool kSweeps = true;
#endif

}  // namespace

void sweep(const char* name, const std::function<Scenario()>& make, Memory memory) {
  if (kSweeps) Sweep(name, make, memory, false).all();
}

void sweepInThread(const char* name, const std::function<Scenario()>& make) {
  if (kSweeps) Sweep(name, make, Memory::ofNew, true).all();
}
